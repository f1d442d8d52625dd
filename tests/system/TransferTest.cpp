#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/system/TransferClient.h"

namespace
{
const std::string Off = "->Warning update mode desactivated\n";

std::string Skipped(size_t part, size_t whole)
{
    return "->Update mode activated, skipping first " + std::to_string(part) + "/" + std::to_string(whole) +
           " byte(s)\n";
}

class Transfer : public testing::Test
{
protected:
    void WriteFile(std::string_view content) const { std::ofstream(file_, std::ios::binary) << content; }

    TestDirectory directory_;
    std::string file_ = directory_.Path() + "/file";
    DaemonUnderTest daemon_;
};
} // namespace

TEST_F(Transfer, FilesComeBackAsTheyWent)
{
    for (const bool passive : {false, true}) {
        for (const size_t size : {0, 1, 16383, 16384, 16385, 3000000}) {
            const std::string content = MakeContent(size);
            TransferClient put(daemon_, {.keyword = "TRANSFERPUT", .file = file_, .passive = passive});
            EXPECT_EQ(put.Put(content), Transferred(0)) << size;
            TransferClient get(daemon_, {.keyword = "TRANSFERGET", .file = file_, .passive = passive});
            std::string bytes;
            EXPECT_EQ(get.Get(bytes), Transferred(0)) << size;
            EXPECT_TRUE(bytes == content) << size << " bytes, " << bytes.size() << " came back";
        }
    }
    struct stat facts;
    ASSERT_EQ(stat(file_.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 07777, 0644U);
}

TEST_F(Transfer, LineEndsAreConverted)
{
    const std::string filler(16383, 'x');
    const struct {
        std::string sent, written;
    } Puts[] = {
        {"a\r\nb\r", "a\nb\r"},
        {"\r\r\n\n\r\n\r", "\r\n\n\n\r"},
        {filler + "\r\nc", filler + "\nc"}, // the pair lies on both sides of a block's end
        {filler + "\rc", filler + "\rc"},
    };
    for (const auto& one : Puts) {
        TransferClient put(daemon_, {.keyword = "TRANSFERPUT", .file = file_, .mode = "ASCII"});
        EXPECT_EQ(put.Put(one.sent), Transferred(0));
        EXPECT_EQ(ReadFile(file_), one.written);
    }
    WriteFile("a\nb\r\n\n" + filler + "\n");
    TransferClient get(daemon_, {.keyword = "TRANSFERGET", .file = file_, .mode = "ASCII"});
    std::string bytes;
    EXPECT_EQ(get.Get(bytes), Transferred(0));
    EXPECT_EQ(bytes, "a\r\nb\r\r\n\r\n" + filler + "\r\n");
}

TEST_F(Transfer, AnInterruptedGetIsContinued)
{
    const std::string content = MakeContent(5000000);
    WriteFile(content);
    std::string part;
    {
        TransferClient get(daemon_, {.keyword = "TRANSFERGET", .file = file_});
        Client data = get.OpenData("WRITE");
        part = data.ReadExactly(2000000);
        data.Reset();
        get.Finish();
    }
    std::string wrongHead = part, wrongBody = part;
    wrongHead[16383] ^= 1;
    wrongBody[16384] ^= 1;
    const struct {
        const std::string& part;
        std::string keyword, message;
        size_t bytes;
    } Cases[] = {
        {part, "UPDATEWRITE", Skipped(2000000, 5000000), 3000000},
        {content, "UPDATEWRITE", Skipped(5000000, 5000000), 0},
        {wrongHead, "WRITE", "->Warning bad head integrity (CRC) of remote file...(" + file_ + ")\n" + Off,
         5000000},
        {wrongBody, "WRITE", "->Warning bad body integrity (CRC) of remote file..." + file_ + ")\n" + Off,
         5000000},
        {content + "x", "WRITE",
         "->Warning inconsistant size of remote file...(" + file_ + ") : smaller than expected\n" + Off,
         5000000},
    };
    for (const bool passive : {false, true}) {
        for (const auto& one : Cases) {
            TransferClient get(
                daemon_,
                {.keyword = "TRANSFERUPDATEGET", .file = file_, .passive = passive, .partialCopy = one.part});
            std::string bytes;
            EXPECT_EQ(get.Get(bytes, one.keyword), Transferred(0, one.message));
            EXPECT_TRUE(bytes == content.substr(5000000 - one.bytes)) << bytes.size() << " bytes came";
        }
    }
}

TEST_F(Transfer, AnInterruptedPutIsContinued)
{
    const std::string content = MakeContent(5000000);
    const std::string missing =
        "->Warning unable to open remote file...(" + file_ + ") : No such file or directory\n" + Off;
    for (const bool passive : {false, true}) {
        const TransferOrder order = {.keyword = "TRANSFERUPDATEPUT", .file = file_, .passive = passive};
        std::remove(file_.c_str());
        {
            TransferClient put(daemon_, order);
            Client data = put.OpenData("READ");
            data.Send(content.substr(0, 2000000));
            EXPECT_TRUE(WaitUntil([&] { return ReadFile(file_).size() == 2000000; }));
            data.Reset();
            EXPECT_EQ(put.Finish(), Transferred(1, missing));
        }
        const std::string part = ReadFile(file_);
        TransferClient rest(daemon_, order);
        rest.ReplyToOffer(OfferOf(part), "UPDATEWRITE");
        EXPECT_EQ(rest.Put(content.substr(part.size())), Transferred(0));
        EXPECT_TRUE(ReadFile(file_) == content);
        // The client finds other check sums than its own: everything once more.
        TransferClient whole(daemon_, order);
        whole.ReplyToOffer(OfferOf(content), "WRITE\n");
        EXPECT_EQ(whole.Put("all new"), Transferred(0));
        EXPECT_EQ(ReadFile(file_), "all new");
    }
}

TEST_F(Transfer, OneFileIsInOneTransferAtATime)
{
    WriteFile("content");
    const std::string refusal = "ERROR|" + std::string(BannerLine) +
                                "->Error ressource temporarely unavailable, remote file used by other file "
                                "transfer(s)";
    TransferClient first(daemon_, {.keyword = "TRANSFERGET", .file = file_});
    first.Control().ReadUntil(BannerLine);
    for (const char* keyword : {"TRANSFERGET", "TRANSFERPUT", "TRANSFERUPDATEPUT", "TRANSFERUPDATEGET"}) {
        TransferClient second(daemon_, {.keyword = keyword, .file = file_});
        EXPECT_EQ(second.Finish(), refusal) << keyword;
    }
    const std::string other = directory_.Path() + "/other";
    TransferClient elsewhere(daemon_, {.keyword = "TRANSFERPUT", .file = other});
    EXPECT_EQ(elsewhere.Put("y"), Transferred(0));
    EXPECT_EQ(ReadFile(file_), "content");
    EXPECT_NE(Ask(daemon_, Keyword("INFO")).find("->2 launched command(s) and file transfer(s)"),
              std::string::npos);
    Ask(daemon_, Join({Newest, OwnUser(), "", "KILL", "0"}));
}

TEST_F(Transfer, BadArgumentsStartNothing)
{
    const std::string bad = "ERROR|" + std::string(BannerLine) + "->Error bad parameters\n";
    const std::string head = Join({Newest, OwnUser(), ""});
    const std::string file = "|BINARY|" + file_;
    std::vector<std::string> requests;
    for (const std::string number : {"", "x", "-1", " 1", "1x", "9223372036854775808"}) {
        requests.push_back(head + "|TRANSFERPUT" + file + "|" + number);
        requests.push_back(head + "|TRANSFERUPDATEPUT" + file + "|" + number);
        requests.push_back(head + "|TRANSFERUPDATEGET" + file + "|0|" + number + "|0|0");
    }
    for (const std::string sum : {"", "x", "1x", "4294967296"}) {
        requests.push_back(head + "|TRANSFERUPDATEGET" + file + "|0|0|" + sum + "|0");
        requests.push_back(head + "|TRANSFERUPDATEGET" + file + "|0|0|0|" + sum);
    }
    for (const std::string address : {"|1", "127.0.0.1|", "127.0.0.1|x", "|"}) {
        requests.push_back(head + "|TRANSFERGET" + file + "|0|" + address);
        requests.push_back(head + "|TRANSFERUPDATEGET" + file + "|0|0|0|0|" + address);
    }
    for (const std::string& request : requests)
        EXPECT_EQ(Ask(daemon_, request), bad) << request;
    EXPECT_NE(Ask(daemon_, Keyword("INFO")).find("->0 launched command(s)"), std::string::npos);
    EXPECT_EQ(ListDirectory(directory_.Path()), std::vector<std::string>{});
}
