#include "kr_command.h"
#include "kr_process_internal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr size_t kCapacity = 24576;

struct RunResult {
    int rc = -1;
    std::string output;
    int32_t exitStatus = 0;
    bool truncated = true;
    bool timedOut = true;
    std::chrono::milliseconds elapsed{};
};

struct Options {
    uint32_t timeoutMs = 10000;
    size_t capacity = kCapacity;
    std::string cwd = "/";
    std::string tmpdir = "/tmp";
    const char* profile = nullptr;
    kr_command* handle = nullptr; // a fresh one when null
};

RunResult run(const std::string& command, Options options = {}) {
    kr_command* own = options.handle ? nullptr : kr_command_create();
    kr_command* handle = options.handle ? options.handle : own;
    std::vector<char> buffer(options.capacity, '\x7f');
    RunResult result;
    size_t length = 99;
    const auto started = std::chrono::steady_clock::now();
    result.rc = kr_command_run(handle, command.c_str(), options.cwd.c_str(), options.tmpdir.c_str(),
                               options.profile, options.timeoutMs, buffer.data(), buffer.size(),
                               &length, &result.exitStatus, &result.truncated, &result.timedOut);
    result.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - started);
    result.output.assign(buffer.data(), length);
    kr_command_destroy(own);
    return result;
}

std::vector<pid_t> pidsIn(const std::string& text) {
    std::vector<pid_t> pids;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos)
            pids.push_back(static_cast<pid_t>(std::stol(line)));
    }
    return pids;
}

// The whole of a /proc file; empty when the process is gone, even midway through the read.
std::string slurp(const std::string& path) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return text;
    char chunk[4096];
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) > 0)
        text.append(chunk, static_cast<size_t>(got));
    close(fd);
    return got < 0 ? std::string() : text;
}

// Gone, or exited and waiting for its new parent to reap it.
bool gone(pid_t pid) {
    const std::string text = slurp("/proc/" + std::to_string(pid) + "/stat");
    if (text.empty())
        return true;
    const auto close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() &&
           (text[close + 2] == 'Z' || text[close + 2] == 'X');
}

// A process that was sent SIGKILL may still need a moment to die on a busy machine; the grace
// only bounds how long a real failure takes to show.
bool allGone(const std::vector<pid_t>& pids, std::chrono::milliseconds grace = 10s) {
    const auto until = std::chrono::steady_clock::now() + grace;
    for (;;) {
        bool all = true;
        for (pid_t pid : pids)
            all = all && gone(pid);
        if (all)
            return true;
        if (std::chrono::steady_clock::now() > until)
            return false;
        std::this_thread::sleep_for(5ms);
    }
}

int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count - 1; // the directory's own descriptor
}

// Kills, on the way out, every process whose command line is `sleep <marker>`: whatever a
// faulty runner leaves behind must not outlive the test.
class SleepSweeper {
public:
    explicit SleepSweeper(std::string marker)
        : m_marker(std::move(marker)) {}
    ~SleepSweeper() { sweep(); }
    SleepSweeper(const SleepSweeper&) = delete;
    SleepSweeper& operator=(const SleepSweeper&) = delete;

    std::vector<pid_t> find() const {
        std::vector<pid_t> found;
        const std::string wanted = std::string("sleep") + '\0' + m_marker + '\0';
        DIR* proc = opendir("/proc");
        while (dirent* entry = readdir(proc)) {
            char* end = nullptr;
            const long pid = std::strtol(entry->d_name, &end, 10);
            if (end == entry->d_name || *end != '\0')
                continue;
            const std::string cmdline = slurp(std::string("/proc/") + entry->d_name + "/cmdline");
            if (cmdline == wanted && !gone(static_cast<pid_t>(pid)))
                found.push_back(static_cast<pid_t>(pid));
        }
        closedir(proc);
        return found;
    }

    int sweep() const {
        const auto left = find();
        for (pid_t pid : left)
            kill(pid, SIGKILL);
        return static_cast<int>(left.size());
    }

private:
    std::string m_marker;
};

std::string uniqueSleep(int whole) {
    return std::to_string(whole) + "." + std::to_string(getpid() % 100000 + 100000);
}

// Kills and reaps a test's own process group leader, whatever happens in the test.
struct GroupKiller {
    pid_t group;
    ~GroupKiller() {
        kill(-group, SIGKILL);
        waitpid(group, nullptr, 0);
    }
};

// In a forked child: tells the parent it exists, by closing its copy of `ready`, then waits to
// be killed.
[[noreturn]] void holdUntilKilled(int ready) {
    close(ready);
    for (;;)
        pause();
}

// Where a child that never stops for its parent reports its id before waiting for a signal.
int neverStopReport = -1;

void neverStop() {
    const pid_t self = getpid();
    (void)!write(neverStopReport, &self, sizeof self);
    for (;;)
        pause();
}

// Runs a command whose child never stops before exec, cancelling once the child reports when
// `cancel` is set. A run that never returns fails the test instead of hanging it.
RunResult runNeverStopping(Options options, bool cancel) {
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe";
        return {};
    }
    neverStopReport = report[1];
    kr_test_before_stop = neverStop;
    auto running = std::async(std::launch::async, [options] { return run("echo ran", options); });
    pid_t child = 0;
    const auto readReport = [&](int waitMs) {
        pollfd ready{report[0], POLLIN, 0};
        if (child == 0 && poll(&ready, 1, waitMs) == 1 &&
            read(report[0], &child, sizeof child) != sizeof child)
            child = 0;
    };
    if (cancel) {
        readReport(20000);
        kr_command_cancel(options.handle);
    }
    if (running.wait_for(20s) != std::future_status::ready) {
        ADD_FAILURE() << "the run still waits for a child that never stops";
        readReport(0);
        if (child > 0)
            kill(child, SIGKILL);
    }
    RunResult result = running.get();
    kr_test_before_stop = nullptr;
    readReport(0);
    // Killed and reaped: it is no child of ours any more.
    if (child > 0) {
        const pid_t waited = waitpid(child, nullptr, WNOHANG);
        const int error = errno;
        EXPECT_EQ(waited, -1);
        EXPECT_EQ(error, ECHILD);
    }
    close(report[0]);
    close(report[1]);
    return result;
}

// The process whose id the scan is to see taken over after listing its children.
pid_t replacedAfterListing = 0;

// As if the process had ended and a newcomer with children of its own had taken its id.
void replaceAfterListing(kr_process* entry) {
    if (entry->pid == replacedAfterListing)
        entry->start_time += 1;
}

} // namespace

TEST(Runner, CollectsOutputAndReportsExitCodesAndSignals) {
    const RunResult plain = run("echo out; echo err >&2; exit 3");
    EXPECT_EQ(plain.rc, 0);
    EXPECT_NE(plain.output.find("out\n"), std::string::npos);
    EXPECT_NE(plain.output.find("err\n"), std::string::npos);
    EXPECT_EQ(plain.output.size(), 8u);
    EXPECT_EQ(plain.exitStatus, 3);
    EXPECT_FALSE(plain.truncated);
    EXPECT_FALSE(plain.timedOut);

    // Output still in the pipes when the shell has exited is not lost, even beyond one round
    // of reads.
    for (int i = 0; i < 10; ++i) {
        const RunResult last = run("printf a; sleep 0.00" + std::to_string(i) + "; printf b");
        EXPECT_EQ(last.output, "ab");
        const RunResult burst = run("head -c 60000 /dev/zero", {.capacity = 100000});
        EXPECT_EQ(burst.output.size(), 60000u);
    }

    const RunResult terminated = run("echo before; kill -TERM $$; echo after");
    EXPECT_EQ(terminated.rc, 0);
    EXPECT_EQ(terminated.exitStatus, 143);
    EXPECT_EQ(terminated.output, "before\n");
    EXPECT_EQ(run("kill -KILL $$").exitStatus, 137);

    const RunResult inCwd = run("pwd", {.cwd = "/usr/bin"});
    EXPECT_EQ(inCwd.output, "/usr/bin\n");
}

TEST(Runner, RefusesBadRequestsWithoutRunningAnything) {
    char dir[] = "/tmp/kr-runner-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string marker = std::string(dir) + "/ran";
    const std::string touch = "touch " + marker;

    const RunResult sandboxed = run(touch, {.profile = "(version 1)"});
    EXPECT_EQ(sandboxed.rc, ENOTSUP);
    EXPECT_EQ(sandboxed.exitStatus, -1);
    EXPECT_FALSE(sandboxed.truncated);
    EXPECT_FALSE(sandboxed.timedOut);

    const RunResult missingCwd = run(touch, {.cwd = std::string(dir) + "/missing"});
    EXPECT_EQ(missingCwd.rc, ENOENT);
    EXPECT_EQ(missingCwd.exitStatus, -1);

    kr_command* handle = kr_command_create();
    kr_command_cancel(handle);
    const RunResult cancelled = run(touch, {.handle = handle});
    kr_command_destroy(handle);
    EXPECT_EQ(cancelled.rc, 89);
    EXPECT_EQ(cancelled.exitStatus, -1);
    EXPECT_TRUE(cancelled.output.empty());

    EXPECT_EQ(access(marker.c_str(), F_OK), -1);
    rmdir(dir);
}

TEST(Runner, EnvironmentIsExactlyThreeEntriesWithBoundedTmpdir) {
    setenv("KR_RUNNER_PARENT_SECRET", "leak", 1);
    const RunResult env = run("tr '\\0' '\\n' < /proc/$$/environ", {.tmpdir = "/tmp/kr-x"});
    EXPECT_EQ(env.output,
              "PATH=/usr/bin:/bin:/usr/sbin:/sbin\nLANG=en_US.UTF-8\nTMPDIR=/tmp/kr-x\n");
    unsetenv("KR_RUNNER_PARENT_SECRET");

    // "TMPDIR=" and the path must stay under 4,096 bytes.
    const std::string longest(4096 - 8, 'd');
    const RunResult fits = run("printf %s \"$TMPDIR\" | wc -c", {.tmpdir = longest});
    EXPECT_EQ(fits.rc, 0);
    EXPECT_EQ(fits.output, "4088\n");
    const RunResult tooLong = run("echo ran", {.tmpdir = longest + "d"});
    EXPECT_EQ(tooLong.rc, 63);
    EXPECT_EQ(tooLong.exitStatus, -1);
    EXPECT_TRUE(tooLong.output.empty());
}

TEST(Runner, InputIsAtEndOfFileAndNoDescriptorIsInherited) {
    const RunResult input = run("cat; echo \"cat=$?\"; read line; echo \"read=$?\"");
    EXPECT_EQ(input.output, "cat=0\nread=1\n");
    EXPECT_FALSE(input.timedOut);

    // A descriptor this process left inheritable must still not reach the command.
    const int inheritable = open("/dev/null", O_RDONLY);
    ASSERT_GE(inheritable, 3);
    const RunResult fds = run("ls /proc/$$/fd; readlink /proc/$$/fd/0");
    close(inheritable);
    EXPECT_EQ(fds.output, "0\n1\n2\n/dev/null\n");
}

TEST(Runner, DeadlineStopsTheCommandAndKeepsItsOutput) {
    const RunResult late = run("echo started; sleep 20", {.timeoutMs = 200});
    EXPECT_EQ(late.rc, 0);
    EXPECT_TRUE(late.timedOut);
    EXPECT_FALSE(late.truncated);
    EXPECT_EQ(late.output, "started\n");
    EXPECT_EQ(late.exitStatus, 137);
    EXPECT_GE(late.elapsed, 200ms);
    EXPECT_LT(late.elapsed, 15s); // well before the sleep would have ended

    EXPECT_TRUE(run("true", {.timeoutMs = 0}).timedOut);
}

TEST(Runner, OutputStopsWhenTheBufferIsFull) {
    const RunResult chatty = run("head -c 100000 /dev/zero | tr '\\0' x; sleep 20");
    EXPECT_EQ(chatty.rc, 0);
    EXPECT_TRUE(chatty.truncated);
    EXPECT_FALSE(chatty.timedOut);
    EXPECT_EQ(chatty.output, std::string(kCapacity, 'x'));
    EXPECT_EQ(chatty.exitStatus, 137); // killed for its output, long before the deadline

    const RunResult below = run("head -c 24575 /dev/zero | tr '\\0' y");
    EXPECT_FALSE(below.truncated);
    EXPECT_EQ(below.output, std::string(kCapacity - 1, 'y'));
    EXPECT_EQ(below.exitStatus, 0);

    // Filling the buffer exactly is all it can tell: the rest may have been cut off.
    const RunResult exact = run("head -c 24576 /dev/zero | tr '\\0' z");
    EXPECT_TRUE(exact.truncated);
    EXPECT_EQ(exact.output.size(), kCapacity);
}

TEST(Runner, BackgroundChildrenOfAFinishedShellAreKilledAtOnce) {
    SleepSweeper sweeper(uniqueSleep(21));
    const std::string sleep = "sleep " + uniqueSleep(21);
    // A run that waited for the background sleep would end by its deadline instead.
    // The shell exits within microseconds of starting it, often before any scan saw it.
    for (int i = 0; i < 10; ++i) {
        const RunResult quiet = run(sleep + " &");
        EXPECT_EQ(quiet.exitStatus, 0);
        EXPECT_FALSE(quiet.timedOut);
        // Killed, if not always reaped yet: give it the moment dying takes.
        const auto until = std::chrono::steady_clock::now() + 10s;
        while (!sweeper.find().empty() && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(2ms);
        EXPECT_TRUE(sweeper.find().empty());
    }

    const RunResult background = run(sleep + " & echo $!");
    EXPECT_EQ(background.rc, 0);
    EXPECT_EQ(background.exitStatus, 0);
    EXPECT_FALSE(background.timedOut);
    const auto pids = pidsIn(background.output);
    ASSERT_EQ(pids.size(), 1u);
    EXPECT_TRUE(allGone(pids));

    // Outside the shell's process group only the tracked identity can find it.
    const RunResult detached = run("setsid " + sleep + " & echo $!; sleep 0.1");
    EXPECT_EQ(detached.exitStatus, 0);
    EXPECT_FALSE(detached.timedOut);
    const auto detachedPids = pidsIn(detached.output);
    ASSERT_EQ(detachedPids.size(), 1u);
    EXPECT_TRUE(allGone(detachedPids));
    EXPECT_EQ(sweeper.sweep(), 0);
}

TEST(Runner, GrandchildrenAreKilledOnDeadlineAndCancel) {
    SleepSweeper sweeper(uniqueSleep(22));
    const std::string sleep = "sleep " + uniqueSleep(22);
    char dir[] = "/tmp/kr-tree-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string list = std::string(dir) + "/pids";
    // A grandchild, one that leaves the process group and a great-grandchild, each listed.
    const std::string note = " & echo $! >> " + list;
    const std::string tree = "sh -c '" + sleep + note + "; setsid " + sleep + note + "; sh -c \"" +
                             sleep + " & echo \\$! >> " + list + "; wait\" & wait' & " + sleep;
    const auto listed = [&] {
        const std::string text = slurp(list);
        return std::count(text.begin(), text.end(), '\n');
    };

    // Time enough for the tree to stand even on a busy machine.
    const RunResult timedOut = run(tree, {.timeoutMs = 1500});
    EXPECT_TRUE(timedOut.timedOut);
    EXPECT_EQ(timedOut.exitStatus, 137);
    auto pids = pidsIn(slurp(list));
    EXPECT_EQ(pids.size(), 3u);
    EXPECT_TRUE(allGone(pids));
    unlink(list.c_str());

    kr_command* handle = kr_command_create();
    std::thread canceller([&] {
        const auto until = std::chrono::steady_clock::now() + 30s;
        while (listed() < 3 && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(2ms);
        kr_command_cancel(handle);
    });
    const RunResult cancelled = run(tree, {.handle = handle});
    canceller.join();
    kr_command_destroy(handle);
    EXPECT_EQ(cancelled.rc, 0);
    EXPECT_FALSE(cancelled.timedOut); // the sleep outlasts the deadline: only the cancel ends it
    EXPECT_EQ(cancelled.exitStatus, 137);
    pids = pidsIn(slurp(list));
    EXPECT_EQ(pids.size(), 3u);
    EXPECT_TRUE(allGone(pids));
    EXPECT_EQ(sweeper.sweep(), 0);
    unlink(list.c_str());
    rmdir(dir);
}

TEST(Runner, AForkStormOverflowsTheTableAndEveryTrackedProcessDies) {
    // Bounded: 300 children that leave the process group, each ending by itself, late enough to
    // be alive all at once however slowly a busy machine starts them. Their ids go to a file,
    // which the kill cannot cut short as it can the output.
    SleepSweeper sweeper(uniqueSleep(50));
    char dir[] = "/tmp/kr-storm-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string list = std::string(dir) + "/pids";
    const std::string storm = "i=0; while [ $i -lt 300 ]; do setsid sleep " + uniqueSleep(50) +
                              " & echo $! >> " + list + "; i=$((i+1)); done; wait";
    const RunResult stormed = run(storm, {.timeoutMs = 60000});
    EXPECT_EQ(stormed.rc, 0);
    // Left alone, the sleeps would end by themselves before the deadline, with status 0.
    EXPECT_EQ(stormed.exitStatus, 137);
    EXPECT_FALSE(stormed.timedOut);

    const std::string text = slurp(list);
    const auto pids = pidsIn(text);
    unlink(list.c_str());
    rmdir(dir);

    // The table holds the shell and 255 children, all dead by now; at most the last child
    // started may be missing from the file. Children started after the table filled up are
    // beyond its reach.
    EXPECT_GE(pids.size() + 1, 255u);
    size_t dead = 0;
    for (pid_t pid : pids)
        dead += gone(pid);
    EXPECT_GE(dead + 1, 255u);
    EXPECT_LE(sweeper.find().size() + 255, pids.size() + 1);
}

TEST(Runner, SignalsReachOnlyTheSameProcess) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        pause();
        _exit(0);
    }
    kr_process real{};
    ASSERT_EQ(kr_process_identify(child, &real), 0);
    EXPECT_TRUE(kr_process_same(&real));
    EXPECT_TRUE(kr_process_alive(&real));

    // Same id, other start time: a process that took over a recycled id.
    kr_process impostor = real;
    impostor.start_time += 1;
    EXPECT_FALSE(kr_process_same(&impostor));
    EXPECT_EQ(kr_process_signal(&impostor, SIGKILL), ESRCH);
    EXPECT_TRUE(kr_process_alive(&real));

    EXPECT_EQ(kr_process_signal(&real, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_FALSE(kr_process_same(&real));
    EXPECT_EQ(kr_process_signal(&real, SIGKILL), ESRCH);
}

TEST(Runner, DescendantScanFollowsGrandchildrenInOnePass) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // child -> 2 grandchildren -> 1 great-grandchild under the first
        if (fork() == 0) {
            if (fork() == 0)
                holdUntilKilled(ready[1]);
            holdUntilKilled(ready[1]);
        }
        if (fork() == 0)
            holdUntilKilled(ready[1]);
        holdUntilKilled(ready[1]);
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 0); // every process has closed its copy
    close(ready[0]);

    kr_process table[KR_PROCESS_TABLE_SIZE];
    size_t count = 1;
    bool overflow = false;
    ASSERT_EQ(kr_process_identify(child, &table[0]), 0);
    kr_descendants_discover(table, &count, &overflow);
    EXPECT_EQ(count, 4u);
    EXPECT_FALSE(overflow);
    kr_descendants_discover(table, &count, &overflow);
    EXPECT_EQ(count, 4u); // nothing twice

    std::vector<pid_t> pids;
    for (size_t i = 0; i < count; ++i)
        pids.push_back(table[i].pid);
    kr_descendants_end(table, count);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(allGone(pids));
}

TEST(Runner, ARecycledIdLendsNoChildrenToTheScan) {
    // child -> grandchild -> great-grandchild, all waiting
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        setpgid(0, 0);
        if (fork() == 0) {
            if (fork() == 0)
                holdUntilKilled(ready[1]);
            holdUntilKilled(ready[1]);
        }
        holdUntilKilled(ready[1]);
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 0);
    close(ready[0]);
    const GroupKiller cleanup{child};

    kr_process table[KR_PROCESS_TABLE_SIZE];
    size_t count = 1;
    bool overflow = false;
    ASSERT_EQ(kr_process_identify(child, &table[0]), 0);
    kr_descendants_discover(table, &count, &overflow);
    ASSERT_EQ(count, 3u);
    const kr_process grandchild = table[1];

    kr_test_children_listed = replaceAfterListing;
    // The grandchild's id changes hands: its entry goes and its children stay unknown.
    replacedAfterListing = grandchild.pid;
    count = 1;
    kr_descendants_discover(table, &count, &overflow);
    EXPECT_EQ(count, 1u);
    // The same for the first entry, which stays: its owner reaps it.
    replacedAfterListing = child;
    count = 1;
    kr_descendants_discover(table, &count, &overflow);
    EXPECT_EQ(count, 1u);
    kr_test_children_listed = nullptr;

    ASSERT_EQ(kr_process_identify(child, &table[0]), 0);
    count = 1;
    kr_descendants_discover(table, &count, &overflow);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(table[1].pid, grandchild.pid);
    EXPECT_FALSE(overflow);
}

TEST(Runner, OnlyLiveDescendantsTakeRoomInTheTable) {
    // 300 children one after another, each gone before the next starts.
    int next[2], ready[2];
    ASSERT_EQ(pipe(next), 0);
    ASSERT_EQ(pipe(ready), 0);
    const pid_t parent = fork();
    ASSERT_GE(parent, 0);
    if (parent == 0) {
        setpgid(0, 0);
        char byte = 1;
        for (int i = 0; i < 300; ++i) {
            const pid_t child = fork();
            if (child == 0) {
                pause();
                _exit(0);
            }
            if (write(ready[1], &byte, 1) != 1 || read(next[0], &byte, 1) != 1)
                break;
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        _exit(0);
    }
    close(next[0]);
    close(ready[1]);
    const GroupKiller cleanup{parent};

    kr_process table[KR_PROCESS_TABLE_SIZE];
    size_t count = 1;
    bool overflow = false;
    ASSERT_EQ(kr_process_identify(parent, &table[0]), 0);
    size_t most = 0;
    int seen = 0;
    char byte = 1;
    while (read(ready[0], &byte, 1) == 1) {
        kr_descendants_discover(table, &count, &overflow);
        most = std::max(most, count);
        ++seen;
        if (write(next[1], &byte, 1) != 1)
            break;
    }
    close(next[1]);
    close(ready[0]);
    EXPECT_EQ(seen, 300);
    EXPECT_EQ(most, 2u);
    EXPECT_FALSE(overflow);

    // A build runs hundreds of short-lived programs, one after another.
    const RunResult build =
        run("for i in $(seq 600); do /bin/true; done; echo built", {.timeoutMs = 60000});
    EXPECT_EQ(build.output, "built\n");
    EXPECT_EQ(build.exitStatus, 0);
}

TEST(Runner, CancelAndDeadlineReachAChildThatNeverStops) {
    // Like a child stuck changing into a folder on a hung mount: it never stops for its parent.
    kr_command* handle = kr_command_create();
    const RunResult cancelled = runNeverStopping({.handle = handle}, true);
    kr_command_destroy(handle);
    EXPECT_EQ(cancelled.rc, 0);
    EXPECT_EQ(cancelled.exitStatus, 137);
    EXPECT_FALSE(cancelled.timedOut);
    EXPECT_TRUE(cancelled.output.empty());

    const RunResult late = runNeverStopping({.timeoutMs = 100}, false);
    EXPECT_EQ(late.rc, 0);
    EXPECT_EQ(late.exitStatus, 137);
    EXPECT_TRUE(late.timedOut);
    EXPECT_TRUE(late.output.empty());
}

TEST(Runner, DescendantTableHoldsExactly256Processes) {
    // A parent with 255 children fills the table to the brim; one more child overflows it.
    int more[2], ready[2];
    ASSERT_EQ(pipe(more), 0);
    ASSERT_EQ(pipe(ready), 0);
    const pid_t parent = fork();
    ASSERT_GE(parent, 0);
    if (parent == 0) {
        setpgid(0, 0);
        const auto spawn = [&] {
            if (fork() == 0) {
                pause();
                _exit(0);
            }
        };
        for (int i = 0; i < 255; ++i)
            spawn();
        char byte = 1;
        (void)!write(ready[1], &byte, 1);
        if (read(more[0], &byte, 1) == 1)
            spawn();
        (void)!write(ready[1], &byte, 1);
        pause();
        _exit(0);
    }
    close(more[0]);
    close(ready[1]);
    const GroupKiller cleanup{parent};
    char byte;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);

    kr_process table[KR_PROCESS_TABLE_SIZE];
    size_t count = 1;
    bool overflow = false;
    ASSERT_EQ(kr_process_identify(parent, &table[0]), 0);
    kr_descendants_discover(table, &count, &overflow);
    EXPECT_EQ(count, 256u);
    EXPECT_FALSE(overflow);

    ASSERT_EQ(write(more[1], &byte, 1), 1);
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    kr_descendants_discover(table, &count, &overflow);
    EXPECT_EQ(count, 256u);
    EXPECT_TRUE(overflow);
    close(more[1]);
    close(ready[0]);
}

TEST(Runner, ManyRunsLeakNoDescriptors) {
    run("true"); // warm-up: lazily opened library descriptors are not leaks
    const int before = openDescriptors();
    kr_command* cancelled = kr_command_create();
    kr_command_cancel(cancelled);
    for (int i = 0; i < 25; ++i) {
        EXPECT_EQ(run("echo hi").output, "hi\n");
        EXPECT_TRUE(run("sleep 5", {.timeoutMs = 1}).timedOut);
        EXPECT_TRUE(run("yes", {.capacity = 100}).truncated);
        EXPECT_EQ(run("true", {.cwd = "/nonexistent"}).rc, ENOENT);
        EXPECT_EQ(run("true", {.handle = cancelled}).rc, 89);
        EXPECT_EQ(run("true", {.profile = ""}).rc, ENOTSUP);
    }
    kr_command_destroy(cancelled);
    EXPECT_EQ(openDescriptors(), before);
}
