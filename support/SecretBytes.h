#pragma once

#include <cstddef>
#include <new>
#include <vector>

/**
 * Whole pages that keep a secret to the process that got them: a forked child finds zeros there, so that no
 * worker takes along what was meant for another, and a core file leaves them out. They are cleared before
 * anybody else has them. For one thread.
 */
namespace SecretPages
{
/** Null when there is no memory. */
void* Allocate(std::size_t bytes);
void Free(void* pages, std::size_t bytes);
} // namespace SecretPages

/** For the library's containers; like their own allocator it throws when there is no memory. */
template <class T>
struct SecretAllocator {
    using value_type = T;

    SecretAllocator() = default;
    template <class Other>
    SecretAllocator(const SecretAllocator<Other>&)
    {
    }

    T* allocate(std::size_t count)
    {
        void* const pages = SecretPages::Allocate(count * sizeof(T));
        if (pages == nullptr)
            throw std::bad_alloc();
        return static_cast<T*>(pages);
    }
    void deallocate(T* pages, std::size_t count) { SecretPages::Free(pages, count * sizeof(T)); }

    friend bool operator==(const SecretAllocator&, const SecretAllocator&) { return true; }
};

/** Bytes that may hold a password. Not a string, which would keep a short one within itself. */
using SecretBytes = std::vector<char, SecretAllocator<char>>;
