#include "connections/LogConnection.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "connections/DataConnection.h"
#include "connections/OpenFile.h"
#include "connections/ProgressReport.h"
#include "protocol/ConnectionTexts.h"
#include "protocol/Texts.h"
#include "support/BaseString.h"
#include "support/LogFile.h"

namespace
{
constexpr int ConnectionAttempts = 30;
constexpr int FirstStreamingVersion = 9; // clients before it expect the log as one piece
constexpr long long WholeLogLimit = 10240000;

/** 0, or 1 when the write failed, which is traced. */
int WriteAndTrace(BaseSocket& socket, const QORUnicodeString& text)
{
    if (socket.WriteToBaseSocket(text) == 0)
        return 0;
    BaseString::PutTrace(socket.BaseSocketGetLastError(), 1);
    return 1;
}
} // namespace

LogConnection::LogConnection(const BaseConnection& source, const int& returnCode)
    : number_(source.GetNumber()),
      version_(source.GetVersionAndRevision()),
      identifier_(source.GetIdentifier()),
      outputFileName_(source.GetOutputFileName()),
      outputFileOwner_(source.GetOutputFileOwner()),
      returnCode_(returnCode),
      passive_(source.IsPassive()),
      passiveHostInfo_(source.GetPassiveHostInfo())
{
    source.GetAttributes("", attributes_);
    if (passive_ == 0)
        return;
    passivePort_ = source.GetPassivePortNumber();
    passiveHostAddress_ = source.GetPassiveHostAddress();
}

LogConnection::~LogConnection()
{
    passiveHostInfo_ = nullptr;
}

void LogConnection::GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& out) const
{
    long long limit = WriterReader::DefaultLockMicroseconds;
    GetAttributes(prefix, out, limit);
}

void LogConnection::GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& out,
                                  long long& limitMicroseconds) const
{
    out = prefix;
    out.Append(attributes_).Append(protocol::ReturnCodeAttribute(returnCode_));
    AppendStatus(out, limitMicroseconds);
}

int LogConnection::DeleteOutputFile(const int&) const
{
    // The worker cuts in its own copy of this object and tells by its exit code.
    if (complete_ == 0 || GetLastWorkerStatus() == LogWasCut)
        return 0;
    return remove(outputFileName_.ConvertToChar());
}

int LogConnection::ThreadOrProcessRoutine()
{
    const int result = passive_ != 0 ? DeliverPassively() : Transfer(GetSocket());
    return result == 0 && complete_ == 0 ? LogWasCut : result;
}

int LogConnection::DeliverPassively()
{
    if (DataConnection::Retry(ConnectionAttempts, [this] { return AttemptConnection(); }) != 0) {
        BaseString::PutTrace(dataSocket_.BaseSocketGetLastError(), 1);
        return 1;
    }
    int result = WriteAndTrace(dataSocket_, identifier_);
    if (result == 0)
        result =
            message_.GetLengthInChar() == 0 ? Transfer(dataSocket_) : WriteAndTrace(dataSocket_, message_);
    DataConnection::CloseInOrder(dataSocket_);
    return result;
}

int LogConnection::AttemptConnection()
{
    if (passiveHostInfo_ == nullptr)
        return DataConnection::ConnectFrom(dataSocket_, nullptr, passiveHostAddress_, passivePort_);
    const int bound = dataSocket_.Bind(*passiveHostInfo_);
    return DataConnection::ConnectAfterBind(dataSocket_, bound, passiveHostAddress_, passivePort_);
}

int LogConnection::Transfer(BaseSocket& socket)
{
    complete_ = 1;
    // Opened once: all that is checked and read is this file, whatever its name comes to stand for.
    std::string error;
    OpenFile log(LogFile::OpenForReading(std::string(outputFileName_.View()), outputFileOwner_, error));
    if (!log.IsOpen()) {
        BaseString::PutTrace("Error unable to check file...(", outputFileName_, ") : ", 0);
        BaseString::PutTrace(error, 1);
        QORUnicodeString line(protocol::LogNotCheckedLead);
        SendFramed(socket, line.Append(error).Append("\n"));
        return 0;
    }
    const long long size = log.FindSize();
    if (size == -1) {
        BaseString::PutTrace("Error unable to get file stat...(", outputFileName_, ")", 1);
        SendFramed(socket, protocol::LogWithoutSize);
        return 0;
    }
    if (version_ < FirstStreamingVersion)
        TransferWhole(socket, log, size);
    else
        TransferStream(socket, log);
    return 0;
}

void LogConnection::TransferWhole(BaseSocket& socket, OpenFile& log, const long long& fileSize)
{
    const std::string_view head = protocol::BannerLine;
    const bool isCut = fileSize > WholeLogLimit;
    const auto size = static_cast<std::size_t>(isCut ? WholeLogLimit : fileSize);
    std::string tail = protocol::ReturnCodeLine(returnCode_);
    if (isCut)
        tail.insert(0, protocol::LogLimitReached);

    const std::unique_ptr<char[]> buffer(new (std::nothrow) char[head.size() + size + tail.size()]);
    const long count = buffer == nullptr ? -1 : log.Read(buffer.get() + head.size(), size);
    if (count == -1) {
        BaseString::PutTrace("Error unable to open file...(", outputFileName_, ")", 1);
        SendFramed(socket, protocol::LogNotOpened);
        return;
    }
    head.copy(buffer.get(), head.size());
    const std::size_t tailStart = head.size() + static_cast<std::size_t>(count);
    tail.copy(buffer.get() + tailStart, tail.size());
    if (isCut)
        complete_ = 0;
    if (socket.WriteBinaryFileToBaseSocket(buffer.get(), static_cast<int>(tailStart + tail.size())) == -1)
        BaseString::PutTrace(socket.BaseSocketGetLastError(), 1);
}

void LogConnection::TransferStream(BaseSocket& socket, OpenFile& log)
{
    if (WriteAndTrace(socket, protocol::BannerLine) != 0)
        return;
    ProgressReport progress(GetStatusBoard(), protocol::SentLead);
    alignas(4096) static char block[OpenFile::BlockSize]; // whole pages are copied at less cost
    long count;
    while ((count = log.ReadSome(block, sizeof block)) > 0) {
        if (progress.Send(socket, std::string_view(block, static_cast<std::size_t>(count))) != 0) {
            BaseString::PutTrace(socket.BaseSocketGetLastError(), 1);
            return;
        }
    }
    QORUnicodeString tail(protocol::ReturnCodeLine(returnCode_));
    if (count < 0) {
        const int error = errno;
        BaseString::PutTrace("Error reading file...(", outputFileName_, 0);
        BaseString::PutTrace(") : ", strerror(error), 1);
        tail = QORUnicodeString(protocol::LogNotRead).Append(tail);
    }
    progress.Publish();
    WriteAndTrace(socket, tail);
}

void LogConnection::SendFramed(BaseSocket& socket, const QORUnicodeString& line) const
{
    QORUnicodeString answer(protocol::BannerLine);
    answer.Append(line).Append(protocol::ReturnCodeLine(returnCode_));
    WriteAndTrace(socket, answer);
}
