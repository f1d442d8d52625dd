#include "client/SubcommandParser.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <memory>

namespace
{
/**
 * Adds to the usage line what the parser does not know of, the words that stop it, and leaves out what it
 * would tell about an option beside the name of its value.
 */
class HelpFormatter : public CLI::Formatter
{
public:
    explicit HelpFormatter(std::string usage) : usage_(std::move(usage)) {}
    std::string make_usage(const CLI::App* app, std::string name) const override
    {
        std::string usage = Formatter::make_usage(app, std::move(name));
        const std::size_t lineEnd = usage.find_last_not_of('\n') + 1;
        return usage_.empty() ? usage : usage.insert(lineEnd, " " + usage_);
    }
    std::string make_option_opts(const CLI::Option* option) const override
    {
        const std::string value = option->get_type_name();
        return value.empty() ? value : " " + value.substr(0, value.find(':'));
    }

private:
    std::string usage_;
};

void AddServerOptions(CLI::App& app, ServerOptions& options)
{
    const char* const group = "Who and where";
    app.add_option("-H,--host", options.host,
                   "Server: HOST, HOST:PORT or :PORT; else RUVEL_HOST, 127.0.0.1:5678")
        ->type_name("SERVER")
        ->group(group);
    app.add_option("-u,--user", options.user, "User there; else RUVEL_USER, your own name")
        ->type_name("NAME")
        ->group(group);
    app.add_option("--password-file", options.passwordFile,
                   "File with the password, closed to others; else RUVEL_PASSWORD_FILE;\n"
                   "that variable set to nothing says that there is no password")
        ->type_name("FILE")
        ->group(group);
    app.add_option("--password-fd", options.passwordDescriptor, "Open descriptor to read the password from")
        ->type_name("NUMBER")
        ->check(CLI::NonNegativeNumber)
        ->group(group);
    app.add_flag("--batch", options.isBatch, "Never ask for a password")->group(group);
    app.add_option("--proxy", options.proxy,
                   "Connect over this command's standard streams; %h is host, %p port")
        ->type_name("COMMAND")
        ->group(group);
}
} // namespace

int Complain(const std::string& reason)
{
    return Report(reason + " (" + std::string(ProgramName()) + " --help tells more)");
}

SubcommandParser::SubcommandParser(const Subcommand& self, std::string usage, std::string footer, Asks asks)
    : app_(std::string(self.summary), std::string(ProgramName()) + " " + std::string(self.name))
{
    app_.formatter(std::make_shared<HelpFormatter>(std::move(usage)));
    app_.footer(std::move(footer));
    app_.prefix_command();
    if (asks == Asks::Server)
        AddServerOptions(app_, serverOptions_);
}

void SubcommandParser::TakeOptionsAnywhere()
{
    app_.prefix_command(false);
    app_.allow_extras();
}

std::optional<int> SubcommandParser::Parse(const Arguments& arguments)
{
    try {
        // It takes them from the end.
        app_.parse(std::vector<std::string>(arguments.own.rbegin(), arguments.own.rend()));
    } catch (const CLI::Success& asked) {
        return app_.exit(asked);
    } catch (const CLI::Error& error) {
        return Complain(error.what());
    }
    const std::string reason = CollectWords(arguments);
    return reason.empty() ? std::nullopt : std::optional(Complain(reason));
}

std::string SubcommandParser::CollectWords(const Arguments& arguments)
{
    words_ = app_.remaining();
    const bool isCommand = app_.get_prefix_command();
    const auto isOption = [](const std::string& word) { return word.size() > 1 && word.front() == '-'; };
    const auto end = isCommand && !words_.empty() ? words_.begin() + 1 : words_.end();
    if (const auto unknown = std::find_if(words_.begin(), end, isOption); unknown != end)
        return "The following option was not expected: " + *unknown;
    // Dashes behind the first word of a command are not ours.
    if (isCommand && !words_.empty() && arguments.hasDashes)
        words_.emplace_back("--");
    words_.insert(words_.end(), arguments.behindDashes.begin(), arguments.behindDashes.end());
    return "";
}

std::optional<long> ReadDuration(const std::string& text)
{
    long count = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, count);
    if (error != std::errc() || count < 0)
        return std::nullopt;
    long unit = 1;
    const std::string_view name(stop, static_cast<std::size_t>(end - stop));
    if (name == "m")
        unit = 60;
    else if (name == "h")
        unit = 60 * 60;
    else if (name == "d")
        unit = 24 * 60 * 60;
    else if (!name.empty() && name != "s")
        return std::nullopt;
    if (count > std::numeric_limits<int>::max() / unit)
        return std::nullopt;
    return count * unit;
}

std::string CheckDuration(const std::string& text)
{
    return ReadDuration(text) ? ""
                              : "a duration is a whole number with s, m, h or d behind, such as 90s or 10m";
}
