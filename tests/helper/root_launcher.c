/* A stand-in for pkexec in the tests: copied set-user-id root beside a copy of the helper, in a
 * folder that only root may write to (as is every folder above it), it becomes root in full (real, effective and saved user and group) and runs "qzhelper" from its
 * own folder, with the caller's standard input, output and error. */
#include <libgen.h>
#include <limits.h>
#include <stdio.h>
#include <unistd.h>

int main(void)
{
    char self[PATH_MAX], helper[PATH_MAX + 16];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0)
        return 127;
    self[length] = '\0';
    snprintf(helper, sizeof(helper), "%s/qzhelper", dirname(self));
    if (setgid(0) != 0 || setuid(0) != 0) {
        perror("root launcher");
        return 126;
    }
    execl(helper, helper, (char *)NULL);
    perror(helper);
    return 127;
}
