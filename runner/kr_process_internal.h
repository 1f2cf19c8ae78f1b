/* What the runner reads about a process; shared by the runner's own sources only. */
#ifndef KR_PROCESS_INTERNAL_H
#define KR_PROCESS_INTERNAL_H

#include "kr_command.h"

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct kr_stat {
    char state;
    pid_t ppid;
    pid_t pgrp;
    long long threads;
    unsigned long long start_time;
} kr_stat;

/* Fields of /proc/PID/stat. Returns 0, ESRCH when there is no such process, or an errno value. */
int kr_stat_read(pid_t pid, kr_stat* out);

/* Child process ids of `pid` (`threads` from its stat); `overflow` when more than `room`. */
void kr_children_list(pid_t pid, long long threads, pid_t* pids, size_t room, size_t* count,
                      bool* overflow);

/* Seams for the runner's own tests, null in normal use. The first runs in the forked child just
 * before it stops for the parent (async-signal-safe calls only); the second runs in the
 * descendant scan once the children of `entry` have been listed, before any is kept. */
extern void (*kr_test_before_stop)(void);
extern void (*kr_test_children_listed)(kr_process* entry);

#ifdef __cplusplus
}
#endif

#endif
