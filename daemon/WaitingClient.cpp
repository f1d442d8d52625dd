#include "daemon/WaitingClient.h"

#include <utility>

std::size_t WaitingClient::HeldBytes() const
{
    std::size_t bytes = text.Size();
    for (const QORUnicodeString* kept :
         {&launch.command, &launch.user, &launch.socketFlag, &launch.passiveHost, &transfer.user,
          &transfer.remoteFile, &transfer.passiveHost})
        bytes += kept->View().size();
    return bytes;
}

/** Kind, version and the arguments of a transfer stay. */
void WaitingClient::DropRequest()
{
    fields = protocol::RequestFields();
    text.KeepFields(0);
    const LaunchArguments dropped = std::move(launch); // an assignment would keep the strings' memory
}
