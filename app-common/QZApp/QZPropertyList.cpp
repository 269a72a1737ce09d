// Converting libplist nodes to QVariant.
#include "QZPropertyList.h"

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

QVariant dictionaryFrom(plist_t node)
{
    QVariantMap map;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(node, &iterator);
    if (!iterator)
        return map;
    for (;;) {
        plist_t value = nullptr;
        plist_dict_next_item(node, iterator, nullptr, &value);   // the key may not be a key node
        if (!value)
            break;
        const plist_t key = plist_dict_item_get_key(value);
        if (!key || plist_get_node_type(key) != PLIST_KEY)
            continue;
        char *text = nullptr;
        plist_get_key_val(key, &text);
        map.insert(QString::fromUtf8(text ? text : ""), variantFromPropertyList(value));
        std::free(text);
    }
    std::free(iterator);
    return map;
}

QVariant arrayFrom(plist_t node)
{
    QVariantList list;
    const uint32_t count = plist_array_get_size(node);
    list.reserve(static_cast<qsizetype>(count));
    for (uint32_t i = 0; i < count; i++)
        list.append(variantFromPropertyList(plist_array_get_item(node, i)));
    return list;
}

} // namespace

QVariant variantFromPropertyList(plist_t node)
{
    if (!node)
        return {};
    switch (plist_get_node_type(node)) {
    case PLIST_DICT:
        return dictionaryFrom(node);
    case PLIST_ARRAY:
        return arrayFrom(node);
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

QVariant propertyListFromFile(const QString &path)
{
    const std::unique_ptr<void, PropertyListDeleter> list(plist_from_file(QFile::encodeName(path).constData()));
    return variantFromPropertyList(static_cast<plist_t>(list.get()));
}

} // namespace QZ
