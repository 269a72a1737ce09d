/* The authority check; see authority.h. One system bus connection serves every check; a check
 * whose call fails drops it, and the next check connects again. */
#include "authority.h"

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#ifndef QZHELPER_POLKIT_PREFIX
#define QZHELPER_POLKIT_PREFIX "org.example.disktool.helper"
#endif

/* How long polkit may take, a person who types a password included. */
#define HELPER_AUTHORITY_TIMEOUT_USEC (5ULL * 60 * 1000 * 1000)

/* The flag of CheckAuthorization that lets polkit ask the user through an agent. */
#define HELPER_ALLOW_USER_INTERACTION 1u

static sd_bus *system_bus;

const char *helper_action_id(enum helper_action action)
{
    switch (action) {
    case HELPER_READ_FILE:
        return QZHELPER_POLKIT_PREFIX ".read-file";
    case HELPER_WRITE_FILE:
        return QZHELPER_POLKIT_PREFIX ".write-file";
    case HELPER_OPEN_DEVICE:
        return QZHELPER_POLKIT_PREFIX ".open-device";
    case HELPER_CHANGE_OWNER:
        return QZHELPER_POLKIT_PREFIX ".change-owner";
    case HELPER_DELETE:
        return QZHELPER_POLKIT_PREFIX ".delete";
    case HELPER_CHANGE_ACL:
        return QZHELPER_POLKIT_PREFIX ".change-acl";
    }
    return QZHELPER_POLKIT_PREFIX ".unknown";
}

void helper_authority_close(void)
{
    system_bus = sd_bus_flush_close_unref(system_bus);
}

/* Asks polkitd; 1 when authorised, 0 when not, a negative errno value when it cannot tell. */
static int check_authorization(const struct helper_client *client, const char *action_id)
{
    int result;
    if (!system_bus && (result = sd_bus_open_system(&system_bus)) < 0) {
        system_bus = NULL;
        return result;
    }
    sd_bus_message *call = NULL, *reply = NULL;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int authorized = 0, challenge = 0;
    result = sd_bus_message_new_method_call(system_bus, &call, "org.freedesktop.PolicyKit1",
                                            "/org/freedesktop/PolicyKit1/Authority",
                                            "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization");
    if (result >= 0)
        result = sd_bus_message_append(call, "(sa{sv})sa{ss}us", "unix-process", 3,
                                       "pid", "u", (uint32_t)client->pid,
                                       "start-time", "t", (uint64_t)client->start_time,
                                       "uid", "i", (int32_t)client->uid,
                                       action_id, 0, HELPER_ALLOW_USER_INTERACTION, "");
    if (result >= 0)
        result = sd_bus_call(system_bus, call, HELPER_AUTHORITY_TIMEOUT_USEC, &error, &reply);
    if (result >= 0)
        result = sd_bus_message_enter_container(reply, 'r', "bba{ss}");
    if (result >= 0)
        result = sd_bus_message_read(reply, "bb", &authorized, &challenge);
    if (result < 0) {
        fprintf(stderr, "qzhelper: cannot ask polkit about %s: %s\n", action_id,
                sd_bus_error_is_set(&error) ? error.message : strerror(-result));
        helper_authority_close();
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(call);
    return result < 0 ? result : authorized != 0;
}

int helper_authorize(const struct helper_client *client, enum helper_action action)
{
    if (geteuid() == client->uid)
        return 0;
    return check_authorization(client, helper_action_id(action)) == 1 ? 0 : EACCES;
}
