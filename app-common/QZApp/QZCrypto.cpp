// The cipher functions: option keys, the choice of back end, and the shared key handling.
#include "QZCrypto.h"

#include "QZCipherBackends.h"

#include <algorithm>
#include <cstring>

const QString QZCipherKeyKey = QStringLiteral("QZCipherKey");
const QString QZCipherInitializationVectorKey = QStringLiteral("QZCipherInitializationVector");
const QString QZ3DESKeyCountKey = QStringLiteral("QZ3DESKeyCount");
const QString QZRSAPEMKeyKey = QStringLiteral("QZRSAPEMKey");
const QString QZRSABinaryPublicKeyKey = QStringLiteral("QZRSABinaryPublicKey");
const QString QZRSAModeKey = QStringLiteral("QZRSAMode");
const QString QZRSAModePublic = QStringLiteral("QZRSAModePublic");
const QString QZRSAModePrivate = QStringLiteral("QZRSAModePrivate");

namespace QZ::CipherBackends {

SecretBytes::SecretBytes(QByteArrayView given, qsizetype length)
    : m_bytes(static_cast<size_t>(std::max<qsizetype>(length, 0)), 0)
{
    std::copy_n(given.begin(), std::min(given.size(), size()), m_bytes.begin());
}

SecretBytes::~SecretBytes()
{
    if (!m_bytes.empty())
        explicit_bzero(m_bytes.data(), m_bytes.size());
}

std::optional<QByteArray> bytesOption(const QVariantMap &options, const QString &key)
{
    const auto found = options.constFind(key);
    if (found == options.constEnd())
        return QByteArray();
    if (found->metaType() != QMetaType::fromType<QByteArray>())
        return std::nullopt;
    return found->toByteArray();
}

} // namespace QZ::CipherBackends

namespace {

using QZ::CipherBackends::Direction;

// The OpenSSL name of a cipher in a mode, or null when the pair is not offered.
const char *openSSLCipherName(QZCipher cipher, QZCipherMode mode, const QVariantMap &options)
{
    // By mode: CBC, ECB, CFB with 64-bit feedback, OFB.
    static constexpr const char *kNames[][4] = {
        { "DES-CBC", "DES-ECB", "DES-CFB", "DES-OFB" },
        { "DES-EDE-CBC", "DES-EDE-ECB", "DES-EDE-CFB", "DES-EDE-OFB" },
        { "DES-EDE3-CBC", "DES-EDE3-ECB", "DES-EDE3-CFB", "DES-EDE3-OFB" },
        { "RC2-CBC", "RC2-ECB", "RC2-CFB", "RC2-OFB" },
        { "BF-CBC", "BF-ECB", "BF-CFB", "BF-OFB" },
        { "CAST5-CBC", "CAST5-ECB", "CAST5-CFB", "CAST5-OFB" },
    };
    if (cipher == QZCipherNull)
        return "NULL";
    if (cipher == QZCipherRC4)
        return "RC4";
    if (mode < QZCipherModeDefault || mode > QZCipherModeOFB)
        return nullptr;
    const int column = mode == QZCipherModeDefault ? 0 : mode - 1;
    switch (cipher) {
    case QZCipherDES:
        return kNames[0][column];
    case QZCipher3DES:
        return kNames[options.value(QZ3DESKeyCountKey).toInt() == 2 ? 1 : 2][column];
    case QZCipherDESX:
        return column == 0 ? "DESX-CBC" : nullptr;
    case QZCipherRC2:
        return kNames[3][column];
    case QZCipherBlowfish:
        return kNames[4][column];
    case QZCipherCAST5:
        return kNames[5][column];
    default:
        return nullptr;
    }
}

QByteArray runCipher(QByteArrayView data, QZCipher cipher, QZCipherMode mode, const QVariantMap &options,
                     Direction direction)
{
    switch (cipher) {
    case QZCipherRSA:
        return QZ::CipherBackends::rsaCipher(data, options, direction);
    case QZCipherRC5:
        return QZ::CipherBackends::rc5Cipher(data, mode, options, direction);
    default:
        break;
    }
    const char *const name = openSSLCipherName(cipher, mode, options);
    return name ? QZ::CipherBackends::evpCipher(name, data, options, direction) : QByteArray();
}

} // namespace

namespace QZ {

QByteArray dataEncryptedWithCipher(QByteArrayView data, QZCipher cipher, QZCipherMode mode, const QVariantMap &options)
{
    return runCipher(data, cipher, mode, options, Direction::Encrypt);
}

QByteArray dataDecryptedWithCipher(QByteArrayView data, QZCipher cipher, QZCipherMode mode, const QVariantMap &options)
{
    return runCipher(data, cipher, mode, options, Direction::Decrypt);
}

} // namespace QZ
