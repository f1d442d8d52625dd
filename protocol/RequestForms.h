#pragma once

#include <array>
#include <span>
#include <string_view>

#include "protocol/RequestText.h"

namespace protocol
{

/** What a request asks for. */
enum class RequestKind {
    Launch,            // with life time-out
    LaunchPassive,     // the log goes to a host and port of the client's
    LaunchUntimed,     // no life time-out
    LaunchOldest,      // the "CODE" clients' form
    LaunchInteractive, // a shell on the client's socket
    Close,
    Transfer,
    TransferUpdateGet,
    TransferUpdatePut,
    Info,
    AllInfo,
    State, // of one command, by identifier
    Kill,
    Unknown // of no form: answered with what the client should change
};

/** When the requesting user's password is checked. */
enum class UserCheck { None, BeforeArguments, AfterArguments };

/** The heads that a request may start with; the 1-based position is the client's version index. "V1.8"
 * stands behind the two early releases that begin with it, so that every later 1.8 falls on its own. */
inline constexpr std::array<std::string_view, 13> KnownClients = {
    "CODE",
    "RuvelControl V1.0",
    "RuvelControl V1.1",
    "RuvelControl V1.2",
    "RuvelControl V1.3",
    "RuvelControl V1.4",
    "RuvelControl V1.5",
    "RuvelControl V1.6",
    "RuvelControl V1.7",
    "RuvelControl V1.8.0",
    "RuvelControl V1.8.1",
    "RuvelControl V1.8",
    "RuvelControl V1.9",
};

/** A number of fields, and the version indices that may send so many. */
struct FormShape {
    int fieldCount;
    int smallestIndex;
    int largestIndex;
};

/** Field `field` (0: no test) must be one of the words, or, when not `wanted`, none of them. */
struct FieldTest {
    int field = 0;
    bool wanted = true;
    std::array<std::string_view, 4> words{};
};

/** One row of the table of forms: it matches when one shape and all tests do. */
struct RequestForm {
    RequestKind kind;
    UserCheck userCheck;
    std::array<FormShape, 2> shapes;
    std::array<FieldTest, 3> tests;
};

/** All forms, in the order in which they are tried; the first that matches is served. */
std::span<const RequestForm> RequestForms();

/** The 1-based position of the first known client that `head` begins with, 0 when there is none. */
int VersionIndex(std::string_view head);

/** The form of a request. */
const RequestForm& FormOf(const RequestFields& fields, int versionIndex);
/** The kind of a request; pure: it looks at nothing but its arguments. */
inline RequestKind RecognizeRequest(const RequestFields& fields, int versionIndex)
{
    return FormOf(fields, versionIndex).kind;
}

/** What a request of no form is told, behind the banner line. */
std::string_view RefusalOfUnknown(const RequestFields& fields, int versionIndex);

/** True when field 5 says that the client stays attached to the command's socket. */
bool AsksForSocket(const RequestFields& fields);

} // namespace protocol
