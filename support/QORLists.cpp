#include "support/QORLists.h"

void QORListValQORUnicodeString::RemoveAll(QORCollec::MemoryHandling handling)
{
    texts_.clear();
    if (handling == QORCollec::ReleaseMemory)
        texts_.shrink_to_fit();
}
