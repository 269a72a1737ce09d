// Converting libplist nodes to QVariant.
#include "QZPropertyList.h"

#include "utils/utils_private.h"

#include <QDateTime>
#include <QFile>
#include <QTimeZone>

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace QZ {
namespace {

// Property-list dates count from 2001-01-01T00:00:00Z.
constexpr qint64 referenceDateInUnixSeconds = 978307200;

struct PropertyListDeleter {
    void operator()(void *node) const { plist_free(static_cast<plist_t>(node)); }
};

// One conversion. It follows the list recursively, but no deeper than the property-list loader
// reads (UTILS_PLIST_DEPTH_MAX): a node built by the caller that is nested deeper makes the
// whole conversion invalid instead of exhausting the stack, here or in the destruction of the
// nested values.
class Conversion {
public:
    QVariant of(plist_t node)
    {
        QVariant value = valueOf(node, 0);
        return tooDeep ? QVariant() : value;
    }

private:
    QVariant valueOf(plist_t node, int depth);
    QVariant dictionaryFrom(plist_t node, int depth);
    QVariant arrayFrom(plist_t node, int depth);

    bool tooDeep = false;
};

QVariant Conversion::dictionaryFrom(plist_t node, int depth)
{
    QVariantMap map;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node, &iterator);
    if (!iterator)
        return map;
    while (!tooDeep) {
        plist_t value = nullptr;
        plist_dict_next_item(node, iterator, nullptr, &value);   // the key may not be a key node
        if (!value)
            break;
        const plist_t key = plist_dict_item_get_key(value);
        if (!key || plist_get_node_type(key) != PLIST_KEY)
            continue;
        char *text = nullptr;
        plist_get_key_val(key, &text);
        map.insert(QString::fromUtf8(text ? text : ""), valueOf(value, depth + 1));
        std::free(text);
    }
    std::free(iterator);
    return map;
}

QVariant Conversion::arrayFrom(plist_t node, int depth)
{
    QVariantList list;
    const uint32_t count = plist_array_get_size(node);
    list.reserve(static_cast<qsizetype>(count));
    for (uint32_t i = 0; i < count && !tooDeep; i++)
        list.append(valueOf(plist_array_get_item(node, i), depth + 1));
    return list;
}

QVariant Conversion::valueOf(plist_t node, int depth)
{
    if (depth > UTILS_PLIST_DEPTH_MAX) {
        tooDeep = true;
        return {};
    }
    switch (plist_get_node_type(node)) {
    case PLIST_DICT:
        return dictionaryFrom(node, depth);
    case PLIST_ARRAY:
        return arrayFrom(node, depth);
    case PLIST_STRING: {
        uint64_t length = 0;
        const char *text = plist_get_string_ptr(node, &length);
        return QString::fromUtf8(text ? text : "", static_cast<qsizetype>(length));
    }
    case PLIST_BOOLEAN: {
        uint8_t value = 0;
        plist_get_bool_val(node, &value);
        return value != 0;
    }
    case PLIST_UINT: {
        // Stored as 64 bits: negative integers come back in two's complement.
        uint64_t value = 0;
        plist_get_uint_val(node, &value);
        return static_cast<qlonglong>(value);
    }
    case PLIST_REAL: {
        double value = 0;
        plist_get_real_val(node, &value);
        return value;
    }
    case PLIST_DATE: {
        int32_t seconds = 0, microseconds = 0;
        plist_get_date_val(node, &seconds, &microseconds);
        const qint64 milliseconds = (referenceDateInUnixSeconds + seconds) * 1000 + microseconds / 1000;
        return QDateTime::fromMSecsSinceEpoch(milliseconds, QTimeZone::utc());
    }
    case PLIST_DATA: {
        uint64_t length = 0;
        const char *bytes = plist_get_data_ptr(node, &length);
        return QByteArray(bytes ? bytes : "", static_cast<qsizetype>(length));
    }
    case PLIST_UID: {
        uint64_t value = 0;
        plist_get_uid_val(node, &value);
        return static_cast<qulonglong>(value);
    }
    default:
        return {};
    }
}

} // namespace

QVariant variantFromPropertyList(plist_t node)
{
    if (!node)
        return {};
    return Conversion().of(node);
}

QVariant propertyListFromFile(const QString &path)
{
    const std::unique_ptr<void, PropertyListDeleter> list(plist_from_file(QFile::encodeName(path).constData()));
    return variantFromPropertyList(static_cast<plist_t>(list.get()));
}

} // namespace QZ
