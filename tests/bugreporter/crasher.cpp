// A program that installs the reporter's crash handler and then crashes with the signal its
// argument names ("segv" or "abort").
#include <QZApp/QZBugReporter.h>

#include <QGuiApplication>

#include <cstdlib>
#include <cstring>

namespace {
__attribute__((noinline)) void crashNow(const char *how)
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
