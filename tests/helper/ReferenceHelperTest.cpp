// The reference helper, through the library as root and by hand over a socket pair: its
// commands, its answers to garbage, and its checks of who runs it and who talks to it.
// (HelperAttackTest.cpp drives it for clients that dropped root, QzutilTest.cpp through qzutil.)
#include "HelperTestSupport.h"
#include "PolkitEnvironment.h"

#include <QZApp/helper/helper_command.h>

#include <QProcess>

#include <sys/prctl.h>
#include <sys/socket.h>

using qztest::aclText;
using qztest::kNobody;
using qztest::tool;

namespace {

// A folder for the test; the library uses the reference helper meanwhile.
struct Workspace : qztest::Folder {
    Workspace() { tool()->setHelperPath(QStringLiteral(QZHELPER_PATH)); }
    ~Workspace() { tool()->terminateHelper(); }
};

TEST(ReferenceHelper, AccessControlListsGrantAndRevoke)
{
    Workspace workspace;
    const QByteArray file = workspace.write("file", "text", 0600);
    const QByteArray link = workspace.path("link");
    ASSERT_EQ(symlink(file.constData(), link.constData()), 0);
    EXPECT_EQ(authorise_access(file.constData(), 4, kNobody), 0);
    EXPECT_EQ(authorise_access(file.constData(), 2, kNobody), 0);   // grants add up
    EXPECT_EQ(aclText(file), QByteArray("user::rw-,user:65534:rw-,group::---,mask::rw-,other::---"));
    EXPECT_EQ(authorise_global(file.constData(), 4), 0);
    EXPECT_EQ(aclText(file), QByteArray("user::rw-,user:65534:rw-,group::---,mask::rw-,other::r--"));
    EXPECT_EQ(revoke_access(file.constData(), kNobody), 0);
    EXPECT_EQ(aclText(file), QByteArray("user::rw-,group::---,other::r--"));
    EXPECT_EQ(revoke_access(file.constData(), kNobody), 0);   // nothing left to revoke
    EXPECT_EQ(authorise_access(link.constData(), 4, kNobody), ELOOP);
    EXPECT_EQ(authorise_global(workspace.path("missing").constData(), 4), ENOENT);
}

// An offered descriptor can be fetched again (each fetch a new descriptor for the same open
// file) until the client aborts the command; then the helper closes its copy.
TEST(ReferenceHelper, OffersADescriptorUntilTheCommandIsAborted)
{
    Workspace workspace;
    const QByteArray file = workspace.write("file", "text", 0600);
    ASSERT_EQ(tool()->performCommand(QStringLiteral("echo")), 0);
    const pid_t helper = QZHelperToolTesting::helperProcessID(tool());
    ASSERT_GT(helper, 0);
    const auto helperDescriptors = [helper] {
        return QDir(QStringLiteral("/proc/%1/fd").arg(helper)).entryList(QDir::Files | QDir::System).size();
    };
    const qsizetype before = helperDescriptors();
    const auto command = tool()->issueCommand(QStringLiteral("access ") + QFile::decodeName(file) + QStringLiteral(" 0 0 2"));
    ASSERT_TRUE(command);
    ASSERT_EQ(command->getStatus(), 0);
    const int first = command->getFileDescriptor(), second = command->getFileDescriptor();
    ASSERT_TRUE(first >= 0 && second >= 0 && first != second) << first << " " << second;
    EXPECT_TRUE(command->fileDescriptorAvailable());
    char text[4] = {};
    EXPECT_EQ(read(first, text, sizeof text), 4);   // one open file: the second reads on from there
    EXPECT_EQ(lseek(second, 0, SEEK_CUR), 4);
    EXPECT_EQ(pread(second, text, sizeof text, 0), 4);
    EXPECT_EQ(QByteArray(text, 4), "text");
    close(first);
    close(second);
    EXPECT_EQ(helperDescriptors(), before + 1);
    command->abort();
    ASSERT_EQ(tool()->performCommand(QStringLiteral("echo")), 0);   // served after the abort
    EXPECT_EQ(helperDescriptors(), before);
}

// What a helper program run by hand did with `input` on one end of a socket pair, then the end of
// its input: output (passed descriptors dropped), standard error and exit status. `inChild` runs
// in the child before the program starts.
struct HelperRun { QByteArray output, errors; int status = -1; };
HelperRun runHelper(const QByteArray &program, const QByteArray &input, void (*inChild)() = nullptr)
{
    HelperRun run;
    int sockets[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0)
        return run;
    QProcess process;
    process.setChildProcessModifier([&] {
        dup2(sockets[1], 0);
        dup2(sockets[1], 1);
        if (inChild)
            inChild();
    });
    process.start(QFile::decodeName(program), {});
    close(sockets[1]);
    if (!input.isEmpty()) {   // a helper that refuses to run may be gone already
        EXPECT_EQ(send(sockets[0], input.constData(), static_cast<size_t>(input.size()), MSG_NOSIGNAL), input.size());
    }
    shutdown(sockets[0], SHUT_WR);
    char buffer[4096];
    for (ssize_t got; (got = recv(sockets[0], buffer, sizeof buffer, 0)) > 0;)
        run.output.append(buffer, got);
    close(sockets[0]);
    EXPECT_TRUE(process.waitForFinished());
    run.errors = process.readAllStandardError();
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return run;
}

// Every request with an identifier gets exactly one reply; lines without one are logged.
TEST(ReferenceHelper, AnswersEveryRequestOnceAndKeepsServing)
{
    Workspace workspace;
    const QByteArray file = workspace.write("file", "", 0644);
    const std::pair<QByteArray, QByteArray> exchanges[] = {
        { "hello there\n\n", "" },
        { "5\n", "5 REPLY 22 0\n" },
        { "6 unlink a\\\n", "6 REPLY 22 0\n" },
        { "7+3 echo\nabc", "7 REPLY 0 3\nabc" },
        { "10 access " + file + " 0 0 2\n10 ABORT\n10 GET_FD\n", "10 REPLY 0 -1\n" },
        { "11 access " + file + " 0 0 2 \"\"\n11 GET_FD\n", "11 REPLY 0 -1\n\n" },
        { "12 " + QByteArray(70000, 'x') + "\n", "12 REPLY 7 0\n" },
        { "13+5 unlink\n12345", "13 REPLY 22 0\n" },
        { "14 \n", "14 REPLY 22 0\n" },
        { "15 format /\n", "15 REPLY 22 0\n" },
        { "16 unlink " + file + " extra\n", "16 REPLY 22 0\n" },
        { "17 chown " + file + " -1 0\n", "17 REPLY 22 0\n" },
        { "18 access " + file + " 0 0 3\n", "18 REPLY 22 0\n" },
        { "19 revoke " + file + " 1\n", "19 REPLY 22 0\n" },   // the number comes first
        { "20 echo\n", "20 REPLY 0 0\n" },
    };
    QByteArray input = QZAuthorization::create()->externalForm(), expected;
    for (const auto &[request, answer] : exchanges) {
        input += request;
        expected += answer;
    }
    const HelperRun run = runHelper(QZHELPER_PATH, input);
    EXPECT_EQ(run.output.toStdString(), expected.toStdString());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.errors.toStdString(), "qzhelper: request without an identifier: hello there\n"
                                        "qzhelper: malformed request: 5\n"
                                        "qzhelper: malformed command: unlink a\\\n"
                                        "qzhelper: command 10 offers no descriptor\n");
}

// It refuses a client whose block names another process or start time, and to run set-user-id.
TEST(ReferenceHelper, RefusesOtherClientsAndToRunSetUserId)
{
    helper_authorization form;
    ASSERT_EQ(QZAuthorization::create()->makeExternalForm(&form), 0);
    helper_authorization otherProcess = form, otherStart = form;
    otherProcess.pid += 1;
    otherStart.start_time += 1;
    for (const helper_authorization &block : { otherProcess, otherStart }) {
        const HelperRun run = runHelper(QZHELPER_PATH, QByteArray(reinterpret_cast<const char *>(&block), sizeof block) + "1 echo\n");
        EXPECT_EQ(run.output, QByteArray());
        EXPECT_EQ(run.status, 1);
        EXPECT_TRUE(run.errors.startsWith("qzhelper: authorization block ")) << run.errors.toStdString();
    }
    // Set-user-id only where nobody else can replace it.
    const qztest::SafeLauncherFolder folder;
    ASSERT_EQ(folder.failure(), QByteArray());
    const QByteArray copy = qztest::SafeLauncherFolder::folder() + "/setuid-helper";
    ASSERT_TRUE(QFile::copy(QStringLiteral(QZHELPER_PATH), QFile::decodeName(copy)));
    ASSERT_EQ(chmod(copy.constData(), 04755), 0);
    const HelperRun run = runHelper(copy, QByteArray(), [] {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)
            _exit(120);
    });
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.errors.startsWith("qzhelper: will not run set-user-id or set-group-id (real user 65534, "
                                      "effective user 0)")) << run.errors.toStdString();
}

// The library and the helper read a start time alike, also behind a command name with blanks
// and parentheses; a process that is gone has none.
TEST(ReferenceHelper, ServesAClientWhoseNameHoldsBlanksAndParentheses)
{
    char name[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, name), 0);
    const quint64 started = QZAuthorization::processStartTime(getpid());
    ASSERT_EQ(prctl(PR_SET_NAME, "a) 1 2 (b) c"), 0);
    const auto authorization = QZAuthorization::create();
    const HelperRun run = authorization ? runHelper(QZHELPER_PATH, authorization->externalForm() + "1 echo\n") : HelperRun {};
    prctl(PR_SET_NAME, name);
    ASSERT_NE(authorization, nullptr);
    EXPECT_EQ(authorization->startTime(), started);
    EXPECT_EQ(run.output, "1 REPLY 0 0\n");
    EXPECT_EQ(run.errors, QByteArray());
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    errno = 0;
    EXPECT_EQ(QZAuthorization::processStartTime(child), 0u);
    EXPECT_EQ(errno, ESRCH);
}

} // namespace
