// The SMTP client: libcurl speaks SMTP and TLS, the message is built by QZMailMessage.cpp, the
// password comes from the Secret Service and lives only in this function's memory.
#include "QZMailClients_p.h"

#include <QSettings>
#include <QTextDocument>

#include <curl/curl.h>
#include <libsecret/secret.h>

#include <cstring>
#include <string>

namespace {

using QZ::mail::makeError;

struct Settings {
    QString server;
    int port = 0;
    QString security;      // "ssl", "starttls" or "none"
    QString user;
    QString sender;
    QString caFile;
    bool allowPlainLogin = false;
};

Settings readSettings()
{
    QSettings settings;
    settings.beginGroup(QStringLiteral("QZMail/SMTP"));
    Settings s;
    s.server = settings.value(QStringLiteral("server")).toString();
    s.security = settings.value(QStringLiteral("security"), QStringLiteral("starttls")).toString().toLower();
    const int defaultPort = s.security == QLatin1String("ssl") ? 465 : s.security == QLatin1String("none") ? 25 : 587;
    s.port = settings.value(QStringLiteral("port"), defaultPort).toInt();
    s.user = settings.value(QStringLiteral("user")).toString();
    s.sender = settings.value(QStringLiteral("sender")).toString();
    s.caFile = settings.value(QStringLiteral("caFile")).toString();
    s.allowPlainLogin = settings.value(QStringLiteral("allowPlainLogin"), false).toBool();
    return s;
}

// The account's password from the Secret Service (network-password schema: server, protocol
// "smtp", user), or false with the reason.
bool lookUpPassword(const Settings &s, std::string *password, QString *reason)
{
    GError *failure = nullptr;
    const QByteArray server = s.server.toUtf8();
    const QByteArray user = s.user.toUtf8();
    gchar *secret = secret_password_lookup_nonpageable_sync(SECRET_SCHEMA_COMPAT_NETWORK, nullptr, &failure,
                                                            "server", server.constData(), "protocol", "smtp",
                                                            "user", user.constData(), nullptr);
    // Sends are rare: the next one connects anew rather than keep a connection to a session bus
    // that may have gone away since.
    secret_service_disconnect();
    if (failure) {
        *reason = QString::fromUtf8(failure->message);
        g_error_free(failure);
        return false;
    }
    if (!secret) {
        *reason = QStringLiteral("no password is stored for %1 on %2").arg(s.user, s.server);
        return false;
    }
    password->assign(secret);
    secret_password_free(secret);
    return true;
}

struct Upload {
    const QByteArray *bytes;
    qsizetype offset = 0;
};

size_t readUpload(char *buffer, size_t size, size_t count, void *context)
{
    auto *upload = static_cast<Upload *>(context);
    const size_t left = static_cast<size_t>(upload->bytes->size() - upload->offset);
    const size_t n = std::min(left, size * count);
    std::memcpy(buffer, upload->bytes->constData() + upload->offset, n);
    upload->offset += static_cast<qsizetype>(n);
    return n;
}

// Owns the easy handle and the recipient list.
struct Transfer {
    CURL *curl = curl_easy_init();
    curl_slist *recipients = nullptr;
    ~Transfer()
    {
        curl_slist_free_all(recipients);
        if (curl)
            curl_easy_cleanup(curl);
    }
};

} // namespace

bool QZSMTPMailClient::isConfigured()
{
    const Settings s = readSettings();
    return !s.server.isEmpty() && !s.sender.isEmpty();
}

bool QZSMTPMailClient::deliverMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error)
{
    QZError failure;
    const auto fail = [&](QZMailErrorCode code, const QString &reason) {
        if (error)
            *error = makeError(code, reason);
        return false;
    };
    const Settings s = readSettings();
    if (s.server.isEmpty() || s.sender.isEmpty())
        return fail(QZMailErrorNotConfigured, QStringLiteral("No SMTP server and sender address are configured."));
    const bool tls = s.security == QLatin1String("ssl") || s.security == QLatin1String("starttls");
    if (!s.user.isEmpty() && !tls && !s.allowPlainLogin)
        return fail(QZMailErrorInsecureLogin, QStringLiteral("The SMTP server %1 is configured without TLS; "
                                                             "the password is not sent over a plain connection.")
                                                      .arg(s.server));

    const QString givenFrom = headers.value(QStringLiteral("From")).toString();
    const QString from = QZ::mail::addressOf(givenFrom).isEmpty() ? s.sender : givenFrom;
    QByteArray mime;
    if (!QZ::mail::buildMimeMessage(message, headers, from, &mime, &failure))
        return fail(static_cast<QZMailErrorCode>(failure.code()), failure.message());

    std::string password;
    if (!s.user.isEmpty()) {
        QString reason;
        if (!lookUpPassword(s, &password, &reason))
            return fail(QZMailErrorNoPassword, QStringLiteral("The SMTP password cannot be read: %1.").arg(reason));
    }

    QZ::mail::initialiseCurl();
    Transfer transfer;
    if (!transfer.curl)
        return fail(QZMailErrorTransfer, QStringLiteral("The mail transfer cannot be set up."));
    CURL *curl = transfer.curl;
    char errorText[CURL_ERROR_SIZE] = {};
    const QByteArray url = (s.security == QLatin1String("ssl") ? "smtps://" : "smtp://") + s.server.toUtf8() + ':'
            + QByteArray::number(s.port);
    const QByteArray mailFrom = '<' + QZ::mail::addressOf(from).toUtf8() + '>';
    const QByteArray rcpt = '<' + QZ::mail::addressOf(headers.value(QStringLiteral("To")).toString()).toUtf8() + '>';
    transfer.recipients = curl_slist_append(nullptr, rcpt.constData());
    const QByteArray user = s.user.toUtf8();
    const QByteArray caFile = s.caFile.toLocal8Bit();
    Upload upload{ &mime };

    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(curl, CURLOPT_URL, url.constData());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);     // stalled for a minute: give up
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 60L);
    // Certificates are always checked; a configured CA file is trusted besides the system's.
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!caFile.isEmpty())
        curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.constData());
    if (s.security == QLatin1String("starttls"))
        curl_easy_setopt(curl, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
    if (!user.isEmpty()) {
        curl_easy_setopt(curl, CURLOPT_USERNAME, user.constData());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, password.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_MAIL_FROM, mailFrom.constData());
    curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, transfer.recipients);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, readUpload);
    curl_easy_setopt(curl, CURLOPT_READDATA, &upload);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(mime.size()));

    const CURLcode result = curl_easy_perform(curl);
    // curl keeps its own copy of the password; this one is wiped before it is freed.
    std::fill(password.begin(), password.end(), '\0');
    if (result == CURLE_OK)
        return true;
    long response = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response);
    const QString detail = QString::fromUtf8(errorText[0] ? errorText : curl_easy_strerror(result));
    const QString reason = result == CURLE_LOGIN_DENIED
            ? QStringLiteral("The SMTP server %1 refused the login: %2").arg(s.server, detail)
            : QStringLiteral("The message could not be sent through %1: %2").arg(s.server, detail);
    return fail(QZMailErrorTransfer, response ? reason + QStringLiteral(" (reply %1)").arg(response) : reason);
}
