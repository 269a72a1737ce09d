// Disk Tool's main window: a folder view, the selection's details, and the file operations.
#pragma once

#include "CopyOperation.h"
#include "FileActions.h"

#include <QMainWindow>

#include <functional>
#include <memory>

class QFileSystemModel;
class QFormLayout;
class QLabel;
class QLineEdit;
class QSplitter;
class QTreeView;

namespace disktool {

class CopyProgressDialog;

class MainWindow : public QMainWindow
{
    Q_OBJECT
public:
    explicit MainWindow(QWidget *parent = nullptr);
    ~MainWindow() override;

    void setFolder(const QString &path);
    QString folder() const;
    void selectPaths(const QStringList &paths);
    QStringList selectedPaths() const;

    // The operations behind the menu items, once the user has answered their questions. Each
    // runs off the main thread and shows its outcome (an error in a message box, named "error")
    // before it emits operationFinished. The tour and the tests call these directly.
    std::shared_ptr<CopyOperation> copyTo(const QStringList &sources, const QString &folder, quint64 pauseAt = 0);
    void deletePaths(const QStringList &paths);
    void takeOwnership(const QString &path);
    void deleteAsAdministrator(const QString &path);
    void openAsAdministrator(const QString &path);
    void grantAccess(const QString &path, unsigned permissions, unsigned uid);

    CopyProgressDialog *progressDialog() const { return m_progress; }
    // Called by the tour and the tests with each copy progress notice before the dialog shows it.
    std::function<void(const CopyOperation::Progress &)> progressObserver;

Q_SIGNALS:
    // `operation` is the menu item's object name ("copyTo", "delete", ...); `error` 0 or errno.
    void operationFinished(const QString &operation, int error);
    // The details pane shows the current selection.
    void detailsShown();

protected:
    void closeEvent(QCloseEvent *event) override;

private:
    void createActions();
    void createMenus();
    void createCentralWidget();
    void updateActions();
    void updateDetails();
    void goUp();
    void openLocation();
    void activateIndex(const QModelIndex &index);
    void askCopyTo();
    void askDelete();
    void askTakeOwnership();
    void askDeleteAsAdministrator();
    void askOpenAsAdministrator();
    void askGrantAccess();
    void showAbout();
    void reportBug();
    // Runs `work` on a thread, shows its error if any, refreshes, and emits operationFinished.
    void runAction(const QString &operation, const QString &failureText, std::function<ActionResult()> work,
                   std::function<void(const ActionResult &)> then = {});
    void showError(const QString &text, int error, const QString &path, const QStringList &details = {});
    void copyFinished(const CopyOperation::Result &result, const QStringList &sources);

    QFileSystemModel *m_model;
    QTreeView *m_view;
    QLineEdit *m_location;
    QSplitter *m_splitter;
    QLabel *m_detailName, *m_detailKind, *m_detailSize, *m_detailOwner, *m_detailPermissions, *m_detailModified;
    QLabel *m_detailIcon;
    CopyProgressDialog *m_progress = nullptr;
    std::shared_ptr<CopyOperation> m_copy;
    quint64 m_detailsGeneration = 0;
    int m_running = 0;   // actions on their way
};

} // namespace disktool
