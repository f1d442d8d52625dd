#pragma once

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

/** A folder of its own in memory, removed with all that is in it. */
class MemoryFolder
{
public:
    MemoryFolder();
    MemoryFolder(const MemoryFolder&) = delete;
    MemoryFolder& operator=(const MemoryFolder&) = delete;
    ~MemoryFolder();

    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

/** A child process of the benchmark: asked to end, and waited for, with the object. */
class Child
{
public:
    /** Runs the program with null input, its output and errors in the file, or thrown away without one. */
    explicit Child(const std::vector<std::string>& arguments, const std::string& output = "/dev/null");
    /** Runs the function in a copy of this process. */
    explicit Child(const std::function<void()>& run);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child();

    pid_t Id() const { return id_; }
    bool HasEnded();
    /** Waits for its end and throws unless that was good; the processor time that it has used, seconds. */
    double WaitForEnd();

private:
    pid_t id_ = -1;
    std::string name_;
};

/** Runs the program to its good end. */
void Run(const std::vector<std::string>& arguments);
