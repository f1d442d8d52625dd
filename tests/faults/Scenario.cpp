#include "tests/faults/Scenario.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/system/SystemFacts.h"
#include "tests/system/TransferClient.h"

namespace
{
constexpr const char* Right = "(right bytes)";
constexpr const char* Wrong = "(wrong bytes)";

/** Figures and lines of single works, which may still be on their way out, left out. */
std::string Generalise(const std::string& listing)
{
    static const std::regex works("->N\\([^\n]*\n"), figures("[0-9]+");
    return std::regex_replace(std::regex_replace(listing, works, ""), figures, "#");
}

/** What the report on the machine always has. */
std::string HeadingsOf(const std::string& report)
{
    std::string headings;
    for (const char* heading : {"->Found operating system", "->Memory", "->Physical", "->File system"})
        if (report.find(heading) != std::string::npos)
            headings += heading;
    return headings;
}

/** The first line of an answer in which a client is told that something went wrong; empty when in none. */
std::string FindComplaint(const std::string& answer)
{
    std::istringstream lines(answer);
    for (std::string line; std::getline(lines, line);)
        for (const char* word : {"Error", "ERROR", "Warning", "unable", "NoThing"})
            if (line.find(word) != std::string::npos)
                return line;
    return {};
}

/** The code that an answer ends with, -1 when it has none. */
int FindCode(const std::string& answer)
{
    const std::string lead = "->ProcessReturnCode = ";
    const size_t found = answer.rfind(lead);
    return found == std::string::npos ? -1 : std::atoi(answer.c_str() + found + lead.size());
}

std::string KilledLine(const std::string& number)
{
    return "->Command N(" + number + "), tree force killed\n" + ReturnLine(137);
}

/** Says of a transfer that reports success whether it was one. */
std::string Verify(const std::string& answer, bool areBytesRight)
{
    if (answer.find("->ProcessReturnCode = 0\n") == std::string::npos)
        return answer;
    return answer + (areBytesRight ? Right : Wrong);
}

/** For the report of a failure. */
std::string Shorten(const std::string& answer)
{
    return testing::PrintToString(
        answer.size() > 1000 ? answer.substr(0, 500) + " ... " + answer.substr(answer.size() - 500) : answer);
}

class Scenario
{
public:
    Scenario(DaemonUnderTest& daemon, const Credentials& asker, size_t size)
        : file_(directory_.Path() + "/file"), daemon_(daemon), asker_(asker), size_(size)
    {
        chmod(directory_.Path().c_str(), 0777);
    }

    ScenarioResult Run()
    {
        const Client silent = daemon_.Connect();
        LeadLaunches();
        LeadListings();
        LeadKill();
        LeadTransfers();
        return result_;
    }

private:
    void Lead(const char* name, const std::function<std::string()>& dialogue, const std::string& expected)
    {
        const std::string got = dialogue();
        if (got == expected)
            return;
        Judge(name, got, expected);
        const std::string again = dialogue();
        if (again != expected)
            ADD_FAILURE() << name << ", led once more: " << Shorten(again);
    }

    void Judge(const char* name, const std::string& got, const std::string& expected)
    {
        const std::string complaint = FindComplaint(got);
        const bool isComplaint = !complaint.empty() && FindComplaint(expected) != complaint;
        // A transfer's code is its own way of telling; a command's is the command's, but for that of an end
        // that the daemon has not seen.
        constexpr int unseenEnd = 777;
        const bool isTransfer = expected.find(Right) != std::string::npos;
        const int code = FindCode(got);
        if (isComplaint || (isTransfer ? code > 0 : code == unseenEnd)) {
            result_.worst = Outcome::Told;
            result_.told = isComplaint ? complaint : "code " + std::to_string(code);
        } else if (expected.starts_with(got)) {
            result_.worst = std::max(result_.worst, Outcome::Closed);
        } else {
            ADD_FAILURE() << name << ": " << Shorten(got) << "\ninstead of: " << Shorten(expected);
        }
        result_.toldIn = name;
    }

    std::string AskFor(const std::string& request)
    {
        Client client = daemon_.Connect();
        client.Send(request);
        return client.ReadUntilOrEnd();
    }

    void LeadLaunches()
    {
        Lead(
            "SOCKET", [&] { return AskFor(Launch("SOCKET", "echo out; exit 3", "0", asker_)); },
            Finished("out\n", 3));
        const std::string output(size_, '\0');
        const std::string command = "head -c " + std::to_string(size_) + " /dev/zero; exit 4";
        Lead(
            "NOSOCKET", [&] { return AskFor(Launch("NOSOCKET", command, "0", asker_)); },
            Finished(output, 4));
        Lead(
            "passive", [&] { return LaunchPassively("echo out; exit 5"); }, Finished("out\n", 5));
    }

    /** The log as the collector gets it, without its identifier; what the launch was answered, if it was not.
     */
    std::string LaunchPassively(const std::string& command)
    {
        Collector collector(daemon_.Conversation());
        const std::string answer = AskFor(PassiveLaunch(command, collector.Port(), "0", asker_));
        if (!answer.starts_with("ID|HOST("))
            return answer;
        const std::string identifier = answer.substr(3);
        const std::string question = Join({Newest, "ID", identifier});
        WaitUntil([&] { return collector.HasArrived() || AskFor(question) == "NOTFOUND"; });
        if (!collector.HasArrived())
            return {};
        const std::string log = collector.Accept().ReadUntilOrEnd();
        return log.starts_with(identifier) ? log.substr(identifier.size()) : std::string();
    }

    void LeadListings()
    {
        const std::string listing =
            BannerLine + std::string("-># launched command(s) and file transfer(s) since "
                                     "beginning\n->Found # active log transfer(s)\n->Found "
                                     "# active command(s)\n->Found # active file "
                                     "transfer(s)\n");
        Lead(
            "INFO", [&] { return Generalise(AskFor(Keyword("INFO", asker_))); }, Generalise(listing));
        Lead(
            "ALLINFO",
            [&] {
                const std::string answer = AskFor(Keyword("ALLINFO", asker_));
                const std::string general = Generalise(answer);
                const size_t report = general.find("->Found operating");
                return report == std::string::npos ? general
                                                   : general.substr(0, report) + HeadingsOf(general);
            },
            Generalise(listing) + "->Found operating system->Memory->Physical->File system");
        Lead(
            "ID",
            [&] {
                return AskFor(Join({Newest, "ID", "no such identifier"}));
            },
            "NOTFOUND");
        Lead(
            "wrong", [&] { return AskFor("hello"); },
            BannerLine + std::string("->Error message not recognized\n"));
    }

    void LeadKill()
    {
        Lead(
            "KILL", [&] { return KillTree(); },
            BannerLine + ("up\n" + KilledLine("#")) + BannerLine + KilledLine("#") + "\n");
    }

    /** What the client of the killed command got, and behind it what the one who killed it got. */
    std::string KillTree()
    {
        Client victim = daemon_.Connect();
        victim.Send(Launch("SOCKET", "echo up && sleep 1000; :", "0", asker_));
        const std::string begin = victim.ReadUntilOrEnd("up\n");
        if (!begin.ends_with("up\n"))
            return begin;
        std::string listing = AskFor(Keyword("INFO", asker_));
        std::smatch number;
        // The last one: an earlier one, whose client was closed, may be about to end.
        static const std::regex pattern("[^]*->N\\(([0-9]+)\\)[^\n]*echo up");
        if (listing.find("echo up") == std::string::npos)
            listing = AskFor(Keyword("INFO", asker_));
        if (!std::regex_search(listing, number, pattern))
            return begin + "(not listed)\n" + listing;
        const std::string request = Keyword("FORCEKILLTREE|" + number.str(1), asker_);
        std::string told = AskFor(request);
        const bool isClosed = told.empty();
        if (told.find("tree force killed") == std::string::npos)
            told += "\n" + AskFor(request);
        const std::string rest = victim.ReadUntilOrEnd();
        if (rest.empty() || isClosed)
            return begin;
        static const std::regex numbers("N\\([0-9]+\\)");
        return std::regex_replace(begin + rest + told, numbers, "N(#)");
    }

    TransferOrder Order(const std::string& keyword) const
    {
        return {.keyword = keyword, .file = file_, .user = asker_.user, .password = asker_.password};
    }

    void LeadTransfers()
    {
        const std::string content = MakeContent(size_);
        const std::string done = Transferred(0) + Right;
        Lead(
            "PUT", [&] { return Put(Order("TRANSFERPUT"), content); }, done);
        Lead(
            "GET", [&] { return Get(Order("TRANSFERGET"), content); }, done);
        TransferOrder order = Order("TRANSFERGET");
        order.passive = true;
        Lead(
            "passive GET", [&] { return Get(order, content); }, done);
        // What is there already is enough to be summed up by threads.
        const std::string large = MakeContent(std::max<size_t>(size_, 2'400'000));
        const std::string part = large.substr(0, large.size() / 10 * 9);
        Lead(
            "update PUT", [&] { return ContinuePut(part, large); }, done);
        order = Order("TRANSFERUPDATEGET");
        order.partialCopy = part;
        const std::string skipped = "->Update mode activated, skipping first " + std::to_string(part.size()) +
                                    "/" + std::to_string(large.size()) + " byte(s)\n";
        Lead(
            "update GET", [&] { return Get(order, large); }, Transferred(0, skipped) + Right);
    }

    /** What a transfer was answered, from the banner to the end. */
    static std::string Finish(TransferClient& client, std::string said)
    {
        const size_t banner = said.find(BannerLine);
        if (banner != std::string::npos)
            said.erase(0, banner);
        return said + client.Control().ReadUntilOrEnd();
    }

    std::string Get(const TransferOrder& order, const std::string& content)
    {
        TransferClient client(daemon_, order);
        std::string said, bytes = order.partialCopy;
        const bool isUpdate = order.keyword == "TRANSFERUPDATEGET";
        std::optional<Client> data = client.TryToOpenData(isUpdate ? "UPDATEWRITE" : "WRITE", said);
        if (data)
            bytes += data->ReadUntilOrEnd();
        return Verify(Finish(client, said), bytes == content);
    }

    std::string Put(const TransferOrder& order, const std::string& content)
    {
        std::remove(file_.c_str());
        TransferClient client(daemon_, order);
        std::string said;
        if (std::optional<Client> data = client.TryToOpenData("READ", said))
            data->Send(content);
        said = Finish(client, said);
        return Verify(said, ReadFile(file_) == content);
    }

    /** With a part of the content there already; should the daemon not offer to go on from it, with all. */
    std::string ContinuePut(const std::string& part, const std::string& content)
    {
        std::remove(file_.c_str());
        std::ofstream(file_) << part;
        chmod(file_.c_str(), 0666);
        TransferClient client(daemon_, Order("TRANSFERUPDATEPUT"));
        std::string said = client.Control().ReadUntilOrEnd("|"), rest = content;
        if (said == "READINFO|") {
            const std::string offer = OfferOf(part);
            said += client.Control().ReadUntilOrEnd(offer.substr(said.size()));
            if (said != offer)
                return said;
            client.Control().Send("UPDATEWRITE");
            said.clear();
            rest = content.substr(part.size());
        }
        if (std::optional<Client> data = client.TryToOpenData("READ", said))
            data->Send(rest);
        said = Finish(client, said);
        return Verify(said, ReadFile(file_) == content);
    }

    TestDirectory directory_;
    std::string file_;
    DaemonUnderTest& daemon_;
    Credentials asker_;
    size_t size_;
    ScenarioResult result_;
};
} // namespace

ScenarioResult RunScenario(DaemonUnderTest& daemon, const Credentials& asker, size_t size)
{
    return Scenario(daemon, asker, size).Run();
}

void ExpectRest(DaemonUnderTest& daemon, const Credentials& asker, size_t idleDescriptors)
{
    const auto kill = [&](const std::string& number) {
        return Ask(daemon, Keyword("FORCEKILLTREE|" + number, asker));
    };
    const pid_t id = daemon.Process().Id();
    static const std::regex listed("->N\\(([0-9]+)\\)");
    std::string listing;
    const auto isAtRest = [&] {
        if (CountDescriptorsOf(id) == idleDescriptors && daemon.Descendants().empty() &&
            FindZombiesOf(id).empty() && CountSystemVObjectsOf(id) == 0)
            return true;
        listing = Ask(daemon, Keyword("INFO", asker));
        for (std::sregex_iterator work(listing.begin(), listing.end(), listed), end; work != end; ++work)
            kill(work->str(1));
        return false;
    };
    EXPECT_TRUE(WaitUntil(isAtRest)) << CountDescriptorsOf(id) << " descriptors instead of "
                                     << idleDescriptors << "\n"
                                     << listing;
    EXPECT_EQ(FindZombiesOf(id), std::vector<pid_t>());
    EXPECT_EQ(CountSystemVObjectsOf(id), 0u);
    EXPECT_EQ(daemon.LogFiles(), std::vector<std::string>());
}
