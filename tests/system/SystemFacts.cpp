#include "tests/system/SystemFacts.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/sem.h>

#include "tests/system/ServerProcess.h"
#include "tests/system/Waiting.h"

namespace
{
/** The fields of /proc/<id>/stat that follow the name: state first, parent second; none when it is gone. */
std::vector<std::string> ReadState(pid_t process)
{
    const std::string line = ReadFile("/proc/" + std::to_string(process) + "/stat");
    const size_t name = line.rfind(')');
    std::vector<std::string> fields;
    if (name != std::string::npos) {
        std::istringstream rest(line.substr(name + 1));
        for (std::string field; rest >> field;)
            fields.push_back(field);
    }
    return fields;
}
} // namespace

std::vector<pid_t> ListProcesses()
{
    std::vector<pid_t> processes;
    for (const std::string& name : ListDirectory("/proc")) {
        if (name.find_first_not_of("0123456789") == std::string::npos)
            processes.push_back(std::stoi(name));
    }
    return processes;
}
std::vector<pid_t> FindProcessesWith(const std::string& text)
{
    std::vector<pid_t> found = ListProcesses();
    std::erase_if(found, [&](pid_t process) {
        return ReadFile("/proc/" + std::to_string(process) + "/environ").find(text) == std::string::npos;
    });
    return found;
}

std::vector<pid_t> FindZombiesOf(pid_t parent)
{
    std::vector<pid_t> found = ListProcesses();
    std::erase_if(found, [&](pid_t process) {
        const std::vector<std::string> state = ReadState(process);
        return state.size() < 2 || state[0] != "Z" || state[1] != std::to_string(parent);
    });
    return found;
}

void StopProcess(pid_t process)
{
    kill(process, SIGSTOP);
    EXPECT_TRUE(WaitUntil([process] {
        const std::vector<std::string> state = ReadState(process);
        return state.empty() || state.front() == "T";
    }));
}

bool IsAlive(pid_t process)
{
    const std::vector<std::string> state = ReadState(process);
    return !state.empty() && state[0] != "Z" && state[0] != "X";
}

size_t CountDescriptorsOf(pid_t process)
{
    return ListDirectory("/proc/" + std::to_string(process) + "/fd").size();
}

std::vector<int> FindSemaphoresOf(const std::vector<pid_t>& users)
{
    std::vector<int> found;
    std::ifstream semaphores("/proc/sysvipc/sem");
    std::string line;
    std::getline(semaphores, line); // headings
    int set = 0;
    for (long key = 0; semaphores >> key >> set && std::getline(semaphores, line);)
        if (std::find(users.begin(), users.end(), semctl(set, 0, GETPID)) != users.end())
            found.push_back(set);
    return found;
}

size_t CountSystemVObjectsOf(pid_t process)
{
    // A segment tells its maker; a set of semaphores tells only who used it last, which is the maker until a
    // worker does.
    size_t count = FindSemaphoresOf({process}).size();
    std::ifstream segments("/proc/sysvipc/shm");
    std::string line;
    std::getline(segments, line); // headings
    long key = 0, id = 0, mode = 0, size = 0, maker = 0;
    while (segments >> key >> id >> mode >> size >> maker && std::getline(segments, line))
        count += maker == process;
    return count;
}
