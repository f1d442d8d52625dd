#include "tests/system/Inheritance.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
constexpr rlim_t FewFiles = 300;
constexpr const char* OomScore = "/proc/self/oom_score_adj";

/** The named lines of /proc/self/status, blanks made equal. */
std::string OwnStatus(const std::vector<std::string>& names)
{
    std::string lines;
    for (const std::string& name : names) {
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            std::istringstream words(line);
            std::string word;
            if (!(words >> word) || word != name + ":")
                continue;
            lines += word;
            while (words >> word)
                lines += " " + word;
            lines += "\n";
        }
    }
    return lines;
}

/** Sorted by bytes, as the command sorts them; an entry may have several lines. */
std::string SortedLines(const std::vector<std::string>& entries)
{
    std::stringstream text;
    for (const std::string& entry : entries)
        text << entry << "\n";
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    std::sort(lines.begin(), lines.end());
    std::string sorted;
    for (const std::string& line : lines)
        sorted += line + "\n";
    return sorted;
}

/** What the system adds to the flags of every file, other than those of sockets. */
int LargeFileFlag()
{
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int flags = fcntl(descriptor, F_GETFL);
    close(descriptor);
    return flags;
}

/** The line in which the system tells a descriptor's flags. */
std::string Flags(int flags)
{
    std::ostringstream line;
    line << "flags:\t0" << std::oct << flags << "\n";
    return line.str();
}

std::string DirectoryOf(const DaemonUnderTest& daemon)
{
    return daemon.LogDirectory().substr(0, daemon.LogDirectory().rfind('/'));
}

void TakeControllingTerminal()
{
    // Fails where this process leads a group: then it has been started from a terminal, which will do.
    if (setsid() < 0)
        return;
    // Both ends stay open: a terminal that goes would hang up on this process.
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0) {
        char name[64];
        if (ptsname_r(master, name, sizeof name) == 0) [[maybe_unused]]
            const int slave = open(name, O_RDWR | O_CLOEXEC);
    }
}
} // namespace

void TakeOddSurroundings()
{
    for (const int ignored : {SIGINT, SIGPIPE, SIGUSR1, SIGCHLD})
        signal(ignored, SIG_IGN);
    signal(SIGCHLD, SIG_DFL); // the tests themselves wait for children
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int number : {SIGUSR2, SIGQUIT, SIGTSTP})
        sigaddset(&blocked, number);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    umask(077);
    for (const char* const name : {"SHELL", "USER", "LOGNAME"})
        unsetenv(name);
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = std::min(files.rlim_max, FewFiles);
    setrlimit(RLIMIT_NOFILE, &files);
    std::ofstream(OomScore) << "-200"; // refused to ordinary users
    TakeControllingTerminal();
}

std::string TellInheritance(const DaemonUnderTest& daemon)
{
    // All of it is about the shell ($$), not about the programs that it starts to look at itself. Most is in
    // a file that it reads, as a command with pipes cannot be sent; its descriptors are told before.
    const std::string script = DirectoryOf(daemon) + "/tell";
    std::ofstream(script) << R"(p=/proc/$$
echo umask: $(umask)
echo folder: $(readlink $p/cwd) below $(readlink $p/root)
for name in Uid Gid Groups CapInh CapPrm CapEff CapBnd CapAmb NoNewPrivs Seccomp SigPnd ShdPnd SigBlk SigIgn
do echo $(grep ^$name: $p/status)
done
line=$(cat $p/stat)
set -- ${line##*) }
echo parent: $2
[ $3 = $$ ] && [ $4 = $$ ] && echo leads its group and session
echo terminal: $5
echo nice: ${17}
echo oom: $(cat $p/oom_score_adj)
cat $p/limits
tr '\0' '\n' <$p/environ | LC_ALL=C sort
exit 5
)";
    chmod(script.c_str(), 0644);
    return "ls /proc/$$/fd; readlink /proc/$$/fd/[012]; grep -h flags: /proc/$$/fdinfo/[012]; . " + script;
}

ExpectedOwner ExpectOwnUser(const DaemonUnderTest& daemon)
{
    ExpectedOwner owner{
        .identity = OwnStatus({"Uid", "Gid", "Groups", "CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"}),
        .home = getenv("HOME") ? getenv("HOME") : getpwuid(geteuid())->pw_dir};
    for (char** entry = environ; *entry != nullptr; ++entry)
        owner.environment.emplace_back(*entry);
    // What the tests' own surroundings lack is made up for.
    const passwd* const account = getpwuid(geteuid());
    const std::string path = geteuid() == 0 ? "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
                                            : "/usr/local/bin:/usr/bin:/bin";
    for (const auto& [name, value] : std::map<std::string, std::string>{{"HOME", account->pw_dir},
                                                                        {"USER", account->pw_name},
                                                                        {"LOGNAME", account->pw_name},
                                                                        {"SHELL", account->pw_shell},
                                                                        {"PATH", path}})
        if (getenv(name.c_str()) == nullptr)
            owner.environment.push_back(name + "=" + value);
    owner.environment.push_back("RUVEL_TEST_DIRECTORY=" + DirectoryOf(daemon));
    return owner;
}

ExpectedOwner ExpectLogin(const std::string& user)
{
    const passwd* account = getpwnam(user.c_str());
    std::vector<gid_t> groups(64);
    int count = static_cast<int>(groups.size());
    getgrouplist(account->pw_name, account->pw_gid, groups.data(), &count);
    groups.resize(static_cast<std::size_t>(count));
    std::sort(groups.begin(), groups.end());
    std::ostringstream identity;
    const auto repeat = [&](const char* name, unsigned int id) {
        identity << name << ": " << id << " " << id << " " << id << " " << id << "\n";
    };
    repeat("Uid", account->pw_uid);
    repeat("Gid", account->pw_gid);
    identity << "Groups:";
    for (const gid_t group : groups)
        identity << " " << group;
    // What a program of this user could be given by its file stays possible; nothing is had.
    identity << "\n"
             << OwnStatus({"CapInh"}) << "CapPrm: 0000000000000000\nCapEff: 0000000000000000\n"
             << OwnStatus({"CapBnd"}) << "CapAmb: 0000000000000000\n";
    ExpectedOwner owner{.identity = identity.str(), .home = account->pw_dir};
    const std::string name = account->pw_name;
    owner.environment = {"HOME=" + owner.home, "USER=" + name, "LOGNAME=" + name,
                         std::string("SHELL=") + account->pw_shell, "PATH=/usr/local/bin:/usr/bin:/bin"};
    for (char** entry = environ; *entry != nullptr; ++entry)
        if (std::regex_match(*entry, std::regex("(LANG|LANGUAGE|LC_[A-Z]+|TZ)=[^]*")))
            owner.environment.emplace_back(*entry);
    return owner;
}

std::string ExpectInheritance(DaemonUnderTest& daemon, const ExpectedOwner& owner, std::string_view mode)
{
    std::ostringstream text;
    text << "0\n1\n2\n";
    if (mode == "SOCKET") {
        text << "SOCKET\nSOCKET\nSOCKET\n" << Flags(O_RDWR) << Flags(O_RDWR) << Flags(O_RDWR);
    } else {
        const std::string log = daemon.LogDirectory() + "/LOG\n";
        const int output = O_WRONLY | O_APPEND | O_NOFOLLOW | LargeFileFlag();
        text << "/dev/null\n"
             << log << log << Flags(O_RDONLY | LargeFileFlag()) << Flags(output) << Flags(output);
    }
    char* const home = realpath(owner.home.c_str(), nullptr);
    text << "umask: 0022\nfolder: " << home << " below /\n" << owner.identity;
    free(home);
    text << OwnStatus({"NoNewPrivs", "Seccomp"});
    for (const char* set : {"SigPnd", "ShdPnd", "SigBlk", "SigIgn"})
        text << set << ": 0000000000000000\n";
    text << "parent: " << daemon.Process().Id()
         << "\nleads its group and session\nterminal: 0\nnice: " << getpriority(PRIO_PROCESS, 0) << "\noom: ";
    const std::string oom = ReadFile(OomScore);
    text << (oom.starts_with('-') ? "0\n" : oom) << ReadFile("/proc/self/limits");
    std::vector<std::string> environment = owner.environment;
    environment.push_back("RUVELSERVER_TMP=" + daemon.LogDirectory());
    environment.emplace_back("RUVELSERVER_MARK=MARK");
    text << SortedLines(environment);
    return Finished(text.str(), 5);
}

std::string Blur(const std::string& answer)
{
    const std::regex mark("(\nRUVELSERVER_MARK=)[0-9a-f]{32}\n");
    const std::regex socket("\nsocket:\\[[0-9]+\\]");
    const std::regex log("/[0-9]+-[0-9]+-[0-9]+-RuvelServer\\.log\n");
    return std::regex_replace(
        std::regex_replace(std::regex_replace(answer, mark, "$1MARK\n"), socket, "\nSOCKET"), log, "/LOG\n");
}
