// qzutil: the framework's command-line front end, for scripting, testing a helper and
// benchmarking. Exit status 0 on success, 1 on failure (with a one-line reason), 2 on a usage
// error (with a usage line).
//
// The program runs a plain copy or delete itself, with nothing loaded but the C file utilities;
// for any other command line it loads the core module (Qt Core, the parser, base64), which in
// turn loads the command module for the commands that need the whole framework.
#include "Launcher.h"

#include <climits>
#include <clocale>
#include <cstdio>
#include <cstring>

#include <dlfcn.h>
#include <sys/auxv.h>
#include <unistd.h>

namespace qzutil {

const char *programFolder()
{
    static char folder[PATH_MAX + 1];
    if (folder[0])
        return folder;
    const ssize_t length = readlink("/proc/self/exe", folder, PATH_MAX);
    if (length > 0) {
        folder[length] = '\0';
    } else {
        const auto *started = reinterpret_cast<const char *>(getauxval(AT_EXECFN));
        if (!started || started[0] != '/') {
            if (!getcwd(folder, PATH_MAX))
                std::strcpy(folder, ".");
            std::strncat(folder, "/", PATH_MAX - std::strlen(folder));
        }
        std::strncat(folder, started ? started : "", PATH_MAX - std::strlen(folder));
    }
    *std::strrchr(folder, '/') = '\0';
    return folder;
}

} // namespace qzutil

int main(int argc, char **argv)
{
    int status = 0;
    std::setlocale(LC_ALL, "");   // as the core module's application object does
    if (qzutil::runTreeCommandDirectly(argc, argv, &status))
        return status;
    // The core module goes into the global scope: the command module finds the helpers of
    // Command.h there.
    char path[PATH_MAX * 2 + 2];
    std::snprintf(path, sizeof path, "%s/%s", qzutil::programFolder(), QZUTIL_CORE_MODULE);
    void *core = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
    auto *run = core ? reinterpret_cast<int (*)(int, char **)>(dlsym(core, "qzutil_main")) : nullptr;
    if (!run) {
        std::fprintf(stderr, "qzutil: %s\n", dlerror());
        return 1;
    }
    return run(argc, argv);
}
