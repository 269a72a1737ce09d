// qzutil copy / delete / run / plist as whole processes, with their exit statuses.
#include "support/QzutilRunner.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

using qztest::runQzutil;

namespace {

QString s(const char *text)
{
    return QString::fromUtf8(text);
}

TEST(QzutilFiles, CopiesAndDeletesATree)
{
    QTemporaryDir folder;
    const QString source = folder.filePath(s("source")), copy = folder.filePath(s("copy"));
    ASSERT_TRUE(QDir().mkpath(source + s("/inner")));
    QFile file(source + s("/inner/file"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("content");
    file.close();

    qztest::ToolResult result = runQzutil({ s("copy"), source, copy });   // not recursive: empty folder
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_FALSE(QFile::exists(copy + s("/inner")));
    result = runQzutil({ s("copy"), s("--recursive"), s("--keep-going"), source, copy });
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    QFile copied(copy + s("/inner/file"));
    ASSERT_TRUE(copied.open(QIODevice::ReadOnly));
    EXPECT_EQ(copied.readAll(), QByteArray("content"));

    result = runQzutil({ s("delete"), copy });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_FALSE(QFile::exists(copy));
    result = runQzutil({ s("delete"), copy });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, QByteArray("qzutil: cannot delete ") + copy.toUtf8() + ": No such file or directory\n");
    // A failed copy shows the library's report lines before its own reason.
    result = runQzutil({ s("copy"), copy, source });
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.err.startsWith(copy.toUtf8() + ": No such file or directory (at utils:309)\n")) << result.err.toStdString();
}

TEST(QzutilFiles, UsageErrors)
{
    for (const QStringList &arguments : { QStringList { s("copy"), s("one") }, QStringList { s("copy"), s("--owner"), s("a"), s("x"), s("y") },
                                          QStringList { s("copy"), s("--fast"), s("x"), s("y") }, QStringList { s("delete") },
                                          QStringList { s("run") }, QStringList { s("plist"), s("a"), s("b") } }) {
        const qztest::ToolResult result = runQzutil(arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(result.err.startsWith("usage: qzutil " + arguments.front().toUtf8()));
    }
}

TEST(QzutilFiles, RunPrintsTheExitStatus)
{
    qztest::ToolResult result = runQzutil({ s("run"), s("/bin/sh"), s("-c"), s("echo out; exit 3") });
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, QByteArray("out\n3\n"));
    result = runQzutil({ s("run"), s("sh"), s("-c"), s("exit 0") });   // not searched for
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, QByteArray("-1\n"));
}

TEST(QzutilFiles, PlistPrintsJson)
{
    QTemporaryDir folder;
    QFile file(folder.filePath(s("list.plist")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>n</key><integer>7</integer>"
               "<key>d</key><data>AAE=</data><key>t</key><date>2001-01-01T00:00:00Z</date></dict></plist>");
    file.close();
    qztest::ToolResult result = runQzutil({ s("plist"), file.fileName() });
    EXPECT_EQ(result.exitCode, 0);
    const QJsonObject json = QJsonDocument::fromJson(result.out).object();
    EXPECT_EQ(json.value(s("n")).toInteger(), 7);
    EXPECT_EQ(json.value(s("d")).toString(), s("AAE="));
    EXPECT_EQ(json.value(s("t")).toString(), s("2001-01-01T00:00:00.000Z"));
    result = runQzutil({ s("plist"), folder.filePath(s("absent")) });
    EXPECT_EQ(result.exitCode, 1);
}

} // namespace
