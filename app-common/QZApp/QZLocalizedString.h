// User-visible texts, looked up by their English text.
//
// QZLocalizedString(key) asks the application's translators (context "QZApp"). Without a
// translation it falls back to the library's English text, in which keys written with the
// strings-file escape for the ellipsis (the six characters \U2026 at the end, as in
// "Sending\U2026") show a real "…"; any other key is shown as it stands.
#pragma once

#include <QZApp/QZGlobal.h>

#include <QString>

QZAPP_EXPORT QString QZLocalizedString(const char *key);
