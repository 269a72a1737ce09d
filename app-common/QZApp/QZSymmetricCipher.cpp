// The symmetric ciphers that OpenSSL provides, fetched from the library's own context.
#include "QZCipherBackends.h"
#include "QZOpenSSL.h"

#include <algorithm>
#include <limits>

namespace QZ::CipherBackends {

QByteArray evpCipher(const char *name, QByteArrayView data, const QVariantMap &options, Direction direction)
{
    const std::optional<QByteArray> key = bytesOption(options, QZCipherKeyKey);
    const std::optional<QByteArray> vector = bytesOption(options, QZCipherInitializationVectorKey);
    OSSL_LIB_CTX *const library = OpenSSL::libraryContext();
    if (!key || !vector || !library)
        return QByteArray();

    const OpenSSL::ErrorQueueGuard guard;
    const OpenSSL::Cipher cipher(EVP_CIPHER_fetch(library, name, nullptr));
    const OpenSSL::CipherContext context(EVP_CIPHER_CTX_new());
    if (!cipher || !context)
        return QByteArray();
    const SecretBytes keyBytes(*key, EVP_CIPHER_get_key_length(cipher.get()));
    const SecretBytes vectorBytes(*vector, EVP_CIPHER_get_iv_length(cipher.get()));
    if (!EVP_CipherInit_ex2(context.get(), cipher.get(), keyBytes.size() ? keyBytes.data() : nullptr,
                            vectorBytes.size() ? vectorBytes.data() : nullptr,
                            direction == Direction::Encrypt ? 1 : 0, nullptr))
        return QByteArray();

    // The update steps produce at most the input's length, the final step at most one block.
    const qsizetype blockSize = EVP_CIPHER_get_block_size(cipher.get());
    if (blockSize < 1 || data.size() > std::numeric_limits<qsizetype>::max() - blockSize)
        return QByteArray();
    QByteArray out(data.size() + blockSize, Qt::Uninitialized);
    auto *const output = reinterpret_cast<unsigned char *>(out.data());
    const auto *const input = reinterpret_cast<const unsigned char *>(data.data());
    qsizetype written = 0;
    for (qsizetype offset = 0; offset < data.size();) {
        const int chunk = static_cast<int>(std::min<qsizetype>(data.size() - offset, qsizetype(1) << 30));
        int produced = 0;
        if (!EVP_CipherUpdate(context.get(), output + written, &produced, input + offset, chunk))
            return QByteArray();
        written += produced;
        offset += chunk;
    }
    int produced = 0;
    if (!EVP_CipherFinal_ex(context.get(), output + written, &produced))
        return QByteArray();
    out.resize(written + produced);
    return out;
}

} // namespace QZ::CipherBackends
