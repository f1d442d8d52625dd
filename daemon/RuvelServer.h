#pragma once

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "connections/BaseConnection.h"
#include "connections/FarewellConnection.h"
#include "connections/LogConnection.h"
#include "connections/ReportConnection.h"
#include "connections/TransferConnection.h"
#include "daemon/Ending.h"
#include "daemon/LeavingClients.h"
#include "daemon/Poller.h"
#include "daemon/UserChecks.h"
#include "daemon/WaitingClients.h"
#include "support/BaseSocket.h"
#include "support/QORLists.h"
#include "support/TurnShare.h"

#include <netinet/in.h>

/** Takes the element that is `connection` off the list and returns it, or null when it is not on it. */
template <class T>
T* TakeOff(QORListPtr<T>& list, const Connection* connection)
{
    // From the end, as what is short-lived is young.
    for (int i = list.Size(); i >= 1; --i) {
        T* const element = list[i];
        if (element != connection)
            continue;
        list.RemoveAt(i);
        return element;
    }
    return nullptr;
}

/**
 * The daemon: its mode, its listening socket, and everybody and everything that it looks after. There is
 * one, in MainLoop's frame, for the daemon's whole life. It has one thread; nothing that it calls while it
 * serves waits for anybody.
 *
 * It owns every connection on its lists. A command is on the command list from its start until it has been
 * reported; then its log goes on as a log connection until that is delivered. A client is in turn a waiting
 * client, part of a connection or of an ending, and a leaving client.
 *
 * States: closed; serving (MainDaemonLoop); stopping, after a Close or a termination signal, while what is
 * alive is ended; stopped.
 */
class RuvelServer
{
public:
    /** Stands between the fields of requests and of list-shaped answers. */
    static const char* const UniversalSeparator;
    /** Names this server: the banner. */
    static const char* const VersionAndRevision;

    RuvelServer();
    /** Closes the listening socket. The connections still on the lists are let go of, not ended. */
    ~RuvelServer();
    RuvelServer(const RuvelServer&) = delete;
    RuvelServer& operator=(const RuvelServer&) = delete;

    /** Single user mode: every command runs as the daemon's own user. */
    void SetSingleUser() { singleUser_ = 1; }
    /** No password is asked for. Only together with single user mode. */
    void SetNoPasswordCheck() { noPasswordCheck_ = 1; }

    /** Listens on the first free port of firstPort to firstPort + extraPorts and learns the host's name and
     * address. 0, or 1 with the reason traced and the socket closed. */
    int OpenRuvelServer(const int& firstPort, const int& extraPorts);
    void CloseRuvelServer();
    /** Blocks the whole daemon; only between attempts to open. As sleep(): the seconds that were left when it
     * was told to stop, else 0. */
    int RuvelServerSleep(const int& seconds);

    /**
     * Opens, serves until it is told to stop, and ends what is alive. `retryNumber` further attempts to
     * open, `retryTime` seconds apart (at least one). The process' exit status: 0 after an orderly stop, 1
     * when the daemon could not start.
     */
    int MainDaemonLoop(const int& port, const QORUnicodeString& logDirectory, const int& retryNumber,
                       const int& retryTime);

    // Each of these does as much as one turn has time for; the next turn then comes at once and goes on.
    /** Reports what has ended to whom it concerns. */
    void CheckForLaunchedCommand();
    /** Starts to end every command and transfer whose life time is over. */
    void CheckConnectionLife();
    /** Starts to end everything; AdvanceShutdown() carries it on. */
    void KillAllLaunchedCommand();
    /** Appends the sockets that a worker about to be forked must close. */
    void GetListOfSocketToClose(QORListPtrBaseSocket& sockets);
    /**
     * Gives the connection's client `text`. What its socket does not take at once is kept in order and sent
     * as it makes room. 0; 1 when the write failed, which is traced; -1 without a connection.
     */
    int WriteToBaseConnectionSocket(Connection* connection, const QORUnicodeString& text, const int& online);

private:
    using State = WaitingClient::State;
    using RequestKind = protocol::RequestKind;
    using CommandIndex = std::unordered_map<unsigned long long, BaseConnection*>;
    /** In an order, so that one turn can go on where another has stopped. */
    using EndingMap = std::map<const Connection*, std::unique_ptr<Ending>>;
    enum class Stop { No, Demanded, BeginningEnds, EndingWork, AwaitingLogs, EndingLogs, TakingLeave, Done };

    // Start-up and the turn (DaemonLoop.cpp).
    void ServeOneTurn();
    int PrepareToServe(int port, int retryNumber, int retryTime);
    void AwaitPort(int port);
    bool IsToldToStopBy(long long deadline);
    int OpenWithRetries(int port, int retryNumber, int retryTime);
    int ProbeDataPort();
    bool IsNothingAlive() const;
    void WaitForActivity();
    long long NextDeadline() const;
    void ReceiveSignals();
    void ReapChildren(bool childEnded);
    void ReapAllChildren();
    void AcceptClients();
    void ServeCompleteRequests();
    void PushAnswers();

    // Requests: understood, checked, served (Requests.cpp).
    struct Service {
        RequestKind kind;
        void (RuvelServer::*serve)(WaitingClient&);
        /** Tells the client that its user is refused, with the reason. */
        void (RuvelServer::*refuse)(WaitingClient&, const std::string& reason);
    };
    static const Service Services[];
    static const Service& ServiceOf(const WaitingClient& client);
    void Guarded(WaitingClient& client, void (RuvelServer::*step)(WaitingClient&));
    void ServeRequest(WaitingClient& client);
    void Understand(WaitingClient& client);
    bool AreArgumentsGood(WaitingClient& client);
    bool AreLaunchArgumentsGood(WaitingClient& client);
    bool AreTransferArgumentsGood(WaitingClient& client);
    bool IsOwnerAsked(WaitingClient& client);
    bool NeedsUserCheck(const WaitingClient& client) const;
    static void DropConverted(WaitingClient& client);
    void RefuseUsers();
    void RefuseUser(WaitingClient& client);
    static const char* RefusalReason(const WaitingClient& client);
    void RefuseLaunch(WaitingClient& client, const std::string& reason);
    void RefuseKill(WaitingClient& client, const std::string& reason);
    void RefuseBriefly(WaitingClient& client, const std::string& reason);
    void Answer(WaitingClient& client, const std::string& text);
    /** The client goes on as `connection`, and is gone from the waiting ones. */
    static void TakeSocket(WaitingClient& client, Connection& connection);
    /** The connection's client has been given everything: it leaves. */
    void Dismiss(Connection& connection) { leaving_.Take(connection); }

    // One family of requests each.
    void ServeLaunch(WaitingClient& client);
    void Describe(BaseConnection& command, const WaitingClient& client) const;
    CommandIndex::node_type MakeIndexEntry(BaseConnection& command);
    void TellIdentifier(BaseConnection& command);
    int StartCommand(BaseConnection& command, const LaunchArguments& arguments);
    QORUnicodeString NextLogFileName(bool isToBeMade) const;
    void ServeInfo(WaitingClient& client);
    void ServeAllInfo(WaitingClient& client);
    bool MakeRoomForReport();
    void ServeState(WaitingClient& client);
    std::string ListActiveWork();
    void ServeClose(WaitingClient& client);
    void ServeKill(WaitingClient& client);
    void ServeTransfer(WaitingClient& client);
    void StartRefusedTransfer(WaitingClient& client, const std::string& reason);
    void RefuseTransfer(WaitingClient& client, std::string_view text);
    bool IsInTransfer(const QORUnicodeString& file) const;
    void RefuseKillOf(WaitingClient& client, std::string_view lead, std::string_view end);
    void ServeUnknown(WaitingClient& client);

    // Supervision (Supervision.cpp).
    void CheckLogs();
    void CheckTransfers();
    void CheckCommands();
    void CheckReports();
    /** What a worker about to be forked closes one by one: nothing, where the system closes all at once. */
    QORListPtrBaseSocket ListSocketsForWorker();
    std::unique_ptr<BaseConnection> TakeCommand(BaseConnection* command);
    void ReportCommand(BaseConnection& command, int code);
    void CheckFarewells();
    void BidFarewell(BaseConnection& command, const QORUnicodeString& words);
    void StartFarewells();
    void NoteLifeTime(const Connection& connection);
    bool ExpireTransfers(long now, const TurnShare& share);
    bool ExpireCommands(long now, const TurnShare& share);

    // Ending work (Endings.cpp).
    bool IsBeingEnded(const Connection& connection) const { return endings_.contains(&connection); }
    /** It only waits to be reported: so it neither expires nor is there to be killed. */
    bool HasEndedByItself(const BaseConnection& command) const
    {
        return !command.GetProcess().IsRunning() && !IsBeingEnded(command);
    }
    template <class Work>
    void End(Work& work, EndingDemand demand);
    void EndWorkOf(BaseConnection& command, EndingDemand demand);
    void EndWorkOf(ThreadOrProcessConnection& worker, EndingDemand demand);
    void EndCommand(BaseConnection& command, EndingCause cause, std::string_view text);
    void EndTransfer(TransferConnection& transfer, EndingCause cause, std::string_view text);
    void AdvanceEndings();
    void AdvanceEnding(EndingMap::iterator current, const TurnShare& share);
    void AdvanceRemainders();
    void FinishGuarded(Ending& ending, EndingDemand& demand);
    void FinishDemand(Ending& ending, EndingDemand& demand);
    void TellEndedCommand(BaseConnection& command, const EndingDemand& demand, int code);
    void DropEndedWork(Ending& ending);

    // The end of the daemon (CloseRequest.cpp).
    void StopServing();
    void AdvanceShutdown();
    bool IsWorkEnded() const;
    bool IsToldToEnd(const Connection& connection) const;
    bool EndEverything(const TurnShare& share);
    bool EndLogs(const TurnShare& share);

    int singleUser_ = 0;
    int noPasswordCheck_ = 0;
    /** "RUVELSERVER_TMP=" and the log directory: the environment keeps a pointer to it. */
    QORUnicodeString environmentEntry_;
    int readTimeOut_ = 900;
    int secondSetting_ = 60;
    int serverPort_ = 0;
    QORUnicodeString logDirectory_;
    QORUnicodeString serverName_;
    QORUnicodeString serverAddress_;
    std::unique_ptr<BaseSocket> listeningSocket_;
    QORListPtrLogConnection logs_;
    QORListPtrBaseConnection commands_;
    QORListPtrTransferConnection transfers_;
    /** The live commands by serial, so that an end finds its own however many there are, and though the
     * process id may already be another's. */
    CommandIndex commandOf_;
    /** Serials of children that have ended and have not been looked at. */
    std::deque<unsigned long long> ends_;
    /** Memory ran out in a turn: the next one must not wait for something to happen. */
    bool isUnfinished_ = false;
    /** A step's share of the last turn was too short for it: the next turn comes at once. */
    bool isCutShort_ = false;
    /** Workers that answer ALLINFO. */
    std::vector<std::unique_ptr<ReportConnection>> reports_;
    /** Clients on their way out whose sockets other users have shared. */
    std::vector<std::unique_ptr<FarewellConnection>> farewells_;
    /** When those that have no worker yet are tried again. */
    long long startFarewellsAt_ = Deadline::Never;
    int connectionCount_ = 0;
    QORListValQORUnicodeString acceptedVersions_;

    /** The daemon's own address for passive connections: the listening address with the port minus one. */
    sockaddr_in dataAddress_{};
    int signalDescriptor_ = -1;
    /** When every child is asked whether it has ended, should a signal have stood for several. */
    long long reapAllAt_ = Deadline::Never;
    Poller poller_;
    int signalSlot_ = Poller::NoSlot;
    WaitingClients waiting_;
    UserChecks checks_;
    LeavingClients leaving_;
    EndingMap endings_;
    /** Of the endings, whose turn came last; it may be gone. */
    const Connection* lastAdvanced_ = nullptr;
    std::vector<TreeRemainder> remainders_;
    /** The first second at which a life time may be over, 0 for none: until then nobody is looked at. */
    long nextEndOfLife_ = 0;
    Stop stop_ = Stop::No;
    long long stopDeadline_ = Deadline::Never;
    /** The client of the Close request, whose socket is closed when everything has ended. */
    std::unique_ptr<Connection> closer_;
};
