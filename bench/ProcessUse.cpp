#include "bench/ProcessUse.h"

#include <fstream>
#include <string>

ProcessUse ProcessUse::Of(pid_t process)
{
    ProcessUse use;
    const std::string directory = "/proc/" + std::to_string(process);
    std::ifstream status(directory + "/status");
    for (std::string line; std::getline(status, line);) {
        const std::size_t colon = line.find(':');
        const std::string name = line.substr(0, colon);
        if (name == "voluntary_ctxt_switches" || name == "nonvoluntary_ctxt_switches")
            use.contextSwitches += std::stol(line.substr(colon + 1));
        else if (name == "VmRSS")
            use.residentKilobytes = std::stol(line.substr(colon + 1));
    }
    double nanoseconds = 0;
    std::ifstream(directory + "/schedstat") >> nanoseconds;
    use.cpuMicroseconds = nanoseconds / 1000;
    return use;
}
