// The back ends behind QZ::dataEncryptedWithCipher() and QZ::dataDecryptedWithCipher(): OpenSSL's
// symmetric ciphers, RC5 from libtomcrypt, and RSA. Private to the library.
#pragma once

#include "QZCrypto.h"

#include <optional>
#include <vector>

namespace QZ::CipherBackends {

enum class Direction { Encrypt, Decrypt };

// Key or vector bytes at a cipher's fixed length: the given bytes, cut or padded with zero
// bytes. The copy is wiped when it goes.
class SecretBytes
{
public:
    SecretBytes(QByteArrayView given, qsizetype length);
    ~SecretBytes();
    SecretBytes(const SecretBytes &) = delete;
    SecretBytes &operator=(const SecretBytes &) = delete;

    const unsigned char *data() const { return m_bytes.data(); }
    qsizetype size() const { return static_cast<qsizetype>(m_bytes.size()); }

private:
    std::vector<unsigned char> m_bytes;
};

// The bytes of an option: empty when absent, nothing when present but not a QByteArray.
std::optional<QByteArray> bytesOption(const QVariantMap &options, const QString &key);

// One pass of the OpenSSL cipher fetched by `name` (for example "DES-EDE3-CBC") over the whole
// input, with standard block padding; null on any failure.
QByteArray evpCipher(const char *name, QByteArrayView data, const QVariantMap &options, Direction direction);

// RC5-32/12/16 in CBC, ECB, CFB-64 or OFB, padded exactly as the OpenSSL ciphers are; null on
// any failure and for a mode other than 0 to 4.
QByteArray rc5Cipher(QByteArrayView data, QZCipherMode mode, const QVariantMap &options, Direction direction);

// RSA with PKCS #1 v1.5 padding, key and operation from the options; null on any failure.
QByteArray rsaCipher(QByteArrayView data, const QVariantMap &options, Direction direction);

} // namespace QZ::CipherBackends
