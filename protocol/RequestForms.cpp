#include "protocol/RequestForms.h"

#include <algorithm>
#include <limits>

#include "protocol/Texts.h"

namespace protocol
{

namespace
{

constexpr int AnyLater = std::numeric_limits<int>::max();

constexpr FieldTest Is(int field, std::string_view a, std::string_view b = {}, std::string_view c = {},
                       std::string_view d = {})
{
    return {field, true, {a, b, c, d}};
}

constexpr FieldTest IsNot(int field, std::string_view word)
{
    return {field, false, {word, {}, {}, {}}};
}

constexpr FieldTest SocketWord = Is(5, "SOCKET", "NOSOCKET");
constexpr FieldTest WindowWord = Is(6, "WINDOW", "NOWINDOW");

constexpr std::array<RequestForm, 13> Forms = {{
    {RequestKind::Launch,
     UserCheck::AfterArguments,
     {{{7, 9, AnyLater}}},
     {{SocketWord, WindowWord, IsNot(7, "INTERACTIVE")}}},
    {RequestKind::LaunchPassive,
     UserCheck::AfterArguments,
     {{{8, 11, AnyLater}, {9, 11, AnyLater}}},
     {{Is(5, "NOSOCKET"), WindowWord, IsNot(7, "INTERACTIVE")}}},
    {RequestKind::LaunchUntimed, UserCheck::AfterArguments, {{{6, 1, AnyLater}}}, {{SocketWord, WindowWord}}},
    {RequestKind::LaunchOldest, UserCheck::AfterArguments, {{{5, 1, 1}}}, {{Is(5, "TRUE", "FALSE")}}},
    {RequestKind::LaunchInteractive,
     UserCheck::AfterArguments,
     {{{8, 9, AnyLater}, {7, 8, AnyLater}}},
     {{Is(5, "SOCKET"), WindowWord, Is(7, "INTERACTIVE")}}},
    {RequestKind::Close, UserCheck::BeforeArguments, {{{4, 1, AnyLater}}}, {{Is(4, "Close")}}},
    {RequestKind::Transfer,
     UserCheck::AfterArguments,
     {{{7, 9, AnyLater}, {9, 9, AnyLater}}},
     {{Is(4, "TRANSFERPUT", "TRANSFERGET"), Is(5, "BINARY", "ASCII")}}},
    {RequestKind::TransferUpdateGet,
     UserCheck::AfterArguments,
     {{{10, 10, AnyLater}, {12, 10, AnyLater}}},
     {{Is(4, "TRANSFERUPDATEGET"), Is(5, "BINARY")}}},
    {RequestKind::TransferUpdatePut,
     UserCheck::AfterArguments,
     {{{7, 10, AnyLater}, {9, 10, AnyLater}}},
     {{Is(4, "TRANSFERUPDATEPUT"), Is(5, "BINARY")}}},
    {RequestKind::Info, UserCheck::BeforeArguments, {{{4, 1, AnyLater}}}, {{Is(4, "INFO")}}},
    {RequestKind::AllInfo, UserCheck::BeforeArguments, {{{4, 11, AnyLater}}}, {{Is(4, "ALLINFO")}}},
    {RequestKind::State, UserCheck::None, {{{3, 11, AnyLater}}}, {{Is(2, "ID")}}},
    {RequestKind::Kill,
     UserCheck::BeforeArguments,
     {{{5, 1, AnyLater}}},
     {{Is(4, "KILL", "KILLTREE", "FORCEKILL", "FORCEKILLTREE")}}},
}};

/** What matches nothing above: any number of fields, any client. */
constexpr RequestForm UnknownForm = {RequestKind::Unknown, UserCheck::None, {}, {}};

bool Matches(const FieldTest& test, const RequestFields& fields)
{
    if (test.field == 0)
        return true;
    const std::string_view value = fields[test.field];
    // The empty words of the table stand for no word, and an empty field is never one of them.
    const bool found =
        !value.empty() && std::find(test.words.begin(), test.words.end(), value) != test.words.end();
    return found == test.wanted;
}

bool Matches(const RequestForm& form, const RequestFields& fields, int versionIndex)
{
    const auto fits = [&](const FormShape& shape) {
        return shape.fieldCount == fields.count && versionIndex >= shape.smallestIndex &&
               versionIndex <= shape.largestIndex;
    };
    const auto holds = [&](const FieldTest& test) { return Matches(test, fields); };
    return std::any_of(form.shapes.begin(), form.shapes.end(), fits) &&
           std::all_of(form.tests.begin(), form.tests.end(), holds);
}

/** A client of V1.0 to V1.5 that asks for the interactive form, which came later. */
bool IsInteractiveFromOldClient(const RequestFields& fields, int versionIndex)
{
    return fields.count == 7 && versionIndex >= 2 && versionIndex <= 7 && fields[5] == "SOCKET" &&
           Matches(WindowWord, fields) && fields[7] == "INTERACTIVE";
}

} // namespace

std::span<const RequestForm> RequestForms()
{
    return Forms;
}

int VersionIndex(std::string_view head)
{
    const auto* known = std::find_if(KnownClients.begin(), KnownClients.end(),
                                     [&](std::string_view client) { return head.starts_with(client); });
    return known == KnownClients.end() ? 0 : static_cast<int>(known - KnownClients.begin()) + 1;
}

const RequestForm& FormOf(const RequestFields& fields, int versionIndex)
{
    const auto* form = std::find_if(Forms.begin(), Forms.end(), [&](const RequestForm& candidate) {
        return Matches(candidate, fields, versionIndex);
    });
    return form == Forms.end() ? UnknownForm : *form;
}

std::string_view RefusalOfUnknown(const RequestFields& fields, int versionIndex)
{
    if (!fields[1].starts_with("RuvelControl V"))
        return MessageNotRecognized;
    if (IsInteractiveFromOldClient(fields, versionIndex))
        return ClientTooOld;
    return ServerTooOld;
}

bool AsksForSocket(const RequestFields& fields)
{
    return fields[5] == "SOCKET" || fields[5] == "TRUE";
}

} // namespace protocol
