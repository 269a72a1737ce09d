// Library-internal view of the e-mail lookup: which source answered, and the choice of the
// user-record branch for tests.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QString>

namespace QZ::detail {

struct EmailAddressLookup {
    QString address;   // null when no source answered
    QString source;    // "keyring", "thunderbird", "evolution", "accountsservice", or empty
};

// The lookup behind QZEmailAddressForCurrentUser(), with the source that answered.
QZAPP_EXPORT EmailAddressLookup lookUpEmailAddressForCurrentUser();

// How the user's record is read: chosen by the running system's version (the default), through
// the process's one system-bus connection, or through a fresh connection each call.
enum class UserRecordBranch { BySystemVersion, ProcessConnection, FreshConnection };
QZAPP_EXPORT void setUserRecordBranchForTesting(UserRecordBranch branch);

} // namespace QZ::detail
