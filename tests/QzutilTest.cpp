// qzutil as whole processes: commands (the helper's among them), input, exit status and output,
// against base64, basenc and openssl.
#include "support/QzutilRunner.h"
#include "support/TestSupport.h"

#include <QZApp/QZCrypto.h>

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>

using qztest::runQzutil;

namespace {

// Standard output of a system program given as words separated by '|', which must succeed.
QByteArray system(const QString &words)
{
    QStringList arguments = words.split(QLatin1Char('|'));
    const qztest::ToolResult result = qztest::runTool(arguments.takeFirst(), arguments);
    EXPECT_EQ(result.exitCode, 0) << words.toStdString() << ": " << result.err.toStdString();
    return result.out;
}

void write(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(path.section(QLatin1Char('/'), 0, -2));
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size());
}

TEST(Qzutil, CommandsGiveTheirOutputAndExitStatus)
{
    QTemporaryDir dir;
    const QString d = dir.path();
    const auto D = [&](const char *words) { return QString::fromUtf8(words).replace(QLatin1String("%D"), d); };
    // Over a megabyte, so that base64's lines continue across the runs of its buffer.
    QByteArray data(3 * 1024 * 1024 + 17, Qt::Uninitialized);
    QRandomGenerator generator(9);
    for (char &c : data)
        c = static_cast<char>(generator.bounded(256));
    system(D("openssl|genrsa|-out|%D/key.pem|1024"));
    for (const auto &[name, bytes] : { std::pair { "data", data }, { "mime", QZ::mimeBase64(data).toLatin1() },
                                       { "source/inner/file", "content" }, { "file", "data" }, { "doomed file", "" },
                                       { "public.pem", system(D("openssl|pkey|-in|%D/key.pem|-pubout")) }, { "words", "signed words" },
                                       { "list.plist", "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>n</key><integer>7</integer>"
                                                       "<key>d</key><data>AAE=</data><key>t</key><date>2001-01-01T00:00:00Z</date></dict></plist>" } })
        write(d + QLatin1Char('/') + QLatin1String(name), bytes);
    const QByteArray signature = system(D("openssl|pkeyutl|-sign|-inkey|%D/key.pem|-in|%D/words"));
    const QString enc = D("enc|-provider|legacy|-provider|default|-in|%D/data|");
    const QByteArray des = system(D("openssl|") + enc + QStringLiteral("-des-cbc|-K|0123456789abcdef|-iv|fedcba9876543210"));
    const QByteArray rc4 = system(D("openssl|") + enc + QStringLiteral("-rc4|-K|0123456789abcdeffedcba9876543210"));
    const QByteArray cast5 = system(D("openssl|") + enc + QStringLiteral("-cast5-cfb|-K|0123456789abcdeffedcba9876543210|-iv|fedcba9876543210"));
    const QByteArray wrapped72 = system(D("base64|-w|72|%D/data"));
    // Decoding goes block by block (a megabyte of text each): a text in both alphabets with
    // blanks and line breaks just before each block's end, and shifted by up to three valid
    // characters so that the blocks cut its groups at every place. Each must decode as a whole.
    QByteArray mixed = wrapped72;
    for (qsizetype at = mixed.size() / 3; at < 2 * mixed.size() / 3; ++at)
        mixed[at] = mixed[at] == '+' ? '-' : mixed[at] == '/' ? '_' : mixed[at];
    for (qsizetype block = 3; block > 0; --block)
        mixed.insert(block * 1024 * 1024 - 2, "\r\n \t=");
    const auto decodeRow = [&](const char *shift) { return QByteArray(shift) + mixed; };

    const struct {
        const char *arguments;   // separated by '|'; %D is the scratch folder
        QByteArray input;
        int status;
        QByteArray out;
        const char *err = "";    // how standard error starts
    } rows[] = {
        { "quote|ab|c d|", {}, 0, "ab c\\ d \"\"\n" },
        { "escape|a b\tc", {}, 0, "a\\ b\\tc\n" },
        { "unescape|a\\ b\\tc\\", {}, 0, "a b\tc\\\n" },
        { "size|--base|10|1000", {}, 0, "1 KB\n" },
        { "size|1536", {}, 0, "1.5 KB\n" },
        { "version|compare|10.0|9.0", {}, 0, "-1\n" },
        { "version|parse|1.0d", {}, 0, "string: 1.0d(null)\nmajor: 1\nminor: 0\nstatus: 0\nbuild: (null)\nreal: (none)\n" },
        { "version|parse|x1.0", {}, 1, "", "qzutil: not a version: x1.0\n" },
        { "base64|%D/data", {}, 0, wrapped72 },
        { "base64|--width|76|-", data, 0, system(D("base64|%D/data")) },
        { "base64|--url|%D/data", {}, 0, system(D("basenc|--base64url|-w|72|%D/data")) },
        { "base64|--mime|%D/data", {}, 0, system(D("base64|-w|68|%D/data")).replace("\n", "\r\n") },
        { "base64|--url|--width|5|%D/data", {}, 0, QZ::base64Encoded(data, QZ::Base64Alphabet::UrlSafe, 5) + "\n" },
        { "base64|--decode|%D/mime", {}, 0, data },
        { "base64|--decode", decodeRow(""), 0, data },
        { "base64|--decode", decodeRow("Q"), 0, QZ::dataWithBase64(QByteArrayView(decodeRow("Q"))) },
        { "base64|--decode|-", decodeRow("QU"), 0, QZ::dataWithBase64(QByteArrayView(decodeRow("QU"))) },
        { "base64|--decode", decodeRow("QUJ"), 0, QZ::dataWithBase64(QByteArrayView(decodeRow("QUJ"))) },
        { "base64|%D/absent", {}, 1, "" },
        { "encrypt|--cipher|des|--mode|cbc|--key|0123456789abcdef|--iv|fedcba9876543210|%D/data", {}, 0, des },
        { "decrypt|--cipher|des|--key|0123456789abcdef|--iv|fedcba9876543210", des, 0, data },
        { "encrypt|--cipher|4|--mode|2|--key|0123456789abcdeffedcba9876543210|%D/data", {}, 0, rc4 },
        { "decrypt|--cipher|cast5|--mode|3|--key|0123456789abcdeffedcba9876543210|--iv|fedcba9876543210", cast5, 0, data },
        { "encrypt|--cipher|rc5|--mode|ecb", QByteArray(8, '\0'), 0,   // the first published vector
          QZ::dataEncryptedWithCipher(QByteArray(8, '\0'), QZCipherRC5, QZCipherModeECB, {}) },
        { "encrypt|--cipher|9|--pem|%D/key.pem|--rsa-mode|private|%D/words", {}, 0, signature },
        { "encrypt|--cipher|10", "input", 1, "" },
        { "encrypt|--cipher|rsa|--pem|/nonexistent/key.pem", "input", 1, "" },
        { "copy|%D/source|%D/flat", {}, 0, "" },
        { "copy|--recursive|--keep-going|%D/source|%D/deep", {}, 0, "" },
        { "copy|--recursive|--hard-links|--jobs|2|%D/source|%D/threads", {}, 0, "" },
        { "delete|%D/flat", {}, 0, "" },
        { "delete|--jobs|3|%D/threads", {}, 0, "" },
        { "delete|%D/flat", {}, 1, "", "qzutil: cannot delete %D/flat: No such file or directory\n" },
        { "copy|%D/flat|%D/again", {}, 1, "", "%D/flat: No such file or directory (at utils:309)\n" },
        // The same commands in forms the program leaves to the full parser.
        { "copy|--jobs=2|--recursive|%D/source|%D/parsed", {}, 0, "" },
        { "delete|--|%D/parsed", {}, 0, "" },
        { "delete|--|%D/parsed", {}, 1, "", "qzutil: cannot delete %D/parsed: No such file or directory\n" },
        { "auth-cat|%D/data", {}, 0, data },
        { "helper|unlink|%D/doomed file", {}, 0, "status 0\n" },
        { "helper|unlink|%D/doomed file", {}, 1, "status 2\n", "qzutil: unlink: No such file or directory (status 2)\n" },
        { "helper|--helper|/nonexistent|unlink|%D/doomed file", {}, 1, "status 10002\n",
          "qzapp: Exception caught whilst trying to start helper: /nonexistent: No such file or directory\n"
          "qzutil: unlink: the helper could not be reached (status 10002)\n" },
        { "run|/bin/sh|-c|echo out; exit 3", {}, 0, "out\n3\n" },
        { "run|sh|-c|exit 0", {}, 1, "-1\n" },   // not searched for along PATH
        { "plist|%D/list.plist", {}, 0, "{\n    \"d\": \"AAE=\",\n    \"n\": 7,\n    \"t\": \"2001-01-01T00:00:00.000Z\"\n}\n" },
        { "plist|%D/absent", {}, 1, "" },
        // Options end at the first operand or "--": the words after it reach the command whatever
        // they start with; a command of free text takes every word.
        { "quote|-x|--|--help", {}, 0, "-x -- --help\n" },
        { "escape|--x y", {}, 0, "--x\\ y\n" },
        { "run|/bin/echo|-n|--help", {}, 0, "--help0\n" },
        { "run|--|-x", {}, 1, "-1\n", "qzutil: cannot run -x, or it was ended by a signal\n" },
        { "size|--base=10|--|2000", {}, 0, "2 KB\n" },
        { "base64|--|%D/file", {}, 0, "ZGF0YQ==\n" },
        { "helper|echo|-x", {}, 1, "status 22\n", "qzutil: echo: Invalid argument (status 22)\n" },   // echo takes no argument
        // An option after an operand is an operand, "-" included.
        { "copy|%D/file|--recursive|%D/copy", {}, 2, "", "usage: qzutil copy [--recursive] [--keep-going] [--hard-links] [--jobs N] [--owner UID] [--group GID] SOURCE DESTINATION\n" },
        { "base64|-|--url", {}, 2, "", "usage: qzutil base64 [--decode] [--url] [--mime] [--width N] [FILE]\n" },
        { "encrypt|--cipher", {}, 2, "", "usage: qzutil encrypt --cipher NAME|NUMBER" },
        { "", {}, 2, "", "usage: qzutil COMMAND" },
        { "no-such-command", {}, 2, "", "usage: qzutil " },
        { "size|-5", {}, 2, "", "usage: qzutil size " },
        { "version|compare|1", {}, 2, "", "usage: qzutil version " },
        { "base64|--decode|--url", {}, 2, "", "usage: qzutil base64 " },
        { "encrypt|--cipher|aes", {}, 2, "", "usage: qzutil encrypt " },
        { "copy|--owner|a|x|y", {}, 2, "", "usage: qzutil copy " },
        { "copy|--jobs|0|x|y", {}, 2, "", "usage: qzutil copy " },
        { "delete|--jobs|65|x", {}, 2, "", "usage: qzutil delete " },
        { "plist|a|b", {}, 2, "", "usage: qzutil plist " },
    };
    for (const auto &row : rows) {
        const QString arguments = D(row.arguments);
        SCOPED_TRACE(arguments.toStdString());
        const qztest::ToolResult result = runQzutil(arguments.isEmpty() ? QStringList() : arguments.split(QLatin1Char('|')), row.input);
        EXPECT_EQ(result.exitCode, row.status) << result.err.toStdString();
        EXPECT_TRUE(result.out == row.out) << result.out.left(200).toStdString();
        EXPECT_TRUE(result.err.startsWith(D(row.err).toUtf8())) << result.err.toStdString();
        // A failure ends with a one-line reason.
        EXPECT_TRUE(row.status != 1 || (result.err.endsWith('\n') && result.err.split('\n').at(result.err.count('\n') - 1).startsWith("qzutil: ")));
    }
    // Public encryption pads at random: openssl decrypts it.
    write(d + QStringLiteral("/sealed"), runQzutil(D("encrypt|--cipher|rsa|--pem|%D/public.pem|--rsa-mode|public").split(QLatin1Char('|')), data.left(117)).out);
    EXPECT_EQ(system(D("openssl|pkeyutl|-decrypt|-inkey|%D/key.pem|-in|%D/sealed")), data.left(117));
    const qztest::ToolResult os = runQzutil({ QStringLiteral("version"), QStringLiteral("os") });
    EXPECT_TRUE(os.exitCode == 0 && os.out.startsWith("kernel: " + system(QStringLiteral("uname|-r")) + "version: 10.")) << os.out.toStdString();
    EXPECT_EQ(system(D("cat|%D/deep/inner/file")), "content");
    EXPECT_FALSE(QFile::exists(d + QStringLiteral("/copy")));
}

// A plain copy or delete starts with the C file utilities alone; base64 adds Qt Core and nothing
// of the framework or the GUI; the other commands load the command module.
TEST(Qzutil, EachCommandLoadsOnlyWhatItNeeds)
{
    const auto loaded = [](const QStringList &arguments) {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("LD_DEBUG"), QStringLiteral("files"));
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(QZUTIL_PATH), arguments);
        process.write("TWFu");
        process.closeWriteChannel();
        EXPECT_TRUE(process.waitForFinished(60000));
        EXPECT_EQ(process.exitCode(), 0);
        const QByteArray log = process.readAllStandardError();
        EXPECT_TRUE(log.contains("libc.so")) << "LD_DEBUG gave no list";
        return log;
    };
    QTemporaryDir scratch;
    ASSERT_TRUE(QDir(scratch.path()).mkdir(QStringLiteral("tree")));
    const QString tree = scratch.filePath(QStringLiteral("tree"));
    const struct {
        QStringList arguments;
        bool qtCore;
    } rows[] = { { { QStringLiteral("copy"), QStringLiteral("--recursive"), tree, tree + QStringLiteral("2") }, false },
                 { { QStringLiteral("delete"), QStringLiteral("--jobs"), QStringLiteral("2"), tree }, false },
                 { { QStringLiteral("base64") }, true },
                 { { QStringLiteral("base64"), QStringLiteral("--decode") }, true } };
    for (const auto &row : rows) {
        const QByteArray log = loaded(row.arguments);
        const std::string command = row.arguments.join(u' ').toStdString();
        EXPECT_EQ(log.contains("libQt6Core.so"), row.qtCore) << command;
        for (const char *library : { "qzutil-commands", "libQZApp.so", "libQt6Gui", "libQt6Widgets", "libQt6DBus", "libcrypto" })
            EXPECT_FALSE(log.contains(library)) << command << " loads " << library;
    }
    EXPECT_TRUE(loaded({ QStringLiteral("quote"), QStringLiteral("x") }).contains("qzutil-commands"));
}

// Help and the version go to standard output with status 0. Every command has a help text whose
// usage line matches the one usage errors print and which explains each option it names.
TEST(Qzutil, HelpExplainsEveryCommandAndOption)
{
    const qztest::ToolResult help = runQzutil({ QStringLiteral("--help") });
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_TRUE(help.out.startsWith("usage: qzutil COMMAND") && help.err.isEmpty()) << help.out.toStdString();
    for (const char *word : { "--version", "-v" }) {
        const qztest::ToolResult version = runQzutil({ QString::fromLatin1(word) });
        EXPECT_EQ(version.exitCode, 0);
        const QRegularExpression line(QStringLiteral("^qzutil \\d+\\.\\d+\\.\\d+\n$"));
        EXPECT_TRUE(line.match(QString::fromUtf8(version.out)).hasMatch()) << version.out.toStdString();
    }
    // The command list: the lines between "commands:" and the next blank line.
    const QByteArray list = help.out.mid(help.out.indexOf("commands:\n") + 10);
    QStringList names;
    for (const QByteArray &line : list.left(list.indexOf("\n\n")).split('\n'))
        names.append(QString::fromUtf8(line.trimmed().split(' ').front()));
    EXPECT_GE(names.size(), 14);
    for (const QString &name : names) {
        SCOPED_TRACE(name.toStdString());
        const qztest::ToolResult text = runQzutil({ name, QStringLiteral("--help") });
        EXPECT_EQ(text.exitCode, 0);
        const QByteArray usageLine = text.out.left(text.out.indexOf('\n') + 1);
        // An unknown option is a usage error with the same usage line, except for commands of
        // free text, which take it as their text.
        const qztest::ToolResult error = runQzutil({ name, QStringLiteral("--no-such-option") });
        if (text.out.contains("Every word is an operand")) {
            EXPECT_EQ(error.exitCode, 0);
            EXPECT_EQ(error.out, "--no-such-option\n");
        } else {
            EXPECT_EQ(error.exitCode, 2);
            EXPECT_EQ(error.err, usageLine);
        }
        const QRegularExpression option(QStringLiteral("--[a-z-]+"));
        for (const QRegularExpressionMatch &match : option.globalMatch(QString::fromUtf8(usageLine)))
            EXPECT_TRUE(text.out.contains("\n  " + match.captured().toUtf8() + ' ')) << match.captured().toStdString();
    }
}

// Words are bytes: the helper gets those of the argument vector, so one that is not UTF-8 fails in
// perform_helper_command instead of being replaced, and file names are not re-encoded.
TEST(Qzutil, WordsPassThroughAsBytes)
{
    QTemporaryDir dir;
    const QString d = dir.path();
    write(d + QStringLiteral("/file"), "data");
    // Given through the shell, which passes bytes as they are.
    const QString sh = QStringLiteral("/bin/sh"), c = QStringLiteral("-c"), qzutil = QStringLiteral(QZUTIL_PATH);
    const qztest::ToolResult notUtf8 = qztest::runTool(sh, { c, QStringLiteral("exec \"$0\" helper echo \"$(printf '\\377')\""), qzutil });
    EXPECT_EQ(notUtf8.exitCode, 1);
    EXPECT_EQ(notUtf8.out, "status 10002\n");
    EXPECT_EQ(notUtf8.err, "qzutil: echo: the helper could not be reached (status 10002)\n");

    const qztest::ToolResult files = qztest::runTool(sh, { c, QStringLiteral(
        "cd \"$1\" && mkdir \"$(printf 'a\\377')\" && \"$0\" copy --recursive \"$(printf 'a\\377')\" \"$(printf 'b\\376')\" "
        "&& \"$0\" delete \"$(printf 'a\\377')\" && ls"), qzutil, d });
    EXPECT_EQ(files.exitCode, 0) << files.err.toStdString();
    EXPECT_EQ(files.out, "b\xfe\nfile\n");
}

} // namespace
