// Data encodings and encryption: Base64 text in the standard and URL-safe alphabets, symmetric
// ciphers and RSA over QByteArray.
//
// Every function returns a null QByteArray (or QString) on failure and never throws. Nothing is
// logged; a null result is the only sign of failure. All functions are safe to call from any
// thread.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <QStringView>
#include <QVariantMap>

// Option keys of QZ::dataEncryptedWithCipher() and QZ::dataDecryptedWithCipher(). Each value is
// the constant's own name without the final "Key" where it has one ("QZCipherKey", ...).

// QByteArray: the key bytes of a symmetric cipher.
QZAPP_EXPORT extern const QString QZCipherKeyKey;
// QByteArray: the initialisation vector.
QZAPP_EXPORT extern const QString QZCipherInitializationVectorKey;
// Number: 2 selects two-key triple DES; any other value, or none, three-key.
QZAPP_EXPORT extern const QString QZ3DESKeyCountKey;
// QString (its UTF-8 bytes up to the first NUL) or QByteArray: an RSA key in PEM form.
QZAPP_EXPORT extern const QString QZRSAPEMKeyKey;
// QByteArray: a public key as one exponent byte followed by the modulus, unsigned big-endian.
QZAPP_EXPORT extern const QString QZRSABinaryPublicKeyKey;
// QString: QZRSAModePublic or QZRSAModePrivate.
QZAPP_EXPORT extern const QString QZRSAModeKey;
// Values of QZRSAModeKey. Anything but QZRSAModePublic (or no mode) selects the private key.
QZAPP_EXPORT extern const QString QZRSAModePublic;
QZAPP_EXPORT extern const QString QZRSAModePrivate;

// The ciphers. Any other value makes both cipher functions return null.
enum QZCipher : qint32 {
    QZCipherNull = 0,       // output equals input, any mode
    QZCipherDES = 1,
    QZCipher3DES = 2,       // three-key (EDE3), or two-key (EDE) when QZ3DESKeyCount is 2
    QZCipherDESX = 3,       // CBC only
    QZCipherRC4 = 4,        // stream cipher, any mode
    QZCipherRC2 = 5,        // 128-bit key
    QZCipherBlowfish = 6,   // 128-bit key
    QZCipherCAST5 = 7,      // 128-bit key
    QZCipherRC5 = 8,        // RC5-32/12/16: 32-bit words, 12 rounds, 128-bit key
    QZCipherRSA = 9,        // PKCS #1 v1.5 padding; the mode is not used
};

// Block modes of DES, triple DES, RC2, Blowfish, CAST5 and RC5. Any other value (and any mode
// but the first two for DESX) makes both cipher functions return null.
enum QZCipherMode : qint32 {
    QZCipherModeDefault = 0,    // CBC
    QZCipherModeCBC = 1,        // padded to whole blocks (PKCS #5)
    QZCipherModeECB = 2,        // padded to whole blocks (PKCS #5)
    QZCipherModeCFB = 3,        // 64-bit feedback, no padding
    QZCipherModeOFB = 4,        // no padding
};

namespace QZ {

// Base64 decoding

// The bytes of Base64 text in either alphabet, even both mixed: '+' and '-' are 62, '/' and
// '_' are 63. Every other character ('=', blanks, line breaks, anything above U+00FF) is
// skipped. Two characters left over at the end give one byte, three give two, one is dropped.
// Never null: text without a valid character gives an empty, non-null QByteArray.
QZAPP_EXPORT QByteArray dataWithBase64(QStringView text);
// The same for text held as bytes (ASCII or Latin-1), without a conversion to QString.
QZAPP_EXPORT QByteArray dataWithBase64(QByteArrayView text);

// Decodes Base64 text that arrives in pieces, cut anywhere: the bytes of all the pieces, then
// finish(), equal dataWithBase64() of the whole text. For input too large to hold at once.
class QZAPP_EXPORT Base64Decoder
{
public:
    // The room decode() needs for a piece of `size` characters.
    static constexpr qsizetype maximumDecodedSize(qsizetype size) { return (size / 4 + 1) * 3 + 16; }
    // Decodes the next piece into `out`, which holds maximumDecodedSize(text.size()) bytes;
    // returns the number of bytes written. The valid characters of a group that the piece does
    // not complete wait for the next piece.
    qsizetype decode(QByteArrayView text, char *out);
    // Ends the text: the one or two bytes of a group left incomplete, or none, into `out` (room
    // for two bytes); returns how many. The decoder is then ready for a new text.
    qsizetype finish(char *out);

private:
    quint32 m_bits = 0;
    int m_count = 0;
};

// Base64 encoding

// Lines hold the largest multiple of four characters that fits the maximum width, so 72 per
// line at the default width and 68 for MIME. No break ends the text. A width below 4 puts a
// break before every group of four, the first one included. Empty data gives an empty string.

// Standard alphabet, lines of at most 72 characters, line feed breaks.
QZAPP_EXPORT QString base64(QByteArrayView data);
// URL-safe alphabet ('-' and '_'), at most 72 characters a line, line feed breaks.
QZAPP_EXPORT QString urlSafeBase64(QByteArrayView data);
QZAPP_EXPORT QString base64WithMaximumWidth(QByteArrayView data, quint32 maximumWidth);
QZAPP_EXPORT QString urlSafeBase64WithMaximumWidth(QByteArrayView data, quint32 maximumWidth);
// Standard alphabet, lines of at most 70 characters (68 in practice), CR LF breaks.
QZAPP_EXPORT QString mimeBase64(QByteArrayView data);

enum class Base64Alphabet { Standard, UrlSafe };
enum class Base64LineBreak { LineFeed, CarriageReturnLineFeed };
// The encoder behind the functions above, producing ASCII bytes instead of a QString: the
// faster choice for output that goes to a file, a socket or a MIME body. Null only when the
// result would not fit in a QByteArray.
QZAPP_EXPORT QByteArray base64Encoded(QByteArrayView data, Base64Alphabet alphabet = Base64Alphabet::Standard,
                                      quint32 maximumWidth = 72,
                                      Base64LineBreak lineBreak = Base64LineBreak::LineFeed);

// Ciphers

// Symmetric ciphers (QZCipherNull to QZCipherRC5) take the key from QZCipherKeyKey and the
// initialisation vector from QZCipherInitializationVectorKey. Each is used at the cipher's own
// fixed length: bytes beyond it are ignored, and shorter values (or a missing one) are padded
// with zero bytes in a private copy, so a missing key means an all-zero key. Callers must pass
// keys of the full length (8 bytes for DES, 16 or 24 for triple DES, 24 for DESX, 16 for the
// others) to get the strength they expect. A value of another type than QByteArray gives null.
//
// CBC and ECB pad to whole blocks and check the padding when decrypting; a wrong key or damaged
// ciphertext usually gives null, but not always (a wrong key may yield valid-looking padding).
// CFB, OFB, RC4 and the null cipher keep the length.
//
// RSA (QZCipherRSA) takes a key from QZRSAPEMKeyKey, or else from QZRSABinaryPublicKeyKey, and
// the operation from QZRSAModeKey: with QZRSAModePublic it encrypts with the public key and
// decrypts by public-key recovery (the check of a raw PKCS #1 signature), otherwise it encrypts
// by a raw PKCS #1 signature with the private key and decrypts with the private key. A public
// PEM key may be a "PUBLIC KEY" or an "RSA PUBLIC KEY"; a private one an unencrypted PKCS #1 or
// PKCS #8 key (no pass phrase is ever asked for). The input may be at most the key size less 11
// bytes in both directions, so a full-length ciphertext or signature gives null. The result is
// always exactly the key size: a shorter message is followed by zero bytes.

QZAPP_EXPORT QByteArray dataEncryptedWithCipher(QByteArrayView data, QZCipher cipher, QZCipherMode mode,
                                                const QVariantMap &options);
QZAPP_EXPORT QByteArray dataDecryptedWithCipher(QByteArrayView data, QZCipher cipher, QZCipherMode mode,
                                                const QVariantMap &options);

} // namespace QZ
