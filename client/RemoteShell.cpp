#include "client/RemoteShell.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include <strings.h>

#include "client/ClientVersion.h"
#include "client/CommandRun.h"
#include "client/RunCommand.h"
#include "client/ServerOptions.h"
#include "support/BaseSocket.h"

namespace
{
/** Callers that probe for the options of the best-known remote shell conclude from it that they are not
 * there. */
constexpr int NoSuchQuery = 1;
constexpr int LongestConnectTimeOut = 3600;

// What has no meaning here: terminals, compression, forwarding, address families, being quiet.
constexpr std::string_view IgnoredFlags = "tTxXYCaAkK46qv";
constexpr std::string_view OptionsWithValue = "lpeoO";

constexpr const char* Usage =
    "Usage: ruvelsh [OPTION]... [USER@]HOST [OPTION]... [--] WORD...\n"
    "Runs the words, joined by blanks, as a shell line at HOST. For other programs to call.\n"
    "  -l USER, -p PORT        who and where; else RUVEL_USER, 5678\n"
    "  -n                      pass no input on\n"
    "  -o KEY=VALUE            User, Port, HostName, ConnectTimeout, BatchMode and ProxyCommand count;\n"
    "                          what has no meaning here is ignored\n"
    "  -t -T -x -X -Y -C -a -A -k -K -4 -6 -q -v, -e none   accepted and ignored\n"
    "Exits with the line's code, and with 255 after a failure of its own.\n";

/** Would lead somewhere else than asked for if they were ignored. */
constexpr std::array<const char*, 6> UnsupportedKeys = {"ProxyJump",      "LocalForward",  "RemoteForward",
                                                        "DynamicForward", "RemoteCommand", "Tunnel"};

bool IsKey(const std::string& key, const char* name)
{
    return strcasecmp(key.c_str(), name) == 0;
}

Failure ReadNumber(const std::string& text, int highest, const char* what, std::optional<int>& number)
{
    int value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < 1 || value > highest)
        return {std::string(what) + " \"" + text + "\" must be a number from 1 to " +
                std::to_string(highest)};
    if (!number)
        number = value;
    return {};
}

void TakeUser(const std::string& user, RemoteShellCall& call)
{
    if (!call.user)
        call.user = user;
}

/** Takes KEY=VALUE, KEY VALUE or KEY = "VALUE" apart. */
void Divide(const std::string& setting, std::string& key, std::string& value)
{
    constexpr const char* Blanks = " \t";
    const std::size_t keyEnd = std::min(setting.find_first_of(" \t="), setting.size());
    key = setting.substr(0, keyEnd);
    std::size_t at = std::min(setting.find_first_not_of(Blanks, keyEnd), setting.size());
    if (at < setting.size() && setting[at] == '=')
        at = std::min(setting.find_first_not_of(Blanks, at + 1), setting.size());
    value = setting.substr(at);
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
}

Failure TakeSetting(const std::string& setting, RemoteShellCall& call)
{
    std::string key;
    std::string value;
    Divide(setting, key, value);
    for (const char* const unsupported : UnsupportedKeys)
        if (IsKey(key, unsupported) && !IsKey(value, "no") && !IsKey(value, "none"))
            return {key + " is not supported: leave it out, or use ProxyCommand"};
    for (const std::string& earlier : call.keys)
        if (IsKey(key, earlier.c_str()))
            return {};
    call.keys.push_back(key);
    if (IsKey(key, "User"))
        TakeUser(value, call);
    else if (IsKey(key, "Port"))
        return ReadNumber(value, BaseSocket::HighestPort, "the port", call.port);
    else if (IsKey(key, "ConnectTimeout") && !IsKey(value, "none"))
        return ReadNumber(value, LongestConnectTimeOut, "the time-out", call.connectTimeOut);
    else if (IsKey(key, "BatchMode"))
        call.isBatch = IsKey(value, "yes") || IsKey(value, "true");
    else if (IsKey(key, "ProxyCommand") && !IsKey(value, "none"))
        call.proxy = value;
    else if (IsKey(key, "HostName"))
        call.host = value;
    return {};
}

Failure TakeValue(char option, const std::string& value, RemoteShellCall& call)
{
    switch (option) {
    case 'l':
        TakeUser(value, call);
        return {};
    case 'p':
        return ReadNumber(value, BaseSocket::HighestPort, "the port", call.port);
    case 'o':
        return TakeSetting(value, call);
    case 'O':
        return {"there is no shared connection to control (-O " + value + ")"};
    default: // -e, an escape character, which there is none of
        return {};
    }
}

/** Reads the group of options that `at` points to, and the value behind it where it stands alone. */
Failure TakeOptions(const std::vector<std::string>& arguments, std::size_t& at, RemoteShellCall& call)
{
    const std::string& group = arguments[at];
    for (std::size_t i = 1; i < group.size(); ++i) {
        const char option = group[i];
        if (OptionsWithValue.find(option) != std::string_view::npos) {
            if (i + 1 < group.size())
                return TakeValue(option, group.substr(i + 1), call);
            if (at + 1 == arguments.size())
                return {std::string("option -") + option + " needs a value"};
            return TakeValue(option, arguments[++at], call);
        }
        if (option == 'G')
            call.exitCode = NoSuchQuery;
        else if (option == 'n')
            call.passesInput = false;
        else if (IgnoredFlags.find(option) == std::string_view::npos)
            return {"option -" + group.substr(i, 1) + " is not known: ruvelsh --help lists all"};
    }
    return {};
}

Failure TakeHost(const std::string& word, RemoteShellCall& call)
{
    const std::size_t at = word.rfind('@');
    if (at != std::string::npos)
        TakeUser(word.substr(0, at), call);
    const std::string host = at == std::string::npos ? word : word.substr(at + 1);
    if (call.host.empty())
        call.host = host;
    return host.empty() ? Failure{"a host is required: ruvelsh --help tells more"} : Failure();
}

Failure FillIn(const RemoteShellCall& call, Server& server)
{
    ServerOptions options;
    options.host = call.host;
    options.user = call.user;
    options.isBatch = call.isBatch;
    options.proxy = call.proxy;
    server.port = call.port.value_or(DefaultPort);
    server.connectTimeOut = call.connectTimeOut.value_or(server.connectTimeOut);
    return FindServer(options, server);
}
} // namespace

Failure ReadRemoteShellCall(const std::vector<std::string>& arguments, RemoteShellCall& call)
{
    bool hasHost = false;
    bool hasOptions = true;
    std::size_t at = 0;
    for (; at < arguments.size() && !call.exitCode; ++at) {
        const std::string& one = arguments[at];
        if (hasOptions && one == "--") {
            hasOptions = false;
        } else if (hasOptions && one.size() > 1 && one.front() == '-') {
            if (Failure failure = TakeOptions(arguments, at, call))
                return failure;
        } else if (!hasHost) {
            if (Failure failure = TakeHost(one, call))
                return failure;
            hasHost = true;
            hasOptions = true;
        } else {
            break;
        }
    }
    if (call.exitCode)
        return {};
    if (!hasHost)
        return {"a host is required: ruvelsh --help tells more"};
    if (at == arguments.size())
        return {"a command is required (RuvelControl shell gives an interactive one)"};
    for (; at < arguments.size(); ++at)
        call.line.append(arguments[at]).append(at + 1 < arguments.size() ? " " : "");
    return {};
}

int RunRemoteShell(int argc, const char* const* argv)
{
    SetProgramName(RemoteShellName);
    const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    if (!arguments.empty() && (arguments.front() == "--help" || arguments.front() == "--version")) {
        std::fputs(arguments.front() == "--help" ? Usage : (std::string(ClientVersion) + "\n").c_str(),
                   stdout);
        return 0;
    }
    RemoteShellCall call;
    if (const Failure failure = ReadRemoteShellCall(arguments, call))
        return Report(failure);
    if (call.exitCode)
        return *call.exitCode;
    RunRequest request;
    if (const Failure failure = FillIn(call, request.server))
        return Report(failure);
    request.line = call.line;
    request.passesInput = call.passesInput;
    request.mergesErrors = IsSameOutput();
    return CommandRun(std::move(request)).Run();
}
