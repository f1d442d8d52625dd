#include "client/CommandLine.h"
#include "client/RunCommand.h"

int main(int argc, char** argv)
{
    const CommandLine commandLine = ReadCommandLine(argc, argv);
    return commandLine.run ? RunCommand(*commandLine.run) : commandLine.exitCode;
}
