// The helper channel against a scripted fake helper: exact request bytes, the receiver's
// handling of every kind of line, descriptors, the loss of the helper, identifiers, progress
// and abort, and the programming faults it reports.
#include "HelperTestSupport.h"

#include <QZApp/QZMainThread.h>

#include <QThread>

#include <climits>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <pthread.h>

using qztest::ConsoleCapture;
using qztest::FakeHelper;
using qztest::processEventsUntil;

namespace {

QZHelperTool *tool()
{
    return QZHelperTool::sharedInstance();
}

class RecordingDelegate : public QZHelperToolDelegate
{
public:
    void helperToolCommand(const std::shared_ptr<QZHelperCommand> &, const QString &progress) override
    {
        char name[32] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::lock_guard guard(mutex);
        progressTexts.append(progress);
        progressThreads.append(QString::fromUtf8(name));
        progressOnMain.push_back(QZ::isMainThread());
    }
    void helperToolCommandDidFinish(const std::shared_ptr<QZHelperCommand> &command) override
    {
        std::lock_guard guard(mutex);
        finishedStatuses.push_back(command->status());
        finishedOnMain = finishedOnMain && QZ::isMainThread();
    }
    int finishedCount() const
    {
        std::lock_guard guard(mutex);
        return static_cast<int>(finishedStatuses.size());
    }

    mutable std::mutex mutex;
    QStringList progressTexts;
    QStringList progressThreads;
    std::vector<bool> progressOnMain;
    std::vector<qint32> finishedStatuses;
    bool finishedOnMain = true;
};

QString readAll(int fd)
{
    QByteArray bytes;
    char buffer[256];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof buffer)) > 0)
        bytes.append(buffer, got);
    return QString::fromUtf8(bytes);
}

TEST(HelperCommand, NewCommandHasNoReplyAndNoIdentifier)
{
    const auto command = QZHelperCommand::commandWithString(QStringLiteral("unlink /x"));
    EXPECT_EQ(command->status(), -2147483647 - 1);
    EXPECT_EQ(command->commandID(), 0u);
    EXPECT_TRUE(command->data().isNull());
    EXPECT_FALSE(command->fileDescriptorAvailable());
    EXPECT_EQ(command->commandString(), QStringLiteral("unlink /x"));
    command->getStatus();   // never sent: nothing to wait for
    EXPECT_EQ(command->getFileDescriptor(), -1);
}

TEST(HelperCommand, RetainedDelegateIsKeptOnceAndLetGoBySetDelegate)
{
    const auto command = QZHelperCommand::commandWithString(QStringLiteral("x"));
    auto first = std::make_shared<RecordingDelegate>();
    auto second = std::make_shared<RecordingDelegate>();
    command->setDelegate(first.get());
    EXPECT_EQ(first.use_count(), 1);
    command->retainDelegate();
    command->retainDelegate();
    EXPECT_EQ(first.use_count(), 2);
    EXPECT_TRUE(command->retainedDelegate());
    command->setDelegate(second.get());
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(second.use_count(), 1);
    EXPECT_FALSE(command->retainedDelegate());
    EXPECT_EQ(command->delegate(), second.get());
}

TEST(HelperCommand, ProgressRunsOnTheCallingThreadOrLaterOnTheMainThread)
{
    const auto command = QZHelperCommand::commandWithString(QStringLiteral("x"));
    auto delegate = std::make_shared<RecordingDelegate>();
    command->setDelegate(delegate.get());
    std::thread([&] { command->progress(QStringLiteral("direct")); }).join();
    ASSERT_EQ(delegate->progressTexts, QStringList { QStringLiteral("direct") });
    EXPECT_FALSE(delegate->progressOnMain[0]);

    command->setProgressOnMainThread(true);
    std::thread([&] { command->progress(QStringLiteral("queued")); }).join();
    EXPECT_EQ(delegate->progressTexts.size(), 1);   // not yet: the main thread has not run
    ASSERT_TRUE(processEventsUntil([&] { return delegate->progressTexts.size() == 2; }));
    EXPECT_TRUE(delegate->progressOnMain[1]);
    command->setDelegate(nullptr);
    command->progress(QStringLiteral("nobody"));   // no delegate: nothing happens
}

TEST(HelperChannel, RequestBytesAreExactlyTheWireFormat)
{
    FakeHelper fake("auth\nreply 0 0\nreply 0 0\neof\n");
    EXPECT_EQ(tool()->performCommand(QStringLiteral("unlink /some/path")), 0);
    const auto withData = QZHelperCommand::commandWithString(QStringLiteral("echo"));
    withData->setCommandData(QByteArray("hello"));
    ASSERT_TRUE(tool()->issue(withData));
    EXPECT_EQ(withData->commandID(), 2u);
    EXPECT_EQ(withData->getStatus(), 0);
    EXPECT_FALSE(tool()->issue(withData));   // a command is sent once
    tool()->terminateHelper();
    EXPECT_EQ(fake.requests(), QByteArray("1 unlink /some/path\n2+5 echo\nhello"));
    EXPECT_EQ(fake.record().left(32), tool()->authorization()->externalForm());
}

TEST(HelperChannel, ReplyDataSplitAcrossReadsIsWholeAndTheNextLineFollows)
{
    FakeHelper fake("auth\nread\nread\nsend {1} REPLY 0 5\\nab\nsleep 100\nsend cde{2} REPLY 3 0\\n\neof\n");
    const auto first = tool()->issueCommand(QStringLiteral("first"));
    const auto second = tool()->issueCommand(QStringLiteral("second"));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->getStatus(), 0);
    EXPECT_EQ(first->data(), QByteArray("abcde"));
    EXPECT_FALSE(first->fileDescriptorAvailable());
    EXPECT_EQ(second->getStatus(), 3);
    EXPECT_TRUE(second->data().isNull());
}

TEST(HelperChannel, LinesThatMatchNoCommandAreLoggedAndReadingGoesOn)
{
    ConsoleCapture console;
    const QByteArray noise(HELPER_MAX_LINE, 'x');
    FakeHelper fake("auth\nread\nsend 99 REPLY 0 0\\n\nsend free text from the helper\\n\\n\n"
                    "send {id} BOGUS 1 2\\n\nsend " + noise + "\nsleep 50\nsend {id} REPLY 0 0\\n\neof\n");
    EXPECT_EQ(tool()->performCommand(QStringLiteral("job")), 0);
    EXPECT_EQ(console.lines(), (QStringList {
            QStringLiteral("Unmatched response from helper: 99 REPLY 0 0"),
            QStringLiteral("free text from the helper"),
            QStringLiteral("1 BOGUS 1 2"),
            QStringLiteral("Unexpected reply from helper: ") + QString::fromLatin1(noise) }));
}

TEST(HelperChannel, DescriptorsNobodyAskedForAreClosed)
{
    ConsoleCapture console;
    FakeHelper fake("auth\nreply 0 0\neof\n");
    fake.setScript("auth\nread\nsendfd /dev/null \\n\nsendfds2 /dev/null \\n\nsend {id} REPLY 0 0\\n\neof\n", 2);
    EXPECT_EQ(tool()->performCommand(QStringLiteral("warm-up-free")), 0);   // helper and receiver up
    tool()->terminateHelper();
    const int before = qztest::openDescriptorCount();
    EXPECT_EQ(tool()->performCommand(QStringLiteral("job")), 0);
    tool()->terminateHelper();
    EXPECT_EQ(qztest::openDescriptorCount(), before);
    const QStringList lines = console.lines();
    EXPECT_EQ(lines.count(QStringLiteral("Dumping file descriptor")), 1);
    EXPECT_EQ(lines.count(QStringLiteral("Discarding cmsg")), 1);
}

TEST(HelperChannel, OfferedDescriptorIsFetchedOnce)
{
    FakeHelper fake("");
    QFile shown(fake.path(QStringLiteral("shown")));
    ASSERT_TRUE(shown.open(QIODevice::WriteOnly));
    shown.write("// Sample text\n");
    shown.close();
    fake.setScript("auth\nread\nsend {id} FD\\n\nsleep 50\nsend {id} REPLY 0 -1\\n\nread\n"
                   "sendfd " + QFile::encodeName(shown.fileName()) + " \\n\neof\n");
    const auto command = tool()->issueCommand(QStringLiteral("access"));
    ASSERT_TRUE(command);
    EXPECT_EQ(command->getStatus(), 0);
    EXPECT_TRUE(command->fileDescriptorAvailable());
    const int fd = command->getFileDescriptor();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(readAll(fd).startsWith(QStringLiteral("// Sample")));
    close(fd);
    EXPECT_EQ(command->getFileDescriptor(), -1);   // handed over once: nothing more is asked for
    command->abort();                              // and nothing is left to let go of
    tool()->terminateHelper();
    EXPECT_EQ(fake.requests(), QByteArray("1 access\n1 GET_FD\n"));
}

TEST(HelperChannel, DescriptorIsFetchedOnlyWhenOffered)
{
    FakeHelper fake("auth\nreply 0 -1\nread\nsendfd /dev/null \\n\nreply 0 0\nreply 0 0\neof\n");
    int fd = -1;
    EXPECT_EQ(tool()->performCommand(QStringLiteral("access x"), &fd), 0);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);   // passed descriptors never leak into children
    close(fd);
    fd = 7;
    EXPECT_EQ(tool()->performCommand(QStringLiteral("no descriptor"), &fd), 10002);   // replied 0, offered none
    EXPECT_EQ(fd, -1);
    const auto command = tool()->issueCommand(QStringLiteral("chown"));
    ASSERT_TRUE(command);
    EXPECT_EQ(command->getStatus(), 0);
    EXPECT_EQ(tool()->getFileDescriptorForCommand(command), -1);   // at once, nothing sent
    command->abort();                                               // only marked
    EXPECT_TRUE(command->aborted());
    tool()->terminateHelper();
    EXPECT_EQ(fake.requests(), QByteArray("1 access x\n1 GET_FD\n2 no descriptor\n3 chown\n"));
}

TEST(HelperChannel, HelperExitingWithTwoCommandsRunningFailsBothAndTheNextStartsAnother)
{
    FakeHelper fake("auth\nread\nread\nexit 0\n");
    fake.setScript("auth\nreply 0 0\neof\n", 2);
    auto firstDelegate = std::make_shared<RecordingDelegate>();
    auto secondDelegate = std::make_shared<RecordingDelegate>();
    const auto first = tool()->issueCommand(QStringLiteral("one"), firstDelegate.get());
    const auto second = tool()->issueCommand(QStringLiteral("two"), secondDelegate.get());
    ASSERT_TRUE(first && second);
    const pid_t firstHelper = QZHelperToolTesting::helperProcessID(tool());
    EXPECT_EQ(first->getStatus(), 10002);
    EXPECT_EQ(second->getStatus(), 10002);
    firstDelegate.reset();   // a queued notice keeps its delegate alive
    ASSERT_TRUE(processEventsUntil([&] { return secondDelegate->finishedCount() == 1; }));
    EXPECT_EQ(secondDelegate->finishedStatuses, std::vector<qint32> { 10002 });
    EXPECT_TRUE(secondDelegate->finishedOnMain);

    EXPECT_EQ(tool()->performCommand(QStringLiteral("three")), 0);
    EXPECT_NE(QZHelperToolTesting::helperProcessID(tool()), firstHelper);
    tool()->terminateHelper();
    EXPECT_EQ(fake.requests(2), QByteArray("3 three\n"));
    EXPECT_TRUE(qztest::hasNoChildren());
}

TEST(HelperChannel, IdentifiersWrapFromTheLargestToOne)
{
    FakeHelper fake("auth\nserve\n");
    QZHelperToolTesting::setLastCommandID(tool(), 4294967294u);
    EXPECT_EQ(tool()->performCommand(QStringLiteral("a")), 0);
    EXPECT_EQ(tool()->performCommand(QStringLiteral("b")), 0);
    EXPECT_EQ(tool()->performCommand(QStringLiteral("c")), 0);
    tool()->terminateHelper();
    EXPECT_EQ(fake.requests(), QByteArray("4294967295 a\n1 b\n2 c\n"));
}

TEST(HelperChannel, ProgressTextKeepsInnerBlanksAndArrivesOnTheReceiverThread)
{
    FakeHelper fake("auth\nread\nsend {id} PROGRESS   a  b \\n\nsend {id} PROGRESS\\n\nsend {id} PROGRESS  c\\n\n"
                    "send {id} REPLY 0 0\\n\nread\nsend {id} PROGRESS main\\n\nsend {id} REPLY 0 0\\n\neof\n");
    auto delegate = std::make_shared<RecordingDelegate>();
    EXPECT_EQ(tool()->performCommand(QStringLiteral("job"), delegate.get()), 0);
    EXPECT_EQ(delegate->progressTexts, (QStringList { QStringLiteral("a  b "), QStringLiteral("c") }));
    EXPECT_EQ(delegate->progressThreads, (QStringList { QStringLiteral("Helper Receiver"), QStringLiteral("Helper Receiver") }));

    const auto onMain = QZHelperCommand::commandWithString(QStringLiteral("main"));
    onMain->setDelegate(delegate.get());
    onMain->setProgressOnMainThread(true);
    ASSERT_TRUE(tool()->issue(onMain));
    EXPECT_EQ(onMain->getStatus(), 0);
    ASSERT_TRUE(processEventsUntil([&] { return delegate->progressTexts.size() == 3; }));
    EXPECT_TRUE(delegate->progressOnMain[2]);
    ASSERT_TRUE(processEventsUntil([&] { return delegate->finishedCount() == 2; }));
    EXPECT_TRUE(delegate->finishedOnMain);
}

TEST(HelperChannel, InvalidStatusIsRaisedOnTheReceiverThread)
{
    struct Recorder : QZAssertionHandler {
        void handleFailureInMethod(const char *method, const void *, const char *file, int line,
                                   const QString &text) override
        {
            std::lock_guard guard(mutex);
            report = QStringLiteral("%1 %2:%3 %4").arg(QLatin1String(method), QLatin1String(file)).arg(line).arg(text);
        }
        std::mutex mutex;
        QString report;
    };
    static Recorder recorder;
    QZHelperToolTesting::setReceiverThreadHook([] { QZAssertionHandler::setCurrentHandler(&recorder); });
    FakeHelper fake("auth\nreply -2147483648 0\nreply 4 0\neof\n");
    EXPECT_EQ(tool()->performCommand(QStringLiteral("bad")), 10002);   // the host's handler returned
    EXPECT_EQ(tool()->performCommand(QStringLiteral("good")), 4);      // and the channel goes on
    std::lock_guard guard(recorder.mutex);
    EXPECT_EQ(recorder.report, QStringLiteral("QZHelperTool::receiveThread app-common/QZApp/helper/QZHelperTool:356 "
                                              "Helper returned invalid error!"));
}

TEST(HelperChannel, SecondInstanceRaisesOops)
{
    const QZAssertionFailure failure = qztest::expectAssertion([] { QZHelperTool second; });
    EXPECT_EQ(failure.method(), QStringLiteral("QZHelperTool::QZHelperTool"));
    EXPECT_EQ(failure.file(), QStringLiteral("app-common/QZApp/helper/QZHelperTool"));
    EXPECT_EQ(failure.line(), 73);
    EXPECT_EQ(failure.description(), QStringLiteral("Oops!"));
}

TEST(HelperChannel, HelperThatCannotStartFailsEveryCallAndIsLogged)
{
    ConsoleCapture console;
    tool()->setHelperPath(QStringLiteral("/nonexistent/helper"));
    EXPECT_EQ(tool()->performCommand(QStringLiteral("x")), 10002);
    EXPECT_EQ(tool()->issueCommand(QStringLiteral("y")), nullptr);
    ASSERT_EQ(console.lines().size(), 2);
    EXPECT_EQ(console.lines().front(), QStringLiteral("Exception caught whilst trying to start helper: "
                                                      "/nonexistent/helper: No such file or directory"));

    FakeHelper gone("exit 0\n");   // a helper that leaves at once: writes fail, no SIGPIPE
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(tool()->performCommand(QStringLiteral("x")), 10002);
    tool()->terminateHelper();
    EXPECT_TRUE(qztest::hasNoChildren());
}

TEST(HelperChannel, HelperGoneInTheMiddleOfReplyDataFailsTheCommand)
{
    FakeHelper fake("auth\nread\nsend {id} REPLY 0 10\\nabc\nexit 0\n");
    QByteArray data;
    EXPECT_EQ(tool()->performCommand(QStringLiteral("x"), &data), 10002);
    EXPECT_TRUE(data.isNull());
}

TEST(HelperChannel, AbortIsSentOnceForARunningCommand)
{
    // The fake answers the second command only after reading its abort line.
    FakeHelper fake("auth\nread\nread\nsend {1} REPLY 0 0\\n\nread\nsend {2} REPLY 9 0\\n\neof\n");
    const auto waiting = tool()->issueCommand(QStringLiteral("first"));
    const auto running = tool()->issueCommand(QStringLiteral("second"));
    ASSERT_TRUE(waiting && running);
    EXPECT_EQ(waiting->getStatus(), 0);
    running->abort();
    running->abort();
    EXPECT_EQ(running->getStatus(), 9);   // an aborted command still gets its reply
    tool()->terminateHelper();
    EXPECT_EQ(fake.requests(), QByteArray("1 first\n2 second\n2 ABORT\n"));
}

} // namespace
