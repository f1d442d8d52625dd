#include "connections/TransferConnection.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>

#include "connections/ProgressReport.h"
#include "connections/UserNames.h"
#include "protocol/TransferTexts.h"
#include "support/BaseString.h"
#include "support/CheckSum.h"
#include "support/FileCheckSum.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace
{
constexpr long long HeadSize = 16384; // its check sum crosses the wire: not to be changed

constexpr mode_t NewFileMode = 0666; // less the umask

/**
 * Opens a file for a user whose identity was taken on. The system lets a process open again what it holds, by
 * its own links below /proc, whoever may go where that file is; here it would be the daemon's trace. So such
 * links are not followed.
 */
int OpenForUser(const char* name, int flags, mode_t mode)
{
    open_how how = {};
    how.flags = static_cast<unsigned>(flags);
    how.mode = mode;
    how.resolve = RESOLVE_NO_MAGICLINKS;
    const long descriptor = syscall(SYS_openat2, AT_FDCWD, name, &how, sizeof how);
    if (descriptor < 0 && errno == ENOSYS) // before Linux 5.6
        return open(name, flags, mode);
    return static_cast<int>(descriptor);
}

/**
 * The system grants a process its own entries below /proc whatever its user. Here they would tell the user
 * where the daemon, whose memory the worker's is a copy of, keeps what. Mounts and network are everybody's.
 */
bool TellsOfThisProcess(const OpenFile& file)
{
    struct statfs system;
    if (fstatfs(file.Number(), &system) != 0 || system.f_type != PROC_SUPER_MAGIC)
        return false;
    char name[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(file.Number());
    const ssize_t length = readlink(link.c_str(), name, sizeof name);
    if (length < 0)
        return true;
    const std::string_view entry(name, static_cast<std::size_t>(length));
    const std::string own = "/" + std::to_string(getpid()) + "/";
    const std::size_t place = entry.find(own);
    if (place == std::string_view::npos)
        return false;
    const std::string_view what = entry.substr(place + own.size());
    return what != "mounts" && !what.starts_with("net/");
}
} // namespace

TransferConnection::TransferConnection(const QORUnicodeString& host, const sockaddr_in* localAddress)
    : host_(host), localAddress_(localAddress)
{
}

TransferConnection::~TransferConnection() = default;

void TransferConnection::SetAttributes(const QORUnicodeString& user, const QORUnicodeString& credential,
                                       const long& beginLifeTime, const int& transferType, const int& ascii,
                                       const QORUnicodeString& remoteFile, const int& number,
                                       const int& versionAndRevision, const int& noImpersonation,
                                       const int& bindDataSocket)
{
    user_ = user;
    credential_ = credential;
    SetBeginLifeTime(beginLifeTime);
    transferType_ = transferType;
    ascii_ = ascii;
    remoteFile_ = remoteFile;
    number_ = number;
    version_ = versionAndRevision;
    noImpersonation_ = noImpersonation;
    bindDataSocket_ = bindDataSocket;
}

void TransferConnection::SetPassiveHostAddressAndPortNumber(const QORUnicodeString& hostAddress,
                                                            const int& port)
{
    passiveHostAddress_ = hostAddress;
    passivePort_ = port;
    passive_ = 1;
}

void TransferConnection::SetUpdateSizeAndCheckSum(const long long& size, const unsigned& headCheckSum,
                                                  const unsigned& bodyCheckSum)
{
    updateSize_ = size;
    headCheckSum_ = headCheckSum;
    bodyCheckSum_ = bodyCheckSum;
    update_ = 1;
}

void TransferConnection::SetUserVerdict(const bool& good, const QORUnicodeString& refusal)
{
    verdict_ = good ? Verdict::Good : Verdict::Refused;
    refusal_ = refusal;
}

void TransferConnection::GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& line) const
{
    long long limit = WriterReader::DefaultLockMicroseconds;
    GetAttributes(prefix, line, limit);
}

void TransferConnection::GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& line,
                                       long long& limitMicroseconds) const
{
    line = prefix;
    line.Append(protocol::TransferAttributes({.number = number_,
                                              .user = user_.View(),
                                              .beginDate = GetBeginDate().View(),
                                              .lifeTimeOut = GetLifeTimeOut(),
                                              .isGet = transferType_ == Get,
                                              .isAscii = ascii_ != 0,
                                              .isPassive = passive_ != 0,
                                              .remoteFile = remoteFile_.View()}));
    AppendStatus(line, limitMicroseconds);
}

int TransferConnection::IsSameUser(const QORUnicodeString& user) const
{
    return UserNames::AreSame(user, user_);
}

int TransferConnection::ThreadOrProcessRoutine()
{
    if (noImpersonation_ != 0)
        return RunAsUser();
    if (TakeIdentity() != 0)
        return 1;
    const int result = RunAsUser();
    if (Restore() != 0)
        BaseString::PutTrace("Warning in RestoreUser() : ", GetProcess().BaseProcessGetLastError(), 1);
    return result;
}

int TransferConnection::TakeIdentity()
{
    if (verdict_ != Verdict::Refused &&
        Impersonate(verdict_ == Verdict::Good ? PasswordMode::TrustEarlierCheck : PasswordMode::Check) == 0)
        return 0;
    const QORUnicodeString reason =
        verdict_ == Verdict::Refused ? refusal_ : GetProcess().BaseProcessGetLastError();
    BaseString::PutTrace("Error in ImpersonateUser() : ", reason, 1);
    Answer(protocol::TransferRefusal(ErrorKeyword(), protocol::NotImpersonatedLead, reason.View()));
    return 1;
}

int TransferConnection::Impersonate(PasswordMode mode)
{
    savedIdentity_.groupCount = SavedIdentity::GroupCapacity;
    return GetProcess().ImpersonateUser(user_, credential_, savedIdentity_.userId, savedIdentity_.groupId,
                                        savedIdentity_.groups, savedIdentity_.groupCount,
                                        static_cast<int>(mode));
}

int TransferConnection::Restore()
{
    return GetProcess().RestoreUser(savedIdentity_.userId, savedIdentity_.groupId, savedIdentity_.groups,
                                    savedIdentity_.groupCount);
}

int TransferConnection::RunAsUser()
{
    dataPort_ = 0;
    if (passive_ != 0)
        return RunTransfer();
    const int failed = listeningDataSocket_.OpenServerSocket(dataPort_, 1);
    if (failed != 0) {
        const QORUnicodeString reason = listeningDataSocket_.BaseSocketGetLastError();
        BaseString::PutTrace("Error unable to create data connection : ", reason, 1);
        Answer(protocol::TransferRefusal(ErrorKeyword(), protocol::NoDataConnectionLead, reason.View()));
        return failed;
    }
    const int result = RunTransfer();
    listeningDataSocket_.CloseBaseSocket();
    return result;
}

int TransferConnection::RunTransfer()
{
    return transferType_ == Get ? TransferGet() : TransferPut();
}

int TransferConnection::OpenRemoteFile(int flags)
{
    if (remoteFile_.View().find('\0') != std::string_view::npos) {
        errno = EINVAL;
        return -1;
    }
    const char* name = remoteFile_.ConvertToChar();
    flags |= O_NOCTTY | O_CLOEXEC;
    const mode_t mode = (flags & O_CREAT) != 0 ? NewFileMode : 0;
    const bool isForUser = noImpersonation_ == 0;
    file_ = OpenFile(isForUser ? OpenForUser(name, flags, mode) : open(name, flags, mode));
    if (!file_.IsOpen())
        return -1;
    if (isForUser && TellsOfThisProcess(file_)) {
        errno = EACCES;
        return -1;
    }
    return 0;
}

TransferConnection::SumResult TransferConnection::SumUp(const long long& size, const unsigned* expectedHead,
                                                        unsigned& head, unsigned& body)
{
    CheckSum sum;
    UpdatePace pace;
    const auto publish = [&](long long done) {
        if (GetStatusBoard() != nullptr && (pace.IsDue() || done == size))
            GetStatusBoard()->Write(protocol::IntegrityProgress(done, size));
    };
    const auto add = [&](long long begin, long long end) {
        const auto publishPart = [&](long long done) { publish(begin + done); };
        errno = SumUpRange(file_.Number(), begin, end, sum, std::cref(publishPart));
        return errno == 0;
    };
    const long long headSize = std::min<long long>(size, HeadSize);
    if (!add(0, headSize))
        return SumResult::NotRead;
    if (headSize > 0) {
        head = sum.GetValue();
        if (expectedHead != nullptr && head != *expectedHead)
            return SumResult::HeadDiffers;
    }
    if (!add(headSize, size))
        return SumResult::NotRead;
    if (size > 0) {
        publish(size);
        if (file_.MoveTo(size) != 0)
            return SumResult::NotRead;
    }
    body = sum.GetValue();
    return SumResult::Done;
}

std::string_view TransferConnection::ErrorKeyword() const
{
    return transferType_ == Get ? protocol::GetError : protocol::PutError;
}

int TransferConnection::Answer(const QORUnicodeString& text)
{
    if (GetSocket().WriteToBaseSocket(text) == 0)
        return 0;
    BaseString::PutTrace(GetSocket().BaseSocketGetLastError(), 1);
    return 1;
}

int TransferConnection::RefuseFile(const char* trace, std::string_view lead)
{
    const std::string reason = strerror(errno);
    TraceFileError(trace, reason);
    Answer(protocol::FileRefusal(ErrorKeyword(), lead, remoteFile_.View(), reason));
    return 1;
}

void TransferConnection::TraceFileError(std::string_view text, const std::string& reason) const
{
    BaseString::PutTrace(text, remoteFile_, ") : ", 0);
    BaseString::PutTrace(reason, 1);
}
