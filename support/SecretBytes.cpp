#include "support/SecretBytes.h"

#include <array>
#include <cstring>

#include <sys/mman.h>

namespace
{
// What most requests take is kept for the next ones: setting pages up costs four calls and a fault.
constexpr std::size_t UsualBytes = 4096;
std::array<void*, 32> kept;
std::size_t keptCount = 0;
} // namespace

namespace SecretPages
{
void* Allocate(std::size_t bytes)
{
    if (bytes == UsualBytes && keptCount > 0)
        return kept[--keptCount];
    void* const pages = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED)
        return nullptr;
    madvise(pages, bytes, MADV_WIPEONFORK);
    madvise(pages, bytes, MADV_DONTDUMP);
    return pages;
}

void Free(void* pages, std::size_t bytes)
{
    if (bytes != UsualBytes || keptCount == kept.size()) {
        munmap(pages, bytes);
        return;
    }
    explicit_bzero(pages, bytes);
    kept[keptCount++] = pages;
}
} // namespace SecretPages
