// Turns a command's progress lines into calls of a helper_command record's callback.
#pragma once

#include <QZApp/QZGlobal.h>
#include <QZApp/helper/QZHelperCommand.h>
#include <QZApp/helper/helper_command.h>

class QZAPP_EXPORT QZHelperToolCDelegate : public QZHelperToolDelegate
{
public:
    // `command` is borrowed: it must outlive every progress line of the command.
    explicit QZHelperToolCDelegate(const helper_command *command) : m_command(command) {}

    // Calls the record's callback with the text in UTF-8 and the record's context; a non-zero
    // result aborts the command.
    void helperToolCommand(const std::shared_ptr<QZHelperCommand> &command, const QString &progress) override;

private:
    const helper_command *m_command;
};
