// Base64 decoding of arbitrary text, as bytes and as UTF-16, against a character-by-character
// reference decoder; and the encode/decode round trip with the layout taken from the input.
#include <QZApp/QZCrypto.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

int sixBits(unsigned c)
{
    if (c >= 'A' && c <= 'Z')
        return int(c - 'A');
    if (c >= 'a' && c <= 'z')
        return int(c - 'a' + 26);
    if (c >= '0' && c <= '9')
        return int(c - '0' + 52);
    if (c == '+' || c == '-')
        return 62;
    if (c == '/' || c == '_')
        return 63;
    return -1;
}

template<typename Char>
QByteArray referenceDecode(const Char *text, size_t length)
{
    QByteArray out;
    unsigned bits = 0;
    int count = 0;
    for (size_t i = 0; i < length; ++i) {
        const int v = sixBits(text[i]);
        if (v < 0)
            continue;
        bits = bits << 6 | unsigned(v);
        if (++count == 4) {
            out += char(bits >> 16);
            out += char(bits >> 8);
            out += char(bits);
            bits = 0;
            count = 0;
        }
    }
    if (count == 2)
        out += char(bits >> 4);
    if (count == 3) {
        out += char(bits >> 10);
        out += char(bits >> 2);
    }
    return out;
}

void check(bool condition)
{
    if (!condition)
        std::abort();
}

// Every line holds whole groups and at most max(width, 4) characters.
void checkLayout(const QString &text, quint32 width, const QString &lineBreak)
{
    const QStringList lines = text.split(lineBreak);
    for (qsizetype i = 0; i < lines.size(); ++i) {
        check(lines[i].size() % 4 == 0);
        check(quint64(lines[i].size()) <= std::max<quint64>(width, 4));
        check(!lines[i].contains(QLatin1Char('\n')) && !lines[i].contains(QLatin1Char('\r')));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView bytes(data, static_cast<qsizetype>(size));
    const QByteArray decoded = QZ::dataWithBase64(bytes);
    check(!decoded.isNull());
    check(decoded == referenceDecode(data, size));
    check(QZ::dataWithBase64(QString::fromLatin1(bytes)) == decoded);

    QString wide(static_cast<qsizetype>(size / 2), Qt::Uninitialized);
    std::memcpy(wide.data(), data, size / 2 * 2);
    check(QZ::dataWithBase64(wide) == referenceDecode(reinterpret_cast<const char16_t *>(wide.utf16()), size / 2));

    if (size < 2)
        return 0;
    const quint32 width = data[0] < 200 ? data[0] : 0xFFFFFFFFu - data[0];
    const QByteArrayView payload = bytes.sliced(2);
    const bool urlSafe = data[1] & 1;
    const QString text = urlSafe ? QZ::urlSafeBase64WithMaximumWidth(payload, width)
                                 : QZ::base64WithMaximumWidth(payload, width);
    checkLayout(text, width, QStringLiteral("\n"));
    check(QZ::dataWithBase64(text) == payload);
    const QByteArray asBytes = QZ::base64Encoded(payload, urlSafe ? QZ::Base64Alphabet::UrlSafe : QZ::Base64Alphabet::Standard,
                                                 width, QZ::Base64LineBreak::LineFeed);
    check(asBytes == text.toLatin1());
    const QString mime = QZ::mimeBase64(payload);
    checkLayout(mime, 70, QStringLiteral("\r\n"));
    check(QZ::dataWithBase64(QByteArrayView(mime.toLatin1())) == payload);
    return 0;
}
