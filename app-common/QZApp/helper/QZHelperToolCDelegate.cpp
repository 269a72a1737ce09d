#include "QZHelperToolCDelegate.h"

void QZHelperToolCDelegate::helperToolCommand(const std::shared_ptr<QZHelperCommand> &command,
                                              const QString &progress)
{
    if (!m_command->progress)
        return;
    const QByteArray text = progress.toUtf8();
    if (m_command->progress(text.constData(), m_command->context) != 0)
        command->abort();
}
