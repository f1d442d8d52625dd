#include <new>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "client/Failure.h"
#include "client/RemoteShell.h"
#include "client/Subcommand.h"

namespace
{
/** Keeps sockets and files from the numbers of standard streams that are closed. What stands there instead
 * can be neither read nor written nor opened for it, so that using such a stream fails as before. */
void OccupyClosedStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(stream, F_GETFD) < 0)
            open("/", O_PATH | O_DIRECTORY); // the lowest free number is this one
}
} // namespace

int main(int argc, char** argv)
try {
    OccupyClosedStreams();
    const std::string_view path = argc > 0 ? argv[0] : "";
    const bool isRemoteShell = path.substr(path.rfind('/') + 1) == RemoteShellName;
    return isRemoteShell ? RunRemoteShell(argc, argv) : RunProgram(argc, argv);
} catch (const std::bad_alloc&) {
    return Report("out of memory");
}
