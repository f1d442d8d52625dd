#include "bench/Peers.h"

#include <fstream>
#include <random>
#include <stdexcept>

#include <unistd.h>

#include "bench/BareTransfer.h"
#include "bench/Conversation.h"

namespace
{
constexpr int Attempts = 10;
constexpr useconds_t LookPause = 2000;
constexpr int Looks = 5000;

void WriteFile(const std::string& path, const std::string& text)
{
    std::ofstream(path) << text;
}

Arguments Joined(Arguments first, const Arguments& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}
} // namespace

int ChoosePort()
{
    static std::mt19937 random{std::random_device{}()};
    return std::uniform_int_distribution<int>(10000, 32000)(random);
}

Peer::Peer(const std::function<Arguments(int port)>& command)
{
    // A port that is in use shows in the peer's ending by itself.
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        port_ = ChoosePort();
        process_.emplace(command(port_));
        if (WaitUntilItAccepts())
            return;
    }
    throw std::runtime_error(command(port_).front() + " does not start");
}

bool Peer::WaitUntilItAccepts()
{
    for (int look = 0; look < Looks && !process_->HasEnded(); ++look) {
        if (IsAccepting(port_))
            return !process_->HasEnded();
        usleep(LookPause);
    }
    return false;
}

Peer MakeSocat(const std::string& command, bool isForking)
{
    return Peer([&](int port) -> Arguments {
        return {"socat", "-b", "65536",
                "TCP-LISTEN:" + std::to_string(port) + ",bind=127.0.0.1,reuseaddr,nodelay,backlog=128,fork",
                "EXEC:" + command + (isForking ? "" : ",nofork")};
    });
}

Rsync::Rsync(const std::string& folder)
{
    const std::string file = configuration_ / "rsyncd.conf";
    WriteFile(file, "log file = /dev/null\nuse chroot = no\n[all]\npath = " + folder +
                        "\nread only = no\nuid = " + std::to_string(geteuid()) +
                        "\ngid = " + std::to_string(getegid()) + "\n");
    peer_.emplace([&](int port) -> Arguments {
        return {"rsync",
                "--daemon",
                "--no-detach",
                "--config=" + file,
                "--address=127.0.0.1",
                "--port=" + std::to_string(port)};
    });
}

std::string Rsync::Url(const std::string& name) const
{
    return "rsync://127.0.0.1:" + std::to_string(peer_->Port()) + "/all/" + name;
}

void Rsync::Get(const std::string& name, const std::string& target, const Arguments& options) const
{
    Run(Joined(Joined({"rsync"}, options), {Url(name), target}));
}

void Rsync::Put(const std::string& source, const std::string& name, const Arguments& options) const
{
    Run(Joined(Joined({"rsync"}, options), {source, Url(name)}));
}

Vsftpd::Vsftpd(const std::string& folder)
{
    const std::string file = configuration_ / "vsftpd.conf";
    peer_.emplace([&](int port) -> Arguments {
        WriteFile(file, "listen=YES\nlisten_address=127.0.0.1\nlisten_port=" + std::to_string(port) +
                            "\nbackground=NO\nrun_as_launching_user=YES\nanonymous_enable=YES\n"
                            "no_anon_password=YES\nanon_root=" +
                            folder +
                            "\nwrite_enable=YES\nanon_upload_enable=YES\nxferlog_enable=NO\n"
                            "seccomp_sandbox=NO\n");
        return {"vsftpd", file};
    });
}

Vsftpd::Transfer Vsftpd::Begin(const std::string& command) const
{
    Transfer transfer;
    transfer.control = ConnectTo(peer_->Port());
    const auto ask = [&](const std::string& line, const char* expected) {
        if (!line.empty())
            Send(transfer.control, line + "\r\n");
        const std::string answer = ReadUntil(transfer.control, "\r\n");
        if (!answer.starts_with(expected))
            throw std::runtime_error("vsftpd: " + answer);
        return answer;
    };
    ask("", "220");
    ask("USER anonymous", "230");
    ask("TYPE I", "200");
    const std::string answer = ask("PASV", "227");
    int high = 0, low = 0;
    if (std::sscanf(answer.c_str() + answer.find('('), "(%*d,%*d,%*d,%*d,%d,%d", &high, &low) != 2)
        throw std::runtime_error("vsftpd: " + answer);
    transfer.data = ConnectTo(high * 256 + low);
    ask(command, "150");
    return transfer;
}

long long Vsftpd::Get(const std::string& name) const
{
    const Transfer transfer = Begin("RETR " + name);
    return BareTransfer::Drain(transfer.data);
}

long long Vsftpd::Put(const std::string& source, const std::string& name) const
{
    Transfer transfer = Begin("STOR " + name);
    const long long bytes = BareTransfer::SendFile(source, transfer.data);
    transfer.data = FileDescriptor();
    ReadUntil(transfer.control, "226");
    return bytes;
}

OpenSsh::OpenSsh()
{
    for (const char* key : {"host", "user"})
        Run({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", configuration_ / key});
    server_.emplace([&](int port) -> Arguments {
        const std::string file = configuration_ / "sshd_config";
        WriteFile(file, "ListenAddress 127.0.0.1:" + std::to_string(port) + "\nHostKey " +
                            (configuration_ / "host") + "\nAuthorizedKeysFile " +
                            (configuration_ / "user.pub") +
                            "\nStrictModes no\nUsePAM no\nPermitRootLogin yes\nUseDNS no\nPidFile none\n"
                            "MaxSessions 100\nSetEnv SHLVL=2\nSubsystem sftp internal-sftp\n");
        // The folder that it leaves its rights in belongs to the system: here it gets one of its own.
        const std::string start = "exec /usr/sbin/sshd -D -f " + file;
        if (geteuid() != 0)
            return {"sh", "-c", start};
        return {"unshare", "--mount", "sh", "-c",
                "mount -t tmpfs -o mode=755 tmpfs /run && mkdir /run/sshd && " + start};
    });
    WriteFile(configuration_ / "ssh_config",
              "Host peer\nHostName 127.0.0.1\nPort " + std::to_string(server_->Port()) + "\nUser " +
                  OwnUser() + "\nIdentityFile " + (configuration_ / "user") +
                  "\nIdentitiesOnly yes\nStrictHostKeyChecking no\nUserKnownHostsFile /dev/null\n"
                  "LogLevel ERROR\nCompression no\nCiphers aes128-gcm@openssh.com\nBatchMode yes\n");
    Run(Joined(ClientOptions(true), {"-o", "ControlMaster=yes", "-f", "-N", "peer"}));
}

OpenSsh::~OpenSsh()
{
    try {
        Run(Joined(ClientOptions(true), {"-O", "exit", "peer"}));
    } catch (const std::exception&) {
        // It ends with its server.
    }
}

Arguments OpenSsh::ClientOptions(bool isMultiplexed) const
{
    return {"ssh", "-F", configuration_ / "ssh_config", "-o",
            "ControlPath=" + (isMultiplexed ? configuration_ / "control" : "none")};
}

void OpenSsh::RunMultiplexed(const std::string& command) const
{
    Run(Joined(ClientOptions(true), {"peer", command}));
}

void OpenSsh::RunFresh(const std::string& command) const
{
    Run(Joined(ClientOptions(false), {"peer", command}));
}

void OpenSsh::Copy(const std::string& source, const std::string& target) const
{
    Run({"scp", "-q", "-F", configuration_ / "ssh_config", "-o",
         "ControlPath=" + (configuration_ / "control"), source, target});
}
