#pragma once

#include "client/Server.h"
#include "client/StreamFilter.h"

/**
 * What the end of an answer to a launch means for our own exit code, said on standard error where the code
 * alone does not tell.
 */
int ConcludeLaunch(const StreamEnd& end, const Server& server);
