#include <csignal>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/system/SystemFacts.h"
#include "tests/system/TransferClient.h"

using testing::HasSubstr;
using testing::MatchesRegex;

namespace
{
const std::string Off = "->Warning update mode desactivated\n";

std::string KillRequest(const std::string& word, int number, const std::string& user = OwnUser())
{
    return Join({Newest, user, "secret", word, std::to_string(number)});
}

std::string Terminated(int number, const std::string& code)
{
    return "->File transfer N(" + std::to_string(number) + "), terminated by user (" + OwnUser() +
           ")\n->ProcessReturnCode = " + code + "\n";
}

class TransferFailure : public testing::Test
{
protected:
    void WriteFile(std::string_view content) const { std::ofstream(file_, std::ios::binary) << content; }
    /** The one worker that is alive. */
    pid_t Worker() const
    {
        const std::vector<pid_t> workers = daemon_.Descendants();
        EXPECT_EQ(workers.size(), 1u);
        return workers.empty() ? -1 : workers[0];
    }
    std::string Listing() { return Ask(daemon_, Keyword("INFO")); }
    /** A put of which a part has been written. */
    Client BeginPut(TransferClient& put, size_t already = 0)
    {
        Client data = put.OpenData("READ");
        data.Send("part");
        EXPECT_TRUE(WaitUntil([&] { return ReadFile(file_).size() == already + 4; }));
        return data;
    }

    TestDirectory directory_;
    std::string file_ = directory_.Path() + "/file";
    DaemonUnderTest daemon_{{.shortLadders = true}};
};
} // namespace

TEST_F(TransferFailure, TheSystemsReasonIsTold)
{
    const std::string put =
        "READERROR|" + std::string(BannerLine) + "->Error unable to create remote file...( ";
    const std::string get =
        "WRITEERROR|" + std::string(BannerLine) + "->Error unable to open remote file...( ";
    const std::string missing = directory_.Path() + "/missing/file";
    const struct {
        std::string keyword, file, answer, reason;
    } Cases[] = {
        {"TRANSFERGET", file_, get, "No such file or directory"},
        {"TRANSFERUPDATEGET", file_, get, "No such file or directory"},
        {"TRANSFERGET", "", get, "No such file or directory"},
        {"TRANSFERGET", file_ + std::string("\0hidden", 7), get, "Invalid argument"},
        {"TRANSFERPUT", missing, put, "No such file or directory"},
        {"TRANSFERUPDATEPUT", missing, put, "No such file or directory"},
        {"TRANSFERPUT", directory_.Path(), put, "Is a directory"},
        {"TRANSFERPUT", "/proc/version/x", put, "Not a directory"},
    };
    for (const bool passive : {false, true}) {
        for (const auto& one : Cases) {
            TransferClient client(daemon_, {.keyword = one.keyword, .file = one.file, .passive = passive});
            EXPECT_EQ(client.Finish(), one.answer + one.file + ") : " + one.reason + "\n" + ReturnLine(1));
        }
    }
    EXPECT_EQ(ListDirectory(directory_.Path()), std::vector<std::string>{});
    // What cannot be written is no half file: it is not removed.
    ASSERT_EQ(symlink("/dev/full", file_.c_str()), 0);
    TransferClient full(daemon_, {.keyword = "TRANSFERPUT", .file = file_});
    EXPECT_EQ(full.Put("does not fit"), Transferred(1));
    EXPECT_EQ(access(file_.c_str(), F_OK), 0);
}

/** In the middle its data connection goes, or, as when its process is killed, both go at once. */
TEST_F(TransferFailure, AClientThatVanishesFailsItsTransferAndLeavesNothing)
{
    const struct {
        std::string keyword;
        bool passive, isKilled, isKept;
    } Cases[] = {
        {"TRANSFERPUT", false, false, false},      {"TRANSFERPUT", true, false, false},
        {"TRANSFERUPDATEPUT", false, false, true}, {"TRANSFERGET", false, false, true},
        {"TRANSFERPUT", false, true, false},       {"TRANSFERGET", false, true, true},
    };
    const std::string missing =
        "->Warning unable to open remote file...(" + file_ + ") : No such file or directory\n" + Off;
    const size_t before = CountDescriptorsOf(daemon_.Process().Id());
    for (const auto& one : Cases) {
        const bool isGet = one.keyword == "TRANSFERGET";
        std::remove(file_.c_str());
        if (isGet) {
            WriteFile("x");
            ASSERT_EQ(truncate(file_.c_str(), 1LL << 30), 0); // longer than all buffers between the two
        }
        {
            TransferClient client(daemon_, {.keyword = one.keyword, .file = file_, .passive = one.passive});
            Client data = isGet ? client.OpenData("WRITE") : BeginPut(client);
            if (one.isKilled)
                client.Control().Reset();
            data.Reset();
            if (!one.isKilled) {
                EXPECT_EQ(client.Finish(), Transferred(1, one.keyword == "TRANSFERUPDATEPUT" ? missing : ""));
            }
        }
        EXPECT_TRUE(WaitUntil([&] { return daemon_.Descendants().empty(); }));
        EXPECT_TRUE(WaitUntil([&] { return CountDescriptorsOf(daemon_.Process().Id()) == before; }));
        EXPECT_THAT(Listing(), HasSubstr("->Found 0 active file transfer(s)\n"));
        EXPECT_EQ(access(file_.c_str(), F_OK) == 0, one.isKept) << one.keyword;
    }
    // One that goes before it has even replied to an offer.
    WriteFile("kept");
    TransferClient silent(daemon_, {.keyword = "TRANSFERUPDATEPUT", .file = file_});
    silent.Control().ReadExactly(OfferOf("kept").size());
    silent.Control().Reset();
    EXPECT_TRUE(WaitUntil([&] { return daemon_.Descendants().empty(); }));
    EXPECT_EQ(ReadFile(file_), "kept");
}

TEST_F(TransferFailure, AReplyThatIsNoneEndsThePut)
{
    WriteFile("kept");
    for (const char* reply : {"UPDATEWRITE|x", "update", "READ", "\n"}) {
        TransferClient put(daemon_, {.keyword = "TRANSFERUPDATEPUT", .file = file_});
        put.ReplyToOffer(OfferOf("kept"), reply);
        EXPECT_EQ(put.Finish(), ReturnLine(1)) << reply;
    }
    EXPECT_EQ(ReadFile(file_), "kept");
}

/** It waits, is listed, shows no status yet, and can be killed by its owner and by nobody else. */
TEST_F(TransferFailure, ATransferWaitsForItsDataConnectionUntilItIsKilled)
{
    TransferClient put(daemon_,
                       {.keyword = "TRANSFERPUT", .file = file_, .mode = "ASCII", .lifeTimeOut = "600"});
    put.Control().ReadUntil("READ|");
    put.Control().ReadUntil(BannerLine);
    EXPECT_THAT(Listing(),
                MatchesRegex("(.|\n)*->Found 1 active file transfer\\(s\\)\n->N\\(0\\), UID\\(" + OwnUser() +
                             "\\), BDATE\\(....-..-.. ..:..:..\\), LTO\\(600\\), CMD\\(TRANSFER PUT\\), "
                             "MODE\\(ASCII\\), TYPE\\(ACTIVE\\), REMOTE FILE\\(" +
                             file_ + "\\)\n"));
    EXPECT_EQ(Ask(daemon_, KillRequest("KILL", 0, "somebody")),
              BannerLine + std::string("->Error unable to kill file transfer N(0) : not owner\n"));
    EXPECT_EQ(Ask(daemon_, KillRequest("KILL", 0)), BannerLine + Terminated(0, "999") + "\n");
    EXPECT_EQ(put.Finish(), Terminated(0, "999"));
    EXPECT_NE(access(file_.c_str(), F_OK), 0);
    EXPECT_EQ(Ask(daemon_, KillRequest("KILL", 0)),
              BannerLine + std::string("->Error unable to kill command or terminate file transfer N(0) : bad "
                                       "number\n"));
}

/** Gently, a put cleans up by its own rule; a stopped worker has to be forced, and then the file stays. */
TEST_F(TransferFailure, EndedGentlyOrByForceThePutLeavesWhatItShould)
{
    enum class How { Killed, KilledWhileStopped, ByHand, LifeTime };
    const struct {
        const char* keyword;
        How how;
        bool isKept;
    } Cases[] = {
        {"TRANSFERPUT", How::Killed, false},   {"TRANSFERUPDATEPUT", How::Killed, true},
        {"TRANSFERPUT", How::LifeTime, false}, {"TRANSFERPUT", How::KilledWhileStopped, true},
        {"TRANSFERPUT", How::ByHand, true},
    };
    int number = 0;
    for (const auto& one : Cases) {
        WriteFile("old ");
        const bool isUpdate = one.keyword == std::string("TRANSFERUPDATEPUT");
        TransferClient put(
            daemon_,
            {.keyword = one.keyword, .file = file_, .lifeTimeOut = one.how == How::LifeTime ? "1" : "0"});
        if (isUpdate)
            put.ReplyToOffer(OfferOf("old "), "UPDATEWRITE");
        const Client data = BeginPut(put, isUpdate ? 4 : 0);
        const pid_t worker = Worker();
        std::string told = Terminated(number, "999");
        if (one.how == How::LifeTime)
            told = "->File transfer terminated due to expired life timeout\n->ProcessReturnCode = 999\n";
        if (one.how == How::ByHand)
            told = ReturnLine(999);
        if (one.how == How::KilledWhileStopped)
            kill(worker, SIGSTOP);
        if (one.how == How::ByHand)
            kill(worker, SIGKILL);
        if (one.how == How::Killed || one.how == How::KilledWhileStopped) {
            EXPECT_EQ(Ask(daemon_, KillRequest("FORCEKILLTREE", number)), BannerLine + told + "\n");
        }
        EXPECT_EQ(put.Finish(), BannerLine + told) << number;
        EXPECT_EQ(ReadFile(file_), one.isKept ? (isUpdate ? "old part" : "part") : "") << number;
        EXPECT_EQ(access(file_.c_str(), F_OK) == 0, one.isKept) << number;
        ++number;
    }
}

TEST_F(TransferFailure, ATransferOnItsWayShowsItsStatus)
{
    WriteFile("");
    ASSERT_EQ(truncate(file_.c_str(), 1LL << 30), 0);
    TransferClient get(daemon_, {.keyword = "TRANSFERGET", .file = file_, .passive = true});
    const Client slow = get.OpenData("WRITE");
    EXPECT_TRUE(WaitUntil([&] { return Listing().find("STATUS(") != std::string::npos; }));
    EXPECT_THAT(Listing(),
                MatchesRegex("(.|\n)*, CMD\\(TRANSFER GET\\), MODE\\(BINARY\\), TYPE\\(PASSIVE\\), "
                             "REMOTE FILE\\(" +
                             file_ +
                             "\\), STATUS\\(sent [0-9]+ byte\\(s\\) in [0-9]+\\.[0-9]{3} s "
                             "\\(.+\\)\\)\n"));
    EXPECT_EQ(Ask(daemon_, KillRequest("KILLTREE", 0)), BannerLine + Terminated(0, "999") + "\n");
}

TEST_F(TransferFailure, AStatusIsNotBehindWhenNothingMoreComes)
{
    TransferClient put(daemon_, {.keyword = "TRANSFERPUT", .file = file_});
    Client data = BeginPut(put);
    data.Send(MakeContent(1'000'000)); // too soon after the first update for one of its own
    EXPECT_TRUE(WaitUntil([&] { return Listing().find("(Receive 1000004 byte(s)") != std::string::npos; }))
        << Listing();
    EXPECT_EQ(getsid(Worker()), Worker()) << "it may write on the terminal of its daemon";
    data.HalfClose();
    EXPECT_EQ(put.Finish(), Transferred(0));
}

TEST_F(TransferFailure, WhatAPipeGivesComesAtOnce)
{
    ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
    TransferClient get(daemon_, {.keyword = "TRANSFERGET", .file = file_});
    std::ofstream pipe(file_);
    Client data = get.OpenData("WRITE");
    pipe << "first" << std::flush;
    EXPECT_EQ(data.ReadExactly(5), "first");
    pipe << "then";
    pipe.close();
    EXPECT_EQ(data.ReadToEnd(), "then");
    EXPECT_EQ(get.Finish(), Transferred(0));
}
