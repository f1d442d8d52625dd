#include "connections/ThreadOrProcessConnection.h"

#include <cerrno>
#include <cstdio>
#include <new>

#include "connections/WorkerStatus.h"
#include "protocol/ConnectionTexts.h"
#include "support/BaseString.h"
#include "support/ChildStart.h"
#include "support/ProcessSetup.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

namespace
{
constexpr unsigned StatusBoardSize = 4096;
constexpr int ExitWithoutRoutine = 111;
constexpr int ExitOutOfMemory = 112;

void TellForkFailure()
{
    // The daemon must not wait for whoever reads its error stream.
    pollfd errors = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&errors, 1, 0) == 1 && (errors.revents & POLLOUT) != 0)
        perror("Error in _InitThreadOrProcess() : unable to create process");
}

/**
 * Leaves the worker its standard streams and its own client's socket. The listed sockets go with everything
 * else in one call, however many there are; one by one only where the system has no such call. The sockets
 * themselves stay as they are: only this process' descriptors go.
 */
void CloseDescriptors(int kept, QORListPtrBaseSocket* sockets)
{
    if (ProcessSetup::CloseAllDescriptorsBut(kept) == 0)
        return;
    for (int i = 1; sockets != nullptr && i <= sockets->Size(); ++i) {
        const BaseSocket* socket = (*sockets)[i];
        if (socket != nullptr && socket->GetBaseSocketStatus() != 0)
            close(socket->GetBaseSocketNumber());
    }
}
} // namespace

struct ThreadOrProcessConnection::Work {
    ThreadOrProcessConnection& connection;
    int (ThreadOrProcessConnection::*routine)();
    QORListPtrBaseSocket* socketsToClose;
    long daemonProcessId;
    const ChildStart::Handover& handover;
};

ThreadOrProcessConnection::~ThreadOrProcessConnection()
{
    ChildTable::Forget(worker_);
}

int ThreadOrProcessConnection::StartThreadOrProcess(QORListPtrBaseSocket& socketsToClose)
{
    if (_InitThreadOrProcess(worker_, &ThreadOrProcessConnection::ThreadOrProcessRoutine, &socketsToClose) ==
        0)
        return 0;
    BaseString::PutTrace("Error in StartThreadOrProcess() : unable to start ThreadOrProcessRoutine", 1);
    return 1;
}

int ThreadOrProcessConnection::CheckThreadOrProcess(int& status)
{
    return _CheckThreadOrProcess(worker_, status);
}

int ThreadOrProcessConnection::WaitThreadOrProcess(int& status, const int& timeOut)
{
    return _WaitThreadOrProcess(worker_, status, timeOut);
}

int ThreadOrProcessConnection::TerminateThreadOrProcess(const int& force)
{
    // One that the table calls ended is not signalled: its id may be another's by now.
    if (worker_.IsNone() || !ChildTable::IsRunning(worker_))
        return 0;
    if (kill(static_cast<pid_t>(worker_.processId), force != 0 ? SIGKILL : SIGTERM) == 0)
        return 0;
    BaseString::PutTrace("Error in TerminateThreadOrProcess() : unable to kill process", 1);
    return 1;
}

void ThreadOrProcessConnection::ResetThreadOrProcess()
{
    ChildTable::Forget(worker_);
    worker_ = ChildId();
}

int ThreadOrProcessConnection::HandSocketToWorker(QORListPtrBaseSocket& socketsToClose)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return 1;
    release_[0] = FileDescriptor(ends[0]);
    release_[1] = FileDescriptor(ends[1]);
    const int result = StartThreadOrProcess(socketsToClose);
    if (result == 0)
        GetSocket().CloseBaseSocket();
    for (FileDescriptor& end : release_)
        end = FileDescriptor();
    return result;
}

/** In the worker: what it has been handed goes by other numbers here. */
void ThreadOrProcessConnection::TakeHandover(const ChildStart::Handover& handover)
{
    if (!handover.IsSparing())
        return;
    GetSocket().Renumber(handover.First());
    if (release_[0].IsOpen())
        release_[0] = FileDescriptor(handover.Second());
}

/** In the worker: until the daemon has let go of what it hands over. */
void ThreadOrProcessConnection::WaitUntilReleased()
{
    if (!release_[0].IsOpen())
        return;
    release_[1] = FileDescriptor();
    char nothing;
    while (read(release_[0].Number(), &nothing, 1) < 0 && errno == EINTR)
        ;
}

int ThreadOrProcessConnection::_InitThreadOrProcess(ChildId& worker,
                                                    int (ThreadOrProcessConnection::*routine)(),
                                                    QORListPtrBaseSocket* socketsToClose)
{
    MakeStatusBoard();
    if (!worker.IsNone())
        return 0;
    ChildTable::Prepare();
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &before);
    const ChildStart::Handover handover(ChildStart::Memory::Copied, GetSocket().GetBaseSocketNumber(),
                                        release_[0].Number());
    Work work{*this, routine, socketsToClose, getpid(), handover};
    const pid_t processId = handover.Start(BeginWork, &work);
    const int error = errno;
    sigprocmask(SIG_SETMASK, &before, nullptr);
    if (processId < 0) {
        errno = error;
        TellForkFailure();
        return 1;
    }
    worker = ChildTable::Enter(processId);
    return 0;
}

void ThreadOrProcessConnection::MakeStatusBoard()
{
    if (statusBoard_ != nullptr || boardUse_ == BoardUse::WithoutBoard)
        return;
    statusBoard_ = std::make_unique<WriterReader>(StatusBoardSize);
    if (statusBoard_->GetStatus() == -1)
        statusBoard_.reset();
}

void ThreadOrProcessConnection::BeginWork(void* work)
{
    // Past this frame the worker would go on as a second daemon.
    try {
        static_cast<Work*>(work)->connection.RunInWorker(*static_cast<Work*>(work));
    } catch (const std::bad_alloc&) {
        BaseString::PutTrace("Error out of memory in a worker", 1);
    }
    _exit(ExitOutOfMemory);
}

void ThreadOrProcessConnection::RunInWorker(const Work& work)
{
    // Signals first: an end asked for in the meantime takes effect here. Then nothing of the daemon's: its
    // terminal, its children, its clients.
    ProcessSetup::RestoreInChild(false);
    setsid();
    ChildTable::Clear();
    TakeHandover(work.handover);
    WaitUntilReleased();
    CloseDescriptors(GetSocket().GetBaseSocketNumber(), work.socketsToClose);
    if (work.routine == nullptr)
        _exit(ExitWithoutRoutine);
    const int result = (this->*work.routine)();
    if (GetSocket().GetBaseSocketStatus() != 0)
        close(GetSocket().GetBaseSocketNumber());
    // The board is the daemon's to remove, unless the daemon has gone before its worker.
    if (getppid() != work.daemonProcessId)
        statusBoard_.reset();
    // Not exit(): what the daemon has registered or not yet flushed is the daemon's.
    _exit(result);
}

int ThreadOrProcessConnection::_CheckThreadOrProcess(ChildId& worker, int& status)
{
    status = 0;
    if (worker.IsNone())
        return 1;
    int waitStatus = 0;
    const ChildState state = ChildTable::Ask(worker, waitStatus);
    if (state == ChildState::Running)
        return 0;
    if (state == ChildState::Unknown)
        BaseString::PutTrace("Error in _CheckThreadOrProcess() : waitpid failed", 1);
    worker = ChildId();
    status = state == ChildState::Ended ? WorkerStatus::AfterCheck(waitStatus) : WorkerStatus::NotReaped;
    lastStatus_ = status;
    return 1;
}

int ThreadOrProcessConnection::_WaitThreadOrProcess(ChildId& worker, int& status, const int& timeOut)
{
    status = 0;
    if (worker.IsNone())
        return 1;
    int waitStatus = 0;
    const ChildState state = ChildTable::Wait(worker, waitStatus, timeOut < 0 ? -1 : timeOut * 1000LL);
    if (state == ChildState::Running)
        return 0;
    if (state == ChildState::Unknown)
        BaseString::PutTrace("Error in _WaitThreadOrProcess() : waitpid failed", 1);
    worker = ChildId();
    status = state == ChildState::Ended ? WorkerStatus::AfterWait(waitStatus) : WorkerStatus::NotReaped;
    lastStatus_ = status;
    return 1;
}

void ThreadOrProcessConnection::AppendStatus(QORUnicodeString& line, long long& limitMicroseconds) const
{
    QORUnicodeString status;
    if (statusBoard_ != nullptr && statusBoard_->Read(status, limitMicroseconds) > 0)
        line.Append(protocol::StatusAttribute(status.View()));
}
