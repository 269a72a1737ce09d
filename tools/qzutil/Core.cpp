// qzutil's core module: the entry point for every command line the program does not run itself,
// the application object, and the helpers of Command.h that every command uses.
#include "Command.h"
#include "CommandLine.h"

#include <QCoreApplication>
#include <QFile>

#include <cstdio>
#include <memory>

namespace qzutil {

int fail(const QString &reason)
{
    std::fprintf(stderr, "qzutil: %s\n", reason.toLocal8Bit().constData());
    return Failure;
}

void writeOut(const QByteArray &bytes)
{
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
}

void printLine(const QString &line)
{
    writeOut(line.toUtf8() + '\n');
}

bool openInput(QFile &file, const QString &path, QString *error)
{
    const bool opened = path.isEmpty() || path == QLatin1String("-")
            ? file.open(stdin, QIODevice::ReadOnly)
            : (file.setFileName(path), file.open(QIODevice::ReadOnly));
    if (!opened)
        *error = QStringLiteral("%1: %2").arg(path, file.errorString());
    return opened;
}

QString inputName(const QString &path)
{
    return path.isEmpty() || path == QLatin1String("-") ? QStringLiteral("standard input") : path;
}

std::optional<QByteArray> readInput(const QString &path, QString *error)
{
    QFile file;
    if (!openInput(file, path, error))
        return std::nullopt;
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        *error = QStringLiteral("%1: %2").arg(inputName(path), file.errorString());
        return std::nullopt;
    }
    return bytes;
}

std::optional<QString> inputPath(const Invocation &invocation)
{
    const QStringList &operands = invocation.operands();
    return operands.size() <= 1 ? std::optional<QString>(operands.value(0)) : std::nullopt;
}

std::optional<quint64> parseUnsigned(const QString &text)
{
    if (text.isEmpty() || !text.front().isDigit())
        return std::nullopt;
    bool ok = false;
    const quint64 value = text.toULongLong(&ok, 10);
    return ok ? std::optional<quint64>(value) : std::nullopt;
}

} // namespace qzutil

extern "C" QZUTIL_HOST int qzutil_main(int argc, char **argv)
{
    // A command that needs more than Qt Core makes its own application object.
    const qzutil::Command *command = argc > 1 ? qzutil::commandNamed(QByteArray(argv[1])) : nullptr;
    const std::unique_ptr<QCoreApplication> app(command && command->makeApplication
                                                        ? command->makeApplication(argc, argv)
                                                        : new QCoreApplication(argc, argv));
    QCoreApplication::setApplicationName(QStringLiteral("qzutil"));
    QCoreApplication::setApplicationVersion(QStringLiteral(QZUTIL_VERSION));
    // The bytes of the argument vector as the application left it, one for one.
    QList<QByteArray> words;
    for (int i = 1; i < argc; i++)
        words.append(QByteArray(argv[i]));
    const int status = qzutil::runCommandLine(words);
    std::fflush(stdout);
    return status;
}
