"""Start-up time and memory of the desktop app; run through bench/desktop/run."""
import base64
import hashlib
import json
import os
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request
import uuid

RUNS = 15
build = sys.argv[1]
app = os.path.join(build, "bin", "kestrolan")
cli = os.path.join(build, "bin", "kestrolan-cli")
devservice = os.path.join(build, "bin", "kestrolan-devservice")
scratch = tempfile.mkdtemp(prefix="kestrolan-bench-")


def compile_minimal():
    flags = subprocess.check_output(["pkg-config", "--cflags", "--libs", "Qt6Widgets"], text=True)
    out = os.path.join(scratch, "minimal")
    source = os.path.join(os.path.dirname(os.path.abspath(__file__)), "minimal_window.cpp")
    subprocess.check_call(["c++", "-O2", "-std=c++20", "-fPIC", source, "-o", out] + flags.split())
    return out


def mapped(title):
    result = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", f"^{title}$"],
                            capture_output=True, text=True)
    return result.returncode == 0 and result.stdout.strip() != ""


def start_time(command, title, env):
    """Milliseconds from exec to the window mapped (polling X every ~2 ms), and the process."""
    begin = time.perf_counter()
    log = os.path.join(scratch, "last-start.log")
    with open(log, "wb") as out:
        process = subprocess.Popen(command, env=env, stdout=out, stderr=subprocess.STDOUT)
    while not mapped(title):
        if process.poll() is not None:
            with open(log, errors="replace") as out:
                raise RuntimeError(f"{command[0]} exited with {process.returncode}:\n{out.read()}")
        if time.perf_counter() - begin > 20:
            raise RuntimeError(f"{command[0]} never mapped its window")
    elapsed = (time.perf_counter() - begin) * 1000
    return elapsed, process


def stop(process):
    process.terminate()
    process.wait(10)


def tree_pss_kib(pid):
    pids, frontier = [pid], [pid]
    while frontier:
        parent = frontier.pop()
        for task in os.listdir(f"/proc/{parent}/task"):
            try:
                with open(f"/proc/{parent}/task/{task}/children") as f:
                    children = [int(c) for c in f.read().split()]
            except OSError:
                children = []
            pids += children
            frontier += children
    total = 0
    for p in pids:
        with open(f"/proc/{p}/smaps_rollup") as f:
            total += int(re.search(r"^Pss:\s+(\d+)", f.read(), re.M).group(1))
    return total


def series(name, command, title, env):
    start_time(command, title, env)[1].kill()  # warms the file cache
    times = []
    for _ in range(RUNS):
        elapsed, process = start_time(command, title, env)
        times.append(elapsed)
        stop(process)
    times.sort()
    print(f"{name:34} median {statistics.median(times):6.1f} ms  "
          f"min {times[0]:6.1f}  p90 {times[int(len(times) * 0.9) - 1]:6.1f}")
    return statistics.median(times)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


TURNS = 1000
CHUNKS = 2500  # streamed at one per 2 ms: 500 chunks per second for 5 s


def xdotool(*args):
    subprocess.run(["xdotool", *args], check=True, stdout=subprocess.DEVNULL)


def sign_in(base):
    """A bearer token for the benchmark's own requests, through the browser sign-in."""
    verifier = base64.urlsafe_b64encode(os.urandom(32)).rstrip(b"=").decode()
    challenge = base64.urlsafe_b64encode(
        hashlib.sha256(verifier.encode()).digest()).rstrip(b"=").decode()
    query = urllib.parse.urlencode({"state": "bench", "code_challenge": challenge,
                                    "code_challenge_method": "S256"})

    class NoRedirect(urllib.request.HTTPRedirectHandler):
        def redirect_request(self, *args, **kwargs):
            return None

    try:
        urllib.request.build_opener(NoRedirect).open(f"{base}/desktop/authorize?{query}")
        raise RuntimeError("authorize did not redirect")
    except urllib.error.HTTPError as redirect:
        callback = urllib.parse.urlparse(redirect.headers["Location"])
    code = urllib.parse.parse_qs(callback.query)["code"][0]
    body = json.dumps({"code": code, "code_verifier": verifier, "device_name": "bench"}).encode()
    request = urllib.request.Request(f"{base}/api/desktop/token", body,
                                     {"Content-Type": "application/json"})
    return json.load(urllib.request.urlopen(request))["token"]


def seed_long_chat(base, token):
    """Saves a chat of TURNS turns (~1 KB each, Markdown replies) to the account."""
    reply = ("Here is **turn {n}** with a list:\n\n- first point about the kestrel\n"
             "- second point with `code`\n\n" + "A sentence of ordinary reply text. " * 12)
    turns = [{"user": f"Question {n}: what did the kestrel do next? " + "More context. " * 4,
              "replies": [{"slot": 0, "model": "kestrolan/scripted",
                           "text": reply.format(n=n), "state": "complete",
                           "finish_reason": "stop", "meta": []}]}
             for n in range(TURNS)]
    document = json.dumps({"version": 2, "title": "Thousand turns",
                           "slots": ["kestrolan/scripted"],
                           "settings": {"system": "", "maxTokens": "", "temperature": ""},
                           "turns": turns}, separators=(",", ":")).encode()
    request = urllib.request.Request(f"{base}/api/chats/{uuid.uuid4()}", document, method="PUT",
                                     headers={"Content-Type": "application/json",
                                              "Authorization": f"Bearer {token}"})
    urllib.request.urlopen(request).read()
    return len(document)


def long_chat(env, base):
    """PSS with the long chat open, then event-loop stalls while a reply streams into it."""
    size = seed_long_chat(base, sign_in(base))
    stalls = os.path.join(scratch, "stalls.txt")
    _, process = start_time([app], "Kestrolan", dict(env, KESTROLAN_MEASURE_STALLS=stalls))
    try:
        window = subprocess.check_output(["xdotool", "search", "--onlyvisible", "--name",
                                          "^Kestrolan$"], text=True).split()[0]
        time.sleep(3)  # the history arrives
        xdotool("windowfocus", "--sync", window)
        xdotool("key", "ctrl+k")  # the scripted model paces the reply
        xdotool("type", "scripted")
        xdotool("key", "Return")
        xdotool("windowfocus", "--sync", window)
        xdotool("key", "ctrl+f", "Down", "Return")  # the first saved chat: the long one
        time.sleep(5)
        pss = tree_pss_kib(process.pid)
        print(f"PSS with a {TURNS}-turn chat open ({size / 1024:.0f} KiB saved): "
              f"{pss / 1024:.1f} MiB")
        xdotool("key", "ctrl+l")
        xdotool("type", "--delay", "0", "@delay 2")
        xdotool("key", "shift+Return")
        xdotool("type", "--delay", "0", "@text " + "w " * CHUNKS)
        # The typed keys arrive faster than anyone types and the composer lays out its one
        # long line again after each: let that finish, since the stalls measured are the stream's.
        time.sleep(3)
        begin_ms = time.time() * 1000
        xdotool("key", "Return")
        time.sleep(CHUNKS * 0.002 + 5)
    finally:
        stop(process)
    samples = []
    worst = (0, 0)
    with open(stalls) as f:
        for line in f:
            wall, late = line.split()
            if begin_ms <= int(wall) <= begin_ms + CHUNKS * 2 + 2000:
                samples.append(int(late) / 1000)
                worst = max(worst, (int(late), int(wall) - begin_ms))
    samples.sort()
    print(f"longest stall ends {worst[1]:.0f} ms after the send")
    print(f"stall while streaming {1000 // 2} chunks/s into it ({len(samples)} samples of a "
          f"2 ms timer): p50 {samples[len(samples) // 2]:.2f} ms  "
          f"p99 {samples[int(len(samples) * 0.99)]:.2f} ms  max {samples[-1]:.2f} ms")


def main():
    minimal = compile_minimal()
    port = free_port()
    base = f"http://127.0.0.1:{port}"
    service = subprocess.Popen([devservice, "--auto-approve", "--listen", f"127.0.0.1:{port}",
                                "--data", os.path.join(scratch, "service")],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        for _ in range(200):
            try:
                urllib.request.urlopen(base + "/api/catalog", timeout=1)
                break
            except OSError:
                time.sleep(0.05)
        env = dict(os.environ, KESTROLAN_BASE_URL=base)
        print(f"{RUNS} runs each, warm file cache, Xvfb")
        base_ms = series("minimal Qt Widgets window", [minimal], "Minimal", env)
        out_ms = series("kestrolan, signed out", [app], "Kestrolan", env)

        login = subprocess.Popen([cli, "login", "--no-browser"], env=env, text=True,
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 stderr=subprocess.DEVNULL)
        authorize = login.stdout.readline().strip()

        class NoRedirect(urllib.request.HTTPRedirectHandler):
            def redirect_request(self, *args, **kwargs):
                return None

        opener = urllib.request.build_opener(NoRedirect)
        try:
            opener.open(authorize)
            raise RuntimeError("authorize did not redirect")
        except urllib.error.HTTPError as redirect:
            callback = redirect.headers["Location"]
        login.communicate(callback + "\n", timeout=30)
        if login.returncode != 0:
            raise RuntimeError("kestrolan-cli login failed")
        in_ms = series("kestrolan, signed in", [app], "Kestrolan", env)

        _, process = start_time([app], "Kestrolan", env)
        time.sleep(3)
        pss = tree_pss_kib(process.pid)
        stop(process)
        print(f"idle PSS 3 s after start, signed in: {pss / 1024:.1f} MiB")
        print(f"signed out / minimal: {out_ms / base_ms:.2f}x; signed in / minimal: "
              f"{in_ms / base_ms:.2f}x")
        long_chat(env, base)
    finally:
        service.terminate()
        service.wait(10)


main()
