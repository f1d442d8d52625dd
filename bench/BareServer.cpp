#include "bench/BareServer.h"

#include <csignal>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/Conversation.h"

namespace
{
constexpr std::string_view Banner = "->RuvelServer V1.8.3 January 27, 2005 (Unix)\n";
constexpr std::string_view ReturnLine = "->ProcessReturnCode = 0\n";

struct BareClient {
    int descriptor;
    pid_t command = 0; // 0 before the request has come
};

void Accept(int listening, std::vector<BareClient>& clients)
{
    const int descriptor = accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0)
        return;
    const int on = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    clients.push_back({descriptor});
}

void ReadRequest(BareClient& client)
{
    char request[4096];
    if (recv(client.descriptor, request, sizeof request, MSG_DONTWAIT) <= 0)
        return;
    send(client.descriptor, Banner.data(), Banner.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    client.command = StartTrue(client.descriptor);
}

void ReportEnded(int signals, std::vector<BareClient>& clients)
{
    signalfd_siginfo signal;
    [[maybe_unused]] const ssize_t count = read(signals, &signal, sizeof signal);
    for (pid_t ended; (ended = waitpid(-1, nullptr, WNOHANG)) > 0;) {
        std::erase_if(clients, [ended](const BareClient& client) {
            if (client.command != ended)
                return false;
            send(client.descriptor, ReturnLine.data(), ReturnLine.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            close(client.descriptor);
            return true;
        });
    }
}

[[noreturn]] void Serve(int listening)
{
    sigset_t childEnds;
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childEnds, nullptr);
    const int signals = signalfd(-1, &childEnds, SFD_CLOEXEC | SFD_NONBLOCK);
    std::vector<BareClient> clients;
    std::vector<pollfd> polled;
    for (;;) {
        polled = {{signals, POLLIN, 0}, {listening, POLLIN, 0}};
        for (const BareClient& client : clients)
            if (client.command == 0)
                polled.push_back({client.descriptor, POLLIN, 0});
        poll(polled.data(), polled.size(), -1);
        if (polled[1].revents != 0)
            Accept(listening, clients);
        for (BareClient& client : clients)
            if (client.command == 0)
                ReadRequest(client);
        if (polled[0].revents != 0)
            ReportEnded(signals, clients);
    }
}
} // namespace

BareServer::BareServer()
    : listening_(ListenOnFreePort(port_)), process_([this] { Serve(listening_.Number()); })
{
    listening_ = FileDescriptor();
}

pid_t StartTrue(int descriptor)
{
    static const char* const arguments[] = {"sh", "-c", "true", nullptr};
    const pid_t id = vfork();
    if (id != 0)
        return id;
    if (descriptor >= 0)
        for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
            dup2(descriptor, stream);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve("/bin/sh", const_cast<char* const*>(arguments), environ);
    _exit(127);
}
