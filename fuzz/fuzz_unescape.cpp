// Unescaping arbitrary text with the default map or one taken from the input; escaping round trips.
#include <QZApp/QZStringExtensions.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const qsizetype split = bytes.indexOf('\x01');
    const QByteArray map = split < 0 ? QZ::defaultEscapeMap() : bytes.left(split);
    const QString text = QString::fromUtf8(split < 0 ? bytes : bytes.mid(split + 1));

    QZ::unescapedStringWithMap(text, map);
    if (QZ::unescapedString(QZ::stringByEscapingShellCharacters(text)) != text)
        std::abort();
    QZ::stringWithArgumentArray({ text });
    return 0;
}
