#pragma once

#include <memory>

#include "connections/Connection.h"
#include "connections/WriterReader.h"
#include "support/ChildStart.h"
#include "support/ChildTable.h"
#include "support/FileDescriptor.h"
#include "support/QORLists.h"

/**
 * The base of the connections whose work is done by a worker: a process forked from the daemon that runs
 * ThreadOrProcessRoutine() on its own copy of the object and ends with its result as exit code.
 *
 * The daemon calls everything but the routine, which runs in the worker only. States: idle (worker process
 * id 0) and running; a check or wait that finds the end, or a reset, leads back to idle. The status board
 * lives from the first start to the destruction. Destruction signals and reaps nobody.
 *
 * The worker has a session of its own: a terminal's interrupt reaches only the daemon, which decides, and no
 * file that a client names is the terminal that the daemon was started on. It holds the daemon's standard
 * streams and its own client's socket, nothing else.
 */
class ThreadOrProcessConnection : public Connection
{
public:
    ~ThreadOrProcessConnection() override;

    /** The work itself, in the worker. The result, 0 to 255, is the worker's exit code. */
    virtual int ThreadOrProcessRoutine() = 0;

    /** 0 when a worker runs (started now or already), 1 when none could be started. */
    int StartThreadOrProcess(QORListPtrBaseSocket& socketsToClose);
    /** 1 when there is no worker any more, with its status; 0 while it runs. Makes no system call. */
    int CheckThreadOrProcess(int& status);
    /**
     * Opposite sense to BaseProcess::WaitForProcess: 1 when the worker has ended within the time (seconds,
     * negative is without limit), with its status; 0 when it still runs.
     */
    int WaitThreadOrProcess(int& status, const int& timeOut);
    /** What a check would find, without asking: false also when there is no worker. */
    bool IsWorkerRunning() const { return ChildTable::IsRunning(worker_); }
    /** Signals the worker: kill when `force` is not 0, else terminate. 0 when sent or nobody is there. */
    int TerminateThreadOrProcess(const int& force);
    /** Forgets the worker without signalling it. */
    void ResetThreadOrProcess();

    /** 0 when there is no worker. */
    long GetWorkerProcessId() const { return worker_.processId; }
    /** The status that the last worker's end was reported with; 0 before that. */
    const int& GetLastWorkerStatus() const { return lastStatus_; }

protected:
    enum class BoardUse { WithBoard, WithoutBoard };

    explicit ThreadOrProcessConnection(BoardUse use = BoardUse::WithBoard) : boardUse_(use) {}

    /**
     * Starts a worker and closes the socket here, both before the worker does anything: so that the worker's
     * close is the last. 0; or 1 and the socket is still open.
     */
    int HandSocketToWorker(QORListPtrBaseSocket& socketsToClose);
    int _InitThreadOrProcess(ChildId& worker, int (ThreadOrProcessConnection::*routine)(),
                             QORListPtrBaseSocket* socketsToClose);
    int _CheckThreadOrProcess(ChildId& worker, int& status);
    int _WaitThreadOrProcess(ChildId& worker, int& status, const int& timeOut);

    /** Null when there is none: the work is then done all the same. */
    WriterReader* GetStatusBoard() const { return statusBoard_.get(); }
    /** Appends ", STATUS(...)" when the board has a text; takes the time waited off the limit. */
    void AppendStatus(QORUnicodeString& line, long long& limitMicroseconds) const;

private:
    void MakeStatusBoard();
    /** What a worker begins with. */
    struct Work;
    static void BeginWork(void* work);
    void TakeHandover(const ChildStart::Handover& handover);
    void WaitUntilReleased();
    [[noreturn]] void RunInWorker(const Work& work);

    ChildId worker_;
    std::unique_ptr<WriterReader> statusBoard_;
    BoardUse boardUse_;
    int lastStatus_ = 0;
    /** Both ends of a pipe while a socket is being handed over: the worker waits for its end. */
    FileDescriptor release_[2];
};
