// run_toolx, run_tool and its format walk.
#include <QZApp/utils.h>

#include "../app-common/QZApp/utils/utils_private.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstdlib>
#include <string>

#include <unistd.h>

namespace {

// The kinds a format consumes, or "rejected".
std::string walk(const char *format)
{
    char kinds[16];
    const int count = utils_run_tool_format_walk(format, kinds, sizeof kinds);
    return count < 0 ? "rejected" : std::string(kinds, static_cast<size_t>(count));
}

TEST(FormatWalk, AcceptsWhatItCanStepOverAndNothingElse)
{
    EXPECT_EQ(walk("plain text"), "");
    EXPECT_EQ(walk("%s-%d"), "pi");
    EXPECT_EQ(walk("%5.2f"), "d");
    EXPECT_EQ(walk("%lld %ld %hhx %hu %jd %td %zu"), "qliijtz");
    EXPECT_EQ(walk("%'#-+ 08.3lf|%Lg|%La"), "dDD");
    EXPECT_EQ(walk("%ls %Ls %hhs"), "ppp");
    for (const char *rejected : { "%*d", "%.*f", "%%", "100%", "%c", "%p", "%n", "%C", "%S", "%D", "%O", "%U", "%qd",
                                  "%Ld", "%hf", "%llf", "%1$d", "%5", "%l", "%hh" })
        EXPECT_EQ(walk(rejected), "rejected") << rejected;
    // Only the room given is written; the count is the whole.
    char one[1];
    EXPECT_EQ(utils_run_tool_format_walk("%d%d%d", one, sizeof one), 3);
    EXPECT_EQ(one[0], 'i');
}

TEST(RunTool, BuildsOneArgumentPerFormatAndRejectsAFormatBeforeAnythingStarts)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_tool("/bin/echo", "-n", "%s-%d", "a", 7, "%5.2f|%Lf|%lld", 3.14159, 2.5L, 1LL << 40,
                       static_cast<const char *>(nullptr)), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a-7  3.14|2.500000|1099511627776");

    QTemporaryDir folder;
    const std::string marker = folder.filePath(QStringLiteral("marker")).toStdString();
    EXPECT_EQ(run_tool("/bin/touch", "%s", marker.c_str(), "%*d", 3, 4, static_cast<const char *>(nullptr)), -1);
    EXPECT_EQ(run_tool("/bin/touch", "%s", marker.c_str(), "100%%", static_cast<const char *>(nullptr)), -1);
    EXPECT_NE(access(marker.c_str(), F_OK), 0);
}

TEST(RunToolx, GivesTheExitStatusOrMinusOneAndAnEmptyEnvironment)
{
    char sh[] = "/bin/sh", c[] = "-c", three[] = "exit 3", killed[] = "kill -9 $$", bare[] = "sh", env[] = "/usr/bin/env";
    char *exits[] = { sh, c, three, nullptr }, *signalled[] = { sh, c, killed, nullptr };
    char *notSearched[] = { bare, c, three, nullptr }, *environment[] = { env, nullptr };   // no search along PATH
    EXPECT_EQ(run_toolx(exits), 3);
    EXPECT_EQ(run_toolx(signalled), -1);
    EXPECT_EQ(run_toolx(notSearched), -1);
    setenv("QZ_SHOULD_NOT_PASS", "1", 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(run_toolx(environment), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

} // namespace
