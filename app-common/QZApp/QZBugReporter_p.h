// The bug reporter's inner parts: the window binding, the standard folders, and the report
// identifiers of its checks.
#pragma once

#include <QZApp/QZBugReporter.h>

#include <QPointer>
#include <QString>
#include <QWidget>

class QLabel;
class QWidget;

namespace QZ::detail {

// The source unit and lines that the reporter's checks report.
namespace BugReporterReport {
inline constexpr const char *kUnit = "app-common/QZApp/QZBugReporter";
inline constexpr int kSecondInstanceLine = 64;
inline constexpr int kWindowMissingLine = 929;
} // namespace BugReporterReport

// The folders the reporter reads and writes, as the XDG base directories name them.
QZAPP_EXPORT QString userLogsFolder();      // $XDG_STATE_HOME, else ~/.local/state
QZAPP_EXPORT QString machineLogsFolder();   // /var/log
QZAPP_EXPORT QString userLibraryFolder();   // $XDG_DATA_HOME, else ~/.local/share
QZAPP_EXPORT QString machineLibraryFolder(); // /var/lib

// The type's name in a message: "Feature Request" ... "Crasher Bug", else "Unknown Bug Type".
QZAPP_EXPORT QString reportTypeName(int type);

// Writes `message` as an RTFD package at `path`: a folder holding TXT.rtf and the files of the
// attachment characters. False when the folder or a file cannot be written.
QZAPP_EXPORT bool writeRTFD(const QTextDocument &message, const QString &path);
// The message as RTF text, attachment characters naming the files beside it.
QZAPP_EXPORT QByteArray rtfFromDocument(const QTextDocument &message);

} // namespace QZ::detail

// The report window: the loaded "BugReport" form and its binding to the reporter.
class QZBugReportWindow : public QObject
{
    Q_OBJECT
public:
    // Loads the form; window() is null when neither the host nor the library has one.
    explicit QZBugReportWindow(QZBugReporter *reporter);
    ~QZBugReportWindow() override;

    QWidget *window() const { return m_window; }
    QWidget *progressIndicator() const { return m_progressIndicator; }
    QWidget *emailContainer() const { return m_emailContainer; }

    // Restores the saved frame, or centres the window.
    void placeWindow();
    void setBusy(bool busy);
    // Hides or shows the e-mail area, the window shrinking or growing by its height.
    void setEmailAreaShown(bool shown);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void bind();
    void localize();

    QZBugReporter *m_reporter;
    QPointer<QWidget> m_window;
    QPointer<QWidget> m_progressIndicator;
    QPointer<QWidget> m_emailContainer;
};
