/* The plain interface used from C: the header compiles as C and a record is filled by hand. */
#include <QZApp/helper/helper_command.h>

#include <string.h>

int32_t c_echo(const char *text, void **reply, uint32_t *length)
{
    const char *argv[] = { "echo" };
    helper_command command;
    memset(&command, 0, sizeof(command));
    command.argc = 1;
    command.argv = argv;
    command.reply_data = reply;
    command.reply_length = length;
    command.data = text;
    command.data_length = (uint32_t)strlen(text);
    return perform_helper_command(&command);
}
