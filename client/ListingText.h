#pragma once

#include <string>
#include <vector>

#include "client/Listing.h"

// How a listing is shown; pure.

/** Aligned columns under a heading for each kind of work; lines of at most so many columns, 0 for any. */
std::vector<std::string> FormatListing(const Listing& listing, int columns);
/** One JSON object with all that the listing tells, in ASCII alone. Bytes that are no UTF-8 are replaced. */
std::string FormatListingAsJson(const Listing& listing);
