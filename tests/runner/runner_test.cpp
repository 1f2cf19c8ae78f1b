#include "kr_command.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
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

bool allGone(const std::vector<pid_t>& pids, std::chrono::milliseconds grace = 500ms) {
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
    EXPECT_LT(input.elapsed, 2s);

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
    EXPECT_LT(late.elapsed, 2s);

    EXPECT_TRUE(run("true", {.timeoutMs = 0}).timedOut);
}

TEST(Runner, OutputStopsWhenTheBufferIsFull) {
    const RunResult chatty = run("head -c 100000 /dev/zero | tr '\\0' x; sleep 20");
    EXPECT_EQ(chatty.rc, 0);
    EXPECT_TRUE(chatty.truncated);
    EXPECT_FALSE(chatty.timedOut);
    EXPECT_EQ(chatty.output, std::string(kCapacity, 'x'));
    EXPECT_EQ(chatty.exitStatus, 137);
    EXPECT_LT(chatty.elapsed, 2s);

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
    // The shell exits within microseconds of starting it, often before any scan saw it.
    for (int i = 0; i < 10; ++i) {
        const RunResult quiet = run(sleep + " &");
        EXPECT_EQ(quiet.exitStatus, 0);
        EXPECT_LT(quiet.elapsed, 1s);
        // Killed, if not always reaped yet: give it the moment dying takes.
        const auto until = std::chrono::steady_clock::now() + 500ms;
        while (!sweeper.find().empty() && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(2ms);
        EXPECT_TRUE(sweeper.find().empty());
    }

    const RunResult background = run(sleep + " & echo $!");
    EXPECT_EQ(background.rc, 0);
    EXPECT_EQ(background.exitStatus, 0);
    EXPECT_LT(background.elapsed, 1s);
    const auto pids = pidsIn(background.output);
    ASSERT_EQ(pids.size(), 1u);
    EXPECT_TRUE(allGone(pids));

    // Outside the shell's process group only the tracked identity can find it.
    const RunResult detached = run("setsid " + sleep + " & echo $!; sleep 0.1");
    EXPECT_EQ(detached.exitStatus, 0);
    EXPECT_LT(detached.elapsed, 1s);
    const auto detachedPids = pidsIn(detached.output);
    ASSERT_EQ(detachedPids.size(), 1u);
    EXPECT_TRUE(allGone(detachedPids));
    EXPECT_EQ(sweeper.sweep(), 0);
}

TEST(Runner, GrandchildrenAreKilledOnDeadlineAndCancel) {
    SleepSweeper sweeper(uniqueSleep(22));
    const std::string sleep = "sleep " + uniqueSleep(22);
    const std::string tree = "sh -c '" + sleep + " & echo $!; setsid " + sleep +
                             " & echo $!; sh -c \"" + sleep + " & echo \\$!; wait\" & wait' & " +
                             sleep;

    const RunResult timedOut = run(tree, {.timeoutMs = 300});
    EXPECT_TRUE(timedOut.timedOut);
    auto pids = pidsIn(timedOut.output);
    EXPECT_EQ(pids.size(), 3u) << timedOut.output;
    EXPECT_TRUE(allGone(pids));

    kr_command* handle = kr_command_create();
    std::thread canceller([handle] {
        std::this_thread::sleep_for(300ms);
        kr_command_cancel(handle);
    });
    const RunResult cancelled = run(tree, {.handle = handle});
    canceller.join();
    kr_command_destroy(handle);
    EXPECT_EQ(cancelled.rc, 0);
    EXPECT_FALSE(cancelled.timedOut);
    EXPECT_EQ(cancelled.exitStatus, 137);
    EXPECT_LT(cancelled.elapsed, 2s);
    pids = pidsIn(cancelled.output);
    EXPECT_EQ(pids.size(), 3u) << cancelled.output;
    EXPECT_TRUE(allGone(pids));
    EXPECT_EQ(sweeper.sweep(), 0);
}

TEST(Runner, AForkStormOverflowsTheTableAndEveryTrackedProcessDies) {
    // Bounded: 300 children that leave the process group, each ending by itself. Their ids go
    // to a file, which the kill cannot cut short as it can the output.
    SleepSweeper sweeper(uniqueSleep(9));
    char dir[] = "/tmp/kr-storm-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string list = std::string(dir) + "/pids";
    const std::string storm = "i=0; while [ $i -lt 300 ]; do setsid sleep " + uniqueSleep(9) +
                              " & echo $! >> " + list + "; i=$((i+1)); done; wait";
    const RunResult stormed = run(storm);
    EXPECT_EQ(stormed.rc, 0);
    EXPECT_EQ(stormed.exitStatus, 137);
    EXPECT_FALSE(stormed.timedOut);
    EXPECT_LT(stormed.elapsed, 5s);

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
            if (fork() == 0) {
                close(ready[1]);
                pause();
                _exit(0);
            }
            close(ready[1]);
            pause();
            _exit(0);
        }
        if (fork() == 0) {
            close(ready[1]);
            pause();
            _exit(0);
        }
        close(ready[1]);
        pause();
        _exit(0);
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
    // Whatever happens below, the whole group goes.
    struct GroupKiller {
        pid_t group;
        ~GroupKiller() {
            kill(-group, SIGKILL);
            waitpid(group, nullptr, 0);
        }
    } cleanup{parent};
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
