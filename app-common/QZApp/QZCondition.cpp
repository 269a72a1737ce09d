#include "QZCondition.h"

#include "QZAssertionHandler.h"
#include "QZAssertionReports_p.h"

#include <cmath>
#include <limits>

namespace Report = QZAssertionReport::Condition;

QZCondition::QZCondition()
{
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_cond_init(&m_condition, nullptr);
}

QZCondition::~QZCondition()
{
    if (m_threadWithLock.load(std::memory_order_relaxed) != 0)
        QZFatalAssertion("!thread_with_lock", Report::kUnit, Report::kDestroyedWhileHeldLine,
                         "QZCondition::~QZCondition()");
    pthread_mutex_destroy(&m_mutex);
    pthread_cond_destroy(&m_condition);
}

// Only the calling thread can have stored its own handle, so reading the field without the
// mutex is enough to answer "do I hold it".
bool QZCondition::callerHoldsLock() const
{
    const pthread_t holder = m_threadWithLock.load(std::memory_order_relaxed);
    return holder != 0 && pthread_equal(holder, pthread_self());
}

void QZCondition::lock()
{
    if (!QZ_CHECK(!callerHoldsLock(), "QZCondition::lock", this, Report::kUnit, Report::kLockDeadLockLine,
                  QStringLiteral("Dead lock!")))
        return;
    pthread_mutex_lock(&m_mutex);
    if (!QZ_CHECK(m_threadWithLock.load(std::memory_order_relaxed) == 0, "QZCondition::lock", this, Report::kUnit,
                  Report::kLockAlreadyLockedLine, QStringLiteral("Already locked!"))) {
        pthread_mutex_unlock(&m_mutex);
        return;
    }
    m_threadWithLock.store(pthread_self(), std::memory_order_relaxed);
}

bool QZCondition::tryLock()
{
    if (!QZ_CHECK(!callerHoldsLock(), "QZCondition::tryLock", this, Report::kUnit, Report::kTryLockDeadLockLine,
                  QStringLiteral("Dead lock!")))
        return false;
    if (pthread_mutex_trylock(&m_mutex) != 0)
        return false;
    if (!QZ_CHECK(m_threadWithLock.load(std::memory_order_relaxed) == 0, "QZCondition::tryLock", this, Report::kUnit,
                  Report::kTryLockAlreadyLockedLine, QStringLiteral("Already locked!"))) {
        pthread_mutex_unlock(&m_mutex);
        return false;
    }
    m_threadWithLock.store(pthread_self(), std::memory_order_relaxed);
    return true;
}

void QZCondition::unlock()
{
    if (!QZ_CHECK(callerHoldsLock(), "QZCondition::unlock", this, Report::kUnit, Report::kUnlockNotLockedLine,
                  QStringLiteral("Not locked!")))
        return;
    m_threadWithLock.store(0, std::memory_order_relaxed);
    pthread_mutex_unlock(&m_mutex);
}

void QZCondition::wait()
{
    if (!QZ_CHECK(callerHoldsLock(), "QZCondition::wait", this, Report::kUnit, Report::kWaitNotLockedLine,
                  QStringLiteral("Not locked!")))
        return;
    m_threadWithLock.store(0, std::memory_order_relaxed);
    pthread_cond_wait(&m_condition, &m_mutex);
    QZ_CHECK(m_threadWithLock.load(std::memory_order_relaxed) == 0, "QZCondition::wait", this, Report::kUnit,
             Report::kWaitAlreadyLockedLine, QStringLiteral("Already locked!"));
    m_threadWithLock.store(pthread_self(), std::memory_order_relaxed);
}

bool QZCondition::waitUntilDate(const QDateTime &date)
{
    if (!QZ_CHECK(callerHoldsLock(), "QZCondition::waitUntilDate", this, Report::kUnit,
                  Report::kWaitUntilDateNotLockedLine, QStringLiteral("Not locked!")))
        return false;
    m_threadWithLock.store(0, std::memory_order_relaxed);

    // The fields are crossed on purpose (see the header): the truncated fraction goes in the
    // seconds field and the whole seconds, in nanoseconds, in the other, so the system rejects
    // the deadline and the call returns at once.
    const double t = date.toMSecsSinceEpoch() / 1000.0;
    double whole = 0;
    const double fraction = std::modf(t, &whole);
    const double nanoseconds = whole * 1000000000.0;
    constexpr auto kLongMax = static_cast<double>(std::numeric_limits<long>::max());
    timespec deadline {};
    deadline.tv_sec = static_cast<time_t>(fraction);
    deadline.tv_nsec = (nanoseconds >= -kLongMax && nanoseconds < kLongMax)
            ? static_cast<long>(nanoseconds) : std::numeric_limits<long>::max();
    const bool signalled = pthread_cond_timedwait(&m_condition, &m_mutex, &deadline) == 0;

    QZ_CHECK(m_threadWithLock.load(std::memory_order_relaxed) == 0, "QZCondition::waitUntilDate", this,
             Report::kUnit, Report::kWaitUntilDateAlreadyLockedLine, QStringLiteral("Already locked!"));
    m_threadWithLock.store(pthread_self(), std::memory_order_relaxed);
    return signalled;
}

void QZCondition::signal()
{
    pthread_cond_signal(&m_condition);
}

void QZCondition::broadcast()
{
    pthread_cond_broadcast(&m_condition);
}

void QZCondition::setName(const QString &name)
{
    m_name = name;
}

QString QZCondition::description() const
{
    const QString address = QString::asprintf("%p", static_cast<const void *>(this));
    if (m_name.isNull())
        return QStringLiteral("<QZCondition: %1>").arg(address);
    return QStringLiteral("<QZCondition: %1> '%2'").arg(address, m_name);
}
