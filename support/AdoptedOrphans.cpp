#include "support/AdoptedOrphans.h"

#include <functional>
#include <unordered_map>

namespace
{
/** As much as tells one mark from another for certain: of two alike nothing is said. */
struct Bearer {
    pid_t session;
    bool isMarked;
    std::size_t markHash;
};

std::unordered_map<pid_t, Bearer> bearers;

std::size_t HashOf(std::string_view mark)
{
    return std::hash<std::string_view>()(mark);
}
} // namespace

namespace AdoptedOrphans
{
void Note(pid_t processId, pid_t session, std::string_view environment, std::string_view mark)
{
    const std::string lead = '\0' + std::string(mark.substr(0, mark.find('=') + 1));
    const std::size_t found = environment.find(lead);
    if (found == std::string_view::npos) {
        bearers[processId] = {session, false, 0};
        return;
    }
    if (environment.find(lead, found + 1) != std::string_view::npos)
        return; // bears several
    const std::size_t begin = found + 1;
    const std::string_view entry = environment.substr(begin, environment.find('\0', begin) - begin);
    bearers[processId] = {session, true, HashOf(entry)};
}

bool IsStranger(pid_t processId, pid_t session, std::string_view mark)
{
    const auto found = bearers.find(processId);
    if (found == bearers.end() || found->second.session == session)
        return false;
    return !found->second.isMarked || found->second.markHash != HashOf(mark);
}

void Forget(pid_t processId) noexcept
{
    bearers.erase(processId);
}
} // namespace AdoptedOrphans
