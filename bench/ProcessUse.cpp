#include "bench/ProcessUse.h"

#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

#include "bench/SystemFacts.h"

namespace
{
/** The processor time of a process' children that it has waited for, in seconds. */
double ReadEndedChildrensCpu(const std::string& directory)
{
    constexpr int FieldsBefore = 13; // behind the name, up to those that count
    std::string line;
    std::getline(std::ifstream(directory + "/stat"), line);
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string ignored;
    for (int field = 0; field < FieldsBefore; ++field)
        fields >> ignored;
    double user = 0, system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}
} // namespace

ProcessUse ProcessUse::Of(pid_t process)
{
    ProcessUse use;
    const std::string directory = "/proc/" + std::to_string(process);
    for (const char* label : {"voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"})
        use.contextSwitches += static_cast<long>(ReadNumber(directory + "/status", label));
    double nanoseconds = 0;
    std::ifstream(directory + "/schedstat") >> nanoseconds;
    use.cpuMicroseconds = nanoseconds / 1000;
    use.endedChildrensCpuSeconds = ReadEndedChildrensCpu(directory);
    return use;
}

ProcessUse ProcessUse::OfAlone(pid_t process)
{
    constexpr useconds_t pause = 1000;
    constexpr int looks = 5000;
    const std::string id = std::to_string(process);
    for (int look = 0; look < looks; ++look) {
        std::string child;
        if (!(std::ifstream("/proc/" + id + "/task/" + id + "/children") >> child))
            break;
        usleep(pause);
    }
    return Of(process);
}

double ProportionalMemory(pid_t process)
{
    return ReadNumber("/proc/" + std::to_string(process) + "/smaps_rollup", "Pss");
}
