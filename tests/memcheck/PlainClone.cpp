// In the build for valgrind, which knows a clone only as a thread or as a vfork, and runs the latter as a
// fork: the child of a clone gets a table of descriptors of its own.

#include <cstddef>

#include <dlfcn.h>
#include <sched.h>

extern "C" int clone(int (*entry)(void*), void* stack, int flags, void* argument, ...) noexcept
{
    using Call = int (*)(int (*)(void*), void*, int, void*, ...);
    static const auto next = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "clone"));
    return next(entry, stack, flags & ~CLONE_FILES, argument);
}
