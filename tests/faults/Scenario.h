#pragma once

#include <functional>
#include <optional>
#include <string>

#include "tests/system/DaemonUnderTest.h"
#include "tests/system/TransferClient.h"

/** Who asks. */
struct Asker {
    std::string user = OwnUser();
    std::string password = "secret";
};

/** How the worst of a scenario's dialogues went that did not go as it should. */
enum class Outcome { Unnoticed, Closed, Told };

/**
 * Everything that clients ask of a daemon, one dialogue after the other, while at most one thing goes wrong.
 * A dialogue goes as it should, or its client is told of an error, or finds its connection closed before
 * the answer is whole; and then the same dialogue, led once more, goes as it should. Anything else is a
 * failed test.
 */
class Scenario
{
public:
    /** `size`: bytes of the log and of the files that are transferred. */
    Scenario(DaemonUnderTest& daemon, const Asker& asker, size_t size);

    void Run();
    /** Of the dialogues up to now. */
    Outcome Worst() const { return outcome_; }
    /** What the client of that outcome was told. */
    const std::string& Told() const { return told_; }
    const std::string& ToldIn() const { return toldIn_; }

private:
    void Lead(const char* name, const std::function<std::string()>& dialogue, const std::string& expected);
    void Judge(const char* name, const std::string& got, const std::string& expected);
    std::string As(const std::vector<std::string>& fields) const;
    std::string LaunchAs(const std::string& mode, const std::string& command) const;
    std::string AskFor(const std::string& request);

    void LeadLaunches();
    void LeadListings();
    void LeadKill();
    void LeadTransfers();
    std::string LaunchPassively(const std::string& command);
    std::string KillTree();
    TransferOrder Order(const std::string& keyword) const;
    std::string Put(const TransferOrder& order, const std::string& content);
    std::string Get(const TransferOrder& order, const std::string& content);
    std::string ContinuePut(const std::string& part, const std::string& content);
    static std::string Finish(TransferClient& client, std::string said);

    TestDirectory directory_;
    std::string file_;
    DaemonUnderTest& daemon_;
    Asker asker_;
    size_t size_;
    Outcome outcome_ = Outcome::Unnoticed;
    std::string told_;
    std::string toldIn_;
};

/** Ends what is still listed, and waits until the daemon has no process, file or descriptor more than it had
 * when it was idle. */
void ExpectRest(DaemonUnderTest& daemon, const Asker& asker, size_t idleDescriptors);
