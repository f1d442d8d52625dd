#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/Child.h"
#include "support/FileDescriptor.h"

using Arguments = std::vector<std::string>;

/** A server program on a free port of this machine; it accepts when the constructor returns. */
class Peer
{
public:
    /** `command` makes the command line for a port that the peer is to listen on. */
    explicit Peer(const std::function<Arguments(int port)>& command);

    pid_t Id() const { return process_->Id(); }
    int Port() const { return port_; }

private:
    bool WaitUntilItAccepts();

    std::optional<Child> process_;
    int port_ = 0;
};

/** A port that is probably free, below the range from which the system takes those of clients. */
int ChoosePort();

// Each peer has its configuration in a folder of its own, and the one that serves it best.

/** socat runs the command for every connection; without forking its standard streams are the socket. */
Peer MakeSocat(const std::string& command, bool isForking);

/** rsync's daemon, with all of a folder as its module "all". */
class Rsync
{
public:
    explicit Rsync(const std::string& folder);

    pid_t Id() const { return peer_->Id(); }
    /** rsync's client, with these options in front of source and target. */
    void Get(const std::string& name, const std::string& target, const Arguments& options) const;
    void Put(const std::string& source, const std::string& name, const Arguments& options) const;

private:
    std::string Url(const std::string& name) const;

    MemoryFolder configuration_;
    std::optional<Peer> peer_;
};

/** vsftpd for anonymous users, as whom a bare client moves files of a folder. */
class Vsftpd
{
public:
    explicit Vsftpd(const std::string& folder);

    pid_t Id() const { return peer_->Id(); }
    /** The number of bytes. */
    long long Get(const std::string& name) const;
    long long Put(const std::string& source, const std::string& name) const;

private:
    /** Logged in; the data connection is made and the command given. */
    struct Transfer {
        FileDescriptor control, data;
    };
    Transfer Begin(const std::string& command) const;

    MemoryFolder configuration_;
    std::optional<Peer> peer_;
};

/** OpenSSH's server with keys of its own, and a client that holds a multiplexed connection to it. */
class OpenSsh
{
public:
    OpenSsh();
    ~OpenSsh();

    pid_t Id() const { return server_->Id(); }
    void RunMultiplexed(const std::string& command) const;
    /** On a connection of its own. */
    void RunFresh(const std::string& command) const;
    /** scp over the multiplexed connection; remote names begin with "peer:". */
    void Copy(const std::string& source, const std::string& target) const;

private:
    Arguments ClientOptions(bool isMultiplexed) const;

    MemoryFolder configuration_;
    std::optional<Peer> server_;
};
