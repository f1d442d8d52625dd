#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "client/LogAnswer.h"
#include "support/FileDescriptor.h"

/**
 * One log on its way from a server: the identifier, then the log. Who connects is not known, so nothing
 * that arrives is trusted further than to become the content of a file of its own.
 */
class Delivery
{
public:
    explicit Delivery(FileDescriptor socket);
    Delivery(Delivery&&) = default;
    Delivery& operator=(Delivery&&) = default;

    int Descriptor() const { return socket_.Number(); }
    /**
     * Takes what has arrived. Nothing while more may come; at the end one line that says what became of it:
     * the file is in the current folder under a name made of the identifier.
     */
    std::optional<std::string> Receive();
    /** Nothing has arrived for so long that it may have to make room for others. */
    bool IsSilent() const;
    /** Ends it as it is; the line that says what became of it. */
    std::string GiveUp();

private:
    bool TakeIdentifier();
    std::string Open();
    std::string Finish(bool isBroken);

    FileDescriptor socket_;
    /** When, on the steady clock in milliseconds, something last arrived. */
    long long arrivedAt_;
    std::string identifier_;
    bool hasIdentifier_ = false;
    LogAnswer log_;
    FileDescriptor file_;
    std::string name_;
};

/** "HOST(10.0.0.1), PORT(5678), N(3), ..." as a name for a file: letters, digits, dots and dashes. */
std::string FileNameFor(std::string_view identifier);
