// Disk Tool's window and operations on scratch folders and volumes, driven with real input.
#include "CopyOperation.h"
#include "Dialogs.h"
#include "MainWindow.h"

#include "support/ScratchVolumes.h"

#include <QZApp/QZBugReporter.h>
#include <QZApp/helper/QZHelperTool.h>

#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QTreeView>

#include <optional>

#include <unistd.h>

using namespace qztest;

namespace {

class DiskToolTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_scratch.isValid());
        m_root = m_scratch.path().toStdString();
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_scratch.path() + QStringLiteral("/settings"));
        QZHelperTool::sharedInstance()->setHelperPath(QStringLiteral(QZHELPER_PATH));
        window = std::make_unique<disktool::MainWindow>();
        window->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    }
    void TearDown() override
    {
        window.reset();
        QZHelperTool::sharedInstance()->terminateHelper();
    }

    QString path(const std::string &name) const { return QString::fromStdString(m_root + "/" + name); }

    // Waits for the window to report the operation; its error value.
    std::optional<int> finished(const QString &operation, const std::function<void()> &start)
    {
        std::optional<int> outcome;
        auto connection = QObject::connect(window.get(), &disktool::MainWindow::operationFinished,
                                           [&](const QString &name, int error) {
            if (name == operation)
                outcome = error;
        });
        start();
        (void)QTest::qWaitFor([&] { return outcome.has_value(); }, 60000);
        QObject::disconnect(connection);
        return outcome;
    }

    // Shows the folder and selects `names` in it, once the view has listed them.
    void select(const std::string &folder, const QStringList &names)
    {
        window->setFolder(path(folder));
        QStringList paths;
        for (const QString &name : names)
            paths.append(path(folder) + QLatin1Char('/') + name);
        ASSERT_TRUE(QTest::qWaitFor([&] {
            window->selectPaths(paths);
            return window->selectedPaths() == paths;
        }, 10000));
    }

    // Answers the next modal message box by clicking the button whose text is `button`.
    void answerNextQuestion(const QString &button)
    {
        QTimer::singleShot(0, [button] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            ASSERT_NE(box, nullptr);
            for (QAbstractButton *candidate : box->buttons())
                if (candidate->text() == button) {
                    QTest::mouseClick(candidate, Qt::LeftButton);
                    return;
                }
            FAIL() << "no button " << button.toStdString();
        });
    }

    QTemporaryDir m_scratch;
    std::string m_root;
    std::unique_ptr<disktool::MainWindow> window;
};

TEST_F(DiskToolTest, CopiesATreeWithItsSizeShown)
{
    makeTree(m_root + "/source/tree", { { "a/", "" }, { "a/one", "1" }, { "a/b/", "" }, { "a/b/two", "22" }, { "three", "333" } });
    ASSERT_EQ(symlink("a/one", (m_root + "/source/tree/link").c_str()), 0);
    makeFolder(m_root + "/destination");
    select("source", { QStringLiteral("tree") });
    auto *size = window->findChild<QLabel *>(QStringLiteral("detailSize"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return size->text() == QStringLiteral("6 bytes (7 objects)"); }, 10000))
            << size->text().toStdString();

    EXPECT_EQ(finished(QStringLiteral("copyTo"), [&] { window->copyTo({ path("source/tree") }, path("destination")); }), 0);
    EXPECT_EQ(listing(m_root + "/destination/tree"), listing(m_root + "/source/tree"));
    EXPECT_EQ(window->progressDialog(), nullptr);
}

// Cancel part-way through a large copy: the file being copied finishes, nothing after it starts,
// and what the copy made goes again, while what was in the destination before stays.
TEST_F(DiskToolTest, CancelInTheMiddleLeavesTheDestinationAsItWas)
{
    std::map<std::string, std::string> entries { { "big", std::string(16 << 20, 'b') } };
    for (int i = 0; i < 150; ++i)
        entries["files/" + std::to_string(i)] = std::string(4096, char('a' + i % 26));
    entries["files/"] = "";
    makeTree(m_root + "/source/tree", entries);
    makeTree(m_root + "/destination", { { "tree/", "" }, { "tree/files/", "" }, { "tree/files/mine", "kept" }, { "other", "x" } });
    const std::string before = listing(m_root + "/destination");

    std::shared_ptr<disktool::CopyOperation> copy;
    bool cancelled = false;
    window->progressObserver = [&](const disktool::CopyOperation::Progress &progress) {
        if (!progress.paused || cancelled)
            return;
        cancelled = true;
        auto *dialog = window->progressDialog();
        auto *cancel = dialog->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Cancel);
        QTest::mouseClick(cancel, Qt::LeftButton);
        EXPECT_FALSE(cancel->isEnabled());   // the dialog stays until the copy has cleaned up
        EXPECT_TRUE(dialog->isVisible());
    };
    EXPECT_EQ(finished(QStringLiteral("copyTo"), [&] {
        copy = window->copyTo({ path("source/tree") }, path("destination"), 60);
    }), ECANCELED);
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(listing(m_root + "/destination"), before);
}

TEST_F(DiskToolTest, AFailingCopyShowsItsReportLines)
{
    if (!canMount())
        GTEST_SKIP() << "needs the superuser in a private mount namespace";
    ScratchVolume small(ScratchVolume::Tmpfs, 1 << 20);
    ASSERT_TRUE(small.ok());
    writeFile(m_root + "/large", std::string(4 << 20, 'x'));
    EXPECT_EQ(finished(QStringLiteral("copyTo"), [&] {
        window->copyTo({ path("large") }, QString::fromStdString(small.path()));
    }), ENOSPC);
    auto *box = window->findChild<QMessageBox *>(QStringLiteral("error"));
    ASSERT_NE(box, nullptr);
    EXPECT_TRUE(box->isVisible());
    EXPECT_TRUE(box->informativeText().contains(QStringLiteral("No space left on device")));
    EXPECT_TRUE(box->detailedText().contains(QStringLiteral("No space left on device (at utils:"))) << box->detailedText().toStdString();
    EXPECT_FALSE(exists(small / "large"));
    box->close();
}

TEST_F(DiskToolTest, DeleteAsksFirst)
{
    makeTree(m_root + "/folder", { { "doomed/", "" }, { "doomed/inner", "x" }, { "kept", "y" } });
    select("folder", { QStringLiteral("doomed") });
    auto *view = window->findChild<QTreeView *>(QStringLiteral("folderView"));
    window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
    view->setFocus();

    answerNextQuestion(QStringLiteral("Cancel"));
    QTest::keyClick(view, Qt::Key_Delete);
    QTest::qWait(200);
    EXPECT_TRUE(exists(m_root + "/folder/doomed"));

    // The shortcut needs the window active again once the question has gone.
    window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
    answerNextQuestion(QStringLiteral("&Delete"));
    EXPECT_EQ(finished(QStringLiteral("delete"), [&] { QTest::keyClick(view, Qt::Key_Delete); }), 0);
    EXPECT_EQ(listing(m_root + "/folder"), "kept=y");
}

// The administrator's actions through the reference helper, run directly as the caller.
TEST_F(DiskToolTest, AdministratorActionsGoThroughTheHelper)
{
    makeTree(m_root + "/folder", { { "theirs", "their text\n" }, { "sub/", "" } });
    const std::string theirs = m_root + "/folder/theirs";
    if (geteuid() == 0) {
        ASSERT_EQ(chown(theirs.c_str(), 65534, 65534), 0);
    }

    select("folder", { QStringLiteral("sub") });
    EXPECT_FALSE(window->findChild<QAction *>(QStringLiteral("deleteAsAdministrator"))->isEnabled());
    EXPECT_TRUE(window->findChild<QAction *>(QStringLiteral("takeOwnership"))->isEnabled());
    select("folder", { QStringLiteral("theirs") });
    EXPECT_TRUE(window->findChild<QAction *>(QStringLiteral("deleteAsAdministrator"))->isEnabled());

    EXPECT_EQ(finished(QStringLiteral("takeOwnership"), [&] { window->takeOwnership(path("folder/theirs")); }), 0);
    EXPECT_EQ(statusOf(theirs).st_uid, getuid());
    EXPECT_EQ(statusOf(theirs).st_gid, getgid());

    EXPECT_EQ(finished(QStringLiteral("grantAccess"), [&] { window->grantAccess(path("folder/theirs"), 6, 65534); }), 0);
    EXPECT_NE(runProgram({ "getfacl", "-n", theirs }).output.find("user:65534:rw-"), std::string::npos);

    EXPECT_EQ(finished(QStringLiteral("openAsAdministrator"), [&] { window->openAsAdministrator(path("folder/theirs")); }), 0);
    auto *viewer = window->findChild<disktool::FileViewer *>();
    ASSERT_NE(viewer, nullptr);
    EXPECT_EQ(viewer->findChild<QPlainTextEdit *>()->toPlainText(), QStringLiteral("their text\n"));
    EXPECT_TRUE(viewer->findChild<QPlainTextEdit *>()->isReadOnly());
    viewer->close();

    answerNextQuestion(QStringLiteral("&Delete"));
    EXPECT_EQ(finished(QStringLiteral("deleteAsAdministrator"), [&] {
        window->findChild<QAction *>(QStringLiteral("deleteAsAdministrator"))->trigger();
    }), 0);
    EXPECT_FALSE(exists(theirs));

    // A failure shows the helper's reason.
    EXPECT_EQ(finished(QStringLiteral("deleteAsAdministrator"), [&] { window->deleteAsAdministrator(path("folder/theirs")); }), ENOENT);
    auto *box = window->findChild<QMessageBox *>(QStringLiteral("error"));
    ASSERT_NE(box, nullptr);
    EXPECT_TRUE(box->informativeText().contains(QStringLiteral("No such file or directory")));
    box->close();
}

// Help > Report a Bug: the framework's reporter, addressed to Disk Tool's support, with the
// template text; a report that has gone is thanked for in the status bar.
TEST_F(DiskToolTest, ReportABugOpensTheReporterForDiskToolSupport)
{
    QZBugReporter *reporter = QZBugReporter::sharedBugReporter();
    reporter->setFullDescription(QStringLiteral("left over from an earlier report"));
    window->findChild<QAction *>(QStringLiteral("reportBug"))->trigger();
    QWidget *panel = reporter->bugReportPanel();
    ASSERT_NE(panel, nullptr);
    EXPECT_TRUE(QTest::qWaitFor([&] { return panel->isVisible(); }, 5000));
    EXPECT_TRUE(reporter->fullDescription().startsWith(QStringLiteral("This area is free-format")));
    ASSERT_NE(reporter->delegate(), nullptr);
    const QVariantMap vendor = reporter->delegate()->vendorInfo();
    EXPECT_EQ(vendor.value(QStringLiteral("bugReportEmailName")).toString(), QStringLiteral("Disk Tool Support"));
    EXPECT_EQ(vendor.value(QStringLiteral("bugReportEmailAddress")).toString(), QStringLiteral("support@example.org"));
    EXPECT_EQ(reporter->productBundle().name, QStringLiteral("Disk Tool"));

    reporter->sendFinishedWithError(std::nullopt);   // as when the mail program has taken it
    EXPECT_FALSE(panel->isVisible());
    EXPECT_EQ(window->statusBar()->currentMessage(), QStringLiteral("Thank you for the report."));
}

} // namespace
