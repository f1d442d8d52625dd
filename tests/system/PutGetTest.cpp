#include <array>
#include <filesystem>
#include <fstream>
#include <random>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/system/ControlProcess.h"
#include "tests/system/DaemonUnderTest.h"

using testing::HasSubstr;

namespace
{
/** Bytes that no run of other bytes can be taken for. */
std::string RandomBytes(std::size_t count)
{
    std::mt19937_64 random(count);
    std::string bytes(count, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

void WriteFile(const std::string& path, std::string_view bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string StatusOf(const std::string& path)
{
    struct stat facts = {};
    EXPECT_EQ(stat(path.c_str(), &facts), 0) << path;
    std::array<char, 64> text;
    snprintf(text.data(), text.size(), "%o %ld.%09ld", facts.st_mode & 07777U,
             static_cast<long>(facts.st_mtim.tv_sec), facts.st_mtim.tv_nsec);
    return text.data();
}

/** A daemon, a folder for this side and one for the server's. */
class PutGet : public testing::Test
{
protected:
    ControlResult Run(std::vector<std::string> arguments, ControlOptions options = {})
    {
        return Control(daemon_.Port(), std::move(arguments), std::move(options));
    }
    std::string Here(const std::string& name) const { return here_.Path() + "/" + name; }
    std::string There(const std::string& name) const { return there_.Path() + "/" + name; }
    void ExpectDone(const ControlResult& result, const std::string& errors = "")
    {
        EXPECT_EQ(result.code, 0) << result.errors;
        EXPECT_EQ(result.errors, errors);
    }
    void ExpectFailed(const ControlResult& result, const std::string& words)
    {
        EXPECT_EQ(result.code, 255);
        EXPECT_THAT(result.errors, HasSubstr(words));
        EXPECT_EQ(result.output, "");
    }

    DaemonUnderTest daemon_;
    TestDirectory here_;
    TestDirectory there_;
};
} // namespace

TEST_F(PutGet, BytesModeAndTimeComeThroughInEveryWay)
{
    const std::string text = "one\r\ntwo\nthree\r\r\n\r";
    const std::vector<std::pair<std::vector<std::string>, std::string>> ways = {
        {{}, RandomBytes(300000)},
        {{"--passive"}, RandomBytes(20000)},
        {{}, ""},
        {{"--ascii"}, text},
        {{"--in-place"}, RandomBytes(70000)}};
    const std::string name = "a 'b'\\%s";
    for (const auto& [options, bytes] : ways) {
        WriteFile(Here(name), bytes);
        ASSERT_EQ(chmod(Here(name).c_str(), 0640), 0);
        const timespec times[] = {{1, 0}, {1577934245, 500000001}};
        ASSERT_EQ(utimensat(AT_FDCWD, Here(name).c_str(), times, 0), 0);
        std::vector<std::string> put = {"put", Here(name), There("")};
        put.insert(put.end(), options.begin(), options.end());
        ExpectDone(Run(put));
        EXPECT_EQ(ReadFile(There(name)), bytes);
        EXPECT_EQ(StatusOf(There(name)), "640 1577934245.500000001");
        std::vector<std::string> get = {"get", There(name), Here("back")};
        get.insert(get.end(), options.begin(), options.end());
        ExpectDone(Run(get));
        EXPECT_EQ(ReadFile(Here("back")), bytes);
        EXPECT_EQ(StatusOf(Here("back")), "640 1577934245.500000001");
        std::filesystem::remove(Here("back"));
        std::filesystem::remove(There(name));
    }
    EXPECT_EQ(ListDirectory(there_.Path()), std::vector<std::string>());
}

TEST_F(PutGet, StreamsAndSeveralFilesAtOnce)
{
    const std::string bytes = RandomBytes(100000);
    ExpectDone(Run({"put", "-", There("new")}, {.input = bytes}));
    EXPECT_EQ(ReadFile(There("new")), bytes);
    WriteFile(There("old"), "x");
    ASSERT_EQ(chmod(There("old").c_str(), 0600), 0);
    ExpectDone(Run({"put", "-", There("old")}, {.input = "second"}));
    EXPECT_THAT(StatusOf(There("old")), testing::StartsWith("600 "));
    const ControlResult both = Run({"get", There("new"), There("old"), "-"});
    ExpectDone(both);
    EXPECT_EQ(both.output, bytes + "second");
    // Its size cannot be asked for.
    EXPECT_THAT(Run({"get", "/proc/self/status", "-"}).output, HasSubstr("Name:"));
    const ControlResult some = Run({"get", There("new"), There("none"), There("old"), here_.Path()});
    EXPECT_EQ(some.code, 255);
    EXPECT_THAT(some.errors, HasSubstr(There("none") + ": "));
    EXPECT_EQ(ListDirectory(here_.Path()), (std::vector<std::string>{"new", "old"}));
}

TEST_F(PutGet, GoOnWithWhatAnEarlierAttemptHasLeft)
{
    const std::string bytes = RandomBytes(100000);
    const std::string lead = "RuvelControl: ";
    WriteFile(Here("file"), bytes);
    WriteFile(There(".file.ruvelpart"), bytes.substr(0, 71000));
    ExpectDone(Run({"put", Here("file"), There("file")}), lead + Here("file") + ": resumed at 71 %\n");
    EXPECT_EQ(ReadFile(There("file")), bytes);
    WriteFile(Here(".back.ruvelpart"), bytes.substr(0, 15000));
    ExpectDone(Run({"get", There("file"), Here("back")}), lead + There("file") + ": resumed at 15 %\n");
    EXPECT_EQ(ReadFile(Here("back")), bytes);
    // What is not the beginning of the file is not built upon.
    for (const std::string& part :
         {bytes.substr(0, 50000) + "x", "x" + bytes.substr(1, 50000), bytes + "x"}) {
        WriteFile(There(".file.ruvelpart"), part);
        ExpectDone(Run({"put", Here("file"), There("file")}));
        EXPECT_EQ(ReadFile(There("file")), bytes);
        WriteFile(Here(".back.ruvelpart"), part);
        ExpectDone(Run({"get", There("file"), Here("back")}));
        EXPECT_EQ(ReadFile(Here("back")), bytes);
    }
    EXPECT_EQ(ListDirectory(there_.Path()), std::vector<std::string>{"file"});
    EXPECT_EQ(ListDirectory(here_.Path()), (std::vector<std::string>{"back", "file"}));
}

TEST_F(PutGet, AFailureSaysWhyAndTouchesNothing)
{
    WriteFile(Here("file"), "new");
    WriteFile(There("file"), "old");
    ExpectFailed(Run({"put", Here("none"), There("file")}), "No such file or directory");
    ExpectFailed(Run({"put", here_.Path(), There("file")}), "is a folder");
    ExpectFailed(Run({"put", Here("file"), There("none/")}), "No such folder");
    ExpectFailed(Run({"get", There("none"), Here("file")}), "No such file");
    ExpectFailed(Run({"get", there_.Path(), Here("file")}), "Is a folder");
    ExpectFailed(Run({"get", There("file"), Here("none/")}), "there is no folder");
    Client other = daemon_.Connect();
    other.Send("RuvelControl V1.9|" + OwnUser() + "||TRANSFERPUT|BINARY|" + There("busy") + "|0");
    other.ReadUntil("(Unix)\n");
    ExpectFailed(Run({"put", "--in-place", Here("file"), There("busy")}), "another transfer");
    ExpectFailed(Run({"get", There("busy"), Here("busy")}), "another transfer");
    ExpectFailed(Run({"get", "--in-place", There("busy"), Here("busy")}), "another transfer");
    EXPECT_EQ(ListDirectory(here_.Path()).size(), 1U);
    // A part that is somebody else's: what it leads to must not be written.
    WriteFile(Here("precious"), "kept");
    for (const std::string& side : {here_.Path(), there_.Path()}) {
        std::filesystem::create_symlink(Here("precious"), side + "/.file.ruvelpart");
        const bool isPut = side == there_.Path();
        ExpectFailed(isPut ? Run({"put", Here("file"), There("file")})
                           : Run({"get", There("file"), Here("file")}),
                     "ruvelpart");
        std::filesystem::remove(side + "/.file.ruvelpart");
        std::filesystem::create_hard_link(Here("precious"), side + "/.file.ruvelpart");
        ExpectFailed(isPut ? Run({"put", Here("file"), There("file")})
                           : Run({"get", There("file"), Here("file")}),
                     "ruvelpart");
        std::filesystem::remove(side + "/.file.ruvelpart");
    }
    EXPECT_EQ(ReadFile(Here("precious")), "kept");
    EXPECT_EQ(ReadFile(There("file")), "old");
    EXPECT_EQ(ReadFile(Here("file")), "new");
}

TEST_F(PutGet, TheTargetIsOldOrNewWheneverTheClientIsKilled)
{
    const std::string oldBytes = RandomBytes(5000);
    const std::string newBytes = RandomBytes(20000000);
    WriteFile(Here("file"), newBytes);
    std::mt19937 random(std::random_device{}());
    for (int i = 0; i < 12; ++i) {
        const std::string target = There(std::to_string(i));
        WriteFile(target, oldBytes);
        {
            ControlProcess put(daemon_.Port(), {"put", Here("file"), target});
            // Not for luck: any moment will do, and which one is what is tried.
            std::this_thread::sleep_for(std::chrono::milliseconds(random() % 150));
            put.Signal(SIGKILL);
            put.WaitForEnd();
        }
        const std::string found = ReadFile(target);
        EXPECT_TRUE(found == oldBytes || found == newBytes) << found.size();
    }
    // Those that wait for a data connection that nobody makes any more would do so for long.
    const ControlResult listing = Run({"list", "--json"});
    for (std::size_t at = 0; (at = listing.output.find("\"number\": ", at)) != std::string::npos;) {
        at += std::string_view("\"number\": ").size();
        Run({"kill", listing.output.substr(at, listing.output.find(',', at) - at)});
    }
}
