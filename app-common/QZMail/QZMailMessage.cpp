// Turning a rich-text message into MIME: the plain and HTML alternatives, the attachments, the
// headers. The framework's Base64 encoder writes every encoded part.
#include "QZMailClients_p.h"

#include <QZApp/QZCrypto.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QTextCursor>
#include <QTextDocument>
#include <QUuid>

#include <curl/curl.h>

#include <memory>
#include <mutex>

namespace QZ::mail {
namespace {

// Base64 lines of 76 characters with CR LF breaks, as MIME bodies carry them.
QByteArray bodyBase64(QByteArrayView bytes)
{
    return QZ::base64Encoded(bytes, QZ::Base64Alphabet::Standard, 76, QZ::Base64LineBreak::CarriageReturnLineFeed);
}

bool isAscii(const QString &text)
{
    for (QChar c : text)
        if (c.unicode() > 0x7e || (c.unicode() < 0x20 && c != QLatin1Char('\t')))
            return false;
    return true;
}

// A copy of the message without its attachment characters.
std::unique_ptr<QTextDocument> withoutAttachments(const QTextDocument &message)
{
    std::unique_ptr<QTextDocument> copy(message.clone());
    const QString object(QChar::ObjectReplacementCharacter);
    for (QTextCursor found = copy->find(object); !found.isNull(); found = copy->find(object, found))
        found.removeSelectedText();
    return copy;
}

QByteArray quoted(const QByteArray &value)
{
    QByteArray text = value;
    text.replace('\\', "\\\\").replace('"', "\\\"");
    return '"' + text + '"';
}

QByteArray contentTypeOf(const QString &path)
{
    if (path.endsWith(QLatin1String(".gz"), Qt::CaseInsensitive))
        return "application/gzip";
    const QMimeType type = QMimeDatabase().mimeTypeForFile(path, QMimeDatabase::MatchExtension);
    return type.isValid() && !type.isDefault() ? type.name().toLatin1() : QByteArray("application/octet-stream");
}

QByteArray newBoundary()
{
    return "=_qzmail_" + QUuid::createUuid().toByteArray(QUuid::Id128);
}

} // namespace

QString addressOf(const QString &value)
{
    const qsizetype open = value.lastIndexOf(QLatin1Char('<'));
    const qsizetype close = value.lastIndexOf(QLatin1Char('>'));
    if (open >= 0 && close > open)
        return value.mid(open + 1, close - open - 1).trimmed();
    return value.trimmed();
}

QString domainOf(const QString &value)
{
    const QString address = addressOf(value);
    const qsizetype at = address.lastIndexOf(QLatin1Char('@'));
    return at < 0 ? QString() : address.mid(at + 1).toLower();
}

QString plainText(const QTextDocument &message)
{
    return withoutAttachments(message)->toPlainText();
}

QString htmlText(const QTextDocument &message)
{
    return withoutAttachments(message)->toHtml();
}

QByteArray encodedWords(const QString &text)
{
    if (isAscii(text))
        return text.toLatin1();
    // Encoded words of at most 45 bytes of UTF-8 each (75 characters written), never splitting
    // a character; folded onto continuation lines.
    QByteArray result;
    QByteArray chunk;
    const auto flush = [&] {
        if (chunk.isEmpty())
            return;
        if (!result.isEmpty())
            result += "\r\n ";
        result += "=?UTF-8?B?" + QZ::base64Encoded(chunk, QZ::Base64Alphabet::Standard, 0xffffffffu) + "?=";
        chunk.clear();
    };
    for (qsizetype i = 0; i < text.size(); ++i) {
        const qsizetype length = text.at(i).isHighSurrogate() && i + 1 < text.size() ? 2 : 1;
        const QByteArray character = text.mid(i, length).toUtf8();
        if (chunk.size() + character.size() > 45)
            flush();
        chunk += character;
        i += length - 1;
    }
    flush();
    return result;
}

QByteArray encodedAddress(const QString &value)
{
    const qsizetype open = value.lastIndexOf(QLatin1Char('<'));
    if (open <= 0)
        return encodedWords(value.trimmed());
    const QString name = value.left(open).trimmed();
    const QByteArray address = value.mid(open).trimmed().toUtf8();
    if (isAscii(name))
        return (name.contains(QLatin1Char(',')) ? quoted(name.toLatin1()) : name.toLatin1()) + ' ' + address;
    return encodedWords(name) + ' ' + address;
}

bool buildMimeMessage(const QTextDocument &message, const QVariantMap &headers, const QString &from,
                      QByteArray *out, QZError *error)
{
    const QString to = headers.value(QStringLiteral("To")).toString();
    if (addressOf(to).isEmpty()) {
        *error = makeError(QZMailErrorBadMessage, QStringLiteral("The message has no recipient."));
        return false;
    }

    const QByteArray mixed = newBoundary();
    const QByteArray alternative = newBoundary();
    QString senderDomain = domainOf(from);
    if (senderDomain.isEmpty())
        senderDomain = QStringLiteral("localhost");

    QByteArray mime;
    mime += "From: " + encodedAddress(from) + "\r\n";
    mime += "To: " + encodedAddress(to) + "\r\n";
    mime += "Subject: " + encodedWords(headers.value(QStringLiteral("Subject")).toString()) + "\r\n";
    mime += "Date: " + QDateTime::currentDateTime().toString(Qt::RFC2822Date).toLatin1() + "\r\n";
    mime += "Message-ID: <" + QUuid::createUuid().toByteArray(QUuid::WithoutBraces) + '@' + senderDomain.toUtf8() + ">\r\n";
    mime += "MIME-Version: 1.0\r\n";
    mime += "Content-Type: multipart/mixed; boundary=\"" + mixed + "\"\r\n\r\n";
    mime += "This is a message in MIME format.\r\n";

    mime += "--" + mixed + "\r\nContent-Type: multipart/alternative; boundary=\"" + alternative + "\"\r\n\r\n";
    const QString plain = plainText(message).replace(QLatin1Char('\n'), QLatin1String("\r\n"));
    mime += "--" + alternative + "\r\nContent-Type: text/plain; charset=utf-8\r\n"
            "Content-Transfer-Encoding: base64\r\n\r\n" + bodyBase64(plain.toUtf8()) + "\r\n";
    mime += "--" + alternative + "\r\nContent-Type: text/html; charset=utf-8\r\n"
            "Content-Transfer-Encoding: base64\r\n\r\n" + bodyBase64(htmlText(message).toUtf8()) + "\r\n";
    mime += "--" + alternative + "--\r\n";

    for (const QString &path : mailAttachments(message)) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            *error = makeError(QZMailErrorBadMessage, QStringLiteral("The attachment \"%1\" cannot be read: %2.")
                                                              .arg(path, file.errorString()));
            return false;
        }
        const QByteArray name = quoted(encodedWords(QFileInfo(path).fileName()));
        mime += "--" + mixed + "\r\nContent-Type: " + contentTypeOf(path) + "; name=" + name + "\r\n"
                "Content-Disposition: attachment; filename=" + name + "\r\n"
                "Content-Transfer-Encoding: base64\r\n\r\n" + bodyBase64(file.readAll()) + "\r\n";
    }
    mime += "--" + mixed + "--\r\n";
    *out = std::move(mime);
    return true;
}

void initialiseCurl()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

} // namespace QZ::mail
