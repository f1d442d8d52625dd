#include "daemon/RuvelServer.h"
#include "protocol/Texts.h"

namespace
{

/** What each word of a kill request does. */
struct KillVariant {
    std::string_view word;
    std::string_view told;
    bool wholeTree;
    Ladder ladder;
};

constexpr KillVariant Variants[] = {
    {"KILL", protocol::Killed, false, Ladders::GentleKill},
    {"KILLTREE", protocol::TreeKilled, true, Ladders::GentleKill},
    {"FORCEKILL", protocol::ForceKilled, false, Ladders::ForcedKill},
    {"FORCEKILLTREE", protocol::TreeForceKilled, true, Ladders::ForcedKill},
};

const KillVariant& VariantOf(std::string_view word)
{
    for (const KillVariant& variant : Variants)
        if (variant.word == word)
            return variant;
    return Variants[0]; // never: the form admits only these words
}

template <class T>
T* FindByNumber(QORListPtr<T>& list, int number)
{
    for (int i = 1; i <= list.Size(); ++i)
        if (list[i]->GetNumber() == number)
            return list[i];
    return nullptr;
}

} // namespace

/** One number space covers both kinds of work; transfers are looked for first. */
void RuvelServer::ServeKill(WaitingClient& client)
{
    CheckTransfers(); // what has ended by itself is not killed any more
    int number = 0;
    const bool isNumber = QORUnicodeString(client.fields[5]).ConvertToNum(&number, "%d") != 0;
    TransferConnection* transfer = isNumber ? FindByNumber(transfers_, number) : nullptr;
    BaseConnection* command = isNumber && transfer == nullptr ? FindByNumber(commands_, number) : nullptr;
    if (command != nullptr && HasEndedByItself(*command))
        command = nullptr;
    const QORUnicodeString user(client.fields[2]);
    if (transfer == nullptr && command == nullptr)
        return RefuseKillOf(client, protocol::KillBadNumberLead, protocol::KillBadNumberEnd);
    if (transfer != nullptr && !transfer->IsSameUser(user))
        return RefuseKillOf(client, protocol::KillTransferLead, protocol::KillNotOwnerEnd);
    if (command != nullptr && !command->IsSameUser(user))
        return RefuseKillOf(client, protocol::KillCommandLead, protocol::KillNotOwnerEnd);

    EndingDemand demand;
    demand.cause = EndingCause::KillRequest;
    if (transfer != nullptr) {
        demand.ladder = Ladders::Worker;
        demand.text = protocol::TransferTerminated(client.fields[5], client.fields[2]);
    } else {
        const KillVariant& variant = VariantOf(client.fields[4]);
        demand.ladder = variant.ladder;
        demand.wholeTree = variant.wholeTree;
        demand.text = protocol::CommandKilled(client.fields[5], variant.told);
    }
    demand.asker = std::make_unique<Connection>();
    TakeSocket(client, *demand.asker);
    if (transfer != nullptr)
        EndWorkOf(*transfer, std::move(demand));
    else
        EndWorkOf(*command, std::move(demand));
}

void RuvelServer::RefuseKillOf(WaitingClient& client, std::string_view lead, std::string_view end)
{
    Answer(client,
           std::string(protocol::BannerLine).append(lead).append(client.fields[5]).append(end).append("\n"));
}
