#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/BaseString.h"
#include "support/Clock.h"
#include "support/ConnectionPerfo.h"

#include <sys/stat.h>
#include <unistd.h>

using namespace std::string_literals;

namespace
{
template <class Number>
std::string Read(const std::string& text)
{
    Number number = 42;
    bool isRead = QORUnicodeString(text).ConvertToNum(&number, "%d") != 0;
    return isRead ? std::to_string(number) : number == 42 ? "none" : "target touched";
}

QORListValQORUnicodeString ListOf(std::initializer_list<const char*> texts)
{
    QORListValQORUnicodeString list;
    for (const char* text : texts)
        list.Append(text);
    return list;
}
} // namespace

TEST(Text, NumbersAreReadWholeOrNotAtAll)
{
    for (const std::string& text : {""s, "+"s, "-"s, "+-5"s, "--5"s, " 5"s, "5\n"s, "5x"s, "0x10"s, "1.0"s,
                                    "5\0"s, "2147483648"s, "-2147483649"s, "99999999999999999999"s})
        EXPECT_EQ(Read<int>(text), "none") << text;
    EXPECT_EQ(Read<int>("-0"), "0");
    EXPECT_EQ(Read<int>("+007"), "7");
    EXPECT_EQ(Read<int>("-2147483648"), "-2147483648");
    EXPECT_EQ(Read<unsigned int>("-1"), "none");
    EXPECT_EQ(Read<unsigned int>("4294967295"), "4294967295");
    EXPECT_EQ(Read<long>("9223372036854775807"), "9223372036854775807");
    EXPECT_EQ(Read<long long>("9223372036854775808"), "none");
}

TEST(Text, SearchesAndPartsStayInside)
{
    const QORUnicodeString text("ab|cd|e\0|"s);
    struct {
        int start, length;
        std::string part;
        int separator;
    } cases[] = {{0, 9, "ab|cd|e\0|"s, 2}, {2, 1, "|", 2},  {3, INT_MAX, "cd|e\0|"s, 5}, {6, 1, "e", 8},
                 {9, 1, "", -1},           {-2, 3, "a", 2}, {INT_MIN, 3, "", 2},         {3, -1, "", 5},
                 {INT_MAX, 1, "", -1},     {7, 1, "\0"s, 8}};
    for (const auto& one : cases) {
        EXPECT_EQ(text.SubString(one.start, one.length), QORUnicodeString(one.part)) << one.start;
        EXPECT_EQ(text.SearchSubString("|", one.start, QORUnicodeString::Forward), one.separator)
            << one.start;
    }
}

TEST(Text, BuildsAndChanges)
{
    QORUnicodeString text(static_cast<const char*>(nullptr));
    text.Append("Ab").Append("C\xC4");
    text.Append(text);
    text.ToLower();
    EXPECT_EQ(text, "abc\xC4" + "abc\xC4"s);
    text.BuildFromNum(18446744073709551615UL, "(%lu)");
    EXPECT_EQ(text, "(18446744073709551615)");
    text.BuildFromNum(1LL, "%2000lld");
    EXPECT_EQ(text.GetLengthInByte(), 127);
}

TEST(Text, SplittingKeepsEveryEmptyField)
{
    struct {
        const char* text;
        const char* separators;
        int maxFields;
        std::vector<std::string> fields;
    } cases[] = {{"", "|", -1, {}},
                 {"host", ".", -1, {"host"}},
                 {"a||b|", "|", -1, {"a", "", "b", ""}},
                 {"|", "|", -1, {"", ""}},
                 {"a|b.c", "|.", -1, {"a", "b", "c"}},
                 {"a|b|c", "|", 2, {"a", "b|c"}},
                 {"a|b|c", "|", 1, {"a|b|c"}},
                 {"a|b|c", "|", 3, {"a", "b", "c"}}};
    for (const auto& one : cases) {
        QORListValQORUnicodeString list = ListOf({"kept"});
        int count = BaseString::CreateListOfString(list, one.text, one.separators, one.maxFields);
        std::vector<std::string> fields;
        for (int i = 2; i <= list.Size(); ++i)
            fields.emplace_back(list[i].View());
        EXPECT_EQ(fields, one.fields) << one.text;
        EXPECT_EQ(count, static_cast<int>(one.fields.size())) << one.text;
    }
    QORUnicodeString joined("old");
    BaseString::CreateString(joined, ListOf({"", "a", ""}), "|");
    EXPECT_EQ(joined, "|a|");
}

TEST(Time, DatesAreLocal)
{
    setenv("TZ", "XXX-02:30", 1);
    tzset();
    QORUnicodeString date;
    EXPECT_EQ(BaseString::CreateFormatedDate(date, 86399L), 0);
    EXPECT_EQ(date, "1970-01-02 02:29:59");
    EXPECT_EQ(BaseString::CreateFormatedDate(date, LONG_MAX), -1);
    unsetenv("TZ");
    tzset();
}

TEST(Time, TheStatementOfATransferAddsUp)
{
    ConnectionPerfo running;
    QORUnicodeString text(" byte and sent ");
    running.GetConnectCountString(0, text, 0);
    EXPECT_EQ(text, " byte and sent 0 byte(s) in 0.000 s (-)");
    running.StartOfCount();
    ConnectionPerfo copy = running;
    long long start = Clock::SteadyMilliseconds();
    while (Clock::SteadyMilliseconds() < start + 20) {
    }
    copy.EndOfCount();
    struct {
        long long bytes;
        const char* unit;
        double unitSize;
    } cases[] = {{2, "bytes/s)", 1}, {2048, "Kbytes/s)", 1024}, {10LL << 30, "Gbytes/s)", 1 << 30}};
    for (const auto& one : cases) {
        text = "sent ";
        copy.GetConnectCountString(one.bytes, text, 0);
        double seconds = 0;
        double rate = 0;
        char unit[16];
        ASSERT_EQ(sscanf(text.ConvertToChar(), "sent %*d byte(s) in %lf s (%lf %15s", &seconds, &rate, unit),
                  3)
            << text.ConvertToChar();
        EXPECT_STREQ(unit, one.unit);
        EXPECT_NEAR(rate, static_cast<double>(one.bytes) / seconds / one.unitSize, 0.51);
    }
}

TEST(Files, ChecksTellWhatIsInTheWay)
{
    std::string folder = testing::TempDir() + "ruvel-text-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string empty = folder + "/empty", file = folder + "/file", secret = folder + "/secret",
                      fifo = folder + "/fifo", missing = folder + "/missing";
    std::ofstream(empty, std::ios::binary);
    std::ofstream(secret, std::ios::binary);
    std::ofstream(file, std::ios::binary) << "abc\0def"s;
    ASSERT_EQ(mkfifo(fifo.c_str(), 0666) + chmod(secret.c_str(), 0) + chmod(folder.c_str(), 0555), 0);
    struct {
        std::string path;
        std::string asFile;
        std::string asDirectory;
        long long size;
        std::string start; // its first five bytes, or "-" where none can be read
    } cases[] = {{missing, "No such file or directory", "No such file or directory", -1, "-"},
                 {empty, "", "Not a directory", 0, ""},
                 {file, "", "Not a directory", 7, "abc\0d"s},
                 {secret, "Permission denied", "Not a directory", 0, "-"},
                 {fifo, "Not a regular file", "Not a directory", 0, ""}, // and nobody waits for its writer
                 {folder, "Is a directory", "Permission denied", -2, "-"},
                 {"/dev/shm", "Is a directory", "", -2, "-"}};
    bool isRoot = geteuid() == 0; // who may do anything: the checks are about the effective user
    ASSERT_EQ(isRoot ? seteuid(65534) : 0, 0);
    for (const auto& one : cases) {
        QORUnicodeString error;
        EXPECT_EQ(BaseString::CheckFile(one.path, error, 0), one.asFile.empty() ? 0 : 1);
        EXPECT_EQ(error, one.asFile) << one.path;
        error.Reset();
        EXPECT_EQ(BaseString::CheckDirectory(one.path, error, 1), one.asDirectory.empty() ? 0 : -1);
        EXPECT_EQ(error, one.asDirectory) << one.path;
        if (one.size != -2) {
            EXPECT_EQ(BaseString::GetSizeOfFileOrDirectory(one.path, error), one.size) << one.path;
        }
        char buffer[6] = "?????";
        int count = BaseString::ConvertBinaryFileToBuffer(one.path, buffer, 5);
        EXPECT_EQ(count < 0 ? "-" : std::string(buffer, static_cast<size_t>(count)), one.start) << one.path;
        EXPECT_EQ(buffer[std::max(count, 0)], count == 5 ? '\0' : '?') << "no terminator";
    }
    QORUnicodeString error;
    EXPECT_EQ(BaseString::CheckDirectory(folder, error, 0), 0);
    ASSERT_EQ(isRoot ? seteuid(0) : 0, 0);
    chmod(folder.c_str(), 0755);
    std::filesystem::remove_all(folder);
}
