/* Shared by the units of the plain utilities; not installed. */
#ifndef QZAPP_UTILS_PRIVATE_H
#define QZAPP_UTILS_PRIVATE_H

#include <QZApp/utils.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The source unit named in the utilities' fatal assertion reports. */
#define UTILS_SOURCE_UNIT "app-common/QZApp/utils"

/* "PATH: strerror(errno) (at utils:SITE)\n" on standard error; errno is preserved. */
QZUTILS_EXPORT void utils_report_path(const char *path, unsigned site);
/* "utils:SITE: error (errno)\n" on standard error; errno is preserved. */
QZUTILS_EXPORT void utils_report_error(unsigned site);

#ifdef __cplusplus
}
#endif

#endif /* QZAPP_UTILS_PRIVATE_H */
