// QZVersion: the parse table, the ordering rules and the kernel-release arithmetic.
#include "support/TestSupport.h"

#include <QZApp/QZVersion.h>

#include <cmath>

namespace {

TEST(Version, ParsesAndPrintsTheTable)
{
    // build nullptr and real NAN: none
    const struct { const char *input, *major, *minors; int status; const char *build; double real; const char *printed; } rows[] = {
        { "1.0.7 (48)", "1", "0 7", 3, nullptr, 48, "1.0.7 (48)" },
        { "2.1b3", "2", "1", 2, "3", NAN, "2.1b3" },
        { "3", "3", "", 3, nullptr, NAN, "3." },
        { "1.0d", "1", "0", 0, nullptr, NAN, "1.0d(null)" },
        { "1.0f2", "1", "0", 3, "2", NAN, "1.0" },
        { "1.2.3-rc1", "1", "2 3", 3, nullptr, NAN, "1.2.3" },
        { "1.0(5)", "1", "0", 3, nullptr, NAN, "1.0" },
        { "1.0 (abc)", "1", "0", 3, nullptr, NAN, "1.0" },
        { "1.0B2", "1", "0", 2, "2", NAN, "1.0b2" },
        { "1.0a1 \t(2.5e1)", "1", "0", 1, "1", 25, "1.0a1 (25)" },
        { "٣.٤", "٣", "٤", 3, nullptr, NAN, "٣.٤" },   // any decimal digits
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.input);
        const std::optional<QZVersion> version = QZVersion::versionFromString(QString::fromUtf8(row.input));
        ASSERT_TRUE(version);
        EXPECT_EQ(version->majorVersion(), QString::fromUtf8(row.major));
        EXPECT_EQ(version->minorVersions().join(QLatin1Char(' ')), QString::fromUtf8(row.minors));
        EXPECT_EQ(version->versionStatus(), row.status);
        EXPECT_TRUE(row.build ? version->buildNumber() == QString::fromUtf8(row.build) : version->buildNumber().isNull());
        EXPECT_EQ(version->gotRealVersion(), !std::isnan(row.real));
        EXPECT_TRUE(std::isnan(row.real) || version->realVersion() == row.real);
        EXPECT_EQ(version->stringValue(), QString::fromUtf8(row.printed));
    }
    for (const char *bad : { "1.", " 1.0", "x1.0", "", ".5", "1..2" })
        EXPECT_FALSE(QZVersion::versionFromString(QString::fromUtf8(bad))) << bad;
    EXPECT_FALSE(QZVersion::versionFromString(QString()));
}

TEST(Version, OrdersByTheStatedRulesAndIsEqualWhenVersionsDiffer)
{
    const auto version = [](const char *text) { return *QZVersion::versionFromString(QString::fromUtf8(text)); };
    const struct { const char *a, *b; int order; } rows[] = {
        { "1.0.7 (48)", "1.0.8 (47)", 1 },   // real versions first
        { "1.0.7 (48)", "1.0.8", -1 },
        { "10.0", "9.0", -1 },               // text order of majors
        { "1.2", "1.2.0", -1 },
        { "1.2.0", "1.2", 1 },
        { "1.2b1", "1.2", -1 },
        { "1.2d5", "1.2a1", -1 },
        { "1.2b10", "1.2b9", -1 },
        { "1.2", "1.2f7", 0 },
        { "1.2f7", "1.2", 1 },
    };
    for (const auto &row : rows)
        EXPECT_EQ(version(row.a).compare(version(row.b)), row.order) << row.a << " " << row.b;
    EXPECT_FALSE(version("1.0").isEqual(version("1.0")));
    EXPECT_TRUE(version("1.0").isEqual(version("2.0")));
    EXPECT_EQ(version("1.0").hash(), version("1.0").hash());
}

TEST(Version, ReadsBundleInformationAndKernelReleasesUnsigned)
{
    const QString shortKey = QStringLiteral("CFBundleShortVersionString"), buildKey = QStringLiteral("CFBundleVersion");
    EXPECT_EQ(QZVersion::versionFromInfo({ { shortKey, QStringLiteral("1.2") }, { buildKey, QStringLiteral("345") } })->stringValue(),
              QStringLiteral("1.2 (345)"));
    EXPECT_EQ(QZVersion::versionFromInfo({ { shortKey, QStringLiteral("2.1b3") } })->stringValue(), QStringLiteral("2.1b3"));
    EXPECT_FALSE(QZVersion::versionFromInfo({ { buildKey, QStringLiteral("345") } }));

    const std::pair<const char *, const char *> releases[] = {
        { "11.4.2", "10.7.4" }, { "12.0.0", "10.8.0" }, { "3.2", "10.4294967295.2" }, { "6.18.44-generic", "10.2.18" },
    };
    for (const auto &[release, version] : releases)
        EXPECT_EQ(QZVersion::versionFromKernelRelease(release)->stringValue(), QString::fromUtf8(version));
    EXPECT_FALSE(QZVersion::versionFromKernelRelease("6"));
    EXPECT_FALSE(QZVersion::versionFromKernelRelease("linux"));
    EXPECT_EQ(QZVersion::mountainLionOSXVersion().compare(QZVersion::lionOSXVersion()), 1);
    EXPECT_EQ(QZVersion::leopardOSXVersion().stringValue(), QStringLiteral("10.5.0"));
}

} // namespace
