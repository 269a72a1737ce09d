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
    return found.address.isNull() ? QStringLiteral("(null)") : found.address + QStringLiteral(" from ") + found.source;
}

// accounts-daemon on a private system bus of its own; the root user's record holds `email`.
class AccountsService
{
public:
    AccountsService(const QString &dir, const QByteArray &email)
    {
        writeFile(QStringLiteral("/var/lib/AccountsService/users/root"), email.isNull() ? "[User]\n" : "[User]\nEmail=" + email + "\n");
        writeFile(dir + QStringLiteral("/bus.conf"),
                  "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                  " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                  "<busconfig><type>system</type><listen>unix:path=" + dir.toUtf8() + "/system_bus_socket</listen>"
                  "<auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
                  "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy></busconfig>\n");
        m_bus = std::make_unique<Service>(QStringLiteral("dbus-daemon"),
                                          QStringList{ QStringLiteral("--config-file=") + dir + QStringLiteral("/bus.conf"),
                                                       QStringLiteral("--nofork"), QStringLiteral("--nopidfile"),
                                                       QStringLiteral("--print-address=1") });
        m_address = m_bus->firstLine();
        m_environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), m_address);
        startDaemon();
    }
    ~AccountsService()
    {
        stopDaemon();
        m_bus->terminate();
    }

    QString address() const { return m_address; }
    void startDaemon()
    {
        m_daemon = std::make_unique<Service>(QStringLiteral("/usr/libexec/accounts-daemon"), QStringList(), QByteArray(), m_environment, false);
        QDeadlineTimer deadline(20000);
        while (!deadline.hasExpired()
               && !runProgram(QStringLiteral("dbus-send"),
                              { QStringLiteral("--system"), QStringLiteral("--print-reply"), QStringLiteral("--dest=org.freedesktop.DBus"),
                                QStringLiteral("/"), QStringLiteral("org.freedesktop.DBus.NameHasOwner"),
                                QStringLiteral("string:org.freedesktop.Accounts") },
                              QByteArray(), m_environment)
                           .contains("true"))
            QThread::msleep(50);
    }
    void stopDaemon()
    {
        if (m_daemon)
            m_daemon->terminate();
        m_daemon.reset();
    }

private:
    std::unique_ptr<Service> m_bus, m_daemon;
    QString m_address;
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();
};

class EmailAddressTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        d = m_dir.path();
        home = d + QStringLiteral("/home");
        QDir().mkpath(home);
        static QTemporaryDir config;   // QSettings keeps the first location it finds
        qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
        qputenv("HOME", home.toUtf8());
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        qunsetenv("XDG_RUNTIME_DIR");
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + d.toUtf8() + "/no-system-bus");
        QSettings().clear();
        QDir(config.path() + QStringLiteral("/evolution")).removeRecursively();
    }

    void thunderbird(const QByteArray &prefs) const
    {
        writeFile(home + QStringLiteral("/.thunderbird/profiles.ini"),
                  "[Profile1]\nName=old\nIsRelative=1\nPath=Profiles/old.default\nDefault=1\n\n"
                  "[Profile0]\nName=real\nIsRelative=1\nPath=Profiles/real.default-release\n\n"
                  "[Install4F96D1932A9F858E]\nDefault=Profiles/real.default-release\nLocked=1\n");
        writeFile(home + QStringLiteral("/.thunderbird/Profiles/old.default/prefs.js"),
                  "user_pref(\"mail.accountmanager.accounts\", \"account1\");\n"
                  "user_pref(\"mail.account.account1.identities\", \"id1\");\n"
                  "user_pref(\"mail.identity.id1.useremail\", \"old@example.org\");\n");
        writeFile(home + QStringLiteral("/.thunderbird/Profiles/real.default-release/prefs.js"),
                  "// Mozilla User Preferences\n" + prefs);
    }
    void evolution(const char *name, const QByteArray &contents) const
    {
        writeFile(qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/evolution/sources/") + QLatin1String(name), contents);
    }

    QTemporaryDir m_dir;
    QString d, home;
};

const QByteArray kThunderbirdAccounts =
        "user_pref(\"mail.accountmanager.accounts\", \"account3,account2,account1\");\n"
        "user_pref(\"mail.account.account3.identities\", \"id3\");\n"            // no address: skipped
        "user_pref(\"mail.account.account2.identities\", \"id2,id1\");\n"
        "user_pref(\"mail.account.account1.identities\", \"id1\");\n"
        "user_pref(\"mail.identity.id1.useremail\", \"first@example.org\");\n"
        "user_pref(\"mail.identity.id2.useremail\", \" Second \\\"Two\\\"@example.org\");\n";

TEST_F(EmailAddressTest, SavedWebLoginComesFirstAndALockedOneIsSkipped)
{
    thunderbird(kThunderbirdAccounts);
    KeyringSession keyring(d + QStringLiteral("/keyring-home"));
    ASSERT_FALSE(keyring.address().isEmpty()) << "the Secret Service did not start";
    const auto store = [&](const char *protocol, const char *authtype, const char *user) {
        keyring.store({ QStringLiteral("xdg:schema"), QStringLiteral("org.gnome.keyring.NetworkPassword"), QStringLiteral("server"),
                        QStringLiteral("www.vendor.example"), QStringLiteral("protocol"), QLatin1String(protocol),
                        QStringLiteral("authtype"), QLatin1String(authtype), QStringLiteral("user"), QLatin1String(user) },
                      "never-read");
    };
    store("http", "form", "plain-http@vendor.example");
    store("https", "basic", "basic-auth@vendor.example");
    store("https", "form", " Saved.Login@vendor.example");
    qputenv("DBUS_SESSION_BUS_ADDRESS", keyring.address().toUtf8());

    EXPECT_EQ(lookUp(), QStringLiteral(" Second \"Two\"@example.org from thunderbird"));   // no host named
    QSettings().setValue(QStringLiteral("QZApp/webLoginHost"), QStringLiteral("www.vendor.example"));
    EXPECT_EQ(lookUp(), QStringLiteral(" Saved.Login@vendor.example from keyring"));
    EXPECT_EQ(QZEmailAddressForCurrentUser(), QStringLiteral(" Saved.Login@vendor.example"));
    QSettings(QSettings::UserScope, QCoreApplication::organizationName(), QStringLiteral("qzutil"))
            .setValue(QStringLiteral("QZApp/webLoginHost"), QStringLiteral("www.vendor.example"));
    const ToolResult whoami = runQzutil({ QStringLiteral("whoami-email") });
    EXPECT_EQ(whoami.exitCode, 0);
    EXPECT_EQ(whoami.out, " Saved.Login@vendor.example\nkeyring\n");
    QSettings().setValue(QStringLiteral("QZApp/webLoginHost"), QStringLiteral("www.other.example"));
    EXPECT_EQ(lookUp(), QStringLiteral(" Second \"Two\"@example.org from thunderbird"));
    QSettings().setValue(QStringLiteral("QZApp/webLoginHost"), QStringLiteral("www.vendor.example"));

    keyring.lockLogin();
    EXPECT_EQ(lookUp(), QStringLiteral(" Second \"Two\"@example.org from thunderbird"));

    // A session bus that is not there is skipped at once.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=" + d.toUtf8() + "/no-session-bus");
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(lookUp(), QStringLiteral(" Second \"Two\"@example.org from thunderbird"));
    EXPECT_LT(timer.elapsed(), 1000);
}

TEST_F(EmailAddressTest, MailAccountsAnswerInTheirOrder)
{
    struct Case {
        const char *name;
        QByteArray prefs;                                 // Thunderbird's prefs.js; null: no Thunderbird
        std::vector<std::pair<const char *, QByteArray>> sources;   // Evolution's sources
        const char *expected;
    };
    const QByteArray identity = "[Data Source]\nDisplayName=x\nEnabled=%1\n\n[Mail Identity]\nAddress=%2\n";
    const auto source = [&](const char *enabled, const char *address) {
        return QString::fromLatin1(identity).arg(QLatin1String(enabled), QLatin1String(address)).toUtf8();
    };
    const Case cases[] = {
        { "Thunderbird's account order, the first identity of each", kThunderbirdAccounts,
          { { "a.source", source("true", "evolution@example.org") } }, " Second \"Two\"@example.org from thunderbird" },
        { "an account list that is not a string moves on",
          "user_pref(\"mail.accountmanager.accounts\", 42);\nuser_pref(\"mail.identity.id1.useremail\", \"x@example.org\");\n",
          { { "a.source", source("true", "evolution@example.org") } }, "evolution@example.org from evolution" },
        { "a malformed account list moves on",
          "user_pref(\"mail.accountmanager.accounts\", \"account1,,\");\nuser_pref(\"mail.account.account1.identities\", \"id1\");\n"
          "user_pref(\"mail.identity.id1.useremail\", \"x@example.org\");\n",
          { { "a.source", source("true", "evolution@example.org") } }, "evolution@example.org from evolution" },
        { "Evolution: inactive sources skipped, file-name order, any other Enabled counts as active", QByteArray(),
          { { "d.source", source("true", "d@example.org") },
            { "a.source", source("false", "a@example.org") },
            { "b.source", source("0", "b@example.org") },
            { "b0.source", "[Data Source]\nEnabled=true\n\n[Mail Account]\nIdentityUid=b1\n" },
            { "c.source", source("no", "c@example.org ") } },
          "c@example.org  from evolution" },
        { "nothing anywhere", QByteArray(), { { "a.source", source("false", "a@example.org") } }, "(null)" },
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        QDir(home).removeRecursively();
        QDir(qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/evolution")).removeRecursively();
        if (!c.prefs.isNull())
            thunderbird(c.prefs);
        for (const auto &[name, contents] : c.sources)
            evolution(name, contents);
        EXPECT_EQ(lookUp(), QString::fromUtf8(c.expected));
    }
    // qzutil prints the address and its source, or fails.
    ToolResult whoami = runQzutil({ QStringLiteral("whoami-email") });
    EXPECT_EQ(whoami.exitCode, 1);
    EXPECT_EQ(whoami.out, "");
    evolution("e.source", source("true", "e@example.org"));
    whoami = runQzutil({ QStringLiteral("whoami-email") });
    EXPECT_EQ(whoami.exitCode, 0);
    EXPECT_EQ(whoami.out, "e@example.org\nevolution\n");
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
        EXPECT_EQ(lookUp(), QStringLiteral("root@example.org from accountsservice"));
    }
    EXPECT_EQ(console.lines(), QStringList());

    // A record without an address, then no service on the bus, then no bus.
    accounts.stopDaemon();
    writeFile(QStringLiteral("/var/lib/AccountsService/users/root"), "[User]\nLanguage=C\n");
    accounts.startDaemon();
    EXPECT_EQ(lookUp(), QStringLiteral("(null)"));
    EXPECT_EQ(console.lines(), QStringList());
    accounts.stopDaemon();
    EXPECT_EQ(lookUp(), QStringLiteral("(null)"));
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + d.toUtf8() + "/no-system-bus");
    EXPECT_EQ(lookUp(), QStringLiteral("(null)"));
    const QStringList lines = console.lines();
    ASSERT_EQ(lines.size(), 2);
    EXPECT_TRUE(QRegularExpression(QStringLiteral(R"(^dsOpenDirNode \(dirRef, nodes, &nodeRef\) \(line 68\) failed: \d+$)"))
                        .match(lines[0]).hasMatch()) << lines[0].toStdString();
    EXPECT_EQ(lines[1], QStringLiteral("dsOpenDirService (&dirRef) (line 64) failed: %1").arg(int(QDBusError::NoServer)));
}

TEST_F(EmailAddressTest, TheProcessConnectionIsNotRetriedAfterAFailure)
{
    QZ::detail::setUserRecordBranchForTesting(UserRecordBranch::ProcessConnection);
    ConsoleCapture console;
    EXPECT_EQ(lookUp(), QStringLiteral("(null)"));   // no system bus yet
    AccountsService accounts(d, "root@example.org");
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", accounts.address().toUtf8());
    EXPECT_EQ(lookUp(), QStringLiteral("(null)"));
    EXPECT_EQ(console.lines(), QStringList());
    QZ::detail::setUserRecordBranchForTesting(UserRecordBranch::FreshConnection);
    EXPECT_EQ(lookUp(), QStringLiteral("root@example.org from accountsservice"));
}

} // namespace
