// Composing a report and handing it to the mail client or saving it, on a thread of its own,
// and the end of a send on the main thread.
#include "QZBugReporter.h"
#include "QZBugReporter_p.h"

#include "QZLocalizedString.h"
#include "QZMainThread.h"
#include "QZThreadProxy.h"

#include <QZMail/QZMailClient.h>

#include <QDateTime>
#include <QGuiApplication>
#include <QMessageBox>
#include <QTextCursor>
#include <QTextDocument>
#include <QWidget>

#include <cmath>
#include <ctime>

namespace QZ::detail {

QString reportTypeName(int type)
{
    switch (type) {
    case 0: return QStringLiteral("Feature Request");
    case 1: return QStringLiteral("Minor Bug");
    case 2: return QStringLiteral("Major Bug");
    case 3: return QStringLiteral("Crasher Bug");
    default: return QStringLiteral("Unknown Bug Type");
    }
}

} // namespace QZ::detail

std::unique_ptr<QTextDocument> QZBugReporter::composeMessage(const QStringList &attachments) const
{
    auto message = std::make_unique<QTextDocument>();
    const QFont systemFont = QGuiApplication::font();
    QTextCharFormat label;
    label.setFontFamilies(systemFont.families());
    label.setFontPointSize(systemFont.pointSizeF());
    label.setFontWeight(QFont::Bold);
    QTextCharFormat body = label;
    body.setFontWeight(QFont::Normal);
    const QTextCharFormat plain;
    QTextCursor cursor(message.get());
    const auto lineBreak = [&cursor, &plain] { cursor.insertText(QStringLiteral("\n"), plain); };

    const QZProductInfo product = productBundle();
    cursor.insertText(QZLocalizedString("Product"), label);
    lineBreak();
    cursor.insertText(QStringLiteral("%1 %2 (%3)").arg(product.name, product.shortVersion, product.version), body);
    lineBreak();
    lineBreak();
    cursor.insertText(QZLocalizedString("Report Type"), label);
    lineBreak();
    cursor.insertText(QZ::detail::reportTypeName(reportType()), body);
    lineBreak();
    const std::pair<const char *, QString> sections[] = {
        { "Short Description", shortDescription() },
        { "Full Description", fullDescription() },
        { "Additional Information", additionalInfo() },
    };
    for (const auto &[title, text] : sections) {
        if (text.isEmpty())
            continue;
        lineBreak();
        cursor.insertText(QZLocalizedString(title), label);
        lineBreak();
        cursor.insertText(text, body);
        lineBreak();
    }
    if (!attachments.isEmpty()) {
        lineBreak();
        cursor.insertText(QZLocalizedString("Attachments"), label);
        lineBreak();
        cursor.insertText(QZLocalizedString("The files attached to this bug report are compressed to minimize storage "
                                            "requirements and for the convenience of users with low-bandwidth Internet "
                                            "connections. If you wish to view them they can be easily expanded using "
                                            "functionality built in to Mac OS X."),
                          body);
        lineBreak();
        lineBreak();
        for (const QString &path : attachments)
            QZ::insertMailAttachment(cursor, path);
        lineBreak();
    }
    return message;
}

void QZBugReporter::sendThreadWithJob(quint32 job)
{
    const QDateTime start = QDateTime::currentDateTimeUtc();
    const QStringList attachments = gatherLogFiles().value_or(QStringList());
    setCurrentStatusFromThread(QZLocalizedString("Finalizing\\U2026"));
    const std::unique_ptr<QTextDocument> message = composeMessage(attachments);

    if (const QString saveName = this->saveName(); !saveName.isNull()) {
        QZ::detail::writeRTFD(*message, saveName);   // a failed write is not reported
        QZ::performOnMainThread([this] { doneSend(); });
        return;
    }
    if (allowTimeToAbort()) {
        // The wait polls: the interval since the start is negative, and a negative sleep
        // returns at once.
        double elapsed = start.msecsTo(QDateTime::currentDateTimeUtc()) / -1000.0;
        while (elapsed > -4.0) {
            double whole = 0;
            const double fraction = std::modf(elapsed, &whole);
            const timespec interval{ static_cast<time_t>(whole), static_cast<long>(fraction * 1000000000.0) };
            nanosleep(&interval, nullptr);
            elapsed = start.msecsTo(QDateTime::currentDateTimeUtc()) / -1000.0;
        }
    }
    doSend(*message, job);
}

void QZBugReporter::doSend(const QTextDocument &message, quint32 job)
{
    if (job != m_currentJob.load())
        return;
    const std::shared_ptr<QZMailClient> client = mailClient();
    std::optional<QZError> error;
    bool done = false;
    if (!client) {
        error = QZError(QZBugReporterErrorDomain, 1);
    } else {
        if (!client->supportsFeature(QZMailClient::ThreadSafe) && !QZ::isMainThread()) {
            QZ::mainThreadProxy(this).call(&QZBugReporter::doSend, message, job);
            return;
        }
        QZBugReporterDelegate *const host = delegate();
        const QVariantMap vendor = host ? host->vendorInfo() : QVariantMap();
        const QZProductInfo product = productBundle();
        QVariantMap headers{
            { QStringLiteral("To"), QStringLiteral("%1 <%2>").arg(vendor.value(QStringLiteral("bugReportEmailName")).toString(),
                                                                  vendor.value(QStringLiteral("bugReportEmailAddress")).toString()) },
            { QStringLiteral("Subject"), QStringLiteral("Bug Report : %1 : %2 (%3)").arg(product.name, product.shortVersion, product.version) },
        };
        if (const QString sender = emailAddress(); !sender.isEmpty())
            headers.insert(QStringLiteral("From"), sender);
        QZError failure;
        if (client->supportsFeature(QZMailClient::ComposesForUser)) {
            done = client->constructMessage(message, headers, &failure);
        } else {
            setCurrentStatusFromThread(QZLocalizedString("Sending\\U2026"));
            if (job != m_currentJob.load())
                return;
            setCanAbort(false);
            done = client->deliverMessage(message, headers, &failure);
        }
        if (!done)
            error = failure;
    }
    // The error crosses as plain characters, so no reference count is shared between threads.
    const bool failed = error.has_value();
    const qint64 code = failed ? error->code() : 0;
    QZ::performOnMainThread([this, failed, code, domain = failed ? error->domain().toStdU16String() : std::u16string(),
                             text = failed ? error->message().toStdU16String() : std::u16string()] {
        sendFinishedWithError(failed ? std::optional<QZError>(QZError(QString::fromStdU16String(domain), code,
                                                                      QString::fromStdU16String(text)))
                                     : std::nullopt);
    });
}

void QZBugReporter::sendFinishedWithError(const std::optional<QZError> &error)
{
    bool handled = false;
    if (QZBugReporterDelegate *const host = delegate())
        handled = host->bugReporterFinishedWithError(error ? &*error : nullptr);
    if (!error) {
        doneSend();
        return;
    }
    if (!handled) {
        QString title;
        QString text;
        if (error->domain() == QZBugReporterErrorDomain && error->code() == 1) {
            title = QZLocalizedString("No e-mail client configured");
            text = QZLocalizedString("%@ cannot send e-mail because there is no configured e-mail client on this "
                                     "machine. Please save the bug report and e-mail it later.");
        } else {
            title = QZLocalizedString("We were unable to send/compose the report.");
            text = QZLocalizedString("There was a problem composing/sending the report. Please contact our support "
                                     "team directly.");
        }
        text.replace(QStringLiteral("%@"), productBundle().name);
        QMessageBox::warning(bugReportPanel(), title, text);
    }
    setBusy(false);
}
