#include "connections/BaseConnection.h"

#include <cstdio>

#include "connections/UserNames.h"
#include "protocol/ConnectionTexts.h"

#include <unistd.h>

BaseConnection::BaseConnection(const sockaddr_in* passiveHostInfo)
    : passiveHostInfo_(passiveHostInfo), outputFileOwner_(geteuid())
{
}

BaseConnection::~BaseConnection()
{
    passiveHostInfo_ = nullptr;
}

void BaseConnection::SetAttributes(const QORUnicodeString& socketFlag, const QORUnicodeString& user,
                                   const long& beginTime, const QORUnicodeString& command, const int& number,
                                   const int& version, const QORUnicodeString& host, const int& port)
{
    socketFlag_.Append(socketFlag);
    user_.Append(user);
    SetBeginLifeTime(beginTime);
    command_.Append(command);
    number_ = number;
    version_ = version;
    identifier_ = protocol::CommandIdentifier(host.View(), port, number, user.View(), GetBeginDate().View());
}

void BaseConnection::GetAttributes(const QORUnicodeString& prefix, QORUnicodeString& result) const
{
    const auto processId = static_cast<unsigned long>(GetProcess().GetProcessId());
    result = prefix;
    result.Append(protocol::CommandAttributes(number_, processId, user_.View(), GetBeginDate().View(),
                                              command_.View()));
}

int BaseConnection::IsSameUser(const QORUnicodeString& user) const
{
    return UserNames::AreSame(user, user_);
}

bool BaseConnection::IsSocketMode() const
{
    return socketFlag_ == "SOCKET" || socketFlag_ == "TRUE";
}

int BaseConnection::DeleteOutputFile(const int&) const
{
    return remove(GetOutputFileName().ConvertToChar());
}

void BaseConnection::SetPassiveHostAddressAndPortNumber(const QORUnicodeString& address, const int& port)
{
    passiveHostAddress_ = address;
    passive_ = 1;
    passivePort_ = port;
}
