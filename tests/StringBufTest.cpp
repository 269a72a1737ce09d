// stringbuf: exact growth, path components, guard checks, and the two report formats.
#include <QZApp/utils.h>

#include "../app-common/QZApp/utils/utils_private.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

TEST(StringBuf, GrowsExactlyAndShrinksWithItsGuardsIntact)
{
    stringbuf buf = stringbuf_alloc(2);
    std::string capacities;
    for (const char *text : { "xy", "abc", "" }) {   // fits, grows to the length, fits
        buf = stringbuf_append(buf, text);
        capacities += std::to_string(stringbuf_capacity(buf)) + " ";
    }
    EXPECT_EQ(capacities, "2 5 5 ");
    EXPECT_STREQ(buf, "xyabc");
    buf[2] = '\0';
    buf = stringbuf_expand(buf, 2);
    EXPECT_EQ(stringbuf_capacity(buf), 2u);   // the guard check passed after shrinking
    buf = stringbuf_expand(buf, 4096);
    EXPECT_EQ(stringbuf_expand(buf, SIZE_MAX), nullptr);
    EXPECT_STREQ(buf, "xy");   // the old handle stays valid
    stringbuf_free(buf);
}

TEST(StringBuf, AppendsPathComponents)
{
    const char *cases[][3] = {
        { "", "a", "/a" },   // the byte before an empty text is a guard byte, never '/'
        { "dir/", "/file", "dir/file" },
        { "dir", "file", "dir/file" },
        { "dir", "//file", "dir//file" },
        { "/", "", "/" },
    };
    for (const auto &c : cases) {
        stringbuf buf = stringbuf_dup(c[0]);
        EXPECT_EQ(stringbuf_capacity(buf), std::strlen(c[0]));
        buf = stringbuf_append_path_component(buf, c[1]);
        EXPECT_STREQ(buf, c[2]) << c[0] << " + " << c[1];
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
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/no/such: No such file or directory (at utils:309)\nutils:410: error (13)\n");
}

// A buffer holding "full" with the byte at `index` overwritten.
stringbuf damaged(int index)
{
    stringbuf buf = stringbuf_dup("full");
    buf[index] = 'x';
    return buf;
}

TEST(StringBufDeathTest, DamagedGuardStopsTheProcess)
{
    // Index 5, one past the terminator, is the trailing guard; -1 the leading one.
    EXPECT_DEATH(stringbuf_capacity(damaged(5)),
                 "app-common/QZApp/utils:[0-9]+: check_guards: Assertion `buf->guard\\[0\\] == 's' && "
                 "buf->guard\\[1\\] == 'T' && .*buf->characters\\[buf->capacity \\+ 4\\] == 'b'' failed");
    EXPECT_DEATH(stringbuf_free(damaged(-1)), "check_guards");
}

} // namespace
