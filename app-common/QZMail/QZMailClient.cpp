// The mail-client base: feature answers, the default client's choice, attachment characters.
#include "QZMailClient.h"
#include "QZMailClients_p.h"

#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <QTextFormat>

const QString QZMailErrorDomain = QStringLiteral("QZMailErrorDomain");

static_assert(QZ::MailAttachmentPathProperty > QTextFormat::UserProperty);

QZMailClient::~QZMailClient() = default;

// A client that only delivers cannot compose, and the reverse.
bool QZMailClient::constructMessage(const QTextDocument &, const QVariantMap &, QZError *error)
{
    if (error)
        *error = QZ::mail::makeError(QZMailErrorNotConfigured, QStringLiteral("This mail client cannot open messages for editing."));
    return false;
}

bool QZMailClient::deliverMessage(const QTextDocument &, const QVariantMap &, QZError *error)
{
    if (error)
        *error = QZ::mail::makeError(QZMailErrorNotConfigured, QStringLiteral("This mail client cannot deliver messages."));
    return false;
}

std::shared_ptr<QZMailClient> QZMailClient::defaultClient()
{
    if (QZSMTPMailClient::isConfigured())
        return std::make_shared<QZSMTPMailClient>();
    if (QZComposeMailClient::isAvailable())
        return std::make_shared<QZComposeMailClient>();
    return nullptr;
}

namespace QZ {

void insertMailAttachment(QTextCursor &cursor, const QString &path)
{
    QTextCharFormat format;
    format.setObjectType(QTextFormat::UserObject + 1);
    format.setProperty(MailAttachmentPathProperty, path);
    cursor.insertText(QString(QChar::ObjectReplacementCharacter), format);
}

QStringList mailAttachments(const QTextDocument &message)
{
    QStringList paths;
    for (QTextBlock block = message.begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            const QVariant path = fragment.charFormat().property(MailAttachmentPathProperty);
            if (!path.isValid())
                continue;
            // A fragment of several attachment characters shares one format: one file each.
            for (QChar c : fragment.text())
                if (c == QChar::ObjectReplacementCharacter)
                    paths.append(path.toString());
        }
    }
    return paths;
}

namespace mail {

QZError makeError(QZMailErrorCode code, const QString &reason)
{
    return QZError(QZMailErrorDomain, code, reason);
}

} // namespace mail
} // namespace QZ
