/* The D-Bus side of helper_polkit_bench: a service on the system bus whose method Chown(path)
 * asks polkitd whether its caller may change owners (the caller's bus name as the subject, as
 * system services do), then gives the file to user and group 65534. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

int polkit_bench_server(const char *action_id);

static const char *checked_action;

static int method_chown(sd_bus_message *message, void *userdata, sd_bus_error *error)
{
    (void)userdata;
    const char *path;
    int result = sd_bus_message_read(message, "s", &path);
    if (result < 0)
        return result;
    sd_bus_message *reply = NULL;
    int authorized = 0, challenge = 0;
    result = sd_bus_call_method(sd_bus_message_get_bus(message), "org.freedesktop.PolicyKit1",
                                "/org/freedesktop/PolicyKit1/Authority", "org.freedesktop.PolicyKit1.Authority",
                                "CheckAuthorization", error, &reply, "(sa{sv})sa{ss}us", "system-bus-name", 1,
                                "name", "s", sd_bus_message_get_sender(message), checked_action, 0, 1u, "");
    if (result >= 0 && (result = sd_bus_message_enter_container(reply, 'r', "bba{ss}")) >= 0)
        result = sd_bus_message_read(reply, "bb", &authorized, &challenge);
    sd_bus_message_unref(reply);
    if (result < 0)
        return result;
    if (!authorized)
        return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "not authorised");
    const int status = fchownat(AT_FDCWD, path, 65534, 65534, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : errno;
    return sd_bus_reply_method_return(message, "i", status);
}

static const sd_bus_vtable bench_vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Chown", "s", "i", method_chown, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END
};

int polkit_bench_server(const char *action_id)
{
    checked_action = action_id;
    sd_bus *bus = NULL;
    int result = sd_bus_open_system(&bus);
    if (result >= 0)
        result = sd_bus_add_object_vtable(bus, NULL, "/org/qzapp/bench", "org.qzapp.bench.Checked", bench_vtable, NULL);
    if (result >= 0)
        result = sd_bus_request_name(bus, "org.qzapp.bench", 0);
    while (result >= 0) {
        result = sd_bus_process(bus, NULL);
        if (result == 0)
            result = sd_bus_wait(bus, UINT64_MAX);
    }
    fprintf(stderr, "helper_polkit_bench: the D-Bus service stopped: %s\n", strerror(-result));
    sd_bus_flush_close_unref(bus);
    return 1;
}
