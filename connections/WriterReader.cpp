#include "connections/WriterReader.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "support/Clock.h"
#include "support/ProcessFiles.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

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

/**
 * The values of a board's set: the lock, open; two that say that it is a board; then who made it, which is a
 * process id, when that process began, and the namespace of both, in halves as a value has 15 bits.
 */
using BoardMark = std::array<unsigned short, 9>;
constexpr unsigned short BoardWords[] = {0x5276, 0x4264};

void PutHalves(unsigned long long number, unsigned short* halves)
{
    halves[0] = static_cast<unsigned short>(number & 0x7FFF);
    halves[1] = static_cast<unsigned short>(number >> 15 & 0x7FFF);
}

/** Of boards that this process makes; all 0 where it cannot be told who this is. */
BoardMark MakeMark(pid_t process, unsigned long long startTime)
{
    struct stat space = {};
    if (stat("/proc/self/ns/pid", &space) != 0)
        return {};
    BoardMark mark = {1, BoardWords[0], BoardWords[1]};
    PutHalves(static_cast<unsigned long long>(process), &mark[3]);
    PutHalves(startTime, &mark[5]);
    PutHalves(space.st_ino, &mark[7]);
    return mark;
}

const BoardMark& OwnMark()
{
    static BoardMark mark;
    static pid_t owner = 0;
    ProcessStatus status;
    if (owner != getpid() && ProcessFiles::ReadStatus(getpid(), status)) {
        owner = getpid();
        mark = MakeMark(owner, status.startTime);
    }
    return mark;
}

/** Whether the set that bears the mark was made by a process that has ended for certain. */
bool IsMakerGone(const BoardMark& mark)
{
    const auto process = static_cast<pid_t>(mark[3] | mark[4] << 15);
    ProcessStatus status;
    if (!ProcessFiles::ReadStatus(process, status))
        return kill(process, 0) != 0 && errno == ESRCH;
    if (status.HasEnded())
        return true;
    unsigned short startTime[2];
    PutHalves(status.startTime, startTime);
    return startTime[0] != mark[5] || startTime[1] != mark[6];
}

bool IsAbandonedBoard(int set, const semid_ds& description)
{
    const BoardMark& own = OwnMark();
    BoardMark mark{};
    SemaphoreArgument values{};
    values.values = mark.data();
    return description.sem_nsems == mark.size() && (description.sem_perm.mode & 0777) == Permissions &&
           description.sem_perm.cuid == geteuid() && semctl(set, 0, GETALL, values) == 0 &&
           own[1] == BoardWords[0] && mark[1] == BoardWords[0] && mark[2] == BoardWords[1] &&
           mark[7] == own[7] && mark[8] == own[8] && IsMakerGone(mark);
}

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
    BoardMark values = OwnMark();
    values[0] = 1;
    const int set = semget(IPC_PRIVATE, static_cast<int>(values.size()), Permissions);
    if (set == -1)
        return;
    SemaphoreArgument argument{};
    argument.values = values.data();
    if (semctl(set, 0, SETALL, argument) == -1)
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

void WriterReader::RemoveAbandoned()
{
    seminfo information;
    SemaphoreArgument argument{};
    argument.description = reinterpret_cast<semid_ds*>(&information);
    const int last = semctl(0, 0, SEM_INFO, argument);
    for (int i = 0; i <= last; ++i) {
        semid_ds description;
        argument.description = &description;
        const int set = semctl(i, 0, SEM_STAT, argument);
        if (set != -1 && IsAbandonedBoard(set, description))
            semctl(set, 0, IPC_RMID, SemaphoreArgument{});
    }
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
