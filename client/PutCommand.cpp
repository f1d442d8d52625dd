// One put, unless it goes straight into the target:
//
// | step    | what is done                                                         | left after a failure |
// |---------|----------------------------------------------------------------------|----------------------|
// | find    | the target in full; beside it the part, made empty if there is none  | an empty part        |
// | move    | a put in update mode into the part: the rest where it fits, or all   | the part             |
// | compare | a further put's offer tells size and check sums, and is declined     | the part             |
// | finish  | mode, time, and the part takes the target's place                    | the part             |
#include "client/PutCommand.h"

#include <array>
#include <cerrno>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "client/ProgressBar.h"
#include "client/RemoteFile.h"
#include "client/SubcommandParser.h"
#include "client/TransferExchange.h"
#include "client/TransferOptions.h"
#include "protocol/LineEnds.h"

namespace
{
constexpr std::size_t BlockSize = 262144;
constexpr std::string_view StandardStream = "-";
/** The bits that chmod is given; the privileges of a program do not travel. */
constexpr mode_t KeptModes = 0777;
/** What a new file gets when there is no mode to keep: the umask there decides. */
constexpr const char* UsualMode = "=rw";

/** What is sent. */
struct Source {
    FileDescriptor file;
    /** Its beginning can be read again, so that a part of it can be recognised. */
    bool isRegular = false;
    long long size = -1;
    std::string mode;
    std::string modified;
};

std::string FormatOctal(mode_t mode)
{
    std::array<char, 16> text;
    snprintf(text.data(), text.size(), "%03o", static_cast<unsigned>(mode));
    return text.data();
}

std::string FormatTime(const timespec& time)
{
    std::array<char, 48> text;
    snprintf(text.data(), text.size(), "%lld.%09ld", static_cast<long long>(time.tv_sec), time.tv_nsec);
    return text.data();
}

Failure OpenSource(const std::string& name, Source& source)
{
    if (name == StandardStream) {
        source.file = FileDescriptor(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        return source.file.IsOpen() ? Failure{} : SystemFailure("standard input cannot be read", errno);
    }
    source.file = FileDescriptor(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat facts = {};
    if (!source.file.IsOpen() || fstat(source.file.Number(), &facts) != 0)
        return SystemFailure("cannot be read", errno);
    if (S_ISDIR(facts.st_mode))
        return {"is a folder: tar or rsync move those"};
    source.isRegular = S_ISREG(facts.st_mode);
    if (source.isRegular) {
        source.size = facts.st_size;
        source.mode = FormatOctal(facts.st_mode & KeptModes);
        source.modified = FormatTime(facts.st_mtim);
    }
    return {};
}

/** One file on its way. */
class Put
{
public:
    Put(const TransferOptions& options, TransferOutcome& outcome)
        : options_(options), outcome_(outcome), bar_(outcome.source, !options.isJson)
    {
    }

    Failure Run(const std::string& target);

private:
    TransferRequest MakeRequest() const;
    Failure Move();
    Failure AnswerOffer(TransferExchange& exchange, TransferAnswer& answer);
    Failure SendAll(TransferExchange& exchange);
    Failure SendBlocks(ServerConnection& data);
    Failure Compare();
    Failure Finish();

    const TransferOptions& options_;
    TransferOutcome& outcome_;
    ProgressBar bar_;
    Source source_;
    RemoteFile target_;
    /** Of what the server must have in the end. */
    FileSums sums_;
};

Failure Put::Run(const std::string& target)
{
    if (Failure failure = OpenSource(outcome_.source, source_))
        return failure;
    const std::string baseName = outcome_.source == StandardStream ? "" : NameIn(outcome_.source);
    if (Failure failure = FindPutTarget(options_.server, target, baseName, !options_.isInPlace, target_))
        return failure;
    outcome_.target = target_.path;
    if (Failure failure = Move())
        return failure;
    bar_.Finish();
    outcome_.bytes = sums_.Facts().size;
    outcome_.checkSum = sums_.Facts().bodyCheckSum;
    outcome_.seconds = bar_.Seconds();
    if (!target_.partPath.empty())
        if (Failure failure = Compare())
            return failure;
    return target_.kind == RemoteFile::Special ? Failure{} : Finish();
}

TransferRequest Put::MakeRequest() const
{
    TransferRequest request;
    request.isAscii = options_.isAscii;
    // What cannot be read again cannot be compared with what is there.
    request.isUpdate = !options_.isAscii && source_.isRegular && target_.kind != RemoteFile::Special;
    request.isPassive = options_.isPassive;
    request.lifeTimeOut = ReadDuration(options_.lifeTimeOut).value_or(0);
    request.file = target_.partPath.empty() ? target_.path : target_.partPath;
    return request;
}

Failure Put::Move()
{
    TransferExchange exchange(options_.server);
    TransferAnswer answer;
    if (Failure failure = exchange.Begin(MakeRequest(), answer))
        return failure;
    if (answer.kind == TransferAnswer::Offer)
        if (Failure failure = AnswerOffer(exchange, answer))
            return failure;
    bar_.Start(outcome_.resumedAt, source_.size);
    return SendAll(exchange);
}

/** Takes the offer when what is there is the beginning of the file. */
Failure Put::AnswerOffer(TransferExchange& exchange, TransferAnswer& answer)
{
    const FileFacts& offered = answer.offered;
    bool isBeginning = false;
    if (offered.size > 0 && offered.size <= source_.size) {
        FileSums beginning;
        if (const int error = beginning.AddBeginning(source_.file.Number(), offered.size))
            return SystemFailure("cannot be read", error);
        const FileFacts own = beginning.Facts();
        isBeginning = own.headCheckSum == offered.headCheckSum && own.bodyCheckSum == offered.bodyCheckSum;
        if (isBeginning)
            sums_ = beginning;
    }
    if (isBeginning) {
        if (lseek(source_.file.Number(), offered.size, SEEK_SET) < 0)
            return SystemFailure("cannot be read", errno);
        outcome_.resumedAt = offered.size;
        SayResumed(outcome_.source, offered.size, source_.size);
    }
    return exchange.Reply(isBeginning, answer);
}

Failure Put::SendAll(TransferExchange& exchange)
{
    ServerConnection data;
    if (Failure failure = exchange.OpenData(data))
        return failure;
    const Failure sending = SendBlocks(data);
    data.EndSending();
    // Closed later: a proxy may still have bytes to pass on.
    const Failure concluded = exchange.Conclude(data);
    // Where the server knows why it took no more, that says more than a broken connection.
    return sending && concluded.serverWords.empty() ? sending : concluded;
}

Failure Put::SendBlocks(ServerConnection& data)
{
    std::vector<char> block(BlockSize);
    std::vector<char> expanded(options_.isAscii ? 2 * BlockSize : 0);
    ssize_t count;
    while ((count = read(source_.file.Number(), block.data(), block.size())) != 0) {
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return SystemFailure("cannot be read", errno);
        std::string_view bytes(block.data(), static_cast<std::size_t>(count));
        sums_.Add(bytes);
        if (options_.isAscii)
            bytes = {expanded.data(), LineEnds::Expand(bytes, expanded.data())};
        if (Failure failure = data.Send(bytes))
            return failure;
        bar_.Update(sums_.Facts().size);
    }
    return {};
}

/** What arrived must be what was sent: a put takes a connection that was cut for the end of the file. */
Failure Put::Compare()
{
    TransferRequest request = MakeRequest();
    request.isAscii = false;
    request.isUpdate = true;
    TransferExchange exchange(options_.server);
    TransferAnswer answer;
    if (Failure failure = exchange.Begin(request, answer))
        return failure;
    if (answer.kind != TransferAnswer::Offer) {
        // The part is gone, and the server waits for a new one: it shall not do so for long.
        ServerConnection data;
        exchange.OpenData(data);
        return {"what arrived cannot be compared with the file; put it again"};
    }
    const FileFacts own = sums_.Facts();
    const bool isSame = answer.offered.size == own.size && answer.offered.bodyCheckSum == own.bodyCheckSum;
    if (Failure failure = exchange.Decline())
        return failure;
    return isSame ? Failure{} : Failure{"what arrived is not what was sent; put it again"};
}

Failure Put::Finish()
{
    std::string mode = source_.mode;
    // A stream brings no mode: the target keeps its own.
    if (mode.empty() && !target_.partPath.empty())
        mode = target_.kind == RemoteFile::Regular ? target_.mode : UsualMode;
    return FinishPut(options_.server, target_, sums_.Facts().size, mode, source_.modified);
}

/** Names for the put; what is wrong with them, or nothing. */
std::string CheckWords(const std::vector<std::string>& words)
{
    if (words.empty())
        return "put needs a file, and where to put it";
    if (words.size() == 1 && words.front() == StandardStream)
        return "put - needs the name of a target";
    for (const std::string& word : words)
        if (word.empty())
            return "a name is empty";
    return "";
}
} // namespace

int RunPut(const Subcommand& self, const Arguments& arguments)
{
    SubcommandParser parser(
        self, "FILE... [TARGET]",
        "FILE may be - for standard input. TARGET is a file or, for several, a folder; relative ones begin "
        "in\n"
        "the home directory there, which is also where a single FILE goes. The target is replaced only by a\n"
        "whole file, with mode and time kept; an interrupted put goes on where it was when it is repeated.");
    parser.TakeOptionsAnywhere();
    TransferOptions options;
    AddTransferOptions(parser.Options(), options);
    if (const std::optional<int> exitCode = parser.Parse(arguments))
        return *exitCode;
    if (const std::string reason = CheckWords(parser.Words()); !reason.empty())
        return Complain(reason);
    if (const Failure failure = FindServer(parser.WhoAndWhere(), options.server))
        return Report(failure);
    return MoveAll(parser.Words(), "./", "", options.isJson,
                   [&](TransferOutcome& outcome, const std::string& target) {
                       return Put(options, outcome).Run(target);
                   });
}
