// The tool runner's format walk over arbitrary formats: the same count whatever room it is given,
// and, when accepted, one argument for each '%' and only kinds it can step over.
#include "../app-common/QZApp/utils/utils_private.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string format(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    char kinds[64];
    const int count = utils_run_tool_format_walk(format.c_str(), kinds, sizeof kinds);
    if (count != utils_run_tool_format_walk(format.c_str(), nullptr, 0))
        std::abort();
    if (count >= 0 && count != std::count(format.begin(), format.end(), '%'))
        std::abort();
    for (int i = 0; i < count && i < static_cast<int>(sizeof kinds); i++)
        if (!std::strchr("ilqjtzpdD", kinds[i]))
            std::abort();
    return 0;
}
