#include <cstring>
#include <fstream>
#include <random>
#include <sstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/FileDescriptor.h"
#include "tests/system/TestAccount.h"
#include "tests/system/TransferClient.h"

namespace
{
/** What of a password is looked for: not its beginning, over which memory that was given back is written. */
std::string TailOf(const std::string& password)
{
    constexpr std::size_t length = 16;
    EXPECT_GT(password.size(), 3 * length);
    return password.substr(password.size() - length);
}

/** The process, and each mapping of it in which one of the texts stands; its arguments and its environment
 * are among them. */
std::string FindInMemory(pid_t process, const std::vector<std::string>& texts)
{
    constexpr std::size_t largest = 1U << 30; // beyond are only the sanitizers' own notes
    const std::string directory = "/proc/" + std::to_string(process);
    const FileDescriptor memory(open((directory + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
    std::ifstream maps(directory + "/maps");
    std::string found;
    std::vector<char> content;
    for (std::string line; std::getline(maps, line);) {
        std::size_t begin = 0, end = 0;
        char dash = '-';
        std::istringstream(line) >> std::hex >> begin >> dash >> end;
        if (end - begin > largest)
            continue;
        content.resize(end - begin);
        const ssize_t count =
            pread(memory.Number(), content.data(), content.size(), static_cast<off_t>(begin));
        for (const std::string& text : texts)
            if (count > 0 &&
                memmem(content.data(), static_cast<std::size_t>(count), text.data(), text.size()) != nullptr)
                found += directory + ": \"" + text + "\" in " + line + "\n";
    }
    return found;
}

/** The daemon, and everybody who descends from it. */
std::string FindAnywhere(DaemonUnderTest& daemon, const std::vector<std::string>& texts)
{
    std::string found = FindInMemory(daemon.Process().Id(), texts);
    for (const pid_t process : daemon.Descendants())
        found += FindInMemory(process, texts);
    for (const std::string& text : texts)
        for (const std::string& written : {daemon.Process().Trace(), daemon.Process().Errors()})
            if (written.find(text) != std::string::npos)
                found += "\"" + text + "\" in: " + written;
    return found;
}

std::string MakePassword()
{
    static std::mt19937 random{std::random_device{}()};
    std::string password(200, ' ');
    for (char& letter : password)
        letter = std::uniform_int_distribution<char>('a', 'z')(random);
    return password;
}

/** Every form that holds a password, and some that no client should send; LiveCommands of them start a
 * command that stays, two a transfer that waits. The log of one goes to a port of this machine. */
constexpr const char* LiveCommands = "->Found 7 active command(s)";
std::vector<std::string> FormsWith(const std::string& user, const std::string& password, int port)
{
    const std::string many(600, 'x');
    std::vector<std::string> forms;
    for (std::vector<std::string> fields : std::vector<std::vector<std::string>>{
             {Newest, "cat", "SOCKET", "NOWINDOW", "0"},
             {Newest, "cat", "SOCKET", "NOWINDOW", "INTERACTIVE", "0"},
             {"RuvelControl V1.0", "cat", "SOCKET", "NOWINDOW"},
             {"CODE", "cat", "TRUE"},
             {Newest, "exec sleep 1000", "NOSOCKET", "NOWINDOW", "0"},
             {Newest, "exec sleep 1000 #" + many, "NOSOCKET", "NOWINDOW", "0\n"},
             {Newest, "exec sleep 1000", "NOSOCKET", "NOWINDOW", "127.0.0.1", std::to_string(port), "600"},
             {Newest, "TRANSFERPUT", "BINARY", "/tmp/ruveltest-" + password.substr(0, 8), "0"},
             {Newest, "TRANSFERGET", "BINARY", "/etc/hostname", "0"},
             {Newest, "true", "NOSOCKET", "NOWINDOW", "0"},
             {Newest, "INFO"},
             {Newest, "ALLINFO"},
             {Newest, "KILL", "1000"},
             {Newest, "cat", "SOCKET", "NOWINDOW", "-1"},
             {Newest, many},
             {"RuvelControl V9.9", "INFO", ""},
             {}}) {
        const auto head = fields.begin() + (fields.empty() ? 0 : 1);
        fields.insert(fields.insert(head, password), user);
        forms.push_back(Join(fields));
    }
    return forms;
}
} // namespace

/** With and without a check of passwords, which clients send to every daemon. */
TEST(Secrets, NoPasswordIsLeftAnywhereOnceItHasBeenUsed)
{
    const TestAccount account;
    const std::string wrong = MakePassword();
    Dialogue collected;
    const Collector collector(collected); // is there for as long as a daemon has something to deliver
    for (const bool installed : {true, false}) {
        DaemonUnderTest daemon({.mode = installed ? std::vector<std::string>{}
                                                  : std::vector<std::string>{"-noinstall", "-nocheck"}});
        const std::string user = installed ? account.Name() : OwnUser();
        // The wrong ones first: so workers for the right ones are started while those wait for their check.
        std::vector<Client> refused;
        for (int round = 0; installed && round < 3; ++round)
            for (const std::string& form : FormsWith(user, wrong, collector.Port())) {
                refused.push_back(daemon.Connect());
                refused.back().Send(form);
                refused.back().HalfClose();
            }
        std::vector<Client> served;
        for (const std::string& form : FormsWith(user, account.Password(), collector.Port())) {
            served.push_back(daemon.Connect());
            served.back().Send(form);
        }
        // Some are cut short, by their clients and by the limit of their length.
        for (const std::size_t length : {1000U, 1U << 20}) {
            Client gone = daemon.Connect();
            gone.Send(Join({Newest, user, wrong, std::string(length, 'x')}));
            gone.Reset();
        }
        for (Client& client : refused)
            EXPECT_NE(client.ReadToEnd(), "");
        EXPECT_TRUE(WaitUntil([&] {
            const std::string listing = Ask(daemon, Join({Newest, user, account.Password(), "INFO"}));
            return listing.find(LiveCommands) != std::string::npos;
        }));

        ASSERT_NE(FindAnywhere(daemon, {daemon.LogDirectory()}), "") << "the search finds nothing at all";
        const std::vector<std::string> tails = {TailOf(account.Password()), TailOf(wrong)};
        std::string found;
        WaitUntil([&] { return (found = FindAnywhere(daemon, tails)).empty(); });
        EXPECT_EQ(found, "");
    }
}
