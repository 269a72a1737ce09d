// The reporter object: the shared instance, the report's fields, the actions of the window and
// the redirection of the process's output into a log file.
#include "QZBugReporter.h"
#include "QZBugReporter_p.h"

#include "QZAssertionHandler.h"
#include "QZMainThread.h"
#include "QZThreadProxy.h"

#include <QZMail/QZMailClient.h>
#include <QZMail/QZWebMailClient.h>

#include <QCoreApplication>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGuiApplication>
#include <QSettings>
#include <QWidget>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace QZ::detail;

const QString QZBugReporterErrorDomain = QStringLiteral("QZBugReporterErrorDomain");

namespace {

QZBugReporter *s_sharedReporter = nullptr;

// Appends `text` to the NUL-terminated `buffer` of `size` bytes; a result that would not fit
// stops the process.
void checkedConcatenate(char *buffer, size_t size, const char *text)
{
    const size_t used = std::strlen(buffer);
    const size_t added = std::strlen(text);
    if (used + added >= size)
        QZFatalAssertion("used + added < size", "app-common/QZApp/QZBugReporter", __LINE__, "checkedConcatenate");
    std::memcpy(buffer + used, text, added + 1);
}

} // namespace

QZBugReporterDelegate::~QZBugReporterDelegate() = default;

bool QZBugReporterDelegate::bugReporterFinishedWithError(const QZError *)
{
    return false;
}

// Construction and the shared instance

QZBugReporter *QZBugReporter::sharedBugReporter()
{
    if (!s_sharedReporter)
        new QZBugReporter;
    return s_sharedReporter;
}

QZBugReporter::QZBugReporter(QObject *parent)
    : QObject(parent)
{
    if (!QZ_CHECK(!s_sharedReporter, "QZBugReporter::QZBugReporter", this, BugReporterReport::kUnit,
                  BugReporterReport::kSecondInstanceLine, QStringLiteral("Oops!")))
        return;
    s_sharedReporter = this;
}

QZBugReporter::~QZBugReporter()
{
    if (s_sharedReporter == this)
        s_sharedReporter = nullptr;
}

// The fields

void QZBugReporter::setShortDescription(const QString &text)
{
    if (store(m_shortDescription, text))
        Q_EMIT shortDescriptionChanged();
}

void QZBugReporter::setFullDescription(const QString &text)
{
    if (store(m_fullDescription, text))
        Q_EMIT fullDescriptionChanged();
}

void QZBugReporter::setAdditionalInfo(const QString &text)
{
    if (store(m_additionalInfo, text))
        Q_EMIT additionalInfoChanged();
}

void QZBugReporter::setEmailAddress(const QString &address)
{
    if (store(m_emailAddress, address))
        Q_EMIT emailAddressChanged();
}

void QZBugReporter::setReportType(int type)
{
    if (store(m_reportType, type))
        Q_EMIT reportTypeChanged();
}

void QZBugReporter::setOmitSystemProfile(bool omit)
{
    if (store(m_omitSystemProfile, omit))
        Q_EMIT omitSystemProfileChanged();
}

void QZBugReporter::setLogFiles(const QStringList &paths)
{
    if (store(m_logFiles, paths))
        Q_EMIT logFilesChanged();
}

QZProductInfo QZBugReporter::productBundle() const
{
    if (const std::optional<QZProductInfo> product = locked(m_productBundle))
        return *product;
    const QString version = QCoreApplication::applicationVersion();
    return { QGuiApplication::applicationDisplayName(), version, version,
             QCoreApplication::applicationFilePath() };
}

void QZBugReporter::setProductBundle(const QZProductInfo &product)
{
    {
        std::lock_guard lock(m_fieldLock);
        m_productBundle = product;
    }
    Q_EMIT productBundleChanged();
}

QString QZBugReporter::appName() const
{
    const QString executable = productBundle().executablePath;
    return executable.isEmpty() ? QString() : QFileInfo(executable).fileName();
}

void QZBugReporter::setCurrentStatus(const QString &status)
{
    if (status == m_currentStatus)
        return;
    m_currentStatus = status;
    Q_EMIT currentStatusChanged();
}

void QZBugReporter::setCurrentStatusFromThread(const QString &status)
{
    // The text crosses as plain characters, so no reference count is shared between threads.
    QZ::performOnMainThread([this, text = status.toStdU16String()] { setCurrentStatus(QString::fromStdU16String(text)); });
}

void QZBugReporter::setBusy(bool busy)
{
    if (m_window)
        m_window->setBusy(busy);
    if (busy == m_busy)
        return;
    m_busy = busy;
    Q_EMIT busyChanged();
}

void QZBugReporter::setCanAbort(bool canAbort)
{
    if (m_canAbort.exchange(canAbort) != canAbort)
        Q_EMIT canAbortChanged();
}

void QZBugReporter::setAllowTimeToAbort(bool allow)
{
    if (store(m_allowTimeToAbort, allow))
        Q_EMIT allowTimeToAbortChanged();
}

// The mail client

std::shared_ptr<QZMailClient> QZBugReporter::mailClient() const
{
    if (std::shared_ptr<QZMailClient> client = locked(m_mailClient))
        return client;
    QZBugReporterDelegate *const host = delegate();
    const QString recipient = host
            ? host->vendorInfo().value(QStringLiteral("bugReportEmailAddress")).toString()
            : QString();
    if (QSettings().value(QStringLiteral("enableWebMailClient"), false).toBool()) {
        std::shared_ptr<QZWebMailClient> web = QZWebMailClient::mailClient();
        if (web && web->shouldUseClientToDeliverTo(recipient))
            return web;
    }
    return QZMailClient::defaultClient();
}

void QZBugReporter::setMailClient(std::shared_ptr<QZMailClient> client)
{
    std::lock_guard lock(m_fieldLock);
    m_mailClient = std::move(client);
}

// The actions of the window

// Starts the send thread for a new job; the edit being typed has reached the fields by now,
// since every control writes its property as it changes.
void QZBugReporter::startJob()
{
    if (m_window && m_window->window() && m_window->window()->focusWidget())
        m_window->window()->focusWidget()->clearFocus();
    setBusy(true);
    setCanAbort(true);
    const quint32 job = m_currentJob.fetch_add(1) + 1;
    QZ::createThreadProxy(this).call(&QZBugReporter::sendThreadWithJob, job);
}

void QZBugReporter::send()
{
    if (store(m_saveName, QString()))
        Q_EMIT saveNameChanged();
    startJob();
}

void QZBugReporter::save()
{
    if (store(m_saveName, QString()))
        Q_EMIT saveNameChanged();
    QWidget *parent = bugReportPanel();
    auto *dialog = new QFileDialog(parent, QString(), QDir::homePath());
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setAcceptMode(QFileDialog::AcceptSave);
    dialog->setNameFilter(QStringLiteral("RTFD (*.rtfd)"));
    dialog->setDefaultSuffix(QStringLiteral("rtfd"));
    dialog->setWindowModality(Qt::WindowModal);
    connect(dialog, &QFileDialog::finished, this, [this, dialog](int result) {
        const QStringList chosen = dialog->selectedFiles();
        savePanelDidEnd(result == QDialog::Accepted ? 1 : 0, chosen.value(0));
    });
    dialog->open();
}

void QZBugReporter::savePanelDidEnd(int result, const QString &path)
{
    if (result != 1)
        return;
    if (store(m_saveName, path))
        Q_EMIT saveNameChanged();
    startJob();
}

void QZBugReporter::abort()
{
    if (m_busy) {
        if (m_canAbort.load()) {
            m_currentJob.fetch_add(1);
            setBusy(false);
        }
        return;
    }
    if (QWidget *panel = bugReportPanel())
        panel->close();
}

void QZBugReporter::doneSend()
{
    setBusy(false);
    if (QWidget *panel = bugReportPanel())
        panel->hide();
}

// Redirecting the process's output

bool QZBugReporter::redirectLogsTo(const QString &name)
{
    setlinebuf(stdout);
    const QByteArray folder = QFile::encodeName(userLogsFolder());
    if (folder.isEmpty() || folder.size() >= 1024 || !QDir().mkpath(QFile::decodeName(folder)))
        return false;
    char path[1024];
    std::memcpy(path, folder.constData(), static_cast<size_t>(folder.size()) + 1);
    checkedConcatenate(path, sizeof path, "/Veltrane");
    mkdir(path, 0755);
    checkedConcatenate(path, sizeof path, "/");
    checkedConcatenate(path, sizeof path, QFile::encodeName(name).constData());
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    std::fflush(stdout);
    std::fflush(stderr);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
    if (store(m_logPath, QFile::decodeName(path)))
        Q_EMIT logPathChanged();
    return true;
}
