/* The plain interface used from C: the header compiles as C and a record is filled by hand. */
#include <QZApp/helper/helper_command.h>

#include <string.h>

int32_t c_echo(const char *text, void **reply, uint32_t *length)
{
    const char *argv[] = { "echo" };
    helper_command command = { .argc = 1, .argv = argv, .reply_data = reply, .reply_length = length,
                               .data_length = (uint32_t)strlen(text), .data = text };
    return perform_helper_command(&command);
}
