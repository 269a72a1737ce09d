// RSA with PKCS #1 v1.5 padding through EVP_PKEY, with keys read into the library's own
// OpenSSL context.
#include "QZCipherBackends.h"
#include "QZOpenSSL.h"

#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/rsa.h>

#include <climits>

namespace {

using namespace QZ::OpenSSL;

// Decodes one RSA key from PEM bytes: `structure` names the form ("SubjectPublicKeyInfo",
// "type-specific" for PKCS #1, or null for any), `selection` public or private. Encrypted keys
// fail, as no pass phrase is ever supplied.
PKey decodePem(const QByteArray &pem, const char *structure, int selection)
{
    EVP_PKEY *key = nullptr;
    const std::unique_ptr<OSSL_DECODER_CTX, Deleter<OSSL_DECODER_CTX, OSSL_DECODER_CTX_free>> decoder(
            OSSL_DECODER_CTX_new_for_pkey(&key, "PEM", structure, "RSA", selection, libraryContext(), nullptr));
    const Bio bio(BIO_new_mem_buf(pem.constData(), static_cast<int>(pem.size())));
    if (decoder && bio)
        OSSL_DECODER_from_bio(decoder.get(), bio.get());   // sets `key` only on success
    return PKey(key);
}

// The PEM bytes of an option value: a string's UTF-8 up to its first NUL, or data as it is.
std::optional<QByteArray> pemBytes(const QVariant &value)
{
    if (value.metaType() == QMetaType::fromType<QString>()) {
        QByteArray bytes = value.toString().toUtf8();
        const qsizetype terminator = bytes.indexOf('\0');
        if (terminator >= 0)
            bytes.truncate(terminator);
        return bytes;
    }
    if (value.metaType() == QMetaType::fromType<QByteArray>())
        return value.toByteArray();
    return std::nullopt;
}

PKey pemKey(const QByteArray &pem, bool publicMode)
{
    if (pem.size() > INT_MAX)
        return PKey();
    if (!publicMode)
        return decodePem(pem, nullptr, EVP_PKEY_KEYPAIR);
    PKey key = decodePem(pem, "SubjectPublicKeyInfo", EVP_PKEY_PUBLIC_KEY);
    if (!key)
        key = decodePem(pem, "type-specific", EVP_PKEY_PUBLIC_KEY);
    return key;
}

// A public key from one exponent byte and the modulus, both unsigned big-endian.
PKey binaryPublicKey(const QByteArray &bytes)
{
    if (bytes.isEmpty() || bytes.size() > INT_MAX)
        return PKey();
    const auto *const raw = reinterpret_cast<const unsigned char *>(bytes.constData());
    const BigNumber exponent(BN_bin2bn(raw, 1, nullptr));
    const BigNumber modulus(BN_bin2bn(raw + 1, static_cast<int>(bytes.size() - 1), nullptr));
    const ParamBuilder builder(OSSL_PARAM_BLD_new());
    if (!exponent || !modulus || !builder
        || !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, modulus.get())
        || !OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, exponent.get()))
        return PKey();
    const Params params(OSSL_PARAM_BLD_to_param(builder.get()));
    const PKeyContext context(EVP_PKEY_CTX_new_from_name(libraryContext(), "RSA", nullptr));
    EVP_PKEY *key = nullptr;
    if (!params || !context || EVP_PKEY_fromdata_init(context.get()) <= 0
        || EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, params.get()) <= 0)
        return PKey();
    return PKey(key);
}

// The key the options describe: PEM first, then the binary public form.
PKey optionKey(const QVariantMap &options, bool publicMode)
{
    const auto pem = options.constFind(QZRSAPEMKeyKey);
    if (pem != options.constEnd()) {
        const std::optional<QByteArray> bytes = pemBytes(*pem);
        return bytes ? pemKey(*bytes, publicMode) : PKey();
    }
    const auto binary = options.constFind(QZRSABinaryPublicKeyKey);
    if (binary != options.constEnd() && binary->metaType() == QMetaType::fromType<QByteArray>())
        return binaryPublicKey(binary->toByteArray());
    return PKey();
}

bool isPublicMode(const QVariantMap &options)
{
    const QVariant mode = options.value(QZRSAModeKey);
    return mode.metaType() == QMetaType::fromType<QString>() && mode.toString() == QZRSAModePublic;
}

} // namespace

namespace QZ::CipherBackends {

QByteArray rsaCipher(QByteArrayView data, const QVariantMap &options, Direction direction)
{
    if (!libraryContext())
        return QByteArray();
    const ErrorQueueGuard guard;
    const bool publicMode = isPublicMode(options);
    const PKey key = optionKey(options, publicMode);
    if (!key)
        return QByteArray();
    const int keySize = EVP_PKEY_get_size(key.get());
    if (keySize <= 0 || data.size() > keySize - 11)
        return QByteArray();

    const PKeyContext context(EVP_PKEY_CTX_new_from_pkey(libraryContext(), key.get(), nullptr));
    if (!context)
        return QByteArray();
    const bool encrypt = direction == Direction::Encrypt;
    int started = 0;
    if (publicMode)
        started = encrypt ? EVP_PKEY_encrypt_init(context.get()) : EVP_PKEY_verify_recover_init(context.get());
    else
        started = encrypt ? EVP_PKEY_sign_init(context.get()) : EVP_PKEY_decrypt_init(context.get());
    if (started <= 0 || EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) <= 0)
        return QByteArray();

    // The whole key-sized buffer is the result, whatever length the operation reports.
    QByteArray out(keySize, '\0');
    auto *const output = reinterpret_cast<unsigned char *>(out.data());
    size_t outputLength = out.size();
    const auto *const input = reinterpret_cast<const unsigned char *>(data.data());
    const size_t inputLength = data.size();
    int result = 0;
    if (publicMode)
        result = encrypt ? EVP_PKEY_encrypt(context.get(), output, &outputLength, input, inputLength)
                         : EVP_PKEY_verify_recover(context.get(), output, &outputLength, input, inputLength);
    else
        result = encrypt ? EVP_PKEY_sign(context.get(), output, &outputLength, input, inputLength)
                         : EVP_PKEY_decrypt(context.get(), output, &outputLength, input, inputLength);
    if (result <= 0)
        return QByteArray();
    return out;
}

} // namespace QZ::CipherBackends
