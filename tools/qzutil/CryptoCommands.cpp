// qzutil base64 | encrypt | decrypt: the data encodings and ciphers, raw bytes on standard output.
#include "Command.h"

#include <QZApp/QZCrypto.h>

#include <QFile>

#include <array>

namespace qzutil {
namespace {

// The words of a command, taken one at a time: options, their values, one file operand.
class Words
{
public:
    explicit Words(const QStringList &words) : m_words(words) {}

    // Takes the next word; false at the end.
    bool next(QString *word) { return m_index < m_words.size() ? (*word = m_words[m_index++], true) : false; }

private:
    QStringList m_words;
    qsizetype m_index = 0;
};

bool isOption(const QString &word)
{
    return word.startsWith(QLatin1String("--"));
}

// Fills `buffer` from `input` up to its size; the number of bytes read (fewer only at the end),
// or -1 on a read error.
qint64 readFull(QFile &input, QByteArray &buffer)
{
    qint64 filled = 0;
    while (filled < buffer.size()) {
        const qint64 got = input.read(buffer.data() + filled, buffer.size() - filled);
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        filled += got;
    }
    return filled;
}

// Writes the Base64 text of `input` and a final line break, encoding a run of whole lines at a
// time so that input of any size streams through a buffer of about a megabyte. A width whose
// one line would not fit reads the input whole.
int encodeStream(QFile &input, const QString &name, QZ::Base64Alphabet alphabet, quint32 width,
                 QZ::Base64LineBreak lineBreak)
{
    constexpr qsizetype kChunk = 1 << 20;
    const QByteArray breakBytes = lineBreak == QZ::Base64LineBreak::CarriageReturnLineFeed ? "\r\n" : "\n";
    const qsizetype lineBytes = qsizetype(width < 4 ? 1 : width / 4) * 3;
    bool wrote = false;
    const auto encode = [&](QByteArrayView run) {
        // Each run ends with a whole line; a width below 4 starts every group with its break.
        if (wrote && width >= 4)
            writeOut(breakBytes);
        const QByteArray text = QZ::base64Encoded(run, alphabet, width, lineBreak);
        writeOut(text);
        wrote = true;
        return !text.isNull();
    };

    if (lineBytes > kChunk) {
        const QByteArray whole = input.readAll();
        if (input.error() != QFileDevice::NoError)
            return fail(QStringLiteral("%1: %2").arg(name, input.errorString()));
        if (!whole.isEmpty() && !encode(whole))
            return fail(QStringLiteral("%1: too large to encode").arg(name));
    } else {
        QByteArray buffer(kChunk / lineBytes * lineBytes, Qt::Uninitialized);
        for (qint64 length = buffer.size(); length == buffer.size();) {
            length = readFull(input, buffer);
            if (length < 0)
                return fail(QStringLiteral("%1: %2").arg(name, input.errorString()));
            if (length > 0)
                encode(QByteArrayView(buffer.constData(), length));
        }
    }
    if (wrote)
        writeOut(breakBytes);
    return Success;
}

int base64(const QStringList &arguments)
{
    bool decode = false;
    bool url = false;
    bool mime = false;
    std::optional<quint64> width;
    QString path;
    bool havePath = false;
    Words words(arguments);
    for (QString word; words.next(&word);) {
        if (word == QLatin1String("--decode")) {
            decode = true;
        } else if (word == QLatin1String("--url")) {
            url = true;
        } else if (word == QLatin1String("--mime")) {
            mime = true;
        } else if (word == QLatin1String("--width")) {
            QString number;
            if (!words.next(&number) || !(width = parseUnsigned(number)) || *width > 0xFFFFFFFFu)
                return usage("base64");
        } else if (!isOption(word) && !havePath) {
            path = word;
            havePath = true;
        } else {
            return usage("base64");
        }
    }
    // The decoder takes both alphabets and any line breaks: the layout options are for encoding.
    if (decode && (url || mime || width))
        return usage("base64");

    QString error;
    if (decode) {
        const std::optional<QByteArray> input = readInput(path, &error);
        if (!input)
            return fail(error);
        writeOut(QZ::dataWithBase64(QByteArrayView(*input)));
        return Success;
    }
    QFile input;
    if (!openInput(input, path, &error))
        return fail(error);
    return encodeStream(input, inputName(path), url ? QZ::Base64Alphabet::UrlSafe : QZ::Base64Alphabet::Standard,
                        static_cast<quint32>(width.value_or(mime ? 70 : 72)),
                        mime ? QZ::Base64LineBreak::CarriageReturnLineFeed : QZ::Base64LineBreak::LineFeed);
}

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
int cipherCommand(const char *name, const QStringList &arguments)
{
    std::optional<qint32> cipher;
    qint32 mode = QZCipherModeDefault;
    QVariantMap options;
    QString path;
    bool havePath = false;
    Words words(arguments);
    for (QString word; words.next(&word);) {
        QString value;
        const bool takesValue = word == QLatin1String("--cipher") || word == QLatin1String("--mode")
                || word == QLatin1String("--key") || word == QLatin1String("--iv")
                || word == QLatin1String("--key-count") || word == QLatin1String("--pem")
                || word == QLatin1String("--rsa-mode") || word == QLatin1String("--binary-public-key");
        if (takesValue && !words.next(&value))
            return usage(name);
        if (word == QLatin1String("--cipher")) {
            if (!(cipher = parseChoice(value, kCipherNames)))
                return usage(name);
        } else if (word == QLatin1String("--mode")) {
            const std::optional<qint32> chosen = parseChoice(value, kModeNames);
            if (!chosen)
                return usage(name);
            mode = *chosen;
        } else if (word == QLatin1String("--key") || word == QLatin1String("--iv")
                   || word == QLatin1String("--binary-public-key")) {
            const std::optional<QByteArray> bytes = parseHex(value);
            if (!bytes)
                return usage(name);
            options.insert(word == QLatin1String("--key") ? QZCipherKeyKey
                                   : word == QLatin1String("--iv") ? QZCipherInitializationVectorKey
                                                                   : QZRSABinaryPublicKeyKey,
                           *bytes);
        } else if (word == QLatin1String("--key-count")) {
            const std::optional<quint64> count = parseUnsigned(value);
            if (!count || *count > 3)
                return usage(name);
            options.insert(QZ3DESKeyCountKey, static_cast<int>(*count));
        } else if (word == QLatin1String("--pem")) {
            QFile file(value);
            if (!file.open(QIODevice::ReadOnly))
                return fail(QStringLiteral("%1: %2").arg(value, file.errorString()));
            options.insert(QZRSAPEMKeyKey, file.readAll());
        } else if (word == QLatin1String("--rsa-mode")) {
            if (value != QLatin1String("public") && value != QLatin1String("private"))
                return usage(name);
            options.insert(QZRSAModeKey, value == QLatin1String("public") ? QZRSAModePublic : QZRSAModePrivate);
        } else if (!isOption(word) && !havePath) {
            path = word;
            havePath = true;
        } else {
            return usage(name);
        }
    }
    if (!cipher)
        return usage(name);

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

int encrypt(const QStringList &arguments)
{
    return cipherCommand("encrypt", arguments);
}

int decrypt(const QStringList &arguments)
{
    return cipherCommand("decrypt", arguments);
}

#define QZUTIL_CIPHER_USAGE                                                                         \
    "--cipher NAME|NUMBER [--mode NAME|NUMBER] [--key HEX] [--iv HEX] [--key-count 2] "            \
    "[--pem FILE --rsa-mode public|private] [--binary-public-key HEX] [FILE]"

QZUTIL_COMMAND("base64", "[--decode] [--url] [--mime] [--width N] [FILE]",
               "encode standard input or FILE as Base64, or decode it", base64);
QZUTIL_COMMAND("encrypt", QZUTIL_CIPHER_USAGE, "encrypt standard input or FILE", encrypt);
QZUTIL_COMMAND("decrypt", QZUTIL_CIPHER_USAGE, "decrypt standard input or FILE", decrypt);

} // namespace
} // namespace qzutil
