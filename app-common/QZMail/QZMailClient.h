// Mail clients: what a program hands a finished message to, to deliver it or to open it in the
// user's mail program.
//
// A message is a QTextDocument holding rich text. Files travel inside it as attachment
// characters (U+FFFC) whose character format names the file (QZ::insertMailAttachment). The
// headers are a map with "To", "Subject" and optionally "From", each a string.
#pragma once

#include <QZMail/QZMailGlobal.h>

#include <QZApp/QZError.h>

#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <memory>

class QTextCursor;
class QTextDocument;

// The error domain of every QZMail failure, with the codes below.
QZMAIL_EXPORT extern const QString QZMailErrorDomain;

enum QZMailErrorCode {
    QZMailErrorNotConfigured = 1,      // settings incomplete, or no endpoint for the recipient
    QZMailErrorNoPassword = 2,         // the Secret Service holds no password for the account
    QZMailErrorInsecureLogin = 3,      // credentials would cross a connection without TLS
    QZMailErrorBadMessage = 4,         // no recipient, or an attachment that cannot be read
    QZMailErrorTransfer = 5,           // the server refused, or the connection failed
    QZMailErrorLaunch = 6,             // the mail program could not be started
};

class QZMAIL_EXPORT QZMailClient
{
public:
    // Feature bits of features().
    enum Feature {
        ComposesForUser = 2,      // opens the message for the user instead of delivering it
        SenderAddress = 8,        // the sender's address may be given ("From")
        ThreadSafe = 16,          // may be used from a thread other than the main thread
    };

    virtual ~QZMailClient();

    // The user's configured client: SMTP when its settings are complete, else the user's mail
    // program when xdg-email and a mailto: handler are there, else null.
    static std::shared_ptr<QZMailClient> defaultClient();

    virtual int features() const = 0;
    bool supportsFeature(int feature) const { return (features() & feature) != 0; }

    // Opens the message with these headers for the user to send. False with *error on failure.
    virtual bool constructMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error);
    // Sends the message. False with *error on failure.
    virtual bool deliverMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error);

protected:
    QZMailClient() = default;
    QZMailClient(const QZMailClient &) = delete;
    QZMailClient &operator=(const QZMailClient &) = delete;
};

namespace QZ {

// The character-format property that holds an attachment character's file path.
inline constexpr int MailAttachmentPathProperty = 0x100000 + 0x5a4d;   // QTextFormat::UserProperty + n

// Inserts one attachment character for the file at `path` at the cursor.
QZMAIL_EXPORT void insertMailAttachment(QTextCursor &cursor, const QString &path);
// The files of the document's attachment characters, in document order.
QZMAIL_EXPORT QStringList mailAttachments(const QTextDocument &message);

} // namespace QZ
