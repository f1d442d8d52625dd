// Recognising a request, and converting the arguments of those that have any.

#include "daemon/LaunchArguments.h"
#include "daemon/TransferArguments.h"
#include "protocol/RequestForms.h"
#include "protocol/Texts.h"
#include "tests/fuzz/Fuzz.h"

using protocol::RequestKind;

namespace
{
/** The converted arguments say what the fields say. */
void CheckLaunch(RequestKind kind, const protocol::RequestFields& fields)
{
    const auto launch = ReadLaunchArguments(kind, fields);
    if (!launch)
        return;
    Require(launch->user.View() == fields[2], "the user of a launch is its field");
    Require(launch->interactive || launch->command.View() == fields[4], "so is the command");
    Require(launch->lifeTimeOut >= 0, "a life time-out is not negative");
    Require(!launch->passive || (kind == RequestKind::LaunchPassive && !launch->socketMode),
            "only the passive form is passive");
    Require(!launch->interactive || launch->socketMode, "a shell is on its client's socket");
    Require(launch->socketMode == protocol::AsksForSocket(fields), "the mode is what field 5 says");
}

void CheckTransfer(RequestKind kind, const protocol::RequestFields& fields)
{
    const auto transfer = ReadTransferArguments(kind, fields);
    if (!transfer)
        return;
    Require(transfer->user.View() == fields[2] && transfer->remoteFile.View() == fields[6],
            "user and file of a transfer are its fields");
    Require(transfer->lifeTimeOut >= 0, "a life time-out is not negative");
    Require(!transfer->passive || transfer->passiveHost.GetLengthInByte() > 0, "a passive client is named");
    Require(transfer->update == (kind != RequestKind::Transfer), "an update is what its keyword says");
    Require(kind != RequestKind::TransferUpdateGet || transfer->updateSize >= 0,
            "an update get tells what its client has");
}
} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const protocol::RequestFields fields = protocol::SplitRequest(text);
    const int version = protocol::VersionIndex(fields[1]);
    Require(version >= 0 && version <= static_cast<int>(protocol::KnownClients.size()),
            "a version index is one of the known clients");
    Require(version == 0 ||
                fields[1].starts_with(protocol::KnownClients[static_cast<std::size_t>(version) - 1]),
            "a known client begins with its head");

    const RequestKind kind = protocol::RecognizeRequest(fields, version);
    if (kind == RequestKind::Unknown) {
        const std::string_view refusal = protocol::RefusalOfUnknown(fields, version);
        Require(refusal == protocol::MessageNotRecognized || refusal == protocol::ClientTooOld ||
                    refusal == protocol::ServerTooOld,
                "what is of no form gets one of three answers");
        return 0;
    }
    Require(version > 0 && fields.count >= 3 && fields.count <= protocol::MostFields,
            "only known clients are served");
    if (kind <= RequestKind::LaunchInteractive)
        CheckLaunch(kind, fields);
    else if (kind >= RequestKind::Transfer && kind <= RequestKind::TransferUpdatePut)
        CheckTransfer(kind, fields);
    return 0;
}
