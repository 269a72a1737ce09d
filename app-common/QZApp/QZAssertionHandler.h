// Programming-fault reporting: the per-thread, replaceable assertion handler.
//
// Misuse of the library (relocking a held QZCondition, setting a future twice, a second shared
// helper tool, ...) is reported to the current thread's handler with the method, the object,
// the source unit, the line and a short fixed text. The default handler throws
// QZAssertionFailure; the library itself never catches it.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QString>
#include <stdexcept>

// What the default handler throws. what() reads "METHOD (FILE:LINE): DESCRIPTION".
class QZAPP_EXPORT QZAssertionFailure : public std::logic_error
{
public:
    QZAssertionFailure(const QString &method, const void *object, const QString &file, int line,
                       const QString &description);

    QString method() const { return m_method; }       // e.g. "QZCondition::lock"; empty for a function
    const void *object() const { return m_object; }   // the receiving object; null for a function
    QString file() const { return m_file; }           // source unit, e.g. "app-common/QZApp/QZCondition"
    int line() const { return m_line; }
    QString description() const { return m_description; }   // the fixed text, e.g. "Dead lock!"

private:
    QString m_method;
    const void *m_object;
    QString m_file;
    int m_line;
    QString m_description;
};

// The handler of one thread. Hosts derive from it and install their own with
// setCurrentHandler() to log, abort or throw something else. A handler that returns instead of
// throwing lets the failing operation give up without changing its state.
class QZAPP_EXPORT QZAssertionHandler
{
public:
    QZAssertionHandler() = default;
    virtual ~QZAssertionHandler();
    Q_DISABLE_COPY_MOVE(QZAssertionHandler)

    // The calling thread's handler: the one installed for this thread, else a default one.
    static QZAssertionHandler *currentHandler();
    // Installs a handler for the calling thread (not owned); nullptr restores the default.
    static void setCurrentHandler(QZAssertionHandler *handler);

    // A failed check inside a method of `object`. The default throws QZAssertionFailure.
    virtual void handleFailureInMethod(const char *method, const void *object, const char *file,
                                       int line, const QString &description);
    // A failed check inside a plain function. The default throws QZAssertionFailure.
    virtual void handleFailureInFunction(const char *function, const char *file, int line,
                                         const QString &description);
};

// Always-on fatal assertion: prints the C library's assertion report (expression, function,
// source unit, line) and aborts, in every build type.
[[noreturn]] QZAPP_EXPORT void QZFatalAssertion(const char *expression, const char *file,
                                                 unsigned line, const char *function);

// Checks `condition` inside method `method` of `object` and, when it does not hold, reports the
// failure through the calling thread's handler with the source unit `unit`, the line `line` and
// `description` (a QString expression, evaluated only on failure). Evaluates to the condition,
// so callers can give up: `if (!QZ_CHECK(...)) return;`.
//
// The unit and line are report identifiers, fixed for each check however the code moves: pass
// named constants, never __FILE__ or __LINE__.
#define QZ_CHECK(condition, method, object, unit, line, description)                          \
    ((condition) ? true                                                                       \
                 : (QZAssertionHandler::currentHandler()->handleFailureInMethod(              \
                        (method), (object), (unit), (line), (description)),                   \
                    false))
