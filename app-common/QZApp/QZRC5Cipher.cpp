// RC5-32/12/16 from libtomcrypt in the four block modes, with the same padding rules as the
// OpenSSL ciphers: CBC and ECB pad to whole blocks with PKCS #5 and check the padding when
// decrypting; CFB (64-bit feedback) and OFB keep the length.
#include "QZCipherBackends.h"

#include <tomcrypt.h>

#include <algorithm>
#include <limits>

namespace {

constexpr int kKeyLength = 16;
constexpr int kRounds = 12;
constexpr int kBlockSize = 8;

// libtomcrypt's modes find a cipher through its process-wide table; registering is idempotent.
int rc5CipherIndex()
{
    static const int index = register_cipher(&rc5_desc);
    return index;
}

// One libtomcrypt mode state, started with a key and vector and wiped when it goes.
template<typename State, int (*Done)(State *)>
class ModeState
{
public:
    ModeState() = default;
    ~ModeState()
    {
        if (m_started)
            Done(&m_state);
        zeromem(&m_state, sizeof m_state);
    }
    ModeState(const ModeState &) = delete;
    ModeState &operator=(const ModeState &) = delete;

    State *get() { return &m_state; }
    bool started(int status) { return (m_started = status == CRYPT_OK); }

private:
    State m_state {};
    bool m_started = false;
};

// Runs one mode over `in` into `out` (same length): starts the state, then one pass.
template<typename State, int (*Done)(State *), typename Start>
bool runMode(Start start, int (*pass)(const unsigned char *, unsigned char *, unsigned long, State *),
             const unsigned char *in, unsigned char *out, qsizetype length)
{
    ModeState<State, Done> state;
    if (!state.started(start(state.get())))
        return false;
    return length == 0 || pass(in, out, static_cast<unsigned long>(length), state.get()) == CRYPT_OK;
}

// Runs the mode `mode` in the given direction; the length must suit it (whole blocks for CBC
// and ECB).
bool crypt(QZCipherMode mode, QZ::CipherBackends::Direction direction, const unsigned char *key,
           const unsigned char *vector, const unsigned char *in, unsigned char *out, qsizetype length)
{
    const int cipher = rc5CipherIndex();
    if (cipher < 0)
        return false;
    const bool encrypt = direction == QZ::CipherBackends::Direction::Encrypt;
    switch (mode) {
    case QZCipherModeDefault:
    case QZCipherModeCBC:
        return runMode<symmetric_CBC, cbc_done>(
                [&](symmetric_CBC *s) { return cbc_start(cipher, vector, key, kKeyLength, kRounds, s); },
                encrypt ? cbc_encrypt : cbc_decrypt, in, out, length);
    case QZCipherModeECB:
        return runMode<symmetric_ECB, ecb_done>(
                [&](symmetric_ECB *s) { return ecb_start(cipher, key, kKeyLength, kRounds, s); },
                encrypt ? ecb_encrypt : ecb_decrypt, in, out, length);
    case QZCipherModeCFB:
        return runMode<symmetric_CFB, cfb_done>(
                [&](symmetric_CFB *s) { return cfb_start(cipher, vector, key, kKeyLength, kRounds, s); },
                encrypt ? cfb_encrypt : cfb_decrypt, in, out, length);
    case QZCipherModeOFB:
        return runMode<symmetric_OFB, ofb_done>(
                [&](symmetric_OFB *s) { return ofb_start(cipher, vector, key, kKeyLength, kRounds, s); },
                encrypt ? ofb_encrypt : ofb_decrypt, in, out, length);
    }
    return false;
}

bool isPaddedMode(QZCipherMode mode)
{
    return mode == QZCipherModeDefault || mode == QZCipherModeCBC || mode == QZCipherModeECB;
}

// The length of the plain text in a decrypted padded buffer, or -1 when the padding is not
// PKCS #5: the last byte n is 1 to 8 and so are the n last bytes.
qsizetype unpaddedLength(const QByteArray &decrypted)
{
    const auto n = static_cast<unsigned char>(decrypted.back());
    if (n == 0 || n > kBlockSize)
        return -1;
    for (qsizetype i = decrypted.size() - n; i < decrypted.size(); ++i) {
        if (static_cast<unsigned char>(decrypted[i]) != n)
            return -1;
    }
    return decrypted.size() - n;
}

} // namespace

namespace QZ::CipherBackends {

QByteArray rc5Cipher(QByteArrayView data, QZCipherMode mode, const QVariantMap &options, Direction direction)
{
    if (mode < QZCipherModeDefault || mode > QZCipherModeOFB)
        return QByteArray();
    const std::optional<QByteArray> keyOption = bytesOption(options, QZCipherKeyKey);
    const std::optional<QByteArray> vectorOption = bytesOption(options, QZCipherInitializationVectorKey);
    if (!keyOption || !vectorOption)
        return QByteArray();
    const SecretBytes key(*keyOption, kKeyLength);
    const SecretBytes vector(*vectorOption, kBlockSize);
    const auto *const input = reinterpret_cast<const unsigned char *>(data.data());

    if (!isPaddedMode(mode)) {
        QByteArray out(data.size(), Qt::Uninitialized);
        if (!crypt(mode, direction, key.data(), vector.data(), input,
                   reinterpret_cast<unsigned char *>(out.data()), data.size()))
            return QByteArray();
        return out;
    }

    if (direction == Direction::Encrypt) {
        if (data.size() > std::numeric_limits<qsizetype>::max() - kBlockSize)
            return QByteArray();
        const qsizetype padding = kBlockSize - data.size() % kBlockSize;
        QByteArray padded(data.size() + padding, static_cast<char>(padding));
        std::copy(data.begin(), data.end(), padded.begin());
        QByteArray out(padded.size(), Qt::Uninitialized);
        if (!crypt(mode, direction, key.data(), vector.data(),
                   reinterpret_cast<const unsigned char *>(padded.constData()),
                   reinterpret_cast<unsigned char *>(out.data()), padded.size()))
            return QByteArray();
        return out;
    }

    // Like OpenSSL, an empty or partial last block cannot be decrypted.
    if (data.isEmpty() || data.size() % kBlockSize != 0)
        return QByteArray();
    QByteArray out(data.size(), Qt::Uninitialized);
    if (!crypt(mode, direction, key.data(), vector.data(), input,
               reinterpret_cast<unsigned char *>(out.data()), data.size()))
        return QByteArray();
    const qsizetype length = unpaddedLength(out);
    if (length < 0)
        return QByteArray();
    out.resize(length);
    return out;
}

} // namespace QZ::CipherBackends
