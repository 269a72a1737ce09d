// The current user's e-mail address, as the user's own records hold it.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QString>

// The most likely e-mail address of the user running the program, or a null string. Asks, in
// order: the Secret Service for a saved web login to the host named by the setting
// "QZApp/webLoginHost" (only the item's "user" attribute is read, and only from an unlocked
// item); the user's mail program's accounts (Thunderbird, then Evolution); the user's
// AccountsService record. The first answer is returned exactly as its source holds it.
// Never asks the user, never unlocks a keyring, bounds every D-Bus call to a few seconds.
// Meant for the main thread.
QZAPP_EXPORT QString QZEmailAddressForCurrentUser();
