// Small socket utilities of the helper channel.
#pragma once

#include <cstddef>
#include <initializer_list>

#include <sys/socket.h>

namespace QZHelperSocket {

// A run of bytes to send.
struct Bytes {
    const char *bytes;
    size_t length;
};

// Writes all of the given runs of bytes (at most four), in order, in as few system calls as the
// socket allows. Retries on EINTR; a dead peer gives false (EPIPE), never SIGPIPE.
bool sendAll(int socket, std::initializer_list<Bytes> runs);

// Closes every descriptor that the control message `message` carries (SCM_RIGHTS); ignores any
// other kind of message.
void closeDescriptorsIn(const cmsghdr *message);

} // namespace QZHelperSocket
