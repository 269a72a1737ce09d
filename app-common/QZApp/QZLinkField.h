// A label that shows its text as a clickable link.
//
// The link is made from the text: a text holding ":" is used as it stands, one holding "@" gets
// "mailto:" in front, anything else "http://". A left click opens it in the user's default
// handler; a right click offers the one-item "Copy" menu, which puts the text and the link on
// the clipboard. In Qt Designer, promote a QLabel to QZLinkField (header <QZApp/QZLinkField.h>).
//
//     auto *site = new QZLinkField(QStringLiteral("www.example.org"), dialog);
//     site->setText(QStringLiteral("support@example.org"));
//     site->configureLink();        // the appearance follows the text only when asked to
#pragma once

#include <QZApp/QZGlobal.h>

#include <QLabel>
#include <QUrl>

class QMenu;

class QZAPP_EXPORT QZLinkField : public QLabel
{
    Q_OBJECT
public:
    explicit QZLinkField(QWidget *parent = nullptr);
    explicit QZLinkField(const QString &text, QWidget *parent = nullptr);

    // The context menu that every link field shares, made on first use with one item, "Copy",
    // which copies the field that showed it. It lives as long as the application object.
    static QMenu *menu();

    // The link for the current text, or an invalid QUrl when the text makes no valid URL (in
    // strict parsing): "two words" has none.
    QUrl url() const;
    // Gives the field its link appearance for the current text: the system font at its standard
    // size cut to whole points, blue, underlined, drawn one pixel above the baseline, in the
    // field's alignment; neither editable nor selectable. Called when the field is made and
    // when it is first shown (for fields that a .ui file filled after construction); a host
    // that changes the text later calls it again.
    void configureLink();
    // Where the pointing-hand cursor shows: as wide as the text and centred in the field,
    // whatever the alignment, over the field's whole height.
    QRect cursorArea() const;

public Q_SLOTS:
    // Puts the text, and the link when there is one, on the clipboard.
    void copy();

protected:
    bool event(QEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseDoubleClickEvent(QMouseEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void updateCursor(const QPoint &position);
};
