"""Fixtures of the system tests: the real programs of the Windows build under Wine, inside the
private session that scripts/wine-session brings up (scripts/test does; by hand:
`scripts/wine-session start; . build/session/env`), observed from the host: the recording of the
session's sound sink, the server's log, its window and its process.

Environment: QUORBEL_WIN_BUILD_DIR, the Windows build (its programs are found by name under
it); QUORBEL_SESSION_DIR, DISPLAY, PULSE_SERVER and WINEPREFIX from the session's env file.

One Wine prefix has one server, one window title and one sound sink: the tests run one at a time,
and each makes sure the server of the test before is gone.
"""

import os
import re
import select
import signal
import subprocess
import time
from pathlib import Path

import pytest

import sound

REPO = Path(__file__).resolve().parents[2]

LOOP, STOP, STOP_OTHERS, STOP_CLIENT, IGNORE_FOREGROUND = 0x01, 0x02, 0x04, 0x08, 0x10


def wait_until(condition, timeout, step=0.05):
    """Polls condition until it holds (True) or timeout seconds pass (False)."""
    end = time.monotonic() + timeout
    while True:
        if condition():
            return True
        if time.monotonic() >= end:
            return False
        time.sleep(step)


@pytest.fixture(scope="session")
def win_build():
    missing = [v for v in ("QUORBEL_WIN_BUILD_DIR", "QUORBEL_SESSION_DIR", "WINEPREFIX", "PULSE_SERVER")
               if not os.environ.get(v)]
    if missing:
        pytest.exit(f"not inside the Wine session: {', '.join(missing)} unset (see conftest.py)", 2)
    return Path(os.environ["QUORBEL_WIN_BUILD_DIR"])


@pytest.fixture(scope="session")
def exe(win_build):
    """The path of NAME.exe in the Windows build."""
    found = {}

    def path(name):
        if name not in found:
            hits = [p for p in win_build.rglob(name + ".exe") if "CMakeFiles" not in p.parts]
            assert hits, f"{name}.exe not found under {win_build}"
            found[name] = hits[0]
        return found[name]

    return path


class WinProcess:
    """A Windows program under wine: the process wine starts is the program's own."""

    def __init__(self, exe, args=(), cwd=None, stdin=None, stdout=subprocess.DEVNULL,
                 stderr=subprocess.DEVNULL):
        self.popen = subprocess.Popen(["wine", str(exe), *map(str, args)], cwd=cwd, stdin=stdin,
                                      stdout=stdout, stderr=stderr)

    @property
    def pid(self):
        return self.popen.pid

    def running(self):
        return self.popen.poll() is None

    def wait(self, timeout):
        """The exit status (negative: the signal), or None when it still runs after timeout."""
        try:
            return self.popen.wait(timeout)
        except subprocess.TimeoutExpired:
            return None

    def kill(self):
        if self.running():
            self.popen.send_signal(signal.SIGKILL)
        self.popen.wait()


def run_windows(exe, args=(), cwd=None, output=None, timeout=30):
    """Runs a Windows program to its end: its exit status, or None when it did not end in time
    (it is killed then). What it prints, on either stream, goes to the file output, if given."""
    out = output.open("wb") if output is not None else subprocess.DEVNULL
    try:
        p = WinProcess(exe, args, cwd=cwd, stdout=out, stderr=subprocess.STDOUT if output else subprocess.DEVNULL)
        status = p.wait(timeout)
        if status is None:
            p.kill()
        return status
    finally:
        if output is not None:
            out.close()


class Client(WinProcess):
    """The console client (win/console_client.cpp): one command a line, one answer a line."""

    def __init__(self, exe, cwd):
        super().__init__(exe, cwd=cwd, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.buffer = b""

    def ask(self, *fields, timeout=30):
        line = "\t".join(str(f) for f in fields) + "\n"
        self.popen.stdin.write(line.encode())
        self.popen.stdin.flush()
        out = self.popen.stdout.fileno()
        end = time.monotonic() + timeout
        while b"\n" not in self.buffer:
            left = end - time.monotonic()
            assert left > 0 and select.select([out], [], [], left)[0], f"no answer to {fields[0]}"
            chunk = os.read(out, 4096)
            assert chunk, f"the client ended at {fields[0]}"
            self.buffer += chunk
        answer, self.buffer = self.buffer.split(b"\n", 1)
        return answer.decode().strip()

    def window(self):
        return self.ask("window")

    def send(self, flags, *names, timeout=30):
        return self.ask("send", f"{flags:X}", *names, timeout=timeout) == "1"

    def send_as(self, client, flags, *names, timeout=30):
        return self.ask("sendas", client, f"{flags:X}", *names, timeout=timeout) == "1"

    def server_window(self):
        return self.ask("find") != "0x00000000"

    def quit(self):
        if self.running():
            try:
                self.ask("quit", timeout=5)
            except AssertionError:
                pass
            if self.wait(5) is None:
                self.kill()


class Recorder:
    """What the session's sink plays, recorded with parec: raw 16-bit stereo at 44.1 kHz."""

    def __init__(self, path):
        self.path = path
        path.write_bytes(b"")
        self.parec = subprocess.Popen(
            ["parec", "-d", "capture.monitor", "--format=s16le", "--rate=44100", "--channels=2",
             "--latency-msec=20"], stdout=path.open("wb"), stderr=subprocess.DEVNULL)
        # The sink's monitor delivers silence in real time: bytes arriving prove the connection.
        assert wait_until(lambda: path.stat().st_size > 0, 5), "parec did not start recording"

    def now(self):
        """Frames recorded so far: a mark for 'after this'."""
        return self.path.stat().st_size // 4

    def stop(self, after=0.4):
        """Ends the recording a little later and returns it (frames x 2)."""
        time.sleep(after)
        if self.parec.poll() is None:
            self.parec.terminate()
            self.parec.wait(10)
        return sound.read_raw(self.path)

    def samples(self):
        return sound.read_raw(self.path)

    def wait_for_tone(self, frequency, start=0, timeout=10):
        """Waits until the tone is heard in the last tenth of a second recorded, after frame start."""
        def heard():
            now = self.now()
            tenth = sound.RATE // 10
            return now - tenth >= start and sound.level(self.samples(), frequency, now - tenth, now) > 1000

        return wait_until(heard, timeout)


def log_messages(folder):
    """The server's log entries without their time stamps, line numbers as *."""
    path = Path(folder) / "quorbel.log"
    if not path.is_file():
        return []
    entries = re.findall(r"^\[[^\]]*\](.*?)\r?$", path.read_text(errors="replace"), re.M)
    return [re.sub(r"^\[([^\]:]+):\d+\]", r"[\1:*]", e) for e in entries]


class Server:
    """The server started in a folder of its own."""

    def __init__(self, exe, folder, client):
        self.exe, self.folder, self.client = exe, folder, client
        self.process = None

    def start(self):
        self.process = WinProcess(self.exe, cwd=self.folder)
        assert wait_until(self.client.server_window, 30, 0.1), "the server's window did not come"
        return self

    def close(self, timeout=15):
        """Posts WM_CLOSE and waits for the end; the exit status."""
        self.client.ask("close")
        return self.process.wait(timeout)

    def log(self):
        return log_messages(self.folder)


@pytest.fixture
def folder(tmp_path):
    return tmp_path


@pytest.fixture
def client(exe, folder):
    c = Client(exe("console_client"), folder)
    # One prefix, one server: the one of the test before must be gone.
    if c.server_window():
        c.ask("close")
        assert wait_until(lambda: not c.server_window(), 15, 0.2), "a server from before still runs"
    yield c
    c.quit()


@pytest.fixture
def server(exe, folder, client):
    s = Server(exe("quorbel"), folder, client)
    yield s
    if s.process is not None and s.process.running():
        client.ask("close")
        if s.process.wait(15) is None:
            s.process.kill()


@pytest.fixture
def record(folder):
    """record(name): a recording to folder/name.raw, ended with the test at the latest."""
    started = []

    def start(name="recording"):
        started.append(Recorder(folder / f"{name}.raw"))
        return started[-1]

    yield start
    for r in started:
        if r.parec.poll() is None:
            r.parec.kill()
            r.parec.wait()


@pytest.fixture
def recorder(record):
    return record()


@pytest.fixture
def in_front(exe, folder):
    """in_front(tag): another process's window in front until the test ends."""
    started = []

    def bring(tag):
        out = folder / f"front-{tag}.out"
        p = WinProcess(exe("server_front"), ["60"], cwd=folder, stdout=out.open("wb"))
        started.append(p)
        assert wait_until(lambda: "front" in out.read_text(errors="replace"), 15), "nothing came to the front"
        return p

    yield bring
    for p in started:
        p.kill()
