#include "CopyOperation.h"

#include "ErrorCapture.h"

#include <QZApp/QZApplication.h>
#include <QZApp/QZThreadProxy.h>
#include <QZApp/utils.h>

#include <QFileInfo>
#include <QSet>

#include <cerrno>

#include <sys/stat.h>

namespace disktool {

std::shared_ptr<CopyOperation> CopyOperation::create(const QStringList &sources, const QString &folder)
{
    return std::shared_ptr<CopyOperation>(new CopyOperation(sources, folder));
}

CopyOperation::CopyOperation(const QStringList &sources, const QString &folder)
    : m_sources(sources), m_folder(folder)
{
    m_lock.setName(QStringLiteral("Copy progress"));
}

void CopyOperation::start()
{
    m_self = shared_from_this();
    QZ::createThreadProxy(this).call(&CopyOperation::run);
}

void CopyOperation::cancel()
{
    m_cancelled = true;
    resume();
}

void CopyOperation::pauseAt(quint64 objects)
{
    m_lock.lock();
    m_pauseAt = objects;
    m_resumed = false;
    m_lock.unlock();
}

void CopyOperation::resume()
{
    m_lock.lock();
    m_resumed = true;
    m_lock.unlock();
    m_lock.broadcast();
}

bool CopyOperation::filter(void *context, const char *source, const copy_file_options *, int)
{
    return static_cast<CopyOperation *>(context)->admit(QString::fromLocal8Bit(source));
}

// Called by the copy before each object: counts it, notes whether its destination is new, and
// refuses it once the copy is cancelled.
bool CopyOperation::admit(const QString &source)
{
    if (m_cancelled)
        return false;
    struct stat status;
    const QByteArray sourcePath = source.toLocal8Bit();
    const quint64 bytes = lstat(sourcePath.constData(), &status) == 0 && S_ISREG(status.st_mode)
            ? quint64(status.st_size) : 0;

    m_lock.lock();
    ++m_progress.objects;
    m_progress.bytes += bytes;
    m_progress.path = source;
    const bool pause = m_pauseAt != 0 && m_progress.objects == m_pauseAt;
    m_progress.paused = pause;
    m_lock.unlock();
    postProgress();
    if (pause) {
        m_lock.lock();
        while (!m_resumed)
            m_lock.wait();
        m_progress.paused = false;
        m_lock.unlock();
        if (m_cancelled)
            return false;
    }

    const QString destination = m_currentDestination + source.mid(m_currentSource.size());
    struct stat existing;
    if (lstat(destination.toLocal8Bit().constData(), &existing) < 0 && errno == ENOENT)
        m_created.append(destination);
    return true;
}

void CopyOperation::run()
{
    copy_file_options options {};
    options.flags = COPY_FILE_RECURSIVE | COPY_FILE_KEEP_GOING;
    options.context = this;
    options.filter = &CopyOperation::filter;
    m_result.reportLines = captureStandardError([&] {
        for (const QString &source : m_sources) {
            if (m_cancelled)
                break;
            m_currentSource = source;
            m_currentDestination = m_folder + QLatin1Char('/') + QFileInfo(source).fileName();
            if (!copy_file(source.toLocal8Bit().constData(), m_currentDestination.toLocal8Bit().constData(), &options)
                && m_result.error == 0)
                m_result.error = errno;
        }
    });
    m_result.cancelled = m_cancelled;
    m_result.succeeded = m_result.error == 0 && !m_cancelled;
    if (m_cancelled)
        removeCreatedObjects();
    QZ::safeMainThreadProxy(this).call(&CopyOperation::deliverResult);
}

// Deletes what this copy created: each new object that is not inside another new one (a new
// folder holds nothing that was there before, so it goes as a whole).
void CopyOperation::removeCreatedObjects()
{
    QSet<QString> created(m_created.cbegin(), m_created.cend());
    for (auto it = m_created.crbegin(); it != m_created.crend(); ++it) {
        bool insideCreated = false;
        for (QString parent = QFileInfo(*it).path(); parent.size() > m_folder.size(); parent = QFileInfo(parent).path()) {
            if (created.contains(parent)) {
                insideCreated = true;
                break;
            }
        }
        if (insideCreated)
            continue;
        if (delete_file_object(it->toLocal8Bit().constData()) == 0 || errno == ENOENT)
            m_result.removed.prepend(*it);
    }
}

void CopyOperation::postProgress()
{
    // One notice on its way at a time: the main thread reads the latest figures when it runs.
    if (!m_progressPosted.exchange(true))
        QZ::safeMainThreadProxy(this).call(&CopyOperation::deliverProgress);
}

void CopyOperation::deliverProgress()
{
    m_progressPosted = false;
    m_lock.lock();
    const Progress progress = m_progress;
    m_lock.unlock();
    if (onProgress)
        onProgress(progress);
}

void CopyOperation::deliverResult()
{
    auto self = std::move(m_self);   // the last notice: the operation may go once it has run
    m_lock.lock();
    const Progress progress = m_progress;
    m_lock.unlock();
    if (onProgress)
        onProgress(progress);
    if (onFinished)
        onFinished(m_result);
}

} // namespace disktool
