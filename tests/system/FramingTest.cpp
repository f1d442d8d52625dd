#include <algorithm>
#include <memory>

#include <gtest/gtest.h>

#include "tests/system/DaemonUnderTest.h"

// What a request is when the network cuts it as it likes. The pauses are part of what is tested: the silence
// inside a request that is not yet whole.

namespace
{
constexpr size_t Segment = 536;
constexpr std::chrono::milliseconds Pause{50};
// Connections that are opened before one of them is served: as many as always find room in the backlog.
constexpr size_t AtOnce = 40;

/** A launch without a life time-out: no beginning of it is a request by itself. Prints `size` letters. */
std::string LongLaunch(size_t size)
{
    return Join({Newest, OwnUser(), "", "echo " + std::string(size, 'x'), "SOCKET", "NOWINDOW"});
}
} // namespace

TEST(Framing, ARequestCutAnywhereBeyondTheFirstSegmentIsServedWhole)
{
    DaemonUnderTest daemon;
    const size_t letters = 600;
    const std::string request = LongLaunch(letters);
    for (size_t first = Segment; first < request.size(); first += AtOnce) {
        const size_t last = std::min(first + AtOnce, request.size());
        std::vector<std::unique_ptr<Client>> clients;
        for (size_t cut = first; cut < last; ++cut) {
            clients.push_back(std::make_unique<Client>(daemon.Port(), daemon.Conversation()));
            clients.back()->Send(request.substr(0, cut));
        }
        std::this_thread::sleep_for(Pause);
        for (size_t cut = first; cut < last; ++cut)
            clients[cut - first]->Send(request.substr(cut) + (cut % 2 ? "\n" : ""));
        for (size_t cut = first; cut < last; ++cut) {
            EXPECT_EQ(clients[cut - first]->ReadToEnd(), Finished(std::string(letters, 'x') + "\n", 0))
                << "cut at " << cut;
        }
    }
}

TEST(Framing, OneTerminatorIsDropped)
{
    using namespace std::string_literals;
    DaemonUnderTest daemon;
    for (const std::string& end : {"\n"s, "\r\n"s, "\0"s}) {
        const std::string listing = Ask(daemon, Keyword("INFO"));
        EXPECT_EQ(Ask(daemon, Keyword("INFO") + end), listing);
        // Longer than one segment, and not ended by the client's half-close.
        EXPECT_EQ(Ask(daemon, Join({Newest, OwnUser(), std::string(Segment, 'p'), "INFO"}) + end), listing);
        Client client = daemon.Connect();
        client.Send(LongLaunch(Segment) + end);
        EXPECT_EQ(client.ReadToEnd(), Finished(std::string(Segment, 'x') + "\n", 0));
    }
}

TEST(Framing, HalfCloseCompletesWhatThereIs)
{
    DaemonUnderTest daemon;
    for (const std::string& request : {LongLaunch(2000), LongLaunch(20)}) {
        Client client = daemon.Connect();
        client.Send(request);
        client.HalfClose();
        EXPECT_TRUE(client.ReadToEnd().ends_with("x\n" + ReturnLine(0)));
    }
    Client cut = daemon.Connect();
    cut.Send(LongLaunch(2000).substr(0, 1000));
    cut.HalfClose();
    EXPECT_EQ(cut.ReadToEnd(),
              BannerLine + std::string("->Bad version of RuvelServer, please install a newer version\n"));
    Client nothing = daemon.Connect();
    nothing.HalfClose();
    EXPECT_EQ(nothing.ReadToEnd(), "");
}

TEST(Framing, ALongRequestThatNobodyKnowsIsAnsweredAfterItsSilence)
{
    DaemonUnderTest daemon;
    Client client = daemon.Connect();
    client.Send(std::string(5000, 'z') + "\n");
    EXPECT_EQ(client.ReadToEnd(), BannerLine + std::string("->Error message not recognized\n"));
}

TEST(Framing, AMebibyteIsReadAndNoByteMore)
{
    constexpr size_t Limit = 1024 * 1024;
    DaemonUnderTest daemon;
    Client whole = daemon.Connect();
    whole.Send(std::string(Limit, 'z'));
    whole.HalfClose();
    EXPECT_EQ(whole.ReadToEnd(), BannerLine + std::string("->Error message not recognized\n"));
    const size_t traced = daemon.Process().Trace().size();
    Client tooLong = daemon.Connect();
    tooLong.Send(std::string(Limit + 1, 'z'));
    tooLong.ExpectDropped();
    EXPECT_TRUE(WaitUntil([&] { return daemon.Process().Trace().size() > traced; }));
}

TEST(Framing, SilentAndSlowClientsHoldNobodyUp)
{
    DaemonUnderTest daemon;
    std::vector<std::unique_ptr<Client>> waiting;
    for (size_t i = 0; i < AtOnce; ++i) {
        waiting.push_back(std::make_unique<Client>(daemon.Port(), daemon.Conversation()));
        if (i % 2)
            waiting.back()->Send(LongLaunch(1000).substr(0, 600));
    }
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "echo served")), Finished("served\n", 0));
    for (const std::unique_ptr<Client>& client : waiting)
        client->Reset();
    EXPECT_EQ(Ask(daemon, Launch("SOCKET", "echo served")), Finished("served\n", 0));
}
