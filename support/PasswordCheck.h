#pragma once

#include <string_view>

/** Asks the system's password service. Nothing here tells a caller why somebody was refused. */
namespace PasswordCheck
{
/**
 * To be called by the process that forks one worker for each check, before the first: so that each knows how
 * long the others before took, and a check of nobody's password takes no less of the processor than one of
 * somebody's. Without it only the checks of one process know.
 */
void ShareExperience();

/**
 * True when `user` exists, `password` is its password, and the account is valid: neither locked nor expired,
 * no new password due. An empty password is checked like any other and refused all the same. Waits for as
 * long as the service does, but not for its delay after a failure, which is the caller's business. Leaves
 * no copy of the password behind.
 */
bool IsAccepted(std::string_view user, std::string_view password);
} // namespace PasswordCheck
