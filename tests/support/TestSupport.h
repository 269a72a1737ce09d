// Shared helpers of the test suite.
#pragma once

#include <QZApp/QZAssertionHandler.h>

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QString>
#include <QStringList>
#include <QtMessageHandler>

#include <functional>
#include <mutex>

namespace qztest {

// Runs the main thread's event loop until `done` holds or `milliseconds` pass; true if it held.
inline bool processEventsUntil(const std::function<bool()> &done, int milliseconds = 5000)
{
    QDeadlineTimer deadline(milliseconds);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

// Collects the lines of the library's console log ("qzapp" category) while it lives.
class ConsoleCapture
{
public:
    ConsoleCapture() { s_current = this; m_previous = qInstallMessageHandler(&ConsoleCapture::handle); }
    ~ConsoleCapture() { qInstallMessageHandler(m_previous); s_current = nullptr; }
    QStringList lines() const { std::lock_guard lock(m_mutex); return m_lines; }

private:
    static void handle(QtMsgType, const QMessageLogContext &context, const QString &message)
    {
        if (s_current && context.category && QLatin1String(context.category) == QLatin1String("qzapp")) {
            std::lock_guard lock(s_current->m_mutex);
            s_current->m_lines.append(message);
        }
    }
    static inline ConsoleCapture *s_current = nullptr;
    QtMessageHandler m_previous = nullptr;
    mutable std::mutex m_mutex;
    QStringList m_lines;
};

// Runs `operation` and returns the assertion failure it raised; fails the test if none.
template<typename Operation>
QZAssertionFailure expectAssertion(Operation &&operation)
{
    try {
        operation();
    } catch (const QZAssertionFailure &failure) {
        return failure;
    }
    ADD_FAILURE() << "no assertion failure was raised";
    return QZAssertionFailure(QString(), nullptr, QString(), 0, QString());
}

} // namespace qztest

// Printing Qt strings in gtest messages.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString &string, std::ostream *out) { *out << '"' << string.toStdString() << '"'; }
QT_END_NAMESPACE
