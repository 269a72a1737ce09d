// QZVersion: the parse table, the ordering rules and the kernel-release arithmetic.
#include "support/TestSupport.h"

#include <QZApp/QZVersion.h>

#include <cmath>

namespace {

TEST(Version, ParsesAndPrintsTheTable)
{
    const struct {
        const char *input, *major, *minors;
        int status;
        const char *build;   // nullptr: none
        double real;         // NAN: none
        const char *printed;
    } rows[] = {
        { "1.0.7 (48)", "1", "0 7", 3, nullptr, 48, "1.0.7 (48)" },
        { "2.1b3", "2", "1", 2, "3", NAN, "2.1b3" },
        { "2.1", "2", "1", 3, nullptr, NAN, "2.1" },
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
        EXPECT_EQ(version->buildNumber(), row.build ? QString::fromUtf8(row.build) : QString());
        EXPECT_EQ(version->buildNumber().isNull(), row.build == nullptr);
        EXPECT_EQ(version->gotRealVersion(), !std::isnan(row.real));
        if (!std::isnan(row.real)) {
            EXPECT_EQ(version->realVersion(), row.real);
        }
        EXPECT_EQ(version->stringValue(), QString::fromUtf8(row.printed));
    }
    for (const char *bad : { "1.", " 1.0", "x1.0", "", ".5", "1..2" })
        EXPECT_FALSE(QZVersion::versionFromString(QString::fromUtf8(bad))) << bad;
    EXPECT_FALSE(QZVersion::versionFromString(QString()));
}

int compare(const char *a, const char *b)
{
    return QZVersion::versionFromString(QString::fromUtf8(a))->compare(*QZVersion::versionFromString(QString::fromUtf8(b)));
}

TEST(Version, OrdersByTheStatedRules)
{
    EXPECT_EQ(compare("1.0.7 (48)", "1.0.8 (47)"), 1);   // real versions only
    EXPECT_EQ(compare("1.0.7 (48)", "1.0.8"), -1);
    EXPECT_EQ(compare("10.0", "9.0"), -1);                // text order of majors
    EXPECT_EQ(compare("1.2", "1.2.0"), -1);
    EXPECT_EQ(compare("1.2.0", "1.2"), 1);
    EXPECT_EQ(compare("1.2b1", "1.2"), -1);
    EXPECT_EQ(compare("1.2d5", "1.2a1"), -1);
    EXPECT_EQ(compare("1.2b10", "1.2b9"), -1);
    EXPECT_EQ(compare("1.2", "1.2f7"), 0);
    EXPECT_EQ(compare("1.2f7", "1.2"), 1);
    EXPECT_EQ(compare("2.0 (3)", "2.0 (3)"), 0);
}

TEST(Version, IsEqualIsTrueWhenVersionsDiffer)
{
    const QZVersion one = *QZVersion::versionFromString(QStringLiteral("1.0"));
    const QZVersion same = *QZVersion::versionFromString(QStringLiteral("1.0"));
    const QZVersion two = *QZVersion::versionFromString(QStringLiteral("2.0"));
    EXPECT_FALSE(one.isEqual(same));
    EXPECT_TRUE(one.isEqual(two));
    EXPECT_EQ(one.hash(), same.hash());
}

TEST(Version, ReadsBundleInformation)
{
    const auto both = QZVersion::versionFromInfo({ { QStringLiteral("CFBundleShortVersionString"), QStringLiteral("1.2") },
                                                   { QStringLiteral("CFBundleVersion"), QStringLiteral("345") } });
    ASSERT_TRUE(both);
    EXPECT_EQ(both->stringValue(), QStringLiteral("1.2 (345)"));
    const auto shortOnly = QZVersion::versionFromInfo({ { QStringLiteral("CFBundleShortVersionString"), QStringLiteral("2.1b3") } });
    EXPECT_EQ(shortOnly->stringValue(), QStringLiteral("2.1b3"));
    EXPECT_FALSE(QZVersion::versionFromInfo({ { QStringLiteral("CFBundleVersion"), QStringLiteral("345") } }));
}

TEST(Version, KernelReleaseArithmeticIsUnsigned)
{
    EXPECT_EQ(QZVersion::versionFromKernelRelease("11.4.2")->stringValue(), QStringLiteral("10.7.4"));
    EXPECT_EQ(QZVersion::versionFromKernelRelease("12.0.0")->stringValue(), QStringLiteral("10.8.0"));
    EXPECT_EQ(QZVersion::versionFromKernelRelease("3.2")->stringValue(), QStringLiteral("10.4294967295.2"));
    EXPECT_EQ(QZVersion::versionFromKernelRelease("6.18.44-generic")->stringValue(), QStringLiteral("10.2.18"));
    EXPECT_FALSE(QZVersion::versionFromKernelRelease("6"));
    EXPECT_FALSE(QZVersion::versionFromKernelRelease("linux"));
    EXPECT_TRUE(QZVersion::OSXVersion());
    EXPECT_EQ(QZVersion::mountainLionOSXVersion().compare(QZVersion::lionOSXVersion()), 1);
    EXPECT_EQ(QZVersion::leopardOSXVersion().stringValue(), QStringLiteral("10.5.0"));
    EXPECT_EQ(&QZVersion::lionOSXVersion(), &QZVersion::lionOSXVersion());
}

} // namespace
