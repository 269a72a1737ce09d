#include "QZResourceHolder.h"

#include "QZAssertionHandler.h"
#include "QZAssertionReports_p.h"

#include <QMetaObject>

QZResourceHolder::QZResourceHolder(void *resource, ReleaseFunction releaseFunction)
    : m_resource(resource)
    , m_releaseFunction(releaseFunction)
{
}

QZResourceHolder::QZResourceHolder(QObject *object, const char *releaseMethod)
    : m_resource(object)
    , m_qobjectMethod(releaseMethod)
{
}

QZResourceHolder::~QZResourceHolder()
{
    releaseResource();
}

std::shared_ptr<QZResourceHolder> QZResourceHolder::holderWithResource(void *resource,
                                                                      ReleaseFunction releaseFunction)
{
    return std::make_shared<QZResourceHolder>(resource, releaseFunction);
}

std::shared_ptr<QZResourceHolder> QZResourceHolder::holderWithObject(QObject *object, const char *releaseMethod)
{
    return std::make_shared<QZResourceHolder>(object, releaseMethod);
}

// The function form wins whenever a function is present; the method is consulted only when
// there is none.
void QZResourceHolder::releaseResource()
{
    void *resource = std::exchange(m_resource, nullptr);
    if (!resource)
        return;
    if (m_releaseFunction)
        m_releaseFunction(resource);
    else if (m_releaseMethod)
        std::exchange(m_releaseMethod, nullptr)();
    else
        releaseQObject(static_cast<QObject *>(resource));
}

void QZResourceHolder::releaseQObject(QObject *resource)
{
    std::unique_ptr<QObject> object(resource);
    namespace Report = QZAssertionReport::ResourceHolder;
    QZ_CHECK(QMetaObject::invokeMethod(object.get(), m_qobjectMethod.constData(), Qt::DirectConnection),
             "QZResourceHolder::releaseResource", this, Report::kUnit, Report::kUnrecognizedMethodLine,
             QStringLiteral("unrecognized method %1 sent to an instance of %2")
                     .arg(QString::fromLatin1(m_qobjectMethod),
                          QString::fromLatin1(object->metaObject()->className())));
}
