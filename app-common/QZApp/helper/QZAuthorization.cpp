#include "QZAuthorization.h"

#include "process_start_time.h"

#include <cerrno>
#include <sys/random.h>
#include <unistd.h>

std::shared_ptr<QZAuthorization> QZAuthorization::create()
{
    std::shared_ptr<QZAuthorization> authorization(new QZAuthorization);
    helper_authorization &form = authorization->m_form;
    form.pid = static_cast<int32_t>(getpid());
    form.uid = getuid();
    form.start_time = processStartTime(getpid());
    if (form.start_time == 0)
        return nullptr;
    size_t filled = 0;
    while (filled < sizeof form.nonce) {
        const ssize_t got = getrandom(form.nonce + filled, sizeof form.nonce - filled, 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return nullptr;
        filled += static_cast<size_t>(got);
    }
    return authorization;
}

bool QZAuthorization::isCurrentProcess() const
{
    return m_form.pid == static_cast<int32_t>(getpid());
}

int QZAuthorization::makeExternalForm(helper_authorization *form) const
{
    if (!isCurrentProcess() || m_form.uid != getuid())
        return EPERM;
    *form = m_form;
    return 0;
}

QByteArray QZAuthorization::externalForm() const
{
    helper_authorization form;
    if (makeExternalForm(&form) != 0)
        return QByteArray();
    return QByteArray(reinterpret_cast<const char *>(&form), sizeof form);
}

quint64 QZAuthorization::processStartTime(pid_t pid)
{
    return helper_process_start_time(pid);
}
