// The reference helper's line splitter: it accepts exactly the lines that argument quoting
// produces, so a line it accepts is what quoting its arguments gives back.
#include "split.h"

#include <QZApp/QZStringExtensions.h>

#include <QStringDecoder>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *line = reinterpret_cast<const char *>(data);
    helper_args args;
    if (helper_split(line, size, &args) != 0)
        return 0;
    if (args.argv[args.argc] != nullptr)
        std::abort();
    QStringList arguments;
    bool utf8 = true;
    for (int i = 0; i < args.argc; ++i) {
        QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        arguments << decoder(QByteArrayView(args.argv[i]));
        utf8 = utf8 && !decoder.hasError();
    }
    helper_args_free(&args);
    if (utf8 && QZ::stringWithArgumentArray(arguments).toUtf8() != QByteArray(line, static_cast<qsizetype>(size)))
        std::abort();
    return 0;
}
