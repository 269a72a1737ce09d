// The mail clients against real servers: an SMTP server with STARTTLS and login, an HTTPS form
// endpoint, and a recording xdg-email; the SMTP password from a real Secret Service.
#include "mail/MailTestSupport.h"
#include "support/QzutilRunner.h"

#include <QZMail/QZMailClient.h>
#include <QZMail/QZWebMailClient.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTemporaryDir>
#include <QTextCursor>
#include <QTextDocument>
#include <QThread>

#include <mutex>

using namespace qztest;

namespace {

// Every message Qt's handler sees, from any category, while it lives.
class LogCapture
{
public:
    LogCapture() { s_lines.clear(); m_previous = qInstallMessageHandler(&LogCapture::handle); }
    ~LogCapture() { qInstallMessageHandler(m_previous); }
    static QString all() { std::lock_guard lock(s_mutex); return s_lines.join(QLatin1Char('\n')); }

private:
    static void handle(QtMsgType, const QMessageLogContext &, const QString &message)
    {
        std::lock_guard lock(s_mutex);
        s_lines.append(message);
    }
    static inline std::mutex s_mutex;
    static inline QStringList s_lines;
    QtMessageHandler m_previous = nullptr;
};

const QString kSubject = QStringLiteral("Bug Report : Disk Tool : 1.0 (42) \u2013 d\u00e9j\u00e0 vu, a subject long enough to need "
                                        "more than one encoded word");

class MailClientTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        static QTemporaryDir config;   // QSettings keeps the first location it finds
        qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
        QSettings().clear();
        ASSERT_TRUE(m_dir.isValid());
        d = m_dir.path();
        runProgram(QStringLiteral("openssl"),
                   { QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"), QStringLiteral("rsa:2048"),
                     QStringLiteral("-nodes"), QStringLiteral("-days"), QStringLiteral("1"), QStringLiteral("-subj"),
                     QStringLiteral("/CN=127.0.0.1"), QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1"),
                     QStringLiteral("-keyout"), d + QStringLiteral("/key.pem"), QStringLiteral("-out"), d + QStringLiteral("/cert.pem") });
        // Two gzip attachments, as the reporter makes them.
        for (const char *name : { "system.log", "crash report.txt" }) {
            const QString path = d + QLatin1Char('/') + QLatin1String(name);
            QByteArray text;
            for (int i = 0; i < 2000; i++)
                text += QByteArray(name) + " line " + QByteArray::number(i) + "\n";
            writeFile(path, text);
            m_originals.append(text);
            m_gzips.append(runProgram(QStringLiteral("gzip"), { QStringLiteral("-c"), path }));
            writeFile(path + QStringLiteral(".gz"), m_gzips.last());
            m_attachments.append(path + QStringLiteral(".gz"));
        }
    }

    // A report-shaped message: bold labels, three text sections, the two attachments.
    void buildReport(QTextDocument &document) const
    {
        QTextCursor cursor(&document);
        QTextCharFormat label, body;
        label.setFontWeight(QFont::Bold);
        const auto section = [&](const char *title, const QString &text) {
            cursor.insertText(QLatin1String(title), label);
            cursor.insertText(QStringLiteral("\n"), QTextCharFormat());
            cursor.insertText(text, body);
            cursor.insertText(QStringLiteral("\n\n"), QTextCharFormat());
        };
        section("Product", QStringLiteral("Disk Tool 1.0 (42)"));
        section("Short Description", QStringLiteral("Copy stops at 99 %"));
        section("Full Description", QStringLiteral("It stops.\nEvery time, with \u00fcmlauts <and> markup & such."));
        section("Additional Information", QStringLiteral("none"));
        cursor.insertText(QStringLiteral("Attachments"), label);
        cursor.insertText(QStringLiteral("\n"), QTextCharFormat());
        for (const QString &path : m_attachments)
            QZ::insertMailAttachment(cursor, path);
        cursor.insertText(QStringLiteral("\n"), QTextCharFormat());
    }

    void configureSmtp(const char *security = "starttls", bool withCa = true) const
    {
        QSettings settings;
        settings.beginGroup(QStringLiteral("QZMail/SMTP"));
        settings.setValue(QStringLiteral("server"), QStringLiteral("127.0.0.1"));
        settings.setValue(QStringLiteral("security"), QLatin1String(security));
        settings.setValue(QStringLiteral("user"), QStringLiteral("reporter"));
        settings.setValue(QStringLiteral("sender"), QStringLiteral("app@example.org"));
        if (withCa)
            settings.setValue(QStringLiteral("caFile"), d + QStringLiteral("/cert.pem"));
    }

    // A fresh SMTP server that takes the password "right-password"; its port goes in the settings.
    std::unique_ptr<Service> startSmtp(const QString &outdir, bool closeMidMessage = false) const
    {
        QDir().mkpath(outdir);
        QStringList arguments{ QStringLiteral(MAIL_TEST_DIR "/smtp_server.py"), d + QStringLiteral("/cert.pem"),
                               d + QStringLiteral("/key.pem"), QStringLiteral("reporter"), outdir };
        if (closeMidMessage)
            arguments << QStringLiteral("close");
        auto server = std::make_unique<Service>(kPython, arguments, "right-password\n");
        EXPECT_FALSE(server->firstLine().isEmpty()) << "the SMTP server did not start";
        QSettings().setValue(QStringLiteral("QZMail/SMTP/port"), server->firstLine().toInt());
        return server;
    }

    static QJsonObject readJson(const QString &path)
    {
        return QJsonDocument::fromJson(readFile(path)).object();
    }

    QTemporaryDir m_dir;
    QString d;
    QStringList m_attachments;
    QList<QByteArray> m_originals, m_gzips;
};

QByteArray decoded(const QJsonValue &value)
{
    return QByteArray::fromBase64(value.toString().toLatin1());
}

QByteArray gunzip(const QByteArray &bytes)
{
    return runProgram(QStringLiteral("gzip"), { QStringLiteral("-dc") }, bytes);
}

TEST_F(MailClientTest, SmtpDeliversAReportIntactOverStartTlsWithLogin)
{
    KeyringSession keyring(d + QStringLiteral("/home"));
    ASSERT_FALSE(keyring.address().isEmpty()) << "the Secret Service did not start";
    qputenv("DBUS_SESSION_BUS_ADDRESS", keyring.address().toUtf8());
    keyring.store({ QStringLiteral("xdg:schema"), QStringLiteral("org.gnome.keyring.NetworkPassword"),
                    QStringLiteral("server"), QStringLiteral("127.0.0.1"), QStringLiteral("protocol"), QStringLiteral("smtp"),
                    QStringLiteral("user"), QStringLiteral("reporter") },
                  "right-password");
    configureSmtp();
    auto server = startSmtp(d + QStringLiteral("/out"));

    const std::shared_ptr<QZMailClient> client = QZMailClient::defaultClient();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->features(), QZMailClient::ThreadSafe | QZMailClient::SenderAddress);
    EXPECT_FALSE(client->supportsFeature(QZMailClient::ComposesForUser));
    QTextDocument report;
    buildReport(report);
    QZError error;
    LogCapture log;
    ASSERT_TRUE(client->deliverMessage(report, { { QStringLiteral("To"), QStringLiteral("Bug Desk <bugs@example.org>") },
                                                 { QStringLiteral("Subject"), kSubject },
                                                 { QStringLiteral("From"), QStringLiteral("R\u00e9porter <reporter@example.net>") } },
                                       &error))
            << error.message().toStdString();

    const QJsonObject received = readJson(d + QStringLiteral("/out/0.json"));
    EXPECT_EQ(received[QStringLiteral("mail_from")].toString(), QStringLiteral("reporter@example.net"));
    EXPECT_EQ(received[QStringLiteral("rcpt_tos")].toArray(), QJsonArray{ QStringLiteral("bugs@example.org") });
    const QJsonObject headers = received[QStringLiteral("headers")].toObject();
    EXPECT_EQ(headers[QStringLiteral("From")].toString(), QStringLiteral("R\u00e9porter <reporter@example.net>"));
    EXPECT_EQ(headers[QStringLiteral("To")].toString(), QStringLiteral("Bug Desk <bugs@example.org>"));
    EXPECT_EQ(headers[QStringLiteral("Subject")].toString(), kSubject);
    EXPECT_EQ(headers[QStringLiteral("MIME-Version")].toString(), QStringLiteral("1.0"));
    EXPECT_FALSE(headers[QStringLiteral("Date")].toString().isEmpty());
    EXPECT_TRUE(headers[QStringLiteral("Message-ID")].toString().endsWith(QStringLiteral("@example.net>")));

    const QJsonArray parts = received[QStringLiteral("parts")].toArray();
    ASSERT_EQ(parts.size(), 6);
    const QStringList types{ QStringLiteral("multipart/mixed"), QStringLiteral("multipart/alternative"), QStringLiteral("text/plain"),
                             QStringLiteral("text/html"), QStringLiteral("application/gzip"), QStringLiteral("application/gzip") };
    for (int i = 0; i < 6; i++)
        EXPECT_EQ(parts[i][QStringLiteral("type")].toString(), types[i]);
    const QString plain = QString::fromUtf8(decoded(parts[2][QStringLiteral("data")])).remove(QLatin1Char('\r'));
    EXPECT_TRUE(plain.startsWith(QStringLiteral("Product\nDisk Tool 1.0 (42)\n\nShort Description\nCopy stops at 99 %\n\n"
                                                "Full Description\nIt stops.\nEvery time, with \u00fcmlauts <and> markup & such.\n\n"
                                                "Additional Information\nnone\n\nAttachments\n")))
            << plain.toStdString();
    EXPECT_FALSE(plain.contains(QChar::ObjectReplacementCharacter));
    const QString html = QString::fromUtf8(decoded(parts[3][QStringLiteral("data")]));
    for (const char *label : { "Product", "Short Description", "Full Description", "Additional Information" })
        EXPECT_TRUE(html.contains(QStringLiteral("font-weight:700;\">%1</span>").arg(QLatin1String(label)))) << label;
    EXPECT_TRUE(html.contains(QStringLiteral("&lt;and&gt; markup &amp; such")));
    for (int i = 0; i < 2; i++) {
        const QJsonValue part = parts[4 + i];
        EXPECT_EQ(part[QStringLiteral("filename")].toString(), m_attachments[i].section(QLatin1Char('/'), -1));
        EXPECT_EQ(part[QStringLiteral("disposition")].toString(), QStringLiteral("attachment"));
        EXPECT_EQ(decoded(part[QStringLiteral("data")]), m_gzips[i]);
        EXPECT_EQ(gunzip(decoded(part[QStringLiteral("data")])), m_originals[i]);
    }
    // The password lives in the Secret Service only.
    EXPECT_FALSE(readFile(QSettings().fileName()).contains("right-password"));
    EXPECT_FALSE(log.all().contains(QStringLiteral("right-password")));
}

TEST_F(MailClientTest, SmtpFailuresComeBackAsTheClientsError)
{
    KeyringSession keyring(d + QStringLiteral("/home"));
    ASSERT_FALSE(keyring.address().isEmpty()) << "the Secret Service did not start";
    qputenv("DBUS_SESSION_BUS_ADDRESS", keyring.address().toUtf8());
    const auto storePassword = [&](const QByteArray &password) {
        keyring.store({ QStringLiteral("xdg:schema"), QStringLiteral("org.gnome.keyring.NetworkPassword"), QStringLiteral("server"),
                        QStringLiteral("127.0.0.1"), QStringLiteral("protocol"), QStringLiteral("smtp"), QStringLiteral("user"),
                        QStringLiteral("reporter") },
                      password);
    };
    struct Case {
        const char *name;
        QByteArray password;     // stored before the attempt; empty: none stored
        const char *to;
        bool closeMidMessage;
        const char *security;
        bool withCa;
        QZMailErrorCode code;
        const char *reasonPart;
    };
    const Case cases[] = {
        { "no password stored", "", "bugs@example.org", false, "starttls", true, QZMailErrorNoPassword, "password" },
        { "refused login", "wrong-password", "bugs@example.org", false, "starttls", true, QZMailErrorTransfer, "refused the login" },
        { "refused recipient", "right-password", "nobody@example.org", false, "starttls", true, QZMailErrorTransfer, "550" },
        { "closed mid-message", "right-password", "bugs@example.org", true, "starttls", true, QZMailErrorTransfer, "could not be sent" },
        { "untrusted certificate", "right-password", "bugs@example.org", false, "starttls", false, QZMailErrorTransfer, "could not be sent" },
        { "login without TLS", "right-password", "bugs@example.org", false, "none", true, QZMailErrorInsecureLogin, "plain connection" },
    };
    int n = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        if (!c.password.isEmpty())
            storePassword(c.password);   // replaces the item with the same attributes
        QSettings().clear();
        configureSmtp(c.security, c.withCa);
        auto server = startSmtp(d + QStringLiteral("/out%1").arg(n++), c.closeMidMessage);
        QTextDocument report;
        buildReport(report);
        QZError error;
        const std::shared_ptr<QZMailClient> client = QZMailClient::defaultClient();
        ASSERT_TRUE(client);
        EXPECT_FALSE(client->deliverMessage(report, { { QStringLiteral("To"), QLatin1String(c.to) },
                                                      { QStringLiteral("Subject"), kSubject } },
                                            &error));
        EXPECT_EQ(error.domain(), QZMailErrorDomain);
        EXPECT_EQ(error.code(), c.code);
        EXPECT_TRUE(error.message().contains(QLatin1String(c.reasonPart))) << error.message().toStdString();
        EXPECT_FALSE(error.message().contains(QStringLiteral("right-password")));
    }
}

TEST_F(MailClientTest, WebMailPostsTheReportToTheRecipientDomainsEndpoint)
{
    QDir().mkpath(d + QStringLiteral("/posts"));
    Service server(kPython, { QStringLiteral(MAIL_TEST_DIR "/https_server.py"), d + QStringLiteral("/cert.pem"),
                              d + QStringLiteral("/key.pem"), d + QStringLiteral("/posts") });
    ASSERT_FALSE(server.firstLine().isEmpty()) << "the HTTPS server did not start";
    QSettings settings;
    settings.setValue(QStringLiteral("QZMail/Web/example.org"), QStringLiteral("https://127.0.0.1:%1/report").arg(server.firstLine()));
    settings.setValue(QStringLiteral("QZMail/Web/refusing.example"), QStringLiteral("https://127.0.0.1:%1/refuse").arg(server.firstLine()));
    settings.setValue(QStringLiteral("QZMail/WebOptions/caFile"), d + QStringLiteral("/cert.pem"));

    const std::shared_ptr<QZWebMailClient> client = QZWebMailClient::mailClient();
    EXPECT_EQ(client, QZWebMailClient::mailClient());
    EXPECT_TRUE(client->shouldUseClientToDeliverTo(QStringLiteral("Bug Desk <bugs@Example.ORG>")));
    EXPECT_FALSE(client->shouldUseClientToDeliverTo(QStringLiteral("bugs@example.net")));
    EXPECT_FALSE(client->shouldUseClientToDeliverTo(QStringLiteral("no address")));
    EXPECT_EQ(client->features(), QZMailClient::ThreadSafe | QZMailClient::SenderAddress);

    QTextDocument report;
    buildReport(report);
    QZError error;
    ASSERT_TRUE(client->deliverMessage(report, { { QStringLiteral("To"), QStringLiteral("Bug Desk <bugs@example.org>") },
                                                 { QStringLiteral("Subject"), kSubject },
                                                 { QStringLiteral("From"), QStringLiteral("reporter@example.net") } },
                                       &error))
            << error.message().toStdString();
    const QJsonObject post = readJson(d + QStringLiteral("/posts/0.json"));
    EXPECT_EQ(post[QStringLiteral("path")].toString(), QStringLiteral("/report"));
    EXPECT_TRUE(post[QStringLiteral("content_type")].toString().startsWith(QStringLiteral("multipart/form-data")));
    QMap<QString, QList<QJsonObject>> fields;
    for (const QJsonValue &field : post[QStringLiteral("fields")].toArray())
        fields[field[QStringLiteral("name")].toString()].append(field.toObject());
    EXPECT_EQ(decoded(fields[QStringLiteral("to")].value(0)[QStringLiteral("data")]), "Bug Desk <bugs@example.org>");
    EXPECT_EQ(decoded(fields[QStringLiteral("from")].value(0)[QStringLiteral("data")]), "reporter@example.net");
    EXPECT_EQ(QString::fromUtf8(decoded(fields[QStringLiteral("subject")].value(0)[QStringLiteral("data")])), kSubject);
    EXPECT_TRUE(decoded(fields[QStringLiteral("text")].value(0)[QStringLiteral("data")]).startsWith("Product\nDisk Tool 1.0 (42)\n"));
    EXPECT_TRUE(decoded(fields[QStringLiteral("html")].value(0)[QStringLiteral("data")]).contains("font-weight:700;\">Product</span>"));
    ASSERT_EQ(fields[QStringLiteral("attachment")].size(), 2);
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(fields[QStringLiteral("attachment")][i][QStringLiteral("filename")].toString(),
                  m_attachments[i].section(QLatin1Char('/'), -1));
        EXPECT_EQ(decoded(fields[QStringLiteral("attachment")][i][QStringLiteral("data")]), m_gzips[i]);
    }

    EXPECT_FALSE(client->deliverMessage(report, { { QStringLiteral("To"), QStringLiteral("bugs@refusing.example") },
                                                  { QStringLiteral("Subject"), kSubject } },
                                        &error));
    EXPECT_EQ(error.code(), QZMailErrorTransfer);
    EXPECT_TRUE(error.message().contains(QStringLiteral("403")));
    EXPECT_FALSE(client->deliverMessage(report, { { QStringLiteral("To"), QStringLiteral("bugs@example.net") } }, &error));
    EXPECT_EQ(error.code(), QZMailErrorNotConfigured);
}

TEST_F(MailClientTest, ComposeOpensTheMailProgramThroughXdgEmail)
{
    // A recording xdg-email and an xdg-mime that knows a mailto: handler, first on PATH.
    const QString bin = d + QStringLiteral("/bin");
    writeFile(bin + QStringLiteral("/xdg-email"), "#!/bin/sh\nprintf '%s\\0' \"$@\" > \"$0.args.tmp\" && mv \"$0.args.tmp\" \"$0.args\"\n");
    writeFile(bin + QStringLiteral("/xdg-mime"), "#!/bin/sh\n[ -e \"$0.none\" ] || echo mail.desktop\n");
    for (const char *name : { "/xdg-email", "/xdg-mime" })
        QFile::setPermissions(bin + QLatin1String(name), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", bin.toUtf8() + ':' + path);

    const std::shared_ptr<QZMailClient> client = QZMailClient::defaultClient();
    ASSERT_TRUE(client);
    EXPECT_EQ(client->features(), QZMailClient::ComposesForUser);
    QTextDocument report;
    buildReport(report);
    QZError error;
    EXPECT_FALSE(client->deliverMessage(report, { { QStringLiteral("To"), QStringLiteral("bugs@example.org") } }, &error));
    ASSERT_TRUE(client->constructMessage(report, { { QStringLiteral("To"), QStringLiteral("Bug Desk <bugs@example.org>") },
                                                   { QStringLiteral("Subject"), kSubject },
                                                   { QStringLiteral("From"), QStringLiteral("ignored@example.net") } },
                                         &error))
            << error.message().toStdString();
    QDeadlineTimer deadline(10000);
    while (!QFile::exists(bin + QStringLiteral("/xdg-email.args")) && !deadline.hasExpired())
        QThread::msleep(20);
    QList<QByteArray> arguments = readFile(bin + QStringLiteral("/xdg-email.args")).split('\0');
    arguments.removeLast();
    const QList<QByteArray> expected{ "--subject", kSubject.toUtf8(), "--body", report.toPlainText().remove(QChar::ObjectReplacementCharacter).toUtf8(),
                                      "--attach", m_attachments[0].toUtf8(), "--attach", m_attachments[1].toUtf8(),
                                      "bugs@example.org" };
    EXPECT_EQ(arguments, expected);

    // qzutil mail --compose takes the same way.
    QFile::remove(bin + QStringLiteral("/xdg-email.args"));
    const ToolResult composed = runQzutil({ QStringLiteral("mail"), QStringLiteral("--to"), QStringLiteral("bugs@example.org"),
                                            QStringLiteral("--subject"), QStringLiteral("Logs"), QStringLiteral("--body"),
                                            QStringLiteral("See attached."), QStringLiteral("--attach"), m_attachments[0],
                                            QStringLiteral("--compose") });
    EXPECT_EQ(composed.exitCode, 0) << composed.err.toStdString();
    deadline.setRemainingTime(10000);
    while (!QFile::exists(bin + QStringLiteral("/xdg-email.args")) && !deadline.hasExpired())
        QThread::msleep(20);
    EXPECT_EQ(readFile(bin + QStringLiteral("/xdg-email.args")),
              QByteArray("--subject\0Logs\0--body\0See attached.\n\0--attach\0", 46) + m_attachments[0].toUtf8()
                      + QByteArray("\0bugs@example.org\0", 18));

    // No mailto: handler and no SMTP settings: no client at all.
    writeFile(bin + QStringLiteral("/xdg-mime.none"), "");
    EXPECT_FALSE(QZMailClient::defaultClient());
    qputenv("PATH", path);
}

} // namespace
