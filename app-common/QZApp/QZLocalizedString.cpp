#include "QZLocalizedString.h"

#include <QCoreApplication>

namespace {

// The English table as a rule: a key whose last six characters are the strings-file escape
// \U2026 displays as its text followed by a real horizontal ellipsis.
QString englishText(const QString &key)
{
    static const QString escape = QStringLiteral("\\U2026");
    if (!key.endsWith(escape))
        return key;
    return key.chopped(escape.size()) + QChar(0x2026);
}

} // namespace

QString QZLocalizedString(const char *key)
{
    const QString source = QString::fromUtf8(key);
    const QString translated = QCoreApplication::translate("QZApp", key);
    if (translated != source)
        return translated;
    return englishText(source);
}
