// The vector part of the Base64 decoder. Private to the library.
#pragma once

#include <QtGlobal>

namespace QZ::Base64Vector {

// Decodes blocks of 32 characters from the start of `in` for as long as every character of a
// block belongs to one of the two alphabets; returns the number of characters decoded (a
// multiple of 32, possibly 0). Each block writes 24 bytes to `out` and may write up to 8 more
// after them, which the caller's buffer must allow. Gives 0 on processors without AVX2.
qsizetype decodeBlocks(const uchar *in, qsizetype n, char *out);
qsizetype decodeBlocks(const char16_t *in, qsizetype n, char *out);

} // namespace QZ::Base64Vector
