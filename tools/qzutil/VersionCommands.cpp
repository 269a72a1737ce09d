// qzutil version parse | compare | os: version numbers.
#include "Command.h"

#include <QZApp/QZVersion.h>

#include <sys/utsname.h>

namespace qzutil {
namespace {

QString orNull(const QString &text)
{
    return text.isNull() ? QStringLiteral("(null)") : text;
}

int parse(const QString &text)
{
    const std::optional<QZVersion> version = QZVersion::versionFromString(text);
    if (!version)
        return fail(QStringLiteral("not a version: %1").arg(text));
    printLine(QStringLiteral("string: %1").arg(version->stringValue()));
    printLine(QStringLiteral("major: %1").arg(version->majorVersion()));
    printLine(QStringLiteral("minor: %1").arg(version->minorVersions().join(QLatin1Char(' '))));
    printLine(QStringLiteral("status: %1").arg(version->versionStatus()));
    printLine(QStringLiteral("build: %1").arg(orNull(version->buildNumber())));
    printLine(version->gotRealVersion() ? QString::asprintf("real: %g", version->realVersion())
                                        : QStringLiteral("real: (none)"));
    return Success;
}

int compare(const QString &first, const QString &second)
{
    const std::optional<QZVersion> a = QZVersion::versionFromString(first);
    if (!a)
        return fail(QStringLiteral("not a version: %1").arg(first));
    const std::optional<QZVersion> b = QZVersion::versionFromString(second);
    if (!b)
        return fail(QStringLiteral("not a version: %1").arg(second));
    printLine(QString::number(a->compare(*b)));
    return Success;
}

int os()
{
    struct utsname name;
    uname(&name);
    const std::optional<QZVersion> system = QZVersion::OSXVersion();
    const std::optional<QZVersion> distribution = QZVersion::distributionVersion();
    printLine(QStringLiteral("kernel: %1").arg(QString::fromLocal8Bit(name.release)));
    printLine(QStringLiteral("version: %1").arg(system ? system->stringValue() : QStringLiteral("(none)")));
    printLine(QStringLiteral("distribution: %1")
                      .arg(distribution ? distribution->stringValue() : QStringLiteral("(none)")));
    return Success;
}

int version(const Invocation &invocation)
{
    const QStringList &arguments = invocation.operands();
    const QString verb = arguments.value(0);
    if (verb == QLatin1String("parse") && arguments.size() == 2)
        return parse(arguments[1]);
    if (verb == QLatin1String("compare") && arguments.size() == 3)
        return compare(arguments[1], arguments[2]);
    if (verb == QLatin1String("os") && arguments.size() == 1)
        return os();
    return usage("version");
}

QZUTIL_COMMAND(.name = "version", .usage = "parse STRING | compare A B | os",
               .summary = "parse, compare and look up version numbers", .run = version,
               .operands = { { "parse STRING", "print the string value and every field of a version" },
                             { "compare A B", "print -1, 0 or 1 as A orders before, with or after B" },
                             { "os", "print the kernel release, the system version derived from it\n"
                                     "and the distribution's version" } });

} // namespace
} // namespace qzutil
