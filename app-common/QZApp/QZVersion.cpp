#include "QZVersion.h"

#include <QFile>
#include <QHashFunctions>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sys/utsname.h>

namespace {

// A cursor over the text that skips nothing, like a scanner with no characters to skip.
class Cursor
{
public:
    explicit Cursor(const QString &text) : m_text(text) {}

    bool atEnd() const { return m_position >= m_text.size(); }
    QChar peek() const { return atEnd() ? QChar() : m_text[m_position]; }

    // The longest run of characters satisfying `accept`; empty when there is none.
    template<typename Predicate>
    QString scanWhile(Predicate accept)
    {
        const qsizetype start = m_position;
        while (!atEnd() && accept(m_text[m_position]))
            ++m_position;
        return m_text.mid(start, m_position - start);
    }

    bool scanCharacterIgnoringCase(QChar expected)
    {
        if (atEnd() || m_text[m_position].toCaseFolded() != expected.toCaseFolded())
            return false;
        ++m_position;
        return true;
    }

    // A decimal floating-point number: [+-]digits[.digits][e[+-]digits], at least one digit.
    std::optional<double> scanDouble()
    {
        qsizetype end = m_position;
        auto digitsAt = [&](qsizetype at) {
            qsizetype n = at;
            while (n < m_text.size() && m_text[n] >= QLatin1Char('0') && m_text[n] <= QLatin1Char('9'))
                ++n;
            return n - at;
        };
        if (end < m_text.size() && (m_text[end] == QLatin1Char('+') || m_text[end] == QLatin1Char('-')))
            ++end;
        qsizetype digits = digitsAt(end);
        end += digits;
        if (end < m_text.size() && m_text[end] == QLatin1Char('.')) {
            const qsizetype fraction = digitsAt(end + 1);
            if (digits + fraction > 0) {
                end += 1 + fraction;
                digits += fraction;
            }
        }
        if (digits == 0)
            return std::nullopt;
        if (end < m_text.size() && (m_text[end] == QLatin1Char('e') || m_text[end] == QLatin1Char('E'))) {
            qsizetype exponent = end + 1;
            if (exponent < m_text.size() && (m_text[exponent] == QLatin1Char('+') || m_text[exponent] == QLatin1Char('-')))
                ++exponent;
            const qsizetype exponentDigits = digitsAt(exponent);
            if (exponentDigits > 0)
                end = exponent + exponentDigits;
        }
        const QByteArray number = m_text.mid(m_position, end - m_position).toLatin1();
        double value = 0;
        const char *first = number.constData();
        if (*first == '+')
            ++first;   // from_chars takes no plus sign
        std::from_chars(first, number.constData() + number.size(), value);
        m_position = end;
        return value;
    }

private:
    const QString &m_text;
    qsizetype m_position = 0;
};

bool isDecimalDigit(QChar c)
{
    return c.isDigit();
}

bool isAlphanumeric(QChar c)
{
    return c.isLetterOrNumber() || c.isMark();
}

// Blanks and tabs, not line breaks.
bool isBlank(QChar c)
{
    return c == QLatin1Char('\t') || c.category() == QChar::Separator_Space;
}

int compareText(const QString &a, const QString &b)
{
    const int order = QString::compare(a, b, Qt::CaseSensitive);
    return (order > 0) - (order < 0);
}

const char kStatusLetters[] = { 'd', 'a', 'b' };

// Made on first use and kept for the life of the process.
#define QZ_REFERENCE_VERSION(text) \
    static const QZVersion version = *QZVersion::versionFromString(QStringLiteral(text)); \
    return version

} // namespace

std::optional<QZVersion> QZVersion::versionFromString(const QString &string)
{
    QZVersion version;
    if (string.isNull() || !version.parse(string))
        return std::nullopt;
    return version;
}

bool QZVersion::parse(const QString &string)
{
    Cursor cursor(string);
    m_majorVersion = cursor.scanWhile(isDecimalDigit);
    if (m_majorVersion.isEmpty())
        return false;
    while (cursor.peek() == QLatin1Char('.')) {
        cursor.scanCharacterIgnoringCase(QLatin1Char('.'));
        const QString minor = cursor.scanWhile(isDecimalDigit);
        if (minor.isEmpty())
            return false;
        m_minorVersions.append(minor);
    }

    m_versionStatus = 3;
    bool gotLetter = false;
    for (int status = 0; status < 3 && !gotLetter; ++status) {
        if (cursor.scanCharacterIgnoringCase(QLatin1Char(kStatusLetters[status]))) {
            m_versionStatus = status;
            gotLetter = true;
        }
    }
    if (!gotLetter && cursor.scanCharacterIgnoringCase(QLatin1Char('f')))
        gotLetter = true;
    if (gotLetter) {
        const QString build = cursor.scanWhile(isAlphanumeric);
        if (!build.isEmpty())
            m_buildNumber = build;
    }

    if (cursor.scanWhile(isBlank).isEmpty())
        return true;
    if (!cursor.scanCharacterIgnoringCase(QLatin1Char('(')))
        return true;
    const std::optional<double> real = cursor.scanDouble();
    m_gotRealVersion = real.has_value();
    m_realVersion = real.value_or(0);
    return true;
}

std::optional<QZVersion> QZVersion::versionFromInfo(const QVariantMap &info)
{
    const QVariant shortVersion = info.value(QStringLiteral("CFBundleShortVersionString"));
    if (!shortVersion.isValid())
        return std::nullopt;
    const QVariant bundleVersion = info.value(QStringLiteral("CFBundleVersion"));
    if (bundleVersion.isValid())
        return versionFromString(QStringLiteral("%1 (%2)").arg(shortVersion.toString(), bundleVersion.toString()));
    return versionFromString(shortVersion.toString());
}

std::optional<QZVersion> QZVersion::versionFromKernelRelease(const char *release)
{
    unsigned major = 0, minor = 0, patch = 0;
    if (std::sscanf(release, "%u.%u.%u", &major, &minor, &patch) < 2)
        return std::nullopt;
    return versionFromString(QString::asprintf("10.%u.%u", major - 4u, minor));
}

std::optional<QZVersion> QZVersion::OSXVersion()
{
    struct utsname name;
    if (uname(&name) != 0)
        return std::nullopt;
    // The release text is read into a 64-byte buffer, as the kernel's version query answers.
    char release[64] = {};
    std::memcpy(release, name.release, std::min(sizeof release - 1, std::strlen(name.release)));
    return versionFromKernelRelease(release);
}

std::optional<QZVersion> QZVersion::distributionVersion()
{
    QFile osRelease(QStringLiteral("/etc/os-release"));
    if (!osRelease.open(QIODevice::ReadOnly | QIODevice::Text))
        return std::nullopt;
    while (!osRelease.atEnd()) {
        const QByteArray line = osRelease.readLine().trimmed();
        if (!line.startsWith("VERSION_ID="))
            continue;
        QByteArray value = line.mid(int(sizeof "VERSION_ID=") - 1);
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
            value = value.mid(1, value.size() - 2);
        return versionFromString(QString::fromUtf8(value));
    }
    return std::nullopt;
}

const QZVersion &QZVersion::leopardOSXVersion()
{
    QZ_REFERENCE_VERSION("10.5.0");
}

const QZVersion &QZVersion::lionOSXVersion()
{
    QZ_REFERENCE_VERSION("10.7.0");
}

const QZVersion &QZVersion::mountainLionOSXVersion()
{
    QZ_REFERENCE_VERSION("10.8.0");
}

int QZVersion::compare(const QZVersion &other) const
{
    if (m_gotRealVersion && other.m_gotRealVersion)
        return (m_realVersion > other.m_realVersion) - (m_realVersion < other.m_realVersion);

    if (const int order = compareText(m_majorVersion, other.m_majorVersion))
        return order;
    const qsizetype common = std::min(m_minorVersions.size(), other.m_minorVersions.size());
    for (qsizetype i = 0; i < common; ++i) {
        if (const int order = compareText(m_minorVersions[i], other.m_minorVersions[i]))
            return order;
    }
    if (m_minorVersions.size() != other.m_minorVersions.size())
        return m_minorVersions.size() > other.m_minorVersions.size() ? 1 : -1;
    if (m_versionStatus != other.m_versionStatus)
        return m_versionStatus < other.m_versionStatus ? -1 : 1;
    // A missing build number on this side compares the same; a present one against a missing
    // one orders later.
    if (m_buildNumber.isNull())
        return 0;
    if (other.m_buildNumber.isNull())
        return 1;
    return compareText(m_buildNumber, other.m_buildNumber);
}

bool QZVersion::isEqual(const QZVersion &other) const
{
    return compare(other) != 0;
}

size_t QZVersion::hash() const
{
    const double clamped = std::clamp(m_realVersion, -2147483648.0, 2147483647.0);
    const qint64 real = m_gotRealVersion && !std::isnan(clamped) ? static_cast<qint32>(clamped) : 0;
    return qHash(m_majorVersion) ^ qHash(m_minorVersions) ^ (m_buildNumber.isNull() ? 0 : qHash(m_buildNumber))
            ^ static_cast<size_t>(m_versionStatus) ^ static_cast<size_t>(real);
}

QString QZVersion::stringValue() const
{
    static const char *const statusLetters[] = { "d", "a", "b" };
    QString text;
    if (m_versionStatus < 3) {
        text = QStringLiteral("%1.%2%3%4").arg(m_majorVersion, m_minorVersions.join(QLatin1Char('.')),
                                              QLatin1String(statusLetters[m_versionStatus]),
                                              m_buildNumber.isNull() ? QStringLiteral("(null)") : m_buildNumber);
    } else {
        text = QStringLiteral("%1.%2").arg(m_majorVersion, m_minorVersions.join(QLatin1Char('.')));
    }
    if (m_gotRealVersion)
        text += QString::asprintf(" (%g)", m_realVersion);
    return text;
}
