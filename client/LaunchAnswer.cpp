#include "client/LaunchAnswer.h"

#include <string>

#include "client/Failure.h"
#include "client/ServerRefusal.h"

namespace
{
/** As timeout(1) has it. */
constexpr int ExpiredCode = 124;
constexpr int HighestExitCode = 255;
} // namespace

int ConcludeLaunch(const StreamEnd& end, const Server& server)
{
    switch (end.kind) {
    case StreamEnd::Code:
        if (!end.words.empty())
            Report(ExplainRefusal(server, end.words));
        if (end.isExpired)
            return ExpiredCode;
        if (end.code < 0 || end.code > HighestExitCode)
            return Report(server.Name() + " lost the command's exit code (" + std::to_string(end.code) + ")");
        // Output that the server cut short is no success, whatever the command made of its signal.
        return end.code == 0 && !end.words.empty() ? ClientFailure : end.code;
    case StreamEnd::NoCode:
        return Report(end.words.empty() ? Failure{server.Name() + " tells no exit code"}
                                        : ExplainRefusal(server, end.words));
    case StreamEnd::Refused:
        return Report(ExplainRefusal(server, end.words));
    case StreamEnd::NoServer:
        return Report(NoServerThere(server));
    case StreamEnd::Cut:
        break;
    }
    return Report(
        "the connection to " + server.Name() +
        " was cut before the command's end: the server or the network failed, the output is not whole");
}
