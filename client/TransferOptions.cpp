#include "client/TransferOptions.h"

#include <nlohmann/json.hpp>

#include "client/Failure.h"
#include "client/Output.h"
#include "client/ServerRefusal.h"
#include "client/SubcommandParser.h"

namespace
{
using Json = nlohmann::ordered_json;

Json MakeEntry(const TransferOutcome& outcome)
{
    Json entry = {{"source", outcome.source}, {"target", outcome.target}, {"done", !outcome.failure}};
    if (outcome.failure) {
        entry["error"] = outcome.failure.sentence;
        if (!outcome.failure.serverWords.empty())
            entry["serverWords"] = outcome.failure.serverWords;
        return entry;
    }
    entry["bytes"] = outcome.bytes;
    entry["resumedAt"] = outcome.resumedAt;
    entry["checkSum"] = outcome.checkSum;
    entry["seconds"] = outcome.seconds;
    return entry;
}

std::string FormatOutcomesAsJson(const std::vector<TransferOutcome>& outcomes)
{
    Json entries = Json::array();
    for (const TransferOutcome& one : outcomes)
        entries.push_back(MakeEntry(one));
    return Json{{"transfers", entries}}.dump(2, ' ', true, Json::error_handler_t::replace);
}

int ConcludeTransfers(const std::vector<TransferOutcome>& outcomes, bool isJson)
{
    int exitCode = 0;
    for (const TransferOutcome& one : outcomes)
        if (one.failure)
            exitCode = Report(Failure{one.source + ": " + one.failure.sentence, one.failure.serverWords});
    if (isJson)
        if (const int error = WriteToStandardOutput(FormatOutcomesAsJson(outcomes) + "\n"))
            return Report(SystemFailure("the summary cannot be written", error));
    return exitCode;
}
} // namespace

void AddTransferOptions(CLI::App& app, TransferOptions& options)
{
    app.add_flag("-a,--ascii", options.isAscii, "Text: line ends travel as CR LF; cannot be resumed");
    app.add_flag("-p,--passive", options.isPassive, "The server connects to this machine, not the other way");
    app.add_flag("--in-place", options.isInPlace,
                 "Straight into the target: a failure leaves a part of the file there");
    app.add_flag("--json", options.isJson, "For programs: a summary as one JSON object, no bar");
    app.add_option("--timeout", options.lifeTimeOut, "End each transfer after 90s, 10m, 2h; 0 is never")
        ->type_name("DURATION")
        ->check(CheckDuration);
}

int MoveAll(std::vector<std::string> words, std::string target, std::string_view stream, bool isJson,
            const MoveOne& move)
{
    if (words.size() > 1) {
        target = words.back();
        words.pop_back();
    }
    // The slash asks for a folder.
    if (words.size() > 1 && target != stream && !target.ends_with('/'))
        target += '/';
    std::vector<TransferOutcome> outcomes;
    for (const std::string& source : words) {
        outcomes.emplace_back().source = source;
        outcomes.back().target = target;
        outcomes.back().failure = move(outcomes.back(), target);
        // A refused password would be refused again, and each time slowly.
        if (IsUserRefusal(outcomes.back().failure.serverWords))
            break;
    }
    return ConcludeTransfers(outcomes, isJson);
}

std::string NameIn(const std::string& path)
{
    const std::size_t end = path.find_last_not_of('/');
    if (end == std::string::npos)
        return path;
    const std::size_t begin = path.rfind('/', end);
    return path.substr(begin + 1, end - begin);
}

void SayResumed(const std::string& name, long long bytesBefore, long long bytesInAll)
{
    const long long share = bytesInAll > 0 ? bytesBefore * 100 / bytesInAll : 100;
    Say(name + ": resumed at " + std::to_string(share) + " %");
}
