// The library's console log: one line per event, emitted on Qt's message handler.
//
// Every run-time message of the library ("Unable to locate helper", ...) goes through QZLog as
// an info message of the logging category "qzapp", so a host routes it with
// qInstallMessageHandler or silences it with QT_LOGGING_RULES="qzapp.info=false".
#pragma once

#include <QZApp/QZGlobal.h>

#include <QLoggingCategory>
#include <QString>

QZAPP_EXPORT const QLoggingCategory &qzappLogCategory();

// Writes one line (a trailing newline is not needed) to the console log.
QZAPP_EXPORT void QZLog(const QString &line);
