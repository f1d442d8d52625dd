#pragma once

#include "support/QORUnicodeString.h"

namespace UserNames
{
/** 1 when both name the same user: domains (up to the first backslash) and case do not count. */
int AreSame(const QORUnicodeString& a, const QORUnicodeString& b);
} // namespace UserNames
