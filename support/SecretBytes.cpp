#include "support/SecretBytes.h"

#include <sys/mman.h>

namespace SecretPages
{
void* Allocate(std::size_t bytes)
{
    void* const pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED)
        return nullptr;
    madvise(pages, bytes, MADV_WIPEONFORK);
    madvise(pages, bytes, MADV_DONTDUMP);
    return pages;
}

void Free(void* pages, std::size_t bytes)
{
    munmap(pages, bytes);
}
} // namespace SecretPages
