#include "tests/system/Protocol.h"

#include <pwd.h>
#include <unistd.h>

std::string OwnUser()
{
    const passwd* entry = getpwuid(geteuid());
    return entry ? entry->pw_name : std::to_string(geteuid());
}

std::string Join(const std::vector<std::string>& fields)
{
    std::string request;
    for (const std::string& field : fields)
        request += (&field == &fields.front() ? "" : "|") + field;
    return request;
}

std::string Launch(std::string_view mode, std::string_view command, std::string_view lifeTimeOut,
                   const Credentials& who)
{
    return Keyword(Join({std::string(command), std::string(mode), "NOWINDOW", std::string(lifeTimeOut)}),
                   who);
}

std::string PassiveLaunch(std::string_view command, int port, std::string_view lifeTimeOut,
                          const Credentials& who)
{
    return Launch("NOSOCKET", command, "127.0.0.1|" + std::to_string(port) + "|" + std::string(lifeTimeOut),
                  who);
}

std::string Keyword(std::string_view keyword, const Credentials& who)
{
    return Join({Newest, who.user, who.password, std::string(keyword)});
}

std::string ReturnLine(int code)
{
    return "->ProcessReturnCode = " + std::to_string(code) + "\n";
}

std::string Finished(std::string_view output, int code)
{
    return BannerLine + std::string(output) + ReturnLine(code);
}
