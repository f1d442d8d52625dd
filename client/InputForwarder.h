#pragma once

#include <string>
#include <string_view>

/**
 * Passes a descriptor's input on to a socket, its end included, without ever waiting: poll the two as it
 * asks for, then call what became ready. It owns neither.
 */
class InputForwarder
{
public:
    /** Sends `first`, then what comes from `source` up to its end; a source of -1 has no input. */
    InputForwarder(int source, int socket, std::string first);

    /** There is room for more input, and more may come. */
    bool WantsInput() const { return !sourceHasEnded_ && pending_.empty(); }
    bool WantsRoom() const { return !pending_.empty() || MustEnd(); }
    void Read();
    void Send();

    /** The other side takes nothing any more, which is no failure: a command need not read its input. */
    void Stop();

private:
    bool MustEnd() const { return sourceHasEnded_ && !hasEnded_; }

    int source_;
    int socket_;
    bool sourceHasEnded_;
    bool hasEnded_ = false;
    std::string pending_;
};
