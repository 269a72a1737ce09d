// run_toolx, run_tool and its format walk; plist_from_file and its QVariant conversion;
// QZ::availableDataOrError on pipes, files and processes.
#include <QZApp/QZFileHandleExtensions.h>
#include <QZApp/QZPropertyList.h>
#include <QZApp/utils.h>

#include "../app-common/QZApp/utils/utils_private.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QTimeZone>

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

TEST(PropertyList, ReadsXmlAndBinaryListsIntoTheSameQtValuesAndAnythingElseAsNull)
{
    QTemporaryDir folder;
    int files = 0;
    const auto write = [&](const QByteArray &bytes) {
        QFile file(folder.filePath(QString::number(++files)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
        return file.fileName().toStdString();
    };
    const std::string xml = write(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>name</key><string>Disk Tool ✓</string><key>count</key><integer>-5</integer>
  <key>ratio</key><real>0.25</real><key>on</key><true/><key>when</key><date>2001-01-02T00:00:01Z</date>
  <key>bytes</key><data>AAEC</data><key>list</key><array><string>a</string><dict/></array>
</dict></plist>)");
    const QVariantMap expected {
        { QStringLiteral("name"), QStringLiteral("Disk Tool ✓") },
        { QStringLiteral("count"), qlonglong(-5) },
        { QStringLiteral("ratio"), 0.25 },
        { QStringLiteral("on"), true },
        { QStringLiteral("when"), QDateTime(QDate(2001, 1, 2), QTime(0, 0, 1), QTimeZone::utc()) },
        { QStringLiteral("bytes"), QByteArray("\0\1\2", 3) },
        { QStringLiteral("list"), QVariantList { QStringLiteral("a"), QVariantMap() } },
    };
    EXPECT_EQ(QZ::propertyListFromFile(QString::fromStdString(xml)), expected);

    plist_t parsed = plist_from_file(xml.c_str());
    char *binary = nullptr;
    uint32_t length = 0;
    plist_to_bin(parsed, &binary, &length);
    ASSERT_NE(binary, nullptr);
    const std::string binaryList = write(QByteArray(binary, static_cast<qsizetype>(length)));
    std::free(binary);
    plist_free(parsed);
    EXPECT_EQ(QZ::propertyListFromFile(QString::fromStdString(binaryList)), expected);

    for (const QByteArray &bytes : { QByteArray(R"({"json": true})"), QByteArray("not a list"), QByteArray(),
                                     QByteArray("<html><body/></html>"), QByteArray("bplist00 cut short"),
                                     // Binary lists the parser lets through but that cannot be read safely: a
                                     // dictionary whose key is not a string, and a key with a NUL character in it.
                                     QByteArray::fromBase64("YnBsaXN0MDDSAQIDDVFhUW6nBAUGBwgJChABE//////////+Iz/gAAAAAAAACUIAAVR0ZXh00QsMUWtRdhMAAAEAAAAAAAgNEBEZGyQtLjMzODs9AAAAAAAAAQEAAAAAAAAADgAAAAAAAAAAAAAAAAAAAEY="),
                                     QByteArray::fromBase64("YnBsaXN0MDDRAQJjAOkAAABiEAEICxIAAAAAAAABAQAAAAAAAAADAAAAAAAAAAAAAAAAAAAAFA==") }) {
        const std::string path = write(bytes);
        EXPECT_EQ(plist_from_file(path.c_str()), nullptr) << bytes.toBase64().constData();
        EXPECT_FALSE(QZ::propertyListFromFile(QString::fromStdString(path)).isValid());
    }
    EXPECT_EQ(plist_from_file(folder.filePath(QStringLiteral("absent")).toUtf8().constData()), nullptr);
    EXPECT_EQ(plist_from_file(folder.path().toUtf8().constData()), nullptr);   // a folder
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
