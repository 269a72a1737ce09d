// qzutil report: makes a bug report through the reporter's own code paths, without showing its
// window, and saves it as an RTFD package or sends it through the default mail client.
#include "Command.h"

#include <QZApp/QZApplication.h>
#include <QZApp/QZBugReporter.h>

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace qzutil {
namespace {

// The vendor is whoever --to names; the outcome is recorded instead of shown in an alert.
class ReportDelegate final : public QZBugReporterDelegate
{
public:
    explicit ReportDelegate(const QString &to)
    {
        static const QRegularExpression named(QStringLiteral("^\\s*(.*?)\\s*<([^>]*)>\\s*$"));
        const QRegularExpressionMatch match = named.match(to);
        m_name = match.hasMatch() ? match.captured(1) : QString();
        m_address = match.hasMatch() ? match.captured(2) : to.trimmed();
    }
    QVariantMap vendorInfo() const override
    {
        return { { QStringLiteral("bugReportEmailName"), m_name }, { QStringLiteral("bugReportEmailAddress"), m_address } };
    }
    bool bugReporterFinishedWithError(const QZError *error) override
    {
        if (error)
            m_error = *error;
        return true;
    }
    const std::optional<QZError> &error() const { return m_error; }

private:
    QString m_name;
    QString m_address;
    std::optional<QZError> m_error;
};

QCoreApplication *makeApplication(int &argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");   // no window is shown, and no display is needed
    // The platform wants a runtime folder; without a session's, a private one in the temporary
    // folder, as Qt would make with a warning on standard error.
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR")) {
        const QByteArray folder = QFile::encodeName(QDir::tempPath()) + "/runtime-" + QByteArray::number(getuid());
        struct stat status {};
        if ((mkdir(folder.constData(), 0700) == 0 || errno == EEXIST) && lstat(folder.constData(), &status) == 0
            && S_ISDIR(status.st_mode) && status.st_uid == getuid() && (status.st_mode & 0077) == 0)
            qputenv("XDG_RUNTIME_DIR", folder);
    }
    return new QZApplication(argc, argv);
}

int report(const Invocation &invocation)
{
    const bool saving = invocation.isSet("save");
    const bool sending = invocation.isSet("send");
    bool typeOk = false;
    const int type = invocation.value("type").toInt(&typeOk);
    if (!invocation.operands().isEmpty() || !typeOk || !invocation.isSet("short") || saving == sending
        || (sending && invocation.value("to").isEmpty()))
        return usage("report");

    ReportDelegate delegate(invocation.value("to"));
    QZBugReporter *reporter = QZBugReporter::sharedBugReporter();
    reporter->setDelegate(&delegate);
    reporter->setReportType(type);
    reporter->setShortDescription(invocation.value("short"));
    reporter->setFullDescription(invocation.value("full"));
    reporter->setAdditionalInfo(invocation.value("info"));
    reporter->setLogFiles(invocation.values("log"));
    reporter->setOmitSystemProfile(invocation.isSet("omit-system-profile"));

    QEventLoop loop;
    QObject::connect(reporter, &QZBugReporter::busyChanged, &loop, [&loop, reporter] {
        if (!reporter->busy())
            loop.quit();
    });
    const QString path = invocation.value("save");
    if (saving)
        reporter->savePanelDidEnd(1, path);   // as the save dialog ends with this path
    else
        reporter->send();
    if (reporter->busy())
        loop.exec();
    reporter->setDelegate(nullptr);

    if (saving && !QFileInfo(path + QStringLiteral("/TXT.rtf")).isFile())
        return fail(QStringLiteral("%1: the report could not be saved").arg(path));
    if (const std::optional<QZError> &error = delegate.error()) {
        if (error->domain() == QZBugReporterErrorDomain && error->code() == 1)
            return fail(QStringLiteral("no e-mail client configured"));
        return fail(QStringLiteral("%1 (%2 %3)").arg(error->message(), error->domain()).arg(error->code()));
    }
    return Success;
}

QZUTIL_COMMAND(.name = "report",
               .usage = "--type N --short TEXT [--full TEXT] [--info TEXT] [--log FILE]... [--omit-system-profile] "
                        "(--save PATH.rtfd | --send --to ADDRESS)",
               .summary = "make a bug report and save it as RTFD or send it through the default mail client",
               .run = report,
               .options = { { "type", "N", "0 Feature Request, 1 Minor Bug, 2 Major Bug, 3 Crasher Bug" },
                            { "short", "TEXT", "the one-line summary" },
                            { "full", "TEXT", "the full description" },
                            { "info", "TEXT", "additional information" },
                            { "log", "FILE", "attach this file instead of the standard logs; may be\n"
                                             "given more than once" },
                            { "omit-system-profile", nullptr, "attach no hardware profile" },
                            { "save", "PATH", "save the report as an RTFD package (a folder)" },
                            { "send", nullptr, "send the report through the default mail client" },
                            { "to", "ADDRESS", "the recipient, \"Name <address>\" or an address" } },
               .makeApplication = makeApplication);

} // namespace
} // namespace qzutil
