#pragma once

#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "client/Failure.h"
#include "client/Server.h"
#include "client/ServerConnection.h"

/** A field behind version, user and password, with what it is called in a message about it. */
struct RequestField {
    std::string_view value;
    std::string_view name = "request";
};

/**
 * Joins version, user, password and the fields into a request, ended as a request of its length must be.
 * A field with the separator in it cannot be sent and is named.
 */
Failure BuildRequest(const Server& server, std::span<const RequestField> fields, std::string& request);
inline Failure BuildRequest(const Server& server, std::initializer_list<RequestField> fields,
                            std::string& request)
{
    return BuildRequest(server, std::span(fields.begin(), fields.size()), request);
}
/** The same for the one form that carries no user: VERSION|ID|identifier. */
Failure BuildStateRequest(std::string_view identifier, std::string& request);

/** In bytes: a thousand commands with lines as long as a request can have them. */
inline constexpr std::size_t LongestListing = std::size_t{64} << 20;

/** Sends the request on a connection of its own and reads the answer to the end of the stream; one that is
 * longer than the limit is a failure. */
Failure AskServer(const Server& server, std::string_view request, std::string& answer,
                  std::size_t limit = ServerConnection::LongestAnswer);
/** The same for the first line behind the banner, without its lead: what was done, or why not. */
Failure AskForLine(const Server& server, std::string_view request, std::string& line);

/**
 * Takes the banner line off the front of an answer. A failure when it is missing: no RuvelServer spoke.
 * What is left begins with the lines behind it, each with its lead "->".
 */
Failure TakeBanner(const Server& server, std::string_view& answer);
