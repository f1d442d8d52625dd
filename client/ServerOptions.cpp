#include "client/ServerOptions.h"

#include <charconv>
#include <cstdlib>

#include <pwd.h>
#include <unistd.h>

#include "client/Password.h"
#include "support/BaseSocket.h"

namespace
{
/** The option, else the environment's value where there is one. */
std::optional<std::string> Choose(const std::optional<std::string>& option, const char* variable)
{
    const char* const value = std::getenv(variable);
    if (option || value == nullptr || *value == '\0')
        return option;
    return value;
}

std::string OwnUserName()
{
    const passwd* const entry = getpwuid(geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(geteuid());
}

Failure FindPassword(const ServerOptions& options, Server& server)
{
    if (options.passwordFile && options.passwordDescriptor)
        return {"--password-file and --password-fd exclude each other: give one of them"};
    if (options.passwordDescriptor)
        return ReadPasswordDescriptor(*options.passwordDescriptor, server.password);
    if (const std::optional<std::string> file = Choose(options.passwordFile, "RUVEL_PASSWORD_FILE"))
        return ReadPasswordFile(*file, server.password);
    // Set to nothing, it says that there is no password.
    return options.isBatch || getenv("RUVEL_PASSWORD_FILE") != nullptr
               ? Failure()
               : AskForPassword(server.user, server.Name(), server.password);
}
} // namespace

Failure ReadHost(std::string_view text, Server& server)
{
    const std::size_t colon = text.rfind(':');
    if (colon != 0 && !text.empty())
        server.host = text.substr(0, colon);
    if (colon == std::string_view::npos)
        return {};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, server.port);
    if (error != std::errc() || stop != end || server.port < 1 || server.port > BaseSocket::HighestPort)
        return {"the port in \"" + std::string(text) + "\" must be a number from 1 to 65535"};
    return {};
}

Failure FindServer(const ServerOptions& options, Server& server)
{
    // Given, but by a variable that is not set: it would lead somewhere else than meant.
    if (options.host && options.host->empty())
        return {"the host is empty: name one, or leave out -H"};
    if (options.user && options.user->empty())
        return {"the user is empty: name one, or leave out -u"};
    if (const std::optional<std::string> host = Choose(options.host, "RUVEL_HOST"))
        if (const Failure failure = ReadHost(*host, server))
            return failure;
    const std::optional<std::string> user = Choose(options.user, "RUVEL_USER");
    server.user = user ? *user : OwnUserName();
    server.proxy = options.proxy;
    return FindPassword(options, server);
}
