// The reference helper, through the library as root and from a child that dropped root (with
// a set-user-id stand-in for pkexec), and by hand over a socket pair: its commands, its answers
// to garbage, and its checks of who runs it and who talks to it.
#include "HelperTestSupport.h"

#include <QZApp/helper/helper_command.h>

#include <acl/libacl.h>
#include <sys/acl.h>

#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>

using qztest::kNobody;

extern "C" int32_t c_echo(const char *text, void **reply, uint32_t *length);

namespace {

QZHelperTool *tool()
{
    return QZHelperTool::sharedInstance();
}

QByteArray encoded(const QString &path)
{
    return QFile::encodeName(path);
}

// A folder that every user may enter, with the tools the tests need.
class Workspace
{
public:
    Workspace()
    {
        chmod(encoded(m_dir.path()).constData(), 0755);
        tool()->setHelperPath(QStringLiteral(QZHELPER_PATH));
    }
    ~Workspace() { tool()->terminateHelper(); }

    QByteArray path(const char *name) const { return encoded(m_dir.filePath(QLatin1String(name))); }
    QByteArray write(const char *name, const QByteArray &text, mode_t mode) const
    {
        QFile file(m_dir.filePath(QLatin1String(name)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
        file.close();
        chmod(path(name).constData(), mode);
        return path(name);
    }
    // A copy of the helper and, beside it, a set-user-id root launcher that runs it as root.
    QByteArray installLauncher() const
    {
        const QByteArray helper = path("qzhelper"), launcher = path("launcher");
        EXPECT_TRUE(QFile::copy(QStringLiteral(QZHELPER_PATH), QFile::decodeName(helper)));
        EXPECT_TRUE(QFile::copy(QStringLiteral(ROOT_LAUNCHER_PATH), QFile::decodeName(launcher)));
        chmod(helper.constData(), 0755);
        chmod(launcher.constData(), 04755);
        return launcher;
    }

private:
    QTemporaryDir m_dir;
};

QString aclText(const QByteArray &path)
{
    acl_t acl = acl_get_file(path.constData(), ACL_TYPE_ACCESS);
    if (!acl)
        return QString();
    char *text = acl_to_any_text(acl, nullptr, ',', TEXT_NUMERIC_IDS);
    const QString result = QString::fromUtf8(text);
    acl_free(text);
    acl_free(acl);
    return result;
}

int32_t perform(std::initializer_list<const char *> arguments)
{
    helper_command command {};
    command.argc = static_cast<int32_t>(arguments.size());
    command.argv = arguments.begin();
    return perform_helper_command(&command);
}

TEST(ReferenceHelper, ChownAndUnlinkNeverFollowAFinalLink)
{
    Workspace workspace;
    const QByteArray file = workspace.write("file", "text", 0644);
    const QByteArray link = workspace.path("link");
    ASSERT_EQ(symlink(file.constData(), link.constData()), 0);

    EXPECT_EQ(auth_chown(file.constData(), kNobody, kNobody), 0);
    EXPECT_EQ(auth_chown(link.constData(), 1, 2), 0);
    struct stat st;
    ASSERT_EQ(stat(file.constData(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobody);
    EXPECT_EQ(st.st_gid, kNobody);
    ASSERT_EQ(lstat(link.constData(), &st), 0);
    EXPECT_EQ(st.st_uid, 1u);
    EXPECT_EQ(st.st_gid, 2u);

    EXPECT_EQ(auth_unlink(link.constData()), 0);
    EXPECT_EQ(lstat(link.constData(), &st), -1);
    EXPECT_EQ(stat(file.constData(), &st), 0);
    EXPECT_EQ(auth_unlink(link.constData()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(auth_chown(link.constData(), 0, 0), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(ReferenceHelper, UnknownWordsAndMalformedArgumentsGiveEinvalAndServingGoesOn)
{
    Workspace workspace;
    const QByteArray file = workspace.write("file", "text", 0644);
    EXPECT_EQ(perform({ "format", "/" }), EINVAL);
    EXPECT_EQ(perform({}), EINVAL);
    EXPECT_EQ(perform({ "unlink" }), EINVAL);
    EXPECT_EQ(perform({ "unlink", file.constData(), "extra" }), EINVAL);
    EXPECT_EQ(perform({ "chown", file.constData(), "abc", "0" }), EINVAL);
    EXPECT_EQ(perform({ "chown", file.constData(), "-1", "0" }), EINVAL);
    EXPECT_EQ(perform({ "access", file.constData(), "zz", "0", "2" }), EINVAL);
    EXPECT_EQ(perform({ "access", file.constData(), "0", "0", "3" }), EINVAL);
    EXPECT_EQ(perform({ "authorise", file.constData(), "8", "1" }), EINVAL);
    EXPECT_EQ(perform({ "authorise_global", file.constData(), "x" }), EINVAL);
    EXPECT_EQ(perform({ "revoke", file.constData(), "1" }), EINVAL);   // the number comes first
    EXPECT_EQ(auth_unlink(file.constData()), 0);
}

TEST(ReferenceHelper, AccessControlListsGrantAndRevoke)
{
    Workspace workspace;
    const QByteArray file = workspace.write("file", "text", 0600);
    const QByteArray link = workspace.path("link");
    ASSERT_EQ(symlink(file.constData(), link.constData()), 0);

    EXPECT_EQ(authorise_access(file.constData(), 4, kNobody), 0);
    EXPECT_EQ(authorise_access(file.constData(), 2, kNobody), 0);   // grants add up
    EXPECT_EQ(aclText(file), QStringLiteral("user::rw-,user:65534:rw-,group::---,mask::rw-,other::---"));
    EXPECT_EQ(qztest::runAsNobody([&] { return open(file.constData(), O_RDWR) >= 0 ? 0 : 1; }), 0);

    EXPECT_EQ(authorise_global(file.constData(), 4), 0);
    EXPECT_EQ(aclText(file), QStringLiteral("user::rw-,user:65534:rw-,group::---,mask::rw-,other::r--"));

    EXPECT_EQ(revoke_access(file.constData(), kNobody), 0);
    EXPECT_EQ(aclText(file), QStringLiteral("user::rw-,group::---,other::r--"));
    EXPECT_EQ(qztest::runAsNobody([&] { return open(file.constData(), O_RDWR) < 0 && errno == EACCES ? 0 : 1; }), 0);
    EXPECT_EQ(revoke_access(file.constData(), kNobody), 0);   // nothing left to revoke

    EXPECT_EQ(authorise_access(link.constData(), 4, kNobody), ELOOP);
    EXPECT_EQ(authorise_global(workspace.path("missing").constData(), 4), ENOENT);
}

TEST(ReferenceHelper, EchoReturnsTheRequestData)
{
    Workspace workspace;
    for (const qsizetype size : { qsizetype(1), qsizetype(5000), qsizetype(3 * 1024 * 1024) }) {
        const auto command = QZHelperCommand::commandWithString(QStringLiteral("echo"));
        QByteArray data(size, '\0');
        for (qsizetype i = 0; i < size; ++i)
            data[i] = static_cast<char>(i * 7);
        command->setCommandData(data);
        ASSERT_TRUE(tool()->issue(command));
        EXPECT_EQ(command->getStatus(), 0);
        EXPECT_EQ(command->data(), data);
    }
    void *reply = nullptr;   // and from C, with a record filled by hand
    uint32_t length = 0;
    EXPECT_EQ(c_echo("from C", &reply, &length), 0);
    EXPECT_EQ(QByteArray(static_cast<const char *>(reply), length), QByteArray("from C"));
    std::free(reply);
}

// The deployment shape: a client without privileges, a launcher that runs the helper as root.
TEST(ReferenceHelper, OpensWhatTheCallerCannotAndCreatesFilesForWhomItIsAsked)
{
    Workspace workspace;
    const QByteArray launcher = workspace.installLauncher();
    const QByteArray secret = workspace.write("secret", "for root only", 0600);
    const QByteArray closed = workspace.path("closed");
    ASSERT_EQ(mkdir(closed.constData(), 0755), 0);
    const QByteArray mine = closed + "/mine", roots = closed + "/roots", doomed = closed + "/doomed";
    workspace.write("closed/doomed", "", 0644);

    const int result = qztest::runAsNobody([&] {
        tool()->setHelperPath(QFile::decodeName(launcher));
        int fd = auth_open(secret.constData(), O_RDONLY);
        char text[32] = {};
        if (fd < 0 || read(fd, text, sizeof text) != 13 || std::strcmp(text, "for root only") != 0)
            return 10;
        close(fd);
        fd = auth_open(mine.constData(), O_CREAT | O_WRONLY | AUTH_O_CALLER_OWNS, 0640);
        if (fd < 0 || write(fd, "mine", 4) != 4 || close(fd) != 0)
            return 11;
        fd = auth_open(roots.constData(), O_CREAT | O_WRONLY, 0640);
        if (fd < 0 || close(fd) != 0)
            return 12;
        if (auth_unlink(doomed.constData()) != 0)
            return 13;
        tool()->terminateHelper();
        return 0;
    });
    EXPECT_EQ(result, 0);
    struct stat st;
    ASSERT_EQ(stat(mine.constData(), &st), 0);
    EXPECT_EQ(st.st_uid, kNobody);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_size, 4);
    ASSERT_EQ(stat(roots.constData(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(stat(doomed.constData(), &st), -1);
}

// A helper started by hand on a socket pair, its standard error on a pipe.
class SpawnedHelper
{
public:
    explicit SpawnedHelper(const QByteArray &program, const std::function<void()> &inChild = {})
    {
        int sockets[2], errors[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets), 0);
        EXPECT_EQ(pipe2(errors, O_CLOEXEC), 0);
        m_pid = fork();
        if (m_pid == 0) {
            dup2(sockets[1], 0);
            dup2(sockets[1], 1);
            dup2(errors[1], 2);
            if (inChild)
                inChild();
            execl(program.constData(), program.constData(), static_cast<char *>(nullptr));
            _exit(127);
        }
        close(sockets[1]);
        close(errors[1]);
        m_socket = sockets[0];
        m_errors = errors[0];
    }
    ~SpawnedHelper()
    {
        close(m_socket);
        close(m_errors);
    }
    Q_DISABLE_COPY_MOVE(SpawnedHelper)

    void send(const QByteArray &bytes) { EXPECT_EQ(::send(m_socket, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL), bytes.size()); }
    void endInput() { shutdown(m_socket, SHUT_WR); }
    // Everything the helper writes until it ends its output; passed descriptors go to `fds`.
    QByteArray output(std::vector<int> *fds = nullptr)
    {
        QByteArray bytes;
        for (;;) {
            char buffer[4096];
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
            iovec part { buffer, sizeof buffer };
            msghdr message {};
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            const ssize_t got = recvmsg(m_socket, &message, MSG_CMSG_CLOEXEC);
            if (got <= 0)
                return bytes;
            for (cmsghdr *c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
                int fd;
                std::memcpy(&fd, CMSG_DATA(c), sizeof fd);
                if (fds)
                    fds->push_back(fd);
                else
                    close(fd);
            }
            bytes.append(buffer, got);
        }
    }
    QByteArray errors()
    {
        QByteArray bytes;
        char buffer[4096];
        ssize_t got;
        while ((got = read(m_errors, buffer, sizeof buffer)) > 0)
            bytes.append(buffer, got);
        return bytes;
    }
    int exitStatus()
    {
        int status = 0;
        if (waitpid(m_pid, &status, 0) != m_pid)
            return -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t m_pid = -1;
    int m_socket = -1;
    int m_errors = -1;
};

TEST(ReferenceHelper, AnswersGarbageAndKeepsServing)
{
    Workspace workspace;
    const QByteArray file = workspace.write("file", "offered", 0644);
    SpawnedHelper helper(QZHELPER_PATH);
    helper.send(QZAuthorization::create()->externalForm());
    helper.send("hello there\n"
                "5\n"
                "6 bogus\n"
                "7 unlink a\\\n"
                "8+3 echo\nabc"
                "9 GET_FD\n"
                "10 ABORT\n"
                "11 access " + file + " 0 0 2\n"
                "11 ABORT\n"
                "11 GET_FD\n"
                "12 access " + file + " 0 0 2 \"\"\n"
                "12 GET_FD\n"
                "13 " + QByteArray(70000, 'x') + "\n"
                "14+5 unlink\n12345"
                "\n"
                "15 echo\n");
    helper.endInput();
    std::vector<int> fds;
    EXPECT_EQ(helper.output(&fds).toStdString(), "5 REPLY 22 0\n6 REPLY 22 0\n7 REPLY 22 0\n8 REPLY 0 3\nabc"
                                                 "11 REPLY 0 -1\n12 REPLY 0 -1\n\n13 REPLY 7 0\n14 REPLY 22 0\n"
                                                 "15 REPLY 0 0\n");
    ASSERT_EQ(fds.size(), 1u);
    char text[16] = {};
    EXPECT_EQ(read(fds[0], text, sizeof text), 7);
    EXPECT_STREQ(text, "offered");
    close(fds[0]);
    EXPECT_EQ(helper.exitStatus(), 0);
    const QByteArray errors = helper.errors();
    EXPECT_TRUE(errors.contains("qzhelper: request without an identifier: hello there\n")) << errors.toStdString();
    EXPECT_TRUE(errors.contains("qzhelper: malformed request: 5\n")) << errors.toStdString();
    EXPECT_TRUE(errors.contains("qzhelper: malformed command: unlink a\\\n")) << errors.toStdString();
    EXPECT_TRUE(errors.contains("qzhelper: command 9 offers no descriptor\n")) << errors.toStdString();
    EXPECT_TRUE(errors.contains("qzhelper: command 11 offers no descriptor\n")) << errors.toStdString();
}

TEST(ReferenceHelper, RefusesAClientWhoseBlockNamesAnotherProcess)
{
    const std::shared_ptr<QZAuthorization> authorization = QZAuthorization::create();
    helper_authorization form;
    ASSERT_EQ(authorization->makeExternalForm(&form), 0);
    helper_authorization otherProcess = form, otherStart = form;
    otherProcess.pid += 1;
    otherStart.start_time += 1;
    for (const helper_authorization &block : { otherProcess, otherStart }) {
        SpawnedHelper helper(QZHELPER_PATH);
        helper.send(QByteArray(reinterpret_cast<const char *>(&block), sizeof block) + "1 echo\n");
        EXPECT_EQ(helper.output(), QByteArray());
        EXPECT_EQ(helper.exitStatus(), 1);
        EXPECT_TRUE(helper.errors().startsWith("qzhelper: authorization block "));
    }
}

TEST(ReferenceHelper, RefusesToRunSetUserId)
{
    Workspace workspace;
    const QByteArray copy = workspace.path("setuid-helper");
    ASSERT_TRUE(QFile::copy(QStringLiteral(QZHELPER_PATH), QFile::decodeName(copy)));
    ASSERT_EQ(chmod(copy.constData(), 04755), 0);
    SpawnedHelper helper(copy, [] {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)
            _exit(120);
    });
    EXPECT_EQ(helper.exitStatus(), 1);
    EXPECT_TRUE(helper.errors().startsWith("qzhelper: will not run set-user-id or set-group-id (real user 65534, "
                                           "effective user 0)"));
}

} // namespace
