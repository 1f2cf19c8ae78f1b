/* The command handle and one run of a command. */
#include "kr_command.h"

#include "kr_process_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

struct kr_command {
    atomic_uchar cancelled;
};

enum {
    poll_interval_ms = 5,
    first_stop_check_us = 20,
    quick_stop_check_us = 100,
    quick_stop_checks_ms = 10,
    last_stop_check_us = 1000,
    reads_per_round = 8,
    read_size = 4096,
    kill_rounds = 1000,
    drain_rounds = 32,
    environment_entry_size = 4096,
};

kr_command* kr_command_create(void) {
    return calloc(1, sizeof(kr_command));
}

void kr_command_cancel(kr_command* handle) {
    if (handle != NULL)
        atomic_store(&handle->cancelled, 1);
}

void kr_command_destroy(kr_command* handle) {
    free(handle);
}

static void close_fd(int* fd) {
    if (*fd >= 0) {
        close(*fd);
        *fd = -1;
    }
}

static uint64_t now_ms(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
}

static void sleep_us(long us) {
    struct timespec pause = {.tv_sec = 0, .tv_nsec = us * 1000L};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

static int wait_for(pid_t pid, int* status, int options) {
    pid_t result;
    do {
        result = waitpid(pid, status, options);
    } while (result < 0 && errno == EINTR);
    return result == pid ? 0 : errno;
}

void (*kr_test_before_stop)(void) = NULL;

/* ---- in the child, between fork and exec: async-signal-safe calls only ---- */

_Noreturn static void child_fail(int report_fd) {
    int error = errno;
    ssize_t ignored = write(report_fd, &error, sizeof error);
    (void)ignored;
    _exit(127);
}

/* Moves `fd` to `target`; dup2 leaves the copy inheritable, which is what exec needs. */
static int place(int fd, int target) {
    if (fd == target)
        return fcntl(fd, F_SETFD, 0);
    return dup2(fd, target) < 0 ? -1 : 0;
}

static void close_on_exec_from(int first) {
    if (close_range((unsigned)first, ~0u, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    struct rlimit limit;
    int last = 65536;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        limit.rlim_cur < 1048576)
        last = (int)limit.rlim_cur;
    for (int fd = first; fd < last; ++fd)
        fcntl(fd, F_SETFD, FD_CLOEXEC);
}

_Noreturn static void child_start(int report_fd, int out_fd, int err_fd, const char* cwd,
                                  char* const argv[], char* const envp[]) {
    if (setpgid(0, 0) != 0)
        child_fail(report_fd);

    /* Signals the app ignores must not stay ignored in the command. */
    struct sigaction fallback;
    memset(&fallback, 0, sizeof fallback);
    fallback.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP)
            sigaction(signal, &fallback, NULL);
    }
    sigset_t none;
    sigemptyset(&none);
    if (sigprocmask(SIG_SETMASK, &none, NULL) != 0)
        child_fail(report_fd);

    /* Keep the pipe ends clear of 0..2 before those are filled. */
    if (report_fd < 3 && (report_fd = fcntl(report_fd, F_DUPFD_CLOEXEC, 3)) < 0)
        _exit(127);
    if (out_fd < 3 && (out_fd = fcntl(out_fd, F_DUPFD_CLOEXEC, 3)) < 0)
        child_fail(report_fd);
    if (err_fd < 3 && (err_fd = fcntl(err_fd, F_DUPFD_CLOEXEC, 3)) < 0)
        child_fail(report_fd);
    int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (input < 0 || place(input, 0) != 0 || place(out_fd, 1) != 0 || place(err_fd, 2) != 0)
        child_fail(report_fd);
    /* Everything else closes at exec, the report pipe included: a successful exec is silent. */
    close_on_exec_from(3);

    if (chdir(cwd) != 0)
        child_fail(report_fd);
    if (kr_test_before_stop != NULL)
        kr_test_before_stop();
    /* Wait here until the parent has recorded who we are. */
    raise(SIGSTOP);
    execve(argv[0], argv, envp);
    child_fail(report_fd);
}

/* ---- in the parent ---- */

static bool shell_exited(pid_t pid) {
    siginfo_t info;
    memset(&info, 0, sizeof info);
    int result;
    do {
        result = waitid(P_PID, (id_t)pid, &info, WEXITED | WNOHANG | WNOWAIT);
    } while (result != 0 && errno == EINTR);
    /* ECHILD: someone else reaped it; waiting on would never end. */
    return result != 0 || info.si_pid == pid;
}

/* One round: up to eight reads of 4 KiB from each pipe still open. */
static void read_round(struct pollfd* pipes, char* buffer, size_t capacity, size_t* length,
                       bool* truncated) {
    for (int p = 0; p < 2; ++p) {
        for (int round = 0; round < reads_per_round && pipes[p].fd >= 0; ++round) {
            if (*truncated)
                return;
            size_t room = capacity - *length;
            ssize_t got = read(pipes[p].fd, buffer + *length, room < read_size ? room : read_size);
            if (got > 0) {
                *length += (size_t)got;
                if (*length == capacity)
                    *truncated = true;
            } else if (got < 0 && errno == EINTR) {
                continue;
            } else if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                break;
            } else {
                /* End of file: the pipe stays open until the end but is no longer polled. */
                pipes[p].fd = -1;
            }
        }
    }
}

static int exit_status_of(int status) {
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return -1;
}

typedef struct run_state {
    int out_read, out_write, err_read, err_write, report_read, report_write, shell_fd;
} run_state;

static int finish(run_state* state, int result) {
    close_fd(&state->out_read);
    close_fd(&state->out_write);
    close_fd(&state->err_read);
    close_fd(&state->err_write);
    close_fd(&state->report_read);
    close_fd(&state->report_write);
    close_fd(&state->shell_fd);
    return result;
}

/* The child is ours and unreaped, so its id and group id cannot have been reused. */
static int end_child(pid_t pid, int* status) {
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    return wait_for(pid, status, 0);
}

static int abandon(run_state* state, pid_t pid) {
    int status;
    end_child(pid, &status);
    return finish(state, ESRCH);
}

typedef enum { child_stopped, child_ended, child_given_up, child_lost } start_outcome;

/* Waits for the child to stop itself before exec. Getting there can take any time (a cwd on a
 * hung mount), so this polls, and gives up on cancel or at the deadline. */
static start_outcome await_stop(kr_command* handle, pid_t pid, uint64_t started,
                                uint32_t timeout_ms, int* status, bool* timed_out) {
    long pause_us = first_stop_check_us;
    for (;;) {
        pid_t result = waitpid(pid, status, WUNTRACED | WNOHANG);
        if (result == pid)
            return WIFSTOPPED(*status) ? child_stopped : child_ended;
        if (result < 0 && errno != EINTR)
            return child_lost;
        if (atomic_load(&handle->cancelled))
            return child_given_up;
        if (now_ms() - started >= timeout_ms) {
            *timed_out = true;
            return child_given_up;
        }
        sleep_us(pause_us);
        /* A healthy child stops within a millisecond or so: check often at first, so the start
         * costs little, and only back off once it is clearly stuck. */
        const long cap =
            now_ms() - started < quick_stop_checks_ms ? quick_stop_check_us : last_stop_check_us;
        pause_us = pause_us * 2 < cap ? pause_us * 2 : cap;
    }
}

/* The errno the child sent before it failed, or 0. */
static int child_error(const run_state* state) {
    int error = 0;
    if (read(state->report_read, &error, sizeof error) != sizeof error)
        return 0;
    return error;
}

static int set_nonblocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    return flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0 ? errno : 0;
}

int kr_command_run(kr_command* handle, const char* command, const char* cwd, const char* tmpdir,
                   const char* profile, uint32_t timeout_ms, char* buffer, size_t capacity,
                   size_t* out_length, int32_t* out_exit_status, bool* out_truncated,
                   bool* out_timed_out) {
    if (out_length == NULL || out_exit_status == NULL || out_truncated == NULL ||
        out_timed_out == NULL)
        return EINVAL;
    *out_length = 0;
    *out_exit_status = -1;
    *out_truncated = false;
    *out_timed_out = false;
    if (handle == NULL || command == NULL || cwd == NULL || tmpdir == NULL || buffer == NULL ||
        capacity == 0)
        return EINVAL;
    if (atomic_load(&handle->cancelled))
        return KR_COMMAND_ECANCELED;
    if (profile != NULL)
        return ENOTSUP;

    char tmpdir_entry[environment_entry_size];
    int entry_length = snprintf(tmpdir_entry, sizeof tmpdir_entry, "TMPDIR=%s", tmpdir);
    if (entry_length < 0)
        return EINVAL;
    if ((size_t)entry_length >= sizeof tmpdir_entry)
        return KR_COMMAND_ENAMETOOLONG;
    char* envp[] = {"PATH=/usr/bin:/bin:/usr/sbin:/sbin", "LANG=en_US.UTF-8", tmpdir_entry, NULL};
    char* argv[] = {"/bin/sh", "-c", (char*)command, NULL};

    /* The deadline also covers the start: a child may never get as far as exec. */
    const uint64_t started = now_ms();
    run_state state = {-1, -1, -1, -1, -1, -1, -1};
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return finish(&state, errno);
    state.out_read = fds[0];
    state.out_write = fds[1];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return finish(&state, errno);
    state.err_read = fds[0];
    state.err_write = fds[1];
    /* Carries the child's errno when it fails before exec; exec closes it unread. */
    if (pipe2(fds, O_CLOEXEC) != 0)
        return finish(&state, errno);
    state.report_read = fds[0];
    state.report_write = fds[1];

    /* No handler of this process may run in the child before it resets them. */
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    pid_t pid = fork();
    if (pid == 0)
        child_start(state.report_write, state.out_write, state.err_write, cwd, argv, envp);
    int fork_error = errno;
    pthread_sigmask(SIG_SETMASK, &previous, NULL);
    if (pid < 0)
        return finish(&state, fork_error);

    close_fd(&state.out_write);
    close_fd(&state.err_write);
    close_fd(&state.report_write);

    int error;
    if ((error = set_nonblocking(state.out_read)) != 0 ||
        (error = set_nonblocking(state.err_read)) != 0 ||
        (error = set_nonblocking(state.report_read)) != 0) {
        abandon(&state, pid);
        return error;
    }

    int status = 0;
    switch (await_stop(handle, pid, started, timeout_ms, &status, out_timed_out)) {
    case child_stopped:
        break;
    case child_ended: {
        /* It failed before exec and is already reaped: report why. */
        const int reported = child_error(&state);
        return finish(&state, reported != 0 ? reported : ESRCH);
    }
    case child_given_up: {
        /* Cancelled or out of time before the shell started: the result a stop in the middle of
         * the command gives. */
        if (end_child(pid, &status) != 0)
            return finish(&state, ESRCH);
        const int reported = child_error(&state);
        if (reported != 0) {
            *out_timed_out = false;
            return finish(&state, reported);
        }
        *out_exit_status = exit_status_of(status);
        return finish(&state, 0);
    }
    case child_lost:
        return abandon(&state, pid);
    }

    kr_process table[KR_PROCESS_TABLE_SIZE];
    size_t count = 1;
    bool overflow = false;
    if (kr_process_identify(pid, &table[0]) != 0 || kill(pid, SIGCONT) != 0)
        return abandon(&state, pid);
#ifdef SYS_pidfd_open
    /* Lets poll wake the moment the shell exits, not only when output arrives. */
    state.shell_fd = (int)syscall(SYS_pidfd_open, pid, 0);
#endif

    struct pollfd polled[3] = {
        {.fd = state.out_read, .events = POLLIN},
        {.fd = state.err_read, .events = POLLIN},
        {.fd = state.shell_fd, .events = POLLIN},
    };
    size_t length = 0;
    for (;;) {
        kr_descendants_discover(table, &count, &overflow);
        bool cancelled = atomic_load(&handle->cancelled) != 0;
        if (now_ms() - started >= timeout_ms)
            *out_timed_out = true;
        if (cancelled || *out_timed_out || *out_truncated || overflow) {
            kr_descendants_end(table, count);
            break;
        }
        poll(polled, 3, poll_interval_ms);
        read_round(polled, buffer, capacity, &length, out_truncated);
        *out_length = length;
        if (shell_exited(pid)) {
            /* What the shell wrote just before it exited is still in the pipes; a background
             * child still writing must not keep us here, hence the bound. */
            for (int round = 0; round < drain_rounds; ++round) {
                const size_t before = length;
                read_round(polled, buffer, capacity, &length, out_truncated);
                if (length == before)
                    break;
            }
            *out_length = length;
            break;
        }
    }

    /* Background children of a finished shell are ended here. */
    kr_descendants_discover(table, &count, &overflow);
    kr_descendants_end(table, count);
    /* The shell is not reaped yet, so its group id still names only what the command started;
     * this also reaches processes that were started between two scans. */
    kill(-pid, SIGKILL);
    if (wait_for(pid, &status, 0) == 0)
        *out_exit_status = exit_status_of(status);

    for (int round = 0; round < kill_rounds && count > 1; ++round) {
        bool any = false;
        for (size_t i = 1; i < count && !any; ++i)
            any = kr_process_alive(&table[i]);
        if (!any)
            break;
        kr_descendants_end(table + 1, count - 1);
        sleep_us(1000);
    }

    /* An exec that failed after the resume: nothing ran. */
    const int exec_error = child_error(&state);
    if (exec_error != 0) {
        *out_exit_status = -1;
        return finish(&state, exec_error);
    }
    return finish(&state, 0);
}
