// QZLinkField with real input on the offscreen platform, where window activation is deterministic.
#include <QZApp/QZLinkField.h>

#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QFile>
#include <QFontDatabase>
#include <QMenu>
#include <QMimeData>
#include <QTemporaryDir>
#include <QTest>
#include <QVBoxLayout>

#include <cmath>

namespace {

TEST(LinkFieldTest, MakesTheLinkFromTheText)
{
    const struct {
        const char *text, *link;   // empty: no link
    } cases[] = {
        { "www.example.org", "http://www.example.org" },                 // a bare host name
        { "example.org/disktool/help", "http://example.org/disktool/help" },   // a host and a path
        { "support@example.org", "mailto:support@example.org" },         // "@" without ":"
        { "https://example.org/a", "https://example.org/a" },            // a scheme: as it stands
        { "mailto:me@example.org", "mailto:me@example.org" },            // ":" wins over "@"
        { "secure.example.org", "http://secure.example.org" },           // no secure scheme
        { "two words", "" },                                             // not a valid URL
        { "a@b c", "" },
    };
    for (const auto &c : cases) {
        QZLinkField field(QString::fromUtf8(c.text));
        EXPECT_EQ(field.url().toString(QUrl::FullyEncoded), QString::fromUtf8(c.link)) << c.text;
        EXPECT_EQ(field.url().isValid(), *c.link != '\0') << c.text;
    }
}

TEST(LinkFieldTest, LooksLikeALinkAndCannotBeSelected)
{
    QZLinkField field(QStringLiteral("www.example.org"));
    field.setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    const QFont system = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    EXPECT_EQ(field.font().pointSize(), int(std::floor(system.pointSizeF())));
    EXPECT_EQ(field.font().family(), system.family());
    EXPECT_TRUE(field.font().underline());
    EXPECT_EQ(field.palette().color(QPalette::Active, QPalette::WindowText), QColor(Qt::blue));
    EXPECT_EQ(field.palette().color(QPalette::Inactive, QPalette::WindowText), QColor(Qt::blue));
    EXPECT_EQ(field.textInteractionFlags(), Qt::NoTextInteraction);
    EXPECT_EQ(field.alignment(), Qt::AlignRight | Qt::AlignVCenter);

    // Drawn in blue, one pixel above where a plain label puts the same text.
    field.resize(200, 30);
    QLabel plain(field.text());
    plain.setFont(field.font());
    plain.setAlignment(field.alignment());
    plain.resize(field.size());
    auto firstInkRow = [](const QImage &image, auto isInk) {
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                if (isInk(image.pixelColor(x, y)))
                    return y;
        return -1;
    };
    const int linkTop = firstInkRow(field.grab().toImage(), [](QColor c) { return c.blue() > 200 && c.red() < 60 && c.green() < 60; });
    const int plainTop = firstInkRow(plain.grab().toImage(), [](QColor c) { return c.lightness() < 60; });
    ASSERT_GE(linkTop, 0);
    EXPECT_EQ(linkTop, plainTop - 1);

    // Changing the text keeps the appearance until the host restyles.
    field.setTextFormat(Qt::RichText);   // as a host might do after the fact
    field.setText(QStringLiteral("<b>x</b>@example.org"));
    EXPECT_EQ(field.textFormat(), Qt::RichText);
    field.configureLink();
    EXPECT_EQ(field.textFormat(), Qt::PlainText);
}

// The pointing hand covers the text's width centred in the field, whatever the alignment: for
// left-aligned narrow text, the middle of the field and not the text itself.
TEST(LinkFieldTest, TheHandCoversTheCentreOfTheField)
{
    QWidget window;
    auto *field = new QZLinkField(QStringLiteral("a.org"), &window);
    field->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    field->setGeometry(0, 0, 400, 30);
    window.resize(400, 30);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const int textWidth = field->fontMetrics().horizontalAdvance(field->text());
    ASSERT_LT(textWidth, 100);

    EXPECT_EQ(field->cursorArea(), QRect((400 - textWidth) / 2, 0, textWidth, 30));
    QTest::mouseMove(field, QPoint(200, 15));
    EXPECT_EQ(field->cursor().shape(), Qt::PointingHandCursor);
    for (const int x : { 2, 200 + textWidth }) {   // over the drawn text, and right of the area
        QTest::mouseMove(field, QPoint(x, 15));
        EXPECT_NE(field->cursor().shape(), Qt::PointingHandCursor) << x;
    }
}

// Puts a recording xdg-open first on PATH, once (the platform looks the opener up once per
// process), and returns what it has been asked to open.
QString opened()
{
    static const QString log = [] {
        static QTemporaryDir folder;
        QFile script(folder.path() + QStringLiteral("/xdg-open"));
        EXPECT_TRUE(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\nprintf '%s\\n' \"$*\" >> \"" + QFile::encodeName(folder.path()) + "/opened\"\n");
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("PATH", QFile::encodeName(folder.path()) + ':' + qgetenv("PATH"));
        for (const char *name : { "BROWSER", "DEFAULT_BROWSER", "XDG_CURRENT_DESKTOP", "DESKTOP_SESSION", "KDE_FULL_SESSION",
                                  "GNOME_DESKTOP_SESSION_ID" })
            qunsetenv(name);
        return folder.path() + QStringLiteral("/opened");
    }();
    QFile file(log);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
}

// Two windows: the field's, and another to take activation away from it.
struct TwoWindows {
    QWidget fieldWindow, other;
    QZLinkField *field;
    explicit TwoWindows(const QString &text)
    {
        fieldWindow.setWindowTitle(QStringLiteral("field"));
        field = new QZLinkField(text, &fieldWindow);
        auto *layout = new QVBoxLayout(&fieldWindow);
        layout->addWidget(field);
        fieldWindow.setGeometry(50, 50, 300, 80);
        other.setGeometry(400, 50, 200, 80);
        fieldWindow.show();
        other.show();
    }
    bool activate(QWidget *window)
    {
        window->activateWindow();
        return QTest::qWaitForWindowActive(window);
    }
    QPoint centre() const { return field->cursorArea().center(); }
};

TEST(LinkFieldTest, ALeftClickOpensTheLinkOnceItsWindowIsActive)
{
    EXPECT_EQ(opened(), QString());
    TwoWindows windows(QStringLiteral("support@example.org"));
    ASSERT_TRUE(windows.activate(&windows.other));
    QTest::mouseClick(windows.field, Qt::LeftButton, {}, windows.centre());   // only activates the window
    EXPECT_TRUE(QTest::qWaitForWindowActive(&windows.fieldWindow));
    QTest::qWait(300);
    EXPECT_EQ(opened(), QString());
    QTest::mouseClick(windows.field, Qt::LeftButton, {}, windows.centre());
    EXPECT_TRUE(QTest::qWaitFor([&] { return !opened().isEmpty(); }, 5000));
    EXPECT_EQ(opened(), QStringLiteral("mailto:support@example.org"));
}

// Copy, from a right-click on the field while its window is inactive, puts the text and the
// link, if there is one, on the clipboard; every field shares one menu.
TEST(LinkFieldTest, CopyPutsTheTextAndTheLinkOnTheClipboard)
{
    QMenu *shared = nullptr;
    for (const auto &[text, link] : { std::pair { "www.example.org", "http://www.example.org" }, std::pair { "two words", "" } }) {
        TwoWindows windows(QString::fromUtf8(text));
        EXPECT_EQ(windows.field->contextMenuPolicy(), Qt::PreventContextMenu);
        ASSERT_TRUE(windows.activate(&windows.other));
        QGuiApplication::clipboard()->clear();
        QTest::mousePress(windows.field, Qt::RightButton, {}, windows.centre());
        QMenu *menu = QZLinkField::menu();
        ASSERT_TRUE(menu->isVisible());   // at once, without activating the field's window first
        ASSERT_EQ(menu->actions().size(), 1);
        QAction *copy = menu->actions().first();
        EXPECT_EQ(copy->text(), QStringLiteral("Copy"));
        EXPECT_TRUE(copy->shortcut().isEmpty());
        QTest::mouseRelease(windows.field, Qt::RightButton, {}, windows.centre());
        ASSERT_TRUE(QTest::qWaitForWindowExposed(menu));
        QTest::mouseClick(menu, Qt::LeftButton, {}, menu->actionGeometry(copy).center());
        EXPECT_TRUE(QTest::qWaitFor([&] { return !menu->isVisible(); }, 2000));
        EXPECT_EQ(menu, shared ? shared : menu);
        shared = menu;
        const QMimeData *data = QGuiApplication::clipboard()->mimeData();
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(data->text(), QString::fromUtf8(text));
        EXPECT_EQ(data->urls(), *link ? QList<QUrl> { QUrl(QString::fromUtf8(link)) } : QList<QUrl>()) << text;
    }
}

} // namespace
