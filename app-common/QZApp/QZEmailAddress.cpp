// The current user's e-mail address: a saved web login in the Secret Service, the mail
// program's accounts, the user's AccountsService record; the first answer wins.
#include "QZEmailAddress.h"
#include "QZEmailAddress_p.h"

#include "QZConsoleLog.h"
#include "QZVersion.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSettings>
#include <QUuid>

#include <unistd.h>

#include <atomic>

using StringMap = QMap<QString, QString>;

namespace QZ::detail {
namespace {

constexpr int kCallTimeout = 3000;   // milliseconds, for every D-Bus call

std::atomic<UserRecordBranch> s_branch{ UserRecordBranch::BySystemVersion };

// The unix socket path of a "unix:path=..." address, or empty for any other kind.
QString socketPathOf(const QString &address)
{
    static const QRegularExpression path(QStringLiteral("^unix:path=([^,;]+)"));
    const QRegularExpressionMatch match = path.match(address);
    return match.hasMatch() ? match.captured(1) : QString();
}

// True when the bus at `address` may be there: a socket path that does not exist is not.
bool mayBeThere(const QString &address)
{
    if (address.isEmpty())
        return false;
    const QString path = socketPathOf(address);
    return path.isEmpty() || QFileInfo::exists(path);
}

QString sessionBusAddress()
{
    const QString address = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS");
    if (!address.isEmpty())
        return address;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    return runtime.isEmpty() ? QString() : QStringLiteral("unix:path=") + runtime + QStringLiteral("/bus");
}

QString systemBusAddress()
{
    const QString address = qEnvironmentVariable("DBUS_SYSTEM_BUS_ADDRESS");
    return address.isEmpty() ? QStringLiteral("unix:path=/run/dbus/system_bus_socket") : address;
}

// A private connection that is closed when this goes away.
class PrivateConnection
{
public:
    explicit PrivateConnection(const QString &address)
        : m_name(QStringLiteral("qzapp-email-") + QUuid::createUuid().toString(QUuid::Id128)),
          m_connection(QDBusConnection::connectToBus(address, m_name))
    {
    }
    ~PrivateConnection() { QDBusConnection::disconnectFromBus(m_name); }
    PrivateConnection(const PrivateConnection &) = delete;
    PrivateConnection &operator=(const PrivateConnection &) = delete;

    QDBusConnection &connection() { return m_connection; }

private:
    QString m_name;
    QDBusConnection m_connection;
};

// A call that lets no service ask the user anything; the Secret Service is never started by
// it (a keyring daemon started now could only be a locked one), AccountsService may be.
QDBusMessage call(QDBusConnection &connection, const QString &service, const QString &path,
                  const QString &interface, const QString &method, const QVariantList &arguments = {})
{
    QDBusMessage message = QDBusMessage::createMethodCall(service, path, interface, method);
    message.setArguments(arguments);
    message.setAutoStartService(service != QLatin1String("org.freedesktop.secrets"));
    message.setInteractiveAuthorizationAllowed(false);
    return connection.call(message, QDBus::Block, kCallTimeout);
}

QVariant propertyOf(QDBusConnection &connection, const QString &service, const QString &path,
                    const QString &interface, const QString &name, QDBusMessage *reply)
{
    *reply = call(connection, service, path, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"),
                  { interface, name });
    if (reply->type() != QDBusMessage::ReplyMessage || reply->arguments().isEmpty())
        return QVariant();
    return qvariant_cast<QDBusVariant>(reply->arguments().first()).variant();
}

// A saved web login: the user name of an unlocked network-password item of the vendor's
// HTTPS host, login form. The secret itself is never asked for.
QString savedWebLogin()
{
    const QString host = QSettings().value(QStringLiteral("QZApp/webLoginHost")).toString();
    const QString address = sessionBusAddress();
    if (host.isEmpty() || !mayBeThere(address))
        return QString();
    qDBusRegisterMetaType<StringMap>();
    PrivateConnection bus(address);
    if (!bus.connection().isConnected())
        return QString();
    const QString service = QStringLiteral("org.freedesktop.secrets");
    const StringMap query{ { QStringLiteral("xdg:schema"), QStringLiteral("org.gnome.keyring.NetworkPassword") },
                           { QStringLiteral("server"), host },
                           { QStringLiteral("protocol"), QStringLiteral("https") },
                           { QStringLiteral("authtype"), QStringLiteral("form") } };
    const QDBusMessage found = call(bus.connection(), service, QStringLiteral("/org/freedesktop/secrets"),
                                    QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("SearchItems"),
                                    { QVariant::fromValue(query) });
    if (found.type() != QDBusMessage::ReplyMessage || found.arguments().size() != 2)
        return QString();
    // The first list holds the unlocked items; locked ones are skipped, never unlocked.
    const auto unlocked = qdbus_cast<QList<QDBusObjectPath>>(found.arguments().first());
    if (unlocked.isEmpty())
        return QString();
    QDBusMessage reply;
    const QVariant attributes = propertyOf(bus.connection(), service, unlocked.first().path(),
                                           QStringLiteral("org.freedesktop.Secret.Item"), QStringLiteral("Attributes"), &reply);
    if (!attributes.canConvert<QDBusArgument>())
        return QString();
    return qdbus_cast<StringMap>(attributes).value(QStringLiteral("user"));
}

QString homePath(const char *relative)
{
    return QDir::homePath() + QLatin1Char('/') + QLatin1String(relative);
}

// An ini-style file as section -> key -> value. Values are taken as they stand after '='.
QMap<QString, StringMap> readIni(const QString &path)
{
    QMap<QString, StringMap> sections;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return sections;
    QString section;
    while (!file.atEnd()) {
        QString line = QString::fromUtf8(file.readLine());
        while (line.endsWith(QLatin1Char('\n')) || line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        const QString trimmed = line.trimmed();
        if (trimmed.startsWith(QLatin1Char('[')) && trimmed.endsWith(QLatin1Char(']'))) {
            section = trimmed.mid(1, trimmed.size() - 2);
            sections[section];
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (trimmed.isEmpty() || trimmed.startsWith(QLatin1Char('#')) || trimmed.startsWith(QLatin1Char(';')) || equals < 0)
            continue;
        sections[section].insert(line.left(equals).trimmed(), line.mid(equals + 1));
    }
    return sections;
}

// Thunderbird's default profile folder: the one an [Install...] section names, else the
// profile marked Default=1, else the only profile.
QString thunderbirdProfile()
{
    const QString root = homePath(".thunderbird");
    const QMap<QString, StringMap> ini = readIni(root + QStringLiteral("/profiles.ini"));
    const auto resolve = [&](const QString &path, bool relative) {
        return relative ? root + QLatin1Char('/') + path : path;
    };
    for (auto it = ini.begin(); it != ini.end(); ++it)
        if (it.key().startsWith(QLatin1String("Install")) && !it->value(QStringLiteral("Default")).isEmpty())
            return resolve(it->value(QStringLiteral("Default")), true);
    QStringList profiles;
    for (auto it = ini.begin(); it != ini.end(); ++it) {
        if (!it.key().startsWith(QLatin1String("Profile")) || it->value(QStringLiteral("Path")).isEmpty())
            continue;
        const QString path = resolve(it->value(QStringLiteral("Path")), it->value(QStringLiteral("IsRelative"), QStringLiteral("1")) == QLatin1String("1"));
        if (it->value(QStringLiteral("Default")) == QLatin1String("1"))
            return path;
        profiles.append(path);
    }
    return profiles.size() == 1 ? profiles.first() : QString();
}

// The string preferences of a prefs.js: user_pref("name", "value"); other values are left out.
StringMap thunderbirdStringPrefs(const QString &profile)
{
    StringMap prefs;
    QFile file(profile + QStringLiteral("/prefs.js"));
    if (profile.isEmpty() || !file.open(QIODevice::ReadOnly))
        return prefs;
    static const QRegularExpression pref(QStringLiteral(R"re(^\s*user_pref\(\s*"((?:[^"\\]|\\.)*)"\s*,\s*"((?:[^"\\]|\\.)*)"\s*\)\s*;)re"),
                                         QRegularExpression::MultilineOption);
    static const QRegularExpression escape(QStringLiteral(R"(\\(.))"));
    const QString text = QString::fromUtf8(file.readAll());
    for (auto it = pref.globalMatch(text); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        QString value = match.captured(2);
        value.replace(escape, QStringLiteral("\\1"));
        prefs.insert(match.captured(1), value);
    }
    return prefs;
}

// Thunderbird: the accounts in the account manager's order, each account's first identity.
QString thunderbirdAddress()
{
    const StringMap prefs = thunderbirdStringPrefs(thunderbirdProfile());
    static const QRegularExpression name(QStringLiteral("^[A-Za-z0-9_.-]+$"));
    QStringList accounts = prefs.value(QStringLiteral("mail.accountmanager.accounts")).split(QLatin1Char(','));
    for (QString &account : accounts) {
        account = account.trimmed();
        if (!name.match(account).hasMatch())
            return QString();   // a malformed list (or none): this source has no answer
    }
    for (const QString &account : accounts) {
        const QString identities = prefs.value(QStringLiteral("mail.account.%1.identities").arg(account));
        const QString identity = identities.section(QLatin1Char(','), 0, 0).trimmed();
        if (identity.isEmpty())
            continue;
        const QString address = prefs.value(QStringLiteral("mail.identity.%1.useremail").arg(identity));
        if (!address.isEmpty())
            return address;
    }
    return QString();
}

// Evolution: the mail identities of the sources in file-name order, active ones only.
QString evolutionAddress()
{
    const QString base = qEnvironmentVariable("XDG_CONFIG_HOME", homePath(".config"));
    QDir sources(base + QStringLiteral("/evolution/sources"));
    const QStringList files = sources.entryList({ QStringLiteral("*.source") }, QDir::Files, QDir::Name);
    for (const QString &file : files) {
        const QMap<QString, StringMap> ini = readIni(sources.filePath(file));
        const QString enabled = ini.value(QStringLiteral("Data Source")).value(QStringLiteral("Enabled")).trimmed();
        if (enabled == QLatin1String("false") || enabled == QLatin1String("0"))
            continue;
        const QString address = ini.value(QStringLiteral("Mail Identity")).value(QStringLiteral("Address"));
        if (!address.isEmpty())
            return address;
    }
    return QString();
}

// A failing step's console line; the line numbers name the steps, the status is the D-Bus
// error's kind.
QString failureLine(const char *call, unsigned line, QDBusError::ErrorType status)
{
    return QStringLiteral("%1 (line %2) failed: %3").arg(QLatin1String(call)).arg(line).arg(static_cast<int>(status));
}

// The Email of the user's AccountsService record through `connection`; `log` says whether each
// failing step is written to the console, with the line number it stands for.
QString accountsServiceEmail(QDBusConnection &connection, bool log)
{
    const QString service = QStringLiteral("org.freedesktop.Accounts");
    const auto failed = [&](const char *call, unsigned line, const QDBusMessage &reply) {
        if (log)
            QZLog(failureLine(call, line, QDBusError(reply).type()));
        return QString();
    };
    const QDBusMessage ping = call(connection, service, QStringLiteral("/org/freedesktop/Accounts"),
                                   QStringLiteral("org.freedesktop.DBus.Peer"), QStringLiteral("Ping"));
    if (ping.type() != QDBusMessage::ReplyMessage)
        return failed("dsOpenDirNode (dirRef, nodes, &nodeRef)", 68, ping);
    const QDBusMessage user = call(connection, service, QStringLiteral("/org/freedesktop/Accounts"), service,
                                   QStringLiteral("FindUserById"), { QVariant::fromValue(qint64(getuid())) });
    if (user.type() != QDBusMessage::ReplyMessage || user.arguments().isEmpty()) {
        if (user.errorName() == QLatin1String("org.freedesktop.Accounts.Error.Failed"))
            return QString();   // no record for this user: no answer, no message
        return failed("dsDoAttributeValueSearch (nodeRef, dataBuf, recordTypes, attribute, eDSExact, value, &matchCount, "
                      "&continueData)", 83, user);
    }
    QDBusMessage reply;
    const QVariant email = propertyOf(connection, service, qvariant_cast<QDBusObjectPath>(user.arguments().first()).path(),
                                      QStringLiteral("org.freedesktop.Accounts.User"), QStringLiteral("Email"), &reply);
    if (reply.type() != QDBusMessage::ReplyMessage)
        return failed("dsGetRecordEntry (nodeRef, dataBuf, 1, &attrs, &rec)", 93, reply);
    return email.toString().isEmpty() ? QString() : email.toString();
}

// The record through the process's one system-bus connection, made on first use; once
// it has failed, this source stays silent for the rest of the process.
QString userRecordThroughProcessConnection()
{
    static const QString name = QStringLiteral("qzapp-email-system");
    static bool attempted = false;
    static bool connected = false;
    if (!attempted) {
        attempted = true;
        if (mayBeThere(systemBusAddress()))
            connected = QDBusConnection::connectToBus(systemBusAddress(), name).isConnected();
    }
    if (!connected)
        return QString();
    QDBusConnection connection(name);
    return accountsServiceEmail(connection, false);
}

// The record through a fresh connection, each failing step written to the console.
QString userRecordThroughFreshConnection()
{
    const QString address = systemBusAddress();
    if (!mayBeThere(address)) {
        QZLog(failureLine("dsOpenDirService (&dirRef)", 64, QDBusError::NoServer));
        return QString();
    }
    PrivateConnection bus(address);
    if (!bus.connection().isConnected()) {
        QZLog(failureLine("dsOpenDirService (&dirRef)", 64, bus.connection().lastError().type()));
        return QString();
    }
    return accountsServiceEmail(bus.connection(), true);
}

// The user's record: a system version older than the reference version reads it through the
// process connection, any other through a fresh one (tests may choose).
QString userRecord()
{
    UserRecordBranch branch = s_branch.load();
    if (branch == UserRecordBranch::BySystemVersion) {
        const std::optional<QZVersion> system = QZVersion::OSXVersion();
        const bool older = system && system->compare(QZVersion::mountainLionOSXVersion()) < 0;
        branch = older ? UserRecordBranch::ProcessConnection : UserRecordBranch::FreshConnection;
    }
    return branch == UserRecordBranch::ProcessConnection ? userRecordThroughProcessConnection()
                                                         : userRecordThroughFreshConnection();
}

} // namespace

EmailAddressLookup lookUpEmailAddressForCurrentUser()
{
    const std::pair<const char *, QString (*)()> sources[] = {
        { "keyring", savedWebLogin },
        { "thunderbird", thunderbirdAddress },
        { "evolution", evolutionAddress },
        { "accountsservice", userRecord },
    };
    for (const auto &[name, source] : sources) {
        const QString address = source();
        if (!address.isNull())
            return { address, QLatin1String(name) };
    }
    return {};
}

void setUserRecordBranchForTesting(UserRecordBranch branch)
{
    s_branch.store(branch);
}

} // namespace QZ::detail

QString QZEmailAddressForCurrentUser()
{
    return QZ::detail::lookUpEmailAddressForCurrentUser().address;
}
