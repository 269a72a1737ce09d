// Gathering a report's files on the send thread: the application's logs, its crash reports, the
// redirected output and a hardware profile, each compressed with gzip into the temporary folder.
#include "QZBugReporter.h"
#include "QZBugReporter_p.h"

#include "QZConsoleLog.h"
#include "QZFileHandleExtensions.h"
#include "QZLocalizedString.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMetaEnum>
#include <QProcess>

#include <cstdlib>
#include <unistd.h>

namespace {

// A folder named by an XDG variable, or its default under the home folder.
QString xdgFolder(const char *variable, const char *fallback)
{
    const QString value = qEnvironmentVariable(variable);
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return QDir::cleanPath(value);
    return QDir::homePath() + QLatin1Char('/') + QLatin1String(fallback);
}

// The whole file, or a null array when it cannot be read.
QByteArray readWholeFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return QByteArray();
    if (bytes.isNull())
        bytes = QByteArray("");   // an empty file was read: not the same as a failure
    return bytes;
}

// "Exception trying to run PROGRAM: NAME: DESCRIPTION, COMMAND" for a program that did not start.
void logLaunchFailure(const char *program, const QProcess &process)
{
    const char *name = QMetaEnum::fromType<QProcess::ProcessError>().valueToKey(process.error());
    const QString command = (QStringList{ process.program() } + process.arguments()).join(QLatin1Char(' '));
    QZLog(QStringLiteral("Exception trying to run %1: %2: %3, %4")
                  .arg(QLatin1String(program), QLatin1String(name ? name : "UnknownError"),
                       process.errorString(), command));
}

// Compresses one item: writes it to a fresh file in the temporary folder named after `fileName`
// and runs gzip -9 on it. Returns the .gz path, or a null string when the item is dropped.
QString compressItem(const QString &fileName, const QByteArray &bytes)
{
    const QFileInfo name(fileName);
    const QString base = name.completeBaseName();
    const QString extension = name.suffix();
    QByteArray path = QFile::encodeName(QStringLiteral("%1/%2-XXXXXX.%3").arg(QDir::tempPath(), base, extension));
    const int fd = mkstemps(path.data(), static_cast<int>(QFile::encodeName(extension).size()) + 1);
    if (fd < 0)
        return QString();
    close(fd);   // the name is reserved; the contents are written by name below
    const QString file = QFile::decodeName(path);
    {
        QFile out(file);
        if (out.open(QIODevice::WriteOnly | QIODevice::Truncate))
            out.write(bytes);
    }
    QProcess gzip;
    gzip.setProcessChannelMode(QProcess::ForwardedChannels);
    gzip.start(QStringLiteral("/usr/bin/gzip"), { QStringLiteral("-9"), file });
    if (!gzip.waitForStarted(-1)) {
        logLaunchFailure("gzip", gzip);
        unlink(path.constData());
        return QString();
    }
    gzip.waitForFinished(-1);
    if (gzip.exitStatus() != QProcess::NormalExit || gzip.exitCode() != 0) {
        unlink(path.constData());
        return QString();
    }
    return file + QStringLiteral(".gz");
}

} // namespace

namespace QZ::detail {

QString userLogsFolder()
{
    return xdgFolder("XDG_STATE_HOME", ".local/state");
}

QString machineLogsFolder()
{
    return QStringLiteral("/var/log");
}

QString userLibraryFolder()
{
    return xdgFolder("XDG_DATA_HOME", ".local/share");
}

QString machineLibraryFolder()
{
    return QStringLiteral("/var/lib");
}

} // namespace QZ::detail

std::optional<QStringList> QZBugReporter::gatherLogFiles()
{
    QStringList names;
    QList<QByteArray> contents;   // a null array is the placeholder of a file that was not read
    const int type = reportType();
    const QStringList logFiles = this->logFiles();
    const QString logPath = this->logPath();

    if (!logFiles.isEmpty()) {   // the application named its files
        for (const QString &path : logFiles)
            contents.append(readWholeFile(path));
        names += logFiles;
    } else {
        if (type != 0) {
            setCurrentStatusFromThread(QZLocalizedString("Fetching log files\\U2026"));
            addLogFilesWithSuffix(QStringLiteral("Veltrane/hfs.log"), names, contents);
            const QString app = appName();
            if (!app.isNull())
                addLogFilesWithSuffix(QStringLiteral("Veltrane/") + app + QStringLiteral(".log"), names, contents);
        }
        if (static_cast<quint32>(type) >= 3) {
            setCurrentStatusFromThread(QZLocalizedString("Fetching crash report\\U2026"));
            const QByteArray crashes = readCrashLog();
            if (!crashes.isNull()) {
                names.append(QStringLiteral("CrashLog.log"));
                contents.append(crashes);
            }
        }
        if (!logPath.isNull() && type != 0 && !names.contains(logPath)) {
            const QByteArray log = readWholeFile(logPath);
            if (!log.isNull()) {
                names.append(logPath);
                contents.append(log);
            }
        }
    }
    if (type != 0 && !omitSystemProfile()) {
        setCurrentStatusFromThread(QZLocalizedString("Generating system profile\\U2026"));
        const QByteArray profile = readSystemProfile();
        if (!profile.isNull()) {
            names.append(QStringLiteral("SystemProfile.spx"));
            contents.append(profile);
        }
    }
    if (names.isEmpty())
        return std::nullopt;

    QStringList result;
    setCurrentStatusFromThread(QZLocalizedString("Compressing\\U2026"));
    for (qsizetype i = 0; i < names.size(); i++) {
        const QString fileName = QFileInfo(names[i]).fileName();
        if (contents[i].isNull())
            continue;
        const QString compressed = compressItem(fileName, contents[i]);
        if (!compressed.isNull())
            result.append(compressed);
    }
    return result;
}

void QZBugReporter::addLogFilesWithSuffix(const QString &suffix, QStringList &paths, QList<QByteArray> &data)
{
    for (const QString &folder : { QZ::detail::userLogsFolder(), QZ::detail::machineLogsFolder() }) {
        if (folder.isEmpty() || QFile::encodeName(folder).size() >= 1024 || !QFileInfo(folder).isDir())
            continue;
        addLogFile(folder + QLatin1Char('/') + suffix, paths, data);
    }
}

void QZBugReporter::addLogFile(const QString &path, QStringList &paths, QList<QByteArray> &data)
{
    if (access(QFile::encodeName(path).constData(), R_OK) != 0)
        return;
    const QByteArray bytes = readWholeFile(path);
    if (bytes.isNull())
        return;
    paths.append(path);
    data.append(bytes);
}

QByteArray QZBugReporter::readCrashLog()
{
    const QStringList libraries{ QZ::detail::userLibraryFolder(), QZ::detail::machineLibraryFolder() };
    const QString app = appName();
    QByteArray output;
    const auto append = [&output](const QString &path, const QByteArray &bytes) {
        output += "\n=== " + path.toUtf8() + " ===\n";
        output += bytes;
    };
    for (const QString &subfolder : { QStringLiteral("/Logs/CrashReporter/"), QStringLiteral("/Logs/DiagnosticReports") }) {
        // The legacy single report: the name is appended as plain text, not as a path component.
        const QString legacy = subfolder + QStringLiteral("%1.crash.log").arg(app);
        for (const QString &library : libraries) {
            const QString path = QDir::cleanPath(library + QLatin1Char('/') + legacy);
            if (!QFileInfo(path).isFile() || access(QFile::encodeName(path).constData(), R_OK) != 0)
                continue;
            const QByteArray bytes = readWholeFile(path);
            if (!bytes.isNull())
                append(path, bytes);
            break;
        }
        for (const QString &library : libraries) {
            const QString folder = QDir::cleanPath(library + QLatin1Char('/') + subfolder);
            QDirIterator walk(folder, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                              QDirIterator::Subdirectories);
            while (walk.hasNext()) {
                const QString full = walk.next();
                const QString entry = full.mid(folder.size() + 1);
                if (entry.size() < app.size() + 25 || entry.left(app.size()).compare(app, Qt::CaseInsensitive) != 0
                    || QFileInfo(entry).suffix() != QLatin1String("crash"))
                    continue;
                const QByteArray bytes = readWholeFile(full);
                if (!bytes.isNull())
                    append(full, bytes);
            }
        }
    }
    return output.isEmpty() ? QByteArray() : output;
}

QByteArray QZBugReporter::readSystemProfile()
{
    QProcess profiler;
    profiler.setProcessChannelMode(QProcess::SeparateChannels);
    profiler.setStandardErrorFile(QProcess::nullDevice());
    profiler.start(QStringLiteral("/usr/bin/lshw"), { QStringLiteral("-xml") });
    if (!profiler.waitForStarted(-1)) {
        logLaunchFailure("system_profiler", profiler);
        return QByteArray();
    }
    QByteArray output;
    QZ::ReadError error;
    QByteArray block;
    do {
        block = QZ::availableDataOrError(&profiler, &error);
        output += block;
    } while (!block.isEmpty());
    if (block.isNull()) {
        QZLog(QStringLiteral("Problem reading data from system_profiler: %1").arg(error.description));
        return QByteArray();
    }
    // The profile is complete at the end of its output; the program is only reaped.
    profiler.waitForFinished(-1);
    return output;
}
