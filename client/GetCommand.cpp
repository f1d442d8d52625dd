// A get is asked for until nothing more comes: each further round is a get in update mode that tells what is
// here already. So the server compares size and check sums, sends what is missing, and when nothing is, all
// is here. A part that an earlier get has left is the same: a round that has been made.
#include "client/GetCommand.h"

#include <optional>
#include <vector>

#include "client/GetTarget.h"
#include "client/ProgressBar.h"
#include "client/RemoteFile.h"
#include "client/SubcommandParser.h"
#include "client/TransferExchange.h"
#include "client/TransferOptions.h"
#include "protocol/LineEnds.h"

namespace
{
constexpr std::string_view StandardStream = "-";
/** A file that is written to all the time is never whole for long: then what it was a moment ago will do. */
constexpr int RoundsUntilContent = 3;
constexpr int MostRounds = 6;

/** One file on its way. */
class Get
{
public:
    Get(const TransferOptions& options, TransferOutcome& outcome)
        : options_(options), outcome_(outcome), bar_(outcome.source, !options.isJson)
    {
    }

    Failure Run(const std::string& target);

private:
    Failure OpenTarget(const std::string& target);
    Failure Fetch();
    Failure FetchRound(int round, bool& isWhole);
    TransferRequest MakeRequest(int round) const;
    Failure TakeAnswer(int round, const TransferAnswer& answer);
    Failure ReceiveAll(TransferExchange& exchange, bool isAscii);
    Failure ReceiveBlocks(ServerConnection& data, bool isAscii);
    /** Whether the server can compare: a pipe is never the same again, and some files hide their size. */
    bool IsComparable() const;

    const TransferOptions& options_;
    TransferOutcome& outcome_;
    ProgressBar bar_;
    RemoteFile source_;
    GetTarget target_;
};

Failure Get::Run(const std::string& target)
{
    if (Failure failure = FindGetSource(options_.server, outcome_.source, source_))
        return failure;
    if (Failure failure = OpenTarget(target))
        return failure;
    outcome_.target = target_.Path();
    if (Failure failure = Fetch())
        return failure;
    outcome_.bytes = target_.Facts().size;
    outcome_.checkSum = target_.Facts().bodyCheckSum;
    outcome_.seconds = bar_.Seconds();
    const bool isPlain = source_.kind == RemoteFile::Regular;
    return target_.Finish(isPlain ? source_.mode : "", isPlain ? source_.modified : "");
}

Failure Get::OpenTarget(const std::string& target)
{
    if (target == StandardStream)
        return target_.OpenStandardOutput();
    // As it was asked for: not whatever name the server may answer.
    return target_.OpenFile(target, NameIn(outcome_.source), options_.isInPlace);
}

bool Get::IsComparable() const
{
    return source_.kind == RemoteFile::Regular && (source_.size > 0 || target_.Facts().size == 0);
}

Failure Get::Fetch()
{
    bool isWhole = false;
    for (int round = 1; round <= MostRounds && !isWhole; ++round)
        if (Failure failure = FetchRound(round, isWhole))
            return failure;
    return isWhole ? Failure{} : Failure{"the file changes faster than it can be copied; try again later"};
}

Failure Get::FetchRound(int round, bool& isWhole)
{
    TransferExchange exchange(options_.server);
    TransferAnswer answer;
    const TransferRequest request = MakeRequest(round);
    if (Failure failure = exchange.Begin(request, answer))
        return failure;
    if (Failure failure = TakeAnswer(round, answer))
        return failure;
    const long long before = target_.Facts().size;
    if (Failure failure = ReceiveAll(exchange, request.isAscii))
        return failure;
    bar_.Finish();
    const long long now = target_.Facts().size;
    const bool isCompared = answer.kind == TransferAnswer::Rest && now >= answer.sizeInAll;
    isWhole = options_.isInPlace || !IsComparable() ||
              (isCompared && (now == before || round >= RoundsUntilContent));
    return {};
}

TransferRequest Get::MakeRequest(int round) const
{
    TransferRequest request;
    request.isGet = true;
    // Converted, a text is the file as it is there: so later rounds compare and go on with bytes.
    request.isAscii = options_.isAscii && round == 1;
    request.isUpdate = !request.isAscii && IsComparable() && (round > 1 || target_.Facts().size > 0);
    request.isPassive = options_.isPassive;
    request.lifeTimeOut = ReadDuration(options_.lifeTimeOut).value_or(0);
    request.file = source_.path;
    request.own = target_.Facts();
    return request;
}

/** What comes goes on where the target ends, or is the whole file. */
Failure Get::TakeAnswer(int round, const TransferAnswer& answer)
{
    if (answer.kind != TransferAnswer::Rest) {
        if (Failure failure = target_.StartOver())
            return failure;
    } else if (round == 1) {
        outcome_.resumedAt = target_.Facts().size;
        SayResumed(outcome_.source, outcome_.resumedAt, answer.sizeInAll);
    }
    if (round == 1)
        bar_.Start(target_.Facts().size,
                   source_.kind == RemoteFile::Regular && source_.size > 0 ? source_.size : -1);
    return {};
}

Failure Get::ReceiveAll(TransferExchange& exchange, bool isAscii)
{
    ServerConnection data;
    if (Failure failure = exchange.OpenData(data))
        return failure;
    if (Failure failure = ReceiveBlocks(data, isAscii))
        return failure;
    data.Close();
    return exchange.Conclude(data);
}

Failure Get::ReceiveBlocks(ServerConnection& data, bool isAscii)
{
    LineEnds::Reducer lineEnds;
    bool isEnd = false;
    while (!isEnd) {
        // The byte in front is for a CR that was held back.
        std::string block(1, '\0');
        if (Failure failure = data.Receive(block, isEnd))
            return failure;
        const std::size_t length = block.size() - 1;
        const std::string_view bytes =
            isAscii ? lineEnds.Reduce(block.data(), length) : std::string_view(block).substr(1);
        if (Failure failure = target_.Write(bytes))
            return failure;
        bar_.Update(target_.Facts().size);
    }
    return target_.Write(lineEnds.TakeHeldBack());
}

std::string CheckWords(const std::vector<std::string>& words, bool isJson)
{
    if (words.empty())
        return "get needs a file, and where to put it";
    for (const std::string& word : words)
        if (word.empty())
            return "a name is empty";
    if (words.size() > 1 && words.back() == StandardStream && isJson)
        return "standard output cannot take both the file and --json";
    return "";
}
} // namespace

int RunGet(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(
        self, "FILE... [TARGET]",
        "Relative FILEs begin in the home directory there. TARGET is a file, - for standard output or, for\n"
        "several, a folder; a single FILE goes to the current one. The target is replaced only by a whole\n"
        "file, with mode and time kept; an interrupted get goes on where it was when it is repeated.");
    parser.TakeOptionsAnywhere();
    TransferOptions options;
    AddTransferOptions(parser.Options(), options);
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (const std::string reason = CheckWords(parser.Words(), options.isJson); !reason.empty())
        return Complain(reason);
    if (const Failure failure = FindServer(parser.WhoAndWhere(), options.server))
        return Report(failure);
    return MoveAll(parser.Words(), ".", StandardStream, options.isJson,
                   [&](TransferOutcome& outcome, const std::string& target) {
                       return Get(options, outcome).Run(target);
                   });
}
