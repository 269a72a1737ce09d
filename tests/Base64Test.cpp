// Base64: both alphabets decoded with everything else skipped, the encoders' lines, agreement with Qt.
#include <QZApp/QZCrypto.h>

#include <gtest/gtest.h>

#include <QRandomGenerator>

#include <algorithm>
#include <utility>

namespace {

QByteArray randomBytes(qsizetype size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &c : bytes)
        c = static_cast<char>(generator.bounded(256));
    return bytes;
}

// Both decoders, which must agree on Latin-1 text and never fail.
QByteArray decodeBoth(const QString &text)
{
    const QByteArray decoded = QZ::dataWithBase64(text);
    if (QString::fromLatin1(text.toLatin1()) == text) {
        EXPECT_EQ(QZ::dataWithBase64(QByteArrayView(text.toLatin1())), decoded) << text.toStdString();
    }
    EXPECT_FALSE(decoded.isNull()) << text.toStdString();
    return decoded;
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
    for (const auto &row : rows)
        EXPECT_EQ(decodeBoth(QString::fromUtf16(row.text)), row.decoded);
    EXPECT_TRUE(decodeBoth(QString()).isEmpty());
}

// Text cut anywhere into pieces decodes to the bytes of the whole: a group may be split across
// pieces, between skipped characters, or left incomplete at the end.
TEST(Base64, DecodingInPiecesEqualsDecodingWhole)
{
    for (qsizetype size : { 95, 96, 97, 98 }) {   // the last group: whole, or 2, 3 or 4 characters
        SCOPED_TRACE(size);
        const QByteArray data = randomBytes(size, 300 + quint32(size));
        // Lines in both alphabets, CR LF and blanks between them, stray bytes inside a group.
        QByteArray text = QZ::base64Encoded(data, QZ::Base64Alphabet::UrlSafe, 40, QZ::Base64LineBreak::CarriageReturnLineFeed);
        text.replace(0, 40, QZ::base64Encoded(data.left(30)));
        text.insert(text.size() - 2, " =\xe9\t");
        text.insert(5, "==");
        const QByteArray whole = QZ::dataWithBase64(QByteArrayView(text));
        ASSERT_EQ(whole, data);
        QZ::Base64Decoder decoder;
        for (qsizetype first = 0; first <= text.size(); ++first) {
            for (qsizetype second = first; second <= text.size(); second += 7) {
                QByteArray out(QZ::Base64Decoder::maximumDecodedSize(text.size()) * 3, Qt::Uninitialized);
                qsizetype n = 0;
                for (const auto &[from, to] : { std::pair { qsizetype(0), first }, std::pair { first, second },
                                                std::pair { second, text.size() } })
                    n += decoder.decode(QByteArrayView(text).sliced(from, to - from), out.data() + n);
                n += decoder.finish(out.data() + n);
                ASSERT_EQ(out.left(n), whole) << first << " " << second;
            }
        }
    }
}

// Every length around the vector and table paths' blocks at every width; decoded with a stray character.
TEST(Base64, AgreesWithQtOnRandomDataWithLinesOfWholeGroupsUpToTheWidth)
{
    // The most whole groups that fit the width a line; below 4, a break before every group
    // ("ABCD" at width 3 is "\nQUJD\nRA==").
    const auto lines = [](const QByteArray &text, quint32 width, const QByteArray &lineBreak) {
        const qsizetype lineLength = std::max<qsizetype>(width / 4 * 4, 4);
        QByteArray out;
        for (qsizetype at = 0; at < text.size(); at += lineLength)
            out += (at > 0 || width < 4 ? lineBreak : QByteArray()) + text.mid(at, lineLength);
        return out;
    };
    for (qsizetype size = 0; size < 200; ++size) {
        SCOPED_TRACE(size);
        const QByteArray data = randomBytes(size, 100 + quint32(size));
        const QByteArray plain = data.toBase64();
        const QByteArray url = data.toBase64(QByteArray::Base64UrlEncoding);
        for (quint32 width = 0; width < 80; ++width) {
            SCOPED_TRACE(width);
            ASSERT_EQ(QZ::base64WithMaximumWidth(data, width).toLatin1(), lines(plain, width, "\n"));
            ASSERT_EQ(QZ::base64Encoded(data, QZ::Base64Alphabet::Standard, width), lines(plain, width, "\n"));
            ASSERT_EQ(QZ::urlSafeBase64WithMaximumWidth(data, width).toLatin1(), lines(url, width, "\n"));
            ASSERT_EQ(QZ::base64Encoded(data, QZ::Base64Alphabet::UrlSafe, width), lines(url, width, "\n"));
            ASSERT_EQ(QZ::base64Encoded(data, QZ::Base64Alphabet::Standard, width, QZ::Base64LineBreak::CarriageReturnLineFeed),
                      lines(plain, width, "\r\n"));
        }
        ASSERT_EQ(QZ::base64WithMaximumWidth(data, 0xFFFFFFFFu).toLatin1(), plain);
        ASSERT_EQ(QZ::base64(data).toLatin1(), lines(plain, 72, "\n"));
        ASSERT_FALSE(QZ::base64(data).isNull() || QZ::base64Encoded(data).isNull());
        ASSERT_EQ(QZ::urlSafeBase64(data).toLatin1(), lines(url, 72, "\n"));
        ASSERT_EQ(QZ::mimeBase64(data).toLatin1(), lines(plain, 70, "\r\n"));
        QString noisy = QZ::mimeBase64(data);
        noisy.insert(size % (noisy.size() + 1), QChar(u"\n=*.\u0141\u00ff\uff41"[size % 7]));
        ASSERT_EQ(decodeBoth(noisy), data);
        ASSERT_EQ(QZ::dataWithBase64(QByteArrayView(url)), data);
    }
    const QByteArray large = randomBytes(3 * 1024 * 1024 + 1, 7);
    EXPECT_EQ(QZ::base64Encoded(large, QZ::Base64Alphabet::Standard, 0xFFFFFFFFu), large.toBase64());
    EXPECT_EQ(QZ::dataWithBase64(QZ::urlSafeBase64(large)), large);
}

} // namespace
