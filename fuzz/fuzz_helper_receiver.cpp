// The channel's receiver fed arbitrary byte streams by a "helper" on the other end of a socket
// pair: lines, reply data, descriptors (one, two, or none per write) and the end of the stream.
// Three commands are running (identifiers 1 to 3) and one caller waits for a descriptor.
#include <QZApp/QZAssertionHandler.h>
#include <QZApp/helper/QZHelperTool.h>
#include <QZApp/helper/QZHelperTool_p.h>

#include <QtMessageHandler>

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A helper may claim the no-reply status; the fuzzed host's handler logs and lets it pass.
struct Quiet : QZAssertionHandler {
    void handleFailureInMethod(const char *, const void *, const char *, int, const QString &) override {}
};

void sendChunk(int socket, const uint8_t *bytes, size_t length, int descriptors)
{
    if (length == 0)
        return;
    iovec part { const_cast<uint8_t *>(bytes), length };
    msghdr message {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))] = {};
    int fds[2] = { -1, -1 };
    if (descriptors > 0) {
        for (int i = 0; i < descriptors; ++i)
            fds[i] = open("/dev/null", O_RDONLY | O_CLOEXEC);
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(sizeof(int) * static_cast<size_t>(descriptors));
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int) * static_cast<size_t>(descriptors));
        std::memcpy(CMSG_DATA(rights), fds, sizeof(int) * static_cast<size_t>(descriptors));
    }
    sendmsg(socket, &message, MSG_NOSIGNAL);
    for (int fd : fds)
        if (fd >= 0)
            close(fd);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    QZHelperToolTesting::setReceiverThreadHook([] {
        static Quiet quiet;
        QZAssertionHandler::setCurrentHandler(&quiet);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QZHelperTool *tool = QZHelperTool::sharedInstance();
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        return 0;
    QZHelperToolTesting::setLastCommandID(tool, 0);
    QZHelperToolTesting::adoptConnection(tool, sockets[0]);

    std::vector<std::shared_ptr<QZHelperCommand>> commands;
    for (const char *text : { "first", "second", "third" })
        if (auto command = tool->issueCommand(QString::fromLatin1(text)))
            commands.push_back(command);
    int fetched = -1;
    std::thread fetcher;
    if (!commands.empty())
        fetcher = std::thread([&] { fetched = tool->getFileDescriptorForCommand(commands.front()); });

    // The first byte says which of up to three chunks carry descriptors; the next two where
    // the stream is cut.
    if (size >= 3) {
        const size_t rest = size - 3;
        size_t cuts[2] = { data[1] * rest / 256, data[2] * rest / 256 };
        if (cuts[0] > cuts[1])
            std::swap(cuts[0], cuts[1]);
        const uint8_t *body = data + 3;
        sendChunk(sockets[1], body, cuts[0], data[0] % 3);
        sendChunk(sockets[1], body + cuts[0], cuts[1] - cuts[0], (data[0] / 3) % 3);
        sendChunk(sockets[1], body + cuts[1], rest - cuts[1], (data[0] / 9) % 3);
    } else {
        sendChunk(sockets[1], data, size, 0);
    }
    shutdown(sockets[1], SHUT_WR);

    for (const auto &command : commands) {
        command->getStatus();
        if (command->status() == QZHelperCommand::NoReply)
            __builtin_trap();   // the end of the stream completes every command
    }
    if (fetcher.joinable())
        fetcher.join();
    if (fetched >= 0)
        close(fetched);
    tool->terminateHelper();
    close(sockets[1]);
    return 0;
}
