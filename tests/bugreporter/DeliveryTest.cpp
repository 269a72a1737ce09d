// The whole path: Send in the window to a message in a real SMTP server's mailbox, Save to an
// RTFD package that a real RTF reader opens, and qzutil report doing both without a display.
#include "bugreporter/BugReporterTestSupport.h"
#include "support/QzutilRunner.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPushButton>
#include <QSettings>

using namespace qztest;

namespace {

class DeliveryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        makeCertificate(home.d);
        r->setProductBundle(diskTool());
        r->setOmitSystemProfile(true);
        for (int i = 0; i < 2; i++) {
            m_texts.append(QByteArray());
            for (int line = 0; line < 3000; line++)
                m_texts.last() += "log " + QByteArray::number(i) + " line " + QByteArray::number(line) + "\n";
            m_logs.append(home.path(u"log%1.txt"_s.arg(i)));
            writeFile(m_logs.last(), m_texts.last());
        }
    }

    // An SMTP server without a login, in this program's settings and qzutil's.
    std::unique_ptr<Service> startSmtp()
    {
        QSettings ours, qzutil(QCoreApplication::organizationName(), u"qzutil"_s);
        return startSmtpServer(home.d, home.path(u"out"_s), "unused", { &ours, &qzutil }, {}, u"starttls"_s, home.path(u"cert.pem"_s));
    }

    QJsonObject receivedMessage()
    {
        const QString path = home.path(u"out/0.json"_s);
        EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(path); }, 20000));
        return QJsonDocument::fromJson(readFile(path)).object();
    }

    // The message's text part and its attachments expanded, in order.
    static std::pair<QString, QList<QByteArray>> contents(const QJsonObject &message)
    {
        QString text;
        QList<QByteArray> files;
        for (const QJsonValue &value : message[u"parts"_s].toArray()) {
            const QJsonObject part = value.toObject();
            const QByteArray data = QByteArray::fromBase64(part[u"data"_s].toString().toLatin1());
            if (part[u"type"_s].toString() == u"text/plain"_s)
                text = QString::fromUtf8(data).remove(u'\r');   // lines end in CRLF on the wire
            else if (part[u"disposition"_s].toString() == u"attachment"_s)
                files.append(runProgram(u"gzip"_s, { u"-dc"_s }, data));
        }
        return { text, files };
    }

    ScratchHome home;
    QZBugReporter *const r = QZBugReporter::sharedBugReporter();
    QStringList m_logs;
    QList<QByteArray> m_texts;
};

TEST_F(DeliveryTest, SendInTheWindowDeliversTheReportToAnSmtpServer)
{
    auto server = startSmtp();
    RecordingDelegate delegate;
    r->setDelegate(&delegate);
    r->setLogFiles(m_logs);
    r->setReportType(1);
    r->showWindow();
    QWidget *panel = r->bugReportPanel();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(panel));
    QTest::keyClicks(panel->findChild<QWidget *>(u"shortDescription"_s), u"Copy stops at 99 %"_s);
    QTest::keyClicks(panel->findChild<QWidget *>(u"emailAddress"_s), u"user@example.net"_s);
    QTest::mouseClick(panel->findChild<QPushButton *>(u"send"_s), Qt::LeftButton);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !r->busy(); }, 60000));
    r->setDelegate(nullptr);
    ASSERT_EQ(delegate.notices.size(), 1u);
    EXPECT_FALSE(delegate.notices[0]) << delegate.notices[0]->message().toStdString();
    EXPECT_FALSE(panel->isVisible());
    const QJsonObject message = receivedMessage();
    const QJsonObject headers = message[u"headers"_s].toObject();
    EXPECT_EQ(headers[u"Subject"_s].toString(), u"Bug Report : Disk Tool : 1.0 (42)"_s);
    EXPECT_EQ(headers[u"To"_s].toString(), u"Disk Tool Bugs <bugs@example.org>"_s);
    EXPECT_EQ(headers[u"From"_s].toString(), u"user@example.net"_s);
    const auto [text, files] = contents(message);
    EXPECT_TRUE(text.contains(u"Report Type\nMinor Bug\n\nShort Description\nCopy stops at 99 %\n\nAttachments\n"_s))
            << text.toStdString();
    EXPECT_EQ(files, m_texts);
}

TEST_F(DeliveryTest, SavedReportIsAnRtfdPackageThatUnrtfReads)
{
    r->setLogFiles(m_logs);
    r->setReportType(2);
    r->setFullDescription(u"It stops.\nEvery time {braces} and \\backslashes\\."_s);
    r->showWindow();
    const QString package = home.path(u"report.rtfd"_s);
    r->savePanelDidEnd(0, package);   // cancelled: nothing happens
    EXPECT_FALSE(r->busy());
    r->savePanelDidEnd(1, package);
    EXPECT_EQ(r->saveName(), package);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !r->busy(); }, 60000));
    EXPECT_FALSE(r->bugReportPanel()->isVisible());

    const QStringList entries = QDir(package).entryList({ u"*.gz"_s }, QDir::Files, QDir::Name);
    ASSERT_EQ(entries.size(), 2) << entries.join(u' ').toStdString();
    EXPECT_EQ(QList<QByteArray>({ gunzip(package + u'/' + entries[0]), gunzip(package + u'/' + entries[1]) }), m_texts);
    const QString text = QString::fromUtf8(runProgram(u"unrtf"_s, { u"--text"_s, package + u"/TXT.rtf"_s }));
    EXPECT_TRUE(text.contains(u"Product\nDisk Tool 1.0 (42)\n\nReport Type\nMajor Bug\n\nFull Description\nIt stops.\n"
                              "Every time {braces} and \\backslashes\\.\n\nAttachments\n"_s))
            << text.toStdString();
    EXPECT_TRUE(text.contains(entries[0]) && text.contains(entries[1])) << "the text names the attached files";
}

TEST_F(DeliveryTest, QzutilReportSavesAndSendsWithoutADisplay)
{
    for (const char *variable : { "DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM" })
        qunsetenv(variable);   // for the children only: this process's platform is chosen already
    const auto qzutil = [&](const QStringList &arguments) {
        return runQzutil(QStringList{ u"report"_s, u"--type"_s, u"1"_s, u"--short"_s, u"From the command line"_s, u"--info"_s, u"ext4"_s,
                           u"--log"_s, m_logs[0], u"--omit-system-profile"_s } + arguments);
    };
    const QString package = home.path(u"cli.rtfd"_s);
    const ToolResult saved = qzutil({ u"--save"_s, package });
    ASSERT_EQ(saved.exitCode, 0) << saved.err.toStdString();
    const QString text = QString::fromUtf8(runProgram(u"unrtf"_s, { u"--text"_s, package + u"/TXT.rtf"_s }));
    EXPECT_TRUE(text.contains(u"Short Description\nFrom the command line\n\nAdditional Information\next4\n"_s)) << text.toStdString();

    auto server = startSmtp();
    ToolResult sent = qzutil({ u"--send"_s, u"--to"_s, u"Desk <desk@example.org>"_s });
    ASSERT_EQ(sent.exitCode, 0) << sent.err.toStdString();
    const QJsonObject message = receivedMessage();
    EXPECT_EQ(message[u"headers"_s].toObject()[u"To"_s].toString(), u"Desk <desk@example.org>"_s);
    EXPECT_EQ(contents(message).second, QList<QByteArray>{ m_texts[0] });

    QSettings(QCoreApplication::organizationName(), u"qzutil"_s).remove(u"QZMail/SMTP"_s);
    sent = qzutil({ u"--send"_s, u"--to"_s, u"desk@example.org"_s });
    EXPECT_EQ(sent.exitCode, 1);
    EXPECT_TRUE(sent.err.endsWith("qzutil: no e-mail client configured\n")) << sent.err.toStdString();
    EXPECT_EQ(qzutil({ u"--send"_s }).exitCode, 2);   // no --to
}

} // namespace
