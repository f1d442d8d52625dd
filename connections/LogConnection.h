#pragma once

#include "connections/BaseConnection.h"
#include "connections/ThreadOrProcessConnection.h"

class OpenFile;

/**
 * The delivery of a finished command's log and exit code to its client, by a worker: over the client's own
 * request socket, or, for a passive launch, over a data connection that the worker opens to the client.
 *
 * Made by the daemon from the finished BaseConnection. For a launch that is not passive the daemon moves the
 * client's socket in (assignment, then Reset() of the source). When the worker has ended, the daemon calls
 * DeleteOutputFile() and deletes the object; the object itself never touches the file.
 *
 * The worker's exit code: 0 delivered as far as the client took it (a failure to read the log is told to the
 * client), 1 no data connection or a message that could not be written, LogWasCut.
 */
class LogConnection : public ThreadOrProcessConnection
{
public:
    /** Exit code of a worker that delivered a log cut at the limit, which is therefore kept. */
    static constexpr int LogWasCut = 2;

    LogConnection(const BaseConnection& source, const int& returnCode);
    ~LogConnection() override;

    /** `out` becomes the line in a listing. */
    void GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& out) const;
    /** The same, waiting for the status at most `limitMicroseconds` (see WriterReader::Read). */
    void GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& out,
                       long long& limitMicroseconds) const;

    const int& GetNumber() const { return number_; }
    const int& GetVersionAndRevision() const { return version_; }
    const QORUnicodeString& GetOutputFileName() const { return outputFileName_; }
    const int& GetReturnCode() const { return returnCode_; }
    const QORUnicodeString& GetIdentifier() const { return identifier_; }
    int IsPassive() const { return passive_; }

    /** What a passive client receives instead of the log. */
    void SetMessage(const QORUnicodeString& message) { message_ = message; }
    /** Removes the log unless it was cut at the limit: the result of remove(), 0 when it is kept. */
    int DeleteOutputFile(const int& ignored) const;

    int ThreadOrProcessRoutine() override;
    /** Sends head, log and tail on the socket. Always 0: failures go to the client and the trace. */
    int Transfer(BaseSocket& socket);

private:
    int DeliverPassively();
    int AttemptConnection();
    void TransferWhole(BaseSocket& socket, OpenFile& log, const long long& fileSize);
    void TransferStream(BaseSocket& socket, OpenFile& log);
    void SendFramed(BaseSocket& socket, const QORUnicodeString& line) const;

    int number_;
    int version_;
    QORUnicodeString attributes_;
    QORUnicodeString identifier_;
    QORUnicodeString outputFileName_;
    uid_t outputFileOwner_;
    int returnCode_;
    int complete_ = 1;
    QORUnicodeString message_;
    BaseSocket dataSocket_;
    int passivePort_ = 0;
    QORUnicodeString passiveHostAddress_;
    int passive_;
    const sockaddr_in* passiveHostInfo_;
};

using QORListPtrLogConnection = QORListPtr<LogConnection>;
