// The reporter object and its window, driven with real input on a real event loop, with real
// send threads handing reports to a recording mail client.
#include "bugreporter/BugReporterTestSupport.h"
#include "support/TestSupport.h"

#include <QZApp/QZAssertionHandler.h>

#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QTextBlock>
#include <QTimer>

using namespace qztest;

namespace {

const QString kTemplate =
        u"This area is free-format, so you can say what you like, but for bug reports, please ensure that you supply at "
        "least the information requested in the template below:\n\n* 1. What you did\n\nPlease describe exactly what you "
        "did, preferably using step-by-step instructions.\n\n* 2. What happened?\n\nPlease describe exactly what "
        "happened.\n\n* 3. How did this differ from what you expected?\n\nPlease describe what you expected and/or how "
        "the above behaviour differed from your expectations.\n"_s;

class WindowTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        r = QZBugReporter::sharedBugReporter();
        r->setDelegate(&delegate);
        r->setProductBundle(diskTool());
        r->setOmitSystemProfile(true);
    }
    void TearDown() override
    {
        // A send thread still running must not outlive the test's objects.
        EXPECT_TRUE(QTest::qWaitFor([this] { return !r->busy(); }, 20000));
        r->setDelegate(nullptr);
    }

    template<typename T = QWidget>
    T *control(const char *name) const
    {
        return r->bugReportPanel()->findChild<T *>(QLatin1String(name));
    }
    void click(const char *name) { QTest::mouseClick(control<QPushButton>(name), Qt::LeftButton); }

    ScratchHome home;
    RecordingDelegate delegate;
    QZBugReporter *r = nullptr;
};

TEST_F(WindowTest, OneSharedReporterAndASecondOneIsAFault)
{
    const QZAssertionFailure failure = expectAssertion([] { QZBugReporter second; });
    EXPECT_EQ(failure.description(), u"Oops!"_s);
    EXPECT_EQ(failure.file(), u"app-common/QZApp/QZBugReporter"_s);
    EXPECT_EQ(failure.line(), 64);
    EXPECT_EQ(QZBugReporter::sharedBugReporter(), r);
    EXPECT_EQ(r->appName(), u"Disk Tool"_s);
}

TEST_F(WindowTest, DefaultReportStartsFromTheTemplateAndControlsFollowTheFieldsBothWays)
{
    r->setShortDescription(u"left over"_s);
    r->setReportType(2);
    r->setAdditionalInfo(u"kept"_s);
    r->doDefaultBugReport();
    ASSERT_TRUE(r->bugReportPanel());
    ASSERT_TRUE(QTest::qWaitForWindowExposed(r->bugReportPanel()));
    EXPECT_TRUE(r->shortDescription().isNull());
    EXPECT_EQ(r->fullDescription(), kTemplate);
    EXPECT_EQ(r->reportType(), 0);
    EXPECT_EQ(r->additionalInfo(), u"kept"_s);
    EXPECT_EQ(control<QPlainTextEdit>("fullDescription")->toPlainText(), kTemplate);
    EXPECT_EQ(control<QComboBox>("reportType")->currentText(), u"Feature Request"_s);

    // Typing reaches the fields; fields set by the program reach the controls.
    control<QLineEdit>("shortDescription")->setFocus();
    QTest::keyClicks(control("shortDescription"), u"Copy stops at 99 %"_s);
    EXPECT_EQ(r->shortDescription(), u"Copy stops at 99 %"_s);
    QTest::mouseClick(control("omitSystemProfile"), Qt::LeftButton, {}, QPoint(5, 5));
    EXPECT_FALSE(r->omitSystemProfile());
    r->setReportType(3);
    EXPECT_EQ(control<QComboBox>("reportType")->currentText(), u"Crasher Bug"_s);
    r->setCurrentStatus(u"Compressing\u2026"_s);
    EXPECT_EQ(control<QLabel>("currentStatus")->text(), u"Compressing\u2026"_s);

    // On a visible window the report stays as the user left it.
    r->doDefaultBugReport();
    EXPECT_EQ(r->shortDescription(), u"Copy stops at 99 %"_s);
    EXPECT_EQ(r->reportType(), 3);
}

TEST_F(WindowTest, EmailAreaFollowsTheClientAndTheWindowChangesHeightOnce)
{
    // The user's mail program knows an address; the lookup fills the field once only.
    writeFile(home.path(u"home/.thunderbird/profiles.ini"_s), "[Profile0]\nIsRelative=1\nPath=p\nDefault=1\n");
    writeFile(home.path(u"home/.thunderbird/p/prefs.js"_s),
              "user_pref(\"mail.accountmanager.accounts\", \"account1\");\nuser_pref(\"mail.account.account1.identities\", \"id1\");\n"
              "user_pref(\"mail.identity.id1.useremail\", \"user@example.net\");\n");
    r->setMailClient(std::make_shared<RecordingClient>(0));
    r->showWindow();
    QWidget *panel = r->bugReportPanel();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(panel));
    QWidget *area = control("emailContainer");
    EXPECT_TRUE(area->isHidden());
    EXPECT_TRUE(r->emailAddress().isNull());
    const int shortHeight = panel->height();
    r->showWindow();
    EXPECT_EQ(panel->height(), shortHeight);

    r->setMailClient(std::make_shared<RecordingClient>(QZMailClient::SenderAddress));
    r->showWindow();
    EXPECT_FALSE(area->isHidden());
    EXPECT_EQ(panel->height(), shortHeight + area->height());
    EXPECT_EQ(r->emailAddress(), u"user@example.net"_s);
    EXPECT_EQ(control<QLineEdit>("emailAddress")->text(), u"user@example.net"_s);
    const int tallHeight = panel->height();
    r->setEmailAddress(QString());
    r->showWindow();
    EXPECT_EQ(panel->height(), tallHeight);
    EXPECT_TRUE(r->emailAddress().isNull()) << "the address was looked up a second time";
}

TEST_F(WindowTest, KeyboardReachesTheControlsAndTheWindowRefusesToCloseWhileBusy)
{
    r->setMailClient(std::make_shared<RecordingClient>(0));   // no e-mail area
    r->showWindow();
    QWidget *panel = r->bugReportPanel();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(panel));
    EXPECT_EQ(control<QPushButton>("save")->text(), u"Sa&ve\u2026"_s);
    control("reportType")->setFocus();   // Tab walks the form in order
    QStringList order;
    for (int i = 0; i < 5; i++, QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab))
        order.append(QApplication::focusWidget()->objectName());
    EXPECT_EQ(order, QStringList({ u"reportType"_s, u"shortDescription"_s, u"fullDescription"_s, u"additionalInfo"_s,
                                   u"omitSystemProfile"_s }));
    QTest::keyClick(panel, Qt::Key_U, Qt::AltModifier);   // a mnemonic reaches its field
    EXPECT_EQ(QApplication::focusWidget(), control("shortDescription"));

    panel->resize(600, 620);
    r->setBusy(true);
    EXPECT_TRUE(control("progressIndicator")->isVisible());
    EXPECT_FALSE(control("send")->isEnabled());
    EXPECT_TRUE(control<QPlainTextEdit>("fullDescription")->isReadOnly());
    EXPECT_TRUE(control("abort")->isEnabled());
    EXPECT_FALSE(panel->close());
    QTest::keyClick(panel, Qt::Key_Escape);   // Abort, which cannot abort: no job can be aborted
    EXPECT_TRUE(panel->isVisible());
    r->setBusy(false);
    EXPECT_FALSE(control("progressIndicator")->isVisible());
    QTest::keyClick(panel, Qt::Key_Escape);   // Abort while idle closes
    EXPECT_FALSE(panel->isVisible());
    EXPECT_TRUE(QSettings().contains(u"Bug Report Panel"_s));
}

TEST_F(WindowTest, AbortInsideTheWaitSendsNothingAndLaterIsIgnored)
{
    auto client = std::make_shared<RecordingClient>(QZMailClient::ThreadSafe);
    r->setMailClient(client);
    r->setAllowTimeToAbort(true);
    r->showWindow();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(r->bugReportPanel()));
    const quint32 job = r->currentJob();
    click("send");
    EXPECT_TRUE(r->busy());
    EXPECT_EQ(r->currentJob(), job + 1);
    QTest::qWait(500);
    click("abort");
    EXPECT_FALSE(r->busy());
    EXPECT_EQ(r->currentJob(), job + 2);
    EXPECT_TRUE(r->bugReportPanel()->isVisible());
    QTest::qWait(4500);   // past the end of the wait
    EXPECT_TRUE(client->calls().empty());
    EXPECT_TRUE(delegate.notices.empty());
    EXPECT_FALSE(QApplication::activeModalWidget());
    EXPECT_TRUE(r->bugReportPanel()->isVisible());

    // Without the wait, an abort once the client has the report is ignored.
    client->hold();
    r->setAllowTimeToAbort(false);
    click("send");
    ASSERT_TRUE(QTest::qWaitFor([&] { return client->calls().size() == 1; }, 10000));
    EXPECT_TRUE(QTest::qWaitFor([&] { return r->currentStatus() == u"Sending\u2026"_s; }, 5000));
    EXPECT_FALSE(r->canAbort());
    const quint32 sending = r->currentJob();
    click("abort");
    EXPECT_TRUE(r->busy());
    EXPECT_EQ(r->currentJob(), sending);
    client->release();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !r->busy(); }, 10000));
    EXPECT_FALSE(r->bugReportPanel()->isVisible());
    ASSERT_EQ(delegate.notices.size(), 1u);
    EXPECT_FALSE(delegate.notices[0]);
}

// Which operation each kind of client gets, on which thread, with which headers.
TEST_F(WindowTest, ClientsGetTheMessageOnTheThreadTheyAllowWithTheStatedHeaders)
{
    const struct {
        const char *what;
        int features;
        QString email;
        bool constructed, onMainThread;
    } cases[] = {
        { "a thread-safe client delivers on the send thread", QZMailClient::ThreadSafe, u"me@example.net"_s, false, false },
        { "a client without feature 16 is used on the main thread", 0, QString(), false, true },
        { "a composing client constructs", QZMailClient::ComposesForUser | QZMailClient::ThreadSafe, u""_s, true, false },
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        auto client = std::make_shared<RecordingClient>(c.features);
        r->setMailClient(client);
        r->setEmailAddress(c.email);
        r->setShortDescription(u"Copy stops"_s);
        r->showWindow();
        click("send");
        ASSERT_TRUE(QTest::qWaitFor([&] { return !r->busy(); }, 20000));
        ASSERT_EQ(client->calls().size(), 1u);
        const RecordingClient::Call call = client->calls()[0];
        EXPECT_EQ(call.constructed, c.constructed);
        EXPECT_EQ(call.onMainThread, c.onMainThread);
        EXPECT_EQ(call.headers.value(u"To"_s).toString(), u"Disk Tool Bugs <bugs@example.org>"_s);
        EXPECT_EQ(call.headers.value(u"Subject"_s).toString(), u"Bug Report : Disk Tool : 1.0 (42)"_s);
        EXPECT_EQ(call.headers.contains(u"From"_s), !c.email.isEmpty());
        EXPECT_EQ(call.headers.value(u"From"_s).toString(), c.email);
        EXPECT_EQ(call.text, u"Product\nDisk Tool 1.0 (42)\n\nReport Type\nFeature Request\n\nShort Description\nCopy stops\n"_s);
        EXPECT_FALSE(r->bugReportPanel()->isVisible());
    }
}

TEST_F(WindowTest, FailuresAreShownInAnAlertUnlessTheDelegateHandlesThem)
{
    delegate.handles = false;
    auto failing = std::make_shared<RecordingClient>(QZMailClient::ThreadSafe);
    failing->failWith(QZError(u"QZMailErrorDomain"_s, 5, u"refused"_s));
    const struct {
        const char *what;
        std::shared_ptr<QZMailClient> client;
        QString title, text;
    } cases[] = {
        { "no client at all", nullptr, u"No e-mail client configured"_s,
          u"Disk Tool cannot send e-mail because there is no configured e-mail client on this machine. Please save the "
          "bug report and e-mail it later."_s },
        { "a client that fails", failing, u"We were unable to send/compose the report."_s,
          u"There was a problem composing/sending the report. Please contact our support team directly."_s },
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        r->setMailClient(c.client);   // none set: the default client, and this scratch home has none
        r->showWindow();
        QString title, text;
        QTimer watcher;   // answers the alert
        QObject::connect(&watcher, &QTimer::timeout, [&] {
            if (auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget())) {
                title = box->windowTitle();
                text = box->text();
                box->accept();
            }
        });
        watcher.start(20);
        click("send");
        ASSERT_TRUE(QTest::qWaitFor([&] { return !r->busy(); }, 20000));
        EXPECT_EQ(title, c.title);
        EXPECT_EQ(text, c.text);
        EXPECT_TRUE(r->bugReportPanel()->isVisible()) << "the report stays for saving";
    }
    ASSERT_EQ(delegate.notices.size(), 2u);
    EXPECT_EQ(delegate.notices[0]->domain(), u"QZBugReporterErrorDomain"_s);
    EXPECT_EQ(delegate.notices[0]->code(), 1);
    EXPECT_EQ(delegate.notices[1]->code(), 5);
}

// The message: labels bold, sections only when they have text, the type's name, attachments.
TEST_F(WindowTest, MessageHasItsSectionsAndAttachmentCharacters)
{
    r->setReportType(7);
    r->setShortDescription(QString());
    r->setFullDescription(u""_s);
    std::unique_ptr<QTextDocument> bare = r->composeMessage({});
    EXPECT_EQ(bare->toPlainText(), u"Product\nDisk Tool 1.0 (42)\n\nReport Type\nUnknown Bug Type\n"_s);
    const QTextBlock first = bare->begin();
    EXPECT_EQ(first.begin().fragment().charFormat().fontWeight(), QFont::Bold);
    EXPECT_EQ(first.next().begin().fragment().charFormat().fontWeight(), QFont::Normal);

    r->setReportType(1);
    r->setAdditionalInfo(u"ext4 on a USB disk"_s);
    const QStringList files{ home.path(u"a.log.gz"_s), home.path(u"b.spx.gz"_s) };
    for (const QString &file : files)
        writeFile(file, "a");
    std::unique_ptr<QTextDocument> full = r->composeMessage(files);
    const QString text = full->toPlainText();
    EXPECT_TRUE(text.startsWith(u"Product\nDisk Tool 1.0 (42)\n\nReport Type\nMinor Bug\n\nAdditional Information\n"
                                "ext4 on a USB disk\n\nAttachments\nThe files attached"_s))
            << text.toStdString();
    EXPECT_TRUE(text.contains(u"gunzip"_s)) << "the English text tells how to expand the files here";
    EXPECT_TRUE(text.endsWith(u"\n\n\uFFFC\uFFFC\n"_s));
    EXPECT_EQ(QZ::mailAttachments(*full), files);
}

// The window as a person sees it, empty and busy. With QZ_SCREENSHOT_DIR set (docs/screenshots
// is made this way under Xvfb, see its README) the pictures are written there.
TEST_F(WindowTest, WindowLooksTheSameEmptyAndBusy)
{
    r->setMailClient(std::make_shared<RecordingClient>(QZMailClient::SenderAddress));
    r->setEmailAddress(u"user@example.net"_s);
    r->setOmitSystemProfile(false);
    r->showWindow();
    QWidget *panel = r->bugReportPanel();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(panel));
    const auto shoot = [&, folder = qEnvironmentVariable("QZ_SCREENSHOT_DIR")](const QString &name) {
        QTest::qWait(300);
        const QPixmap picture = panel->grab();
        EXPECT_GE(picture.width(), panel->minimumWidth());
        EXPECT_TRUE(folder.isEmpty() || picture.save(folder + u'/' + name)) << name.toStdString();
    };
    shoot(u"bug-report-empty.png"_s);

    r->setReportType(QZBugReporter::MinorBug);
    r->setShortDescription(u"Copying a folder to a FAT disk stops at 99 %"_s);
    r->setFullDescription(u"* 1. What you did\n\nCopied ~/Photos to the USB disk \"BACKUP\".\n\n* 2. What happened?\n\n"
                          "The copy stopped at 99 % and the disk could not be ejected.\n"_s);
    r->setAdditionalInfo(u"The disk is formatted FAT32."_s);
    r->setBusy(true);
    r->setCurrentStatus(u"Generating system profile\u2026"_s);
    shoot(u"bug-report-busy.png"_s);
    r->setBusy(false);
}

} // namespace
