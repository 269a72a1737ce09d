// Copy To…: copies objects into a folder on a thread of its own, with progress and Cancel.
#pragma once

#include <QZApp/QZCondition.h>

#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>

struct copy_file_options;

namespace disktool {

class CopyOperation : public std::enable_shared_from_this<CopyOperation>
{
public:
    struct Progress
    {
        quint64 objects = 0;   // objects offered to the copy so far
        quint64 bytes = 0;     // their data, files only
        QString path;          // the one being copied now
        bool paused = false;   // held at the pause point (see pauseAt)
    };
    struct Result
    {
        bool succeeded = false;
        bool cancelled = false;
        int error = 0;             // errno of the first failing object
        QStringList reportLines;   // the copy's failing steps, innermost first
        QStringList removed;       // what a cancelled copy had created and took away again
    };

    // Copies each of `sources` (recursively, going on past failing entries) into `folder`,
    // under its own name.
    static std::shared_ptr<CopyOperation> create(const QStringList &sources, const QString &folder);

    // Both are called on the main thread, never inside an event; set them before start().
    std::function<void(const Progress &)> onProgress;
    std::function<void(const Result &)> onFinished;

    // Starts the copy on a new thread; the operation keeps itself alive until onFinished ran.
    void start();
    // Refuses every object not yet begun; the file being copied finishes. Once the copy has
    // stopped, everything it created is deleted and what was at the destination before stays.
    void cancel();
    bool isCancelled() const { return m_cancelled; }
    // Holds the copy before object number `objects` (counted from 1) until resume(), after
    // telling onProgress with `paused` set. For screenshots and tests.
    void pauseAt(quint64 objects);
    void resume();
    const QString &folder() const { return m_folder; }

private:
    CopyOperation(const QStringList &sources, const QString &folder);
    static bool filter(void *context, const char *source, const copy_file_options *options, int destinationDevice);
    bool admit(const QString &source);
    void run();
    void postProgress();
    void deliverProgress();
    void deliverResult();
    void removeCreatedObjects();

    const QStringList m_sources;
    const QString m_folder;
    std::shared_ptr<CopyOperation> m_self;   // set while running
    std::atomic<bool> m_cancelled { false };
    std::atomic<bool> m_progressPosted { false };

    QZCondition m_lock;   // guards what follows
    Progress m_progress;
    quint64 m_pauseAt = 0;
    bool m_resumed = false;

    // Copy thread only, until the result is delivered.
    QString m_currentSource, m_currentDestination;
    QStringList m_created;   // destination objects that did not exist before, parents first
    Result m_result;
};

} // namespace disktool
