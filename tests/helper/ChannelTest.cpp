// The helper channel against a scripted fake helper: exact request bytes, the receiver's
// handling of every kind of line, descriptors, the loss of the helper, identifiers, progress,
// and the programming faults it reports.
#include "HelperTestSupport.h"

#include <QZApp/QZConsoleLog.h>
#include <QZApp/QZMainThread.h>

#include <future>

#include <fcntl.h>
#include <pthread.h>

using qztest::ConsoleCapture;
using qztest::FakeHelper;
using qztest::processEventsUntil;
using qztest::tool;

namespace {

// Logs progress as "TEXT@THREAD" and finish notices as "STATUS@THREAD" (THREAD: "main" on the main thread).
struct LoggingDelegate : QZHelperToolDelegate {
    void helperToolCommand(const std::shared_ptr<QZHelperCommand> &, const QString &text) override { log(text); }
    void helperToolCommandDidFinish(const std::shared_ptr<QZHelperCommand> &c) override { log(QString::number(c->status())); }
    static void log(const QString &text)
    {
        char name[32] = "main";
        if (!QZ::isMainThread())
            pthread_getname_np(pthread_self(), name, sizeof name);
        QZLog(text + QLatin1Char('@') + QLatin1String(name));
    }
};

TEST(HelperCommand, RetainedDelegateIsKeptOnceAndLetGoBySetDelegate)
{
    const auto command = QZHelperCommand::commandWithString(QStringLiteral("x"));
    auto first = std::make_shared<LoggingDelegate>();
    command->setDelegate(first.get());
    EXPECT_EQ(first.use_count(), 1);
    command->retainDelegate();
    command->retainDelegate();
    EXPECT_EQ(first.use_count(), 2);
    auto second = std::make_shared<LoggingDelegate>();
    command->setDelegate(second.get());
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_FALSE(command->retainedDelegate());
}

// Identifiers wrap from 4,294,967,295 to 1; a command is sent once; one that was never sent
// has nothing to wait for and no descriptor.
TEST(HelperChannel, RequestBytesAreExactlyTheWireFormat)
{
    FakeHelper fake("read\nsend 4294967295 REPLY 0 0\\n\nread\nsend 1 REPLY 0 0\\n\nread\nsend 2 REPLY 0 0\\n");
    const auto withData = QZHelperCommand::commandWithString(QStringLiteral("echo"));
    EXPECT_EQ(withData->getStatus(), -2147483647 - 1);
    EXPECT_EQ(withData->getFileDescriptor(), -1);
    QZHelperToolTesting::setLastCommandID(tool(), 4294967294u);
    EXPECT_EQ(tool()->performCommand(QStringLiteral("unlink /some/path")), 0);
    withData->setCommandData(QByteArray("hello"));
    ASSERT_TRUE(tool()->issue(withData));
    EXPECT_EQ(withData->getStatus(), 0);
    EXPECT_FALSE(tool()->issue(withData));
    EXPECT_EQ(tool()->performCommand(QStringLiteral("c")), 0);
    tool()->terminateHelper();
    EXPECT_EQ(fake.record(), tool()->authorization()->externalForm() + "4294967295 unlink /some/path\n1+5 echo\nhello2 c\n");
}

// Reply data split across reads is whole and the next line follows it; lines that match no
// command are logged, progress for a command without a delegate goes nowhere, and reading goes on.
TEST(HelperChannel, ReceiverReadsSplitDataAndLogsWhatMatchesNoCommand)
{
    ConsoleCapture console;
    const QByteArray noise(HELPER_MAX_LINE, 'x');   // no newline within the longest line
    FakeHelper fake("read\nread\nsend 1 REPLY 0 5\\nab\nsend cde99 REPLY 0 0\\nfree text\\n\\n"
                    "2 BOGUS 1 2\\n2 PROGRESS unheard\\n\nsend " + noise + "\nsend 2 REPLY 3 0\\n");
    const auto first = tool()->issueCommand(QStringLiteral("first"));
    const auto second = tool()->issueCommand(QStringLiteral("second"));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->getStatus(), 0);
    EXPECT_EQ(first->data(), QByteArray("abcde"));
    EXPECT_EQ(second->getStatus(), 3);
    EXPECT_TRUE(second->data().isNull());
    EXPECT_EQ(console.lines(), (QStringList { QStringLiteral("Unmatched response from helper: 99 REPLY 0 0"),
                                              QStringLiteral("free text"), QStringLiteral("2 BOGUS 1 2"),
                                              QStringLiteral("Unexpected reply from helper: ") + QString::fromLatin1(noise) }));
}

// An offer comes with an FD line before the reply or with a reply of size -1. It stands until the
// command's outcome changes it: every fetch asks the helper again (each descriptor close-on-exec),
// an abort after fetching still tells the helper to let go, and nothing is asked for when none was
// offered. Descriptors nobody asked for, and more than one in a message, are closed.
TEST(HelperChannel, DescriptorsAreFetchedOnlyWhenOfferedAndAsOftenAsAsked)
{
    ConsoleCapture console;
    FakeHelper fake("read\nsendfd 1 /dev/null \\n\nsendfd 2 /dev/null \\n\nsend 1 FD\\n\nread\n"
                    "sendfd 1 " FAKE_HELPER_PATH " \\n\nsend 1 REPLY 0 0\\n\n"
                    "read\nsend\nsend 2 REPLY 0 -1\\n\nread\nsendfd 1 " FAKE_HELPER_PATH " \\n\n"
                    "read\nsendfd 1 " FAKE_HELPER_PATH " \\n\nread\nread\nsend 3 REPLY 0 0\\n");
    const int before = qztest::openDescriptorCount();
    const auto early = tool()->issueCommand(QStringLiteral("access early"));
    ASSERT_TRUE(early);
    const int fd = early->getFileDescriptor();   // waits for the offer
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(qztest::isProgram(fd));
    EXPECT_EQ(early->getStatus(), 0);
    early->abort();   // replied and nothing offered: only marked
    EXPECT_TRUE(early->aborted());
    // Asked for before the reply that offers it (the helper pauses first): the reply wakes it.
    const auto late = tool()->issueCommand(QStringLiteral("access late"));
    ASSERT_TRUE(late);
    auto lateFd = std::async(std::launch::async, [&] { return late->getFileDescriptor(); });
    if (lateFd.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        tool()->terminateHelper();   // the end of the connection wakes the caller left waiting
        FAIL() << "the reply did not wake the caller waiting for its descriptor";
    }
    EXPECT_TRUE(qztest::isProgram(lateFd.get()));
    EXPECT_EQ(late->getStatus(), 0);
    EXPECT_TRUE(late->fileDescriptorAvailable());
    EXPECT_TRUE(qztest::isProgram(late->getFileDescriptor()));
    late->abort();
    late->abort();
    int none = 7;
    EXPECT_EQ(tool()->performCommand(QStringLiteral("no descriptor"), &none), 10002);
    EXPECT_EQ(none, -1);
    tool()->terminateHelper();
    EXPECT_EQ(fake.requests(), QByteArray("1 access early\n1 GET_FD\n2 access late\n2 GET_FD\n2 GET_FD\n2 ABORT\n"
                                          "3 no descriptor\n"));
    EXPECT_EQ(qztest::openDescriptorCount(), before);
    EXPECT_EQ(console.lines(), (QStringList { QStringLiteral("Dumping file descriptor"), QStringLiteral("Discarding cmsg") }));
}

// The first helper leaves with two commands running, in the middle of the first one's reply
// data. (A helper that cannot start at all is left to qzutil's test.)
TEST(HelperChannel, HelperExitingWithTwoCommandsRunningFailsBothAndTheNextStartsAnother)
{
    ConsoleCapture console;
    FakeHelper fake("read\nread\nsend 1 REPLY 0 10\\nabc\nexit");
    auto firstDelegate = std::make_shared<LoggingDelegate>();
    auto secondDelegate = std::make_shared<LoggingDelegate>();
    const auto first = tool()->issueCommand(QStringLiteral("one"), firstDelegate.get());
    const auto second = tool()->issueCommand(QStringLiteral("two"), secondDelegate.get());
    ASSERT_TRUE(first && second);
    fake.setScript("read\nsend 3 REPLY 0 0\\n");
    EXPECT_EQ(first->getStatus(), 10002);
    EXPECT_TRUE(first->data().isNull());
    EXPECT_EQ(second->getStatus(), 10002);
    firstDelegate.reset();   // a queued notice keeps its delegate alive
    ASSERT_TRUE(processEventsUntil([&] { return console.lines().size() == 2; }));
    EXPECT_EQ(console.lines(), QStringList(2, QStringLiteral("10002@main")));
    EXPECT_EQ(tool()->performCommand(QStringLiteral("three")), 0);
    tool()->terminateHelper();
    EXPECT_EQ(fake.requests(2), QByteArray("3 three\n"));
    EXPECT_TRUE(qztest::hasNoChildren());
}

TEST(HelperChannel, ProgressKeepsInnerBlanksAndComesOnTheReceiverThreadOrTheMainThread)
{
    FakeHelper fake("read\nsend 1 PROGRESS   a  b \\n1 PROGRESS\\n1 PROGRESS  c\\n1 REPLY 0 0\\n\n"
                    "read\nsend 2 PROGRESS main\\n2 REPLY 0 0\\n");
    ConsoleCapture console;
    auto delegate = std::make_shared<LoggingDelegate>();
    EXPECT_EQ(tool()->performCommand(QStringLiteral("job"), delegate.get()), 0);
    const auto onMain = QZHelperCommand::commandWithString(QStringLiteral("main"));
    onMain->setDelegate(delegate.get());
    onMain->setProgressOnMainThread(true);
    ASSERT_TRUE(tool()->issue(onMain));
    EXPECT_EQ(onMain->getStatus(), 0);
    ASSERT_TRUE(processEventsUntil([&] { return console.lines().size() == 5; }));
    EXPECT_EQ(console.lines(), (QStringList { QStringLiteral("a  b @Helper Receiver"), QStringLiteral("c@Helper Receiver"),
                                              QStringLiteral("0@main"), QStringLiteral("main@main"), QStringLiteral("0@main") }));
}

// A second instance raises "Oops!"; the no-reply status from a helper is raised on the
// receiver thread, where a host's handler may return.
TEST(HelperChannel, ProgrammingFaultsAreReportedWithTheirPlaces)
{
    const QZAssertionFailure failure = qztest::expectAssertion([] { QZHelperTool second; });
    EXPECT_EQ(QStringLiteral("%1 %2:%3 %4").arg(failure.method(), failure.file()).arg(failure.line()).arg(failure.description()),
              QStringLiteral("QZHelperTool::QZHelperTool app-common/QZApp/helper/QZHelperTool:73 Oops!"));
    struct Logger : QZAssertionHandler {   // a host's handler that logs and returns
        void handleFailureInMethod(const char *method, const void *, const char *file, int line,
                                   const QString &text) override
        {
            QZLog(QStringLiteral("%1 %2:%3 %4").arg(QLatin1String(method), QLatin1String(file)).arg(line).arg(text));
        }
    };
    static Logger logger;
    QZHelperToolTesting::setReceiverThreadHook([] { QZAssertionHandler::setCurrentHandler(&logger); });
    ConsoleCapture console;
    FakeHelper fake("read\nsend 1 REPLY -2147483648 0\\n\nread\nsend 2 REPLY 4 0\\n");
    EXPECT_EQ(tool()->performCommand(QStringLiteral("bad")), 10002);
    EXPECT_EQ(tool()->performCommand(QStringLiteral("good")), 4);   // the channel goes on
    EXPECT_EQ(console.lines(), QStringList { QStringLiteral("QZHelperTool::receiveThread "
                                                            "app-common/QZApp/helper/QZHelperTool:356 Helper returned invalid error!") });
}

} // namespace
