// Property lists from arbitrary bytes (XML or binary), converted to Qt values.
#include "../app-common/QZApp/utils/utils_private.h"

#include <QZApp/QZPropertyList.h>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    plist_t list = utils_plist_from_memory(reinterpret_cast<const char *>(data), size);
    if (list) {
        QZ::variantFromPropertyList(list);
        plist_free(list);
    }
    return 0;
}
