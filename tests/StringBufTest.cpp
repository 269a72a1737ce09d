// stringbuf: exact growth, path components, guard checks, and the two report formats.
#include <QZApp/utils.h>

#include "../app-common/QZApp/utils/utils_private.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

TEST(StringBuf, AllocatesEmptyAndGrowsExactly)
{
    stringbuf empty = stringbuf_alloc(0);
    EXPECT_STREQ(empty, "");
    EXPECT_EQ(stringbuf_capacity(empty), 0u);
    stringbuf_free(empty);

    stringbuf buf = stringbuf_alloc(2);
    buf = stringbuf_append(buf, "xy");
    EXPECT_EQ(stringbuf_capacity(buf), 2u);   // fits: no growth
    buf = stringbuf_append(buf, "abc");
    EXPECT_STREQ(buf, "xyabc");
    EXPECT_EQ(stringbuf_capacity(buf), 5u);
    buf = stringbuf_append(buf, "");
    EXPECT_EQ(stringbuf_capacity(buf), 5u);
    stringbuf_free(buf);
}

TEST(StringBuf, DupAndShrinkKeepGuardsIntact)
{
    stringbuf buf = stringbuf_dup("a long enough text");
    EXPECT_EQ(stringbuf_capacity(buf), 18u);
    buf[6] = '\0';
    buf = stringbuf_expand(buf, 6);
    EXPECT_STREQ(buf, "a long");
    EXPECT_EQ(stringbuf_capacity(buf), 6u);   // the guard check passed after shrinking
    buf = stringbuf_expand(buf, 4096);
    EXPECT_STREQ(buf, "a long");
    stringbuf_free(buf);
    stringbuf small = stringbuf_dup("x");
    EXPECT_EQ(stringbuf_expand(small, static_cast<size_t>(-1)), nullptr);
    EXPECT_STREQ(small, "x");   // the old handle stays valid
    stringbuf_free(small);
}

TEST(StringBuf, AppendsPathComponents)
{
    const struct { const char *base, *component, *expected; } cases[] = {
        { "", "a", "/a" },   // the byte before an empty text is a guard byte, never '/'
        { "dir/", "/file", "dir/file" },
        { "dir", "file", "dir/file" },
        { "dir", "//file", "dir//file" },
        { "/", "", "/" },
    };
    for (const auto &c : cases) {
        stringbuf buf = stringbuf_append_path_component(stringbuf_dup(c.base), c.component);
        EXPECT_STREQ(buf, c.expected) << c.base << " + " << c.component;
        stringbuf_free(buf);
    }
}

TEST(StringBuf, ReportsKeepErrnoInBothFormats)
{
    testing::internal::CaptureStderr();
    errno = ENOENT;
    utils_report_path("/no/such", 309);
    EXPECT_EQ(errno, ENOENT);
    errno = EACCES;
    utils_report_error(410);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "/no/such: No such file or directory (at utils:309)\nutils:410: error (13)\n");
}

TEST(StringBufDeathTest, DamagedGuardStopsTheProcess)
{
    const char *expected = "app-common/QZApp/utils:[0-9]+: check_guards: Assertion `buf->guard\\[0\\] == 's' && "
                           "buf->guard\\[1\\] == 'T' && .*buf->characters\\[buf->capacity \\+ 4\\] == 'b'' failed";
    EXPECT_DEATH(
            {
                stringbuf buf = stringbuf_dup("full");
                buf[5] = 'x';   // one byte past the terminator: the trailing guard
                stringbuf_capacity(buf);
            },
            expected);
    EXPECT_DEATH(
            {
                stringbuf buf = stringbuf_dup("x");
                buf[-1] = 'b';   // the leading guard
                stringbuf_free(buf);
            },
            "check_guards");
}

} // namespace
