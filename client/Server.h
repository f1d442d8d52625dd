#pragma once

#include <string>

/** This machine, by an address: its name is not known everywhere. */
inline constexpr const char* DefaultHost = "127.0.0.1";
inline constexpr int DefaultPort = 5678;

/** A server, and in whose name it is asked. */
struct Server {
    std::string host = DefaultHost;
    int port = DefaultPort;
    std::string user;
    /** Empty where no password is needed. It goes on the wire and nowhere else. */
    std::string password;
    /** A shell command whose standard streams are the connection, %h and %p in it; empty for none. */
    std::string proxy;
    /** Seconds until an attempt to connect is given up. */
    int connectTimeOut = 15;

    /** "host:port", for messages. */
    std::string Name() const { return host + ":" + std::to_string(port); }
};
