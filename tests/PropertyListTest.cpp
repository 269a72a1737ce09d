// plist_from_file and the QVariant conversion: XML and binary lists, nothing else.
#include <QZApp/QZPropertyList.h>
#include <QZApp/utils.h>

#include <gtest/gtest.h>

#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>
#include <QTimeZone>

#include <cstdlib>

namespace {

class PropertyList : public testing::Test
{
protected:
    QString write(const QString &name, const QByteArray &bytes)
    {
        const QString path = folder.filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return path;
    }

    QTemporaryDir folder;
};

const QByteArray xml = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>name</key><string>Disk Tool ✓</string>
  <key>count</key><integer>-5</integer>
  <key>ratio</key><real>0.25</real>
  <key>on</key><true/>
  <key>when</key><date>2001-01-02T00:00:01Z</date>
  <key>bytes</key><data>AAEC</data>
  <key>list</key><array><string>a</string><dict/></array>
</dict></plist>
)";

TEST_F(PropertyList, ReadsXmlIntoQtValues)
{
    const QVariantMap map = QZ::propertyListFromFile(write(QStringLiteral("list.plist"), xml)).toMap();
    EXPECT_EQ(map.value(QStringLiteral("name")).toString(), QStringLiteral("Disk Tool ✓"));
    EXPECT_EQ(map.value(QStringLiteral("count")), QVariant(qlonglong(-5)));
    EXPECT_EQ(map.value(QStringLiteral("ratio")).toDouble(), 0.25);
    EXPECT_EQ(map.value(QStringLiteral("on")), QVariant(true));
    EXPECT_EQ(map.value(QStringLiteral("when")).toDateTime(),
              QDateTime(QDate(2001, 1, 2), QTime(0, 0, 1), QTimeZone::utc()));
    EXPECT_EQ(map.value(QStringLiteral("bytes")).toByteArray(), QByteArray("\0\1\2", 3));
    const QVariantList list = map.value(QStringLiteral("list")).toList();
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[0].toString(), QStringLiteral("a"));
    EXPECT_EQ(list[1].typeId(), QMetaType::QVariantMap);
}

TEST_F(PropertyList, ReadsTheBinaryFormToTheSameValues)
{
    plist_t parsed = plist_from_file(write(QStringLiteral("list.plist"), xml).toUtf8().constData());
    ASSERT_NE(parsed, nullptr);
    char *binary = nullptr;
    uint32_t length = 0;
    plist_to_bin(parsed, &binary, &length);
    ASSERT_NE(binary, nullptr);
    const QString path = write(QStringLiteral("binary.plist"), QByteArray(binary, static_cast<qsizetype>(length)));
    std::free(binary);
    EXPECT_EQ(QZ::propertyListFromFile(path), QZ::variantFromPropertyList(parsed));
    plist_free(parsed);
}

TEST_F(PropertyList, AnythingElseIsNull)
{
    for (const QByteArray &bytes : { QByteArray(R"({"json": true})"), QByteArray("not a list"), QByteArray(),
                                     QByteArray("<html><body/></html>"), QByteArray("bplist00 cut short") }) {
        const QString path = write(QStringLiteral("other"), bytes);
        EXPECT_EQ(plist_from_file(path.toUtf8().constData()), nullptr) << bytes.constData();
        EXPECT_FALSE(QZ::propertyListFromFile(path).isValid());
    }
    // Binary lists the parser lets through but that cannot be read safely: a dictionary whose key
    // is not a string, and a key with a NUL character in it.
    for (const char *base64 : { "YnBsaXN0MDDSAQIDDVFhUW6nBAUGBwgJChABE//////////+Iz/gAAAAAAAACUIAAVR0ZXh00QsMUWtRdhMAAAEAAAAAAAgNEBEZGyQtLjMzODs9AAAAAAAAAQEAAAAAAAAADgAAAAAAAAAAAAAAAAAAAEY=",
                                "YnBsaXN0MDDRAQJjAOkAAABiEAEICxIAAAAAAAABAQAAAAAAAAADAAAAAAAAAAAAAAAAAAAAFA==" }) {
        const QString path = write(QStringLiteral("malformed"), QByteArray::fromBase64(base64));
        EXPECT_EQ(plist_from_file(path.toUtf8().constData()), nullptr) << base64;
    }
    EXPECT_EQ(plist_from_file(folder.filePath(QStringLiteral("absent")).toUtf8().constData()), nullptr);
    EXPECT_EQ(plist_from_file(folder.path().toUtf8().constData()), nullptr);   // a folder
}

} // namespace
