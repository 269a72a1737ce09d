// plist_from_file and its QVariant conversion: the values of XML and binary lists, and hostile
// lists (too deep, cyclic, exponentially shared, nesting hidden in markup) refused quickly.
#include <QZApp/QZPropertyList.h>
#include <QZApp/utils.h>

#include "../app-common/QZApp/utils/utils_private.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>
#include <QTimeZone>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// A new file in a scratch folder holding `bytes`.
std::string write(const QByteArray &bytes)
{
    static QTemporaryDir folder;
    static int files = 0;
    QFile file(folder.filePath(QString::number(++files)));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
    return file.fileName().toStdString();
}

void appendBigEndian(QByteArray &bytes, quint64 value, int size)
{
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
        bytes.append(static_cast<char>(value >> shift));
}

// A binary list of arrays only, object 0 at the top: each array holds the objects it names.
QByteArray binaryList(const std::vector<std::vector<quint32>> &arrays)
{
    QByteArray bytes("bplist00");
    std::vector<quint32> offsets;
    for (const std::vector<quint32> &references : arrays) {
        offsets.push_back(static_cast<quint32>(bytes.size()));
        if (references.size() < 15) {
            bytes.append(static_cast<char>(0xA0 | references.size()));
        } else {
            bytes.append("\xAF\x13", 2);
            appendBigEndian(bytes, references.size(), 8);
        }
        for (quint32 reference : references)
            appendBigEndian(bytes, reference, 4);
    }
    const quint64 table = static_cast<quint64>(bytes.size());
    for (quint32 offset : offsets)
        appendBigEndian(bytes, offset, 4);
    bytes.append(6, '\0');
    bytes.append("\x04\x04", 2);   // offset and reference sizes
    appendBigEndian(bytes, arrays.size(), 8);
    appendBigEndian(bytes, 0, 8);
    appendBigEndian(bytes, table, 8);
    return bytes;
}

// `levels` arrays, each in the one before, the last empty: its depth is levels - 1.
QByteArray binaryChain(quint32 levels)
{
    std::vector<std::vector<quint32>> arrays(levels);
    for (quint32 i = 0; i + 1 < levels; i++)
        arrays[i] = { i + 1 };
    return binaryList(arrays);
}

QByteArray repeated(const char *text, int times) { return QByteArray(text).repeated(times); }

QByteArray xmlChain(int levels)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//DTD PLIST 1.0//EN\" \"PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">"
           + repeated("<array>", levels) + repeated("</array>", levels) + "</plist>";
}

// How many arrays are nested in `value`, the outermost included.
int arrayLevels(QVariant value)
{
    int levels = 0;
    while (value.typeId() == QMetaType::QVariantList) {
        levels++;
        const QVariantList list = value.toList();
        value = list.isEmpty() ? QVariant() : list.front();
    }
    return levels;
}

TEST(PropertyList, ReadsXmlAndBinaryListsIntoTheSameQtValuesAndAnythingElseAsNull)
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
    const std::string binaryFile = write(QByteArray(binary, static_cast<qsizetype>(length)));
    std::free(binary);
    plist_free(parsed);
    EXPECT_EQ(QZ::propertyListFromFile(QString::fromStdString(binaryFile)), expected);

    for (const QByteArray &bytes : { QByteArray(R"({"json": true})"), QByteArray("not a list"), QByteArray(),
                                     QByteArray("<html><body/></html>"), QByteArray("bplist00 cut short"),
                                     // Binary lists the parser lets through but that cannot be read safely: a
                                     // dictionary whose key is not a string, and a key with a NUL character in it.
                                     QByteArray::fromBase64("YnBsaXN0MDDSAQIDDVFhUW6nBAUGBwgJChABE//////////+Iz/gAAAAAAAACUIAAVR0ZXh00QsMUWtRdhMAAAEAAAAAAAgNEBEZGyQtLjMzODs9AAAAAAAAAQEAAAAAAAAADgAAAAAAAAAAAAAAAAAAAEY="),
                                     QByteArray::fromBase64("YnBsaXN0MDDRAQJjAOkAAABiEAEICxIAAAAAAAABAQAAAAAAAAADAAAAAAAAAAAAAAAAAAAAFA==") }) {
        const std::string path = write(bytes);
        errno = 0;
        EXPECT_EQ(plist_from_file(path.c_str()), nullptr) << bytes.toBase64().constData();
        EXPECT_EQ(errno, EINVAL) << bytes.toBase64().constData();
        EXPECT_FALSE(QZ::propertyListFromFile(QString::fromStdString(path)).isValid());
    }
    const std::string folder = xml.substr(0, xml.rfind('/'));
    EXPECT_EQ(plist_from_file((folder + "/absent").c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(plist_from_file(folder.c_str()), nullptr);
    EXPECT_EQ(errno, EISDIR);
}

// The depth of a list counts from its top value (0); values at UTILS_PLIST_DEPTH_MAX are read.
TEST(PropertyList, NestingToTheLimitIsReadAndDeeperOrHiddenNestingIsRefusedQuickly)
{
    static_assert(UTILS_PLIST_DEPTH_MAX == 512);
    const int atLimit = UTILS_PLIST_DEPTH_MAX + 1;   // arrays, the innermost at depth 512
    const int deep = 200000;

    // The top array holds a shared chain first and then a path of `detour` arrays that leads
    // to it again: the second way in is the deeper one.
    const auto sharedAfterDetour = [](quint32 detour, quint32 shared) {
        std::vector<std::vector<quint32>> arrays(1 + shared + detour);
        arrays[0] = { 1, 1 + shared };
        for (quint32 i = 1; i < shared; i++)
            arrays[i] = { i + 1 };
        for (quint32 i = 1 + shared; i < shared + detour; i++)
            arrays[i] = { i + 1 };
        arrays[shared + detour] = { 1 };
        return binaryList(arrays);
    };
    // 500 chains of 400 arrays, each ending in the chain before it, all held by the top array:
    // each is met first from the top and again under the next, which makes a tree 200,000
    // levels deep of 50 million nodes from 200,000 objects.
    std::vector<std::vector<quint32>> stacked(1);
    for (quint32 chain = 0; chain < 500; chain++) {
        const quint32 head = static_cast<quint32>(stacked.size());
        stacked[0].push_back(head);
        for (quint32 i = 0; i < 400; i++)
            stacked.push_back({ head + i + 1 });
        stacked.back() = chain == 0 ? std::vector<quint32>() : std::vector<quint32> { head - 400 };
    }
    std::vector<std::vector<quint32>> doubling(64);   // each level holds the next twice: 2^64 nodes
    for (quint32 i = 0; i + 1 < doubling.size(); i++)
        doubling[i] = { i + 1, i + 1 };

    const struct {
        const char *name;
        QByteArray bytes;
        int levels;   // arrays read, or 0 for a refused list
    } cases[] = {
        { "XML at the limit", xmlChain(atLimit), atLimit },
        { "XML one past it", xmlChain(atLimit + 1), 0 },
        { "XML 200,000 deep", xmlChain(deep), 0 },
        { "XML without <plist> one past it", repeated("<array>", atLimit + 1) + repeated("</array>", atLimit + 1), 0 },
        { "binary at the limit", binaryChain(atLimit), atLimit },
        { "binary one past it", binaryChain(atLimit + 1), 0 },
        { "binary 200,000 deep", binaryChain(deep), 0 },
        // A shared chain counts at its deepest use, though it is first met higher up.
        { "binary shared chain at the limit", sharedAfterDetour(100, UTILS_PLIST_DEPTH_MAX - 100), UTILS_PLIST_DEPTH_MAX - 99 },
        { "binary shared chain one past it", sharedAfterDetour(100, UTILS_PLIST_DEPTH_MAX - 99), 0 },
        { "binary shared chains stacked", binaryList(stacked), 0 },
        { "binary cycle", binaryList({ { 1 }, { 2 }, { 1 } }), 0 },
        { "binary top in a cycle", binaryList({ { 0 } }), 0 },
        { "binary shared doubling", binaryList(doubling), 0 },
        // Closing tags in comments, text sections and processing instructions do not end the
        // arrays they seem to; each of these is 200,000 arrays deep.
        { "XML closings in comments", "<plist>" + repeated("<array><!-- </array> -->", deep), 0 },
        { "XML closings in CDATA", "<plist>" + repeated("<array><string><![CDATA[</array>]]></string>", deep), 0 },
        { "XML closings in instructions", "<plist>" + repeated("<array><?x </array>?>", deep), 0 },
        { "XML closings in quoted instructions", "<plist>" + repeated("<array><?x \"?></array>\"?>", deep), 0 },
        // Entities could stand for any nesting; other internal declarations are harmless.
        { "XML entity declared", "<!DOCTYPE plist [<!ENTITY a \"<array>\">]><plist><array/></plist>", 0 },
        { "XML element declared", "<!DOCTYPE plist [<!ELEMENT plist ANY>]><plist><array/></plist>", 1 },
    };
    for (const auto &test : cases) {
        const std::string path = write(test.bytes);
        const auto start = std::chrono::steady_clock::now();
        errno = 0;
        plist_t list = plist_from_file(path.c_str());
        const QVariant value = QZ::propertyListFromFile(QString::fromStdString(path));
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << test.name;
        EXPECT_EQ(list != nullptr, test.levels > 0) << test.name;
        EXPECT_EQ(arrayLevels(value), test.levels) << test.name;
        if (list)
            plist_free(list);
        else
            EXPECT_EQ(errno, EINVAL) << test.name;
    }
}

TEST(PropertyList, ConversionGivesUpOnNodesNestedDeeperThanTheLimit)
{
    for (const int levels : { UTILS_PLIST_DEPTH_MAX + 1, UTILS_PLIST_DEPTH_MAX + 2, 200000 }) {
        std::vector<plist_t> arrays { plist_new_array() };
        while (static_cast<int>(arrays.size()) < levels) {
            arrays.push_back(plist_new_array());
            plist_array_append_item(arrays[arrays.size() - 2], arrays.back());
        }
        const auto start = std::chrono::steady_clock::now();
        const QVariant value = QZ::variantFromPropertyList(arrays.front());
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << levels;
        EXPECT_EQ(arrayLevels(value), levels <= UTILS_PLIST_DEPTH_MAX + 1 ? levels : 0) << levels;
        // Freed from the bottom up: freeing the top would recurse through every level.
        for (size_t i = arrays.size() - 1; i > 0; i--)
            plist_array_remove_item(arrays[i - 1], 0);
        plist_free(arrays.front());
    }
}

} // namespace
