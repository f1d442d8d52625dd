#pragma once

#include <string_view>

#include "client/Failure.h"
#include "client/Server.h"

/**
 * What a line means by which the server says why it does not do as asked: a sentence with the cause and the
 * next step, above the server's own words. `line` is without newline; a lead "->" is dropped.
 */
Failure ExplainRefusal(const Server& server, std::string_view line);

/** What answers there speaks another protocol. */
Failure NoServerThere(const Server& server);

/** True when the answer's line refuses the user or the password. */
bool IsUserRefusal(std::string_view line);
