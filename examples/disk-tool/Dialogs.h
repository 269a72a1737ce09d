// Disk Tool's smaller windows: the copy progress, About, Grant Access and the read-only viewer.
#pragma once

#include "CopyOperation.h"

#include <QDialog>

class QCheckBox;
class QDialogButtonBox;
class QLabel;
class QLineEdit;
class QProgressBar;

namespace disktool {

// Makes Disk Tool's bundled icons available; call once before the first window.
void initResources();

// Icons come from the desktop's theme, with Disk Tool's own as a fallback.
QIcon themeIcon(const QString &name);

// Shows a copy's progress; Cancel (or Escape) cancels the copy, and the dialog stays until the
// copy has stopped and cleaned up.
class CopyProgressDialog : public QDialog
{
    Q_OBJECT
public:
    CopyProgressDialog(std::shared_ptr<CopyOperation> operation, const QStringList &sources, QWidget *parent);
    void showProgress(const CopyOperation::Progress &progress);
    void reject() override;

private:
    std::shared_ptr<CopyOperation> m_operation;
    QLabel *m_title, *m_counts, *m_current;
    QProgressBar *m_bar;
    QDialogButtonBox *m_buttons;
};

class AboutDialog : public QDialog
{
    Q_OBJECT
public:
    explicit AboutDialog(QWidget *parent);
};

// Asks for a user and the permissions to grant.
class GrantAccessDialog : public QDialog
{
    Q_OBJECT
public:
    GrantAccessDialog(const QString &path, QWidget *parent);
    QString user() const;
    unsigned permissions() const;   // r 4, w 2, x 1

private:
    void updateButtons();
    QLineEdit *m_user;
    QCheckBox *m_read, *m_write, *m_execute;
    QDialogButtonBox *m_buttons;
};

// A file's first bytes, read-only.
class FileViewer : public QDialog
{
    Q_OBJECT
public:
    FileViewer(const QString &path, const QByteArray &data, QWidget *parent);
};

} // namespace disktool
