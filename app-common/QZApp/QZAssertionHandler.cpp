#include "QZAssertionHandler.h"

/* The guard check is always on: the C library's assertion report, whatever NDEBUG says. */
#undef NDEBUG
#include <assert.h>

namespace {

thread_local QZAssertionHandler *t_installedHandler = nullptr;

QString failureText(const QString &method, const QString &file, int line, const QString &description)
{
    const QString where = QStringLiteral("%1:%2").arg(file).arg(line);
    if (method.isEmpty())
        return QStringLiteral("(%1): %2").arg(where, description);
    return QStringLiteral("%1 (%2): %3").arg(method, where, description);
}

} // namespace

QZAssertionFailure::QZAssertionFailure(const QString &method, const void *object, const QString &file,
                                       int line, const QString &description)
    : std::logic_error(failureText(method, file, line, description).toStdString())
    , m_method(method)
    , m_object(object)
    , m_file(file)
    , m_line(line)
    , m_description(description)
{
}

QZAssertionHandler::~QZAssertionHandler() = default;

QZAssertionHandler *QZAssertionHandler::currentHandler()
{
    if (t_installedHandler)
        return t_installedHandler;
    // One default handler per thread, as the thread's first report creates it.
    thread_local QZAssertionHandler defaultHandler;
    return &defaultHandler;
}

void QZAssertionHandler::setCurrentHandler(QZAssertionHandler *handler)
{
    t_installedHandler = handler;
}

void QZAssertionHandler::handleFailureInMethod(const char *method, const void *object, const char *file,
                                               int line, const QString &description)
{
    throw QZAssertionFailure(QString::fromUtf8(method), object, QString::fromUtf8(file), line, description);
}

void QZAssertionHandler::handleFailureInFunction(const char *function, const char *file, int line,
                                                 const QString &description)
{
    throw QZAssertionFailure(QString::fromUtf8(function), nullptr, QString::fromUtf8(file), line,
                             description);
}

void QZFatalAssertion(const char *expression, const char *file, unsigned line, const char *function)
{
    __assert_fail(expression, file, line, function);
}
