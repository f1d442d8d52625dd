#pragma once

#include "connections/Connection.h"
#include "support/QORLists.h"

#include <netinet/in.h>
#include <sys/types.h>

/**
 * One launched command: who launched it, what it runs, in which mode, and the client's address when the log
 * is to be delivered on a connection that the daemon opens (a passive launch).
 *
 * Created by the launch handler, given its attributes once, then kept in the server's command list until
 * supervision or a kill request deletes it. It starts and ends no process itself: its BaseProcess does.
 */
class BaseConnection : public Connection
{
public:
    /** `passiveHostInfo` is the daemon's own address for passive connections, borrowed; may be null. */
    explicit BaseConnection(const sockaddr_in* passiveHostInfo);
    ~BaseConnection() override;

    /** To be called once, right after construction; `host` and `port` are the daemon's. Begins the life. */
    void SetAttributes(const QORUnicodeString& socketFlag, const QORUnicodeString& user,
                       const long& beginTime, const QORUnicodeString& command, const int& number,
                       const int& version, const QORUnicodeString& host, const int& port);
    /** `result` becomes the command's line in a listing. */
    void GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& result) const;

    /** 1 when `user` names the launching user (domains and case do not count), else 0. */
    int IsSameUser(const QORUnicodeString& user) const;

    const QORUnicodeString& GetSocketFlag() const { return socketFlag_; }
    /** True when the client is attached to the command's own streams. */
    bool IsSocketMode() const;
    /** The line by which the client asks for this command later. */
    const QORUnicodeString& GetIdentifier() const { return identifier_; }
    const int& GetNumber() const { return number_; }
    /** The version index of the client that launched it. */
    const int& GetVersionAndRevision() const { return version_; }

    const QORUnicodeString& GetOutputFileName() const { return GetProcess().GetOutputFileName(); }
    /** Removes the log file: the result of remove(). The argument means nothing. */
    int DeleteOutputFile(const int& ignored) const;
    /** The user that the log file was given to; the daemon's own unless set. */
    void SetOutputFileOwner(const uid_t& owner) { outputFileOwner_ = owner; }
    const uid_t& GetOutputFileOwner() const { return outputFileOwner_; }

    /** Makes this a passive launch: its log goes to a connection opened to this address. */
    void SetPassiveHostAddressAndPortNumber(const QORUnicodeString& address, const int& port);
    const QORUnicodeString& GetPassiveHostAddress() const { return passiveHostAddress_; }
    const int& GetPassivePortNumber() const { return passivePort_; }
    const sockaddr_in* GetPassiveHostInfo() const { return passiveHostInfo_; }
    int IsPassive() const { return passive_; }

private:
    QORUnicodeString socketFlag_;
    QORUnicodeString user_;
    QORUnicodeString command_;
    int number_ = 0;
    int version_ = 0;
    QORUnicodeString identifier_;
    int passivePort_ = 0;
    QORUnicodeString passiveHostAddress_;
    int passive_ = 0;
    const sockaddr_in* passiveHostInfo_;
    uid_t outputFileOwner_;
};

using QORListPtrBaseConnection = QORListPtr<BaseConnection>;
