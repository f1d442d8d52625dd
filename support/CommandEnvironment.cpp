#include "support/CommandEnvironment.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include <unistd.h>

namespace
{
// A name, or with '=' left out the beginning of one.
constexpr std::string_view PassedToUsers[] = {"RUVELSERVER_TMP=", "LANG=", "LANGUAGE=", "LC_", "TZ="};

constexpr const char* UserPath = "PATH=/usr/local/bin:/usr/bin:/bin";
constexpr const char* RootPath = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

bool IsPassedToUsers(std::string_view entry)
{
    return std::any_of(std::begin(PassedToUsers), std::end(PassedToUsers),
                       [&](std::string_view beginning) { return entry.starts_with(beginning); });
}

/** What a login of the account has. */
std::vector<std::string> LoginEntries(const Account& account)
{
    return {"HOME=" + account.home, "USER=" + account.name, "LOGNAME=" + account.name,
            "SHELL=" + (account.shell.empty() ? "/bin/sh" : account.shell),
            account.userId == 0 ? RootPath : UserPath};
}
} // namespace

CommandEnvironment::CommandEnvironment(const std::string& mark)
{
    const std::string_view name = std::string_view(mark).substr(0, mark.find('=') + 1);
    for (char** entry = environ; *entry != nullptr; ++entry)
        // A process that was itself started with a mark has one already.
        if (!std::string_view(*entry).starts_with(name))
            entries_.push_back(*entry);
    entries_.push_back(mark.c_str());
    entries_.push_back(nullptr);
}

CommandEnvironment::CommandEnvironment(const std::string& mark, const Account& account)
{
    made_ = LoginEntries(account);
    for (const std::string& entry : made_)
        entries_.push_back(entry.c_str());
    for (char** entry = environ; *entry != nullptr; ++entry)
        if (IsPassedToUsers(*entry))
            entries_.push_back(*entry);
    entries_.push_back(mark.c_str());
    entries_.push_back(nullptr);
}

void CommandEnvironment::CompleteOwn()
{
    for (const std::string& entry : LoginEntries(Accounts::Own())) {
        const std::size_t nameEnd = entry.find('=');
        const std::string name = entry.substr(0, nameEnd);
        const char* const present = getenv(name.c_str());
        if (present == nullptr || *present == '\0')
            setenv(name.c_str(), entry.c_str() + nameEnd + 1, 1);
    }
}
