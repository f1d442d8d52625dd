#include "tests/system/SystemCallTrace.h"

#include <algorithm>
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/system/Waiting.h"

namespace
{
bool IsTraced(pid_t process)
{
    const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
    const std::string name = "\nTracerPid:\t";
    const std::size_t found = status.find(name);
    return found != std::string::npos && status[found + name.size()] != '0';
}

bool IsAmong(const std::string& name, std::initializer_list<const char*> names)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

/** The paths of a call, in the order of its arguments, each behind the directory that it goes from. What
 * stands in quotes behind them is an answer, or no path. */
std::vector<std::string> ReadPaths(const std::string& name, const std::string& arguments)
{
    static const std::regex pattern("(?:<([^>]*)>, )?\"((?:[^\"\\\\]|\\\\.)*)\"");
    const std::string stem = name.substr(0, name.find_last_not_of("at2") + 1);
    const std::ptrdiff_t most = IsAmong(stem, {"rename", "link", "symlink"}) ? 2 : 1;
    std::vector<std::string> paths;
    if (IsAmong(name, {"bind", "connect"}) && arguments.find("AF_UNIX") == std::string::npos)
        return paths;
    std::sregex_iterator found(arguments.begin(), arguments.end(), pattern);
    for (; found != std::sregex_iterator() && std::ssize(paths) < most; ++found) {
        const std::string directory = found->str(1), path = found->str(2);
        if (!path.empty())
            paths.push_back(path[0] == '/' || directory.empty() ? path : directory + "/" + path);
    }
    return paths;
}

/** The numbers that stand in a list of arguments, ~0U for -1. */
std::vector<unsigned> ReadNumbers(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c != '-' && (c < '0' || c > '9'); }, ' ');
    std::istringstream words(text);
    std::vector<unsigned> numbers;
    for (long number = 0; words >> number;)
        numbers.push_back(static_cast<unsigned>(number));
    return numbers;
}

void Change(TracedIdentity::Ids& ids, const std::string& name, const std::vector<unsigned>& given)
{
    const auto set = [](unsigned& id, unsigned to) {
        if (to != ~0U)
            id = to;
    };
    if (name.starts_with("setres")) {
        set(ids.real, given.at(0));
        set(ids.effective, given.at(1));
        set(ids.saved, given.at(2));
    } else if (ids.effective == 0) {
        ids = {given.at(0), given.at(0), given.at(0)};
    } else {
        ids.effective = given.at(0);
    }
}

/** What a call that was granted makes of the caller's identity. */
void Change(TracedIdentity& identity, const std::string& name, const std::string& arguments)
{
    std::vector<unsigned> numbers = ReadNumbers(arguments);
    if (name == "setgroups") {
        std::sort(numbers.begin() + 1, numbers.end()); // behind their count
        identity.groups.clear();
        for (std::size_t i = 1; i < numbers.size(); ++i)
            identity.groups += (i == 1 ? "" : " ") + std::to_string(numbers[i]);
    } else if (IsAmong(name, {"setresuid", "setuid"})) {
        Change(identity.user, name, numbers);
    } else if (IsAmong(name, {"setresgid", "setgid"})) {
        Change(identity.group, name, numbers);
    } else {
        ADD_FAILURE() << "not understood: " << name << arguments;
    }
}
} // namespace

SystemCallTrace::SystemCallTrace(pid_t process) : process_(process)
{
    const std::string id = std::to_string(process), prefix = directory_.Path() + "/calls";
    tracer_ = fork();
    if (tracer_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        // A file for each process, in which no call is cut in two by another's.
        execlp("strace", "strace", "-qq", "-ff", "-y", "-s", "4096", "-e", "signal=none", "-e",
               "trace=%file,connect,bind,clone,clone3,fork,vfork,setgroups,/set(re|fs)?[ug]id,/setres[ug]id",
               "-o", prefix.c_str(), "-p", id.c_str(), nullptr);
        _exit(127);
    }
    WaitUntil([&] {
        runs_ = IsTraced(process);
        if (!runs_ && waitpid(tracer_, nullptr, WNOHANG) == tracer_)
            tracer_ = -1;
        return runs_ || tracer_ < 0;
    });
}

SystemCallTrace::~SystemCallTrace()
{
    if (tracer_ > 0) {
        kill(tracer_, SIGTERM);
        waitpid(tracer_, nullptr, 0);
    }
}

std::vector<TracedCall> SystemCallTrace::Collect()
{
    EXPECT_TRUE(WaitUntil([this] { return waitpid(tracer_, nullptr, WNOHANG) != 0; }));
    tracer_ = -1;
    std::vector<TracedCall> calls;
    Read(process_, {}, calls);
    return calls;
}

void SystemCallTrace::Read(pid_t process, TracedIdentity identity, std::vector<TracedCall>& calls) const
{
    std::ifstream lines(directory_.Path() + "/calls." + std::to_string(process));
    EXPECT_TRUE(lines) << "no trace of process " << process;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t open = line.find('('), equals = line.rfind(" = ");
        if (open == std::string::npos)
            continue; // how it ended
        const std::string name = line.substr(0, open), arguments = line.substr(open, equals - open);
        const long result = equals == std::string::npos ? -1 : std::atol(line.c_str() + equals + 3);
        if (name.starts_with("set") && IsAmong(name.substr(name.size() - 2), {"id", "ps"})) {
            if (result == 0)
                Change(identity, name, arguments);
        } else if (IsAmong(name, {"clone", "clone3", "fork", "vfork"})) {
            if (result > 0)
                Read(static_cast<pid_t>(result), identity, calls);
        } else {
            calls.push_back({process, identity, name, ReadPaths(name, arguments), line});
        }
    }
}
