// The current user's e-mail address from the real sources: gnome-keyring-daemon's Secret
// Service, Thunderbird and Evolution files in a scratch HOME, and accounts-daemon on a private
// system bus.
#include "mail/MailTestSupport.h"
#include "support/QzutilRunner.h"
#include "support/TestSupport.h"

#include <QZApp/QZEmailAddress.h>
#include <QZApp/QZEmailAddress_p.h>

#include <QDBusError>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

using namespace qztest;
using QZ::detail::UserRecordBranch;

namespace {

QString lookUp()
{
    const QZ::detail::EmailAddressLookup found = QZ::detail::lookUpEmailAddressForCurrentUser();
    return found.address.isNull() ? u"(null)"_s : found.address + u" from "_s + found.source;
}

// accounts-daemon on a private system bus of its own (a scratch socket; the state folder is
// the test process's own tmpfs); the root user's record holds `email`.
class AccountsService
{
public:
    AccountsService(const QString &dir, const QByteArray &email)
    {
        writeRecord("[User]\nEmail=" + email + "\n");
        writeFile(dir + u"/bus.conf"_s, "<busconfig><type>system</type><listen>unix:path=" + dir.toUtf8() + "/system_bus_socket</listen>"
                  "<auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
                  "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy></busconfig>\n");
        m_bus = std::make_unique<Service>(u"dbus-daemon"_s, u"--config-file=%1/bus.conf --nofork --nopidfile --print-address=1"_s.arg(dir).split(u' '),
                                          QByteArray(), QProcessEnvironment::systemEnvironment(), true, true);
        m_environment.insert(u"DBUS_SYSTEM_BUS_ADDRESS"_s, address());
        startDaemon();
    }
    ~AccountsService()
    {
        m_daemon->terminate();
        m_bus->terminate();
    }

    QString address() const { return m_bus->firstLine(); }
    static void writeRecord(const QByteArray &record) { writeFile(u"/var/lib/AccountsService/users/root"_s, record); }
    void startDaemon()
    {
        m_daemon = std::make_unique<Service>(u"/usr/libexec/accounts-daemon"_s, QStringList(), QByteArray(), m_environment, false, true);
        for (QDeadlineTimer deadline(20000);
             !deadline.hasExpired() && !runProgram(u"dbus-send"_s, u"--system --print-reply --dest=org.freedesktop.DBus / "
                                                                    "org.freedesktop.DBus.NameHasOwner string:org.freedesktop.Accounts"_s.split(u' '),
                                                   QByteArray(), m_environment).contains("true");)
            QThread::msleep(50);
    }
    void stopDaemon() { m_daemon->terminate(); }

private:
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();
    std::unique_ptr<Service> m_bus, m_daemon;
};

class EmailAddressTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        qputenv("HOME", home.toUtf8());
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        qunsetenv("XDG_RUNTIME_DIR");
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + d.toUtf8() + "/no-system-bus");
    }

    // Two profiles: the one an [Install] section names is the default, not the Default=1 one.
    void thunderbird(const QByteArray &prefs) const
    {
        writeFile(home + u"/.thunderbird/profiles.ini"_s, "[Profile1]\nIsRelative=1\nPath=Profiles/old.default\nDefault=1\n\n"
                  "[Profile0]\nIsRelative=1\nPath=Profiles/real.default-release\n\n[Install4F96D1932A9F858E]\nDefault=Profiles/real.default-release\n");
        writeFile(home + u"/.thunderbird/Profiles/old.default/prefs.js"_s,
                  "user_pref(\"mail.accountmanager.accounts\", \"account1\");\nuser_pref(\"mail.account.account1.identities\", \"id1\");\n"
                  "user_pref(\"mail.identity.id1.useremail\", \"old@example.org\");\n");
        writeFile(home + u"/.thunderbird/Profiles/real.default-release/prefs.js"_s, "// Mozilla User Preferences\n" + prefs);
    }

    QTemporaryDir m_dir;
    const QString d = m_dir.path(), home = d + u"/home"_s, configHome = scratchSettings();
};

// Account 3 has no address and is skipped; account 2's first identity answers.
const QByteArray kThunderbirdAccounts = "user_pref(\"mail.accountmanager.accounts\", \"account3,account2,account1\");\n"
                                        "user_pref(\"mail.account.account3.identities\", \"id3\");\n"
                                        "user_pref(\"mail.account.account2.identities\", \"id2,id1\");\n"
                                        "user_pref(\"mail.account.account1.identities\", \"id1\");\n"
                                        "user_pref(\"mail.identity.id1.useremail\", \"first@example.org\");\n"
                                        "user_pref(\"mail.identity.id2.useremail\", \" Second \\\"Two\\\"@example.org\");\n";
const QString kThunderbirdAnswer = u" Second \"Two\"@example.org from thunderbird"_s;

TEST_F(EmailAddressTest, SavedWebLoginComesFirstAndALockedOneIsSkipped)
{
    thunderbird(kThunderbirdAccounts);
    KeyringSession keyring(d + u"/keyring-home"_s);
    ASSERT_TRUE(keyring.use()) << "the Secret Service did not start";
    for (const auto &[protocol, user, authtype] : { std::tuple{ "http", "plain-http@vendor.example", "form" },
                                                    { "https", "basic-auth@vendor.example", "basic" },
                                                    { "https", " Saved.Login@vendor.example", "form" } })
        keyring.store(u"www.vendor.example"_s, QLatin1String(protocol), QLatin1String(user), "never-read", QLatin1String(authtype));

    EXPECT_EQ(lookUp(), kThunderbirdAnswer);   // no host named
    QSettings().setValue(u"QZApp/webLoginHost"_s, u"www.vendor.example"_s);
    EXPECT_EQ(lookUp(), u" Saved.Login@vendor.example from keyring"_s);
    EXPECT_EQ(QZEmailAddressForCurrentUser(), u" Saved.Login@vendor.example"_s);
    QSettings(QSettings::UserScope, QString(), u"qzutil"_s).setValue(u"QZApp/webLoginHost"_s, u"www.vendor.example"_s);
    EXPECT_EQ(runQzutil({ u"whoami-email"_s }).out, " Saved.Login@vendor.example\nkeyring\n");

    keyring.lockLogin();
    EXPECT_EQ(lookUp(), kThunderbirdAnswer);
    // A session bus that is not there is skipped at once.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + d.toUtf8() + "/no-session-bus");
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(lookUp(), kThunderbirdAnswer);
    EXPECT_LT(timer.elapsed(), 1000);
}

TEST_F(EmailAddressTest, MailAccountsAnswerInTheirOrder)
{
    const auto source = [](const char *enabled, const char *address) {
        return "[Data Source]\nDisplayName=x\nEnabled=" + QByteArray(enabled) + "\n\n[Mail Identity]\nAddress=" + address + "\n";
    };
    const QByteArray evolution = source("true", "evolution@example.org");
    const struct {
        const char *name;
        QByteArray prefs;   // Thunderbird's prefs.js; null: no Thunderbird
        std::vector<std::pair<const char *, QByteArray>> sources;
        const char *expected;
    } cases[] = {
        { "Thunderbird's account order, the first identity of each", kThunderbirdAccounts, { { "a.source", evolution } },
          " Second \"Two\"@example.org from thunderbird" },
        { "an account list that is not a string moves on", "user_pref(\"mail.accountmanager.accounts\", 42);\n",
          { { "a.source", evolution } }, "evolution@example.org from evolution" },
        { "a malformed account list moves on",
          "user_pref(\"mail.accountmanager.accounts\", \"account1,,\");\nuser_pref(\"mail.account.account1.identities\", \"id1\");\n"
          "user_pref(\"mail.identity.id1.useremail\", \"x@example.org\");\n",
          { { "a.source", evolution } }, "evolution@example.org from evolution" },
        { "Evolution: inactive sources skipped, file-name order, any other Enabled is active", QByteArray(),
          { { "d.source", source("true", "d@example.org") }, { "a.source", source("false", "a@example.org") },
            { "b.source", source("0", "b@example.org") }, { "b0.source", "[Data Source]\nEnabled=true\n\n[Mail Account]\nIdentityUid=b1\n" },
            { "c.source", source("no", "c@example.org ") } },
          "c@example.org  from evolution" },
        { "nothing anywhere", QByteArray(), { { "a.source", source("false", "a@example.org") } }, "(null)" },
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        QDir(home).removeRecursively();
        QDir(configHome + u"/evolution"_s).removeRecursively();
        if (!c.prefs.isNull())
            thunderbird(c.prefs);
        for (const auto &[name, contents] : c.sources)
            writeFile(configHome + u"/evolution/sources/"_s + QLatin1String(name), contents);
        EXPECT_EQ(lookUp(), QString::fromUtf8(c.expected));
    }
    const ToolResult whoami = runQzutil({ u"whoami-email"_s });
    EXPECT_EQ(whoami.exitCode, 1);
    EXPECT_EQ(whoami.out, "");
}

TEST_F(EmailAddressTest, UserRecordThroughEitherBranch)
{
    AccountsService accounts(d, "root@example.org");
    ASSERT_FALSE(accounts.address().isEmpty()) << "the private system bus did not start";
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", accounts.address().toUtf8());
    ConsoleCapture console;
    for (UserRecordBranch branch : { UserRecordBranch::BySystemVersion, UserRecordBranch::ProcessConnection,
                                     UserRecordBranch::FreshConnection }) {
        QZ::detail::setUserRecordBranchForTesting(branch);
        EXPECT_EQ(lookUp(), u"root@example.org from accountsservice"_s);
    }
    // A record without an address, then no service on the bus, then no bus.
    accounts.stopDaemon();
    AccountsService::writeRecord("[User]\nLanguage=C\n");
    accounts.startDaemon();
    EXPECT_EQ(lookUp(), u"(null)"_s);
    EXPECT_EQ(console.lines(), QStringList());
    accounts.stopDaemon();
    EXPECT_EQ(lookUp(), u"(null)"_s);
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + d.toUtf8() + "/no-system-bus");
    EXPECT_EQ(lookUp(), u"(null)"_s);
    const QStringList lines = console.lines();
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(QRegularExpression(uR"(^dsOpenDirNode \(dirRef, nodes, &nodeRef\) \(line 68\) failed: \d+$)"_s).match(lines[0]).hasMatch())
            << lines[0].toStdString();
    EXPECT_EQ(lines[1], u"dsOpenDirService (&dirRef) (line 64) failed: %1"_s.arg(int(QDBusError::NoServer)));
}

TEST_F(EmailAddressTest, TheProcessConnectionIsNotRetriedAfterAFailure)
{
    QZ::detail::setUserRecordBranchForTesting(UserRecordBranch::ProcessConnection);
    ConsoleCapture console;
    EXPECT_EQ(lookUp(), u"(null)"_s);   // no system bus yet
    AccountsService accounts(d, "root@example.org");
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", accounts.address().toUtf8());
    EXPECT_EQ(lookUp(), u"(null)"_s);
    EXPECT_EQ(console.lines(), QStringList());
    QZ::detail::setUserRecordBranchForTesting(UserRecordBranch::FreshConnection);
    EXPECT_EQ(lookUp(), u"root@example.org from accountsservice"_s);
}

} // namespace
