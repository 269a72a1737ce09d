#include "QZConsoleLog.h"

Q_LOGGING_CATEGORY(lcQZApp, "qzapp")

const QLoggingCategory &qzappLogCategory()
{
    return lcQZApp();
}

void QZLog(const QString &line)
{
    qCInfo(lcQZApp).noquote() << line;
}
