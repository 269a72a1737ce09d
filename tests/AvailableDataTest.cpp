// QZ::availableDataOrError on pipes, files and processes.
#include <QZApp/QZFileHandleExtensions.h>

#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryFile>

#include <cerrno>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

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
