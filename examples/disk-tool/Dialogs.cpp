#include "Dialogs.h"

#include <QZApp/QZLinkField.h>
#include <QZApp/QZLocalizedString.h>
#include <QZApp/QZStringExtensions.h>
#include <QZApp/QZVersion.h>

#include <QApplication>
#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFileInfo>
#include <QFontDatabase>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

static void initDiskToolResources()
{
    Q_INIT_RESOURCE(disktool);
}

namespace disktool {

void initResources()
{
    initDiskToolResources();
}

QIcon themeIcon(const QString &name)
{
    return QIcon::fromTheme(name, QIcon(QStringLiteral(":/icons/") + name + QStringLiteral(".svg")));
}

CopyProgressDialog::CopyProgressDialog(std::shared_ptr<CopyOperation> operation, const QStringList &sources, QWidget *parent)
    : QDialog(parent), m_operation(std::move(operation))
{
    setObjectName(QStringLiteral("copyProgress"));
    setWindowTitle(QZLocalizedString("Copying"));
    setMinimumWidth(440);

    const QString what = sources.size() == 1
            ? QZLocalizedString("Copying \u201c%1\u201d to \u201c%2\u201d").arg(QFileInfo(sources.first()).fileName(), m_operation->folder())
            : QZLocalizedString("Copying %1 items to \u201c%2\u201d").arg(sources.size()).arg(m_operation->folder());
    m_title = new QLabel(what);
    m_title->setWordWrap(true);
    QFont bold = m_title->font();
    bold.setBold(true);
    m_title->setFont(bold);

    m_bar = new QProgressBar;
    m_bar->setRange(0, 0);   // the total is not known ahead
    m_bar->setTextVisible(false);
    m_counts = new QLabel(QZLocalizedString("Preparing\\U2026"));
    m_current = new QLabel;
    m_current->setTextFormat(Qt::PlainText);
    m_current->setForegroundRole(QPalette::PlaceholderText);
    m_current->setMinimumWidth(1);   // long paths are elided, never widen the dialog

    m_buttons = new QDialogButtonBox(QDialogButtonBox::Cancel);
    connect(m_buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *icon = new QLabel;
    icon->setPixmap(themeIcon(QStringLiteral("edit-copy")).pixmap(style()->pixelMetric(QStyle::PM_MessageBoxIconSize)));
    icon->setAlignment(Qt::AlignTop);
    auto *text = new QVBoxLayout;
    text->addWidget(m_title);
    text->addWidget(m_bar);
    text->addWidget(m_counts);
    text->addWidget(m_current);
    auto *row = new QHBoxLayout;
    row->addWidget(icon);
    row->addLayout(text, 1);
    auto *layout = new QVBoxLayout(this);
    layout->addLayout(row);
    layout->addStretch(1);
    layout->addWidget(m_buttons);
}

void CopyProgressDialog::showProgress(const CopyOperation::Progress &progress)
{
    m_counts->setText(QZLocalizedString("%1 objects, %2 copied")
                              .arg(progress.objects)
                              .arg(QZ::sizeStringFromUnsignedLongLong(progress.bytes)));
    m_current->setText(m_current->fontMetrics().elidedText(progress.path, Qt::ElideMiddle, m_current->width()));
    m_current->setToolTip(progress.path);
}

void CopyProgressDialog::reject()
{
    // The dialog goes when the copy reports that it stopped, not before.
    if (!m_operation->isCancelled()) {
        m_operation->cancel();
        m_counts->setText(QZLocalizedString("Cancelling\\U2026"));
        m_buttons->button(QDialogButtonBox::Cancel)->setEnabled(false);
    }
}

AboutDialog::AboutDialog(QWidget *parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("about"));
    setWindowTitle(QZLocalizedString("About Disk Tool"));

    auto *icon = new QLabel;
    icon->setPixmap(QApplication::windowIcon().pixmap(96));
    icon->setAlignment(Qt::AlignHCenter);

    auto *name = new QLabel(QZLocalizedString("Disk Tool"));
    QFont big = name->font();
    big.setPointSizeF(big.pointSizeF() * 1.6);
    big.setBold(true);
    name->setFont(big);
    name->setAlignment(Qt::AlignHCenter);

    const auto version = QZVersion::versionFromString(QCoreApplication::applicationVersion());
    auto *versionLabel = new QLabel(QZLocalizedString("Version %1").arg(version ? version->stringValue() : QString()));
    versionLabel->setObjectName(QStringLiteral("version"));
    versionLabel->setAlignment(Qt::AlignHCenter);
    versionLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);

    auto *summary = new QLabel(QZLocalizedString("Copies, deletes and repairs files and folders, "
                                                 "with an administrator's rights where needed."));
    summary->setWordWrap(true);
    summary->setAlignment(Qt::AlignHCenter);

    auto *site = new QZLinkField(QStringLiteral("www.example.org/disktool"));
    site->setObjectName(QStringLiteral("website"));
    auto *support = new QZLinkField(QStringLiteral("support@example.org"));
    support->setObjectName(QStringLiteral("support"));
    auto *links = new QFormLayout;
    links->setLabelAlignment(Qt::AlignRight);
    links->addRow(QZLocalizedString("Web site:"), site);
    links->addRow(QZLocalizedString("Support:"), support);
    auto *centred = new QHBoxLayout;
    centred->addStretch(1);
    centred->addLayout(links);
    centred->addStretch(1);

    auto *copyright = new QLabel(QZLocalizedString("Copyright \u00a9 2026 The QZApp developers"));
    copyright->setAlignment(Qt::AlignHCenter);
    copyright->setForegroundRole(QPalette::PlaceholderText);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto *layout = new QVBoxLayout(this);
    layout->addWidget(icon);
    layout->addWidget(name);
    layout->addWidget(versionLabel);
    layout->addSpacing(6);
    layout->addWidget(summary);
    layout->addSpacing(6);
    layout->addLayout(centred);
    layout->addSpacing(6);
    layout->addWidget(copyright);
    layout->addWidget(buttons);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    summary->setFixedWidth(340);
}

GrantAccessDialog::GrantAccessDialog(const QString &path, QWidget *parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("grantAccess"));
    setWindowTitle(QZLocalizedString("Grant Access"));
    auto *intro = new QLabel(QZLocalizedString("Let another user use \u201c%1\u201d:").arg(QFileInfo(path).fileName()));
    intro->setWordWrap(true);
    m_user = new QLineEdit;
    m_user->setPlaceholderText(QZLocalizedString("user name or number"));
    m_read = new QCheckBox(QZLocalizedString("&Read"));
    m_read->setChecked(true);
    m_write = new QCheckBox(QZLocalizedString("&Write"));
    m_execute = new QCheckBox(QZLocalizedString("E&xecute or open folder"));
    auto *permissions = new QVBoxLayout;
    permissions->addWidget(m_read);
    permissions->addWidget(m_write);
    permissions->addWidget(m_execute);
    auto *form = new QFormLayout;
    auto *userLabel = new QLabel(QZLocalizedString("&User:"));
    userLabel->setBuddy(m_user);
    form->addRow(userLabel, m_user);
    form->addRow(QZLocalizedString("Permissions:"), permissions);
    m_buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    m_buttons->button(QDialogButtonBox::Ok)->setText(QZLocalizedString("&Grant"));
    connect(m_buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(m_buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    for (auto *box : { m_read, m_write, m_execute })
        connect(box, &QCheckBox::toggled, this, &GrantAccessDialog::updateButtons);
    connect(m_user, &QLineEdit::textChanged, this, &GrantAccessDialog::updateButtons);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(intro);
    layout->addLayout(form);
    layout->addWidget(m_buttons);
    setMinimumWidth(360);
    updateButtons();
}

QString GrantAccessDialog::user() const
{
    return m_user->text().trimmed();
}

unsigned GrantAccessDialog::permissions() const
{
    return (m_read->isChecked() ? 4u : 0u) | (m_write->isChecked() ? 2u : 0u) | (m_execute->isChecked() ? 1u : 0u);
}

void GrantAccessDialog::updateButtons()
{
    m_buttons->button(QDialogButtonBox::Ok)->setEnabled(!user().isEmpty() && permissions() != 0);
}

FileViewer::FileViewer(const QString &path, const QByteArray &data, QWidget *parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("viewer"));
    setWindowTitle(QZLocalizedString("%1 (read-only)").arg(QFileInfo(path).fileName()));
    auto *text = new QPlainTextEdit(QString::fromUtf8(data));
    text->setReadOnly(true);
    text->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    text->setLineWrapMode(QPlainTextEdit::NoWrap);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(text);
    layout->addWidget(buttons);
    resize(640, 480);
}

} // namespace disktool
