#include "Tour.h"

#include "BugReports.h"
#include "CopyOperation.h"
#include "Dialogs.h"
#include "FileActions.h"
#include "MainWindow.h"

#include <QZApp/QZBugReporter.h>
#include <QZApp/QZCrypto.h>
#include <QZApp/QZFuture.h>
#include <QZApp/QZThreadProxy.h>
#include <QZApp/helper/QZHelperTool.h>
#include <QZApp/helper/helper_command.h>
#include <QZApp/utils.h>

#include <QAction>
#include <QApplication>
#include <QCryptographicHash>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QMessageBox>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>
#include <functional>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

namespace disktool {

namespace {

// Runs the event loop until `done` holds or `seconds` pass; true when it held.
bool waitFor(const std::function<bool()> &done, int seconds = 60)
{
    QDeadlineTimer deadline(seconds * 1000);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    return true;
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

// Every object below `root` with what identifies it: a file's content digest, a link's target.
QStringList listing(const QString &root)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        QString entry = it.filePath().mid(root.size());
        if (info.isSymLink()) {
            char target[4096];
            const ssize_t length = readlink(QFile::encodeName(it.filePath()).constData(), target, sizeof target);
            entry += QStringLiteral(" -> ") + QFile::decodeName(QByteArray(target, int(qMax<ssize_t>(length, 0))));
        } else if (info.isDir()) {
            entry += QLatin1Char('/');
        } else {
            QFile file(it.filePath());
            QCryptographicHash hash(QCryptographicHash::Sha256);
            if (file.open(QIODevice::ReadOnly))
                hash.addData(&file);
            entry += QLatin1Char('=') + QString::fromLatin1(hash.result().toHex());
        }
        entries.append(entry);
    }
    entries.sort();
    return entries;
}

// The tour's state and steps.
class Tour
{
public:
    explicit Tour(const QString &screenshots) : m_screenshots(screenshots) {}
    int run();

private:
    using Step = std::function<QString()>;   // empty when it worked, else the reason
    void step(const char *name, const Step &body);
    QString screenshot(QWidget *widget, const char *name);
    // Runs one of the window's operations and waits for its outcome; the reason when it failed.
    QString waitForOperation(const QString &operation, const std::function<void()> &start);

    QString makeTree();
    QString showMainWindow();
    QString copyTree();
    QString cancelCopy();
    QString failingCopy();
    QString deleteTree();
    QString helperOwnership();
    QString helperOpen();
    QString helperGrant();
    QString helperDelete();
    QString base64RoundTrip();
    QString cipherRoundTrip();
    QString futureAndProxy();
    QString aboutBox();
    QString bugReport();
    QString closeEverything();

    QString m_screenshots;
    QTemporaryDir m_scratch;
    QString m_root;
    std::unique_ptr<MainWindow> m_window;
    int m_failures = 0;
};

void Tour::step(const char *name, const Step &body)
{
    std::printf("%-36s ", name);
    std::fflush(stdout);
    QString reason;
    try {
        reason = body();
    } catch (const std::exception &exception) {
        reason = QString::fromLocal8Bit(exception.what());
    }
    if (!reason.isEmpty())
        ++m_failures;
    std::printf("%s\n", reason.isEmpty() ? "ok" : qPrintable(reason));
    std::fflush(stdout);
}

QString Tour::screenshot(QWidget *widget, const char *name)
{
    const QString path = m_screenshots + QLatin1Char('/') + QString::fromLatin1(name);
    QCoreApplication::processEvents();
    if (!widget->grab().save(path))
        return QStringLiteral("the screenshot %1 could not be written").arg(path);
    return {};
}

QString Tour::waitForOperation(const QString &operation, const std::function<void()> &start)
{
    std::optional<int> outcome;
    auto connection = QObject::connect(m_window.get(), &MainWindow::operationFinished,
                                       [&](const QString &finished, int error) {
        if (finished == operation)
            outcome = error;
    });
    start();
    const bool finished = waitFor([&] { return outcome.has_value(); });
    QObject::disconnect(connection);
    if (!finished)
        return QStringLiteral("%1 did not finish within a minute").arg(operation);
    if (*outcome != 0)
        return QStringLiteral("%1 failed: %2").arg(operation, errorText(*outcome));
    return {};
}

int Tour::run()
{
    if (!m_scratch.isValid()) {
        std::printf("no scratch folder: %s\n", qPrintable(m_scratch.errorString()));
        return 1;
    }
    m_root = m_scratch.path();
    // The tour's settings stay in the scratch folder, away from the user's own.
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_root + QStringLiteral("/settings"));
    if (!QDir().mkpath(m_screenshots)) {
        std::printf("the screenshot folder %s cannot be made\n", qPrintable(m_screenshots));
        return 1;
    }
    QZHelperTool::sharedInstance()->setHelperPath(directHelperPath());

    step("Make a scratch folder tree", [this] { return makeTree(); });
    step("Main window", [this] { return showMainWindow(); });
    step("Copy a tree (progress dialog)", [this] { return copyTree(); });
    step("Cancel a copy", [this] { return cancelCopy(); });
    step("Failing copy shows its report", [this] { return failingCopy(); });
    step("Delete a tree", [this] { return deleteTree(); });
    step("Helper: take ownership", [this] { return helperOwnership(); });
    step("Helper: open as administrator", [this] { return helperOpen(); });
    step("Helper: grant access", [this] { return helperGrant(); });
    step("Helper: delete as administrator", [this] { return helperDelete(); });
    step("Base64 round trip", [this] { return base64RoundTrip(); });
    step("Cipher round trip (Blowfish, CBC)", [this] { return cipherRoundTrip(); });
    step("Future and thread proxy", [this] { return futureAndProxy(); });
    step("About box", [this] { return aboutBox(); });
    step("Bug report (saved, not sent)", [this] { return bugReport(); });
    step("Close every window", [this] { return closeEverything(); });

    QZHelperTool::sharedInstance()->terminateHelper();
    std::printf("Screenshots are in %s\n", qPrintable(QDir(m_screenshots).absolutePath()));
    std::printf("%s\n", m_failures == 0 ? "Every step worked." : "Some steps failed.");
    return m_failures == 0 ? 0 : 1;
}

QString Tour::makeTree()
{
    const QString source = m_root + QStringLiteral("/Projects");
    QDir dir;
    for (const char *folder : { "Projects/Documents", "Projects/Photos/2025", "Projects/Photos/2026", "Existing/Projects/Documents" })
        if (!dir.mkpath(m_root + QLatin1Char('/') + QString::fromLatin1(folder)))
            return QStringLiteral("%1 cannot be made").arg(QString::fromLatin1(folder));
    bool ok = writeFile(source + QStringLiteral("/Documents/Read Me.txt"), "Disk Tool copies this tree.\n")
            && writeFile(source + QStringLiteral("/Documents/notes.md"), "# Notes\n\n- copy\n- delete\n")
            && writeFile(m_root + QStringLiteral("/Existing/Projects/Documents/kept.txt"), "was here before\n")
            && writeFile(m_root + QStringLiteral("/plain file"), "not a folder\n");
    QByteArray photo(256 << 10, '\0');
    for (int i = 0; ok && i < 40; ++i) {
        for (qsizetype byte = 0; byte < photo.size(); ++byte)
            photo[byte] = char((byte * 31 + i) & 0xff);
        ok = writeFile(source + QStringLiteral("/Photos/%1/IMG_%2.raw").arg(i < 20 ? 2025 : 2026).arg(1000 + i), photo);
    }
    ok = ok && QFile::link(QStringLiteral("Documents/Read Me.txt"), source + QStringLiteral("/Read Me"));
    return ok ? QString() : QStringLiteral("the tree could not be written");
}

QString Tour::showMainWindow()
{
    m_window = std::make_unique<MainWindow>();
    m_window->resize(900, 560);
    m_window->setFolder(m_root + QStringLiteral("/Projects"));
    m_window->show();
    const QString photos = m_root + QStringLiteral("/Projects/Photos");
    bool shown = false;
    auto connection = QObject::connect(m_window.get(), &MainWindow::detailsShown, [&] { shown = true; });
    // The folder view fills in on its own thread: select once the entry is there.
    const bool listed = waitFor([&] {
        m_window->selectPaths({ photos });
        return m_window->selectedPaths() == QStringList { photos };
    }, 20);
    const bool measured = listed && waitFor([&] {
        return shown && !m_window->findChild<QLabel *>(QStringLiteral("detailSize"))->text().endsWith(QChar(0x2026));
    }, 20);
    QObject::disconnect(connection);
    if (!listed)
        return QStringLiteral("the folder view did not list the folder");
    if (!measured)
        return QStringLiteral("the selection's size was not shown");
    return screenshot(m_window.get(), "main-window.png");
}

QString Tour::copyTree()
{
    const QString source = m_root + QStringLiteral("/Projects");
    const QString destination = m_root + QStringLiteral("/Copy");
    if (!QDir().mkpath(destination))
        return QStringLiteral("no destination folder");
    QString shot = QStringLiteral("the copy never reached its pause point");
    // Halt the copy part-way, long enough to photograph the dialog as it works.
    std::shared_ptr<CopyOperation> copy;
    m_window->progressObserver = [&](const CopyOperation::Progress &progress) {
        if (!progress.paused || !copy)
            return;
        m_window->progressDialog()->showProgress(progress);
        shot = screenshot(m_window->progressDialog(), "progress-dialog.png");
        copy->resume();
    };
    const QString reason = waitForOperation(QStringLiteral("copyTo"), [&] {
        copy = m_window->copyTo({ source }, destination, 24);
    });
    m_window->progressObserver = nullptr;
    if (!reason.isEmpty())
        return reason;
    if (!shot.isEmpty())
        return shot;
    if (listing(source) != listing(destination + QStringLiteral("/Projects")))
        return QStringLiteral("the copy differs from its source");
    return {};
}

QString Tour::cancelCopy()
{
    const QString destination = m_root + QStringLiteral("/Existing");
    const QStringList before = listing(destination);
    std::shared_ptr<CopyOperation> copy;
    m_window->progressObserver = [&](const CopyOperation::Progress &progress) {
        if (progress.paused && copy)
            m_window->progressDialog()->reject();   // what Cancel does
    };
    const QString reason = waitForOperation(QStringLiteral("copyTo"), [&] {
        copy = m_window->copyTo({ m_root + QStringLiteral("/Projects") }, destination, 12);
    });
    m_window->progressObserver = nullptr;
    if (reason != QStringLiteral("copyTo failed: %1").arg(errorText(ECANCELED)))
        return reason.isEmpty() ? QStringLiteral("the copy was not cancelled") : reason;
    QStringList names = listing(destination), beforeNames = before;
    if (names != beforeNames)
        return QStringLiteral("the destination is not as it was: %1").arg(names.join(QStringLiteral(", ")));
    return {};
}

QString Tour::failingCopy()
{
    // A file where a folder should be: the copy cannot make its destination.
    const QString reason = waitForOperation(QStringLiteral("copyTo"), [&] {
        m_window->copyTo({ m_root + QStringLiteral("/Projects/Documents") }, m_root + QStringLiteral("/plain file"));
    });
    if (reason.isEmpty())
        return QStringLiteral("copying into a file worked");
    auto *box = m_window->findChild<QMessageBox *>(QStringLiteral("error"));
    if (!box || !box->isVisible())
        return QStringLiteral("no error was shown");
    const QString details = box->detailedText();
    box->close();
    if (!details.contains(QStringLiteral("(at utils:")))
        return QStringLiteral("the error shows no report lines: \"%1\"").arg(details);
    return {};
}

QString Tour::deleteTree()
{
    const QString copy = m_root + QStringLiteral("/Copy");
    const QString reason = waitForOperation(QStringLiteral("delete"), [&] { m_window->deletePaths({ copy }); });
    if (!reason.isEmpty())
        return reason;
    return QFileInfo::exists(copy) ? QStringLiteral("the tree is still there") : QString();
}

QString Tour::helperOwnership()
{
    const QString path = m_root + QStringLiteral("/Projects/Documents/notes.md");
    const QString reason = waitForOperation(QStringLiteral("takeOwnership"), [&] { m_window->takeOwnership(path); });
    if (!reason.isEmpty())
        return reason;
    const QFileInfo info(path);
    return info.ownerId() == getuid() && info.groupId() == getgid() ? QString() : QStringLiteral("the owner did not change");
}

QString Tour::helperOpen()
{
    const QString path = m_root + QStringLiteral("/Projects/Documents/Read Me.txt");
    // Straight through the helper, as when the caller may not open the file itself.
    int32_t fd = -1;
    if (const int32_t status = auth_openx(path.toLocal8Bit().constData(), O_RDONLY, 0, 2, nullptr, &fd))
        return QStringLiteral("the helper did not open the file: %1").arg(errorText(status));
    char buffer[64] = {};
    const ssize_t count = read(fd, buffer, sizeof buffer - 1);
    close(fd);
    if (count <= 0 || QByteArray(buffer) != "Disk Tool copies this tree.\n")
        return QStringLiteral("the helper's descriptor reads something else");
    // And the menu item, which shows the file in a read-only viewer.
    const QString reason = waitForOperation(QStringLiteral("openAsAdministrator"), [&] { m_window->openAsAdministrator(path); });
    if (!reason.isEmpty())
        return reason;
    auto *viewer = m_window->findChild<FileViewer *>();
    if (!viewer)
        return QStringLiteral("no viewer was shown");
    viewer->close();
    return {};
}

QString Tour::helperGrant()
{
    const QString path = m_root + QStringLiteral("/Projects/Documents/notes.md");
    const long nobody = userIdFromName(QStringLiteral("nobody"));
    return waitForOperation(QStringLiteral("grantAccess"), [&] {
        m_window->grantAccess(path, 4, unsigned(nobody < 0 ? 65534 : nobody));
    });
}

QString Tour::helperDelete()
{
    const QString path = m_root + QStringLiteral("/Projects/Read Me");
    const QString reason = waitForOperation(QStringLiteral("deleteAsAdministrator"), [&] { m_window->deleteAsAdministrator(path); });
    if (!reason.isEmpty())
        return reason;
    return QFileInfo(path).isSymLink() ? QStringLiteral("the link is still there") : QString();
}

QString Tour::base64RoundTrip()
{
    QByteArray data;
    for (int i = 0; i < 1000; ++i)
        data.append(char(i * 7));
    const QString text = QZ::base64(data);
    if (QZ::dataWithBase64(text) != data)
        return QStringLiteral("decoding gave other bytes");
    return QZ::base64(QByteArrayLiteral("Man")) == QStringLiteral("TWFu") ? QString() : QStringLiteral("\"Man\" is not \"TWFu\"");
}

QString Tour::cipherRoundTrip()
{
    const QVariantMap options { { QZCipherKeyKey, QByteArray::fromHex("00112233445566778899aabbccddeeff") },
                                { QZCipherInitializationVectorKey, QByteArray::fromHex("0102030405060708") } };
    const QByteArray secret("Disk Tool keeps secrets.");
    const QByteArray sealed = QZ::dataEncryptedWithCipher(secret, QZCipherBlowfish, QZCipherModeCBC, options);
    if (sealed.isNull() || sealed == secret)
        return QStringLiteral("nothing was encrypted");
    return QZ::dataDecryptedWithCipher(sealed, QZCipherBlowfish, QZCipherModeCBC, options) == secret
            ? QString() : QStringLiteral("decryption gave other bytes");
}

// Sums on a thread of its own and hands the sum over in a future; the main thread is told
// through a main-thread proxy.
struct Summer
{
    std::shared_ptr<QZValueFuture> result = QZValueFuture::future();
    Qt::HANDLE mainThread = nullptr;
    bool toldOnMainThread = false;
    void sum(int count)
    {
        qint64 total = 0;
        for (int i = 1; i <= count; ++i)
            total += i;
        QZ::mainThreadProxy(this).call(&Summer::tell);
        result->setValue(total);
    }
    void tell() { toldOnMainThread = QThread::currentThreadId() == mainThread; }
};

QString Tour::futureAndProxy()
{
    Summer summer;
    summer.mainThread = QThread::currentThreadId();
    QZ::createThreadProxy(&summer).call(&Summer::sum, 1000);
    if (!waitFor([&] { return summer.result->valid(); }, 10))
        return QStringLiteral("the future was not resolved");
    if (summer.result->value().toLongLong() != 500500)
        return QStringLiteral("the future holds %1").arg(summer.result->value().toString());
    return summer.toldOnMainThread ? QString() : QStringLiteral("the proxy call did not run on the main thread");
}

QString Tour::aboutBox()
{
    m_window->findChild<QAction *>(QStringLiteral("about"))->trigger();
    auto *about = m_window->findChild<AboutDialog *>();
    if (!about || !waitFor([&] { return about->isVisible(); }, 5))
        return QStringLiteral("no About box");
    const QString version = about->findChild<QLabel *>(QStringLiteral("version"))->text();
    const QString reason = screenshot(about, "about.png");
    about->close();
    if (!version.endsWith(QCoreApplication::applicationVersion()))
        return QStringLiteral("the About box shows \"%1\"").arg(version);
    return reason;
}

// Help > Report a Bug, a report written as a user would, and Save rather than Send: the report
// goes into the scratch folder as an RTFD package, the way the save dialog would have put it.
QString Tour::bugReport()
{
    m_window->findChild<QAction *>(QStringLiteral("reportBug"))->trigger();
    QZBugReporter *reporter = bugReporter();
    QWidget *panel = reporter->bugReportPanel();
    if (!panel || !waitFor([&] { return panel->isVisible(); }, 5))
        return QStringLiteral("no bug report window");
    if (!reporter->fullDescription().startsWith(QStringLiteral("This area is free-format")))
        return QStringLiteral("the report does not start from the template");
    reporter->setReportType(QZBugReporter::MinorBug);
    reporter->setShortDescription(QStringLiteral("The progress dialog cuts long file names short"));
    reporter->setFullDescription(QStringLiteral(
            "* 1. What you did\n\nCopied a folder of photos with long names to a USB stick.\n\n"
            "* 2. What happened?\n\nThe progress dialog showed only the end of each name.\n\n"
            "* 3. How did this differ from what you expected?\n\nI expected the whole name, or its start.\n"));
    // The tour keeps to its scratch folder: the logs go along, the machine's profile does not.
    reporter->setOmitSystemProfile(true);
    const QString shot = screenshot(panel, "bug-report.png");

    const QString path = m_root + QStringLiteral("/Disk Tool report.rtfd");
    reporter->savePanelDidEnd(1, path);   // as the save dialog ends with this path
    const bool saved = waitFor([&] { return !reporter->busy(); });
    if (!saved)
        return QStringLiteral("the report was not saved within a minute");
    QFile text(path + QStringLiteral("/TXT.rtf"));
    if (!text.open(QIODevice::ReadOnly))
        return QStringLiteral("no saved report at %1").arg(path);
    if (!text.readAll().contains("The progress dialog cuts long file names short"))
        return QStringLiteral("the saved report lacks its summary");
    if (panel->isVisible())
        return QStringLiteral("the bug report window stayed open after saving");
    return shot;
}

QString Tour::closeEverything()
{
    m_window->close();
    m_window.reset();
    QCoreApplication::processEvents();
    QStringList open;
    for (QWidget *widget : QApplication::topLevelWidgets())
        if (widget->isVisible())
            open.append(widget->objectName().isEmpty() ? QString::fromLatin1(widget->metaObject()->className()) : widget->objectName());
    return open.isEmpty() ? QString() : QStringLiteral("still open: %1").arg(open.join(QStringLiteral(", ")));
}

} // namespace

QString directHelperPath()
{
    const QString here = QCoreApplication::applicationDirPath();
    for (const QString &candidate : { here + QStringLiteral("/../libexec/qzapp/qzhelper"), here + QStringLiteral("/qzhelper") })
        if (QFileInfo(candidate).isExecutable())
            return QFileInfo(candidate).canonicalFilePath();
    return here + QStringLiteral("/../libexec/qzapp/qzhelper");
}

void quietPlatformMessages()
{
    // The offscreen platform's chatter about what it cannot do says nothing about the tour.
    static QtMessageHandler previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context,
                                                                 const QString &message) {
        if (message.startsWith(QStringLiteral("This plugin does not support"))
            || message.startsWith(QStringLiteral("QStandardPaths: XDG_RUNTIME_DIR not set")))
            return;
        previous(type, context, message);
    });
}

int runTour(const QString &screenshots)
{
    return Tour(screenshots).run();
}

} // namespace disktool
