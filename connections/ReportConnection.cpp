#include "connections/ReportConnection.h"

#include "reports/FileSystem.h"
#include "reports/SystemInfo.h"
#include "support/BaseString.h"

#include <unistd.h>

int ReportConnection::ThreadOrProcessRoutine()
{
    alarm(static_cast<unsigned>(limitSeconds_));
    if (Write(listing_) != 0) // before what a hung mount may keep for ever
        return 1;
    QORListValQORUnicodeString lines;
    SystemInfo().PrintSystemInfo(lines);
    FileSystem fileSystems;
    if (fileSystems.ReadFileSystemEntries() < 0)
        BaseString::PutTrace("Error unable to read the mount table", 1);
    else
        fileSystems.PrintFileSystemEntries(lines, 0, 0);
    QORUnicodeString report;
    BaseString::CreateString(report, lines, "\n");
    return Write(report.Append("\n"));
}

int ReportConnection::Write(const QORUnicodeString& text)
{
    if (GetSocket().WriteToBaseSocket(text) == 0)
        return 0;
    BaseString::PutTrace(GetSocket().BaseSocketGetLastError(), 1);
    return 1;
}
