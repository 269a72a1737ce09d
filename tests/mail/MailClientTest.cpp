// The mail clients against real servers: SMTP with STARTTLS and login (the password from a real
// Secret Service), an HTTPS form endpoint, and a recording xdg-email.
#include "mail/MailTestSupport.h"
#include "support/QzutilRunner.h"

#include <QZMail/QZMailClient.h>
#include <QZMail/QZWebMailClient.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextCursor>
#include <QTextDocument>
#include <QThread>

#include <mutex>

using namespace qztest;

// LeakSanitizer: gio keeps small per-process allocations made inside libsecret's password lookup
// (the SMTP client's one libsecret call); stacks are unwound slowly to reach libsecret through glib.
// ThreadSanitizer: glib, gobject and gio are not instrumented, so the hand-offs between
// libsecret's caller and gio's worker threads look like races inside them.
extern "C" __attribute__((visibility("default"), used)) const char *__lsan_default_suppressions() { return "leak:libsecret-1.so\n"; }
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options() { return "fast_unwind_on_malloc=0"; }
extern "C" __attribute__((visibility("default"), used)) const char *__tsan_default_suppressions()
{
    return "called_from_lib:libglib-2.0.so.0\ncalled_from_lib:libgio-2.0.so.0\nrace:libglib-2.0.so.0\nrace:libgio-2.0.so.0\n"
           "race:libgobject-2.0.so.0\n";
}

namespace {

const QString kSubject = u"Bug Report : Disk Tool : 1.0 (42) \u2013 d\u00e9j\u00e0 vu, long enough for two encoded words"_s;
const QVariantMap kHeaders{ { u"To"_s, u"Bug Desk <bugs@example.org>"_s }, { u"Subject"_s, kSubject },
                            { u"From"_s, u"R\u00e9porter <reporter@example.net>"_s } };

QByteArray decoded(const QJsonValue &value) { return QByteArray::fromBase64(value.toString().toLatin1()); }
QString text(const QJsonValue &value) { return QString::fromUtf8(decoded(value[u"data"_s])); }

// Every message of Qt's handler, any category.
QStringList s_log;
std::mutex s_logMutex;
void recordMessage(QtMsgType, const QMessageLogContext &, const QString &message)
{
    std::lock_guard lock(s_logMutex);
    s_log.append(message);
}

class MailClientTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        scratchSettings();
        d = m_dir.path();
        makeCertificate(d);
        // Two gzip attachments, as the reporter makes them.
        for (const QString &name : { u"system.log"_s, u"crash report.txt"_s }) {
            QByteArray text;
            for (int i = 0; i < 2000; i++)
                text += name.toUtf8() + " line " + QByteArray::number(i) + "\n";
            writeFile(d + u'/' + name, text);
            m_gzips.append(runProgram(u"gzip"_s, { u"-c"_s, d + u'/' + name }));
            m_attachments.append(d + u'/' + name + u".gz"_s);
            writeFile(m_attachments.last(), m_gzips.last());
        }
        // A report-shaped message: bold labels, three text sections, the two attachments.
        QTextCursor cursor(&m_report);
        QTextCharFormat label;
        label.setFontWeight(QFont::Bold);
        for (const auto &[title, text] : { std::pair{ u"Product"_s, u"Disk Tool 1.0 (42)"_s }, { u"Short Description"_s, u"Copy stops at 99 %"_s },
                                           { u"Full Description"_s, u"It stops.\nEvery time, <and> & \u00fcmlauts."_s },
                                           { u"Additional Information"_s, u"none"_s }, { u"Attachments"_s, QString() } }) {
            cursor.insertText(title, label);
            cursor.insertText(text.isNull() ? u"\n"_s : u'\n' + text + u"\n\n"_s, QTextCharFormat());
        }
        for (const QString &path : m_attachments)
            QZ::insertMailAttachment(cursor, path);
    }

    // A fresh SMTP server that takes the login "reporter" with "right-password", and the settings for it.
    std::unique_ptr<Service> startSmtp(const QString &outdir, bool closeMidMessage = false, const QString &security = u"starttls"_s,
                                       bool withCa = true)
    {
        QSettings settings;
        return startSmtpServer(d, outdir, "right-password", { &settings }, u"reporter"_s, security,
                               withCa ? d + u"/cert.pem"_s : QString(), closeMidMessage);
    }

    QTemporaryDir m_dir;
    QString d;
    QTextDocument m_report;
    QStringList m_attachments;
    QList<QByteArray> m_gzips;
};

TEST_F(MailClientTest, SmtpDeliversAReportIntactOverStartTlsWithLogin)
{
    KeyringSession keyring(d + u"/home"_s);
    ASSERT_TRUE(keyring.use()) << "the Secret Service did not start";
    keyring.store(u"127.0.0.1"_s, u"smtp"_s, u"reporter"_s, "right-password");
    auto server = startSmtp(d + u"/out"_s);
    const std::shared_ptr<QZMailClient> client = QZMailClient::defaultClient();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->features(), QZMailClient::ThreadSafe | QZMailClient::SenderAddress);
    QZError error;
    const QtMessageHandler previous = qInstallMessageHandler(recordMessage);
    const bool delivered = client->deliverMessage(m_report, kHeaders, &error);
    qInstallMessageHandler(previous);
    ASSERT_TRUE(delivered) << error.message().toStdString();

    // Python's MIME parser read what arrived.
    const QJsonObject received = QJsonDocument::fromJson(readFile(d + u"/out/0.json"_s)).object();
    EXPECT_EQ(received[u"mail_from"_s], u"reporter@example.net"_s);
    EXPECT_EQ(received[u"rcpt_tos"_s], QJsonArray{ u"bugs@example.org"_s });
    const QJsonObject headers = received[u"headers"_s].toObject();
    for (const char *name : { "From", "To", "Subject" })
        EXPECT_EQ(headers[QLatin1String(name)], kHeaders[QLatin1String(name)].toString()) << name;
    EXPECT_EQ(headers[u"MIME-Version"_s], u"1.0"_s);
    EXPECT_TRUE(QDateTime::fromString(headers[u"Date"_s].toString(), Qt::RFC2822Date).isValid());
    EXPECT_TRUE(headers[u"Message-ID"_s].toString().endsWith(u"@example.net>"_s));
    const QJsonArray parts = received[u"parts"_s].toArray();
    ASSERT_EQ(parts.size(), 6);
    QStringList types;
    for (const QJsonValue &part : parts)
        types << part[u"type"_s].toString();
    EXPECT_EQ(types, u"multipart/mixed multipart/alternative text/plain text/html application/gzip application/gzip"_s.split(u' '));
    EXPECT_EQ(text(parts[2]).remove(u'\r'),
              u"Product\nDisk Tool 1.0 (42)\n\nShort Description\nCopy stops at 99 %\n\nFull Description\nIt stops.\n"
              "Every time, <and> & \u00fcmlauts.\n\nAdditional Information\nnone\n\nAttachments\n"_s);
    const QString html = text(parts[3]);
    for (const char *label : { "Product", "Short Description", "Full Description", "Additional Information" })
        EXPECT_TRUE(html.contains(u"font-weight:700;\">%1</span>"_s.arg(QLatin1String(label)))) << label;
    EXPECT_TRUE(html.contains(u"&lt;and&gt; &amp; \u00fcmlauts"_s));
    for (int i = 0; i < 2; i++)   // the reporter's gzip files, byte for byte
        EXPECT_TRUE(parts[4 + i][u"filename"_s] == m_attachments[i].section(u'/', -1) && parts[4 + i][u"disposition"_s] == u"attachment"_s
                    && decoded(parts[4 + i][u"data"_s]) == m_gzips[i]) << i;
    // The password lives in the Secret Service only.
    EXPECT_FALSE(readFile(QSettings().fileName()).contains("right-password"));
    EXPECT_FALSE(s_log.join(u'\n').contains(u"right-password"_s));
}

TEST_F(MailClientTest, SmtpFailuresComeBackAsTheClientsError)
{
    KeyringSession keyring(d + u"/home"_s);
    ASSERT_TRUE(keyring.use()) << "the Secret Service did not start";
    const struct {
        const char *name;
        QByteArray password;   // stored before the attempt (replacing the last one); empty: none yet
        const char *to, *security;
        bool closeMidMessage, withCa;
        QZMailErrorCode code;
        const char *reasonPart;
    } cases[] = {
        { "no password stored", "", "bugs@example.org", "starttls", false, true, QZMailErrorNoPassword, "password" },
        { "refused login", "wrong-password", "bugs@example.org", "starttls", false, true, QZMailErrorTransfer, "refused the login" },
        { "refused recipient", "right-password", "nobody@example.org", "starttls", false, true, QZMailErrorTransfer, "550" },
        { "closed mid-message", "right-password", "bugs@example.org", "starttls", true, true, QZMailErrorTransfer, "could not be sent" },
        { "untrusted certificate", "right-password", "bugs@example.org", "starttls", false, false, QZMailErrorTransfer, "certificate" },
        { "login without TLS", "right-password", "bugs@example.org", "none", false, true, QZMailErrorInsecureLogin, "plain connection" },
    };
    int n = 0;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        if (!c.password.isEmpty())
            keyring.store(u"127.0.0.1"_s, u"smtp"_s, u"reporter"_s, c.password);
        auto server = startSmtp(d + u"/out%1"_s.arg(n++), c.closeMidMessage, QLatin1String(c.security), c.withCa);
        QZError error;
        EXPECT_FALSE(QZMailClient::defaultClient()->deliverMessage(
                m_report, { { u"To"_s, QLatin1String(c.to) }, { u"Subject"_s, kSubject } }, &error));
        EXPECT_EQ(error.domain(), QZMailErrorDomain);
        EXPECT_EQ(error.code(), c.code);
        EXPECT_TRUE(error.message().contains(QLatin1String(c.reasonPart))) << error.message().toStdString();
    }
}

TEST_F(MailClientTest, WebMailPostsTheReportToTheRecipientDomainsEndpoint)
{
    QDir().mkpath(d + u"/posts"_s);
    const auto server = startServer(u"https"_s, d, { d + u"/posts"_s });
    QSettings settings;
    settings.setValue(u"QZMail/Web/example.org"_s, u"https://127.0.0.1:%1/report"_s.arg(server->firstLine()));
    settings.setValue(u"QZMail/Web/refusing.example"_s, u"https://127.0.0.1:%1/refuse"_s.arg(server->firstLine()));
    settings.setValue(u"QZMail/WebOptions/caFile"_s, d + u"/cert.pem"_s);

    const std::shared_ptr<QZWebMailClient> client = QZWebMailClient::mailClient();
    EXPECT_EQ(client, QZWebMailClient::mailClient());
    EXPECT_TRUE(client->shouldUseClientToDeliverTo(u"Bug Desk <bugs@Example.ORG>"_s));
    EXPECT_FALSE(client->shouldUseClientToDeliverTo(u"bugs@example.net"_s));
    EXPECT_EQ(client->features(), QZMailClient::ThreadSafe | QZMailClient::SenderAddress);
    QZError error;
    ASSERT_TRUE(client->deliverMessage(m_report, kHeaders, &error)) << error.message().toStdString();
    const QJsonObject post = QJsonDocument::fromJson(readFile(d + u"/posts/0.json"_s)).object();
    EXPECT_TRUE(post[u"content_type"_s].toString().startsWith(u"multipart/form-data"_s));
    QMap<QString, QList<QJsonValue>> fields;
    for (const QJsonValue &field : post[u"fields"_s].toArray())
        fields[field[u"name"_s].toString()].append(field);
    for (const auto &[field, header] : { std::pair{ "to", "To" }, { "from", "From" }, { "subject", "Subject" } })
        EXPECT_EQ(text(fields[QLatin1String(field)].value(0)), kHeaders[QLatin1String(header)]);
    EXPECT_TRUE(text(fields[u"text"_s].value(0)).startsWith(u"Product\nDisk Tool 1.0 (42)\n"_s));
    EXPECT_TRUE(text(fields[u"html"_s].value(0)).contains(u"font-weight:700;\">Product</span>"_s));
    ASSERT_EQ(fields[u"attachment"_s].size(), 2);
    for (int i = 0; i < 2; i++)
        EXPECT_TRUE(fields[u"attachment"_s][i][u"filename"_s] == m_attachments[i].section(u'/', -1)
                    && decoded(fields[u"attachment"_s][i][u"data"_s]) == m_gzips[i]);
    EXPECT_FALSE(client->deliverMessage(m_report, { { u"To"_s, u"bugs@refusing.example"_s } }, &error));
    EXPECT_TRUE(error.code() == QZMailErrorTransfer && error.message().contains(u"403"_s)) << error.message().toStdString();
}

TEST_F(MailClientTest, ComposeOpensTheMailProgramThroughXdgEmail)
{
    // A recording xdg-email and an xdg-mime that knows a mailto: handler, first on PATH.
    const QString bin = d + u"/bin"_s, record = bin + u"/xdg-email.args"_s;
    writeScript(bin + u"/xdg-email"_s, "printf '%s\\0' \"$@\" > \"$0.tmp\" && mv \"$0.tmp\" \"$0.args\"\n");
    writeScript(bin + u"/xdg-mime"_s, "[ -e \"$0.none\" ] || echo mail.desktop\n");
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", bin.toUtf8() + ':' + path);
    // The arguments of the last xdg-email run, each ended by a NUL.
    const auto recorded = [&] {
        for (QDeadlineTimer deadline(10000); !QFile::exists(record) && !deadline.hasExpired();)
            QThread::msleep(20);
        const QByteArray bytes = readFile(record);
        QFile::remove(record);
        return QString::fromUtf8(bytes).split(QChar());
    };

    const std::shared_ptr<QZMailClient> client = QZMailClient::defaultClient();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->features(), QZMailClient::ComposesForUser);
    QZError error;
    EXPECT_FALSE(client->deliverMessage(m_report, kHeaders, &error));
    ASSERT_TRUE(client->constructMessage(m_report, kHeaders, &error)) << error.message().toStdString();
    const QString body = m_report.toPlainText().remove(QChar::ObjectReplacementCharacter);
    EXPECT_EQ(recorded(), QStringList({ u"--subject"_s, kSubject, u"--body"_s, body, u"--attach"_s, m_attachments[0], u"--attach"_s,
                                        m_attachments[1], u"bugs@example.org"_s, u""_s }));
    // qzutil mail --compose takes the same way.
    const ToolResult composed = runQzutil({ u"mail"_s, u"--to"_s, u"bugs@example.org"_s, u"--subject"_s, u"Logs"_s, u"--body"_s,
                                            u"See attached."_s, u"--attach"_s, m_attachments[0], u"--compose"_s });
    EXPECT_EQ(composed.exitCode, 0) << composed.err.toStdString();
    EXPECT_EQ(recorded(), QStringList({ u"--subject"_s, u"Logs"_s, u"--body"_s, u"See attached.\n"_s, u"--attach"_s, m_attachments[0],
                                        u"bugs@example.org"_s, u""_s }));

    // No mailto: handler and no SMTP settings: no client at all.
    writeFile(bin + u"/xdg-mime.none"_s, "");
    EXPECT_FALSE(QZMailClient::defaultClient());
    qputenv("PATH", path);
}

} // namespace
