// The plain C interface against a scripted fake helper: the argument vectors each wrapper
// sends, statuses and errno, reply data, progress callbacks, and auth_open's fallback from a
// child that dropped root.
#include "HelperTestSupport.h"

#include <QZApp/helper/helper_command.h>

#include <cstdlib>
#include <cstring>

#include <fcntl.h>

using qztest::FakeHelper;

namespace {

TEST(PlainInterface, WrappersSendTheirArgumentVectorsAndReportStatuses)
{
    FakeHelper fake("auth\nreply 1 0\nreply 2 0\nreply 0 0\nreply 0 0\nreply 0 0\nreply 13 0\nreply 10002 0\neof\n");
    errno = 0;
    EXPECT_EQ(auth_chown("/a b/c", 501, 20), -1);
    EXPECT_EQ(errno, 1);
    EXPECT_EQ(auth_unlink("/x;y"), -1);
    EXPECT_EQ(errno, 2);
    errno = 0;
    EXPECT_EQ(authorise_access("/p", 6, 501), 0);
    EXPECT_EQ(revoke_access("/p", 501), 0);
    EXPECT_EQ(authorise_global("/p", 12), 0);
    EXPECT_EQ(errno, 0);   // the status-returning wrappers leave errno alone
    int32_t fd = 7;
    EXPECT_EQ(auth_openx("/f", 0x241, 0644, 1, nullptr, &fd), 13);
    EXPECT_EQ(auth_unlink("/gone"), -1);
    EXPECT_EQ(errno, 10002);
    QZHelperTool::sharedInstance()->terminateHelper();
    EXPECT_EQ(fake.requests(), QByteArray("1 chown /a\\ b/c 501 20\n"
                                          "2 unlink /x\\;y\n"
                                          "3 authorise /p 6 501\n"
                                          "4 revoke 501 /p\n"
                                          "5 authorise_global /p 12\n"
                                          "6 access /f 241 1a4 1\n"
                                          "7 unlink /gone\n"));
}

TEST(PlainInterface, ArgumentThatIsNotUtf8StartsNothing)
{
    FakeHelper fake("auth\nserve\n");
    const char *argv[] = { "unlink", "/bad\xff" };
    helper_command command {};
    command.argc = 2;
    command.argv = argv;
    EXPECT_EQ(perform_helper_command(&command), 10002);
    EXPECT_TRUE(fake.record().isNull());   // no helper was started
    EXPECT_EQ(auth_unlink(nullptr), -1);
    EXPECT_EQ(errno, 10002);
}

TEST(PlainInterface, DataGoesOutAndReplyDataComesBackAsACopy)
{
    FakeHelper fake("auth\nreply 0 3\nsend abc\nreply 0 0\neof\n");
    const char *argv[] = { "echo", "" };
    void *reply = reinterpret_cast<void *>(1);
    uint32_t length = 99;
    helper_command command {};
    command.argc = 2;
    command.argv = argv;
    command.reply_data = &reply;
    command.reply_length = &length;
    command.data = "DATA";
    command.data_length = 4;
    EXPECT_EQ(perform_helper_command(&command), 0);
    ASSERT_EQ(length, 3u);
    EXPECT_EQ(std::memcmp(reply, "abc", 3), 0);
    std::free(reply);

    command.data_length = 0;
    EXPECT_EQ(perform_helper_command(&command), 0);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(length, 0u);
    QZHelperTool::sharedInstance()->terminateHelper();
    EXPECT_EQ(fake.requests(), QByteArray("1+4 echo \"\"\nDATA2 echo \"\"\n"));
}

TEST(PlainInterface, ProgressCallbackThatAsksToStopAbortsOnce)
{
    FakeHelper fake("auth\nread\nsend {id} PROGRESS 10%\\n\nsend {id} PROGRESS 20%\\n\nread\n"
                    "send {1} PROGRESS 30%\\n\nsend {1} REPLY 89 0\\n\neof\n");
    struct Seen {
        QStringList texts;
    } seen;
    const char *argv[] = { "long-job" };
    helper_command command {};
    command.argc = 1;
    command.argv = argv;
    command.context = &seen;
    command.progress = [](const char *text, void *context) -> int32_t {
        static_cast<Seen *>(context)->texts.append(QString::fromUtf8(text));
        return 1;
    };
    EXPECT_EQ(perform_helper_command(&command), 89);   // the helper's own final status
    QZHelperTool::sharedInstance()->terminateHelper();
    EXPECT_EQ(seen.texts, (QStringList { QStringLiteral("10%"), QStringLiteral("20%"), QStringLiteral("30%") }));
    EXPECT_EQ(fake.requests(), QByteArray("1 long-job\n1 ABORT\n"));
}

// In a child that dropped root: a readable file or a missing one never reaches the helper; a
// file that gives EACCES is opened by the helper, which gets the exact argument vector.
TEST(PlainInterface, AuthOpenAsksTheHelperOnlyOnEacces)
{
    FakeHelper fake("");
    const QByteArray closed = QFile::encodeName(fake.path(QStringLiteral("closed")));
    const QByteArray shut = QFile::encodeName(fake.path(QStringLiteral("shut")));
    const QByteArray secret = shut + "/secret";
    const QByteArray offered = QFile::encodeName(fake.path(QStringLiteral("offered")));
    ASSERT_EQ(mkdir(closed.constData(), 0755), 0);
    ASSERT_EQ(mkdir(shut.constData(), 0700), 0);
    for (const QByteArray &path : { secret, offered }) {
        QFile file(QFile::decodeName(path));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("from the helper");
    }
    chmod(offered.constData(), 0644);
    fake.setScript("auth\nreply 0 -1\nread\nsendfd " + offered + " \\n\nreply 13 0\neof\n");

    const int result = qztest::runAsNobody([&] {
        int fd = auth_open(offered.constData(), O_RDONLY);
        if (fd < 0 || close(fd) != 0)
            return 10;
        if (auth_open((closed + "/x").constData(), O_RDONLY) != -1 || errno != ENOENT)
            return 11;   // not EACCES: the helper is not asked
        fd = auth_open(secret.constData(), O_RDONLY);
        char text[32] = {};
        if (fd < 0 || read(fd, text, sizeof text) != 15 || std::strcmp(text, "from the helper") != 0)
            return 12;
        if (fcntl(fd, F_GETFD) & FD_CLOEXEC)
            return 13;   // like open(2): close-on-exec only when asked for
        close(fd);
        if (auth_open((closed + "/y").constData(), O_CREAT | O_WRONLY | AUTH_O_CALLER_OWNS, 0644) != -1 || errno != 13)
            return 14;
        return 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(fake.requests(), QByteArray("1 access " + secret + " 0 0 2 \"\"\n"
                                          "1 GET_FD\n"
                                          "2 access " + closed + "/y 41 1a4 1 \"\"\n"));
}

} // namespace
