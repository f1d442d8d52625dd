// Loaded into a daemon ahead of the C library, whose calls it takes the place of: each is counted and passed
// on, and the one that the plan names fails instead. Without a plan everything is passed on.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include "tests/faults/FaultPlan.h"

using faults::IndexOf;
using faults::Plan;

namespace
{
// One shape serves all calls here: each takes at most six arguments, integers or pointers, which this
// system's convention passes in registers whatever their types.
using Call = long (*)(long, long, long, long, long, long);
static_assert(sizeof(long) == sizeof(void*));

Plan* plan = nullptr;
int signalDescriptor = -1;

template <class Function = Call>
Function Next(const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

bool IsArmed()
{
    return plan != nullptr && plan->isArmed;
}

/** Counts a call: whether it is the one that fails. */
bool Fails(std::size_t kind)
{
    if (!IsArmed())
        return false;
    const faults::Place place = getpid() == plan->daemon ? faults::Place::Daemon : faults::Place::Child;
    const long number = ++plan->counts[static_cast<std::size_t>(place)][kind];
    if (plan->number != number || plan->kind != kind || plan->place != place)
        return false;
    plan->hasFailed = true;
    return true;
}

/** -1 with the planned error. */
long Refuse()
{
    errno = plan->error;
    return -1;
}

std::uint32_t Random()
{
    static std::uint32_t state = 2463534242;
    state ^= state << 13;
    state ^= state >> 17;
    return state ^= state << 5;
}

/** What can be interrupted is so now and then, before it has done anything. */
bool IsInterrupted()
{
    if (!IsArmed() || !plan->isStuttering || Random() % 3 != 0)
        return false;
    errno = EINTR;
    return true;
}

/** How many of so many bytes a read or write gets: at least one, now and then only that. */
long Part(long length)
{
    // A request and a reply are what one write delivers: the reads with room for one stay whole.
    constexpr long roomForRequest = 65536;
    if (!IsArmed() || !plan->isStuttering || length < 2 || length == roomForRequest)
        return length;
    const std::uint32_t choice = Random();
    return choice % 8 == 0 ? 1 : 1 + static_cast<long>(Random() % static_cast<std::uint32_t>(length));
}

__attribute__((constructor)) void MapPlan()
{
    const char* const file = getenv(faults::PlanVariable);
    const int descriptor = file == nullptr ? -1 : open(file, O_RDWR | O_CLOEXEC);
    // Nothing that the daemon runs is to be loaded with this.
    unsetenv("LD_PRELOAD");
    unsetenv(faults::PlanVariable);
    if (descriptor < 0)
        return;
    void* const shared = mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    if (shared == MAP_FAILED)
        return;
    plan = static_cast<Plan*>(shared);
    plan->daemon = getpid();
}
} // namespace

// The symbols are given by name, so that the C library's own declarations need not be matched.
#define RUVEL_DEFINE(NAME)                                                                                   \
    extern "C" long Faulty_##NAME(long, long, long, long, long, long) __asm__(#NAME);                        \
    extern "C" long Faulty_##NAME([[maybe_unused]] long a, [[maybe_unused]] long b, [[maybe_unused]] long c, \
                                  [[maybe_unused]] long d, [[maybe_unused]] long e, [[maybe_unused]] long f)
#define RUVEL_PASS_ON(NAME)                                                                                  \
    static const Call next = Next(#NAME);                                                                    \
    return next(a, b, c, d, e, f)

/** A call that fails with -1 and errno. */
#define RUVEL_CALL(NAME)                                                                                     \
    RUVEL_DEFINE(NAME)                                                                                       \
    {                                                                                                        \
        if (Fails(IndexOf(#NAME)))                                                                           \
            return Refuse();                                                                                 \
        RUVEL_PASS_ON(NAME);                                                                                 \
    }
#define RUVEL_FAIL_OR_INTERRUPT(NAME)                                                                        \
    if (Fails(IndexOf(#NAME)))                                                                               \
        return Refuse();                                                                                     \
    if (IsInterrupted())                                                                                     \
    return -1
/** The same, which can be interrupted. */
#define RUVEL_SLOW_CALL(NAME)                                                                                \
    RUVEL_DEFINE(NAME)                                                                                       \
    {                                                                                                        \
        RUVEL_FAIL_OR_INTERRUPT(NAME);                                                                       \
        RUVEL_PASS_ON(NAME);                                                                                 \
    }
/** The same, which moves bytes: the third argument says how many. */
#define RUVEL_TRANSFER(NAME)                                                                                 \
    RUVEL_DEFINE(NAME)                                                                                       \
    {                                                                                                        \
        RUVEL_FAIL_OR_INTERRUPT(NAME);                                                                       \
        c = a == signalDescriptor ? c : Part(c);                                                             \
        RUVEL_PASS_ON(NAME);                                                                                 \
    }
/** A call whose result is the error. */
#define RUVEL_CALL_WITH_CODE(NAME)                                                                           \
    RUVEL_DEFINE(NAME)                                                                                       \
    {                                                                                                        \
        if (Fails(IndexOf(#NAME)))                                                                           \
            return plan->error;                                                                              \
        RUVEL_PASS_ON(NAME);                                                                                 \
    }
/** A call that fails with a null pointer and errno. */
#define RUVEL_CALL_FOR_POINTER(NAME)                                                                         \
    RUVEL_DEFINE(NAME)                                                                                       \
    {                                                                                                        \
        if (Fails(IndexOf(#NAME)))                                                                           \
            return Refuse() + 1;                                                                             \
        RUVEL_PASS_ON(NAME);                                                                                 \
    }
/** A call of which one command, to remove, cannot fail; the argument with the command is given. */
#define RUVEL_CONTROL(NAME, COMMAND, REMOVAL)                                                                \
    RUVEL_DEFINE(NAME)                                                                                       \
    {                                                                                                        \
        if (static_cast<int>(COMMAND) != (REMOVAL) && Fails(IndexOf(#NAME)))                                 \
            return Refuse();                                                                                 \
        RUVEL_PASS_ON(NAME);                                                                                 \
    }

#define RUVEL_OF_ITS_OWN(NAME) // defined below
#define RUVEL_KIND(NAME, SHAPE, ...) RUVEL_##SHAPE(NAME)
#include "tests/faults/FaultKinds.inc"

RUVEL_CONTROL(epoll_ctl, b, EPOLL_CTL_DEL)
RUVEL_CONTROL(semctl, c, IPC_RMID)
RUVEL_CONTROL(shmctl, b, IPC_RMID)

/** Of the calls without a name of their own, a signal to a process that is there does not fail. */
RUVEL_DEFINE(syscall)
{
    if (a != SYS_pidfd_send_signal && Fails(IndexOf("syscall")))
        return Refuse();
    RUVEL_PASS_ON(syscall);
}

/** The descriptor goes, whatever close() says. */
RUVEL_DEFINE(close)
{
    static const Call next = Next("close");
    const long result = next(a, b, c, d, e, f);
    return Fails(IndexOf("close")) ? Refuse() : result;
}

/** Signals are read whole or not at all. */
RUVEL_DEFINE(signalfd)
{
    if (Fails(IndexOf("signalfd")))
        return Refuse();
    static const Call next = Next("signalfd");
    const long result = next(a, b, c, d, e, f);
    signalDescriptor = static_cast<int>(result);
    return result;
}

/** Half a minute between two attempts would be most of a run. */
extern "C" unsigned HastySleep(unsigned) __asm__("sleep");
extern "C" unsigned HastySleep(unsigned seconds)
{
    if (plan != nullptr)
        return static_cast<unsigned>(usleep(1000));
    static const auto next = Next<unsigned (*)(unsigned)>("sleep");
    return next(seconds);
}

extern "C" int ShiftedClock(clockid_t, timespec*) __asm__("clock_gettime");
extern "C" int ShiftedClock(clockid_t clock, timespec* time)
{
    static const auto next = Next<int (*)(clockid_t, timespec*)>("clock_gettime");
    const int result = next(clock, time);
    if (plan != nullptr && clock == CLOCK_REALTIME)
        time->tv_sec += plan->wallClockShift;
    return result;
}

void* operator new(std::size_t size)
{
    if (Fails(IndexOf("operator new")))
        throw std::bad_alloc();
    static const auto next = Next<void* (*)(std::size_t)>("_Znwm");
    return next(size);
}
