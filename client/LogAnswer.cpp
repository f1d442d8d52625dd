#include "client/LogAnswer.h"

#include "protocol/Texts.h"

namespace
{
/** What a kill's words begin with, up to the number. */
const std::string& KilledLead()
{
    static const std::string lead =
        protocol::CommandKilled("", "").substr(0, std::string_view("->Command N(").size());
    return lead;
}
} // namespace

bool LogAnswer::Feed(std::string_view bytes, std::string& output)
{
    if (hasBegun_)
        return filter_.Feed(bytes, output);
    opening_.append(bytes);
    if (opening_.size() < KilledLead().size())
        return true;
    hasBegun_ = true;
    if (opening_.starts_with(KilledLead()))
        filter_.Feed(protocol::BannerLine, output);
    return filter_.Feed(opening_, output);
}

StreamEnd LogAnswer::Finish(std::string& output)
{
    if (!hasBegun_)
        filter_.Feed(opening_, output);
    return filter_.Finish(output);
}
