// Mixed launches and transfers with clients that vanish, kills and expiries in between: every client that
// stays gets all of its bytes and the right code, and nothing is left. RUVEL_SOAK sets how many launches.

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/system/SystemFacts.h"
#include "tests/system/TransferClient.h"

using testing::HasSubstr;
using testing::IsEmpty;

namespace
{
constexpr int Launches = 2000;
constexpr int AtOnce = 40;
constexpr int BetweenExpiring = 10; // rounds
constexpr int BetweenFigures = 10;  // parts of the whole, after each of which the daemon's memory is noted

struct Form {
    const char* version;
    const char* afterCommand; // fields
    bool passive = false;
};

constexpr Form Forms[] = {
    {"CODE", "|TRUE"},
    {"CODE", "|FALSE"},
    {"RuvelControl V1.0", "|SOCKET|NOWINDOW"},
    {"RuvelControl V1.6", "|NOSOCKET|WINDOW"},
    {"RuvelControl V1.7", "|SOCKET|WINDOW|600"},
    {"RuvelControl V1.8", "|NOSOCKET|NOWINDOW|600"},
    {"RuvelControl V1.9", "|SOCKET|NOWINDOW|0"},
    {"RuvelControl V1.8.1", "|NOSOCKET|WINDOW|127.0.0.1|", true},
};

constexpr const char* Expired =
    "->Command killed due to expired life timeout\n->ProcessReturnCode = 143\n"; // by signal 15

/** A client in the middle of its launch, and all that it is to read. */
struct Waiting {
    Client client;
    std::string expected;
};

/** Many clients of one daemon, of whom some vanish before they have everything. */
class Crowd
{
public:
    Crowd(DaemonUnderTest& daemon, unsigned seed)
        : daemon_(daemon), collector_(daemon.Conversation()), random_(seed)
    {
        for (int number = 1; number <= 20000; ++number)
            longOutput_ += std::to_string(number) + "\n";
    }

    /** Launches, and reads what those that stay are to get, in the order of their launches. */
    void LaunchTogether(int launches)
    {
        for (int i = 0; i < launches; ++i)
            LaunchOne();
        for (Waiting& waiting : waiting_)
            EXPECT_EQ(waiting.client.ReadToEnd(), waiting.expected);
        waiting_.clear();
        while (logsToCome_ > 0)
            CollectLog(random_() % 4 == 0);
    }

    void LaunchThatExpires()
    {
        ReadWhatExpired();
        for (const char* mode : {"SOCKET", "NOSOCKET"}) {
            expiring_.push_back({daemon_.Connect(), std::string(BannerLine) + Expired});
            expiring_.back().client.Send(Launch(mode, "sleep 1000", "1"));
        }
    }

    void ReadWhatExpired()
    {
        for (Waiting& waiting : expiring_)
            EXPECT_EQ(waiting.client.ReadToEnd(), waiting.expected);
        expiring_.clear();
    }

    /** A command that is killed, a file that goes there and back, and a transfer that is killed. */
    void KillAndTransfer()
    {
        Client victim = daemon_.Connect();
        victim.Send(Launch("SOCKET", "echo up; exec sleep 1000"));
        victim.ReadUntil("up\n");
        const std::string content = longOutput_.substr(random_() % longOutput_.size());
        std::string got;
        TransferClient put(daemon_, {.keyword = "TRANSFERPUT", .file = File()});
        EXPECT_EQ(put.Put(content), Transferred(0));
        TransferClient get(daemon_, {.keyword = "TRANSFERGET", .file = File()});
        EXPECT_EQ(get.Get(got), Transferred(0));
        EXPECT_TRUE(got == content) << "a file differs after its way there and back";
        TransferClient broken(daemon_, {.keyword = "TRANSFERGET", .file = File()});
        broken.Control().ReadUntil("\n");
        for (const std::string& number :
             {NumberOf("CMD(echo up; exec sleep 1000)"), NumberOf("TRANSFER GET")})
            EXPECT_THAT(Ask(daemon_, Join({Newest, OwnUser(), "", "FORCEKILLTREE", number})),
                        HasSubstr("N(" + number + "), "));
        EXPECT_THAT(victim.ReadToEnd(), HasSubstr("tree force killed\n->ProcessReturnCode = 137\n"));
        EXPECT_THAT(broken.Finish(), HasSubstr("terminated by user"));
    }

    /** Logs that no connection of the collector brought, or brought to one that had vanished. */
    size_t UnreadLogs() const { return logs_.size(); }
    size_t VanishedCollectors() const { return vanishedCollectors_; }

private:
    void LaunchOne()
    {
        const Form& form = Forms[random_() % std::size(Forms)];
        const int code = static_cast<int>(random_() % 256);
        const bool isLong = random_() % 16 == 0;
        const std::string number = std::to_string(++count_);
        const std::string command =
            (isLong ? "seq 1 20000" : "echo " + number) + "; exit " + std::to_string(code);
        const std::string answer = Finished(isLong ? longOutput_ : number + "\n", code);
        std::string request = Join({form.version, OwnUser(), "", command}) + form.afterCommand;
        if (form.passive)
            AskForLog(request + std::to_string(collector_.Port()), answer);
        else
            AskAndStay(request, answer);
    }

    void AskForLog(const std::string& request, const std::string& answer)
    {
        const std::string told = Ask(daemon_, request);
        ASSERT_THAT(told, testing::StartsWith("ID|HOST("));
        logs_[told.substr(3)] = answer;
        ++logsToCome_;
    }

    /** Stays, or vanishes: at once, or when the first line is there. */
    void AskAndStay(const std::string& request, const std::string& answer)
    {
        Client client = daemon_.Connect();
        client.Send(request);
        const auto choice = random_() % 8;
        if (choice > 1)
            return waiting_.push_back({std::move(client), answer});
        if (choice == 1) {
            EXPECT_EQ(client.ReadUntil("\n"), BannerLine);
        }
        client.Reset();
    }

    void CollectLog(bool vanish)
    {
        --logsToCome_;
        Client log = collector_.Accept();
        if (vanish) {
            ++vanishedCollectors_;
            return log.Reset();
        }
        const std::string text = log.ReadToEnd();
        const std::string identifier = text.substr(0, text.find("->"));
        EXPECT_EQ(text, identifier + logs_[identifier]);
        logs_.erase(identifier);
    }

    std::string File() const { return directory_.Path() + "/file"; }

    /** Of the line in the listing that holds this. */
    std::string NumberOf(const std::string& text)
    {
        const std::string listing = Ask(daemon_, Keyword("INFO"));
        const size_t begin = listing.rfind("->N(", listing.find(text)) + 4;
        return listing.substr(begin, listing.find(')', begin) - begin);
    }

    TestDirectory directory_;
    DaemonUnderTest& daemon_;
    Collector collector_;
    std::mt19937 random_;
    std::string longOutput_;
    int count_ = 0;
    std::vector<Waiting> waiting_, expiring_;
    std::map<std::string, std::string> logs_; // by identifier: what follows it
    int logsToCome_ = 0;
    size_t vanishedCollectors_ = 0;
};
int CountOfLaunches()
{
    const char* number = getenv("RUVEL_SOAK");
    return number == nullptr ? Launches : atoi(number);
}

/** What the process holds of its own and shared memory, as the kernel has it. */
std::string MemoryOf(pid_t process)
{
    std::ifstream lines("/proc/" + std::to_string(process) + "/smaps_rollup");
    std::string figures;
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("Rss:") || line.starts_with("Pss:"))
            figures += line + "  ";
    return figures;
}
} // namespace

TEST(Soak, EveryCodeArrivesAndNothingIsLeft)
{
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    DaemonUnderTest daemon;
    const pid_t id = daemon.Process().Id();
    const size_t descriptors = CountDescriptorsOf(id);
    {
        Crowd crowd(daemon, seed);
        const int launches = CountOfLaunches();
        const int part = std::max(launches / BetweenFigures / AtOnce, 1);
        for (int round = 0; round * AtOnce < launches && !testing::Test::HasFailure(); ++round) {
            if (round % BetweenExpiring == 0) {
                crowd.LaunchThatExpires();
                crowd.KillAndTransfer();
            }
            crowd.LaunchTogether(AtOnce);
            if (launches > Launches && (round + 1) % part == 0)
                std::cout << (round + 1) * AtOnce << " launches  " << MemoryOf(id) << std::endl;
        }
        crowd.ReadWhatExpired();
        EXPECT_EQ(crowd.UnreadLogs(), crowd.VanishedCollectors());
    }
    const auto isAtRest = [&] {
        const std::string listing = Ask(daemon, Keyword("INFO"));
        return listing.find("Found 0 active log") != std::string::npos &&
               listing.find("Found 0 active command") != std::string::npos;
    };
    EXPECT_TRUE(WaitUntil(isAtRest)) << Ask(daemon, Keyword("INFO"));
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptorsOf(id) == descriptors; }))
        << CountDescriptorsOf(id) << " instead of " << descriptors;
    EXPECT_THAT(FindZombiesOf(id), IsEmpty());
    EXPECT_THAT(daemon.Descendants(), IsEmpty());
    EXPECT_EQ(CountSystemVObjectsOf(id), 0u);
    EXPECT_THAT(daemon.LogFiles(), IsEmpty());
}
