// Base64 codec: table-driven, several groups per step, for 8-bit and 16-bit text.
//
// The decoder reads groups of four characters through four tables that put each character's
// six bits where they land in the three output bytes; one bit above them marks a character that
// is not part of either alphabet, so a whole group is checked with one comparison. A group that
// holds anything else (a line break, '=', a blank) sends the decoder to a character-by-character
// path that skips it and returns to the fast path after the next four valid characters.
//
// The encoder turns each 12-bit half of a 3-byte group into two characters with one lookup.
#include "QZCrypto.h"

#include <array>
#include <bit>
#include <cstring>
#include <limits>

namespace {

constexpr char kStandardAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kUrlSafeAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr bool kLittleEndian = std::endian::native == std::endian::little;

constexpr quint32 byteSwapped(quint32 x)
{
    return (x >> 24) | ((x >> 8) & 0xFF00u) | ((x << 8) & 0xFF0000u) | (x << 24);
}

// Decoding

constexpr quint8 kInvalidValue = 255;
constexpr quint32 kInvalidGroup = 0x01000000; // any table entry at or above it is invalid

struct DecodeTables {
    std::array<quint8, 256> value {};           // six-bit value, or kInvalidValue
    std::array<std::array<quint32, 256>, 4> at {}; // character at position i of a group
};

constexpr DecodeTables makeDecodeTables()
{
    DecodeTables t;
    for (auto &v : t.value)
        v = kInvalidValue;
    for (quint8 i = 0; i < 64; ++i) {
        t.value[static_cast<quint8>(kStandardAlphabet[i])] = i;
        t.value[static_cast<quint8>(kUrlSafeAlphabet[i])] = i;
    }
    for (int c = 0; c < 256; ++c) {
        const quint32 v = t.value[c];
        if (v == kInvalidValue) {
            for (auto &position : t.at)
                position[c] = 0x01FFFFFF;
            continue;
        }
        // Output bytes b0 b1 b2 as the little-endian word b0 | b1 << 8 | b2 << 16.
        quint32 words[4] = { v << 2,
                             (v >> 4) | ((v & 0x0F) << 12),
                             ((v >> 2) << 8) | ((v & 0x03) << 22),
                             v << 16 };
        for (int i = 0; i < 4; ++i)
            t.at[i][c] = kLittleEndian ? words[i] : byteSwapped(words[i]);
    }
    return t;
}

constexpr DecodeTables kDecode = makeDecodeTables();

// The decoded group of c0..c3 in the low three bytes of memory order, or a value at or above
// kInvalidGroup when one of them is invalid. Each character must be below 256.
inline quint32 decodeGroup(unsigned c0, unsigned c1, unsigned c2, unsigned c3)
{
    return kDecode.at[0][c0] | kDecode.at[1][c1] | kDecode.at[2][c2] | kDecode.at[3][c3];
}

// Writes four bytes of which the first three are the group's; the caller's buffer has room.
inline void storeGroup(char *out, quint32 group)
{
    std::memcpy(out, &group, 4);
}

// Invalid-group test that also works on byte-swapped words.
inline bool isInvalid(quint32 group)
{
    return kLittleEndian ? group >= kInvalidGroup : (group & 0xFF) != 0;
}

// True when every character of the run lies below 256 and may index the tables.
template<typename Char>
inline bool allNarrow(const Char *p, int count)
{
    if constexpr (sizeof(Char) == 1) {
        return true;
    } else {
        unsigned bits = 0;
        for (int i = 0; i < count; ++i)
            bits |= p[i];
        return bits < 256;
    }
}

// Decodes `n` characters into `out`, which holds at least (n / 4) * 3 + 4 bytes; returns the
// number of bytes written.
template<typename Char>
qsizetype decode(const Char *p, qsizetype n, char *out)
{
    const Char *const end = p + n;
    char *o = out;
    for (;;) {
        // Fast path: four groups, then single groups, while every character is valid.
        while (end - p >= 16 && allNarrow(p, 16)) {
            const quint32 g0 = decodeGroup(p[0], p[1], p[2], p[3]);
            const quint32 g1 = decodeGroup(p[4], p[5], p[6], p[7]);
            const quint32 g2 = decodeGroup(p[8], p[9], p[10], p[11]);
            const quint32 g3 = decodeGroup(p[12], p[13], p[14], p[15]);
            if (isInvalid(g0 | g1 | g2 | g3))
                break;
            storeGroup(o, g0);
            storeGroup(o + 3, g1);
            storeGroup(o + 6, g2);
            storeGroup(o + 9, g3);
            o += 12;
            p += 16;
        }
        while (end - p >= 4 && allNarrow(p, 4)) {
            const quint32 g = decodeGroup(p[0], p[1], p[2], p[3]);
            if (isInvalid(g))
                break;
            storeGroup(o, g);
            o += 3;
            p += 4;
        }
        // Slow path: the next four valid characters, skipping everything else.
        quint32 bits = 0;
        int count = 0;
        while (p < end && count < 4) {
            const unsigned c = *p++;
            const quint8 v = c < 256 ? kDecode.value[c] : kInvalidValue;
            if (v == kInvalidValue)
                continue;
            bits = bits << 6 | v;
            ++count;
        }
        switch (count) {
        case 4:
            *o++ = static_cast<char>(bits >> 16);
            *o++ = static_cast<char>(bits >> 8);
            *o++ = static_cast<char>(bits);
            continue;
        case 3:   // eighteen bits: the top sixteen are two bytes
            *o++ = static_cast<char>(bits >> 10);
            *o++ = static_cast<char>(bits >> 2);
            break;
        case 2:   // twelve bits: the top eight are one byte
            *o++ = static_cast<char>(bits >> 4);
            break;
        default:  // a single character carries less than a byte
            break;
        }
        return o - out;
    }
}

template<typename Char>
QByteArray decodeText(const Char *text, qsizetype n)
{
    QByteArray data((n / 4) * 3 + 4, Qt::Uninitialized);
    data.resize(decode(text, n, data.data()));
    return data;
}

// Encoding

// For each 12-bit value, its two characters as one word in memory order.
template<typename Pair>
using PairTable = std::array<Pair, 4096>;

template<typename Pair>
constexpr PairTable<Pair> makePairTable(const char *alphabet)
{
    constexpr unsigned shift = sizeof(Pair) * 4; // bits per character
    PairTable<Pair> table {};
    for (unsigned i = 0; i < 4096; ++i) {
        const Pair first = static_cast<quint8>(alphabet[i >> 6]);
        const Pair second = static_cast<quint8>(alphabet[i & 63]);
        table[i] = kLittleEndian ? static_cast<Pair>(first | second << shift)
                                 : static_cast<Pair>(first << shift | second);
    }
    return table;
}

constexpr PairTable<quint16> kStandardBytePairs = makePairTable<quint16>(kStandardAlphabet);
constexpr PairTable<quint16> kUrlSafeBytePairs = makePairTable<quint16>(kUrlSafeAlphabet);
constexpr PairTable<quint32> kStandardWidePairs = makePairTable<quint32>(kStandardAlphabet);
constexpr PairTable<quint32> kUrlSafeWidePairs = makePairTable<quint32>(kUrlSafeAlphabet);

inline quint64 loadBigEndian64(const uchar *p)
{
    quint64 v;
    std::memcpy(&v, p, 8);
    return kLittleEndian ? __builtin_bswap64(v) : v;
}

template<typename Pair>
inline void storePair(void *out, Pair pair)
{
    std::memcpy(out, &pair, sizeof pair);
}

struct EncodeJob {
    const uchar *in;
    qsizetype size;
    const char *alphabet;
    quint32 maximumWidth;
    bool crlf;
};

// The length of the encoded text, or -1 when it would not fit in a qsizetype-indexed array of
// `charSize`-byte characters.
qsizetype encodedLength(const EncodeJob &job, size_t charSize)
{
    const quint64 groups = (static_cast<quint64>(job.size) + 2) / 3;
    if (groups == 0)
        return 0;
    const quint64 groupsPerLine = job.maximumWidth < 4 ? 1 : job.maximumWidth / 4;
    const quint64 breaks = job.maximumWidth < 4 ? groups : (groups - 1) / groupsPerLine;
    const quint64 limit = static_cast<quint64>(std::numeric_limits<qsizetype>::max()) / charSize / 4;
    if (groups > limit / 2 || breaks > limit / 2)
        return -1;
    return static_cast<qsizetype>(groups * 4 + breaks * (job.crlf ? 2 : 1));
}

// Encodes `groups` whole 3-byte groups from `in` (which has at least `available` readable
// bytes) into `out`; returns the end of the output.
template<typename Char, typename Pair>
Char *encodeGroups(const uchar *in, qsizetype groups, qsizetype available, Char *out,
                   const PairTable<Pair> &pairs)
{
    // Four groups (12 bytes) per step from two 8-byte loads, while 14 bytes can be read.
    while (groups >= 4 && available >= 14) {
        const quint64 a = loadBigEndian64(in);
        const quint64 b = loadBigEndian64(in + 6);
        storePair(out + 0, pairs[a >> 52]);
        storePair(out + 2, pairs[(a >> 40) & 0xFFF]);
        storePair(out + 4, pairs[(a >> 28) & 0xFFF]);
        storePair(out + 6, pairs[(a >> 16) & 0xFFF]);
        storePair(out + 8, pairs[b >> 52]);
        storePair(out + 10, pairs[(b >> 40) & 0xFFF]);
        storePair(out + 12, pairs[(b >> 28) & 0xFFF]);
        storePair(out + 14, pairs[(b >> 16) & 0xFFF]);
        in += 12;
        available -= 12;
        groups -= 4;
        out += 16;
    }
    for (; groups > 0; --groups) {
        const unsigned v = unsigned(in[0]) << 16 | unsigned(in[1]) << 8 | in[2];
        storePair(out, pairs[v >> 12]);
        storePair(out + 2, pairs[v & 0xFFF]);
        in += 3;
        out += 4;
    }
    return out;
}

// Encodes the last one or two bytes as two or three characters and padding.
template<typename Char>
Char *encodeTail(const uchar *in, qsizetype remaining, Char *out, const char *alphabet)
{
    const unsigned v = unsigned(in[0]) << 16 | (remaining > 1 ? unsigned(in[1]) << 8 : 0u);
    *out++ = static_cast<Char>(alphabet[v >> 18]);
    *out++ = static_cast<Char>(alphabet[(v >> 12) & 63]);
    *out++ = static_cast<Char>(remaining > 1 ? alphabet[(v >> 6) & 63] : '=');
    *out++ = static_cast<Char>('=');
    return out;
}

// Writes the whole text of `job` into `out`, which holds encodedLength() characters.
template<typename Char, typename Pair>
void encode(const EncodeJob &job, Char *out, const PairTable<Pair> &pairs)
{
    const qsizetype wholeGroups = job.size / 3;
    const qsizetype groups = (job.size + 2) / 3;
    const qsizetype groupsPerLine = job.maximumWidth < 4 ? 1 : job.maximumWidth / 4;
    const uchar *in = job.in;
    for (qsizetype done = 0; done < groups;) {
        if (done > 0 || job.maximumWidth < 4) {
            if (job.crlf)
                *out++ = static_cast<Char>('\r');
            *out++ = static_cast<Char>('\n');
        }
        const qsizetype line = std::min(groupsPerLine, groups - done);
        const qsizetype whole = std::min(line, wholeGroups - done);
        out = encodeGroups(in, whole, job.in + job.size - in, out, pairs);
        in += whole * 3;
        if (whole < line)
            out = encodeTail(in, job.size - wholeGroups * 3, out, job.alphabet);
        done += line;
    }
}

QString encodeToString(QByteArrayView data, bool urlSafe, quint32 maximumWidth, bool crlf)
{
    const EncodeJob job { reinterpret_cast<const uchar *>(data.data()), data.size(),
                          urlSafe ? kUrlSafeAlphabet : kStandardAlphabet, maximumWidth, crlf };
    const qsizetype length = encodedLength(job, sizeof(char16_t));
    if (length < 0)
        return QString();
    QString text(length, Qt::Uninitialized);
    encode(job, reinterpret_cast<char16_t *>(text.data()), urlSafe ? kUrlSafeWidePairs : kStandardWidePairs);
    return text;
}

} // namespace

namespace QZ {

QByteArray dataWithBase64(QStringView text)
{
    return decodeText(text.utf16(), text.size());
}

QByteArray dataWithBase64(QByteArrayView text)
{
    return decodeText(reinterpret_cast<const uchar *>(text.data()), text.size());
}

QString base64(QByteArrayView data)
{
    return encodeToString(data, false, 72, false);
}

QString urlSafeBase64(QByteArrayView data)
{
    return encodeToString(data, true, 72, false);
}

QString base64WithMaximumWidth(QByteArrayView data, quint32 maximumWidth)
{
    return encodeToString(data, false, maximumWidth, false);
}

QString urlSafeBase64WithMaximumWidth(QByteArrayView data, quint32 maximumWidth)
{
    return encodeToString(data, true, maximumWidth, false);
}

QString mimeBase64(QByteArrayView data)
{
    return encodeToString(data, false, 70, true);
}

QByteArray base64Encoded(QByteArrayView data, Base64Alphabet alphabet, quint32 maximumWidth,
                         Base64LineBreak lineBreak)
{
    const bool urlSafe = alphabet == Base64Alphabet::UrlSafe;
    const EncodeJob job { reinterpret_cast<const uchar *>(data.data()), data.size(),
                          urlSafe ? kUrlSafeAlphabet : kStandardAlphabet, maximumWidth,
                          lineBreak == Base64LineBreak::CarriageReturnLineFeed };
    const qsizetype length = encodedLength(job, 1);
    if (length < 0)
        return QByteArray();
    QByteArray text(length, Qt::Uninitialized);
    encode(job, text.data(), urlSafe ? kUrlSafeBytePairs : kStandardBytePairs);
    return text;
}

} // namespace QZ
