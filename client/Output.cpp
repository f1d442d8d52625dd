#include "client/Output.h"

#include <cerrno>
#include <climits>

#include <poll.h>
#include <unistd.h>

#include "support/WaitForDescriptor.h"

int WriteAll(int descriptor, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count >= 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if (errno == EAGAIN)
            // Whoever takes the output may take as long as they like.
            WaitForDescriptor(descriptor, POLLOUT, DeadlineIn(INT_MAX));
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

int WriteToStandardOutput(std::string_view bytes)
{
    return WriteAll(STDOUT_FILENO, bytes);
}
