#include "QZLinkField.h"

#include "QZLocalizedString.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QDesktopServices>
#include <QFontDatabase>
#include <QMenu>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPointer>
#include <QProcess>
#include <QStyle>

#include <cmath>

namespace {

// Points the text is drawn above the label's own baseline.
constexpr int baselineOffset = 1;

QPointer<QMenu> sharedMenu;
// The field that showed the shared menu last: "Copy" copies it.
QPointer<QZLinkField> menuField;

void deleteSharedMenu()
{
    delete sharedMenu.data();
}

} // namespace

QZLinkField::QZLinkField(QWidget *parent) : QLabel(parent)
{
    configureLink();
}

QZLinkField::QZLinkField(const QString &text, QWidget *parent) : QLabel(text, parent)
{
    configureLink();
}

QMenu *QZLinkField::menu()
{
    if (!sharedMenu) {
        sharedMenu = new QMenu;
        QAction *copy = sharedMenu->addAction(QZLocalizedString("Copy"));
        QObject::connect(copy, &QAction::triggered, [] {
            if (menuField)
                menuField->copy();
        });
        // Widgets must go before the application object does.
        qAddPostRoutine(deleteSharedMenu);
    }
    return sharedMenu;
}

QUrl QZLinkField::url() const
{
    const QString string = text();
    QString link;
    if (string.contains(QLatin1Char(':'))) {
        link = string;
    } else if (string.contains(QLatin1Char('@'))) {
        link = QStringLiteral("mailto:") + string;
    } else {
        // A host whose name begins with "secure." is still reached over plain http: the test is
        // kept, its outcome deliberately unused.
        [[maybe_unused]] const bool secure = string.startsWith(QStringLiteral("secure."));
        link = QStringLiteral("http://") + string;
    }
    const QUrl url(link, QUrl::StrictMode);
    return url.isValid() ? url : QUrl();
}

void QZLinkField::configureLink()
{
    QFont font = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    if (font.pointSizeF() > 0)
        font.setPointSize(static_cast<int>(std::floor(font.pointSizeF())));
    font.setUnderline(true);
    setFont(font);

    QPalette palette = this->palette();
    for (auto group : { QPalette::Active, QPalette::Inactive, QPalette::Disabled })
        palette.setColor(group, QPalette::WindowText, QColor(Qt::blue));
    setPalette(palette);

    setTextFormat(Qt::PlainText);
    setTextInteractionFlags(Qt::NoTextInteraction);
    setOpenExternalLinks(false);
    setContextMenuPolicy(Qt::PreventContextMenu);
    setMouseTracking(true);
    setToolTip(url().toDisplayString());
    update();
}

QRect QZLinkField::cursorArea() const
{
    const int textWidth = fontMetrics().horizontalAdvance(text());
    QRect area = rect();
    area.setLeft((area.width() - textWidth) / 2);
    area.setWidth(textWidth);
    return area;
}

void QZLinkField::copy()
{
    auto *data = new QMimeData;
    data->setText(text());
    if (const QUrl link = url(); link.isValid())
        data->setUrls({ link });
    QGuiApplication::clipboard()->setMimeData(data);
}

bool QZLinkField::event(QEvent *event)
{
    // A field that a .ui file filled in after construction gets its appearance once it is set up.
    if (event->type() == QEvent::Polish)
        configureLink();
    return QLabel::event(event);
}

void QZLinkField::mousePressEvent(QMouseEvent *event)
{
    event->accept();
    if (event->button() == Qt::RightButton) {
        // A right press goes to the field at once, whether its window is active or not.
        menuField = this;
        menu()->popup(event->globalPosition().toPoint());
        return;
    }
    if (event->button() != Qt::LeftButton)
        return;
    // A left press on an inactive window only brings the window forward.
    if (!window()->isActiveWindow()) {
        window()->activateWindow();
        return;
    }
    // A platform plugin without a URL handler (offscreen, minimal) leaves it to the desktop's
    // own opener, as the usual Linux platforms do themselves.
    if (const QUrl link = url(); link.isValid() && !QDesktopServices::openUrl(link))
        QProcess::startDetached(QStringLiteral("xdg-open"), { link.toString(QUrl::FullyEncoded) });
}

void QZLinkField::mouseMoveEvent(QMouseEvent *event)
{
    updateCursor(event->position().toPoint());
    event->accept();
}

void QZLinkField::mouseReleaseEvent(QMouseEvent *event)
{
    event->accept();
}

void QZLinkField::mouseDoubleClickEvent(QMouseEvent *event)
{
    event->accept();
}

void QZLinkField::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    drawFrame(&painter);
    const QRect area = contentsRect().translated(0, -baselineOffset);
    style()->drawItemText(&painter, area, QStyle::visualAlignment(layoutDirection(), alignment()), palette(),
                          isEnabled(), text(), foregroundRole());
}

void QZLinkField::updateCursor(const QPoint &position)
{
    if (cursorArea().contains(position))
        setCursor(Qt::PointingHandCursor);
    else
        unsetCursor();
}
