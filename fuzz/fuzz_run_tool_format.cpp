// The tool runner's format walk over arbitrary formats: it never reads past the format, agrees
// with itself whatever room it is given, and accepts only formats whose every '%' starts a
// conversion it can step over. Nothing is ever started.
#include "../app-common/QZApp/utils/utils_private.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string format(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
    char kinds[64];
    const int count = utils_run_tool_format_walk(format.c_str(), kinds, sizeof kinds);
    const int again = utils_run_tool_format_walk(format.c_str(), nullptr, 0);
    if (count != again)
        std::abort();
    if (count < 0)
        return 0;
    // Each conversion consumes exactly one argument, so there are no more than the '%' signs.
    size_t percents = 0;
    for (const char c : format)
        percents += c == '%';
    if (static_cast<size_t>(count) != percents)
        std::abort();
    for (int i = 0; i < count && i < static_cast<int>(sizeof kinds); i++)
        if (!std::strchr("ilqjtzpdD", kinds[i]))
            std::abort();
    return 0;
}
