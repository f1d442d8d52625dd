#include "connections/RequestConnection.h"

#include <cstring>

namespace
{
void Wipe(QORUnicodeString& text)
{
    // The text's own memory, not a copy's: freed memory keeps what was in it.
    explicit_bzero(const_cast<char*>(text.ConvertToChar()), text.View().size());
    text.Reset();
}
} // namespace

RequestConnection::~RequestConnection()
{
    WipeCredentials();
}

void RequestConnection::SetPeer(const sockaddr_in& address, const long long& acceptedMilliseconds)
{
    peerAddress_ = address;
    acceptedMilliseconds_ = acceptedMilliseconds;
}

void RequestConnection::SetCredentials(const QORUnicodeString& user, const QORUnicodeString& password)
{
    WipeCredentials();
    user_ = user;
    password_ = password;
}

void RequestConnection::WipeCredentials()
{
    Wipe(user_);
    Wipe(password_);
}

int RequestConnection::ThreadOrProcessRoutine()
{
    const int result = GetProcess().VerifyUser(user_, password_) == 0 ? 0 : 1;
    WipeCredentials();
    return result;
}
