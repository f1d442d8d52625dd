#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <unistd.h>

#include "protocol/RequestForms.h"
#include "tests/system/TransferClient.h"

// Plays the conversations of the page on the protocol with real daemons. The page itself says how its lines
// are to be read.

namespace
{
struct Conversation {
    int firstLine = 0;
    bool isChecked = false; // by a daemon that asks for passwords
    std::vector<std::string> steps;
};

std::vector<Conversation> ReadPage()
{
    const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    std::istringstream page(ReadFile(folder / "protocol.md"));
    std::vector<Conversation> conversations;
    bool isInside = false;
    std::string line;
    for (int number = 1; std::getline(page, line); ++number) {
        const bool begins = line.starts_with("```dialogue");
        if (begins)
            conversations.push_back({number + 1, line.ends_with(" checked"), {}});
        else if (isInside && line != "```")
            conversations.back().steps.push_back(line);
        isInside = begins || (isInside && line != "```");
    }
    return conversations;
}

std::string ReplaceAll(std::string text, const std::string& from, const std::string& to)
{
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

std::string Unescape(const std::string& text)
{
    return ReplaceAll(ReplaceAll(text, "\\n", "\n"), "\\r", "\r");
}

/** The name of the connection that the step is about, and what comes behind it. */
bool IsStep(const std::string& step, const std::string& pattern, std::smatch& parts)
{
    return std::regex_match(step, parts, std::regex("(\\w+)" + pattern));
}

class Player
{
public:
    explicit Player(const Conversation& conversation)
        : steps_(conversation.steps),
          daemon_(conversation.isChecked ? DaemonOptions{.mode = {"-noinstall"}} : DaemonOptions{})
    {
        values_["user"] = OwnUser();
        values_["password"] = "secret";
        values_["file"] = directory_.Path() + "/file";
        values_["client port"] = std::to_string(collector_.Port());
    }

    void Play()
    {
        while (next_ < steps_.size() && !testing::Test::HasFailure()) {
            const std::string step = steps_[next_++];
            std::smatch parts;
            if (IsStep(step, "> (.*)", parts))
                Say(parts[1], Fill(Unescape(parts[2])));
            else if (IsStep(step, "<( .*)?", parts))
                Hear(parts[1], step);
            else if (IsStep(step, " connects to (.*)", parts))
                connections_.emplace(parts[1], Client(std::stoi(Fill(parts[2])), daemon_.Conversation()));
            else if (IsStep(step, " accepted", parts))
                connections_.emplace(parts[1], collector_.Accept());
            else if (IsStep(step, " resets", parts))
                connections_.at(parts[1]).Reset();
            else if (IsStep(step, " closes", parts))
                connections_.erase(parts[1]);
            else
                Note(step);
        }
    }

private:
    std::string Fill(std::string text) const
    {
        for (const auto& [name, value] : values_)
            text = ReplaceAll(text, "{" + name + "}", value);
        return text;
    }

    void Say(const std::string& name, const std::string& text)
    {
        auto found = connections_.find(name);
        if (found == connections_.end())
            found = connections_.emplace(name, daemon_.Connect()).first;
        found->second.Send(text);
    }

    /** All that comes on a connection in one go, and its end if that is next. */
    void Hear(const std::string& name, std::string step)
    {
        std::string expected;
        std::smatch parts;
        while (IsStep(step, "< ?(.*)", parts) && parts[1] == name) {
            const std::string line = parts[2];
            expected += line.ends_with("\\") ? line.substr(0, line.size() - 1) : line + "\n";
            step = next_ < steps_.size() ? steps_[next_++] : "";
        }
        expected = Fill(Unescape(expected));
        Client& client = connections_.at(name);
        std::string heard;
        if (step == name + " closed") {
            heard = client.ReadToEnd();
        } else {
            next_ -= step.empty() ? 0 : 1;
            for (const char byte : expected)
                heard += byte == '\n' ? client.ReadUntil("\n") : "";
            heard += client.ReadExactly(expected.size() - (expected.rfind('\n') + 1));
        }
        Match(expected, heard);
    }

    /** Compares, and keeps what stands where the page has a value of the daemon's that is used later. */
    void Match(const std::string& expected, const std::string& heard)
    {
        static const std::map<std::string, std::string> Patterns = {
            {"date", "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"},
            {"number", "[0-9]+"},
            {"text", ".*"},
            {"lines", "(?:->.*\n)*->.*"},
            {"data port", "([0-9]+)"},
            {"other data port", "([0-9]+)"},
            {"identifier", "(HOST\\(.*\\), PORT\\([0-9]+\\), N\\([0-9]+\\), UID\\(.*\\), BDATE\\(.*\\))"}};
        std::string pattern;
        std::vector<std::string> kept;
        for (size_t at = 0; at < expected.size(); ++at) {
            const size_t end = expected[at] == '{' ? expected.find('}', at) : std::string::npos;
            if (end == std::string::npos) {
                pattern +=
                    std::string(isalnum(expected[at]) || expected[at] == '\n' ? "" : "\\") + expected[at];
                continue;
            }
            const std::string name = expected.substr(at + 1, end - at - 1);
            ASSERT_TRUE(Patterns.contains(name)) << name;
            pattern += Patterns.at(name);
            if (Patterns.at(name).starts_with("("))
                kept.push_back(name);
            at = end;
        }
        std::smatch groups;
        ASSERT_TRUE(std::regex_match(heard, groups, std::regex(pattern))) << "the page has\n"
                                                                          << expected << "the daemon says\n"
                                                                          << heard;
        for (size_t i = 0; i < kept.size(); ++i)
            values_[kept[i]] = groups[i + 1];
    }

    /** What is said about a file. */
    void Note(const std::string& step)
    {
        std::smatch parts;
        if (std::regex_match(step, parts, std::regex("\\* let (\\S+) hold (.*)")))
            std::ofstream(Fill(parts[1]), std::ios::binary) << Unescape(parts[2]);
        else if (std::regex_match(step, parts, std::regex("\\* now (\\S+) holds (.*)")))
            EXPECT_TRUE(WaitUntil([&] { return ReadFile(Fill(parts[1])) == Unescape(parts[2]); })) << step;
        else if (std::regex_match(step, parts, std::regex("\\* now (\\S+) is gone")))
            EXPECT_NE(access(Fill(parts[1]).c_str(), F_OK), 0) << step;
        else
            ADD_FAILURE() << "what is this: " << step;
    }

    const std::vector<std::string>& steps_;
    size_t next_ = 0;
    TestDirectory directory_;
    Dialogue unrecorded_;
    Collector collector_{unrecorded_};
    std::map<std::string, std::string> values_;
    DaemonUnderTest daemon_;
    std::map<std::string, Client> connections_;
};
} // namespace

TEST(ProtocolPage, IsWhatTheDaemonDoes)
{
    const std::vector<Conversation> conversations = ReadPage();
    EXPECT_GE(conversations.size(), 20u);
    for (const Conversation& conversation : conversations) {
        SCOPED_TRACE("protocol.md, line " + std::to_string(conversation.firstLine));
        Player(conversation).Play();
        ASSERT_FALSE(HasFailure());
    }
}

/** Every row of the daemon's table of requests, in every number of fields, has its conversation. */
TEST(ProtocolPage, ShowsEveryRequest)
{
    using Row = std::pair<protocol::RequestKind, int>;
    std::set<Row> missing;
    for (const protocol::RequestForm& form : protocol::RequestForms())
        for (const protocol::FormShape& shape : form.shapes)
            if (shape.fieldCount != 0)
                missing.insert({form.kind, shape.fieldCount});
    EXPECT_EQ(missing.size(), 18u);
    for (const Conversation& conversation : ReadPage()) {
        for (const std::string& step : conversation.steps) {
            std::smatch parts;
            if (!IsStep(step, "> (.*)", parts))
                continue;
            const std::string text = parts[2];
            const protocol::RequestFields fields = protocol::SplitRequest(text);
            missing.erase({RecognizeRequest(fields, protocol::VersionIndex(fields[1])), fields.count});
        }
    }
    for (const auto& [kind, count] : missing)
        ADD_FAILURE() << "row " << static_cast<int>(kind) + 1 << " with " << count << " fields is not shown";
}
