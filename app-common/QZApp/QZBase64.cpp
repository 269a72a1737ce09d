// Base64 codec: table-driven, several groups per step, for 8-bit and 16-bit text.
//
// The decoder reads groups of four characters through four tables that put each character's
// six bits where they land in the three output bytes; one bit above them marks a character that
// is not part of either alphabet, so a whole group is checked with one comparison. A group that
// holds anything else (a line break, '=', a blank) sends the decoder to a character-by-character
// path that skips it and returns to the fast path after the next four valid characters. Where
// the processor has AVX2, the fast path starts with blocks of 32 characters
// (QZBase64Vector.cpp).
//
// The encoder turns each 12-bit half of a 3-byte group into two characters with one lookup.
#include "QZCrypto.h"

#include "QZBase64Vector.h"

#include <sys/mman.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>

namespace {

// A fresh output buffer of many megabytes costs more in page faults than in encoding or
// decoding (the kernel faults it in 4 KiB at a time as it is first written). Asking for
// transparent huge pages on its whole 2 MiB extents removes nearly all of those faults. Only a
// hint: where the kernel does not offer huge pages nothing changes.
void adviseHugePages(void *buffer, size_t size)
{
    constexpr uintptr_t kHugePage = 2 * 1024 * 1024;
    if (size < 4 * kHugePage)
        return;
    const uintptr_t start = (reinterpret_cast<uintptr_t>(buffer) + kHugePage - 1) & ~(kHugePage - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(buffer) + size) & ~(kHugePage - 1);
    madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);   // a hint: failure is fine
}

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

// The group of the four characters in the low bytes or the low halves of each 16-bit quarter.
template<int Shift>
inline quint32 decodePacked(quint64 w)
{
    return decodeGroup(unsigned(w & 0xFF), unsigned((w >> Shift) & 0xFF), unsigned((w >> 2 * Shift) & 0xFF),
                       unsigned((w >> 3 * Shift) & 0xFF));
}

// Decodes sixteen characters into four groups; false when one of them lies above U+00FF (and
// so may not index the tables). Little-endian machines load eight bytes at a time.
template<typename Char>
inline bool decodeSixteen(const Char *p, quint32 g[4])
{
    if constexpr (!kLittleEndian) {
        for (int i = 0; i < 16; ++i) {
            if (p[i] > 0xFF)
                return false;
        }
        for (int i = 0; i < 4; ++i)
            g[i] = decodeGroup(p[4 * i], p[4 * i + 1], p[4 * i + 2], p[4 * i + 3]);
    } else if constexpr (sizeof(Char) == 1) {
        quint64 w[2];
        std::memcpy(w, p, 16);
        g[0] = decodePacked<8>(w[0]);
        g[1] = decodePacked<8>(w[0] >> 32);
        g[2] = decodePacked<8>(w[1]);
        g[3] = decodePacked<8>(w[1] >> 32);
    } else {
        quint64 w[4];
        std::memcpy(w, p, 32);
        if ((w[0] | w[1] | w[2] | w[3]) & 0xFF00FF00FF00FF00u)
            return false;
        g[0] = decodePacked<16>(w[0]);
        g[1] = decodePacked<16>(w[1]);
        g[2] = decodePacked<16>(w[2]);
        g[3] = decodePacked<16>(w[3]);
    }
    return true;
}

// Room the decoder needs beyond (n / 4) * 3 bytes: partial stores of the last group and of the
// last vector block.
constexpr qsizetype kDecodeSlack = 16;

// Valid characters of a group not yet complete, carried from one piece of text to the next.
struct PendingGroup {
    quint32 bits = 0;
    int count = 0;   // 0 to 3
};

// Decodes the whole groups that `pending` and the `n` characters at `p` make into `out`, which
// holds at least (n / 4 + 1) * 3 + kDecodeSlack bytes; leaves the valid characters of a group
// not yet complete in `pending` and returns the number of bytes written.
template<typename Char>
qsizetype decodeGroups(const Char *p, qsizetype n, char *out, PendingGroup &pending)
{
    const Char *const end = p + n;
    char *o = out;
    quint32 bits = pending.bits;
    int count = pending.count;
    for (;;) {
        if (count == 0) {
            // Fast path: vector blocks where the processor has them, then four groups, then
            // single groups, while every character is valid.
            const qsizetype blocks = QZ::Base64Vector::decodeBlocks(p, end - p, o);
            p += blocks;
            o += blocks / 4 * 3;
            quint32 g[4];
            while (end - p >= 16 && decodeSixteen(p, g) && !isInvalid(g[0] | g[1] | g[2] | g[3])) {
                storeGroup(o, g[0]);
                storeGroup(o + 3, g[1]);
                storeGroup(o + 6, g[2]);
                storeGroup(o + 9, g[3]);
                o += 12;
                p += 16;
            }
            while (end - p >= 4 && (sizeof(Char) == 1 || (p[0] | p[1] | p[2] | p[3]) <= 0xFF)) {
                const quint32 group = decodeGroup(p[0], p[1], p[2], p[3]);
                if (isInvalid(group))
                    break;
                storeGroup(o, group);
                o += 3;
                p += 4;
            }
        }
        // Slow path: the next valid characters up to a whole group, skipping everything else.
        while (p < end && count < 4) {
            const unsigned c = *p++;
            const quint8 v = c < 256 ? kDecode.value[c] : kInvalidValue;
            if (v == kInvalidValue)
                continue;
            bits = bits << 6 | v;
            ++count;
        }
        if (count < 4)
            break;
        *o++ = static_cast<char>(bits >> 16);
        *o++ = static_cast<char>(bits >> 8);
        *o++ = static_cast<char>(bits);
        bits = 0;
        count = 0;
    }
    pending = { bits, count };
    return o - out;
}

// The bytes of the characters left over at the end of the text: two give one byte (the top
// eight of their twelve bits), three give two (the top sixteen of eighteen), a single character
// carries less than a byte. Returns the number of bytes written.
qsizetype finishGroup(const PendingGroup &pending, char *out)
{
    switch (pending.count) {
    case 3:
        out[0] = static_cast<char>(pending.bits >> 10);
        out[1] = static_cast<char>(pending.bits >> 2);
        return 2;
    case 2:
        out[0] = static_cast<char>(pending.bits >> 4);
        return 1;
    default:
        return 0;
    }
}

// Decodes `n` characters into `out`, which holds at least (n / 4) * 3 + kDecodeSlack bytes;
// returns the number of bytes written.
template<typename Char>
qsizetype decode(const Char *p, qsizetype n, char *out)
{
    PendingGroup pending;
    const qsizetype written = decodeGroups(p, n, out, pending);
    return written + finishGroup(pending, out + written);
}

template<typename Char>
QByteArray decodeText(const Char *text, qsizetype n)
{
    QByteArray data((n / 4) * 3 + kDecodeSlack, Qt::Uninitialized);
    adviseHugePages(data.data(), static_cast<size_t>(data.size()));
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
    adviseHugePages(text.data(), static_cast<size_t>(length) * sizeof(char16_t));
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

qsizetype Base64Decoder::decode(QByteArrayView text, char *out)
{
    PendingGroup pending { m_bits, m_count };
    const qsizetype written = decodeGroups(reinterpret_cast<const uchar *>(text.data()), text.size(), out, pending);
    m_bits = pending.bits;
    m_count = pending.count;
    return written;
}

qsizetype Base64Decoder::finish(char *out)
{
    const qsizetype written = finishGroup(PendingGroup { m_bits, m_count }, out);
    m_bits = 0;
    m_count = 0;
    return written;
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
    adviseHugePages(text.data(), static_cast<size_t>(length));
    encode(job, text.data(), urlSafe ? kUrlSafeBytePairs : kStandardBytePairs);
    return text;
}

} // namespace QZ
