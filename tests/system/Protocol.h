#pragma once

#include <string>
#include <string_view>
#include <vector>

// The texts of the protocol as a client knows them, written down a second time on purpose: the tests compare
// bytes with these and never with the daemon's own constants.

constexpr const char* BannerLine = "->RuvelServer V1.8.3 January 27, 2005 (Unix)\n";
constexpr const char* Newest = "RuvelControl V1.9";
constexpr const char* BadParameters = "->RuvelServer V1.8.3 January 27, 2005 (Unix)\n"
                                      "->Error bad parameters\n"
                                      "->ProcessReturnCode = NoThing\n";

/** The name of the account that the tests run under, its number when it has no name. */
std::string OwnUser();

/** The fields of a request, joined. */
std::string Join(const std::vector<std::string>& fields);

/** Who asks; the tests' own user without more said. */
struct Credentials {
    std::string user = OwnUser();
    std::string password = "secret";
};

/** A launch by the newest client. `mode` is SOCKET or NOSOCKET. */
std::string Launch(std::string_view mode, std::string_view command, std::string_view lifeTimeOut = "0",
                   const Credentials& who = {});
/** A launch whose log is delivered to a port of this machine. */
std::string PassiveLaunch(std::string_view command, int port, std::string_view lifeTimeOut = "0",
                          const Credentials& who = {});
/** A request of the newest client that is only a keyword, such as INFO or "KILL|0". */
std::string Keyword(std::string_view keyword, const Credentials& who = {});

std::string ReturnLine(int code);
/** The whole answer to a launch: banner, output, return line. */
std::string Finished(std::string_view output, int code);
