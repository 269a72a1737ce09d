// The bug reporter: one object per application that collects a report from the user in the
// "BugReport" window, gathers the logs, crash reports and a hardware profile that go with it,
// and sends it through the user's mail client or saves it as an RTFD document.
//
//     class Vendor : public QZBugReporterDelegate {
//         QVariantMap vendorInfo() const override {
//             return { { "bugReportEmailName", "Disk Tool Support" },
//                      { "bugReportEmailAddress", "bugs@example.org" } };
//         }
//     } vendor;
//     QZBugReporter *reporter = QZBugReporter::sharedBugReporter();
//     reporter->setDelegate(&vendor);
//     QZBugReporter::installCrashHandler();          // optional, early in main()
//     reporter->redirectLogsTo("Disk Tool.log");     // optional
//     ...
//     reporter->doDefaultBugReport();                // from the Help menu
//
// The window is the host's own ":/BugReport.ui" when it has one, else the library's. Its
// controls are bound both ways, by object name, to the properties below; its buttons "send",
// "save" and "abort" call the slots of the same names.
//
// Everything here runs on the main thread unless it says otherwise. The send thread reads the
// report's fields while the reporter is busy; the window's fields are read-only then.
#pragma once

#include <QZApp/QZError.h>
#include <QZApp/QZGlobal.h>

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

class QTextDocument;
class QWidget;
class QZMailClient;
class QZBugReportWindow;

// The error domain of the reporter's own errors: code 1, no mail client could be found.
QZAPP_EXPORT extern const QString QZBugReporterErrorDomain;

// The product a report is about. By default the running application's: its name
// (QGuiApplication::applicationDisplayName), its version for both versions, and its executable.
struct QZProductInfo {
    QString name;             // "Disk Tool"
    QString shortVersion;     // "1.0"
    QString version;          // the build version, "42"
    QString executablePath;   // the executable; its file name is the reporter's appName()
};

// What the host tells the reporter. Called on the main thread.
class QZAPP_EXPORT QZBugReporterDelegate
{
public:
    virtual ~QZBugReporterDelegate();
    // The recipient of reports: "bugReportEmailName" and "bugReportEmailAddress" (strings).
    virtual QVariantMap vendorInfo() const = 0;
    // The end of every send: error is null on success. Return true when the host has told the
    // user itself; otherwise a failure is shown in an alert.
    virtual bool bugReporterFinishedWithError(const QZError *error);
};

class QZAPP_EXPORT QZBugReporter : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString shortDescription READ shortDescription WRITE setShortDescription NOTIFY shortDescriptionChanged)
    Q_PROPERTY(QString fullDescription READ fullDescription WRITE setFullDescription NOTIFY fullDescriptionChanged)
    Q_PROPERTY(QString additionalInfo READ additionalInfo WRITE setAdditionalInfo NOTIFY additionalInfoChanged)
    Q_PROPERTY(QString emailAddress READ emailAddress WRITE setEmailAddress NOTIFY emailAddressChanged)
    Q_PROPERTY(int reportType READ reportType WRITE setReportType NOTIFY reportTypeChanged)
    Q_PROPERTY(bool omitSystemProfile READ omitSystemProfile WRITE setOmitSystemProfile NOTIFY omitSystemProfileChanged)
    Q_PROPERTY(QString currentStatus READ currentStatus WRITE setCurrentStatus NOTIFY currentStatusChanged)
    Q_PROPERTY(bool busy READ busy WRITE setBusy NOTIFY busyChanged)
    Q_PROPERTY(bool canAbort READ canAbort WRITE setCanAbort NOTIFY canAbortChanged)
    Q_PROPERTY(bool allowTimeToAbort READ allowTimeToAbort WRITE setAllowTimeToAbort NOTIFY allowTimeToAbortChanged)
    Q_PROPERTY(QStringList logFiles READ logFiles WRITE setLogFiles NOTIFY logFilesChanged)
    Q_PROPERTY(QString logPath READ logPath NOTIFY logPathChanged)
    Q_PROPERTY(QString saveName READ saveName NOTIFY saveNameChanged)
    Q_PROPERTY(QString appName READ appName NOTIFY productBundleChanged)

public:
    // Report types, as the window's menu lists them.
    enum ReportType { FeatureRequest = 0, MinorBug = 1, MajorBug = 2, CrasherBug = 3 };

    // The one reporter of the process, created on first use.
    static QZBugReporter *sharedBugReporter();
    // Makes the shared reporter; a second one is a programming fault ("Oops!").
    explicit QZBugReporter(QObject *parent = nullptr);
    ~QZBugReporter() override;

    // The host's delegate (not owned).
    QZBugReporterDelegate *delegate() const { return locked(m_delegate); }
    void setDelegate(QZBugReporterDelegate *delegate) { store(m_delegate, delegate); }

    // The report's fields. Setters store the value and signal a change.
    QString shortDescription() const { return locked(m_shortDescription); }
    void setShortDescription(const QString &text);
    QString fullDescription() const { return locked(m_fullDescription); }
    void setFullDescription(const QString &text);
    QString additionalInfo() const { return locked(m_additionalInfo); }
    void setAdditionalInfo(const QString &text);
    QString emailAddress() const { return locked(m_emailAddress); }   // the sender, "From" when not empty
    void setEmailAddress(const QString &address);
    int reportType() const { return locked(m_reportType); }
    void setReportType(int type);
    bool omitSystemProfile() const { return locked(m_omitSystemProfile); }
    void setOmitSystemProfile(bool omit);
    // When set, exactly these files go with a report instead of the standard logs.
    QStringList logFiles() const { return locked(m_logFiles); }
    void setLogFiles(const QStringList &paths);
    // The product reported on; a host may name another product than itself.
    QZProductInfo productBundle() const;
    void setProductBundle(const QZProductInfo &product);
    QString appName() const;   // the file name of the product's executable

    // Progress of a running report.
    QString currentStatus() const { return m_currentStatus; }
    void setCurrentStatus(const QString &status);
    // Any thread: queues setCurrentStatus() for the main thread and never waits.
    void setCurrentStatusFromThread(const QString &status);
    bool busy() const { return m_busy; }
    void setBusy(bool busy);   // shows and spins the progress indicator, or stops and hides it
    bool canAbort() const { return m_canAbort.load(); }
    void setCanAbort(bool canAbort);   // any thread
    // Wait until 4 seconds after the start before handing a report over, so Abort can stop it.
    bool allowTimeToAbort() const { return locked(m_allowTimeToAbort); }
    void setAllowTimeToAbort(bool allow);
    quint32 currentJob() const { return m_currentJob.load(); }
    QString saveName() const { return locked(m_saveName); }   // the RTFD being saved; empty for a send
    QString logPath() const { return locked(m_logPath); }      // where redirectLogsTo() sends the output

    // The client reports go to: the one set, else the web-mail client when the setting
    // "enableWebMailClient" is on and it serves the vendor's address, else the default client.
    std::shared_ptr<QZMailClient> mailClient() const;
    void setMailClient(std::shared_ptr<QZMailClient> client);

    // The window, once shown.
    QWidget *bugReportPanel() const;
    // Loads the window on first use, shows or hides the e-mail area as the mail client allows
    // a sender's address, and brings the window to the front.
    void showWindow();
    // A fresh report with the template text, or the visible window as it is.
    void doDefaultBugReport();
    // Whether the window may close now: not while busy.
    bool windowShouldClose() const { return !m_busy; }
    // Sends standard output and standard error to `name` in the folder "Veltrane" of the
    // user's Logs folder ($XDG_STATE_HOME); later reports attach it. False when it cannot.
    bool redirectLogsTo(const QString &name);

    // On a fatal signal, writes "APPNAME_YYYY-MM-DD-HHMMSS_HOST.crash" into the user's Library
    // folder's Logs/DiagnosticReports (under $XDG_DATA_HOME), where the next "Crasher Bug"
    // report finds it, then lets the signal take its default course. Call once, early.
    static bool installCrashHandler();

public Q_SLOTS:
    void send();    // sends the report on a thread of its own
    void save();    // asks for an .rtfd path in a save dialog
    void abort();   // abandons a report still waiting to go, or closes the window when idle
    // The end of the save dialog: with result 1 (accepted) saves the report to `path`.
    void savePanelDidEnd(int result, const QString &path);

Q_SIGNALS:
    void shortDescriptionChanged();
    void fullDescriptionChanged();
    void additionalInfoChanged();
    void emailAddressChanged();
    void reportTypeChanged();
    void omitSystemProfileChanged();
    void currentStatusChanged();
    void busyChanged();
    void canAbortChanged();
    void allowTimeToAbortChanged();
    void logFilesChanged();
    void logPathChanged();
    void saveNameChanged();
    void productBundleChanged();

public:
    // The steps of a report, for tools and tests. The gathering runs on the send thread.

    // The compressed files for the report (paths of .gz files), or nothing when there was
    // nothing to gather.
    std::optional<QStringList> gatherLogFiles();
    // Adds `suffix` under the user's and then the machine's Logs folder, each copy that exists.
    void addLogFilesWithSuffix(const QString &suffix, QStringList &paths, QList<QByteArray> &data);
    // Adds the file at `path` when it can be read.
    void addLogFile(const QString &path, QStringList &paths, QList<QByteArray> &data);
    QByteArray readCrashLog();        // every crash report of appName(), or null
    QByteArray readSystemProfile();   // the hardware profile as XML, or null
    // The message: Product, Report Type, the three texts when given, and the attachments.
    std::unique_ptr<QTextDocument> composeMessage(const QStringList &attachments) const;
    // The body of the send thread for job `job`.
    void sendThreadWithJob(quint32 job);
    // Hands the message to the mail client, unless job `job` was abandoned.
    void doSend(const QTextDocument &message, quint32 job);
    // Main thread: the end of a send; error is null on success.
    void sendFinishedWithError(const std::optional<QZError> &error);
    // Main thread: not busy, window hidden.
    void doneSend();

private:
    void startJob();
    // The fields the send thread reads are read and written under m_fieldLock; store() tells
    // whether the value changed.
    template <typename T>
    T locked(const T &field) const
    {
        std::lock_guard lock(m_fieldLock);
        return field;
    }
    template <typename T>
    bool store(T &field, const T &value)
    {
        std::lock_guard lock(m_fieldLock);
        if (field == value && sameNullness(field, value))
            return false;
        field = value;
        return true;
    }
    static bool sameNullness(const QString &a, const QString &b) { return a.isNull() == b.isNull(); }
    template <typename T>
    static bool sameNullness(const T &, const T &) { return true; }
    QZBugReportWindow *window() const { return m_window.get(); }

    mutable std::mutex m_fieldLock;
    QZBugReporterDelegate *m_delegate = nullptr;
    std::unique_ptr<QZBugReportWindow> m_window;
    QString m_shortDescription;
    QString m_fullDescription;
    QString m_additionalInfo;
    QString m_emailAddress;
    int m_reportType = 0;
    bool m_omitSystemProfile = false;
    QString m_currentStatus;
    bool m_busy = false;
    QString m_saveName;
    QString m_logPath;
    std::atomic<bool> m_canAbort { false };
    bool m_allowTimeToAbort = false;
    bool m_initialisedEmail = false;
    QStringList m_logFiles;
    std::optional<QZProductInfo> m_productBundle;
    std::atomic<quint32> m_currentJob { 0 };
    std::shared_ptr<QZMailClient> m_mailClient;

    friend class QZBugReportWindow;
};
