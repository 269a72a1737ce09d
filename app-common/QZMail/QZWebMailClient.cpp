// The web-mail client: one HTTPS multipart/form-data POST per message, through libcurl.
#include "QZWebMailClient.h"
#include "QZMailClients_p.h"

#include <QSettings>
#include <QTextDocument>
#include <QUrl>

#include <curl/curl.h>

namespace {

QString endpointFor(const QString &address)
{
    const QString domain = QZ::mail::domainOf(address);
    if (domain.isEmpty())
        return QString();
    QSettings settings;
    return settings.value(QStringLiteral("QZMail/Web/") + domain).toString();
}

size_t discardReply(char *, size_t size, size_t count, void *)
{
    return size * count;
}

// Owns the easy handle and the form.
struct Post {
    CURL *curl = curl_easy_init();
    curl_mime *form = curl ? curl_mime_init(curl) : nullptr;
    ~Post()
    {
        curl_mime_free(form);
        if (curl)
            curl_easy_cleanup(curl);
    }
    void addField(const char *name, const QString &value)
    {
        curl_mimepart *part = curl_mime_addpart(form);
        const QByteArray bytes = value.toUtf8();
        curl_mime_name(part, name);
        curl_mime_data(part, bytes.constData(), static_cast<size_t>(bytes.size()));
    }
};

} // namespace

std::shared_ptr<QZWebMailClient> QZWebMailClient::mailClient()
{
    static const std::shared_ptr<QZWebMailClient> client = std::make_shared<QZWebMailClient>();
    return client;
}

bool QZWebMailClient::shouldUseClientToDeliverTo(const QString &address) const
{
    return !endpointFor(address).isEmpty();
}

bool QZWebMailClient::deliverMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error)
{
    const auto fail = [&](QZMailErrorCode code, const QString &reason) {
        if (error)
            *error = QZ::mail::makeError(code, reason);
        return false;
    };
    const QString to = headers.value(QStringLiteral("To")).toString();
    const QString endpoint = endpointFor(to);
    if (endpoint.isEmpty())
        return fail(QZMailErrorNotConfigured, QStringLiteral("No web-mail endpoint is configured for %1.").arg(to));
    if (QUrl(endpoint).scheme() != QLatin1String("https"))
        return fail(QZMailErrorNotConfigured, QStringLiteral("The web-mail endpoint %1 is not an https: address.").arg(endpoint));

    QZ::mail::initialiseCurl();
    Post post;
    if (!post.form)
        return fail(QZMailErrorTransfer, QStringLiteral("The web-mail transfer cannot be set up."));
    post.addField("to", to);
    post.addField("from", headers.value(QStringLiteral("From")).toString());
    post.addField("subject", headers.value(QStringLiteral("Subject")).toString());
    post.addField("text", QZ::mail::plainText(message));
    post.addField("html", QZ::mail::htmlText(message));
    for (const QString &path : QZ::mailAttachments(message)) {
        curl_mimepart *part = curl_mime_addpart(post.form);
        curl_mime_name(part, "attachment");
        if (curl_mime_filedata(part, path.toLocal8Bit().constData()) != CURLE_OK)
            return fail(QZMailErrorBadMessage, QStringLiteral("The attachment \"%1\" cannot be read.").arg(path));
    }

    CURL *curl = post.curl;
    char errorText[CURL_ERROR_SIZE] = {};
    const QByteArray url = endpoint.toUtf8();
    const QByteArray caFile = QSettings().value(QStringLiteral("QZMail/WebOptions/caFile")).toString().toLocal8Bit();
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(curl, CURLOPT_URL, url.constData());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 60L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!caFile.isEmpty())
        curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.constData());
    curl_easy_setopt(curl, CURLOPT_MIMEPOST, post.form);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discardReply);

    const CURLcode result = curl_easy_perform(curl);
    if (result != CURLE_OK)
        return fail(QZMailErrorTransfer, QStringLiteral("The report could not be posted to %1: %2")
                                                 .arg(endpoint, QString::fromUtf8(errorText[0] ? errorText : curl_easy_strerror(result))));
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (status < 200 || status > 299)
        return fail(QZMailErrorTransfer, QStringLiteral("The web-mail server %1 refused the report (HTTP %2).").arg(endpoint).arg(status));
    return true;
}
