// Futures: write-once results that one thread resolves and other threads wait on or are told
// about.
//
// A value is a QVariant; an invalid QVariant is "nil", which is a valid result. Futures are
// shared between threads as std::shared_ptr. Delegates are not owned: a delegate must remove
// itself (or outlive the future's resolution) before it is destroyed. Delegates are told on the
// resolving thread, in the order they were added, with the future's own recursive lock held; a
// delegate added after resolution is told at once, on its own thread, outside the lock. The
// value is published before the flag (or count) that makes a future valid, so a thread that
// sees a future valid also sees its value.
//
//     auto answer = QZValueFuture::future();
//     std::thread([answer] { answer->setValue(42); }).detach();
//     answer->value();                        // waits: QVariant(42)
#pragma once

#include <QZApp/QZError.h>
#include <QZApp/QZGlobal.h>

#include <QDateTime>
#include <QList>
#include <QVariant>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

class QZFuture;

// Observer of futures.
class QZAPP_EXPORT QZFutureDelegate
{
public:
    virtual ~QZFutureDelegate();
    // `future` has resolved. Called once per time the delegate was added.
    virtual void didResolveFuture(QZFuture *future) = 0;
};

// The abstract base: the delegate list, waiting and value access.
class QZAPP_EXPORT QZFuture : public std::enable_shared_from_this<QZFuture>
{
public:
    virtual ~QZFuture();
    Q_DISABLE_COPY_MOVE(QZFuture)

    // Observers (duplicates allowed; removal is by identity and removes every entry).
    void addDelegate(QZFutureDelegate *delegate);
    void removeDelegate(QZFutureDelegate *delegate);

    // Blocks until the future is valid.
    void wait();
    // Blocks until the future is valid or the wall clock reaches `date`; ask valid() afterwards.
    void waitUntilDate(const QDateTime &date);

    // True once the future has its value.
    virtual bool valid() const = 0;
    // Waits, then returns the value (an invalid QVariant for nil).
    QVariant value();

protected:
    QZFuture();
    // The value; only meaningful once valid().
    virtual QVariant primitiveValue() const = 0;
    // Tells every delegate, then marks the future resolved. Subclasses call it once, after
    // becoming valid. An exception from a delegate propagates and leaves the future unmarked.
    void didResolve();

    // The future's own lock: guards the delegate list; subclasses use it for their own state.
    mutable std::recursive_mutex m_lock;

private:
    std::vector<QZFutureDelegate *> m_delegates;   // guarded by m_lock
    bool m_resolved = false;                       // guarded by m_lock: delegates were told
    int m_notifying = 0;                           // guarded by m_lock: didResolve is iterating
};

// A future resolved by setting its value once, or by following another value future.
class QZAPP_EXPORT QZValueFuture : public QZFuture, public QZFutureDelegate
{
public:
    QZValueFuture();
    ~QZValueFuture() override;

    // A new unresolved value future.
    static std::shared_ptr<QZValueFuture> future();

    // Resolves the future. A second call reports "Cannot set futures twice!" through the
    // assertion handler (and changes nothing if the handler returns).
    void setValue(const QVariant &value);
    // Follows `other`: this future resolves with its value when it resolves (at once if it
    // already has), unless this one was set first. Following nullptr detaches. Call it from one
    // thread at a time.
    void takeValueFrom(const std::shared_ptr<QZValueFuture> &other);

    bool valid() const override;
    void didResolveFuture(QZFuture *future) override;

protected:
    QVariant primitiveValue() const override;

private:
    // Stores the value and resolves; false (and nothing changed) when already set.
    bool publish(const QVariant &value);

    enum State : int { Unset, Setting, Valid };
    std::atomic<int> m_state { Unset };
    QVariant m_value;                               // written once, before m_state becomes Valid
    std::shared_ptr<QZValueFuture> m_otherFuture;   // the future followed
};

// A future over child futures: it resolves with the first non-nil child value, at once, or
// with nil when every child has resolved with nil. Over no children it is valid at once with
// nil, and never tells its delegates.
class QZAPP_EXPORT QZCompoundFuture : public QZFuture, public QZFutureDelegate
{
public:
    // Observes every child in order; children already resolved are taken at once.
    explicit QZCompoundFuture(const QList<std::shared_ptr<QZFuture>> &children);
    ~QZCompoundFuture() override;

    static std::shared_ptr<QZCompoundFuture> futureWithChildren(const QList<std::shared_ptr<QZFuture>> &children);

    QList<std::shared_ptr<QZFuture>> children() const { return m_children; }
    bool valid() const override;
    void didResolveFuture(QZFuture *child) override;

protected:
    QVariant primitiveValue() const override;

private:
    const QList<std::shared_ptr<QZFuture>> m_children;
    QVariant m_value;                    // guarded by m_lock; final once m_waiting is 0
    std::atomic<int> m_waiting;          // children still awaited
};

// A value future whose value is an error (QZError); nil means success.
class QZAPP_EXPORT QZErrorFuture : public QZValueFuture
{
public:
    static std::shared_ptr<QZErrorFuture> future();

    // Resolves with `error`, or with success (nil) for std::nullopt.
    void setError(const std::optional<QZError> &error);
    // Waits, then: the error, or std::nullopt on success (a value set through setValue() that
    // is not a QZError reads as an empty one).
    std::optional<QZError> error();
    // Waits, then: true when the future resolved with nil.
    bool succeeded();
};

// Blocks threads until a future resolves. Condition 0 means not yet, 1 resolved (for good).
class QZAPP_EXPORT QZFutureSynchronizer : public QZFutureDelegate
{
public:
    // Shares `future` and observes it (a resolved future tells it at once).
    explicit QZFutureSynchronizer(std::shared_ptr<QZFuture> future);
    ~QZFutureSynchronizer() override;
    Q_DISABLE_COPY_MOVE(QZFutureSynchronizer)

    static std::unique_ptr<QZFutureSynchronizer> synchronizerWithFuture(std::shared_ptr<QZFuture> future);

    // Blocks until the future has resolved.
    void wait();
    // Blocks until the future has resolved or the wall clock reaches `date`.
    void waitUntilDate(const QDateTime &date);
    // 1 once told of the resolution, else 0.
    int condition() const;

    void didResolveFuture(QZFuture *future) override;

private:
    friend class QZFuture;
    explicit QZFutureSynchronizer(QZFuture *future);   // for a future the caller keeps alive

    std::shared_ptr<QZFuture> m_retained;
    QZFuture *m_future;
    std::atomic<int> m_condition { 0 };   // a wake word: 0 or 2 unresolved, 1 resolved
};
