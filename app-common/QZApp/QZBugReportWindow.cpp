// The report window: loading the "BugReport" form, binding its controls to the reporter's
// properties by object name, the e-mail area, the saved frame and the busy state.
#include "QZBugReporter.h"
#include "QZBugReporter_p.h"

#include "QZAssertionHandler.h"
#include "QZEmailAddress.h"
#include "QZLocalizedString.h"

#include <QZMail/QZMailClient.h>

#include <QAbstractButton>
#include <QCheckBox>
#include <QCloseEvent>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFile>
#include <QFormLayout>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPainter>
#include <QPlainTextEdit>
#include <QScreen>
#include <QSettings>
#include <QShortcut>
#include <QTimer>
#include <QUiLoader>

#include <cmath>

using namespace QZ::detail;

namespace {

const QString kFrameKey = QStringLiteral("Bug Report Panel");

// A spinning progress indicator: twelve spokes, the brightest one turning while it runs.
class QZProgressSpinner : public QWidget
{
public:
    explicit QZProgressSpinner(QWidget *parent) : QWidget(parent)
    {
        setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
        m_timer.setInterval(80);
        QObject::connect(&m_timer, &QTimer::timeout, this, [this] {
            m_step = (m_step + 1) % 12;
            update();
        });
    }
    QSize sizeHint() const override
    {
        const int side = fontMetrics().height() + 2;
        return { side, side };
    }
    void startAnimation() { m_timer.start(); }
    void stopAnimation() { m_timer.stop(); }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const qreal side = std::min(width(), height());
        painter.translate(width() / 2.0, height() / 2.0);
        QColor color = palette().color(QPalette::WindowText);
        for (int i = 0; i < 12; i++) {
            color.setAlphaF(0.15 + 0.85 * ((i + 12 - m_step) % 12 == 0 ? 1.0 : std::pow(0.8, (12 + m_step - i) % 12)));
            painter.setPen(QPen(color, side / 9.0, Qt::SolidLine, Qt::RoundCap));
            painter.drawLine(QPointF(0, side * 0.22), QPointF(0, side * 0.42));
            painter.rotate(30);
        }
    }

private:
    QTimer m_timer;
    int m_step = 0;
};

// The loader, which also makes the spinner.
class Loader : public QUiLoader
{
public:
    QWidget *createWidget(const QString &className, QWidget *parent, const QString &name) override
    {
        if (className == QLatin1String("QZProgressSpinner")) {
            auto *spinner = new QZProgressSpinner(parent);
            spinner->setObjectName(name);
            return spinner;
        }
        return QUiLoader::createWidget(className, parent, name);
    }
};

// The host's form first, else the library's.
QWidget *loadForm()
{
    for (const QString &path : { QStringLiteral(":/BugReport.ui"), QStringLiteral(":/qzapp/BugReport.ui") }) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly))
            continue;
        Loader loader;
        loader.setTranslationEnabled(false);   // every text goes through QZLocalizedString below
        return loader.load(&file);
    }
    return nullptr;
}

QString localized(const QString &text)
{
    return text.isEmpty() ? text : QZLocalizedString(text.toUtf8().constData());
}

} // namespace

QZBugReportWindow::QZBugReportWindow(QZBugReporter *reporter)
    : m_reporter(reporter)
{
    m_window = loadForm();
    if (!m_window)
        return;
    m_progressIndicator = m_window->findChild<QWidget *>(QStringLiteral("progressIndicator"));
    m_emailContainer = m_window->findChild<QWidget *>(QStringLiteral("emailContainer"));
    localize();
    bind();
    m_window->installEventFilter(this);
    auto *escape = new QShortcut(QKeySequence(Qt::Key_Escape), m_window);
    connect(escape, &QShortcut::activated, m_reporter, &QZBugReporter::abort);
    setBusy(false);
}

QZBugReportWindow::~QZBugReportWindow()
{
    delete m_window.data();
}

// Every text of the form, looked up by its English text.
void QZBugReportWindow::localize()
{
    m_window->setWindowTitle(localized(m_window->windowTitle()));
    for (QWidget *widget : m_window->findChildren<QWidget *>()) {
        if (auto *label = qobject_cast<QLabel *>(widget))
            label->setText(localized(label->text()));
        else if (auto *button = qobject_cast<QAbstractButton *>(widget))
            button->setText(localized(button->text()));
        else if (auto *line = qobject_cast<QLineEdit *>(widget))
            line->setPlaceholderText(localized(line->placeholderText()));
        else if (auto *plain = qobject_cast<QPlainTextEdit *>(widget))
            plain->setPlaceholderText(localized(plain->placeholderText()));
        else if (auto *combo = qobject_cast<QComboBox *>(widget))
            for (int i = 0; i < combo->count(); i++)
                combo->setItemText(i, localized(combo->itemText(i)));
        if (!widget->toolTip().isEmpty())
            widget->setToolTip(localized(widget->toolTip()));
    }
}

// Each control named like a property follows it and writes it back; the buttons named like
// the actions run them.
void QZBugReportWindow::bind()
{
    QZBugReporter *r = m_reporter;
    const struct {
        const char *name;
        void (QZBugReporter::*changed)();
    } properties[] = {
        { "shortDescription", &QZBugReporter::shortDescriptionChanged },
        { "fullDescription", &QZBugReporter::fullDescriptionChanged },
        { "additionalInfo", &QZBugReporter::additionalInfoChanged },
        { "emailAddress", &QZBugReporter::emailAddressChanged },
        { "reportType", &QZBugReporter::reportTypeChanged },
        { "omitSystemProfile", &QZBugReporter::omitSystemProfileChanged },
        { "currentStatus", &QZBugReporter::currentStatusChanged },
    };
    for (const auto &[name, changed] : properties) {
        QWidget *control = m_window->findChild<QWidget *>(QLatin1String(name));
        if (!control)
            continue;
        const QByteArray key(name);
        std::function<void()> show;
        if (auto *line = qobject_cast<QLineEdit *>(control)) {
            show = [r, line, key] {
                const QString value = r->property(key).toString();
                if (line->text() != value)
                    line->setText(value);
            };
            connect(line, &QLineEdit::textEdited, r, [r, key](const QString &text) { r->setProperty(key, text); });
        } else if (auto *plain = qobject_cast<QPlainTextEdit *>(control)) {
            show = [r, plain, key] {
                const QString value = r->property(key).toString();
                if (plain->toPlainText() != value)
                    plain->setPlainText(value);
            };
            connect(plain, &QPlainTextEdit::textChanged, r, [r, plain, key] { r->setProperty(key, plain->toPlainText()); });
        } else if (auto *combo = qobject_cast<QComboBox *>(control)) {
            show = [r, combo, key] { combo->setCurrentIndex(r->property(key).toInt()); };
            connect(combo, &QComboBox::activated, r, [r, key](int index) { r->setProperty(key, index); });
        } else if (auto *button = qobject_cast<QAbstractButton *>(control); button && button->isCheckable()) {
            show = [r, button, key] { button->setChecked(r->property(key).toBool()); };
            connect(button, &QAbstractButton::toggled, r, [r, key](bool on) { r->setProperty(key, on); });
        } else if (auto *label = qobject_cast<QLabel *>(control)) {
            show = [r, label, key] { label->setText(r->property(key).toString()); };
        } else {
            continue;
        }
        connect(r, changed, control, show);
        show();
    }

    const struct {
        const char *name;
        void (QZBugReporter::*action)();
        QDialogButtonBox::ButtonRole role;
    } actions[] = {
        { "send", &QZBugReporter::send, QDialogButtonBox::AcceptRole },
        { "save", &QZBugReporter::save, QDialogButtonBox::ActionRole },
        { "abort", &QZBugReporter::abort, QDialogButtonBox::RejectRole },
    };
    auto *box = m_window->findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"));
    for (const auto &[name, action, role] : actions) {
        auto *button = m_window->findChild<QAbstractButton *>(QLatin1String(name));
        if (!button)
            continue;
        if (box)   // the box orders the buttons as the desktop in use expects
            box->addButton(button, role);
        connect(button, &QAbstractButton::clicked, r, action);
    }

    // The e-mail area's label column as wide as the report's, so the fields line up.
    auto *reportForm = m_window->findChild<QFormLayout *>(QStringLiteral("reportForm"));
    auto *emailForm = m_emailContainer ? qobject_cast<QFormLayout *>(m_emailContainer->layout()) : nullptr;
    if (reportForm && emailForm) {
        int width = 0;
        for (QFormLayout *form : { reportForm, emailForm })
            for (int row = 0; row < form->rowCount(); row++)
                if (QLayoutItem *item = form->itemAt(row, QFormLayout::LabelRole); item && item->widget())
                    width = std::max(width, item->widget()->sizeHint().width());
        for (QFormLayout *form : { reportForm, emailForm })
            for (int row = 0; row < form->rowCount(); row++)
                if (QLayoutItem *item = form->itemAt(row, QFormLayout::LabelRole); item && item->widget())
                    item->widget()->setMinimumWidth(width);
    }
}

void QZBugReportWindow::placeWindow()
{
    const QByteArray frame = QSettings().value(kFrameKey).toByteArray();
    if (!frame.isEmpty() && m_window->restoreGeometry(frame))
        return;
    if (m_window->layout())
        m_window->layout()->activate();
    if (QScreen *screen = m_window->screen()) {
        QRect frameRect = m_window->frameGeometry();
        frameRect.moveCenter(screen->availableGeometry().center());
        m_window->move(frameRect.topLeft());
    }
}

void QZBugReportWindow::setBusy(bool busy)
{
    if (auto *spinner = dynamic_cast<QZProgressSpinner *>(m_progressIndicator.data())) {
        busy ? spinner->startAnimation() : spinner->stopAnimation();
    }
    if (m_progressIndicator) {
        // The indicator keeps its place in the row while hidden, so the status does not jump.
        QSizePolicy policy = m_progressIndicator->sizePolicy();
        policy.setRetainSizeWhenHidden(true);
        m_progressIndicator->setSizePolicy(policy);
        m_progressIndicator->setVisible(busy);
    }
    // The report cannot change while it is gathered and sent; only Abort stays.
    // Text fields turn read-only, so the report stays legible.
    for (const char *name : { "reportType", "shortDescription", "fullDescription", "additionalInfo", "emailAddress",
                              "omitSystemProfile", "send", "save" }) {
        QWidget *control = m_window->findChild<QWidget *>(QLatin1String(name));
        if (auto *line = qobject_cast<QLineEdit *>(control))
            line->setReadOnly(busy);
        else if (auto *plain = qobject_cast<QPlainTextEdit *>(control))
            plain->setReadOnly(busy);
        else if (control)
            control->setEnabled(!busy);
    }
}

void QZBugReportWindow::setEmailAreaShown(bool shown)
{
    if (!m_emailContainer || m_emailContainer->isHidden() != shown)
        return;
    if (m_window->layout())
        m_window->layout()->activate();
    const int height = m_emailContainer->height();
    m_emailContainer->setVisible(shown);
    m_window->resize(m_window->width(), m_window->height() + (shown ? height : -height));
}

bool QZBugReportWindow::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_window) {
        if (event->type() == QEvent::Close && !m_reporter->windowShouldClose()) {
            event->ignore();
            return true;
        }
        if (event->type() == QEvent::Hide)
            QSettings().setValue(kFrameKey, m_window->saveGeometry());
    }
    return QObject::eventFilter(watched, event);
}

// The reporter's window operations

QWidget *QZBugReporter::bugReportPanel() const
{
    return m_window ? m_window->window() : nullptr;
}

void QZBugReporter::showWindow()
{
    if (!m_window || !m_window->window()) {
        m_window = std::make_unique<QZBugReportWindow>(this);
        if (!QZ_CHECK(m_window->window(), "QZBugReporter::showWindow", this, BugReporterReport::kUnit,
                      BugReporterReport::kWindowMissingLine, QStringLiteral("BugReport UI not found!"))) {
            m_window.reset();
            return;
        }
        m_window->placeWindow();
    }
    const std::shared_ptr<QZMailClient> client = mailClient();
    const int features = client ? client->features() : 0;
    if (features & QZMailClient::SenderAddress) {
        if (!m_initialisedEmail) {
            const QString address = QZEmailAddressForCurrentUser();
            if (!address.isNull())
                setEmailAddress(address);
            m_initialisedEmail = true;
        }
        m_window->setEmailAreaShown(true);
    } else {
        m_window->setEmailAreaShown(false);
    }
    QWidget *panel = m_window->window();
    panel->show();
    panel->raise();
    panel->activateWindow();
}

void QZBugReporter::doDefaultBugReport()
{
    if (QWidget *panel = bugReportPanel(); panel && panel->isVisible()) {
        panel->raise();
        panel->activateWindow();
        return;
    }
    setShortDescription(QString());
    setFullDescription(QZLocalizedString(
            "This area is free-format, so you can say what you like, but for bug reports, please ensure that you "
            "supply at least the information requested in the template below:\n\n* 1. What you did\n\nPlease describe "
            "exactly what you did, preferably using step-by-step instructions.\n\n* 2. What happened?\n\nPlease "
            "describe exactly what happened.\n\n* 3. How did this differ from what you expected?\n\nPlease describe "
            "what you expected and/or how the above behaviour differed from your expectations.\n"));
    setReportType(0);
    showWindow();
}
