// The channel's receiver fed arbitrary byte streams by a "helper" on the other end of a socket
// pair: lines, reply data, descriptors (none, one or two per write) and the end of the stream.
// Three commands are running (identifiers 1 to 3) and a caller waits for the first one's
// descriptor; the end of the stream must complete them all.
#include <QZApp/QZAssertionHandler.h>
#include <QZApp/helper/QZHelperTool.h>
#include <QZApp/helper/QZHelperToolTesting.h>

#include <QtMessageHandler>

#include <cstdint>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// A helper may claim the no-reply status; the fuzzed host's handler lets it pass.
struct Quiet : QZAssertionHandler {
    void handleFailureInMethod(const char *, const void *, const char *, int, const QString &) override {}
};

// Writes `length` bytes (if any) with `count` (0 to 2) descriptors in one SCM_RIGHTS message.
void sendChunk(int socket, const uint8_t *bytes, size_t length, size_t count)
{
    int fds[2] = { open("/dev/null", O_RDONLY | O_CLOEXEC), open("/dev/null", O_RDONLY | O_CLOEXEC) };
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof fds)] = {};
    iovec part { const_cast<uint8_t *>(bytes), length };
    msghdr message {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (count > 0) {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(sizeof(int) * count);
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int) * count);
        std::memcpy(CMSG_DATA(rights), fds, sizeof(int) * count);
    }
    if (length > 0)
        sendmsg(socket, &message, MSG_NOSIGNAL);
    for (const int fd : fds)
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

    // The first byte says which of three chunks carry descriptors, the next two where the
    // stream is cut.
    if (size >= 3) {
        const size_t rest = size - 3;
        size_t cuts[4] = { 0, data[1] * rest / 256, data[2] * rest / 256, rest };
        if (cuts[1] > cuts[2])
            std::swap(cuts[1], cuts[2]);
        for (size_t i = 0, kinds = data[0]; i < 3; ++i, kinds /= 3)
            sendChunk(sockets[1], data + 3 + cuts[i], cuts[i + 1] - cuts[i], kinds % 3);
    }
    shutdown(sockets[1], SHUT_WR);

    for (const auto &command : commands)
        if (command->getStatus() == QZHelperCommand::NoReply)
            __builtin_trap();
    if (fetcher.joinable())
        fetcher.join();
    if (fetched >= 0)
        close(fetched);
    tool->terminateHelper();
    close(sockets[1]);
    return 0;
}
