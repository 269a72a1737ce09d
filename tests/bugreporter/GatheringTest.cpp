// Gathering on scratch folders: a scratch home and XDG folders for the user's, scratch folders
// mounted over /var/log and /var/lib for the machine's, and stand-ins mounted over lshw and gzip.
#include "bugreporter/BugReporterTestSupport.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QPushButton>
#include <QRegularExpression>
#include <QTimer>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace qztest;

namespace {

class GatheringTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!mountsAvailable())
            GTEST_SKIP() << "needs the superuser and a private mount namespace";
        for (const char *folder : { "log", "lib" }) {
            QDir().mkpath(home.path(u"var-"_s + QLatin1String(folder)));
            bindOver(home.path(u"var-"_s + QLatin1String(folder)), u"/var/"_s + QLatin1String(folder));
        }
        standInProgram(home, u"/usr/bin/lshw"_s, "[ \"$1\" = -xml ] || exit 9\necho '<?xml version=\"1.0\"?><list><node id=\"scratch\"/></list>'\n");
        r = QZBugReporter::sharedBugReporter();
        r->setProductBundle(diskTool());
        r->setOmitSystemProfile(true);
    }

    // The gathered files, each expanded, keyed by the name they were made from
    // ("hfs-XXXXXX.log.gz" -> "hfs.log"), in order.
    std::vector<std::pair<QString, QByteArray>> gather()
    {
        std::vector<std::pair<QString, QByteArray>> items;
        const std::optional<QStringList> files = r->gatherLogFiles();
        if (!files)
            return items;
        static const QRegularExpression made(u"^(.*)-[A-Za-z0-9]{6}(\\..*)?\\.gz$"_s);
        for (const QString &file : *files) {
            EXPECT_EQ(QFileInfo(file).path(), home.path(u"tmp"_s));
            const QRegularExpressionMatch match = made.match(QFileInfo(file).fileName());
            EXPECT_TRUE(match.hasMatch()) << file.toStdString();
            items.emplace_back(match.captured(1) + match.captured(2), gunzip(file));
            QFile::remove(file);
        }
        return items;
    }
    static QStringList names(const std::vector<std::pair<QString, QByteArray>> &items)
    {
        QStringList list;
        for (const auto &item : items)
            list.append(item.first);
        return list;
    }
    // Sends this process's output to the reporter's log named `name` and back; true if it went.
    bool redirect(const QString &name, const char *line = "")
    {
        const int savedOut = dup(1), savedErr = dup(2);
        const bool redirected = r->redirectLogsTo(name);
        std::printf("%s", line);
        std::fflush(stdout);
        dup2(savedOut, 1);
        dup2(savedErr, 2);
        close(savedOut);
        close(savedErr);
        return redirected;
    }

    ScratchHome home;
    QZBugReporter *r = nullptr;
};

TEST_F(GatheringTest, ReportTypeDecidesWhatIsGatheredFromBothFolders)
{
    writeFile(home.path(u"state/Veltrane/hfs.log"_s), "user hfs\n");
    writeFile(u"/var/log/Veltrane/hfs.log"_s, "machine hfs\n");
    writeFile(u"/var/log/Veltrane/Disk Tool.log"_s, "machine app\n");
    // The redirected output lies where the application's own log is looked for: attached once.
    ASSERT_TRUE(redirect(u"Disk Tool.log"_s, "redirected line\n"));
    EXPECT_EQ(r->logPath(), home.path(u"state/Veltrane/Disk Tool.log"_s));

    r->setReportType(0);
    r->setOmitSystemProfile(false);
    EXPECT_FALSE(r->gatherLogFiles()) << "a feature request carries nothing";

    r->setReportType(2);
    auto items = gather();
    ASSERT_EQ(items.size(), 5u);
    EXPECT_TRUE(items[4].second.contains("<node id=\"scratch\"/>"));
    items[4].second.clear();
    EXPECT_EQ(items, (decltype(items){ { u"hfs.log"_s, "user hfs\n" }, { u"hfs.log"_s, "machine hfs\n" }, { u"Disk Tool.log"_s, "redirected line\n" },
                                       { u"Disk Tool.log"_s, "machine app\n" }, { u"SystemProfile.spx"_s, {} } }));

    // Under another spelling of the same file, the redirected log is attached again.
    r->setOmitSystemProfile(true);
    QDir().mkpath(home.path(u"state/Veltrane/again"_s));
    writeFile(home.path(u"state/Veltrane/hfs.log"_s), "user hfs\n");
    ASSERT_TRUE(redirect(u"again/../Disk Tool.log"_s));
    EXPECT_EQ(names(gather()).count(u"Disk Tool.log"_s), 3);
}

TEST_F(GatheringTest, CrashReportsFollowTheNameLengthAndCaseRules)
{
    const QString user = home.path(u"data"_s);
    const std::pair<QString, QByteArray> files[] = {
        { user + u"/Logs/CrashReporter/Disk Tool.crash.log"_s, "legacy user" },
        { u"/var/lib/Logs/CrashReporter/Disk Tool.crash.log"_s, "legacy machine, not read: the user's came first" },
        { u"/var/lib/Logs/DiagnosticReportsDisk Tool.crash.log"_s, "legacy without a separator" },
        { user + u"/Logs/DiagnosticReports/Disk Tool_2012-05-04-101010_mac.crash"_s, "user 37" },
        { user + u"/Logs/DiagnosticReports/disk tool_2012-05-04-10101_m.crash"_s, "user 34 lower case" },
        { user + u"/Logs/DiagnosticReports/Disk Tool_2012-05-04-1010_m.crash"_s, "33: too short" },
        { user + u"/Logs/DiagnosticReports/Disk Tool_2012-05-04-101010_mac.CRASH"_s, "extension case" },
        { user + u"/Logs/DiagnosticReports/Other Tool_2012-05-04-101010_mac.crash"_s, "another application" },
        { u"/var/lib/Logs/DiagnosticReports/Disk Tool_2012-05-04-101010_mac.crash"_s, "machine 37" },
    };
    for (const auto &[path, bytes] : files)
        writeFile(path, bytes);

    const QByteArray crashes = r->readCrashLog();
    for (const char *taken : { "legacy user", "legacy without a separator", "user 37", "user 34 lower case", "machine 37" })
        EXPECT_TRUE(crashes.contains(taken)) << taken;
    for (const char *left : { "legacy machine", "too short", "extension case", "another application" })
        EXPECT_FALSE(crashes.contains(left)) << left;
    EXPECT_TRUE(crashes.startsWith("\n=== " + QFile::encodeName(user) + "/Logs/CrashReporter/Disk Tool.crash.log ===\nlegacy user"));

    // Only a crasher, or any type read as 3 or more unsigned, carries them.
    for (const int type : { 1, 2, 3, -1 }) {
        r->setReportType(type);
        EXPECT_EQ(names(gather()).contains(u"CrashLog.log"_s), type == 3 || type == -1) << type;
    }
}

TEST_F(GatheringTest, NamedLogFilesReplaceTheStandardOnesAndUnreadableOrUncompressedOnesAreDropped)
{
    writeFile(home.path(u"state/Veltrane/hfs.log"_s), "standard\n");
    writeFile(home.path(u"data/Logs/DiagnosticReports/Disk Tool_2012-05-04-101010_mac.crash"_s), "crash");
    writeFile(home.path(u"mine.txt"_s), "mine\n");
    r->setLogFiles({ home.path(u"missing.txt"_s), home.path(u"mine.txt"_s) });
    r->setReportType(3);
    r->setOmitSystemProfile(false);
    EXPECT_EQ(names(gather()), QStringList({ u"mine.txt"_s, u"SystemProfile.spx"_s }));

    // A failing gzip drops each item and removes its temporary file.
    standInProgram(home, u"/usr/bin/gzip"_s, "exit 1\n");
    const std::optional<QStringList> files = r->gatherLogFiles();
    ASSERT_TRUE(files);
    EXPECT_TRUE(files->isEmpty());
    EXPECT_TRUE(QDir(home.path(u"tmp"_s)).isEmpty());
}

TEST_F(GatheringTest, ACrashedProcessLeavesAReportTheNextCrasherBugAttaches)
{
    for (const char *how : { "segv", "abort" }) {
        QProcess crasher;
        crasher.start(QStringLiteral(CRASHER_PATH), { QLatin1String(how) });
        ASSERT_TRUE(crasher.waitForFinished(60000));
        EXPECT_EQ(crasher.exitStatus(), QProcess::CrashExit) << crasher.readAllStandardError().toStdString();
        QThread::sleep(1);   // the next report is named for another second
    }
    const QStringList reports = QDir(home.path(u"data/Logs/DiagnosticReports"_s)).entryList(QDir::Files);
    ASSERT_EQ(reports.size(), 2) << reports.join(u' ').toStdString();
    static const QRegularExpression name(u"^qz_crasher_\\d{4}-\\d\\d-\\d\\d-\\d{6}_.+\\.crash$"_s);
    EXPECT_TRUE(name.match(reports[0]).hasMatch()) << reports[0].toStdString();

    r->setProductBundle({ u"Crasher"_s, u"2.5"_s, u"2.5"_s, QStringLiteral(CRASHER_PATH) });
    r->setReportType(3);
    const auto items = gather();
    ASSERT_EQ(names(items), QStringList({ u"CrashLog.log"_s }));
    const QByteArray crashes = items[0].second;
    for (const char *line : { "Signal: 11 (SIGSEGV)", "Signal: 6 (SIGABRT)", "Version: 2.5 (2.5)", "Fault address: 0x0\n" })
        EXPECT_TRUE(crashes.contains(line)) << line << "\n" << crashes.toStdString();
    EXPECT_TRUE(QRegularExpression(u"Build ID: [0-9a-f]{40}\n"_s).match(QString::fromUtf8(crashes)).hasMatch());
    EXPECT_TRUE(crashes.contains("qz_crasher(")) << "the backtrace names the crashing program's frames";
}

TEST(RedirectDeathTest, APathLongerThanItsBufferStopsTheProcess)
{
    ScratchHome home;
    EXPECT_DEATH(QZBugReporter::sharedBugReporter()->redirectLogsTo(QString(1100, u'x')), "used \\+ added < size");
}

// A large profile and several logs are gathered while the window keeps answering.
TEST_F(GatheringTest, WindowStaysResponsiveWhileALargeReportIsGatheredAndSent)
{
    standInProgram(home, u"/usr/bin/lshw"_s,
                   "echo '<?xml version=\"1.0\"?><list>'\ni=0\nwhile [ $i -lt 40 ]; do head -c 1000000 /dev/urandom | base64; i=$((i+1)); done\necho '</list>'\n");
    QStringList logs;
    QByteArray text;
    for (int line = 0; line < 60000; line++)
        text += "log line " + QByteArray::number(line) + "\n";
    for (int i = 0; i < 4; i++)
        writeFile(logs.emplace_back(home.path(u"log%1.log"_s.arg(i))), text);
    auto client = std::make_shared<RecordingClient>(QZMailClient::ThreadSafe);
    RecordingDelegate delegate;
    r->setDelegate(&delegate);
    r->setMailClient(client);
    r->setLogFiles(logs);
    r->setReportType(2);
    r->setOmitSystemProfile(false);
    r->showWindow();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(r->bugReportPanel()));

    QElapsedTimer clock;
    qint64 last = 0, longestGap = 0;
    QTimer tick;
    tick.setTimerType(Qt::PreciseTimer);
    QObject::connect(&tick, &QTimer::timeout, [&] { longestGap = std::max(longestGap, clock.elapsed() - std::exchange(last, clock.elapsed())); });
    clock.start();
    tick.start(10);
    QTest::mouseClick(r->bugReportPanel()->findChild<QPushButton *>(u"send"_s), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !r->busy(); }, 120000));
    tick.stop();
    r->setDelegate(nullptr);
    // Gathering on the main thread would stall it for seconds; a loaded machine (a sanitizer
    // build beside other jobs) may delay a tick by a fraction of that.
    EXPECT_LT(longestGap, 400) << "ms without the main thread answering";
    ASSERT_EQ(client->calls().size(), 1u);
    EXPECT_EQ(client->calls()[0].attachments.size(), 5);
}

} // namespace
