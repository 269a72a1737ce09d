// Base64: decoding in both alphabets with everything else skipped, the encoders' line layout,
// and agreement with Qt's own codec on random data.
#include <QZApp/QZCrypto.h>

#include <gtest/gtest.h>

#include <QRandomGenerator>

#include <algorithm>

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
    if (std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() < 256; })) {
        EXPECT_EQ(QZ::dataWithBase64(QByteArrayView(text.toLatin1())), fromString) << text.toStdString();
    }
    return fromString;
}

TEST(Base64, DecodingTakesBothAlphabetsSkipsEverythingElseAndGivesWholeBytes)
{
    const struct { const char16_t *text; QByteArray decoded; } rows[] = {
        { u"T W\r\nF=u\t", "Man" },
        { u"==TW.Fu==", "Man" },
        { u"T\u0141W\uFF46F\u4e2du", "Man" },   // U+0141 ends in 0x41 'A', yet is skipped
        { u"TW\u00e9Fu", "Man" },
        { u"+_-/-/+_", QByteArray::fromBase64("+/+/+/+/") },
        { u"QQ", "A" },
        { u"QUI", "AB" },
        { u"QUJDR", "ABC" },
        { u"Q", "" },
        { u"==\n=", "" },
    };
    for (const auto &row : rows) {
        const QByteArray decoded = decodeBoth(QString::fromUtf16(row.text));
        EXPECT_EQ(decoded, row.decoded);
        EXPECT_FALSE(decoded.isNull()) << "the decoder has no failure result";
    }
    EXPECT_FALSE(QZ::dataWithBase64(QString()).isNull());
}

TEST(Base64, LinesHoldWholeGroupsUpToTheWidth)
{
    const QByteArray abcd("ABCD");
    for (quint32 width : { 0u, 1u, 3u })   // below one group: a break before every group
        EXPECT_EQ(QZ::base64WithMaximumWidth(abcd, width), QStringLiteral("\nQUJD\nRA==")) << width;
    EXPECT_EQ(QZ::base64WithMaximumWidth(abcd, 7), QStringLiteral("QUJD\nRA=="));
    EXPECT_EQ(QZ::base64WithMaximumWidth(abcd, 8), QStringLiteral("QUJDRA=="));
    EXPECT_EQ(QZ::urlSafeBase64WithMaximumWidth(QByteArray::fromBase64("+/+/abcd"), 4), QStringLiteral("-_-_\nabcd"));
    EXPECT_EQ(QZ::base64Encoded(abcd, QZ::Base64Alphabet::Standard, 0, QZ::Base64LineBreak::CarriageReturnLineFeed),
              QByteArray("\r\nQUJD\r\nRA=="));
    EXPECT_FALSE(QZ::base64(QByteArrayView()).isNull());
    EXPECT_FALSE(QZ::base64Encoded(QByteArray()).isNull());
}

// Random data of every length around the four-group steps, wrapped and not: the text is Qt's,
// broken into lines as stated, and both decoders give the data back, also with a character
// outside the alphabets at any place of the vector path's and the table path's blocks. (The fuzz
// target compares every other text with Qt's decoding of its alphabet characters.)
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
        QString noisy = QZ::mimeBase64(data);
        noisy.insert(size % (noisy.size() + 1), QChar(u"\n=*.\u0141\u00ff\uff41"[size % 7]));
        ASSERT_EQ(decodeBoth(noisy), data) << size;
        ASSERT_EQ(QZ::dataWithBase64(QByteArrayView(url)), data) << size;
    }
    const QByteArray large = randomBytes(3 * 1024 * 1024 + 1, 7);
    EXPECT_EQ(QZ::base64Encoded(large, QZ::Base64Alphabet::Standard, 0xFFFFFFFFu), large.toBase64());
    EXPECT_EQ(QZ::dataWithBase64(QZ::urlSafeBase64(large)), large);
}

} // namespace
