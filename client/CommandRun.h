#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "client/CommandWrapping.h"
#include "client/InputForwarder.h"
#include "client/OutputStream.h"
#include "client/RunStream.h"
#include "client/Server.h"
#include "client/ServerConnection.h"
#include "client/SignalWatch.h"

/** What to run, and how its standard streams are joined to this process' own. */
struct RunRequest {
    Server server;
    /** A shell line of any length and any bytes but NUL. */
    std::string line;
    /** Seconds after which the server ends it, 0 for never. */
    long lifeTimeOut = 0;
    bool passesInput = false;
    bool mergesErrors = false;
};

/**
 * One run of a command in SOCKET mode, from its launch to its end. The command is wrapped in a line that
 * marks its end, and standard error comes over a second launch (see CommandWrapping.h):
 *
 *   state             event                                    next
 *   reader starting   its ready mark                           launch the command
 *   command starting  banner; its ready mark                   pass input on; let the reader go on
 *   running           end marks in both streams                await the return line
 *                     end of the stream without a mark         over
 *   ending            return line, or the end of patience      over
 *
 * In every state a signal, or output that cannot be written, ends the remote tree and this process.
 */
class CommandRun
{
public:
    explicit CommandRun(RunRequest request);

    /** Runs it all. What to exit with: the command's code, 124 when its time was up, or ClientFailure. */
    int Run();

private:
    /** A connection, what is read from it, and where that goes. */
    struct Channel {
        Channel(const std::string& mark, bool beginsWithReady, int descriptor)
            : stream(mark, beginsWithReady), output(descriptor)
        {
        }
        ServerConnection connection;
        RunStream stream;
        OutputStream output;
        bool hasEnded = false;
        /** When, on the steady clock in milliseconds, something last arrived. */
        long long arrivedAt = 0;
        StreamEnd end{};
        /** Why it broke, if it did. */
        Failure failure{};
    };

    Failure Start();
    Failure StartErrorReader();
    Failure StartCommand();
    Failure Launch(Channel& channel, const std::string& line, long lifeTimeOut);

    bool IsOver() const;
    /** Milliseconds until something is to be done though nothing happens. */
    int TimeLeft() const;
    void ReleaseHeld(Channel& channel);
    void Turn();
    void Receive(Channel& channel);
    void PassOn(Channel& channel, std::string_view bytes);
    /** What is to be done about the error of a write: where nobody reads any more, it does not return. */
    void FollowOutput(Channel& channel, int error);
    void FollowCommand();

    int Conclude();
    int ConcludeWhole();
    int ConcludeCut();

    RunRequest request_;
    Wrapping wrapping_;
    Channel command_;
    std::unique_ptr<Channel> errors_;
    std::unique_ptr<InputForwarder> input_;
    std::optional<SignalWatch> signals_;
    std::string block_;
    std::string passing_;
    bool hasLetReaderGo_ = false;
    /** When, on the steady clock in milliseconds, waiting for the rest of an end is given up; 0 for never. */
    long long givesUpAt_ = 0;
};
