// AVX2 Base64 decoding of whole blocks that hold only alphabet characters; anything else stops
// the block loop and leaves the rest to the table-driven decoder. Chosen at run time, so the
// library still runs on processors without AVX2.
//
// Each character is classified by its two nibbles: a table indexed by the high nibble gives the
// character's class bit, a table indexed by the low nibble the classes in which that low nibble
// is not part of an alphabet; a block is valid when no character finds its class in its set.
// A second pair of tables gives the amount to add to a character to reach its six-bit value.
#include "QZBase64Vector.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace QZ::Base64Vector {

#if defined(__x86_64__)

namespace {

// Classes by high nibble: 0x2_ (+ - /), 0x3_ (digits), 0x4_ and 0x6_ (letters after @ and `),
// 0x5_ (P to Z and _), 0x7_ (p to z), and everything else (never valid).
#define QZ_HIGH_CLASSES 32, 32, 1, 2, 4, 8, 4, 16, 32, 32, 32, 32, 32, 32, 32, 32
// For each low nibble, the classes in which it is invalid.
#define QZ_LOW_INVALID                                                                             \
    32 | 1 | 4, 32 | 1, 32 | 1, 32 | 1, 32 | 1, 32 | 1, 32 | 1, 32 | 1, 32 | 1, 32 | 1,           \
    32 | 1 | 2, 32 | 2 | 8 | 16, 32 | 1 | 2 | 8 | 16, 32 | 2 | 8 | 16, 32 | 1 | 2 | 8 | 16, 32 | 2 | 16
// What to add by high nibble: digits +4, upper case -65, lower case -71.
#define QZ_HIGH_OFFSETS 0, 0, 0, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0
// What to add in the 0x2_ row by low nibble: '+' +19, '-' +17, '/' +16.
#define QZ_PUNCTUATION_OFFSETS 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 19, 0, 17, 0, 16

__attribute__((target("avx2"))) inline bool decodeBlock(__m256i chars, char *out)
{
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    const __m256i high = _mm256_and_si256(_mm256_srli_epi32(chars, 4), nibble);
    const __m256i low = _mm256_and_si256(chars, nibble);
    const __m256i classes = _mm256_shuffle_epi8(_mm256_setr_epi8(QZ_HIGH_CLASSES, QZ_HIGH_CLASSES), high);
    const __m256i invalid = _mm256_shuffle_epi8(_mm256_setr_epi8(QZ_LOW_INVALID, QZ_LOW_INVALID), low);
    if (!_mm256_testz_si256(classes, invalid))
        return false;

    __m256i offsets = _mm256_shuffle_epi8(_mm256_setr_epi8(QZ_HIGH_OFFSETS, QZ_HIGH_OFFSETS), high);
    const __m256i punctuation = _mm256_shuffle_epi8(
            _mm256_setr_epi8(QZ_PUNCTUATION_OFFSETS, QZ_PUNCTUATION_OFFSETS), low);
    offsets = _mm256_blendv_epi8(offsets, punctuation, _mm256_cmpeq_epi8(high, _mm256_set1_epi8(2)));
    offsets = _mm256_blendv_epi8(offsets, _mm256_set1_epi8(63 - '_'), _mm256_cmpeq_epi8(chars, _mm256_set1_epi8('_')));
    const __m256i values = _mm256_add_epi8(chars, offsets);

    // Four six-bit values a b c d to the 24-bit number abcd in each 32-bit lane, then its three
    // bytes, most significant first, packed into the low 24 bytes.
    const __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    const __m256i bytes = _mm256_shuffle_epi8(groups, _mm256_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1,
                                                                        2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    const __m256i packed = _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), packed);
    return true;
}

__attribute__((target("avx2"))) qsizetype decodeNarrow(const uchar *in, qsizetype n, char *out)
{
    qsizetype done = 0;
    for (; n - done >= 32; done += 32, out += 24) {
        if (!decodeBlock(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + done)), out))
            break;
    }
    return done;
}

// Sixteen-bit characters are narrowed first: unsigned saturation turns everything above U+00FF
// into 0xFF or 0x00, neither of which is valid, so they stop the block as they should.
__attribute__((target("avx2"))) qsizetype decodeWide(const char16_t *in, qsizetype n, char *out)
{
    qsizetype done = 0;
    for (; n - done >= 32; done += 32, out += 24) {
        const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + done));
        const __m256i second = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(in + done + 16));
        const __m256i narrowed = _mm256_permute4x64_epi64(_mm256_packus_epi16(first, second), 0xD8);
        if (!decodeBlock(narrowed, out))
            break;
    }
    return done;
}

bool haveAVX2()
{
    static const bool have = __builtin_cpu_supports("avx2");
    return have;
}

} // namespace

qsizetype decodeBlocks(const uchar *in, qsizetype n, char *out)
{
    return haveAVX2() ? decodeNarrow(in, n, out) : 0;
}

qsizetype decodeBlocks(const char16_t *in, qsizetype n, char *out)
{
    return haveAVX2() ? decodeWide(in, n, out) : 0;
}

#else

qsizetype decodeBlocks(const uchar *, qsizetype, char *)
{
    return 0;
}

qsizetype decodeBlocks(const char16_t *, qsizetype, char *)
{
    return 0;
}

#endif

} // namespace QZ::Base64Vector
