#pragma once

#include <cstddef>

/**
 * Owns the descriptor of one open file. Interrupted and short calls are handled inside; after a failure errno
 * has the reason.
 */
class OpenFile
{
public:
    /**
     * How many bytes of a file are best moved at a time: few calls, and all still in the processor's cache
     * when they are passed on. Too many for the stack, which whoever starts the daemon may have limited.
     */
    static constexpr std::size_t BlockSize = 524288;

    explicit OpenFile(int descriptor = -1) : descriptor_(descriptor) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile(OpenFile&& other) noexcept;
    OpenFile& operator=(OpenFile&& other) noexcept;
    ~OpenFile();

    int Number() const { return descriptor_; }
    bool IsOpen() const { return descriptor_ >= 0; }
    /** Size in bytes, or -1; the file is at its start then. */
    long long FindSize();
    bool IsRegular() const;
    /** Number of bytes read, fewer than `length` only at the end of the file; -1 on failure. */
    long Read(char* buffer, std::size_t length);
    /** The same for what is there, once it is more than nothing: 0 only at the end of the file. */
    long ReadSome(char* buffer, std::size_t length);
    /** 0 when everything was written, else -1. */
    int Write(const char* buffer, std::size_t length);
    /** 0 when the file goes on at so many bytes from its start, else -1. */
    int MoveTo(long long offset);
    /** 0 when the file is back at its start, else -1. */
    int Rewind() { return MoveTo(0); }
    /** Takes O_NONBLOCK off what was opened with it: 0, else -1. */
    int SetBlocking();
    /** 0, or -1 when the system tells only now that what was written could not be kept. */
    int Close();

private:
    int descriptor_;
};
