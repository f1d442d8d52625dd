#include "daemon/TransferArguments.h"

using protocol::RequestFields;
using protocol::RequestKind;

namespace
{

bool ReadLifeTimeOut(std::string_view field, TransferArguments& arguments)
{
    return QORUnicodeString(field).ConvertToNum(&arguments.lifeTimeOut, "%ld") && arguments.lifeTimeOut >= 0;
}

/** Host and port, both of which must be there. */
bool ReadPassiveAddress(std::string_view host, std::string_view port, TransferArguments& arguments)
{
    arguments.passive = true;
    arguments.passiveHost = QORUnicodeString(host);
    return !host.empty() && QORUnicodeString(port).ConvertToNum(&arguments.passivePort, "%d");
}

/** What the client of an update get has of the file already. */
bool ReadPartialCopy(const RequestFields& fields, TransferArguments& arguments)
{
    return QORUnicodeString(fields[8]).ConvertToNum(&arguments.updateSize, "%lld") &&
           arguments.updateSize >= 0 &&
           QORUnicodeString(fields[9]).ConvertToNum(&arguments.headCheckSum, "%u") &&
           QORUnicodeString(fields[10]).ConvertToNum(&arguments.bodyCheckSum, "%u");
}

} // namespace

std::optional<TransferArguments> ReadTransferArguments(RequestKind kind, const RequestFields& fields)
{
    TransferArguments arguments;
    arguments.user = QORUnicodeString(fields[2]);
    arguments.get = fields[4].ends_with("GET");
    arguments.ascii = fields[5] == "ASCII";
    arguments.update = kind != RequestKind::Transfer;
    arguments.remoteFile = QORUnicodeString(fields[6]);
    bool good = ReadLifeTimeOut(fields[7], arguments);
    if (kind == RequestKind::TransferUpdateGet) {
        good = good && ReadPartialCopy(fields, arguments);
        if (fields.count == 12)
            good = good && ReadPassiveAddress(fields[11], fields[12], arguments);
    } else if (fields.count == 9) {
        good = good && ReadPassiveAddress(fields[8], fields[9], arguments);
    }
    if (!good)
        return std::nullopt;
    return arguments;
}
