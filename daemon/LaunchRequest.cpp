#include "daemon/RuvelServer.h"
#include "protocol/Texts.h"
#include "support/BaseString.h"

#include <new>

namespace
{

/** What a command without its client's socket reads. */
constexpr const char* NoInput = "/dev/null";
/** The start calls take the request's window flag, which means nothing on this system. */
constexpr int NoWindow = 0;

} // namespace

void RuvelServer::ServeLaunch(WaitingClient& client)
{
    const LaunchArguments& arguments = client.launch;
    auto command = std::make_unique<BaseConnection>(&dataAddress_);
    TakeSocket(client, *command);

    command->GetProcess().SetInputFileName(NoInput);
    command->GetProcess().SetOutputAndErrorFileName(NextLogFileName());
    // The banner goes ahead of whatever the command writes on the same socket.
    if (arguments.socketMode)
        WriteToBaseConnectionSocket(command.get(), QORUnicodeString(protocol::BannerLine), 1);
    if (StartCommand(*command, arguments) != 0) {
        std::string answer(arguments.socketMode ? std::string_view() : protocol::BannerLine);
        answer.append(protocol::LineLead).append(command->GetProcess().BaseProcessGetLastError().View());
        answer.append("\n").append(protocol::NoReturnCodeLine);
        WriteToBaseConnectionSocket(command.get(), QORUnicodeString(answer), arguments.socketMode);
        return Dismiss(*command);
    }

    try {
        Supervise(command, client);
    } catch (const std::bad_alloc&) {
        // What nobody looks after must not run.
        command->GetProcess().KillBaseProcess(1);
        if (!arguments.socketMode)
            command->DeleteOutputFile(0);
        throw;
    }
}

/** The command has been started: it joins the others. Left with the caller when memory runs out. */
void RuvelServer::Supervise(std::unique_ptr<BaseConnection>& command, const WaitingClient& client)
{
    const LaunchArguments& arguments = client.launch;
    command->SetAttributes(arguments.socketFlag, arguments.user, BaseString::GetTimeInSec(),
                           arguments.command, connectionCount_, client.versionIndex, serverAddress_,
                           serverPort_);
    command->SetLifeTimeOut(arguments.lifeTimeOut);
    NoteLifeTime(*command);
    if (arguments.passive) {
        command->SetPassiveHostAddressAndPortNumber(arguments.passiveHost, arguments.passivePort);
        const std::string answer = std::string(protocol::Identifier)
                                       .append(UniversalSeparator)
                                       .append(command->GetIdentifier().View());
        WriteToBaseConnectionSocket(command.get(), QORUnicodeString(answer), 0);
        Dismiss(*command);
    }
    commands_.MakeRoom();
    commandOf_[command->GetProcess().GetProcessId()] = command.get();
    commands_.Append(command.release());
    ++connectionCount_;
}

/** The result of the start call. The user has been checked before, where that is asked for. */
int RuvelServer::StartCommand(BaseConnection& command, const LaunchArguments& arguments)
{
    BaseProcess& process = command.GetProcess();
    process.SetUserVerified();
    if (singleUser_) {
        if (arguments.socketMode)
            return process.StartBaseProcessWithSocket(arguments.command, command.GetSocket(), nullptr,
                                                      NoWindow, arguments.interactive, 1);
        return process.StartBaseProcess(arguments.command, nullptr, NoWindow, arguments.interactive);
    }
    const QORUnicodeString checkedBefore;
    const int result = arguments.socketMode
                           ? process.StartBaseProcessUserWithSocket(arguments.command, arguments.user,
                                                                    checkedBefore, command.GetSocket(),
                                                                    nullptr, NoWindow, arguments.interactive)
                           : process.StartBaseProcessUser(arguments.command, arguments.user, checkedBefore,
                                                          nullptr, NoWindow);
    command.SetOutputFileOwner(process.GetUserId());
    return result;
}

/** Distinct for every command: the number is part of it, and the time tells one daemon's from the next's. */
QORUnicodeString RuvelServer::NextLogFileName() const
{
    long seconds = 0;
    long milliseconds = 0;
    BaseString::GetTimeInMilliSec(seconds, milliseconds);
    return QORUnicodeString(std::string(logDirectory_.View())
                                .append("/")
                                .append(std::to_string(seconds))
                                .append("-")
                                .append(std::to_string(milliseconds))
                                .append("-")
                                .append(std::to_string(connectionCount_))
                                .append("-RuvelServer.log"));
}
