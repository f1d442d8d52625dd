#pragma once

#include "reports/FileSystemEntry.h"
#include "support/QORLists.h"
#include "support/QORUnicodeString.h"

using QORListPtrFileSystemEntry = QORListPtr<FileSystemEntry>;

/**
 * The table of mounted file systems and how full they are, built afresh for each request.
 *
 * Printing asks every file system that it shows for its counters, and one that hangs (a network mount whose
 * server has gone) holds the caller up for as long: only a worker may print, never the daemon.
 */
class FileSystem
{
public:
    FileSystem() = default;
    FileSystem(const FileSystem&) = delete;
    FileSystem& operator=(const FileSystem&) = delete;
    ~FileSystem() { DeleteEntries(); }

    /** Rebuilds the list from the mount table: the number of entries, -1 when it cannot be opened. */
    int ReadFileSystemEntries();
    /** Appends the header and, in mount-table order, a line for each file system that is to be shown. */
    void PrintFileSystemEntries(QORListValQORUnicodeString& out, const int& withRemote,
                                const int& withIgnored);
    void PrintHeader(QORListValQORUnicodeString& out) const;
    /** Appends one text (of two lines when the device name is long), or nothing when the entry is left out:
     * remote or ignored ones unless asked for, and those whose counters cannot be had. */
    void PrintFileSystemEntry(QORListValQORUnicodeString& out, const int& withRemote, const int& withIgnored,
                              FileSystemEntry& entry) const;

    /** The text of one file system. Control bytes in names (any user may choose them) become '?'. */
    static QORUnicodeString FormatEntry(const FileSystemEntry& entry, const BlockCounts& counts);
    /** amount * fromUnit / toUnit rounded down, or "-" when amount or fromUnit is unknown (all ones). */
    static char* PrintReadable(char* buffer, unsigned int bufferSize, unsigned long long amount,
                               unsigned long fromUnit, unsigned long toUnit);

private:
    void DeleteEntries();

    QORListPtrFileSystemEntry entries_{0};
};
