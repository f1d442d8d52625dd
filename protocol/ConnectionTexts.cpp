#include "protocol/ConnectionTexts.h"

#include "protocol/Concatenate.h"

std::string protocol::CommandIdentifier(std::string_view host, int port, int number, std::string_view user,
                                        std::string_view beginDate)
{
    return Concatenate({"HOST(", host, "), PORT(", std::to_string(port), "), N(", std::to_string(number),
                        "), UID(", user, "), BDATE(", beginDate, ")"});
}

std::string protocol::CommandAttributes(int number, unsigned long processId, std::string_view user,
                                        std::string_view beginDate, std::string_view command)
{
    return Concatenate({"N(", std::to_string(number), "), PID(", std::to_string(processId), "), UID(", user,
                        "), BDATE(", beginDate, "), CMD(", command, ")"});
}

std::string protocol::ReturnCodeAttribute(int code)
{
    return Concatenate({", RC(", std::to_string(code), ")"});
}

std::string protocol::StatusAttribute(std::string_view status)
{
    return Concatenate({", STATUS(", status, ")"});
}
