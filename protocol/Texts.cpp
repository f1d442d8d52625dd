#include "protocol/Texts.h"

namespace protocol
{

std::string ReturnCodeLine(int code)
{
    return std::string(ReturnCodeLead).append(std::to_string(code)).append("\n");
}

std::string NotOwner(std::string_view owner, std::string_view user)
{
    return std::string("Error not owner : ").append(owner).append(" : ").append(user);
}

std::string TransferTerminated(std::string_view number, std::string_view user)
{
    return std::string("->File transfer N(")
        .append(number)
        .append("), terminated by user (")
        .append(user)
        .append(")\n")
        .append(ReturnCodeLead);
}

std::string CommandKilled(std::string_view number, std::string_view words)
{
    return std::string("->Command N(").append(number).append(words).append("\n").append(ReturnCodeLead);
}

} // namespace protocol
