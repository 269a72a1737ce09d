// The Base64 decoder on arbitrary bytes, Latin-1 and UTF-16 text, against Qt's decoding of its alphabet characters.
#include <QZApp/QZCrypto.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView bytes(data, static_cast<qsizetype>(size));
    const QByteArray decoded = QZ::dataWithBase64(bytes);
    QString wide(static_cast<qsizetype>(size / 2), Qt::Uninitialized);
    std::memcpy(wide.data(), data, size / 2 * 2);
    if (decoded.isNull() || decoded != referenceDecode(data, size) || QZ::dataWithBase64(QString::fromLatin1(bytes)) != decoded
        || QZ::dataWithBase64(wide) != referenceDecode(reinterpret_cast<const char16_t *>(wide.utf16()), size / 2))
        std::abort();
    return 0;
}
