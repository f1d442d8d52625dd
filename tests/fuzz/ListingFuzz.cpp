// The client's reading of a listing, and what it shows of it: nothing that the server or its users have
// written may reach the terminal as anything but text.

#include <algorithm>

#include "client/Listing.h"
#include "client/ListingText.h"
#include "tests/fuzz/Fuzz.h"

namespace
{
bool HoldsControl(const std::string& line)
{
    return std::any_of(line.begin(), line.end(),
                       [](char character) { return static_cast<unsigned char>(character) < ' '; });
}
} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto [choice, text] = TakeChoice(data, size);
    const auto listing = ParseListing(text);
    if (!listing)
        return 0;
    for (const int columns : {0, static_cast<int>(choice)})
        for (const std::string& line : FormatListing(*listing, columns))
            Require(!HoldsControl(line) && line.find('\x7F') == std::string::npos,
                    "a shown line holds nothing but text");
    std::string json = FormatListingAsJson(*listing);
    std::erase(json, '\n');
    Require(!HoldsControl(json), "JSON shows control characters by their numbers");
    return 0;
}
