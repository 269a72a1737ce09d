// Reading what is available from a descriptor or an I/O device, with read failures returned as
// values rather than thrown or lost.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QByteArray>
#include <QString>

QT_BEGIN_NAMESPACE
class QIODevice;
QT_END_NAMESPACE

namespace QZ {

// Why a read failed: the errno value (0 when the device gave none) and its text.
struct ReadError {
    int code = 0;
    QString description;
};

// One read of what is available on `fileDescriptor`, waiting until something is: for a regular
// file everything from the current position to its end, for a pipe or socket what it holds.
// A read interrupted by a signal is made again. Returns the bytes read, empty (not null) at the
// end of the file; on failure a null QByteArray, with the cause in *error when given.
QZAPP_EXPORT QByteArray availableDataOrError(int fileDescriptor, ReadError *error = nullptr);

// The same for an open QIODevice: a sequential device (process, socket) is waited on until it
// has data or ends; a file is read from its position to its end.
QZAPP_EXPORT QByteArray availableDataOrError(QIODevice *device, ReadError *error = nullptr);

} // namespace QZ
