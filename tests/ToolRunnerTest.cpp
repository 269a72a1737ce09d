// run_toolx, run_tool and its format walk; QZ::availableDataOrError on pipes, files and processes.
#include <QZApp/QZFileHandleExtensions.h>
#include <QZApp/utils.h>

#include "../app-common/QZApp/utils/utils_private.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTemporaryFile>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

// The kinds a format consumes, or "rejected".
std::string walk(const char *format)
{
    char kinds[16];
    const int count = utils_run_tool_format_walk(format, kinds, sizeof kinds);
    return count < 0 ? "rejected" : std::string(kinds, static_cast<size_t>(count));
}

TEST(FormatWalk, AcceptsWhatItCanStepOverAndNothingElse)
{
    EXPECT_EQ(walk("plain text"), "");
    EXPECT_EQ(walk("%s-%d"), "pi");
    EXPECT_EQ(walk("%5.2f"), "d");
    EXPECT_EQ(walk("%lld %ld %hhx %hu %jd %td %zu"), "qliijtz");
    EXPECT_EQ(walk("%'#-+ 08.3lf|%Lg|%La"), "dDD");
    EXPECT_EQ(walk("%ls %Ls %hhs"), "ppp");
    for (const char *rejected : { "%*d", "%.*f", "%%", "100%", "%c", "%p", "%n", "%C", "%S", "%D", "%O", "%U", "%qd",
                                  "%Ld", "%hf", "%llf", "%1$d", "%5", "%l", "%hh" })
        EXPECT_EQ(walk(rejected), "rejected") << rejected;
    // Only the room given is written; the count is the whole.
    char one[1];
    EXPECT_EQ(utils_run_tool_format_walk("%d%d%d", one, sizeof one), 3);
    EXPECT_EQ(one[0], 'i');
}

TEST(RunTool, BuildsOneArgumentPerFormatAndRejectsAFormatBeforeAnythingStarts)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_tool("/bin/echo", "-n", "%s-%d", "a", 7, "%5.2f|%Lf|%lld", 3.14159, 2.5L, 1LL << 40,
                       static_cast<const char *>(nullptr)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a-7  3.14|2.500000|1099511627776");

    QTemporaryDir folder;
    const std::string marker = folder.filePath(QStringLiteral("marker")).toStdString();
    EXPECT_EQ(run_tool("/bin/touch", "%s", marker.c_str(), "%*d", 3, 4, static_cast<const char *>(nullptr)), -1);
    EXPECT_EQ(run_tool("/bin/touch", "%s", marker.c_str(), "100%%", static_cast<const char *>(nullptr)), -1);
    EXPECT_NE(access(marker.c_str(), F_OK), 0);
}

TEST(RunToolx, GivesTheExitStatusOrMinusOneAndAnEmptyEnvironment)
{
    char sh[] = "/bin/sh", c[] = "-c", three[] = "exit 3", killed[] = "kill -9 $$", bare[] = "sh", env[] = "/usr/bin/env";
    char *exits[] = { sh, c, three, nullptr }, *signalled[] = { sh, c, killed, nullptr };
    char *notSearched[] = { bare, c, three, nullptr }, *environment[] = { env, nullptr };   // no search along PATH
    EXPECT_EQ(run_toolx(exits), 3);
    EXPECT_EQ(run_toolx(signalled), -1);
    EXPECT_EQ(run_toolx(notSearched), -1);
    setenv("QZ_SHOULD_NOT_PASS", "1", 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_toolx(environment), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(AvailableData, ReadsWhatIsThereAgainAfterASignalThenEmptyDataAtTheEndOrAnError)
{
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);   // no SA_RESTART: a read it interrupts fails with EINTR
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pthread_t reader = pthread_self();
    std::thread writer([&] {
        usleep(100000);
        pthread_kill(reader, SIGUSR1);
        usleep(100000);
        (void)!write(ends[1], "late", 4);
    });
    QZ::ReadError error;
    EXPECT_EQ(QZ::availableDataOrError(ends[0], &error), QByteArray("late"));
    EXPECT_EQ(error.code, 0);
    writer.join();
    close(ends[1]);
    const QByteArray end = QZ::availableDataOrError(ends[0], &error);
    EXPECT_TRUE(end.isEmpty() && !end.isNull());
    close(ends[0]);   // a read that fails (of a closed descriptor) is an error value
    EXPECT_TRUE(QZ::availableDataOrError(ends[0], &error).isNull());
    EXPECT_EQ(error.code, EBADF);
    EXPECT_FALSE(error.description.isEmpty());

    // A file, from its position to its end, through its descriptor and as a device.
    QTemporaryFile file;
    const QByteArray content(200000, 'q');
    ASSERT_TRUE(file.open() && file.write(content) == content.size() && file.flush());
    const int fd = open(file.fileName().toUtf8().constData(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(lseek(fd, 1000, SEEK_SET), 1000);
    EXPECT_EQ(QZ::availableDataOrError(fd), content.mid(1000));
    close(fd);
    ASSERT_TRUE(file.seek(100));
    EXPECT_EQ(QZ::availableDataOrError(&file), content.mid(100));
    QFile closed;
    EXPECT_TRUE(QZ::availableDataOrError(&closed).isNull());

    // A process: what it writes as it comes, then empty data at its end.
    QProcess process;
    process.start(QStringLiteral("/bin/sh"), { QStringLiteral("-c"), QStringLiteral("sleep 0.1; printf hello") });
    ASSERT_TRUE(process.waitForStarted());
    QByteArray all;
    for (int i = 0; i < 10 && all != "hello"; i++)
        all += QZ::availableDataOrError(&process);
    EXPECT_EQ(all, QByteArray("hello"));
    process.waitForFinished();
    const QByteArray finished = QZ::availableDataOrError(&process);
    EXPECT_TRUE(finished.isEmpty() && !finished.isNull());
}

} // namespace
