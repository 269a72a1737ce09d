// qzutil base64 / encrypt / decrypt as whole processes, checked against the system's base64,
// basenc and openssl programs on the same files.
#include "support/QzutilRunner.h"

#include <QZApp/QZCrypto.h>

#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

using qztest::runQzutil;

namespace {

class QzutilCrypto : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        QRandomGenerator generator(9);
        m_data.resize(10000);
        for (char &c : m_data)
            c = static_cast<char>(generator.bounded(256));
        m_path = write(QStringLiteral("data"), m_data);
    }

    QString write(const QString &name, const QByteArray &bytes)
    {
        QFile file(m_dir.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return file.fileName();
    }

    // Standard output of a system program, which must succeed.
    static QByteArray system(const QString &program, const QStringList &arguments)
    {
        QProcess process;
        process.start(program, arguments);
        process.waitForFinished(60000);
        EXPECT_EQ(process.exitCode(), 0) << program.toStdString() << ": " << process.readAllStandardError().toStdString();
        return process.readAllStandardOutput();
    }

    QTemporaryDir m_dir;
    QByteArray m_data;
    QString m_path;
};

TEST_F(QzutilCrypto, Base64MatchesTheSystemTools)
{
    const auto qzutil = [](const QStringList &arguments, const QByteArray &input = QByteArray()) {
        const qztest::ToolResult result = runQzutil(QStringList { QStringLiteral("base64") } + arguments, input);
        EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
        return result.out;
    };
    const QByteArray wrapped72 = system(QStringLiteral("base64"), { QStringLiteral("-w"), QStringLiteral("72"), m_path });
    EXPECT_EQ(qzutil({ m_path }), wrapped72);
    EXPECT_EQ(qzutil({}, m_data), wrapped72);
    EXPECT_EQ(qzutil({ QStringLiteral("--width"), QStringLiteral("76"), QStringLiteral("-") }, m_data),
              system(QStringLiteral("base64"), { m_path }));
    EXPECT_EQ(qzutil({ QStringLiteral("--url"), m_path }),
              system(QStringLiteral("basenc"), { QStringLiteral("--base64url"), QStringLiteral("-w"), QStringLiteral("72"), m_path }));
    const QByteArray mime = qzutil({ QStringLiteral("--mime"), m_path });
    EXPECT_EQ(mime, system(QStringLiteral("base64"), { QStringLiteral("-w"), QStringLiteral("68"), m_path }).replace("\n", "\r\n"));

    const QString encoded = write(QStringLiteral("encoded"), mime);
    EXPECT_EQ(qzutil({ QStringLiteral("--decode"), encoded }), m_data);
    EXPECT_EQ(qzutil({ QStringLiteral("--decode") }, wrapped72), m_data);
    EXPECT_EQ(qzutil({}, QByteArray()), QByteArray());
}

// Encoding streams through a buffer of about a megabyte: lines continue across its runs.
TEST_F(QzutilCrypto, Base64StreamsLargeInput)
{
    QByteArray large(3 * 1024 * 1024 + 17, Qt::Uninitialized);
    QRandomGenerator generator(11);
    for (char &c : large)
        c = static_cast<char>(generator.bounded(256));
    const QString path = write(QStringLiteral("large"), large);
    const auto qzutil = [&](const QStringList &arguments) {
        const qztest::ToolResult result = runQzutil(QStringList { QStringLiteral("base64") } + arguments + QStringList { path });
        EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
        return result.out;
    };
    EXPECT_EQ(qzutil({}), system(QStringLiteral("base64"), { QStringLiteral("-w"), QStringLiteral("72"), path }));
    EXPECT_EQ(qzutil({ QStringLiteral("--mime") }), QZ::base64Encoded(large, QZ::Base64Alphabet::Standard, 70,
                                                                   QZ::Base64LineBreak::CarriageReturnLineFeed) + "\r\n");
    for (const quint32 width : { 3u, 5u, 0xFFFFFFFFu }) {
        EXPECT_EQ(qzutil({ QStringLiteral("--url"), QStringLiteral("--width"), QString::number(width) }),
                  QZ::base64Encoded(large, QZ::Base64Alphabet::UrlSafe, width) + "\n") << width;
    }
    const qztest::ToolResult decoded = runQzutil({ QStringLiteral("base64"), QStringLiteral("--decode") }, large.toBase64());
    EXPECT_EQ(decoded.out, large);
}

TEST_F(QzutilCrypto, Base64RefusesBadUse)
{
    for (const QStringList &arguments : { QStringList { QStringLiteral("--decode"), QStringLiteral("--url") },
                                          QStringList { QStringLiteral("--width") },
                                          QStringList { QStringLiteral("--width"), QStringLiteral("-1") },
                                          QStringList { QStringLiteral("--width"), QStringLiteral("4294967296") },
                                          QStringList { QStringLiteral("--wrap") },
                                          QStringList { QStringLiteral("a"), QStringLiteral("b") } }) {
        const qztest::ToolResult result = runQzutil(QStringList { QStringLiteral("base64") } + arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(result.err.startsWith("usage: qzutil base64 ")) << result.err.toStdString();
    }
    const qztest::ToolResult missing = runQzutil({ QStringLiteral("base64"), m_dir.filePath(QStringLiteral("none")) });
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(missing.err.startsWith("qzutil: ")) << missing.err.toStdString();
}

TEST_F(QzutilCrypto, EncryptMatchesOpenSSLAndDecryptReverses)
{
    const struct { const char *cipher, *mode, *openssl, *key; } cases[] = {
        { "des", "cbc", "-des-cbc", "0123456789abcdef" },
        { "3des", "ecb", "-des-ede3", "0123456789abcdeffedcba987654321089abcdef01234567" },
        { "blowfish", "ofb", "-bf-ofb", "0123456789abcdeffedcba9876543210" },
        { "4", "2", "-rc4", "0123456789abcdeffedcba9876543210" },
        { "cast5", "3", "-cast5-cfb", "0123456789abcdeffedcba9876543210" },
    };
    const QString iv = QStringLiteral("fedcba9876543210");
    for (const auto &c : cases) {
        const QStringList options { QStringLiteral("--cipher"), QLatin1String(c.cipher), QStringLiteral("--mode"),
                                    QLatin1String(c.mode), QStringLiteral("--key"), QLatin1String(c.key),
                                    QStringLiteral("--iv"), iv };
        const qztest::ToolResult encrypted = runQzutil(QStringList { QStringLiteral("encrypt") } + options + QStringList { m_path });
        ASSERT_EQ(encrypted.exitCode, 0) << encrypted.err.toStdString();
        QStringList opensslArguments { QStringLiteral("enc"), QStringLiteral("-e"), QLatin1String(c.openssl),
                                       QStringLiteral("-K"), QLatin1String(c.key), QStringLiteral("-provider"),
                                       QStringLiteral("legacy"), QStringLiteral("-provider"), QStringLiteral("default"),
                                       QStringLiteral("-in"), m_path };
        if (qstrcmp(c.openssl, "-rc4") && qstrcmp(c.openssl, "-des-ede3"))
            opensslArguments << QStringLiteral("-iv") << iv;
        EXPECT_EQ(encrypted.out, system(QStringLiteral("openssl"), opensslArguments)) << c.cipher;
        const qztest::ToolResult decrypted = runQzutil(QStringList { QStringLiteral("decrypt") } + options, encrypted.out);
        EXPECT_EQ(decrypted.exitCode, 0);
        EXPECT_EQ(decrypted.out, m_data) << c.cipher;
    }
}

TEST_F(QzutilCrypto, RC5AndRSAFromTheCommandLine)
{
    // The first published RC5-32/12/16 vector: zero key, zero block.
    const qztest::ToolResult rc5 = runQzutil({ QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("rc5"),
                                               QStringLiteral("--mode"), QStringLiteral("ecb") }, QByteArray(8, '\0'));
    EXPECT_EQ(rc5.exitCode, 0);
    EXPECT_EQ(rc5.out.left(8).toHex(), QByteArray("21a5dbee154b8f6d"));

    // Public encryption with a key written by openssl, private decryption by openssl.
    const QString privateKey = m_dir.filePath(QStringLiteral("key.pem"));
    system(QStringLiteral("openssl"), { QStringLiteral("genrsa"), QStringLiteral("-out"), privateKey, QStringLiteral("1024") });
    const QString publicKey = write(QStringLiteral("public.pem"),
            system(QStringLiteral("openssl"), { QStringLiteral("pkey"), QStringLiteral("-in"), privateKey, QStringLiteral("-pubout") }));
    const qztest::ToolResult encrypted = runQzutil({ QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("rsa"),
                                                     QStringLiteral("--pem"), publicKey, QStringLiteral("--rsa-mode"),
                                                     QStringLiteral("public") }, m_data.left(117));
    ASSERT_EQ(encrypted.exitCode, 0) << encrypted.err.toStdString();
    ASSERT_EQ(encrypted.out.size(), 128);
    const QString cipherText = write(QStringLiteral("rsa.bin"), encrypted.out);
    EXPECT_EQ(system(QStringLiteral("openssl"), { QStringLiteral("pkeyutl"), QStringLiteral("-decrypt"), QStringLiteral("-inkey"),
                                                  privateKey, QStringLiteral("-in"), cipherText }),
              m_data.left(117));

    // Private encryption is a raw signature that openssl recovers.
    const qztest::ToolResult signature = runQzutil({ QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("9"),
                                                     QStringLiteral("--pem"), privateKey, QStringLiteral("--rsa-mode"),
                                                     QStringLiteral("private") }, "signed words");
    ASSERT_EQ(signature.exitCode, 0);
    const QString signatureFile = write(QStringLiteral("signature.bin"), signature.out);
    EXPECT_EQ(system(QStringLiteral("openssl"), { QStringLiteral("pkeyutl"), QStringLiteral("-verifyrecover"), QStringLiteral("-pubin"),
                                                  QStringLiteral("-inkey"), publicKey, QStringLiteral("-in"), signatureFile }),
              QByteArray("signed words"));
}

TEST_F(QzutilCrypto, NullResultsFailAndBadOptionsAreUsageErrors)
{
    const auto run = [](const QStringList &arguments, const QByteArray &input = "input") {
        return runQzutil(arguments, input);
    };
    for (const QStringList &arguments : {
             QStringList { QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("10") },
             QStringList { QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("desx"), QStringLiteral("--mode"), QStringLiteral("ecb") },
             QStringList { QStringLiteral("decrypt"), QStringLiteral("--cipher"), QStringLiteral("des") },
             QStringList { QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("rsa") },
             QStringList { QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("rsa"), QStringLiteral("--pem"), QStringLiteral("/nonexistent/key.pem") } }) {
        const qztest::ToolResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 1) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(result.out.isEmpty());
        EXPECT_TRUE(result.err.startsWith("qzutil: ")) << result.err.toStdString();
        EXPECT_EQ(result.err.count('\n'), 1);
    }
    for (const QStringList &arguments : {
             QStringList { QStringLiteral("encrypt") },
             QStringList { QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("aes") },
             QStringList { QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("des"), QStringLiteral("--key"), QStringLiteral("12g4") },
             QStringList { QStringLiteral("encrypt"), QStringLiteral("--cipher"), QStringLiteral("des"), QStringLiteral("--key"), QStringLiteral("123") },
             QStringList { QStringLiteral("decrypt"), QStringLiteral("--cipher"), QStringLiteral("des"), QStringLiteral("--mode"), QStringLiteral("xts") },
             QStringList { QStringLiteral("decrypt"), QStringLiteral("--cipher"), QStringLiteral("rsa"), QStringLiteral("--rsa-mode"), QStringLiteral("both") },
             QStringList { QStringLiteral("decrypt"), QStringLiteral("--cipher") } }) {
        const qztest::ToolResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(result.err.startsWith("usage: qzutil " + arguments.front().toLatin1())) << result.err.toStdString();
    }
}

} // namespace
