/* Process identities and the descendant scan, over /proc. */
#include "kr_command.h"
#include "kr_process_internal.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

int kr_stat_read(pid_t pid, kr_stat* out) {
    if (pid <= 0)
        return ESRCH;
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", (int)pid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT ? ESRCH : errno;
    char text[1024];
    ssize_t got;
    do {
        got = read(fd, text, sizeof text - 1);
    } while (got < 0 && errno == EINTR);
    int error = got < 0 ? errno : 0;
    close(fd);
    if (got < 0)
        return error;
    text[got] = '\0';

    /* The command name may hold spaces and parentheses; only the last ')' ends it. */
    const char* fields = strrchr(text, ')');
    if (fields == NULL || fields[1] != ' ')
        return EIO;
    fields += 2;

    /* Field 3 (state) is index 0 here, field 22 (start time) index 19. */
    char state = 0;
    long long values[20] = {0};
    const char* cursor = fields;
    for (int index = 0; index < 20; ++index) {
        if (*cursor == '\0')
            return EIO;
        if (index == 0) {
            state = *cursor;
        } else {
            char* end = NULL;
            errno = 0;
            values[index] = strtoll(cursor, &end, 10);
            if (end == cursor || errno != 0)
                return EIO;
            cursor = end;
        }
        while (*cursor != ' ' && *cursor != '\0')
            ++cursor;
        if (*cursor == ' ')
            ++cursor;
    }
    out->state = state;
    out->ppid = (pid_t)values[1];
    out->pgrp = (pid_t)values[2];
    out->threads = values[17];
    out->start_time = (unsigned long long)values[19];
    return 0;
}

int kr_process_identify(pid_t pid, kr_process* out) {
    kr_stat stat;
    int error = kr_stat_read(pid, &stat);
    if (error != 0)
        return error;
    out->pid = pid;
    out->start_time = stat.start_time;
    return 0;
}

static bool matches(const kr_process* process, const kr_stat* stat) {
    return stat->start_time == process->start_time;
}

bool kr_process_same(const kr_process* process) {
    kr_stat stat;
    return kr_stat_read(process->pid, &stat) == 0 && matches(process, &stat);
}

static bool exited(char state) {
    return state == 'Z' || state == 'X' || state == 'x';
}

bool kr_process_alive(const kr_process* process) {
    kr_stat stat;
    return kr_stat_read(process->pid, &stat) == 0 && matches(process, &stat) && !exited(stat.state);
}

#if defined(SYS_pidfd_open) && defined(SYS_pidfd_send_signal)
/* Cleared once the kernel turns out not to have pidfds. */
static atomic_bool pidfds_available = true;
#endif

int kr_process_signal(const kr_process* process, int signal) {
#if defined(SYS_pidfd_open) && defined(SYS_pidfd_send_signal)
    if (atomic_load(&pidfds_available)) {
        /* A descriptor pins the process: once the identity matches through it, the signal
         * cannot reach a newcomer that took the same id. */
        int fd = (int)syscall(SYS_pidfd_open, process->pid, 0);
        if (fd >= 0) {
            int result = 0;
            if (!kr_process_same(process))
                result = ESRCH;
            else if (syscall(SYS_pidfd_send_signal, fd, signal, NULL, 0) != 0)
                result = errno;
            close(fd);
            if (result != ENOSYS)
                return result;
            atomic_store(&pidfds_available, false);
        } else if (errno == ESRCH || errno == EINVAL) {
            return ESRCH;
        } else if (errno == ENOSYS) {
            atomic_store(&pidfds_available, false);
        }
        /* Out of descriptors or no pidfds: fall back to re-checking just before kill. */
    }
#endif
    if (!kr_process_same(process))
        return ESRCH;
    return kill(process->pid, signal) == 0 ? 0 : errno;
}

/* Parses "12 34 56 " from `fd` into `pids`, reading in pieces so that any length works. */
static void parse_pid_list(int fd, pid_t* pids, size_t room, size_t* count, bool* overflow) {
    char chunk[4096];
    long long value = 0;
    bool in_number = false;
    for (;;) {
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        for (ssize_t i = 0; i < got; ++i) {
            char c = chunk[i];
            if (c >= '0' && c <= '9') {
                if (value < 100000000)
                    value = value * 10 + (c - '0');
                in_number = true;
                continue;
            }
            if (in_number) {
                if (*count >= room) {
                    *overflow = true;
                    return;
                }
                pids[(*count)++] = (pid_t)value;
            }
            value = 0;
            in_number = false;
        }
    }
    if (in_number) {
        if (*count >= room)
            *overflow = true;
        else
            pids[(*count)++] = (pid_t)value;
    }
}

static int read_children_file(pid_t pid, pid_t tid, pid_t* pids, size_t room, size_t* count,
                              bool* overflow) {
    char path[96];
    snprintf(path, sizeof path, "/proc/%d/task/%d/children", (int)pid, (int)tid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    parse_pid_list(fd, pids, room, count, overflow);
    close(fd);
    return 0;
}

/* Kernels built without the per-task children files: find children by their parent id. */
static void scan_for_children(pid_t pid, pid_t* pids, size_t room, size_t* count, bool* overflow) {
    DIR* proc = opendir("/proc");
    if (proc == NULL)
        return;
    struct dirent* entry;
    while ((entry = readdir(proc)) != NULL) {
        char* end = NULL;
        long candidate = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || candidate <= 0)
            continue;
        kr_stat stat;
        if (kr_stat_read((pid_t)candidate, &stat) != 0 || stat.ppid != pid)
            continue;
        if (*count >= room) {
            *overflow = true;
            break;
        }
        pids[(*count)++] = (pid_t)candidate;
    }
    closedir(proc);
}

static bool children_files_exist(void) {
    /* 0 unknown, 1 yes, 2 no. */
    static atomic_int known = 0;
    int value = atomic_load(&known);
    if (value == 0) {
        char path[96];
        snprintf(path, sizeof path, "/proc/self/task/%d/children", (int)syscall(SYS_gettid));
        value = access(path, R_OK) == 0 ? 1 : 2;
        atomic_store(&known, value);
    }
    return value == 1;
}

void kr_children_list(pid_t pid, long long threads, pid_t* pids, size_t room, size_t* count,
                      bool* overflow) {
    *count = 0;
    if (!children_files_exist()) {
        scan_for_children(pid, pids, room, count, overflow);
        return;
    }
    /* Each thread has its own list; a single-threaded process needs no directory walk. */
    if (threads <= 1) {
        read_children_file(pid, pid, pids, room, count, overflow);
        return;
    }
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/task", (int)pid);
    DIR* tasks = opendir(path);
    if (tasks == NULL)
        return;
    struct dirent* entry;
    while (!*overflow && (entry = readdir(tasks)) != NULL) {
        char* end = NULL;
        long tid = strtol(entry->d_name, &end, 10);
        if (end == entry->d_name || *end != '\0' || tid <= 0)
            continue;
        read_children_file(pid, (pid_t)tid, pids, room, count, overflow);
    }
    closedir(tasks);
}

static bool tracked(const kr_process* table, size_t count, const kr_process* process) {
    for (size_t i = 0; i < count; ++i) {
        if (table[i].pid == process->pid && table[i].start_time == process->start_time)
            return true;
    }
    return false;
}

/* Removes the entries marked in `gone`, keeping the order of the rest, and returns where entry
 * `index` (one that stays) now is. */
static size_t compact(kr_process* table, size_t* count, bool* gone, size_t index) {
    size_t kept = 0;
    size_t moved = index;
    for (size_t i = 0; i < *count; ++i) {
        if (i == index)
            moved = kept;
        if (gone[i])
            gone[i] = false;
        else
            table[kept++] = table[i];
    }
    *count = kept;
    return moved;
}

void (*kr_test_children_listed)(kr_process* entry) = NULL;

void kr_descendants_discover(kr_process* table, size_t* count, bool* overflow) {
    pid_t listed[KR_PROCESS_TABLE_SIZE];
    kr_process children[KR_PROCESS_TABLE_SIZE];
    /* A process that has ended gives its place back, so that a long run of short-lived
     * programs is not taken for a fork storm. */
    bool gone[KR_PROCESS_TABLE_SIZE] = {false};
    /* `*count` grows inside the loop, so new entries are scanned in this same pass. */
    for (size_t i = 0; i < *count; ++i) {
        kr_stat parent;
        if (kr_stat_read(table[i].pid, &parent) != 0 || !matches(&table[i], &parent) ||
            exited(parent.state)) {
            /* The first entry stays whatever happens: its owner reaps it. */
            gone[i] = i > 0;
            continue;
        }
        size_t found = 0;
        bool many = false;
        kr_children_list(table[i].pid, parent.threads, listed, KR_PROCESS_TABLE_SIZE, &found,
                         &many);
        if (many || found >= KR_PROCESS_TABLE_SIZE)
            *overflow = true;
        size_t kept = 0;
        for (size_t c = 0; c < found; ++c) {
            kr_stat child;
            if (listed[c] <= 0 || kr_stat_read(listed[c], &child) != 0 ||
                child.ppid != table[i].pid || exited(child.state))
                continue;
            children[kept].pid = listed[c];
            children[kept].start_time = child.start_time;
            ++kept;
        }
        if (kr_test_children_listed != NULL)
            kr_test_children_listed(&table[i]);
        /* The id may have changed hands while the list was read: then these children are a
         * newcomer's. Still the same now means it was the same all along. */
        if (kept > 0 && !kr_process_same(&table[i])) {
            gone[i] = i > 0;
            continue;
        }
        for (size_t c = 0; c < kept; ++c) {
            if (tracked(table, *count, &children[c]))
                continue;
            if (*count >= KR_PROCESS_TABLE_SIZE)
                i = compact(table, count, gone, i);
            if (*count >= KR_PROCESS_TABLE_SIZE) {
                *overflow = true;
                return;
            }
            table[(*count)++] = children[c];
        }
    }
    compact(table, count, gone, 0);
}

void kr_descendants_end(const kr_process* table, size_t count) {
    for (size_t i = count; i > 0; --i)
        kr_process_signal(&table[i - 1], SIGKILL);
}
