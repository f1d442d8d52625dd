#include "daemon/RuvelServer.h"
#include "protocol/Texts.h"
#include "support/BaseString.h"

#include <new>

#include <sys/random.h>
#include <sys/stat.h>

namespace
{

/** What a command without its client's socket reads. */
constexpr const char* NoInput = "/dev/null";
/** The start calls take the request's window flag, which means nothing on this system. */
constexpr int NoWindow = 0;
constexpr long MillisecondsOfASecond = 1000;

} // namespace

void RuvelServer::ServeLaunch(WaitingClient& client)
{
    const LaunchArguments& arguments = client.launch;
    auto command = std::make_unique<BaseConnection>(&dataAddress_);
    TakeSocket(client, *command);

    command->GetProcess().SetInputFileName(NoInput);
    command->GetProcess().SetOutputAndErrorFileName(NextLogFileName(!arguments.socketMode));
    // The banner goes ahead of whatever the command writes on the same socket.
    if (arguments.socketMode)
        WriteToBaseConnectionSocket(command.get(), QORUnicodeString(protocol::BannerLine), 1);
    Describe(*command, client);
    // All memory first: what runs must not be lost for want of it.
    commands_.MakeRoom();
    auto entry = MakeIndexEntry(*command);
    if (StartCommand(*command, arguments) != 0) {
        std::string answer(arguments.socketMode ? std::string_view() : protocol::BannerLine);
        answer.append(protocol::LineLead).append(command->GetProcess().BaseProcessGetLastError().View());
        answer.append("\n").append(protocol::NoReturnCodeLine);
        WriteToBaseConnectionSocket(command.get(), QORUnicodeString(answer), arguments.socketMode);
        return Dismiss(*command);
    }

    BaseConnection& started = *command;
    entry.key() = started.GetProcess().GetSerial();
    commandOf_.insert(std::move(entry));
    commands_.Append(command.release());
    NoteLifeTime(started);
    ++connectionCount_;
    if (arguments.passive)
        TellIdentifier(started);
}

void RuvelServer::Describe(BaseConnection& command, const WaitingClient& client) const
{
    const LaunchArguments& arguments = client.launch;
    command.SetAttributes(arguments.socketFlag, arguments.user, BaseString::GetTimeInSec(), arguments.command,
                          connectionCount_, client.versionIndex, serverAddress_, serverPort_);
    command.SetLifeTimeOut(arguments.lifeTimeOut);
    if (arguments.passive)
        command.SetPassiveHostAddressAndPortNumber(arguments.passiveHost, arguments.passivePort);
}

/** To be inserted, which then takes no memory, once the serial is known. */
RuvelServer::CommandIndex::node_type RuvelServer::MakeIndexEntry(BaseConnection& command)
{
    commandOf_.reserve(commandOf_.size() + 1);
    return commandOf_.extract(commandOf_.emplace(0, &command).first);
}

/** The client of a passive launch leaves with this. */
void RuvelServer::TellIdentifier(BaseConnection& command)
{
    try {
        const std::string answer = std::string(protocol::Identifier)
                                       .append(UniversalSeparator)
                                       .append(command.GetIdentifier().View());
        WriteToBaseConnectionSocket(&command, QORUnicodeString(answer), 0);
        Dismiss(command);
    } catch (const std::bad_alloc&) {
        command.GetSocket().CloseBaseSocket(); // else it would wait until the command ends
        throw;
    }
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
QORUnicodeString RuvelServer::NextLogFileName(bool isToBeMade) const
{
    long seconds = 0;
    long milliseconds = 0;
    BaseString::GetTimeInMilliSec(seconds, milliseconds);
    const auto nameWith = [&](long fraction) {
        return std::string(logDirectory_.View())
            .append("/")
            .append(std::to_string(seconds))
            .append("-")
            .append(std::to_string(fraction))
            .append("-")
            .append(std::to_string(connectionCount_))
            .append("-RuvelServer.log");
    };
    std::string name = nameWith(milliseconds);
    struct stat status = {};
    if (isToBeMade && lstat(name.c_str(), &status) == 0) {
        // Whoever may write there can take all names to come, but one that nobody can guess.
        unsigned random = 0;
        if (getrandom(&random, sizeof random, GRND_NONBLOCK) > 0)
            name = nameWith(MillisecondsOfASecond + random);
    }
    return QORUnicodeString(name);
}
