#include "connections/WriterReader.h"

#include <cerrno>
#include <cstring>

#include "support/Clock.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace
{
// A worker uses the board as its client's user, and the system checks the right to alter the semaphore at
// each call: hence "others".
constexpr int Permissions = 0622;

char* const NotAttached = reinterpret_cast<char*>(-1);

union SemaphoreArgument {
    int value;
    semid_ds* description;
    unsigned short* values;
};

/** 0, else -1 with errno; waits until the deadline (microseconds), not at all when it has passed. */
int Operate(int semaphoreSet, short change, long long deadline)
{
    // Undo: the system gives back for a worker that dies while it holds the board.
    for (short flags = SEM_UNDO | IPC_NOWAIT;; flags = SEM_UNDO) {
        const long long left = deadline - Clock::SteadyMicroseconds();
        if (left <= 0)
            flags = SEM_UNDO | IPC_NOWAIT;
        const timespec wait = {left / 1'000'000, (left % 1'000'000) * 1000};
        sembuf operation = {0, change, flags};
        if (semtimedop(semaphoreSet, &operation, 1, (flags & IPC_NOWAIT) != 0 ? nullptr : &wait) == 0)
            return 0;
        if (errno != EINTR && (errno != EAGAIN || left <= 0))
            return -1;
    }
}
} // namespace

WriterReader::WriterReader(const unsigned& size) : slot_(NotAttached)
{
    if (size == 0 || size > static_cast<unsigned>(INT32_MAX))
        return;
    size_ = static_cast<int>(size);
    MakeSemaphore();
    if (semaphoreSet_ != -1)
        MakeSegment();
    if (slot_ == NotAttached)
        return;
    memset(slot_, 0, size);
    status_ = 0;
}

void WriterReader::MakeSemaphore()
{
    const int set = semget(IPC_PRIVATE, 1, Permissions);
    if (set == -1)
        return;
    SemaphoreArgument argument{};
    argument.value = 1;
    if (semctl(set, 0, SETVAL, argument) == -1)
        semctl(set, 0, IPC_RMID, SemaphoreArgument{});
    else
        semaphoreSet_ = set;
}

void WriterReader::MakeSegment()
{
    const int segment = shmget(IPC_PRIVATE, static_cast<std::size_t>(size_), Permissions);
    if (segment == -1)
        return;
    shmid_ds description;
    if (shmctl(segment, IPC_STAT, &description) == 0 && description.shm_nattch == 0) {
        shmctl(segment, SHM_LOCK, nullptr); // keeps it in memory where that is allowed
        // The flags look like permissions; they ask for an ordinary attachment for reading and writing.
        slot_ = static_cast<char*>(shmat(segment, nullptr, 0600));
    }
    // Attached or not, it is to go with its last user, even if this process is killed.
    shmctl(segment, IPC_RMID, nullptr);
}

WriterReader::~WriterReader()
{
    if (slot_ != NotAttached)
        shmdt(slot_);
    if (semaphoreSet_ != -1)
        semctl(semaphoreSet_, 0, IPC_RMID, SemaphoreArgument{});
}

int WriterReader::Lock(const long long& limitMicroseconds)
{
    return Operate(semaphoreSet_, -1, Clock::SteadyMicroseconds() + limitMicroseconds);
}

int WriterReader::Unlock()
{
    return Operate(semaphoreSet_, 1, Clock::SteadyMicroseconds());
}

int WriterReader::Write(const QORUnicodeString& text)
{
    if (status_ != 0 || Lock() != 0)
        return 0;
    int count = text.GetLengthInByte();
    if (count > size_ - 1)
        count = size_ - 1;
    memcpy(slot_, text.ConvertToChar(), static_cast<std::size_t>(count));
    slot_[count] = '\0';
    Unlock();
    return count;
}

int WriterReader::Read(QORUnicodeString& text)
{
    long long limit = DefaultLockMicroseconds;
    return Read(text, limit);
}

int WriterReader::Read(QORUnicodeString& text, long long& limitMicroseconds)
{
    text.Reset();
    if (status_ != 0)
        return 0;
    const long long begin = Clock::SteadyMicroseconds();
    const bool isLocked = Lock(limitMicroseconds) == 0;
    limitMicroseconds -= Clock::SteadyMicroseconds() - begin;
    if (!isLocked)
        return 0;
    text = QORUnicodeString(std::string_view(slot_, strnlen(slot_, static_cast<std::size_t>(size_))));
    Unlock();
    return text.GetLengthInByte();
}
