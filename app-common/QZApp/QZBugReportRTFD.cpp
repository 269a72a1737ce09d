// A report as an RTFD package: a folder holding the text as TXT.rtf and each attached file
// beside it, named in the text where its attachment character stands.
#include "QZBugReporter_p.h"

#include <QZMail/QZMailClient.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTextBlock>
#include <QTextDocument>
#include <QTextFragment>

namespace {

constexpr char16_t kAttachmentCharacter = 0xfffc;

// Text in RTF: control characters escaped, everything outside ASCII as \uN with "?" for readers
// without Unicode.
void appendText(QByteArray &rtf, const QString &text)
{
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if (u == '\\' || u == '{' || u == '}') {
            rtf += '\\';
            rtf += static_cast<char>(u);
        } else if (u == '\t') {
            rtf += "\\tab ";
        } else if (u == 0x2028 || u == 0x2029) {
            rtf += "\\line\n";
        } else if (u >= 0x20 && u < 0x80) {
            rtf += static_cast<char>(u);
        } else if (u >= 0x80) {
            rtf += "\\u" + QByteArray::number(static_cast<qint16>(u)) + '?';
        }
    }
}

} // namespace

namespace QZ::detail {

QByteArray rtfFromDocument(const QTextDocument &message)
{
    QByteArray rtf = "{\\rtf1\\ansi\\ansicpg1252\\uc1\\deff0\n"
                     "{\\fonttbl\\f0\\fswiss\\fcharset0 Helvetica;}\n"
                     "\\pard\\f0\\fs24 ";
    for (QTextBlock block = message.begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            const QTextCharFormat format = fragment.charFormat();
            const QString text = fragment.text();
            const QString path = format.property(QZ::MailAttachmentPathProperty).toString();
            if (!path.isEmpty() && text.contains(QChar(kAttachmentCharacter))) {
                for (qsizetype i = 0; i < text.size(); i++) {
                    rtf += "{{\\NeXTGraphic ";
                    appendText(rtf, QFileInfo(path).fileName());
                    rtf += " \\width640 \\height640}\\'ac}";
                }
                continue;
            }
            const bool bold = format.fontWeight() >= QFont::Bold;
            if (bold)
                rtf += "{\\b ";
            appendText(rtf, text);
            if (bold)
                rtf += '}';
        }
        if (block.next().isValid())
            rtf += "\\par\n";
    }
    rtf += "}\n";
    return rtf;
}

bool writeRTFD(const QTextDocument &message, const QString &path)
{
    if (!QDir().mkpath(path))
        return false;
    bool written = true;
    QFile text(path + QStringLiteral("/TXT.rtf"));
    written = text.open(QIODevice::WriteOnly | QIODevice::Truncate) && text.write(rtfFromDocument(message)) >= 0;
    text.close();
    for (const QString &file : QZ::mailAttachments(message)) {
        const QString target = path + QLatin1Char('/') + QFileInfo(file).fileName();
        QFile::remove(target);
        written = QFile::copy(file, target) && written;
    }
    return written;
}

} // namespace QZ::detail
