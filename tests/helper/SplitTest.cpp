// The reference helper's line splitter is the exact inverse of the library's argument quoting.
#include "support/TestSupport.h"

#include <QZApp/QZStringExtensions.h>

#include <QRandomGenerator>

#include "split.h"

#include <cerrno>

namespace {

std::vector<QByteArray> split(const QByteArray &line, int *error)
{
    helper_args args;
    *error = helper_split(line.constData(), static_cast<size_t>(line.size()), &args);
    std::vector<QByteArray> arguments;
    for (int i = 0; *error == 0 && i < args.argc; ++i)
        arguments.emplace_back(args.argv[i]);
    if (*error == 0) {
        EXPECT_EQ(args.argv[args.argc], nullptr);
    }
    helper_args_free(&args);
    return arguments;
}

TEST(HelperSplit, InvertsArgumentQuotingForRandomArgumentVectors)
{
    // Every shell-special character, the letters the escapes use, plain and non-ASCII text.
    const QString pool = QStringLiteral("|&;<>()$`\"' \t\n\r*?[#~=%\\rntab01\x01\x7f") + QChar(0xe9) + QChar(0x65e5);
    QRandomGenerator random(20240611);
    for (int round = 0; round < 20000; ++round) {
        QStringList arguments;
        const int count = random.bounded(7);
        for (int i = 0; i < count; ++i) {
            QString argument;
            const int length = random.bounded(10) == 0 ? 0 : random.bounded(1, 12);
            for (int j = 0; j < length; ++j)
                argument += pool[random.bounded(pool.size())];
            arguments << argument;
        }
        const QByteArray line = QZ::stringWithArgumentArray(arguments).toUtf8();
        int error = -1;
        const std::vector<QByteArray> back = split(line, &error);
        ASSERT_EQ(error, 0) << line.toStdString();
        ASSERT_EQ(back.size(), static_cast<size_t>(arguments.size())) << line.toStdString();
        for (int i = 0; i < arguments.size(); ++i)
            ASSERT_EQ(back[static_cast<size_t>(i)], arguments[i].toUtf8()) << line.toStdString();
    }
}

TEST(HelperSplit, ReadsTheDocumentedForms)
{
    int error = -1;
    EXPECT_EQ(split(R"(ab c\ d "")", &error), (std::vector<QByteArray> { "ab", "c d", "" }));
    EXPECT_EQ(split(R"( "" x)", &error), (std::vector<QByteArray> { "", "x" }));
    EXPECT_EQ(split(R"(a\tb\n\r\\\")", &error), (std::vector<QByteArray> { "a\tb\n\r\\\"" }));
    EXPECT_TRUE(split("", &error).empty());
    EXPECT_EQ(error, 0);
}

TEST(HelperSplit, RefusesLinesThatQuotingNeverProduces)
{
    const QByteArray lines[] = {
        "a  b", "a ", " a", " ", "\"\"", "a\"b", "a\\", "a\\q", "a\\\tb", "a\tb", "a;b", "x \"\"y",
        QByteArray("a\0b", 3),
    };
    for (const QByteArray &line : lines) {
        int error = -1;
        split(line, &error);
        EXPECT_EQ(error, EINVAL) << line.toStdString();
    }
}

} // namespace
