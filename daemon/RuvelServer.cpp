#include "daemon/RuvelServer.h"

#include "protocol/RequestForms.h"
#include "protocol/Texts.h"
#include "support/BaseString.h"
#include "support/Clock.h"

#include <algorithm>
#include <climits>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

const char* const RuvelServer::UniversalSeparator = protocol::Separator;
const char* const RuvelServer::VersionAndRevision = protocol::Banner;

namespace
{

/** Clients that the kernel keeps for us until we accept them. */
constexpr int Backlog = 50;

} // namespace

RuvelServer::RuvelServer()
    : logs_(0),
      commands_(0),
      transfers_(0),
      waiting_(readTimeOut_),
      checks_(readTimeOut_),
      leaving_(readTimeOut_)
{
    for (const std::string_view client : protocol::KnownClients)
        acceptedVersions_.Append(QORUnicodeString(client));
}

RuvelServer::~RuvelServer()
{
    CloseRuvelServer();
    // The environment keeps no text of its own.
    if (environmentEntry_.GetLengthInByte() != 0)
        unsetenv("RUVELSERVER_TMP");
    if (signalDescriptor_ >= 0)
        close(signalDescriptor_);
}

int RuvelServer::OpenRuvelServer(const int& firstPort, const int& extraPorts)
{
    CloseRuvelServer();
    auto socket = std::make_unique<BaseSocket>();
    int port = firstPort;
    while (socket->OpenServerSocket(port, Backlog) != 0) {
        BaseString::PutTrace(socket->BaseSocketGetLastError(), 1);
        if (++port > firstPort + extraPorts)
            return 1;
    }
    if (socket->GetHostName(serverName_, nullptr) != 0)
        return 1;
    if (socket->GetHostAddress(serverAddress_, serverName_) != 0) {
        BaseString::PutTrace(socket->BaseSocketGetLastError(), 1);
        return 1;
    }
    if (serverName_.GetLengthInChar() == 0 || serverAddress_.GetLengthInChar() == 0) {
        BaseString::PutTrace("Error hostname or hostaddress is empty", 1);
        return 1;
    }
    serverPort_ = port;
    QORListValQORUnicodeString pieces;
    if (BaseString::CreateListOfString(pieces, serverName_, ".", -1) == 0) {
        BaseString::PutTrace("Error unable to get shortname of server", 1);
        return 1;
    }
    serverName_ = pieces[1];
    serverName_.ToLower();
    BaseString::PutTrace(VersionAndRevision, 1);
    BaseString::PutTrace("Server (", serverName_, 0);
    BaseString::PutTrace(",", serverPort_, ")", 1);
    BaseString::PutTrace("Server address is (", serverAddress_, ")", 1);
    listeningSocket_ = std::move(socket);
    return 0;
}

void RuvelServer::CloseRuvelServer()
{
    listeningSocket_.reset();
}

int RuvelServer::RuvelServerSleep(const int& seconds)
{
    const long long end = Clock::SteadyMilliseconds() + 1000LL * seconds;
    if (!IsToldToStopBy(end))
        return 0;
    return static_cast<int>((end - Clock::SteadyMilliseconds() + 999) / 1000);
}

/** Waits until then, unless it is told to stop before. The termination signals are blocked and wait on their
 * descriptor: sleep() would not see them. */
bool RuvelServer::IsToldToStopBy(long long deadline)
{
    pollfd signals = {signalDescriptor_, POLLIN, 0};
    for (long long left; (left = deadline - Clock::SteadyMilliseconds()) > 0;) {
        if (poll(&signals, 1, static_cast<int>(std::min<long long>(left, INT_MAX))) <= 0)
            continue;
        // There are children even now: of whoever became this program, and orphans.
        sigset_t childEnded;
        sigemptyset(&childEnded);
        sigaddset(&childEnded, SIGCHLD);
        const timespec atOnce{};
        if (sigtimedwait(&childEnded, nullptr, &atOnce) != SIGCHLD)
            return true;
        BaseProcess::CleanZombiProcess();
    }
    return false;
}
