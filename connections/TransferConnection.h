#pragma once

#include <string>
#include <string_view>

#include "connections/OpenFile.h"
#include "connections/ThreadOrProcessConnection.h"

#include <netinet/in.h>

class UnfinishedFile;

/**
 * One file transfer, served by a worker under the requesting user's identity over a separate data
 * connection. Directions are the client's: a GET sends a file of this machine ("remote file"), a PUT writes
 * one.
 *
 * The daemon constructs it, sets everything, then starts the worker, which works on its own copy: nothing
 * set later reaches it. The worker is started whether the password was good or bad and answers the client
 * itself. The worker's exit code is the transfer's result: 0 complete, else failed.
 */
class TransferConnection : public ThreadOrProcessConnection
{
public:
    enum TransferType { Put = 0, Get = 1 };

    /** `localAddress` is the daemon's own address for passive connections, borrowed; may be null. */
    TransferConnection(const QORUnicodeString& host, const sockaddr_in* localAddress);
    ~TransferConnection() override;

    /** Begins the life. With `noImpersonation` the worker keeps the daemon's own identity. */
    void SetAttributes(const QORUnicodeString& user, const QORUnicodeString& credential,
                       const long& beginLifeTime, const int& transferType, const int& ascii,
                       const QORUnicodeString& remoteFile, const int& number, const int& versionAndRevision,
                       const int& noImpersonation, const int& bindDataSocket);
    /** PASSIVE: the daemon connects to the client. Otherwise the client connects to the daemon. */
    void SetPassiveHostAddressAndPortNumber(const QORUnicodeString& hostAddress, const int& port);
    /** Update mode. For a GET: size and check sums of the part that the client already has. */
    void SetUpdateSizeAndCheckSum(const long long& size, const unsigned& headCheckSum,
                                  const unsigned& bodyCheckSum);
    /** The result of the password check, made before: with it the worker checks nothing again. `refusal` is
     * the reason that a refused client is told. Not called: the worker checks the credential itself. */
    void SetUserVerdict(const bool& good, const QORUnicodeString& refusal);
    bool IsRefused() const { return verdict_ == Verdict::Refused; }

    /** `line` becomes the line in a listing. */
    void GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& line) const;
    /** The same, waiting for the status at most `limitMicroseconds` (see WriterReader::Read). */
    void GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& line,
                       long long& limitMicroseconds) const;
    /** 1 when `user` names the requesting user (domains and case do not count), else 0. */
    int IsSameUser(const QORUnicodeString& user) const;
    const int& GetNumber() const { return number_; }
    const int& GetVersionAndRevision() const { return version_; }
    const QORUnicodeString& GetSourceOrTargetFile() const { return remoteFile_; }
    const int& GetTransferType() const { return transferType_; }

    int ThreadOrProcessRoutine() override;

private:
    /** What ImpersonateUser() saved and RestoreUser() takes back. */
    struct SavedIdentity {
        static constexpr int GroupCapacity = 16;
        long userId = 0;
        long groupId = 0;
        long groups[GroupCapacity] = {};
        int groupCount = GroupCapacity;
    };

    enum class Verdict { NotGiven, Good, Refused };
    /** The modes of ImpersonateUser(). */
    enum class PasswordMode { Check = 0, TrustEarlierCheck = 1 };

    int TakeIdentity();
    int RunAsUser();
    int RunTransfer();
    /** Switches to the user: 0, or nonzero with the process' last error. */
    int Impersonate(PasswordMode mode);
    int Restore();

    // The data connection, once the client has been told of it: 0, else 1 and traced.
    int OpenDataConnection();
    int AcceptClient();
    int ConnectToClient();
    int AttemptConnection();
    int BindAsDaemon();

    int TransferGet();
    int CheckClientsPart(std::string_view& keyword, std::string& message);
    int SendFile();

    int TransferPut();
    int OfferUpdate(bool& isAppended, std::string& message);
    std::string_view SumUpOwnPart();
    int OpenForWriting(bool isAppended, UnfinishedFile& unfinished);
    int ReceiveFile();
    int ReceiveBlocks();
    int WriteToFile(std::string_view bytes);

    /** Opens the remote file as file_: 0, or -1 with errno. */
    int OpenRemoteFile(int flags);
    enum class SumResult { Done, HeadDiffers, NotRead };
    /**
     * Sums up the first `size` bytes of the open file: the check sum of its head goes to `head` (left
     * alone when there is none), that of all to `body`. Stops behind a head that `expectedHead` (null:
     * anything) is not the sum of. NotRead comes with errno.
     */
    SumResult SumUp(const long long& size, const unsigned* expectedHead, unsigned& head, unsigned& body);

    std::string_view ErrorKeyword() const;
    /** Writes on the control connection: 0, or 1 and traced. */
    int Answer(const QORUnicodeString& text);
    /** Traces what went wrong with the file, errno the reason, and tells the client: always 1. */
    int RefuseFile(const char* trace, std::string_view lead);
    void TraceFileError(std::string_view text, const std::string& reason) const;

    QORUnicodeString host_;
    const sockaddr_in* localAddress_;
    BaseSocket dataSocket_;
    BaseSocket listeningDataSocket_;
    int dataPort_ = 0;
    int passive_ = 0;
    int passivePort_ = 0;
    QORUnicodeString passiveHostAddress_;
    QORUnicodeString user_;
    QORUnicodeString credential_;
    Verdict verdict_ = Verdict::NotGiven;
    QORUnicodeString refusal_;
    SavedIdentity savedIdentity_;
    int transferType_ = Put;
    int ascii_ = 0;
    QORUnicodeString remoteFile_;
    int number_ = 0;
    int version_ = 0;
    int noImpersonation_ = 0;
    int bindDataSocket_ = 0;
    OpenFile file_;
    int update_ = 0;
    long long updateSize_ = -1;
    unsigned headCheckSum_ = 0;
    unsigned bodyCheckSum_ = 0;
};

using QORListPtrTransferConnection = QORListPtr<TransferConnection>;
