// Property lists as Qt values: a libplist node, or a file read with plist_from_file(),
// converted to QVariant.
//
// Dictionaries become QVariantMap, arrays QVariantList, strings QString, integers qlonglong,
// reals double, booleans bool, dates QDateTime (UTC), data QByteArray, and the keyed-archive
// identifiers (UIDs) quint64.
#pragma once

#include <QZApp/QZGlobal.h>
#include <QZApp/utils.h>

#include <QString>
#include <QVariant>

namespace QZ {

// The value of `node` and everything beneath it; an invalid QVariant for a null node and for one
// with anything nested more than 512 levels beneath it (as plist_from_file() never reads).
QZAPP_EXPORT QVariant variantFromPropertyList(plist_t node);

// The property list in the file at `path` (XML or binary); an invalid QVariant when the file
// cannot be read or holds anything else.
QZAPP_EXPORT QVariant propertyListFromFile(const QString &path);

} // namespace QZ
