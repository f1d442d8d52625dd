#include "daemon/MainLoop.h"

#include <new>

#include "daemon/RuvelServer.h"
#include "support/BaseString.h"

namespace
{

constexpr int DefaultPort = 5678;
constexpr int LowestPort = 2; // the port below it is the data port
constexpr const char* DefaultLogDirectory = "/tmp";
constexpr int DefaultRetryNumber = 0;
constexpr int DefaultRetryTime = 1; // seconds

constexpr const char* Usage[] = {
    "",
    "Options:",
    "",
    "    -help or -h              : display this message",
    "",
    "  To install the daemon:",
    "",
    "    -port PortNumber         : daemon port number (default 5678)",
    "    -retrynumber RetryNumber : retry number (default 0)",
    "    -retrytime RetryTime     : retry time in sec (default 1 sec)",
    "    -noinstall               : single user mode",
    "    -nocheck                 : don't check for password",
    "    -logdirectory Directory  : directory for command(s) log",
    "",
};

using Arguments = QORListValQORUnicodeString;

void PrintUsage()
{
    BaseString::PutTrace(RuvelServer::VersionAndRevision, 1);
    for (const char* line : Usage)
        BaseString::PutTrace(line, 1);
}

/** The option's number, or `otherwise` when it is absent or no number. */
int NumberOf(const Arguments& arguments, const char* option, int otherwise)
{
    QORUnicodeString value;
    int number = otherwise;
    if (BaseString::CheckOptionWithArgument(arguments, option, value))
        value.ConvertToNum(&number, "%d");
    return number;
}

bool IsUsableLogDirectory(const QORUnicodeString& directory)
{
    QORUnicodeString message;
    if (BaseString::CheckDirectory(directory, message, 1) != -1)
        return true;
    BaseString::PutTrace("Error invalid log directory value (", directory, ") : ", 0);
    BaseString::PutTrace(message, 1);
    return false;
}

/** 0 with the directory to use, 1 when not even the default can be used. */
int SettleLogDirectory(const Arguments& arguments, QORUnicodeString& directory)
{
    if (BaseString::CheckOptionWithArgument(arguments, "-logdirectory", directory) &&
        IsUsableLogDirectory(directory))
        return 0;
    directory = DefaultLogDirectory;
    return IsUsableLogDirectory(directory) ? 0 : 1;
}

int Run(int argc, char** argv)
{
    Arguments arguments;
    for (int i = 1; i < argc; ++i)
        arguments.Append(QORUnicodeString(argv[i]));
    if (BaseString::CheckOption(arguments, "-help") || BaseString::CheckOption(arguments, "-h")) {
        PrintUsage();
        return 1;
    }

    RuvelServer server;
    int port = NumberOf(arguments, "-port", DefaultPort);
    if (port < LowestPort)
        port = DefaultPort;
    QORUnicodeString logDirectory;
    if (SettleLogDirectory(arguments, logDirectory) != 0)
        return 1;
    if (BaseString::CheckOption(arguments, "-noinstall")) {
        server.SetSingleUser();
        // Doing without passwords is only for a daemon that runs as one user.
        if (BaseString::CheckOption(arguments, "-nocheck"))
            server.SetNoPasswordCheck();
    }
    int retryNumber = DefaultRetryNumber;
    int retryTime = DefaultRetryTime;
    QORUnicodeString given;
    if (BaseString::CheckOptionWithArgument(arguments, "-retrynumber", given)) {
        retryNumber = NumberOf(arguments, "-retrynumber", DefaultRetryNumber);
        retryTime = NumberOf(arguments, "-retrytime", DefaultRetryTime);
    }
    return server.MainDaemonLoop(port, logDirectory, retryNumber, retryTime);
}

} // namespace

int MainLoop(int argc, char** argv)
{
    try {
        return Run(argc, argv);
    } catch (const std::bad_alloc&) {
        BaseString::PutTrace("Error out of memory", 1);
        return 1;
    }
}
