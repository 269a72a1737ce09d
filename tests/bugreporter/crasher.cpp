// A program that installs the reporter's crash handler and then crashes with the signal its
// argument names ("segv" or "abort").
#include <QZApp/QZBugReporter.h>

#include <QGuiApplication>

#include <cstdlib>
#include <cstring>

// Under the address sanitizer the program's own handler, not the sanitizer's, meets the crash.
extern "C" __attribute__((visibility("default"), used)) const char *__asan_default_options()
{
    return "handle_segv=0:handle_abort=0:allow_user_segv_handler=1";
}

namespace {
__attribute__((noinline, no_sanitize("undefined"))) void crashNow(const char *how)
{
    if (std::strcmp(how, "abort") == 0)
        std::abort();
    volatile int *nowhere = nullptr;
    *nowhere = 1;
}
} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral("2.5"));
    if (!QZBugReporter::installCrashHandler())
        return 2;
    crashNow(argc > 1 ? argv[1] : "segv");
    return 0;
}
