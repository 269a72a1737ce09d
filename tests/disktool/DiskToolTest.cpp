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
using namespace Qt::StringLiterals;

namespace {

class DiskToolTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_scratch.isValid());
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_scratch.path() + u"/settings"_s);
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
    template<typename T = QAction>
    T *child(const QString &name) const { return window->findChild<T *>(name); }

    // Waits for the window to report the operation; its error value.
    std::optional<int> finished(const QString &operation, const std::function<void()> &start)
    {
        std::optional<int> outcome;
        auto connection = QObject::connect(window.get(), &disktool::MainWindow::operationFinished, [&](const QString &name, int error) {
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
            paths.append(path(folder) + u'/' + name);
        ASSERT_TRUE(QTest::qWaitFor([&] { window->selectPaths(paths); return window->selectedPaths() == paths; }, 10000));
    }

    // Answers the next modal message box by clicking the button whose text is `button`.
    void answerNextQuestion(const QString &button)
    {
        QTimer::singleShot(0, [button] {
            auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            ASSERT_NE(box, nullptr);
            for (QAbstractButton *candidate : box->buttons())
                if (candidate->text() == button)
                    return QTest::mouseClick(candidate, Qt::LeftButton);
            FAIL() << "no button " << button.toStdString();
        });
    }

    // The shown error alert's informative and detailed texts; closes it.
    std::pair<QString, QString> takeError()
    {
        auto *box = child<QMessageBox>(u"error"_s);
        if (!box)
            return ADD_FAILURE() << "no error shown", std::pair<QString, QString>();
        EXPECT_TRUE(box->isVisible());
        box->close();
        return { box->informativeText(), box->detailedText() };
    }

    QTemporaryDir m_scratch;
    const std::string m_root = m_scratch.path().toStdString();
    std::unique_ptr<disktool::MainWindow> window;
};

TEST_F(DiskToolTest, CopiesATreeWithItsSizeShown)
{
    makeTree(m_root + "/source/tree", { { "a/", "" }, { "a/one", "1" }, { "a/b/", "" }, { "a/b/two", "22" }, { "three", "333" } });
    ASSERT_EQ(symlink("a/one", (m_root + "/source/tree/link").c_str()), 0);
    makeFolder(m_root + "/destination");
    select("source", { u"tree"_s });
    auto *size = child<QLabel>(u"detailSize"_s);
    EXPECT_TRUE(QTest::qWaitFor([&] { return size->text() == u"6 bytes (7 objects)"_s; }, 10000)) << size->text().toStdString();

    EXPECT_EQ(finished(u"copyTo"_s, [&] { window->copyTo({ path("source/tree") }, path("destination")); }), 0);
    EXPECT_EQ(listing(m_root + "/destination/tree"), listing(m_root + "/source/tree"));
    EXPECT_EQ(window->progressDialog(), nullptr);
}

// Cancel part-way through a large copy: the file being copied finishes, nothing after it starts,
// and what the copy made goes again, while what was in the destination before stays.
TEST_F(DiskToolTest, CancelInTheMiddleLeavesTheDestinationAsItWas)
{
    std::map<std::string, std::string> entries { { "big", std::string(16 << 20, 'b') }, { "files/", "" } };
    for (int i = 0; i < 150; ++i)
        entries["files/" + std::to_string(i)] = std::string(4096, char('a' + i % 26));
    makeTree(m_root + "/source/tree", entries);
    makeTree(m_root + "/destination", { { "tree/", "" }, { "tree/files/", "" }, { "tree/files/mine", "kept" }, { "other", "x" } });
    const std::string before = listing(m_root + "/destination");

    bool cancelled = false;
    window->progressObserver = [&](const disktool::CopyOperation::Progress &progress) {
        if (!progress.paused || std::exchange(cancelled, true))
            return;
        auto *dialog = window->progressDialog();
        auto *cancel = dialog->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Cancel);
        QTest::mouseClick(cancel, Qt::LeftButton);
        EXPECT_FALSE(cancel->isEnabled());   // the dialog stays until the copy has cleaned up
        EXPECT_TRUE(dialog->isVisible());
    };
    EXPECT_EQ(finished(u"copyTo"_s, [&] { window->copyTo({ path("source/tree") }, path("destination"), 60); }), ECANCELED);
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
    EXPECT_EQ(finished(u"copyTo"_s, [&] { window->copyTo({ path("large") }, QString::fromStdString(small.path())); }), ENOSPC);
    const auto [text, details] = takeError();
    EXPECT_TRUE(text.contains(u"No space left on device"_s));
    EXPECT_TRUE(details.contains(u"No space left on device (at utils:"_s)) << details.toStdString();
    EXPECT_FALSE(exists(small / "large"));
}

TEST_F(DiskToolTest, DeleteAsksFirst)
{
    makeTree(m_root + "/folder", { { "doomed/", "" }, { "doomed/inner", "x" }, { "kept", "y" } });
    select("folder", { u"doomed"_s });
    auto *view = child<QTreeView>(u"folderView"_s);
    // The shortcut needs the window active, again once a question has gone.
    const auto answerDelete = [&](const QString &answer) {
        window->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
        view->setFocus();
        answerNextQuestion(answer);
    };
    answerDelete(u"Cancel"_s);
    QTest::keyClick(view, Qt::Key_Delete);
    QTest::qWait(200);
    EXPECT_TRUE(exists(m_root + "/folder/doomed"));
    answerDelete(u"&Delete"_s);
    EXPECT_EQ(finished(u"delete"_s, [&] { QTest::keyClick(view, Qt::Key_Delete); }), 0);
    EXPECT_EQ(listing(m_root + "/folder"), "kept=y");
}

// The administrator's actions through the reference helper, run directly as the caller.
TEST_F(DiskToolTest, AdministratorActionsGoThroughTheHelper)
{
    makeTree(m_root + "/folder", { { "theirs", "their text\n" }, { "sub/", "" } });
    const std::string theirs = m_root + "/folder/theirs";
    ASSERT_TRUE(geteuid() != 0 || chown(theirs.c_str(), 65534, 65534) == 0);

    select("folder", { u"sub"_s });
    EXPECT_FALSE(child(u"deleteAsAdministrator"_s)->isEnabled());
    EXPECT_TRUE(child(u"takeOwnership"_s)->isEnabled());
    select("folder", { u"theirs"_s });
    EXPECT_TRUE(child(u"deleteAsAdministrator"_s)->isEnabled());

    EXPECT_EQ(finished(u"takeOwnership"_s, [&] { window->takeOwnership(path("folder/theirs")); }), 0);
    EXPECT_EQ(statusOf(theirs).st_uid, getuid());
    EXPECT_EQ(statusOf(theirs).st_gid, getgid());

    EXPECT_EQ(finished(u"grantAccess"_s, [&] { window->grantAccess(path("folder/theirs"), 6, 65534); }), 0);
    EXPECT_NE(runProgram({ "getfacl", "-n", theirs }).output.find("user:65534:rw-"), std::string::npos);

    EXPECT_EQ(finished(u"openAsAdministrator"_s, [&] { window->openAsAdministrator(path("folder/theirs")); }), 0);
    auto *viewer = window->findChild<disktool::FileViewer *>();
    ASSERT_NE(viewer, nullptr);
    EXPECT_EQ(viewer->findChild<QPlainTextEdit *>()->toPlainText(), u"their text\n"_s);
    EXPECT_TRUE(viewer->findChild<QPlainTextEdit *>()->isReadOnly());
    viewer->close();

    answerNextQuestion(u"&Delete"_s);
    EXPECT_EQ(finished(u"deleteAsAdministrator"_s, [&] { child(u"deleteAsAdministrator"_s)->trigger(); }), 0);
    EXPECT_FALSE(exists(theirs));

    // A failure shows the helper's reason.
    EXPECT_EQ(finished(u"deleteAsAdministrator"_s, [&] { window->deleteAsAdministrator(path("folder/theirs")); }), ENOENT);
    EXPECT_TRUE(takeError().first.contains(u"No such file or directory"_s));
}

// Help > Report a Bug: the framework's reporter, addressed to Disk Tool's support, with the
// template text; a report that has gone is thanked for in the status bar.
TEST_F(DiskToolTest, ReportABugOpensTheReporterForDiskToolSupport)
{
    QZBugReporter *reporter = QZBugReporter::sharedBugReporter();
    reporter->setFullDescription(u"left over from an earlier report"_s);
    child(u"reportBug"_s)->trigger();
    QWidget *panel = reporter->bugReportPanel();
    ASSERT_NE(panel, nullptr);
    EXPECT_TRUE(QTest::qWaitFor([&] { return panel->isVisible(); }, 5000));
    EXPECT_TRUE(reporter->fullDescription().startsWith(u"This area is free-format"_s));
    ASSERT_NE(reporter->delegate(), nullptr);
    EXPECT_EQ(reporter->delegate()->vendorInfo(), QVariantMap({ { u"bugReportEmailName"_s, u"Disk Tool Support"_s },
                                                                { u"bugReportEmailAddress"_s, u"support@example.org"_s } }));
    EXPECT_EQ(reporter->productBundle().name, u"Disk Tool"_s);

    reporter->sendFinishedWithError(std::nullopt);   // as when the mail program has taken it
    EXPECT_FALSE(panel->isVisible());
    EXPECT_EQ(window->statusBar()->currentMessage(), u"Thank you for the report."_s);
}

} // namespace
