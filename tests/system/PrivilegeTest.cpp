// Whose identity every path is touched with, seen from outside in a trace of system calls.

#include <algorithm>
#include <fstream>
#include <optional>
#include <regex>
#include <set>

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/system/SystemCallTrace.h"
#include "tests/system/TestAccount.h"
#include "tests/system/TransferClient.h"

using testing::HasSubstr;
using testing::IsSupersetOf;

namespace
{
/** The group database's answer, in the words of a trace. */
std::string GroupsOf(const TestAccount& account)
{
    gid_t groups[100];
    int count = std::size(groups);
    getgrouplist(account.Name().c_str(), account.GroupId(), groups, &count);
    std::sort(groups, groups + count);
    std::string text;
    for (int i = 0; i < count; ++i)
        text += (i == 0 ? "" : " ") + std::to_string(groups[i]);
    return text;
}

/** Whether nobody but root can put something at this path, or on the way there. */
bool IsRootsToName(const std::string& path)
{
    if (path[0] != '/' || path.find("/../") != std::string::npos)
        return false;
    for (std::size_t end = 0; end != std::string::npos; end = path.find('/', end + 1)) {
        struct stat directory = {};
        if (lstat(path.substr(0, std::max<std::size_t>(end, 1)).c_str(), &directory) != 0)
            continue; // and so nobody else can make it
        const bool isOthersToWrite = !S_ISLNK(directory.st_mode) && (directory.st_mode & 022) != 0;
        if (directory.st_uid != 0 || isOthersToWrite)
            return false;
    }
    return true;
}

/** What the system tells of a process; its links to elsewhere are not among it. */
bool IsOfAProcess(const std::string& path)
{
    static const std::regex pattern("/proc/[0-9]+(/(stat|status|environ|task/[0-9]+/children))?");
    return std::regex_match(path, pattern);
}

/** An account and what it asks of an installed daemon. */
class Privilege : public testing::Test
{
protected:
    Privilege() : account_({"users", "games"}) { daemon_.emplace(DaemonOptions{.mode = {}}); }

    void Ask(const std::vector<std::string>& fields, const std::string& expected)
    {
        EXPECT_THAT(::Ask(*daemon_, As(fields)), HasSubstr(expected));
    }
    std::string As(const std::vector<std::string>& fields) const
    {
        return Join({Newest, account_.Name(), account_.Password(), Join(fields)});
    }
    TransferClient Transfer(const std::string& keyword, const std::string& file, bool passive = false,
                            const std::string& lifeTimeOut = "0")
    {
        return TransferClient(*daemon_, {.keyword = keyword,
                                         .file = file,
                                         .passive = passive,
                                         .user = account_.Name(),
                                         .password = account_.Password(),
                                         .lifeTimeOut = lifeTimeOut});
    }
    std::string AtHome(const std::string& name) const { return account_.Home() + "/" + name; }

    void LeadCommands();
    void LeadTransfers();
    void ExpectGoodIdentity(const TracedCall& call) const;
    /** To name a path with root's identity. */
    bool IsGoodReason(const TracedCall& call, const std::string& path) const;

    TestAccount account_;
    TestDirectory directory_;
    std::optional<DaemonUnderTest> daemon_;
    std::string logs_;
    std::set<pid_t> commands_;
};

void Privilege::LeadCommands()
{
    for (const char* mode : {"SOCKET", "NOSOCKET"})
        Ask({"echo on", mode, "NOWINDOW", "0"}, "on\n->ProcessReturnCode = 0\n");
    Client client = daemon_->Connect();
    client.Send(As({"trap '' TERM; (setsid sleep 1000 &) ; echo up; sleep 1000", "SOCKET", "NOWINDOW", "0"}));
    client.ReadUntil("up\n");
    Ask({"ALLINFO"}, "->Found 1 active command(s)");
    Ask({"FORCEKILLTREE", "2"}, "tree force killed");
    client.ReadToEnd();
    Collector collector(daemon_->Conversation());
    Ask({"echo on", "NOSOCKET", "NOWINDOW", "127.0.0.1", std::to_string(collector.Port()), "0"}, "ID|");
    EXPECT_THAT(collector.Accept().ReadToEnd(), HasSubstr("on\n"));
}

void Privilege::LeadTransfers()
{
    for (const bool isPassive : {false, true}) {
        std::string bytes;
        EXPECT_EQ(Transfer("TRANSFERPUT", AtHome("mine"), isPassive).Put("content"), Transferred(0));
        EXPECT_EQ(Transfer("TRANSFERGET", AtHome("mine"), isPassive).Get(bytes), Transferred(0));
        for (const char* name : {"roots", "link"})
            for (const char* keyword : {"TRANSFERGET", "TRANSFERPUT"})
                EXPECT_THAT(Transfer(keyword, AtHome(name), isPassive).Finish(),
                            HasSubstr("Permission denied"));
    }
    // What does not become whole is removed, at its client's end and by the handler of a signal.
    TransferClient broken = Transfer("TRANSFERPUT", AtHome("broken"));
    broken.OpenData("READ").Reset();
    EXPECT_THAT(broken.Finish(), HasSubstr(ReturnLine(1)));
    TransferClient expired = Transfer("TRANSFERPUT", AtHome("expired"), true, "1");
    const Client data = expired.OpenData("READ");
    EXPECT_THAT(expired.Finish(), HasSubstr("expired"));
}

/** Nobody else than root is the user, with the user's groups; in a command without a way back. */
void Privilege::ExpectGoodIdentity(const TracedCall& call) const
{
    const unsigned user = account_.UserId(), group = account_.GroupId();
    TracedIdentity expected = call.identity;
    expected.user.effective = user;
    expected.group.effective = group;
    expected.groups = GroupsOf(account_);
    if (commands_.contains(call.process)) {
        expected.user = {user, user, user};
        expected.group = {group, group, group};
    }
    EXPECT_TRUE(call.identity == expected) << call.text << " with the groups " << call.identity.groups;
}

/** What leads elsewhere is not followed there, or only a figure is asked for. */
bool Privilege::IsGoodReason(const TracedCall& call, const std::string& path) const
{
    if (commands_.contains(call.process))
        return path == "/proc/self/oom_score_adj";
    const bool isFollowed = call.name != "unlink" && call.text.find("NOFOLLOW") == std::string::npos;
    const bool isLog = path.starts_with(logs_ + "/") && !isFollowed;
    const bool isUsers = path.starts_with(account_.Home());
    return isLog || call.name == "statfs" || IsOfAProcess(path) || (IsRootsToName(path) && !isUsers);
}
} // namespace

TEST_F(Privilege, RootsIdentityTouchesOnlyWhatIsTheSystemsAndTheDaemonsLogs)
{
    const std::string secret = directory_.Path() + "/secret";
    for (const std::string& file : {secret, AtHome("roots")}) {
        std::ofstream(file) << "secret";
        chmod(file.c_str(), 0600);
    }
    EXPECT_EQ(symlink(secret.c_str(), AtHome("link").c_str()), 0);

    SystemCallTrace trace(daemon_->Process().Id());
    if (!trace.Runs())
        GTEST_SKIP() << "there is no strace, or it may not trace";
    logs_ = daemon_->LogDirectory();
    LeadCommands();
    LeadTransfers();
    daemon_.reset();

    const std::vector<TracedCall> calls = trace.Collect();
    for (const TracedCall& call : calls)
        if (call.name == "execve")
            commands_.insert(call.process);
    std::set<std::string> asUser;
    bool isBoundAsRoot = false;
    for (const TracedCall& call : calls) {
        const bool isRoot = call.identity.user.effective == 0;
        isBoundAsRoot = isBoundAsRoot || (isRoot && call.name == "bind");
        if (!isRoot)
            ExpectGoodIdentity(call);
        for (const std::string& path : call.paths) {
            EXPECT_TRUE(!isRoot || IsGoodReason(call, path)) << path << " as root: " << call.text;
            const bool isGranted = call.text.find(") = -1 ") == std::string::npos;
            if (!isRoot)
                asUser.insert(call.name + " " + path + (isGranted ? "" : " refused"));
        }
    }
    EXPECT_TRUE(isBoundAsRoot) << "to the daemon's port for data";
    EXPECT_THAT(asUser, IsSupersetOf({"chdir " + account_.Home(), std::string("execve /bin/sh"),
                                      "openat2 " + AtHome("mine"), "openat2 " + AtHome("roots") + " refused",
                                      "openat2 " + AtHome("link") + " refused", "unlink " + AtHome("broken"),
                                      "unlink " + AtHome("expired")}));
}
