#include <new>
#include <string_view>

#include "client/Failure.h"
#include "client/RemoteShell.h"
#include "client/Subcommand.h"

int main(int argc, char** argv)
try {
    const std::string_view path = argc > 0 ? argv[0] : "";
    const bool isRemoteShell = path.substr(path.rfind('/') + 1) == RemoteShellName;
    return isRemoteShell ? RunRemoteShell(argc, argv) : RunProgram(argc, argv);
} catch (const std::bad_alloc&) {
    return Report("out of memory");
}
