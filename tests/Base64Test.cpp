// Base64: decoding in both alphabets with everything else skipped, the encoders' line layout,
// and agreement with Qt's own codec on random data.
#include <QZApp/QZCrypto.h>

#include <gtest/gtest.h>

#include <QRandomGenerator>
#include <QStringList>

#include <algorithm>
#include <vector>

namespace {

QByteArray randomBytes(qsizetype size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = static_cast<char>(generator.bounded(256));
    return bytes;
}

// Both decoders, which must agree on text of Latin-1 characters.
QByteArray decodeBoth(const QString &text)
{
    const QByteArray fromString = QZ::dataWithBase64(text);
    const bool latin1 = std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 256; });
    if (latin1) {
        EXPECT_EQ(QZ::dataWithBase64(QByteArrayView(text.toLatin1())), fromString) << text.toStdString();
    }
    return fromString;
}

TEST(Base64, DecodingSkipsEverythingOutsideTheAlphabets)
{
    EXPECT_EQ(decodeBoth(QStringLiteral("TWFu")), QByteArray("Man"));
    EXPECT_EQ(decodeBoth(QStringLiteral("T W\r\nF=u\t")), QByteArray("Man"));
    EXPECT_EQ(decodeBoth(QStringLiteral("==TW.Fu==")), QByteArray("Man"));
    // Characters above U+00FF are skipped even when their low byte is a Base64 letter (U+0141
    // ends in 0x41 'A').
    EXPECT_EQ(decodeBoth(QString::fromUtf16(u"T\u0141W\uFF46F\u4e2du")), QByteArray("Man"));
    EXPECT_EQ(decodeBoth(QString::fromUtf16(u"TW\u00e9Fu")), QByteArray("Man"));
}

TEST(Base64, DecodingAcceptsBothAlphabetsMixed)
{
    const QByteArray expected = QByteArray::fromBase64("+/+/+/+/");
    EXPECT_EQ(decodeBoth(QStringLiteral("-_-_-_-_")), expected);
    EXPECT_EQ(decodeBoth(QStringLiteral("+_-/-/+_")), expected);
}

TEST(Base64, LeftoverCharactersGiveWholeBytesOnly)
{
    EXPECT_EQ(decodeBoth(QStringLiteral("QQ")), QByteArray("A"));
    EXPECT_EQ(decodeBoth(QStringLiteral("QUI")), QByteArray("AB"));
    EXPECT_EQ(decodeBoth(QStringLiteral("QUJDR")), QByteArray("ABC"));
    EXPECT_EQ(decodeBoth(QStringLiteral("QUJD\nRA==")), QByteArray("ABCD"));
    for (const QString &empty : { QString(), QStringLiteral(""), QStringLiteral("Q"), QStringLiteral("==\n=") }) {
        const QByteArray decoded = decodeBoth(empty);
        EXPECT_TRUE(decoded.isEmpty());
        EXPECT_FALSE(decoded.isNull()) << "the decoder has no failure result";
    }
}

// Every position of a skipped character relative to the groups of the fast path.
TEST(Base64, SkippedCharactersAnywhereInLongText)
{
    const QByteArray data = randomBytes(300, 1);
    const QString clean = QString::fromLatin1(data.toBase64());
    for (qsizetype at = 0; at < 40; ++at) {
        for (const QChar junk : { QChar(u'\n'), QChar(u'='), QChar(u'*'), QChar(u'\u0141'), QChar(u'\u00ff') }) {
            QString text = clean;
            text.insert(at, junk);
            text.insert(text.size() - at, junk);
            ASSERT_EQ(decodeBoth(text), data) << "at " << at << " junk " << int(junk.unicode());
        }
    }
}

// The text's characters of either alphabet, in the standard one; everything else left out.
QByteArray standardCharacters(const QString &text)
{
    QByteArray kept;
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if ((u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') || (u >= '0' && u <= '9') || u == '+' || u == '/')
            kept += char(u);
        else if (u == '-' || u == '_')
            kept += u == '-' ? '+' : '/';
    }
    return kept;
}

// Every character value (every byte, and samples above U+00FF) in every position of a block of
// the vector path and of the table path decodes as its six bits or is skipped: the result is
// Qt's decoding of the text's alphabet characters alone.
TEST(Base64, EveryCharacterValueInEveryPosition)
{
    const QString base = QString::fromLatin1(randomBytes(72, 5).toBase64());
    std::vector<char16_t> values;
    for (char16_t c = 0; c < 256; ++c)
        values.push_back(c);
    for (char16_t c : { 0x100, 0x12B, 0x141, 0x7FFF, 0x8000, 0xFF2D, 0xFF41, 0xFFFF })
        values.push_back(c);
    for (const char16_t c : values) {
        for (const qsizetype at : { 0, 1, 15, 16, 31, 32, 33, 63, 95 }) {
            QString text = base;
            text[at] = QChar(c);
            ASSERT_EQ(decodeBoth(text), QByteArray::fromBase64(standardCharacters(text)))
                    << "U+" << std::hex << int(c) << " at " << std::dec << at;
        }
    }
}

TEST(Base64, EncodingPadsTheLastGroup)
{
    EXPECT_EQ(QZ::base64("A"), QStringLiteral("QQ=="));
    EXPECT_EQ(QZ::base64("AB"), QStringLiteral("QUI="));
    EXPECT_EQ(QZ::base64("ABC"), QStringLiteral("QUJD"));
    EXPECT_EQ(QZ::base64Encoded("AB"), QByteArray("QUI="));
    const QString empty = QZ::base64(QByteArrayView());
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_FALSE(empty.isNull());
    EXPECT_FALSE(QZ::base64Encoded(QByteArray()).isNull());
}

TEST(Base64, UrlSafeAlphabetReplacesOnlyTwoCharacters)
{
    const QByteArray data = QByteArray::fromBase64("+/+/abcd");
    EXPECT_EQ(QZ::base64(data), QStringLiteral("+/+/abcd"));
    EXPECT_EQ(QZ::urlSafeBase64(data), QStringLiteral("-_-_abcd"));
    EXPECT_EQ(QZ::urlSafeBase64WithMaximumWidth(data, 4), QStringLiteral("-_-_\nabcd"));
    EXPECT_EQ(QZ::base64Encoded(data, QZ::Base64Alphabet::UrlSafe), QByteArray("-_-_abcd"));
}

TEST(Base64, LinesHoldWholeGroupsUpToTheWidth)
{
    const QByteArray data = randomBytes(100, 2);
    const QStringList mime = QZ::mimeBase64(data).split(QStringLiteral("\r\n"));
    ASSERT_EQ(mime.size(), 2);
    EXPECT_EQ(mime[0].size(), 68);
    EXPECT_EQ(mime[1].size(), 68);
    EXPECT_FALSE(mime[0].contains(QLatin1Char('\n')));

    EXPECT_EQ(QZ::base64(randomBytes(54, 3)).size(), 72);   // exactly one full line, no break
    const QStringList lines = QZ::base64(randomBytes(55, 3)).split(QLatin1Char('\n'));
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(lines[0].size(), 72);
    EXPECT_EQ(lines[1].size(), 4);

    const QByteArray abcd("ABCD");
    for (quint32 width : { 0u, 1u, 3u })
        EXPECT_EQ(QZ::base64WithMaximumWidth(abcd, width), QStringLiteral("\nQUJD\nRA==")) << width;
    EXPECT_EQ(QZ::base64WithMaximumWidth(abcd, 4), QStringLiteral("QUJD\nRA=="));
    EXPECT_EQ(QZ::base64WithMaximumWidth(abcd, 7), QStringLiteral("QUJD\nRA=="));
    EXPECT_EQ(QZ::base64WithMaximumWidth(abcd, 8), QStringLiteral("QUJDRA=="));
    EXPECT_EQ(QZ::base64Encoded(abcd, QZ::Base64Alphabet::Standard, 0, QZ::Base64LineBreak::CarriageReturnLineFeed),
              QByteArray("\r\nQUJD\r\nRA=="));
}

// Random data of every length around the four-group steps, wrapped and not: the text is Qt's,
// broken into lines as stated, and both decoders give the data back.
TEST(Base64, AgreesWithQtOnRandomData)
{
    const auto wrapped = [](const QByteArray &text, qsizetype lineLength, const QByteArray &lineBreak) {
        QByteArray out;
        for (qsizetype at = 0; at < text.size(); at += lineLength)
            out += (at ? lineBreak : QByteArray()) + text.mid(at, lineLength);
        return out;
    };
    for (qsizetype size = 0; size < 200; ++size) {
        const QByteArray data = randomBytes(size, 100 + quint32(size));
        const QByteArray plain = data.toBase64();
        const QByteArray url = data.toBase64(QByteArray::Base64UrlEncoding);
        ASSERT_EQ(QZ::base64WithMaximumWidth(data, 0xFFFFFFFFu).toLatin1(), plain) << size;
        ASSERT_EQ(QZ::base64(data).toLatin1(), wrapped(plain, 72, "\n")) << size;
        ASSERT_EQ(QZ::urlSafeBase64(data).toLatin1(), wrapped(url, 72, "\n")) << size;
        ASSERT_EQ(QZ::mimeBase64(data).toLatin1(), wrapped(plain, 68, "\r\n")) << size;
        ASSERT_EQ(QZ::base64Encoded(data, QZ::Base64Alphabet::Standard, 17), wrapped(plain, 16, "\n")) << size;
        ASSERT_EQ(QZ::dataWithBase64(QZ::mimeBase64(data)), data) << size;
        ASSERT_EQ(QZ::dataWithBase64(QByteArrayView(url)), data) << size;
    }
    const QByteArray large = randomBytes(3 * 1024 * 1024 + 1, 7);
    EXPECT_EQ(QZ::base64Encoded(large, QZ::Base64Alphabet::Standard, 0xFFFFFFFFu), large.toBase64());
    EXPECT_EQ(QZ::dataWithBase64(QZ::urlSafeBase64(large)), large);
}

} // namespace
