// Runs the qzutil program built beside the tests, or another program.
#pragma once

#include <QByteArray>
#include <QProcess>
#include <QStringList>

namespace qztest {

struct ToolResult {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

inline ToolResult runTool(const QString &program, const QStringList &arguments, const QByteArray &input = QByteArray())
{
    QProcess process;
    process.start(program, arguments);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(60000);
    return { process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
             process.readAllStandardOutput(), process.readAllStandardError() };
}

inline ToolResult runQzutil(const QStringList &arguments, const QByteArray &input = QByteArray())
{
    return runTool(QStringLiteral(QZUTIL_PATH), arguments, input);
}

} // namespace qztest
