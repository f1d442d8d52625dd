#pragma once

#include <string_view>

#include "protocol/RequestForms.h"

/** What this client calls itself, and thereby which forms it may use: the newest that servers know. */
inline constexpr std::string_view ClientVersion = protocol::KnownClients.back();
