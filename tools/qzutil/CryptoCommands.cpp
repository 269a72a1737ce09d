// qzutil encrypt | decrypt: the ciphers, raw bytes on standard output.
#include "Command.h"

#include <QZApp/QZCrypto.h>

#include <QFile>

#include <array>
#include <utility>

namespace qzutil {
namespace {

// A name from the table, or a decimal number (a signed 32-bit value).
template<size_t N>
std::optional<qint32> parseChoice(const QString &text, const std::array<const char *, N> &names)
{
    for (size_t i = 0; i < N; ++i) {
        if (text == QLatin1String(names[i]))
            return static_cast<qint32>(i);
    }
    bool ok = false;
    const int number = text.toInt(&ok, 10);
    return ok ? std::optional<qint32>(number) : std::nullopt;
}

constexpr std::array<const char *, 10> kCipherNames = { "null", "des", "3des", "desx", "rc4",
                                                        "rc2", "blowfish", "cast5", "rc5", "rsa" };
constexpr std::array<const char *, 5> kModeNames = { "default", "cbc", "ecb", "cfb", "ofb" };

// Bytes from hexadecimal digits: an even number of them and nothing else.
std::optional<QByteArray> parseHex(const QString &text)
{
    if (text.size() % 2 != 0)
        return std::nullopt;
    for (const QChar c : text) {
        if (!c.isDigit() && !(c.toLower() >= QLatin1Char('a') && c.toLower() <= QLatin1Char('f')))
            return std::nullopt;
    }
    return QByteArray::fromHex(text.toLatin1());
}

// encrypt and decrypt share their options; `name` is the command.
int cipherCommand(const char *name, const Invocation &invocation)
{
    const std::optional<qint32> cipher = parseChoice(invocation.value("cipher"), kCipherNames);
    if (!cipher)
        return usage(name);
    qint32 mode = QZCipherModeDefault;
    if (invocation.isSet("mode")) {
        const std::optional<qint32> chosen = parseChoice(invocation.value("mode"), kModeNames);
        if (!chosen)
            return usage(name);
        mode = *chosen;
    }
    QVariantMap options;
    for (const auto &[option, key] : { std::pair { "key", &QZCipherKeyKey },
                                       std::pair { "iv", &QZCipherInitializationVectorKey },
                                       std::pair { "binary-public-key", &QZRSABinaryPublicKeyKey } }) {
        if (!invocation.isSet(option))
            continue;
        const std::optional<QByteArray> bytes = parseHex(invocation.value(option));
        if (!bytes)
            return usage(name);
        options.insert(*key, *bytes);
    }
    if (invocation.isSet("key-count")) {
        const std::optional<quint64> count = parseUnsigned(invocation.value("key-count"));
        if (!count || *count > 3)
            return usage(name);
        options.insert(QZ3DESKeyCountKey, static_cast<int>(*count));
    }
    if (invocation.isSet("rsa-mode")) {
        const QString value = invocation.value("rsa-mode");
        if (value != QLatin1String("public") && value != QLatin1String("private"))
            return usage(name);
        options.insert(QZRSAModeKey, value == QLatin1String("public") ? QZRSAModePublic : QZRSAModePrivate);
    }
    const std::optional<QString> operand = inputPath(invocation);
    if (!operand)
        return usage(name);
    const QString &path = *operand;
    if (invocation.isSet("pem")) {
        const QString pem = invocation.value("pem");
        QFile file(pem);
        if (!file.open(QIODevice::ReadOnly))
            return fail(QStringLiteral("%1: %2").arg(pem, file.errorString()));
        options.insert(QZRSAPEMKeyKey, file.readAll());
    }

    QString error;
    const std::optional<QByteArray> input = readInput(path, &error);
    if (!input)
        return fail(error);
    const bool encrypt = qstrcmp(name, "encrypt") == 0;
    const QByteArray output = encrypt
            ? QZ::dataEncryptedWithCipher(*input, static_cast<QZCipher>(*cipher), static_cast<QZCipherMode>(mode), options)
            : QZ::dataDecryptedWithCipher(*input, static_cast<QZCipher>(*cipher), static_cast<QZCipherMode>(mode), options);
    if (output.isNull()) {
        return fail(encrypt ? QStringLiteral("encryption failed: unknown cipher or mode, unusable key, "
                                             "or input too long for the RSA key")
                            : QStringLiteral("decryption failed: unknown cipher or mode, unusable or wrong "
                                             "key, damaged input, or input too long for the RSA key"));
    }
    writeOut(output);
    return Success;
}

int encrypt(const Invocation &invocation)
{
    return cipherCommand("encrypt", invocation);
}

int decrypt(const Invocation &invocation)
{
    return cipherCommand("decrypt", invocation);
}

#define QZUTIL_CIPHER_USAGE                                                                         \
    "--cipher NAME|NUMBER [--mode NAME|NUMBER] [--key HEX] [--iv HEX] [--key-count 2] "            \
    "[--pem FILE --rsa-mode public|private] [--binary-public-key HEX] [FILE]"

// The options and operand of encrypt and decrypt.
const std::vector<Option> kCipherOptions = {
    { "cipher", "NAME|NUMBER", "null des 3des desx rc4 rc2 blowfish cast5 rc5 rsa, or 0 to 9 (required)" },
    { "mode", "NAME|NUMBER", "default cbc ecb cfb ofb, or 0 to 4: CBC and ECB pad to whole blocks,\n"
                             "CFB and OFB keep the length; \"default\" is CBC" },
    { "key", "HEX", "the key in hexadecimal: 8 bytes for des, 16 or 24 for 3des, 24 for desx,\n"
                    "16 for the others; shorter keys are padded with zero bytes" },
    { "iv", "HEX", "the initialisation vector in hexadecimal, padded with zero bytes" },
    { "key-count", "2", "2 for two-key triple DES; any other number (up to 3) for three keys" },
    { "pem", "FILE", "an RSA key in PEM form: public, or unencrypted private" },
    { "rsa-mode", "public|private", "public: encrypt with the public key, decrypt by checking a signature;\n"
                                    "private (the default): sign, decrypt with the private key" },
    { "binary-public-key", "HEX", "an RSA public key without --pem: one exponent byte, then the modulus" },
};
const std::vector<Operand> kCipherOperands = { { "FILE", "the input; standard input when absent or \"-\"" } };

QZUTIL_COMMAND(.name = "encrypt", .usage = QZUTIL_CIPHER_USAGE, .summary = "encrypt standard input or FILE",
               .run = encrypt, .options = kCipherOptions, .operands = kCipherOperands);
QZUTIL_COMMAND(.name = "decrypt", .usage = QZUTIL_CIPHER_USAGE, .summary = "decrypt standard input or FILE",
               .run = decrypt, .options = kCipherOptions, .operands = kCipherOperands);

} // namespace
} // namespace qzutil
