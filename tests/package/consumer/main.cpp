// A program outside the project that uses the installed framework.
#include <QZApp/QZCrypto.h>
#include <QZApp/QZStringExtensions.h>
#include <QZApp/QZVersion.h>
#include <QZApp/utils.h>

#include <cstdio>
#include <cstring>

int main()
{
    stringbuf path = stringbuf_append_path_component(stringbuf_dup("dir"), "file");
    const bool pathOk = std::strcmp(path, "dir/file") == 0;
    stringbuf_free(path);
    const bool quoteOk = QZ::stringWithArgumentArray({ QStringLiteral("a b") }) == QStringLiteral("a\\ b");
    const bool versionOk = QZVersion::versionFromString(QStringLiteral("1.2"))->compare(
                                   *QZVersion::versionFromString(QStringLiteral("1.10"))) == 1;
    const bool base64Ok = QZ::base64("Man") == QStringLiteral("TWFu");
    std::printf("%d %d %d %d\n", pathOk, quoteOk, versionOk, base64Ok);
    return pathOk && quoteOk && versionOk && base64Ok ? 0 : 1;
}
