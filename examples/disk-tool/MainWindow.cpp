#include "MainWindow.h"

#include "Background.h"
#include "BugReports.h"
#include "Dialogs.h"

#include <QZApp/QZBugReporter.h>
#include <QZApp/QZLocalizedString.h>
#include <QZApp/QZStringExtensions.h>

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFileDialog>
#include <QFileInfo>
#include <QFileSystemModel>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPushButton>
#include <QSettings>
#include <QSplitter>
#include <QStatusBar>
#include <QToolBar>
#include <QTreeView>
#include <QVBoxLayout>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

namespace disktool {

namespace {

// What the details pane shows about a selection, measured off the main thread.
struct Details
{
    QString name, kind, size, owner, permissions, modified;
};

QString userName(uid_t uid)
{
    const passwd *entry = getpwuid(uid);
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(uid);
}

QString groupName(gid_t gid)
{
    const group *entry = getgrgid(gid);
    return entry ? QString::fromLocal8Bit(entry->gr_name) : QString::number(gid);
}

QString permissionString(mode_t mode)
{
    const char letters[] = "rwxrwxrwx";
    QString text;
    for (int bit = 0; bit < 9; ++bit)
        text += (mode & (0400 >> bit)) ? QLatin1Char(letters[bit]) : QLatin1Char('-');
    return QStringLiteral("%1 (%2)").arg(text).arg(mode & 07777, 4, 8, QLatin1Char('0'));
}

QString kindOf(mode_t mode)
{
    if (S_ISDIR(mode)) return QZLocalizedString("Folder");
    if (S_ISLNK(mode)) return QZLocalizedString("Symbolic link");
    if (S_ISREG(mode)) return QZLocalizedString("File");
    if (S_ISFIFO(mode)) return QZLocalizedString("Pipe");
    if (S_ISSOCK(mode)) return QZLocalizedString("Socket");
    return QZLocalizedString("Device");
}

// The objects' total size, everything beneath folders included (links not followed).
Details measure(const QStringList &paths)
{
    Details details;
    quint64 bytes = 0, objects = 0;
    for (const QString &path : paths) {
        struct stat status;
        if (lstat(path.toLocal8Bit().constData(), &status) < 0)
            continue;
        ++objects;
        if (S_ISREG(status.st_mode))
            bytes += quint64(status.st_size);
        if (S_ISDIR(status.st_mode)) {
            QDirIterator it(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                            QDirIterator::Subdirectories);
            while (it.hasNext()) {
                it.next();
                ++objects;
                struct stat entry;
                if (lstat(it.filePath().toLocal8Bit().constData(), &entry) == 0 && S_ISREG(entry.st_mode))
                    bytes += quint64(entry.st_size);
            }
        }
        if (paths.size() == 1) {
            details.name = QFileInfo(path).fileName();
            details.kind = kindOf(status.st_mode);
            details.owner = QStringLiteral("%1 : %2").arg(userName(status.st_uid), groupName(status.st_gid));
            details.permissions = permissionString(status.st_mode);
            details.modified = QLocale().toString(QDateTime::fromSecsSinceEpoch(status.st_mtim.tv_sec), QLocale::ShortFormat);
        }
    }
    if (paths.size() > 1) {
        details.name = QZLocalizedString("%1 items").arg(paths.size());
        details.kind = QZLocalizedString("Several");
    }
    details.size = objects > 1
            ? QZLocalizedString("%1 (%2 objects)").arg(QZ::sizeStringFromUnsignedLongLong(bytes)).arg(objects)
            : QZ::sizeStringFromUnsignedLongLong(bytes);
    return details;
}

QAction *makeAction(QObject *parent, const char *name, const char *text, const char *icon)
{
    auto *action = new QAction(QZLocalizedString(text), parent);
    action->setObjectName(QString::fromLatin1(name));
    if (icon)
        action->setIcon(themeIcon(QString::fromLatin1(icon)));
    return action;
}

} // namespace

MainWindow::MainWindow(QWidget *parent) : QMainWindow(parent)
{
    setObjectName(QStringLiteral("mainWindow"));
    setWindowTitle(QZLocalizedString("Disk Tool"));
    createCentralWidget();
    createActions();
    createMenus();
    statusBar()->showMessage(QZLocalizedString("Ready"));

    QSettings settings;
    if (!restoreGeometry(settings.value(QStringLiteral("window/geometry")).toByteArray()))
        resize(900, 560);
    m_splitter->restoreState(settings.value(QStringLiteral("window/splitter")).toByteArray());
    setFolder(settings.value(QStringLiteral("folder"), QDir::homePath()).toString());
    m_view->setFocus();
}

MainWindow::~MainWindow()
{
    if (m_copy)
        m_copy->cancel();   // the copy finishes on its own and finds no window
    if (m_copy) {
        m_copy->onProgress = nullptr;
        m_copy->onFinished = nullptr;
    }
}

void MainWindow::createCentralWidget()
{
    m_model = new QFileSystemModel(this);
    m_model->setFilter(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    m_model->setReadOnly(true);
    m_model->setRootPath(QDir::rootPath());

    m_view = new QTreeView;
    m_view->setObjectName(QStringLiteral("folderView"));
    m_view->setModel(m_model);
    m_view->setRootIsDecorated(false);
    m_view->setItemsExpandable(false);
    m_view->setSortingEnabled(true);
    m_view->sortByColumn(0, Qt::AscendingOrder);
    m_view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    m_view->setUniformRowHeights(true);
    m_view->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    m_view->header()->setStretchLastSection(false);
    for (int column = 1; column < m_model->columnCount(); ++column)
        m_view->header()->setSectionResizeMode(column, QHeaderView::ResizeToContents);
    connect(m_view, &QTreeView::activated, this, &MainWindow::activateIndex);
    connect(m_view->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] {
        updateActions();
        updateDetails();
    });

    m_location = new QLineEdit;
    m_location->setObjectName(QStringLiteral("location"));
    m_location->setClearButtonEnabled(true);
    connect(m_location, &QLineEdit::returnPressed, this, &MainWindow::openLocation);
    auto *locationLabel = new QLabel(QZLocalizedString("&Location:"));
    locationLabel->setBuddy(m_location);

    auto *details = new QGroupBox(QZLocalizedString("Selection"));
    auto *form = new QFormLayout;
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    auto field = [] {
        auto *label = new QLabel(QStringLiteral("\u2014"));
        label->setTextInteractionFlags(Qt::TextSelectableByMouse);
        label->setWordWrap(true);
        return label;
    };
    m_detailIcon = new QLabel;
    m_detailIcon->setAlignment(Qt::AlignCenter);
    m_detailName = field();
    QFont bold = m_detailName->font();
    bold.setBold(true);
    m_detailName->setFont(bold);
    m_detailName->setAlignment(Qt::AlignHCenter);
    m_detailKind = field();
    m_detailSize = field();
    m_detailSize->setObjectName(QStringLiteral("detailSize"));
    m_detailOwner = field();
    m_detailPermissions = field();
    m_detailModified = field();
    form->addRow(QZLocalizedString("Kind:"), m_detailKind);
    form->addRow(QZLocalizedString("Size:"), m_detailSize);
    form->addRow(QZLocalizedString("Owner:"), m_detailOwner);
    form->addRow(QZLocalizedString("Permissions:"), m_detailPermissions);
    form->addRow(QZLocalizedString("Modified:"), m_detailModified);
    auto *detailsLayout = new QVBoxLayout(details);
    detailsLayout->addWidget(m_detailIcon);
    detailsLayout->addWidget(m_detailName);
    detailsLayout->addLayout(form);
    detailsLayout->addStretch(1);

    m_splitter = new QSplitter;
    m_splitter->addWidget(m_view);
    m_splitter->addWidget(details);
    m_splitter->setStretchFactor(0, 3);
    m_splitter->setStretchFactor(1, 1);
    m_splitter->setChildrenCollapsible(false);
    details->setMinimumWidth(240);

    auto *central = new QWidget;
    auto *locationRow = new QHBoxLayout;
    locationRow->addWidget(locationLabel);
    locationRow->addWidget(m_location, 1);
    auto *layout = new QVBoxLayout(central);
    layout->addLayout(locationRow);
    layout->addWidget(m_splitter, 1);
    setCentralWidget(central);
}

void MainWindow::createActions()
{
    auto *up = makeAction(this, "goUp", "&Up", "go-up");
    up->setShortcut(QKeySequence(Qt::ALT | Qt::Key_Up));
    connect(up, &QAction::triggered, this, &MainWindow::goUp);

    auto *copy = makeAction(this, "copyTo", "&Copy To\\U2026", "edit-copy");
    copy->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_C));
    connect(copy, &QAction::triggered, this, &MainWindow::askCopyTo);
    auto *remove = makeAction(this, "delete", "&Delete\\U2026", "edit-delete");
    remove->setShortcut(QKeySequence::Delete);
    connect(remove, &QAction::triggered, this, &MainWindow::askDelete);

    auto *open = makeAction(this, "openAsAdministrator", "&Open as Administrator", "document-open");
    connect(open, &QAction::triggered, this, &MainWindow::askOpenAsAdministrator);
    auto *own = makeAction(this, "takeOwnership", "Take &Ownership\\U2026", "document-properties");
    connect(own, &QAction::triggered, this, &MainWindow::askTakeOwnership);
    auto *adminDelete = makeAction(this, "deleteAsAdministrator", "Delete as &Administrator\\U2026", "edit-delete");
    connect(adminDelete, &QAction::triggered, this, &MainWindow::askDeleteAsAdministrator);
    auto *grant = makeAction(this, "grantAccess", "&Grant Access\\U2026", "system-users");
    connect(grant, &QAction::triggered, this, &MainWindow::askGrantAccess);

    auto *quit = makeAction(this, "quit", "&Quit", "application-exit");
    quit->setShortcut(QKeySequence::Quit);
    connect(quit, &QAction::triggered, this, &QWidget::close);

    auto *bug = makeAction(this, "reportBug", "&Report a Bug\\U2026", "tools-report-bug");
    connect(bug, &QAction::triggered, this, &MainWindow::reportBug);
    auto *about = makeAction(this, "about", "&About Disk Tool", "help-about");
    connect(about, &QAction::triggered, this, &MainWindow::showAbout);
}

void MainWindow::createMenus()
{
    auto act = [this](const char *name) { return findChild<QAction *>(QString::fromLatin1(name)); };
    QMenu *file = menuBar()->addMenu(QZLocalizedString("&File"));
    file->addAction(act("copyTo"));
    file->addAction(act("delete"));
    file->addSeparator();
    file->addAction(act("quit"));
    QMenu *administrator = menuBar()->addMenu(QZLocalizedString("&Administrator"));
    administrator->addAction(act("openAsAdministrator"));
    administrator->addAction(act("takeOwnership"));
    administrator->addAction(act("deleteAsAdministrator"));
    administrator->addAction(act("grantAccess"));
    QMenu *go = menuBar()->addMenu(QZLocalizedString("&Go"));
    go->addAction(act("goUp"));
    QMenu *help = menuBar()->addMenu(QZLocalizedString("&Help"));
    help->addAction(act("reportBug"));
    help->addSeparator();
    help->addAction(act("about"));

    QToolBar *tools = addToolBar(QZLocalizedString("Main Toolbar"));
    tools->setObjectName(QStringLiteral("mainToolbar"));
    tools->setMovable(false);
    tools->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    tools->addAction(act("goUp"));
    tools->addSeparator();
    tools->addAction(act("copyTo"));
    tools->addAction(act("delete"));
    tools->addSeparator();
    tools->addAction(act("openAsAdministrator"));
    tools->addAction(act("takeOwnership"));
    tools->addAction(act("grantAccess"));
    updateActions();
}

void MainWindow::setFolder(const QString &path)
{
    const QString folder = QDir(path).absolutePath();
    m_view->setRootIndex(m_model->index(folder));
    m_location->setText(QDir::toNativeSeparators(folder));
    updateActions();
    updateDetails();
}

QString MainWindow::folder() const
{
    return m_model->filePath(m_view->rootIndex());
}

void MainWindow::selectPaths(const QStringList &paths)
{
    QItemSelection selection;
    for (const QString &path : paths) {
        const QModelIndex index = m_model->index(path);
        selection.select(index, index.siblingAtColumn(m_model->columnCount() - 1));
    }
    m_view->selectionModel()->select(selection, QItemSelectionModel::ClearAndSelect);
    if (!selection.isEmpty())
        m_view->selectionModel()->setCurrentIndex(selection.indexes().first(), QItemSelectionModel::NoUpdate);
}

QStringList MainWindow::selectedPaths() const
{
    QStringList paths;
    for (const QModelIndex &index : m_view->selectionModel()->selectedRows())
        paths.append(m_model->filePath(index));
    paths.sort();
    return paths;
}

void MainWindow::updateActions()
{
    const QStringList paths = selectedPaths();
    const bool one = paths.size() == 1;
    const bool folderSelected = one && QFileInfo(paths.first()).isDir() && !QFileInfo(paths.first()).isSymLink();
    const bool busy = m_copy != nullptr;
    auto enable = [this](const char *name, bool on) {
        if (auto *action = findChild<QAction *>(QString::fromLatin1(name)))
            action->setEnabled(on);
    };
    enable("copyTo", !paths.isEmpty() && !busy);
    enable("delete", !paths.isEmpty());
    enable("openAsAdministrator", one && !folderSelected);
    enable("takeOwnership", one);
    // The helper deletes files and links only: it has no word for folders.
    enable("deleteAsAdministrator", one && !folderSelected);
    enable("grantAccess", one);
    enable("goUp", !QDir(folder()).isRoot());
}

void MainWindow::updateDetails()
{
    const QStringList paths = selectedPaths();
    const quint64 generation = ++m_detailsGeneration;
    if (paths.isEmpty()) {
        m_detailIcon->setPixmap(themeIcon(QStringLiteral("folder")).pixmap(64));
        m_detailName->setText(QFileInfo(folder()).fileName().isEmpty() ? folder() : QFileInfo(folder()).fileName());
        for (QLabel *label : { m_detailKind, m_detailSize, m_detailOwner, m_detailPermissions, m_detailModified })
            label->setText(QStringLiteral("\u2014"));
        m_detailKind->setText(QZLocalizedString("Folder"));
        m_detailSize->setText(QZLocalizedString("Select objects to see their size"));
        Q_EMIT detailsShown();
        return;
    }
    m_detailIcon->setPixmap(m_model->fileIcon(m_model->index(paths.first())).pixmap(64));
    m_detailSize->setText(QZLocalizedString("Measuring\\U2026"));
    runInBackground<Details>([paths] { return measure(paths); },
                             [window = QPointer<MainWindow>(this), generation](Details details) {
        if (!window || generation != window->m_detailsGeneration)
            return;   // the selection changed meanwhile
        window->m_detailName->setText(details.name);
        window->m_detailKind->setText(details.kind);
        window->m_detailSize->setText(details.size);
        window->m_detailOwner->setText(details.owner.isEmpty() ? QStringLiteral("\u2014") : details.owner);
        window->m_detailPermissions->setText(details.permissions.isEmpty() ? QStringLiteral("\u2014") : details.permissions);
        window->m_detailModified->setText(details.modified.isEmpty() ? QStringLiteral("\u2014") : details.modified);
        Q_EMIT window->detailsShown();
    });
}

void MainWindow::goUp()
{
    QDir dir(folder());
    if (dir.cdUp())
        setFolder(dir.absolutePath());
}

void MainWindow::openLocation()
{
    const QString path = QDir::fromNativeSeparators(m_location->text().trimmed());
    if (QFileInfo(path).isDir())
        setFolder(path);
    else
        showError(QZLocalizedString("The folder \u201c%1\u201d cannot be opened.").arg(path), ENOTDIR, path);
}

void MainWindow::activateIndex(const QModelIndex &index)
{
    if (m_model->isDir(index))
        setFolder(m_model->filePath(index));
}

std::shared_ptr<CopyOperation> MainWindow::copyTo(const QStringList &sources, const QString &folder, quint64 pauseAt)
{
    if (m_copy)
        return nullptr;   // the copy engine runs one copy at a time
    QSettings().setValue(QStringLiteral("copyDestination"), folder);
    m_copy = CopyOperation::create(sources, folder);
    if (pauseAt)
        m_copy->pauseAt(pauseAt);
    m_progress = new CopyProgressDialog(m_copy, sources, this);
    m_progress->setAttribute(Qt::WA_DeleteOnClose);
    m_progress->setWindowModality(Qt::WindowModal);
    m_copy->onProgress = [this](const CopyOperation::Progress &progress) {
        if (progressObserver)
            progressObserver(progress);
        if (m_progress)
            m_progress->showProgress(progress);
    };
    m_copy->onFinished = [this, sources](const CopyOperation::Result &result) { copyFinished(result, sources); };
    m_progress->show();
    statusBar()->showMessage(QZLocalizedString("Copying\\U2026"));
    updateActions();
    m_copy->start();
    return m_copy;
}

void MainWindow::copyFinished(const CopyOperation::Result &result, const QStringList &sources)
{
    m_copy.reset();
    if (m_progress) {
        m_progress->close();
        m_progress = nullptr;
    }
    updateActions();
    updateDetails();
    if (result.cancelled) {
        statusBar()->showMessage(QZLocalizedString("Copy cancelled; %1 new objects removed").arg(result.removed.size()));
    } else if (!result.succeeded) {
        statusBar()->showMessage(QZLocalizedString("Copy failed"));
        const QString what = sources.size() == 1 ? QFileInfo(sources.first()).fileName() : QZLocalizedString("the selection");
        showError(QZLocalizedString("Some objects of \u201c%1\u201d could not be copied.").arg(what), result.error,
                  QString(), result.reportLines);
    } else {
        statusBar()->showMessage(QZLocalizedString("Copy finished"));
    }
    Q_EMIT operationFinished(QStringLiteral("copyTo"), result.cancelled ? ECANCELED : result.error);
}

void MainWindow::runAction(const QString &operation, const QString &failureText, std::function<ActionResult()> work,
                           std::function<void(const ActionResult &)> then)
{
    ++m_running;
    statusBar()->showMessage(QZLocalizedString("Working\\U2026"));
    runInBackground<ActionResult>(std::move(work), [window = QPointer<MainWindow>(this), operation, failureText,
                                                   then = std::move(then)](ActionResult result) {
        if (!window)
            return;
        --window->m_running;
        window->statusBar()->showMessage(result.error ? QZLocalizedString("Failed") : QZLocalizedString("Done"), 5000);
        if (result.error)
            window->showError(failureText, result.error, result.path);
        else if (then)
            then(result);
        window->updateActions();
        window->updateDetails();
        Q_EMIT window->operationFinished(operation, result.error);
    });
}

void MainWindow::deletePaths(const QStringList &paths)
{
    runAction(QStringLiteral("delete"), QZLocalizedString("The object could not be deleted."),
              [paths] { return deleteObjects(paths); });
}

void MainWindow::takeOwnership(const QString &path)
{
    runAction(QStringLiteral("takeOwnership"), QZLocalizedString("You could not be made the owner."),
              [path] { return disktool::takeOwnership(path); });
}

void MainWindow::deleteAsAdministrator(const QString &path)
{
    runAction(QStringLiteral("deleteAsAdministrator"), QZLocalizedString("The object could not be deleted."),
              [path] { return disktool::deleteAsAdministrator(path); });
}

void MainWindow::openAsAdministrator(const QString &path)
{
    runAction(QStringLiteral("openAsAdministrator"), QZLocalizedString("The file could not be opened."),
              [path] { return readAsAdministrator(path); }, [this, path](const ActionResult &result) {
        auto *viewer = new FileViewer(path, result.data, this);
        viewer->setAttribute(Qt::WA_DeleteOnClose);
        viewer->show();
    });
}

void MainWindow::grantAccess(const QString &path, unsigned permissions, unsigned uid)
{
    runAction(QStringLiteral("grantAccess"), QZLocalizedString("Access could not be granted."),
              [=] { return disktool::grantAccess(path, permissions, uid); });
}

void MainWindow::showError(const QString &text, int error, const QString &path, const QStringList &details)
{
    auto *box = new QMessageBox(QMessageBox::Warning, QZLocalizedString("Disk Tool"), text, QMessageBox::Ok, this);
    box->setObjectName(QStringLiteral("error"));
    box->setAttribute(Qt::WA_DeleteOnClose);
    QString reason = errorText(error);
    if (!path.isEmpty())
        reason = QStringLiteral("%1\n%2").arg(QDir::toNativeSeparators(path), reason);
    box->setInformativeText(reason);
    if (!details.isEmpty())
        box->setDetailedText(details.join(QLatin1Char('\n')));
    box->setWindowModality(Qt::WindowModal);
    box->show();
}

void MainWindow::askCopyTo()
{
    const QStringList sources = selectedPaths();
    if (sources.isEmpty())
        return;
    const QString start = QSettings().value(QStringLiteral("copyDestination"), QDir::homePath()).toString();
    const QString destination = QFileDialog::getExistingDirectory(this, QZLocalizedString("Copy To"), start);
    if (!destination.isEmpty())
        copyTo(sources, destination);
}

void MainWindow::askDelete()
{
    const QStringList paths = selectedPaths();
    if (paths.isEmpty())
        return;
    const QString question = paths.size() == 1
            ? QZLocalizedString("Delete \u201c%1\u201d and everything in it?").arg(QFileInfo(paths.first()).fileName())
            : QZLocalizedString("Delete these %1 objects and everything in them?").arg(paths.size());
    QMessageBox box(QMessageBox::Question, QZLocalizedString("Delete"), question, QMessageBox::Cancel, this);
    box.setObjectName(QStringLiteral("confirmDelete"));
    box.setInformativeText(QZLocalizedString("This cannot be undone."));
    QPushButton *confirm = box.addButton(QZLocalizedString("&Delete"), QMessageBox::DestructiveRole);
    box.setDefaultButton(QMessageBox::Cancel);
    box.exec();
    if (box.clickedButton() == confirm)
        deletePaths(paths);
}

void MainWindow::askTakeOwnership()
{
    const QStringList paths = selectedPaths();
    if (paths.size() != 1)
        return;
    QMessageBox box(QMessageBox::Question, QZLocalizedString("Take Ownership"),
                    QZLocalizedString("Make yourself the owner of \u201c%1\u201d?").arg(QFileInfo(paths.first()).fileName()),
                    QMessageBox::Cancel, this);
    box.setInformativeText(QZLocalizedString("You will be asked for an administrator's password."));
    QPushButton *confirm = box.addButton(QZLocalizedString("&Take Ownership"), QMessageBox::AcceptRole);
    box.setDefaultButton(confirm);
    box.exec();
    if (box.clickedButton() == confirm)
        takeOwnership(paths.first());
}

void MainWindow::askDeleteAsAdministrator()
{
    const QStringList paths = selectedPaths();
    if (paths.size() != 1 || (QFileInfo(paths.first()).isDir() && !QFileInfo(paths.first()).isSymLink()))
        return;
    QMessageBox box(QMessageBox::Warning, QZLocalizedString("Delete as Administrator"),
                    QZLocalizedString("Delete \u201c%1\u201d as the administrator?").arg(QFileInfo(paths.first()).fileName()),
                    QMessageBox::Cancel, this);
    box.setInformativeText(QZLocalizedString("This cannot be undone. You will be asked for an administrator's password."));
    QPushButton *confirm = box.addButton(QZLocalizedString("&Delete"), QMessageBox::DestructiveRole);
    box.setDefaultButton(QMessageBox::Cancel);
    box.exec();
    if (box.clickedButton() == confirm)
        deleteAsAdministrator(paths.first());
}

void MainWindow::askOpenAsAdministrator()
{
    const QStringList paths = selectedPaths();
    if (paths.size() == 1)
        openAsAdministrator(paths.first());
}

void MainWindow::askGrantAccess()
{
    const QStringList paths = selectedPaths();
    if (paths.size() != 1)
        return;
    GrantAccessDialog dialog(paths.first(), this);
    if (dialog.exec() != QDialog::Accepted)
        return;
    const long uid = userIdFromName(dialog.user());
    if (uid < 0) {
        showError(QZLocalizedString("There is no user \u201c%1\u201d.").arg(dialog.user()), EINVAL, QString());
        return;
    }
    grantAccess(paths.first(), dialog.permissions(), unsigned(uid));
}

void MainWindow::showAbout()
{
    if (auto *open = findChild<AboutDialog *>()) {
        open->raise();
        open->activateWindow();
        return;
    }
    auto *about = new AboutDialog(this);
    about->setAttribute(Qt::WA_DeleteOnClose);
    about->show();
}

void MainWindow::reportBug()
{
    // The reporter's own window takes it from here: a fresh report with the template text, or
    // the report already being written brought to the front.
    bugReporter(this)->doDefaultBugReport();
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    QSettings settings;
    settings.setValue(QStringLiteral("window/geometry"), saveGeometry());
    settings.setValue(QStringLiteral("window/splitter"), m_splitter->saveState());
    settings.setValue(QStringLiteral("folder"), folder());
    event->accept();
}

} // namespace disktool
