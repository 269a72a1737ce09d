// The mail clients behind QZMailClient::defaultClient(), and what they share.
#pragma once

#include "QZMailClient.h"

#include <QByteArray>
#include <QSettings>

class QTextDocument;

// Delivers through an SMTP server (group "QZMail/SMTP" of the settings: server, port,
// security "ssl" | "starttls" | "none", user, sender, caFile, allowPlainLogin). The password
// comes from the Secret Service only.
class QZMAIL_EXPORT QZSMTPMailClient final : public QZMailClient
{
public:
    static bool isConfigured();
    int features() const override { return ThreadSafe | SenderAddress; }
    bool deliverMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error) override;
};

// Opens the user's mail program with the message filled in (xdg-email). Main thread only.
class QZMAIL_EXPORT QZComposeMailClient final : public QZMailClient
{
public:
    static bool isAvailable();
    int features() const override { return ComposesForUser; }
    bool constructMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error) override;
};

namespace QZ::mail {

QZError makeError(QZMailErrorCode code, const QString &reason);

// The bare address of a header value: "Name <a@b>" gives "a@b", "a@b" itself.
QString addressOf(const QString &value);
// The domain of an address, lower case: "Name <a@B.org>" gives "b.org".
QString domainOf(const QString &value);

// The message as plain text (attachment characters left out) and as HTML (bold kept).
QString plainText(const QTextDocument &message);
QString htmlText(const QTextDocument &message);

// A header's text, as RFC 2047 encoded words when it is not ASCII.
QByteArray encodedWords(const QString &text);
// An address header's value: the display name encoded when it is not ASCII.
QByteArray encodedAddress(const QString &value);

// The whole MIME message: headers, a multipart/alternative of plain text and HTML, and each
// attachment as a Base64 part. `from` is the "From" header's value.
bool buildMimeMessage(const QTextDocument &message, const QVariantMap &headers, const QString &from,
                      QByteArray *out, QZError *error);

// libcurl's global set-up, done once per process.
void initialiseCurl();

} // namespace QZ::mail
