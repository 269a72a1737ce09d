// Base64 decoding of arbitrary text, as bytes and as UTF-16, against Qt's decoder of the text's
// alphabet characters alone; and the encode/decode round trip with the layout taken from the
// input.
#include <QZApp/QZCrypto.h>

#include <QStringList>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

// Qt's decoding of the characters of either alphabet in `text`, everything else left out.
template<typename Char>
QByteArray referenceDecode(const Char *text, size_t length)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/-_";
    QByteArray kept;
    for (size_t i = 0; i < length; ++i)
        if (text[i] > 0 && text[i] < 128 && std::strchr(alphabet, static_cast<char>(text[i])))
            kept += text[i] == '-' ? '+' : text[i] == '_' ? '/' : static_cast<char>(text[i]);
    return QByteArray::fromBase64(kept);
}

// Every line holds whole groups and at most max(width, 4) characters.
void checkLayout(const QString &text, quint32 width, const QString &lineBreak)
{
    for (const QString &line : text.split(lineBreak))
        check(line.size() % 4 == 0 && quint64(line.size()) <= std::max<quint64>(width, 4) && !line.contains(QLatin1Char('\n'))
              && !line.contains(QLatin1Char('\r')));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView bytes(data, static_cast<qsizetype>(size));
    const QByteArray decoded = QZ::dataWithBase64(bytes);
    check(!decoded.isNull() && decoded == referenceDecode(data, size));
    check(QZ::dataWithBase64(QString::fromLatin1(bytes)) == decoded);
    QString wide(static_cast<qsizetype>(size / 2), Qt::Uninitialized);
    std::memcpy(wide.data(), data, size / 2 * 2);
    check(QZ::dataWithBase64(wide) == referenceDecode(reinterpret_cast<const char16_t *>(wide.utf16()), size / 2));
    if (size < 2)
        return 0;

    const quint32 width = data[0] < 200 ? data[0] : 0xFFFFFFFFu - data[0];
    const QByteArrayView payload = bytes.sliced(2);
    const bool urlSafe = data[1] & 1;
    const QString text = urlSafe ? QZ::urlSafeBase64WithMaximumWidth(payload, width) : QZ::base64WithMaximumWidth(payload, width);
    checkLayout(text, width, QStringLiteral("\n"));
    check(QZ::dataWithBase64(text) == payload);
    check(QZ::base64Encoded(payload, urlSafe ? QZ::Base64Alphabet::UrlSafe : QZ::Base64Alphabet::Standard, width,
                            QZ::Base64LineBreak::LineFeed) == text.toLatin1());
    const QString mime = QZ::mimeBase64(payload);
    checkLayout(mime, 70, QStringLiteral("\r\n"));
    check(QZ::dataWithBase64(QByteArrayView(mime.toLatin1())) == payload);
    return 0;
}
