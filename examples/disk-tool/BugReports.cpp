#include "BugReports.h"

#include <QZApp/QZBugReporter.h>
#include <QZApp/QZLocalizedString.h>

#include <QCoreApplication>
#include <QMainWindow>
#include <QPointer>
#include <QStatusBar>

namespace disktool {

namespace {

// Reports go to Disk Tool's support team. A failure is left to the reporter, whose alert says
// what to do (save the report when no mail program is set up); success is a quiet thank-you.
class ReportVendor final : public QZBugReporterDelegate
{
public:
    QVariantMap vendorInfo() const override
    {
        return { { QStringLiteral("bugReportEmailName"), QStringLiteral("Disk Tool Support") },
                 { QStringLiteral("bugReportEmailAddress"), QStringLiteral("support@example.org") } };
    }

    bool bugReporterFinishedWithError(const QZError *error) override
    {
        if (error)
            return false;
        if (window)
            window->statusBar()->showMessage(QZLocalizedString("Thank you for the report."), 10000);
        return true;
    }

    QPointer<QMainWindow> window;
};

} // namespace

QZBugReporter *bugReporter(QMainWindow *window)
{
    // The reporter keeps a plain pointer to its delegate: this one lives as long as the process.
    static ReportVendor vendor;
    QZBugReporter *reporter = QZBugReporter::sharedBugReporter();
    if (reporter->delegate() != &vendor) {
        reporter->setDelegate(&vendor);
        // The product by its name for people; the executable names the log and crash files.
        const QString version = QCoreApplication::applicationVersion();
        reporter->setProductBundle({ QStringLiteral("Disk Tool"), version, version, QCoreApplication::applicationFilePath() });
    }
    if (window)
        vendor.window = window;
    return reporter;
}

} // namespace disktool
