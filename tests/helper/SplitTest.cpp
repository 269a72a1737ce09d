// The reference helper's line splitter is the exact inverse of the library's argument quoting.
#include "support/TestSupport.h"

#include <QZApp/QZStringExtensions.h>

#include <QRandomGenerator>

#include "split.h"

#include <cerrno>

namespace {

// The arguments `line` splits into, or {"EINVAL"} when it is refused.
std::vector<QByteArray> split(const QByteArray &line)
{
    helper_args args;
    const int error = helper_split(line.constData(), static_cast<size_t>(line.size()), &args);
    if (error != 0)
        return { error == EINVAL ? "EINVAL" : "other error" };
    std::vector<QByteArray> arguments(args.argv, args.argv + args.argc);
    EXPECT_EQ(args.argv[args.argc], nullptr);
    helper_args_free(&args);
    return arguments;
}

// Random vectors of zero to six arguments, empty ones included.
TEST(HelperSplit, InvertsArgumentQuotingForRandomArgumentVectors)
{
    // Every shell-special character, the letters the escapes use, plain and non-ASCII text.
    const QString pool = QStringLiteral("|&;<>()$`\"' \t\n\r*?[#~=%\\rntab01\x01\x7f") + QChar(0xe9) + QChar(0x65e5);
    QRandomGenerator random(20240611);
    for (int round = 0; round < 20000; ++round) {
        QStringList arguments;
        std::vector<QByteArray> expected;
        for (int i = random.bounded(7); i > 0; --i) {
            QString argument;
            for (int j = random.bounded(10) == 0 ? 0 : random.bounded(1, 12); j > 0; --j)
                argument += pool[random.bounded(pool.size())];
            arguments << argument;
            expected.push_back(argument.toUtf8());
        }
        const QByteArray line = QZ::stringWithArgumentArray(arguments).toUtf8();
        ASSERT_EQ(split(line), expected) << line.toStdString();
    }
}

TEST(HelperSplit, RefusesLinesThatQuotingNeverProduces)
{
    for (const QByteArray &line : { QByteArray("a  b"), QByteArray("a "), QByteArray(" a"), QByteArray(" "),
                                    QByteArray("\"\""), QByteArray("a\"b"), QByteArray("a\\"), QByteArray("a\\q"),
                                    QByteArray("a\\\tb"), QByteArray("a\tb"), QByteArray("a;b"), QByteArray("x \"\"y"),
                                    QByteArray("a\0b", 3) })
        EXPECT_EQ(split(line), std::vector<QByteArray> { "EINVAL" }) << line.toStdString();
}

} // namespace
