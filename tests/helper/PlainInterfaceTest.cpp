// The plain C interface against a scripted fake helper: the argument vectors each wrapper
// sends, statuses and errno, progress callbacks, and auth_open's fallback from a child that
// dropped root.
#include "HelperTestSupport.h"

#include <QZApp/helper/helper_command.h>


#include <fcntl.h>

using qztest::FakeHelper;

namespace {

TEST(PlainInterface, WrappersSendTheirArgumentVectorsAndReportStatuses)
{
    int32_t fd = 7;
    // The helper's status for each call, the call's result and errno after it (0: left alone).
    const struct {
        std::function<int()> call;
        int status, result, error;
        QByteArray line;
    } cases[] = {
        { [] { return auth_chown("/a b/c", 501, 20); }, 1, -1, 1, "chown /a\\ b/c 501 20" },
        { [] { return auth_unlink("/x;y"); }, 2, -1, 2, "unlink /x\\;y" },
        { [] { return authorise_access("/p", 6, 501); }, 0, 0, 0, "authorise /p 6 501" },
        { [] { return revoke_access("/p", 501); }, 0, 0, 0, "revoke 501 /p" },
        { [] { return authorise_global("/p", 12); }, 5, 5, 0, "authorise_global /p 12" },
        { [&] { return auth_openx("/f", 0x241, 0644, 1, nullptr, &fd); }, 13, 13, 0, "access /f 241 1a4 1" },
        { [&] { return auth_openx("/g", 0, 0, 2, "", &fd); }, 0, 10002, 0, "access /g 0 0 2 \"\"" },   // nothing offered
        { [] { return auth_unlink("/gone"); }, 10002, -1, 10002, "unlink /gone" },
    };
    QByteArray script, expected;
    for (size_t i = 0; i < std::size(cases); ++i) {
        script += "read\nsend " + QByteArray::number(i + 1) + " REPLY " + QByteArray::number(cases[i].status) + " 0\\n\n";
        expected += QByteArray::number(i + 1) + ' ' + cases[i].line + '\n';
    }
    FakeHelper fake(script);
    // Never sent: an argument that is not UTF-8, a missing one.
    const char *notUtf8[] = { "unlink", "/bad\xff" };
    helper_command command {};
    command.argc = 2;
    command.argv = notUtf8;
    EXPECT_EQ(perform_helper_command(&command), 10002);
    EXPECT_EQ(auth_unlink(nullptr), -1);
    EXPECT_EQ(errno, 10002);
    for (const auto &each : cases) {
        errno = 0;
        EXPECT_EQ(each.call(), each.result) << each.line.constData();
        EXPECT_EQ(errno, each.error) << each.line.constData();
    }
    QZHelperTool::sharedInstance()->terminateHelper();
    EXPECT_EQ(fake.requests(), expected);
}

// The callback asks to stop three times; the aborted command still gets its reply. A descriptor
// offered to a caller that asked for none is let go with one ABORT too.
TEST(PlainInterface, ProgressCallbackThatAsksToStopAndAnUnwantedDescriptorAbortOnce)
{
    FakeHelper fake("read\nsend 1 PROGRESS 10%\\n1 PROGRESS 20%\\n\nread\nsend 1 PROGRESS 30%\\n1 REPLY 89 0\\n"
                    "\nread\nsend 2 REPLY 0 -1\\n");
    QStringList seen;
    const char *argv[] = { "long-job" };
    helper_command command {};
    command.argc = 1;
    command.argv = argv;
    command.context = &seen;
    command.progress = [](const char *text, void *context) -> int32_t {
        static_cast<QStringList *>(context)->append(QString::fromUtf8(text));
        return 1;
    };
    EXPECT_EQ(perform_helper_command(&command), 89);
    const char *offering[] = { "offers-one" };
    helper_command unwanted {};
    unwanted.argc = 1;
    unwanted.argv = offering;
    EXPECT_EQ(perform_helper_command(&unwanted), 0);
    QZHelperTool::sharedInstance()->terminateHelper();
    EXPECT_EQ(seen, (QStringList { QStringLiteral("10%"), QStringLiteral("20%"), QStringLiteral("30%") }));
    EXPECT_EQ(fake.requests(), QByteArray("1 long-job\n1 ABORT\n2 offers-one\n2 ABORT\n"));
}

// In a child that dropped root: a readable file or a missing one never reaches the helper; a
// file that gives EACCES is opened by the helper, which gets the exact argument vector.
TEST(PlainInterface, AuthOpenAsksTheHelperOnlyOnEacces)
{
    FakeHelper fake("read\nsend 1 REPLY 0 -1\\n\nread\nsendfd 1 " FAKE_HELPER_PATH " \\n\nread\nsend 2 REPLY 13 0\\n");
    const QByteArray closed = fake.path("closed"), secret = fake.path("shut") + "/secret";
    ASSERT_EQ(mkdir(closed.constData(), 0755), 0);
    ASSERT_EQ(mkdir(fake.path("shut").constData(), 0700), 0);
    const int result = qztest::runAsNobody([&] {
        int fd = auth_open(FAKE_HELPER_PATH, O_RDONLY);
        EXPECT_IN_CHILD(fd >= 0 && close(fd) == 0);
        EXPECT_IN_CHILD(auth_open((closed + "/x").constData(), O_RDONLY) == -1 && errno == ENOENT);
        fd = auth_open(secret.constData(), O_RDONLY);
        EXPECT_IN_CHILD(fd >= 0 && !(fcntl(fd, F_GETFD) & FD_CLOEXEC));   // like open(2): close-on-exec only when asked for
        EXPECT_IN_CHILD(qztest::isProgram(fd));
        EXPECT_IN_CHILD(auth_open((closed + "/y").constData(), O_CREAT | O_WRONLY | AUTH_O_CALLER_OWNS, 0644) == -1 && errno == 13);
        return 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(fake.requests(), "1 access " + secret + " 0 0 2 \"\"\n1 GET_FD\n2 access " + closed + "/y 41 1a4 1 \"\"\n");
}

} // namespace
