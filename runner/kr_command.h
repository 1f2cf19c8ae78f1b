/* Runs one shell command line with a deadline, a bounded output buffer, cancellation from any
 * thread and clean-up of every process the command started. Plain C so that it can be called
 * from anywhere; every failure is an errno-style code. */
#ifndef KR_COMMAND_H
#define KR_COMMAND_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Fixed codes of the runner, the same on every platform whatever the local errno numbering. */
enum {
    KR_COMMAND_ENAMETOOLONG = 63, /* the TMPDIR environment entry needs 4,096 bytes or more */
    KR_COMMAND_ECANCELED = 89,    /* cancelled before anything was started */
};

/* Most live processes one run tracks at a time, the shell included. */
#define KR_PROCESS_TABLE_SIZE 256

typedef struct kr_command kr_command;

/* A new handle, or NULL when memory is exhausted. */
kr_command* kr_command_create(void);

/* Asks a run on this handle to stop, or the next run not to start. Any thread, any time. */
void kr_command_cancel(kr_command* handle);

void kr_command_destroy(kr_command* handle);

/* Runs `command` with /bin/sh -c in `cwd`, with exactly PATH, LANG and TMPDIR=`tmpdir` as its
 * environment and /dev/null as its input, and blocks until the shell and every descendant it
 * could see are gone. Standard output and error are collected into `buffer`. A non-null
 * `profile` (sandbox profile) is refused with ENOTSUP: this platform has no such sandbox.
 * The deadline runs from the call: a cancel or the deadline that finds the child still short of
 * starting the shell ends it as it would end the shell. Returns 0 or an errno value; the out
 * parameters are reset on entry. */
int kr_command_run(kr_command* handle, const char* command, const char* cwd, const char* tmpdir,
                   const char* profile, uint32_t timeout_ms, char* buffer, size_t capacity,
                   size_t* out_length, int32_t* out_exit_status, bool* out_truncated,
                   bool* out_timed_out);

/* One process as the kernel identifies it: a process id can be reused, the pair cannot. */
typedef struct kr_process {
    pid_t pid;
    unsigned long long start_time; /* clock ticks after boot */
} kr_process;

/* Reads the identity of `pid`. Returns 0 or an errno value (ESRCH when there is no such
 * process). */
int kr_process_identify(pid_t pid, kr_process* out);

/* True while the kernel still reports a process with this id and exactly this start time. */
bool kr_process_same(const kr_process* process);

/* Like kr_process_same, but a process that has exited and waits to be reaped counts as gone. */
bool kr_process_alive(const kr_process* process);

/* Sends `signal` only if the process is still the same one. Returns 0 or an errno value
 * (ESRCH when it is gone or was replaced). */
int kr_process_signal(const kr_process* process, int signal);

/* Appends to `table` the children of every tracked process that is still the same, following
 * new entries in the same pass so that grandchildren are found at once, and drops every entry
 * but the first whose process has exited or was replaced. Sets `overflow` when the table is full
 * of live processes or one process has KR_PROCESS_TABLE_SIZE children or more. */
void kr_descendants_discover(kr_process* table, size_t* count, bool* overflow);

/* SIGKILL to every entry that is still the same, from the last to the first. */
void kr_descendants_end(const kr_process* table, size_t count);

#ifdef __cplusplus
}
#endif

#endif
