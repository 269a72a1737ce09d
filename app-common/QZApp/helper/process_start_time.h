/* The start time of a process, as the helper channel's authorization block carries it: field 22
 * of /proc/PID/stat, in clock ticks since boot. The library writes it into the block and a
 * helper program compares it with its peer's, so both read it here (plain C, no Qt). Not
 * installed. */
#ifndef QZAPP_HELPER_PROCESS_START_TIME_H
#define QZAPP_HELPER_PROCESS_START_TIME_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The start time of process `pid`, or 0 with errno set: ESRCH when its stat file cannot be
 * opened, EINVAL when the file does not hold a start time, or the error of a failed read. */
unsigned long long helper_process_start_time(pid_t pid);

#ifdef __cplusplus
}
#endif

#endif /* QZAPP_HELPER_PROCESS_START_TIME_H */
