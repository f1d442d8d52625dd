#include "connections/UnfinishedFile.h"

#include <atomic>
#include <cstdio>

#include <unistd.h>

namespace
{
// What the handler needs: a handler has no other way to an object.
std::atomic<const char*> watchedPath{nullptr};
static_assert(std::atomic<const char*>::is_always_lock_free);

extern "C" void RemoveAndEnd(int signal)
{
    if (const char* path = watchedPath.load())
        unlink(path);
    // The handler was for once: the signal takes its default effect when this one returns.
    raise(signal);
}
} // namespace

TerminationHold::TerminationHold()
{
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigprocmask(SIG_BLOCK, &termination, &before_);
}

TerminationHold::~TerminationHold()
{
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

void UnfinishedFile::Watch()
{
    watchedPath = path_;
    struct sigaction action = {};
    action.sa_handler = RemoveAndEnd;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGTERM, &action, nullptr);
}

void UnfinishedFile::Remove()
{
    if (watchedPath == path_)
        remove(path_);
    Abandon();
}

void UnfinishedFile::Abandon()
{
    watchedPath = nullptr;
}

UnfinishedFile::~UnfinishedFile()
{
    Abandon();
}
