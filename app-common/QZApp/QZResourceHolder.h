// Ties the lifetime of a raw resource, or of an object, to a reference-counted holder.
//
// The resource form holds a plain pointer and a C release function; the object form shares
// ownership of an object and calls one of its methods before letting it go. When the last
// reference to the holder goes, or when releaseResource() is called earlier, the resource is
// released exactly once. The holder takes no lock: one thread releases it.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QByteArray>
#include <QObject>

#include <functional>
#include <memory>

class QZAPP_EXPORT QZResourceHolder
{
public:
    using ReleaseFunction = void (*)(void *resource);

    // Resource form: stores both unchanged; the resource is neither copied nor owned otherwise.
    QZResourceHolder(void *resource, ReleaseFunction releaseFunction);
    // Object form: shares ownership of `object` and calls `releaseMethod` on it at release.
    template<typename T>
    QZResourceHolder(std::shared_ptr<T> object, void (T::*releaseMethod)());
    // Object form for a QObject: calls the invokable method or slot named `releaseMethod`
    // (without arguments) at release, then deletes the object. A name the object does not
    // answer is reported through the assertion handler at release time.
    QZResourceHolder(QObject *object, const char *releaseMethod);
    ~QZResourceHolder();
    Q_DISABLE_COPY_MOVE(QZResourceHolder)

    static std::shared_ptr<QZResourceHolder> holderWithResource(void *resource, ReleaseFunction releaseFunction);
    template<typename T>
    static std::shared_ptr<QZResourceHolder> holderWithObject(std::shared_ptr<T> object, void (T::*releaseMethod)());
    static std::shared_ptr<QZResourceHolder> holderWithObject(QObject *object, const char *releaseMethod);

    // Releases the resource now; later calls, and the destructor, do nothing more.
    void releaseResource();
    // The held resource or object; null once released.
    void *resource() const { return m_resource; }

private:
    void releaseQObject(QObject *object);

    void *m_resource = nullptr;
    ReleaseFunction m_releaseFunction = nullptr;       // the resource form
    std::function<void()> m_releaseMethod;             // the object form (holds the object)
    QByteArray m_qobjectMethod;                        // the QObject form's method name
};

template<typename T>
QZResourceHolder::QZResourceHolder(std::shared_ptr<T> object, void (T::*releaseMethod)())
    : m_resource(object.get())
{
    if (object)
        m_releaseMethod = [object = std::move(object), releaseMethod]() mutable {
            ((*object).*releaseMethod)();
            object.reset();
        };
}

template<typename T>
std::shared_ptr<QZResourceHolder> QZResourceHolder::holderWithObject(std::shared_ptr<T> object,
                                                                     void (T::*releaseMethod)())
{
    return std::make_shared<QZResourceHolder>(std::move(object), releaseMethod);
}
