// Between the start of a child that borrows its parent's memory and its exec or end only what is
// async-signal-safe may be called.

#include "support/ChildStart.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <iterator>

#include <fcntl.h>
#include <linux/close_range.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{
/** A descriptor of this number tells that so many are open: copying that table costs more than a helper. */
constexpr int HelperPays = 512;
constexpr int CannotStart = 126; // exit code of a child that has nowhere to say more
/** Stack of a child while its memory is borrowed, a part of the parent's own: there tools expect one, and
 * from there the way back into the parent's frames is an ordinary return. */
constexpr std::size_t StackSize = 128 * 1024;

int reserved[] = {-1, -1}; // the low numbers, in ascending order
int placeholder = -1;      // what is open at them meanwhile

/** What a child is told in its parent's memory. */
struct Order {
    void (*run)(void*);
    void* argument;
    bool isSparing;
    /** The helper's answer: the child's id, or -1 with the error. */
    pid_t processId;
    int error;
    /** Where the helper's child goes on, in its copy of the frames of the helper's parent. */
    jmp_buf start = {};
};

/** Gives up the parent's table for a copy of as little as can be. */
void TakeOwnTable()
{
    const auto behind = static_cast<unsigned>(reserved[1] + 1);
    if (close_range(behind, ~0U, CLOSE_RANGE_UNSHARE) != 0 && unshare(CLONE_FILES) != 0)
        _exit(CannotStart); // whatever it opened or closed would be the parent's
}

int RunBorrowing(void* pointer)
{
    const Order& order = *static_cast<Order*>(pointer);
    if (order.isSparing)
        TakeOwnTable();
    order.run(order.argument);
    _exit(CannotStart);
}

/** The helper: from its small table the child is copied, as a child of the helper's parent. */
int RunHelper(void* pointer)
{
    Order& order = *static_cast<Order*>(pointer);
    TakeOwnTable();
    order.processId = static_cast<pid_t>(syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0, 0, 0, 0));
    if (order.processId == 0)
        longjmp(order.start, 1); // it may run for long, and needs more than the helper's stack
    order.error = errno;
    _exit(0);
}

/** Lets the stack grow now by what Clone() takes: where memory is short it could not any more, and a stack
 * that cannot grow is a crash. Only its far end is touched. */
[[gnu::noinline]] void ReserveStack()
{
    char room[StackSize + 64 * 1024];
    *const_cast<volatile char*>(room) = 0;
}

/** Runs `entry` in a child that shares memory and table; it has executed a program or ended afterwards. */
pid_t Clone(int (*entry)(void*), Order& order)
{
    alignas(16) char stack[StackSize];
    const int sharing = CLONE_VM | CLONE_VFORK | (order.isSparing ? CLONE_FILES : 0);
    return clone(entry, stack + StackSize, sharing | SIGCHLD, &order);
}

pid_t StartWithHelper(Order& order)
{
    if (setjmp(order.start) != 0) {
        order.run(order.argument);
        _exit(CannotStart);
    }
    const pid_t helper = Clone(RunHelper, order);
    if (helper < 0)
        return -1;
    while (waitpid(helper, nullptr, 0) < 0 && errno == EINTR)
        ;
    errno = order.error;
    return order.processId;
}
} // namespace

namespace ChildStart
{
void Prepare()
{
    ReserveStack();
    int numbers[3];
    for (int& number : numbers)
        if ((number = open("/dev/null", O_RDWR | O_CLOEXEC)) < 0)
            return;
    std::sort(std::begin(numbers), std::end(numbers));
    reserved[0] = numbers[0];
    reserved[1] = numbers[1];
    placeholder = numbers[2];
}

Handover::Handover(Memory memory, int first, int second) : memory_(memory), first_(first), second_(second)
{
    if (placeholder < 0 || (memory == Memory::Copied && std::max(first, second) < HelperPays))
        return;
    if ((first >= 0 && dup3(first, reserved[0], O_CLOEXEC) < 0) ||
        (second >= 0 && dup3(second, reserved[1], O_CLOEXEC) < 0))
        return;
    isSparing_ = true;
    first_ = first < 0 ? -1 : reserved[0];
    second_ = second < 0 ? -1 : reserved[1];
}

Handover::~Handover()
{
    if (placeholder < 0)
        return;
    // What was handed over must not stay open here. This needs no further descriptor.
    for (const int number : reserved)
        dup3(placeholder, number, O_CLOEXEC);
}

pid_t Handover::Start(void (*run)(void*), void* argument) const
{
    Order order{run, argument, isSparing_, -1, EAGAIN};
    if (memory_ == Memory::Borrowed)
        return Clone(RunBorrowing, order);
    if (isSparing_)
        return StartWithHelper(order);
    const pid_t processId = fork();
    if (processId == 0) {
        run(argument);
        _exit(CannotStart);
    }
    return processId;
}
} // namespace ChildStart
