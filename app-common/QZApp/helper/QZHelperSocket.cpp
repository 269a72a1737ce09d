#include "QZHelperSocket_p.h"

#include <cerrno>
#include <cstring>
#include <iterator>

#include <sys/uio.h>
#include <unistd.h>

namespace QZHelperSocket {

bool sendAll(int socket, std::initializer_list<Bytes> runs)
{
    iovec parts[4];
    if (runs.size() > std::size(parts))
        return false;
    msghdr message {};
    message.msg_iov = parts;
    for (const Bytes &run : runs) {
        if (run.length != 0)
            parts[message.msg_iovlen++] = { const_cast<char *>(run.bytes), run.length };
    }
    while (message.msg_iovlen > 0) {
        const ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return false;
        auto left = static_cast<size_t>(sent);
        while (message.msg_iovlen > 0 && left >= message.msg_iov->iov_len) {
            left -= message.msg_iov->iov_len;
            ++message.msg_iov;
            --message.msg_iovlen;
        }
        if (message.msg_iovlen > 0) {
            message.msg_iov->iov_base = static_cast<char *>(message.msg_iov->iov_base) + left;
            message.msg_iov->iov_len -= left;
        }
    }
    return true;
}

void closeDescriptorsIn(const cmsghdr *message)
{
    if (message->cmsg_level != SOL_SOCKET || message->cmsg_type != SCM_RIGHTS)
        return;
    const size_t count = (message->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
        int fd;
        std::memcpy(&fd, CMSG_DATA(message) + i * sizeof(int), sizeof fd);
        close(fd);
    }
}

} // namespace QZHelperSocket
