#include "QZFuture.h"

#include "QZAssertionHandler.h"
#include "QZAssertionReports_p.h"
#include "QZWakeWord_p.h"

#include <algorithm>

QZFutureDelegate::~QZFutureDelegate() = default;

// QZFuture

QZFuture::QZFuture() = default;
QZFuture::~QZFuture() = default;

void QZFuture::addDelegate(QZFutureDelegate *delegate)
{
    if (!delegate)
        return;
    bool resolved = false;
    {
        std::lock_guard guard(m_lock);
        resolved = m_resolved;
        if (!resolved)
            m_delegates.push_back(delegate);
    }
    // Told once, here, on the caller's thread and outside the lock.
    if (resolved)
        delegate->didResolveFuture(this);
}

void QZFuture::removeDelegate(QZFutureDelegate *delegate)
{
    std::lock_guard guard(m_lock);
    if (m_resolved)
        return;
    if (m_notifying) {
        // didResolve is walking the list on this thread (a delegate removes itself or
        // another): blank the entries instead of moving the ones not yet told.
        std::replace(m_delegates.begin(), m_delegates.end(), delegate, static_cast<QZFutureDelegate *>(nullptr));
        return;
    }
    std::erase(m_delegates, delegate);
}

void QZFuture::wait()
{
    if (valid())
        return;
    QZFutureSynchronizer synchronizer(this);
    synchronizer.wait();
}

void QZFuture::waitUntilDate(const QDateTime &date)
{
    if (valid())
        return;
    QZFutureSynchronizer synchronizer(this);
    synchronizer.waitUntilDate(date);
}

QVariant QZFuture::value()
{
    wait();
    // primitiveValue() reads the validity (sequentially consistent) before the value.
    return primitiveValue();
}

void QZFuture::didResolve()
{
    std::lock_guard guard(m_lock);
    if (m_resolved)
        return;
    struct Notifying {
        int &depth;
        explicit Notifying(int &d) : depth(d) { ++depth; }
        ~Notifying() { --depth; }
    } notifying(m_notifying);
    // By index: a delegate may add delegates (this thread holds the recursive lock), and those
    // are told too, in order.
    for (size_t i = 0; i < m_delegates.size(); ++i) {
        if (QZFutureDelegate *delegate = m_delegates[i])
            delegate->didResolveFuture(this);
    }
    std::vector<QZFutureDelegate *>().swap(m_delegates);
    m_resolved = true;
}

// QZValueFuture

QZValueFuture::QZValueFuture() = default;

QZValueFuture::~QZValueFuture()
{
    // The followed future must not tell a destroyed delegate.
    if (m_otherFuture)
        m_otherFuture->removeDelegate(this);
}

std::shared_ptr<QZValueFuture> QZValueFuture::future()
{
    return std::make_shared<QZValueFuture>();
}

bool QZValueFuture::publish(const QVariant &value)
{
    int expected = Unset;
    if (!m_state.compare_exchange_strong(expected, Setting, std::memory_order_acq_rel))
        return false;
    m_value = value;
    // A sequentially consistent store: a full barrier between the value and the flag.
    m_state.store(Valid, std::memory_order_seq_cst);
    didResolve();
    return true;
}

void QZValueFuture::setValue(const QVariant &value)
{
    namespace Report = QZAssertionReport::Future;
    QZ_CHECK(publish(value), "QZValueFuture::setValue", this, Report::kUnit, Report::kSetTwiceLine,
             QStringLiteral("Cannot set futures twice!"));
}

void QZValueFuture::takeValueFrom(const std::shared_ptr<QZValueFuture> &other)
{
    if (other == m_otherFuture)
        return;
    if (m_otherFuture)
        m_otherFuture->removeDelegate(this);
    m_otherFuture = other;
    if (other)
        other->addDelegate(this);   // an already resolved future resolves this one here
}

bool QZValueFuture::valid() const
{
    return m_state.load(std::memory_order_seq_cst) == Valid;
}

QVariant QZValueFuture::primitiveValue() const
{
    return valid() ? m_value : QVariant();
}

void QZValueFuture::didResolveFuture(QZFuture *future)
{
    std::lock_guard guard(m_lock);
    // Set directly first (or being set): the followed value is dropped without complaint.
    if (!valid())
        publish(future->value());
}

// QZCompoundFuture

QZCompoundFuture::QZCompoundFuture(const QList<std::shared_ptr<QZFuture>> &children)
    : m_children(children)
    , m_waiting(static_cast<int>(std::count_if(children.cbegin(), children.cend(),
                                               [](const auto &child) { return child != nullptr; })))
{
    for (const std::shared_ptr<QZFuture> &child : m_children) {
        if (child)
            child->addDelegate(this);
    }
}

QZCompoundFuture::~QZCompoundFuture()
{
    for (const std::shared_ptr<QZFuture> &child : m_children) {
        if (child)
            child->removeDelegate(this);
    }
}

std::shared_ptr<QZCompoundFuture> QZCompoundFuture::futureWithChildren(const QList<std::shared_ptr<QZFuture>> &children)
{
    return std::make_shared<QZCompoundFuture>(children);
}

bool QZCompoundFuture::valid() const
{
    return m_waiting.load(std::memory_order_seq_cst) == 0;
}

QVariant QZCompoundFuture::primitiveValue() const
{
    // Final once valid: no child writes it any more.
    return valid() ? m_value : QVariant();
}

void QZCompoundFuture::didResolveFuture(QZFuture *child)
{
    std::lock_guard guard(m_lock);
    int waiting = m_waiting.load(std::memory_order_relaxed);
    if (waiting == 0)
        return;   // resolved already: later children are ignored
    m_value = child->value();
    // The first non-nil value decides; nil only counts down. The count is stored sequentially
    // consistent: a full barrier after the value.
    waiting = m_value.isValid() ? 0 : waiting - 1;
    m_waiting.store(waiting, std::memory_order_seq_cst);
    if (waiting == 0)
        didResolve();
}

// QZErrorFuture

std::shared_ptr<QZErrorFuture> QZErrorFuture::future()
{
    return std::make_shared<QZErrorFuture>();
}

void QZErrorFuture::setError(const std::optional<QZError> &error)
{
    setValue(error ? error->toVariant() : QVariant());
}

std::optional<QZError> QZErrorFuture::error()
{
    const QVariant result = value();
    if (!result.isValid())
        return std::nullopt;
    return result.value<QZError>();
}

bool QZErrorFuture::succeeded()
{
    return !value().isValid();
}

// QZFutureSynchronizer

QZFutureSynchronizer::QZFutureSynchronizer(std::shared_ptr<QZFuture> future)
    : m_retained(std::move(future))
    , m_future(m_retained.get())
{
    m_future->addDelegate(this);
}

QZFutureSynchronizer::QZFutureSynchronizer(QZFuture *future)
    : m_future(future)
{
    m_future->addDelegate(this);
}

QZFutureSynchronizer::~QZFutureSynchronizer()
{
    // Once told, the future has finished with this delegate (it resolves only once), so the
    // waiter leaves without queueing for the lock the resolving thread may still hold.
    if (!QZ::detail::isWakeWordSet(m_condition))
        m_future->removeDelegate(this);
}

std::unique_ptr<QZFutureSynchronizer> QZFutureSynchronizer::synchronizerWithFuture(std::shared_ptr<QZFuture> future)
{
    return std::make_unique<QZFutureSynchronizer>(std::move(future));
}

void QZFutureSynchronizer::wait()
{
    QZ::detail::waitForWakeWord(m_condition);
}

void QZFutureSynchronizer::waitUntilDate(const QDateTime &date)
{
    // An invalid date is no deadline to wait for: it counts as past.
    QZ::detail::waitForWakeWord(m_condition, date.isValid() ? date.toMSecsSinceEpoch() : 0);
}

int QZFutureSynchronizer::condition() const
{
    return QZ::detail::isWakeWordSet(m_condition) ? 1 : 0;
}

void QZFutureSynchronizer::didResolveFuture(QZFuture *)
{
    QZ::detail::setWakeWord(m_condition);
}
