#include "ErrorCapture.h"

#include <QByteArray>
#include <QString>

#include <cerrno>
#include <cstdio>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

namespace disktool {

QStringList captureStandardError(const std::function<void()> &work)
{
    int pipeEnds[2];
    std::fflush(stderr);
    const int saved = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    if (saved < 0 || pipe2(pipeEnds, O_CLOEXEC) < 0) {
        if (saved >= 0)
            close(saved);
        work();   // nothing can be captured: the lines stay on standard error
        return {};
    }
    QByteArray text;
    // The reader drains the pipe while the work writes, so a long report never blocks it.
    std::thread reader([&text, readEnd = pipeEnds[0]] {
        char buffer[4096];
        for (;;) {
            const ssize_t count = read(readEnd, buffer, sizeof buffer);
            if (count > 0)
                text.append(buffer, count);
            else if (count == 0 || errno != EINTR)
                break;
        }
    });
    dup2(pipeEnds[1], STDERR_FILENO);
    close(pipeEnds[1]);
    work();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);   // the last write end goes: the reader sees the end
    close(saved);
    reader.join();
    close(pipeEnds[0]);
    QStringList lines = QString::fromLocal8Bit(text).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return lines;
}

} // namespace disktool
