#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/FileDescriptor.h"
#include "support/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{
std::string NameOf(char first, std::size_t length)
{
    std::string name = first + std::string("tmp/ruveltest-notify-") + std::to_string(getpid()) + "-";
    return name.append(length - name.size(), 'x');
}

constexpr std::size_t LongestPath = sizeof(sockaddr_un::sun_path) - 1; // a NUL follows
constexpr std::size_t LongestName = sizeof(sockaddr_un::sun_path);
} // namespace

TEST(ServiceManager, IsToldOnceOfEachAtAnyAddress)
{
    for (const std::string& name :
         {NameOf('/', 40), NameOf('/', LongestPath), NameOf('@', 40), NameOf('@', LongestName)}) {
        const FileDescriptor manager(socket(AF_UNIX, SOCK_DGRAM, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        if (name[0] == '@')
            address.sun_path[0] = '\0';
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        ASSERT_EQ(bind(manager.Number(), reinterpret_cast<sockaddr*>(&address), length), 0) << name;
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        ServiceManager told;
        EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
        told.TellReady();
        told.TellStopping();
        told.TellStopping();
        // A datagram to a socket of this machine is there once it is sent.
        std::string heard;
        char text[128];
        for (ssize_t count; (count = recv(manager.Number(), text, sizeof text, MSG_DONTWAIT)) >= 0;)
            heard.append(text, static_cast<std::size_t>(count)) += ";";
        EXPECT_EQ(heard, "READY=1;STOPPING=1;") << name;
        unlink(name.c_str());
    }
}

TEST(ServiceManager, ThatCannotBeReachedIsTracedAndNoHindrance)
{
    const struct {
        std::string address;
        const char* reason;
    } cases[] = {{"", ""},
                 {"relative", "Address family not supported by protocol"},
                 {NameOf('/', LongestPath + 1), "File name too long"},
                 {NameOf('@', LongestName + 1), "File name too long"},
                 {NameOf('/', 40), "No such file or directory"}};
    for (const auto& [address, reason] : cases) {
        SCOPED_TRACE(address);
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
        const ServiceManager manager;
        testing::internal::CaptureStdout();
        manager.TellReady();
        const std::string expected =
            address.empty() ? ""
                            : "Error unable to notify service manager (" + address + ") : " + reason + "\n";
        EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    }
}
