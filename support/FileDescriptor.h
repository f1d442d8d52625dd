#pragma once

#include <utility>

#include <unistd.h>

/** Owns one descriptor, or none (-1), and closes it. */
class FileDescriptor
{
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) : number_(number) {}
    FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept
    {
        std::swap(number_, other.number_);
        return *this;
    }
    ~FileDescriptor()
    {
        if (number_ >= 0)
            close(number_);
    }

    int Number() const { return number_; }
    bool IsOpen() const { return number_ >= 0; }

private:
    int number_ = -1;
};
