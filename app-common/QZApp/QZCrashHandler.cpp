// The crash handler: on a fatal signal, a report of the crash in the user's Library folder,
// named so that the next "Crasher Bug" report finds it. Everything the handler needs is made
// ready when it is installed; the handler itself makes only async-signal-safe calls.
#include "QZBugReporter.h"
#include "QZBugReporter_p.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <elf.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

namespace {

constexpr int kFatalSignals[] = { SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS };

// What the handler writes, prepared at installation.
struct CrashReportPlan {
    char folder[1024];       // .../Logs/DiagnosticReports
    char prefix[512];        // APPNAME_
    char suffix[300];        // _HOST.crash
    char header[4096];       // the lines that do not change: process, path, version, build
    long utcOffset;          // seconds east of UTC, for the report's local time
};
CrashReportPlan s_plan;
alignas(16) char s_alternateStack[64 * 1024];

// Copies `text` into `buffer` of `size` bytes after what it holds; truncates, never overflows.
void append(char *buffer, size_t size, const char *text)
{
    size_t used = std::strlen(buffer);
    while (*text && used + 1 < size)
        buffer[used++] = *text++;
    buffer[used] = '\0';
}

// `value` in `base`, at least `width` digits, into `out` (at least 24 bytes).
void formatNumber(char *out, unsigned long value, unsigned base, int width)
{
    char digits[24];
    int n = 0;
    do {
        digits[n++] = "0123456789abcdef"[value % base];
        value /= base;
    } while (value && n < 23);
    while (n < width && n < 23)
        digits[n++] = '0';
    for (int i = 0; i < n; i++)
        out[i] = digits[n - 1 - i];
    out[n] = '\0';
}

void writeText(int fd, const char *text)
{
    size_t left = std::strlen(text);
    while (left > 0) {
        const ssize_t n = write(fd, text, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        text += n;
        left -= static_cast<size_t>(n);
    }
}

const char *signalName(int signal)
{
    switch (signal) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGILL: return "SIGILL";
    case SIGFPE: return "SIGFPE";
    case SIGABRT: return "SIGABRT";
    case SIGTRAP: return "SIGTRAP";
    case SIGSYS: return "SIGSYS";
    default: return "signal";
    }
}

// "YYYY-MM-DD-HHMMSS" of `seconds` since the epoch, without the C library's time zone calls.
void formatDate(char *out, long long seconds)
{
    long long days = seconds / 86400;
    long long rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        days--;
    }
    // Civil date from a day count (proleptic Gregorian calendar).
    days += 719468;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long dayOfEra = days - era * 146097;
    const long long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long mp = (5 * dayOfYear + 2) / 153;
    const long long day = dayOfYear - (153 * mp + 2) / 5 + 1;
    const long long month = mp < 10 ? mp + 3 : mp - 9;
    const long long year = yearOfEra + era * 400 + (month <= 2);
    const unsigned long parts[] = { static_cast<unsigned long>(year), static_cast<unsigned long>(month),
                                    static_cast<unsigned long>(day), static_cast<unsigned long>(rest / 3600),
                                    static_cast<unsigned long>(rest / 60 % 60), static_cast<unsigned long>(rest % 60) };
    const char *separators[] = { "-", "-", "-", "", "", "" };
    out[0] = '\0';
    for (int i = 0; i < 6; i++) {
        char number[24];
        formatNumber(number, parts[i], 10, i == 0 ? 4 : 2);
        append(out, 32, number);
        append(out, 32, separators[i]);
    }
}

void crashHandler(int signal, siginfo_t *info, void *)
{
    const int savedErrno = errno;
    timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    char date[32];
    formatDate(date, static_cast<long long>(now.tv_sec) + s_plan.utcOffset);

    char path[2048] = "";
    append(path, sizeof path, s_plan.folder);
    append(path, sizeof path, "/");
    append(path, sizeof path, s_plan.prefix);
    append(path, sizeof path, date);
    append(path, sizeof path, s_plan.suffix);
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) {
        char number[24];
        writeText(fd, s_plan.header);
        writeText(fd, "Date: ");
        writeText(fd, date);
        writeText(fd, "\nSignal: ");
        formatNumber(number, static_cast<unsigned long>(signal), 10, 1);
        writeText(fd, number);
        writeText(fd, " (");
        writeText(fd, signalName(signal));
        writeText(fd, ")\nFault address: 0x");
        formatNumber(number, reinterpret_cast<unsigned long>(info ? info->si_addr : nullptr), 16, 1);
        writeText(fd, number);
        writeText(fd, "\n\nBacktrace of the crashing thread:\n");
        void *frames[128];
        const int count = backtrace(frames, 128);
        backtrace_symbols_fd(frames, count, fd);
        close(fd);
    }
    // The default action follows once this handler returns (SA_RESETHAND restored it).
    errno = savedErrno;
    raise(signal);
}

// The main program's GNU build identifier in hexadecimal, or "unknown".
QByteArray buildIdentifier()
{
    QByteArray found;
    dl_iterate_phdr(
            [](dl_phdr_info *object, size_t, void *result) -> int {
                auto *out = static_cast<QByteArray *>(result);
                for (int i = 0; i < object->dlpi_phnum; i++) {
                    const ElfW(Phdr) &segment = object->dlpi_phdr[i];
                    if (segment.p_type != PT_NOTE)
                        continue;
                    const char *note = reinterpret_cast<const char *>(object->dlpi_addr + segment.p_vaddr);
                    const char *end = note + segment.p_memsz;
                    while (note + sizeof(ElfW(Nhdr)) <= end) {
                        const auto *header = reinterpret_cast<const ElfW(Nhdr) *>(note);
                        const char *name = note + sizeof(ElfW(Nhdr));
                        const char *desc = name + ((header->n_namesz + 3) & ~3u);
                        if (header->n_type == NT_GNU_BUILD_ID && header->n_namesz == 4 && std::memcmp(name, "GNU", 4) == 0) {
                            *out = QByteArray(desc, static_cast<qsizetype>(header->n_descsz)).toHex();
                            return 1;
                        }
                        note = desc + ((header->n_descsz + 3) & ~3u);
                    }
                }
                return 1;   // the first object is the main program: look no further
            },
            &found);
    return found.isEmpty() ? QByteArray("unknown") : found;
}

} // namespace

bool QZBugReporter::installCrashHandler()
{
    QZBugReporter *reporter = sharedBugReporter();
    const QZProductInfo product = reporter->productBundle();
    const QString folder = QZ::detail::userLibraryFolder() + QStringLiteral("/Logs/DiagnosticReports");
    if (!QDir().mkpath(folder))
        return false;
    char host[256] = "localhost";
    gethostname(host, sizeof host - 1);
    host[sizeof host - 1] = '\0';
    const time_t now = time(nullptr);
    tm local {};
    localtime_r(&now, &local);

    CrashReportPlan plan {};
    append(plan.folder, sizeof plan.folder, QFile::encodeName(folder).constData());
    append(plan.prefix, sizeof plan.prefix, QFile::encodeName(reporter->appName()).constData());
    append(plan.prefix, sizeof plan.prefix, "_");
    append(plan.suffix, sizeof plan.suffix, "_");
    append(plan.suffix, sizeof plan.suffix, host);
    append(plan.suffix, sizeof plan.suffix, ".crash");
    const QByteArray header = "Process: " + reporter->appName().toUtf8() + "\nPath: " + product.executablePath.toUtf8()
            + "\nVersion: " + product.shortVersion.toUtf8() + " (" + product.version.toUtf8() + ")\nBuild ID: "
            + buildIdentifier() + "\nProcess ID: " + QByteArray::number(getpid()) + "\n";
    append(plan.header, sizeof plan.header, header.constData());
    plan.utcOffset = local.tm_gmtoff;
    s_plan = plan;

    // Loads the unwinder now: its first use allocates.
    void *frames[4];
    backtrace(frames, 4);

    stack_t stack {};
    stack.ss_sp = s_alternateStack;
    stack.ss_size = sizeof s_alternateStack;
    sigaltstack(&stack, nullptr);   // a stack overflow still gets a report on this thread

    struct sigaction action {};
    action.sa_sigaction = crashHandler;
    action.sa_flags = SA_SIGINFO | SA_RESETHAND | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    bool installed = true;
    for (const int signal : kFatalSignals)
        installed = sigaction(signal, &action, nullptr) == 0 && installed;
    return installed;
}
