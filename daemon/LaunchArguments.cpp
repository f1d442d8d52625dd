#include "daemon/LaunchArguments.h"

using protocol::RequestFields;
using protocol::RequestKind;

namespace
{

/** What the interactive form runs, whatever the client sent as command. */
constexpr const char* InteractiveShell = "/bin/ksh";

/** A life time-out must be there, be a number, and be 0 or more. */
bool ReadLifeTimeOut(std::string_view field, LaunchArguments& arguments)
{
    return QORUnicodeString(field).ConvertToNum(&arguments.lifeTimeOut, "%ld") && arguments.lifeTimeOut >= 0;
}

/** The host must be named; an empty port stays 0. */
bool ReadPassiveAddress(const RequestFields& fields, LaunchArguments& arguments)
{
    arguments.passive = true;
    arguments.passiveHost = QORUnicodeString(fields[7]);
    return !fields[7].empty() &&
           (fields[8].empty() || QORUnicodeString(fields[8]).ConvertToNum(&arguments.passivePort, "%d"));
}

/** The arguments behind the window flag, which differ from form to form. */
bool ReadFormArguments(RequestKind kind, const RequestFields& fields, LaunchArguments& arguments)
{
    switch (kind) {
    case RequestKind::Launch:
        return ReadLifeTimeOut(fields[7], arguments);
    case RequestKind::LaunchPassive:
        return (fields.count < 9 || ReadLifeTimeOut(fields[9], arguments)) &&
               ReadPassiveAddress(fields, arguments);
    case RequestKind::LaunchInteractive:
        arguments.interactive = true;
        arguments.command = InteractiveShell;
        return fields.count < 8 || ReadLifeTimeOut(fields[8], arguments);
    default:
        return true;
    }
}

} // namespace

std::optional<LaunchArguments> ReadLaunchArguments(RequestKind kind, const RequestFields& fields)
{
    LaunchArguments arguments;
    arguments.user = QORUnicodeString(fields[2]);
    arguments.command = QORUnicodeString(fields[4]);
    arguments.socketFlag = QORUnicodeString(fields[5]);
    arguments.socketMode = protocol::AsksForSocket(fields);
    if (!ReadFormArguments(kind, fields, arguments))
        return std::nullopt;
    return arguments;
}
