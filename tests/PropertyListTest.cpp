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
    std::string write(const QByteArray &bytes)
    {
        QFile file(folder.filePath(QString::number(++files)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
        return file.fileName().toStdString();
    }

    QTemporaryDir folder;
    int files = 0;
};

TEST_F(PropertyList, ReadsXmlAndBinaryListsIntoTheSameQtValues)
{
    const std::string xml = write(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>name</key><string>Disk Tool ✓</string><key>count</key><integer>-5</integer>
  <key>ratio</key><real>0.25</real><key>on</key><true/><key>when</key><date>2001-01-02T00:00:01Z</date>
  <key>bytes</key><data>AAEC</data><key>list</key><array><string>a</string><dict/></array>
</dict></plist>)");
    const QVariantMap expected {
        { QStringLiteral("name"), QStringLiteral("Disk Tool ✓") },
        { QStringLiteral("count"), qlonglong(-5) },
        { QStringLiteral("ratio"), 0.25 },
        { QStringLiteral("on"), true },
        { QStringLiteral("when"), QDateTime(QDate(2001, 1, 2), QTime(0, 0, 1), QTimeZone::utc()) },
        { QStringLiteral("bytes"), QByteArray("\0\1\2", 3) },
        { QStringLiteral("list"), QVariantList { QStringLiteral("a"), QVariantMap() } },
    };
    EXPECT_EQ(QZ::propertyListFromFile(QString::fromStdString(xml)), expected);

    plist_t parsed = plist_from_file(xml.c_str());
    char *binary = nullptr;
    uint32_t length = 0;
    plist_to_bin(parsed, &binary, &length);
    ASSERT_NE(binary, nullptr);
    const std::string path = write(QByteArray(binary, static_cast<qsizetype>(length)));
    std::free(binary);
    plist_free(parsed);
    EXPECT_EQ(QZ::propertyListFromFile(QString::fromStdString(path)), expected);
}

TEST_F(PropertyList, AnythingElseIsNull)
{
    for (const QByteArray &bytes : { QByteArray(R"({"json": true})"), QByteArray("not a list"), QByteArray(),
                                     QByteArray("<html><body/></html>"), QByteArray("bplist00 cut short"),
                                     // Binary lists the parser lets through but that cannot be read safely: a
                                     // dictionary whose key is not a string, and a key with a NUL character in it.
                                     QByteArray::fromBase64("YnBsaXN0MDDSAQIDDVFhUW6nBAUGBwgJChABE//////////+Iz/gAAAAAAAACUIAAVR0ZXh00QsMUWtRdhMAAAEAAAAAAAgNEBEZGyQtLjMzODs9AAAAAAAAAQEAAAAAAAAADgAAAAAAAAAAAAAAAAAAAEY="),
                                     QByteArray::fromBase64("YnBsaXN0MDDRAQJjAOkAAABiEAEICxIAAAAAAAABAQAAAAAAAAADAAAAAAAAAAAAAAAAAAAAFA==") }) {
        const std::string path = write(bytes);
        EXPECT_EQ(plist_from_file(path.c_str()), nullptr) << bytes.toBase64().constData();
        EXPECT_FALSE(QZ::propertyListFromFile(QString::fromStdString(path)).isValid());
    }
    EXPECT_EQ(plist_from_file(folder.filePath(QStringLiteral("absent")).toUtf8().constData()), nullptr);
    EXPECT_EQ(plist_from_file(folder.path().toUtf8().constData()), nullptr);   // a folder
}

} // namespace
