#include "support/ServiceManager.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "support/BaseString.h"
#include "support/FileDescriptor.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace
{
constexpr const char* AddressVariable = "NOTIFY_SOCKET";
constexpr timeval LongestWait = {1, 0};

/** The length of the address, or 0 with errno set when this is none. */
socklen_t MakeAddress(const std::string& name, sockaddr_un& address)
{
    address = {};
    address.sun_family = AF_UNIX;
    const bool isAbstract = name[0] == '@';
    if (!isAbstract && name[0] != '/') {
        errno = EAFNOSUPPORT;
        return 0;
    }
    // A path ends with a NUL, which the address has room for; an abstract name ends with its length.
    const std::size_t size = name.size() + (isAbstract ? 0 : 1);
    if (size > sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return 0;
    }
    name.copy(address.sun_path, name.size());
    if (isAbstract)
        address.sun_path[0] = '\0';
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
}

/** 0, or -1 with errno set. */
int SendDatagram(const std::string& name, const char* text, int flags)
{
    sockaddr_un address;
    const socklen_t length = MakeAddress(name, address);
    if (length == 0)
        return -1;
    const FileDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen() ||
        setsockopt(socket.Number(), SOL_SOCKET, SO_SNDTIMEO, &LongestWait, sizeof LongestWait) != 0)
        return -1;
    const ssize_t sent = sendto(socket.Number(), text, strlen(text), flags | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), length);
    return sent < 0 ? -1 : 0;
}
} // namespace

ServiceManager::ServiceManager()
{
    const char* const address = getenv(AddressVariable);
    if (address != nullptr)
        address_ = address;
    unsetenv(AddressVariable);
}

void ServiceManager::TellReady() const
{
    Send("READY=1", 0);
}

void ServiceManager::TellStopping()
{
    if (!stoppingTold_)
        Send("STOPPING=1", MSG_DONTWAIT);
    stoppingTold_ = true;
}

void ServiceManager::Send(const char* state, int flags) const
{
    if (address_.empty() || SendDatagram(address_, state, flags) == 0)
        return;
    const char* const reason = strerror(errno);
    BaseString::PutTrace("Error unable to notify service manager (", QORUnicodeString(address_), ") : ", 0);
    BaseString::PutTrace(reason, 1);
}
