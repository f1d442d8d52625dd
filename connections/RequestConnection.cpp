#include "connections/RequestConnection.h"

#include <cstring>

#include <unistd.h>

RequestConnection::~RequestConnection()
{
    WipeCredentials();
}

void RequestConnection::SetPeer(const sockaddr_in& address)
{
    peerAddress_ = address;
}

void RequestConnection::SetCredentials(std::string_view user, std::string_view password,
                                       const int& limitSeconds)
{
    WipeCredentials();
    user_ = user;
    password_ = password;
    limitSeconds_ = limitSeconds;
}

void RequestConnection::WipeCredentials()
{
    explicit_bzero(password_.data(), password_.size());
    password_.clear();
    user_.clear();
}

int RequestConnection::ThreadOrProcessRoutine()
{
    alarm(static_cast<unsigned>(limitSeconds_));
    const int result = GetProcess().VerifyUser(user_, password_) == 0 ? 0 : 1;
    WipeCredentials();
    return result;
}
