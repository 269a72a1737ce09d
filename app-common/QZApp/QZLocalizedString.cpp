#include "QZLocalizedString.h"

#include <QCoreApplication>
#include <QHash>

namespace {

// The English texts that differ from their keys on this platform.
// Never destroyed: a detached thread may still look a text up while the process exits.
const QHash<QString, QString> &englishTable()
{
    static const auto *table = new QHash<QString, QString>{
        { QStringLiteral("The files attached to this bug report are compressed to minimize storage requirements and "
                         "for the convenience of users with low-bandwidth Internet connections. If you wish to view "
                         "them they can be easily expanded using functionality built in to Mac OS X."),
          QStringLiteral("The files attached to this bug report are compressed with gzip to minimize storage "
                         "requirements and for the convenience of users with low-bandwidth Internet connections. If "
                         "you wish to view them, open them with your desktop's archive manager, or expand them in a "
                         "terminal with \u201cgunzip FILE.gz\u201d.") },
    };
    return *table;
}

// The English table: the entries above, and as a rule a key whose last six characters are the
// strings-file escape \U2026 displays as its text followed by a real horizontal ellipsis.
QString englishText(const QString &key)
{
    if (const auto found = englishTable().constFind(key); found != englishTable().constEnd())
        return *found;
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
