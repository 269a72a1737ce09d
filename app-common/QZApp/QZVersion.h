// Version numbers as application bundles write them ("1.0.7 (48)", "2.1b3"): parsing, ordering
// and printing, and the running system's version.
//
// Numeric parts are kept and compared as text, so "10" orders before "9". A bundle version in
// parentheses (the real version) decides the order alone when both versions have one.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <optional>

class QZAPP_EXPORT QZVersion
{
public:
    // Parsing; std::nullopt when the text is not a version.
    static std::optional<QZVersion> versionFromString(const QString &string);
    // From a bundle's information dictionary: "CFBundleShortVersionString", with
    // "CFBundleVersion" as the real version when present. Nothing without a short version.
    static std::optional<QZVersion> versionFromInfo(const QVariantMap &info);

    // The running system, from the kernel release "A.B.C" as "10.(A-4).B" (unsigned arithmetic;
    // the arithmetic is only meaningful for Darwin kernels). Nothing when the release does not
    // start with two dot-separated numbers.
    static std::optional<QZVersion> OSXVersion();
    // The same arithmetic on a given kernel release text.
    static std::optional<QZVersion> versionFromKernelRelease(const char *release);
    // The distribution's own version ("VERSION_ID" of /etc/os-release), when it parses.
    static std::optional<QZVersion> distributionVersion();

    // Reference versions 10.5.0, 10.7.0 and 10.8.0, made once and kept.
    static const QZVersion &leopardOSXVersion();
    static const QZVersion &lionOSXVersion();
    static const QZVersion &mountainLionOSXVersion();

    // Parsed fields
    QString majorVersion() const { return m_majorVersion; }
    QStringList minorVersions() const { return m_minorVersions; }
    int versionStatus() const { return m_versionStatus; }   // 0 d, 1 a, 2 b, 3 f or none
    QString buildNumber() const { return m_buildNumber; }   // null when absent
    double realVersion() const { return m_realVersion; }
    bool gotRealVersion() const { return m_gotRealVersion; }

    // Ordering: -1, 0 or 1.
    int compare(const QZVersion &other) const;
    // True when the two versions DIFFER (compare() is non-zero). Test equality with compare().
    bool isEqual(const QZVersion &other) const;
    size_t hash() const;

    // "1.0.7 (48)", "2.1b3", "3." (a version without minor parts keeps its trailing dot),
    // "1.0d(null)" (a status letter without a build number).
    QString stringValue() const;
    QString description() const { return stringValue(); }

private:
    QZVersion() = default;
    bool parse(const QString &string);

    QString m_majorVersion;
    QStringList m_minorVersions;
    int m_versionStatus = 3;
    QString m_buildNumber;
    double m_realVersion = 0;
    bool m_gotRealVersion = false;
};
