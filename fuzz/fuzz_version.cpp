// Parsing arbitrary version strings, printing and ordering what parses.
#include <QZApp/QZVersion.h>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const std::optional<QZVersion> version = QZVersion::versionFromString(text);
    if (!version)
        return 0;
    version->hash();
    // Only digits are read, so the real version is never NaN and a version equals itself.
    if (version->compare(*version) != 0)
        std::abort();
    const std::optional<QZVersion> reparsed = QZVersion::versionFromString(version->stringValue());
    if (reparsed && !version->gotRealVersion() && version->buildNumber().isNull() && reparsed->compare(*version) != 0)
        std::abort();
    return 0;
}
