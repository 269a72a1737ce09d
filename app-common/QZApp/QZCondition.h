// A non-recursive mutex joined to one condition variable, which knows the thread holding it.
//
// Misuse is reported through the current QZAssertionHandler: "Dead lock!" when the holder locks
// again (tested before blocking), "Not locked!" when a thread that does not hold the lock
// unlocks or waits, "Already locked!" when the holder field is found set after acquiring.
// Destroying a held lock aborts the process. If a host's handler returns instead of throwing,
// the operation gives up without touching the lock.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QDateTime>
#include <QString>

#include <atomic>
#include <pthread.h>

class QZAPP_EXPORT QZCondition
{
public:
    QZCondition();
    ~QZCondition();
    Q_DISABLE_COPY_MOVE(QZCondition)

    // Locking
    void lock();
    bool tryLock();   // one attempt; false at once when busy
    void unlock();

    // Waiting (the caller must hold the lock; callers re-test their own predicate on return)
    void wait();
    // The deadline is built with the whole seconds scaled into the nanoseconds field, which the
    // system rejects; so the call never sleeps and returns false with the lock held again. This
    // is deliberate and relied on. Callers that need a real timed wait use a future.
    bool waitUntilDate(const QDateTime &date);

    // Waking (with or without the lock held)
    void signal();
    void broadcast();

    // Naming, for description() only
    void setName(const QString &name);
    QString name() const { return m_name; }
    // "<QZCondition: 0x...>" or "<QZCondition: 0x...> 'name'"
    QString description() const;

private:
    bool callerHoldsLock() const;

    pthread_mutex_t m_mutex;
    pthread_cond_t m_condition;
    QString m_name;
    std::atomic<pthread_t> m_threadWithLock { 0 };   // 0 while nobody holds the mutex
};
