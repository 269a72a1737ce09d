// One read of what is available, retried on EINTR; other failures become a ReadError.
#include "QZFileHandleExtensions.h"

#include <QIODevice>

#include <cerrno>
#include <cstring>

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QZ {
namespace {

constexpr qsizetype defaultReadSize = 64 * 1024;

QByteArray failed(ReadError *error, int code, const QString &description)
{
    if (error)
        *error = { code, description };
    return QByteArray();
}

// How much a single read should ask for: the rest of a regular file, what a pipe or socket
// holds, and at least a default amount so that waiting for data reads something useful.
qsizetype readSizeFor(int fileDescriptor)
{
    struct stat status;
    if (fstat(fileDescriptor, &status) == 0 && S_ISREG(status.st_mode)) {
        const off_t position = lseek(fileDescriptor, 0, SEEK_CUR);
        if (position >= 0 && status.st_size > position)
            return static_cast<qsizetype>(status.st_size - position);
        return defaultReadSize;
    }
    int pending = 0;
    if (ioctl(fileDescriptor, FIONREAD, &pending) == 0 && pending > defaultReadSize)
        return pending;
    return defaultReadSize;
}

} // namespace

QByteArray availableDataOrError(int fileDescriptor, ReadError *error)
{
    QByteArray data(readSizeFor(fileDescriptor), Qt::Uninitialized);
    ssize_t got;
    do
        got = ::read(fileDescriptor, data.data(), static_cast<size_t>(data.size()));
    while (got < 0 && errno == EINTR);
    if (got < 0) {
        const int code = errno;
        return failed(error, code, QString::fromLocal8Bit(std::strerror(code)));
    }
    data.resize(got);
    if (data.isNull())
        data = QByteArray("", 0);
    return data;
}

QByteArray availableDataOrError(QIODevice *device, ReadError *error)
{
    if (!device || !device->isReadable())
        return failed(error, EBADF, device ? device->errorString() : QString::fromLocal8Bit(std::strerror(EBADF)));
    qint64 size;
    if (device->isSequential()) {
        if (device->bytesAvailable() == 0)
            device->waitForReadyRead(-1);
        size = device->bytesAvailable();   // still none: the device has ended
    } else {
        size = device->size() - device->pos();
    }
    QByteArray data(static_cast<qsizetype>(size > 0 ? size : 0), Qt::Uninitialized);
    if (size > 0) {
        const qint64 got = device->read(data.data(), size);
        if (got < 0)
            return failed(error, 0, device->errorString());
        data.resize(static_cast<qsizetype>(got));
    }
    if (data.isNull())
        data = QByteArray("", 0);
    return data;
}

} // namespace QZ
