"""The programs of the Windows build (QUORBEL_WIN_BUILD_DIR) under Wine, in the session of
scripts/wine-session (`scripts/wine-session start; . build/session/env`), observed from the host.
One prefix has one server and one sink: tests run one at a time, each making sure the one before is gone."""

import os
import re
import select
import subprocess
import time
from pathlib import Path

import numpy as np
import pytest

import sound

REPO = Path(__file__).resolve().parents[2]
RATE = sound.RATE
LOOP, STOP, STOP_OTHERS, STOP_CLIENT, IGNORE_FOREGROUND = 0x01, 0x02, 0x04, 0x08, 0x10


def wait_until(condition, timeout, step=0.05):
    end = time.monotonic() + timeout
    while not condition() and time.monotonic() < end:
        time.sleep(step)
    return condition()


@pytest.fixture(scope="session")
def exe():
    missing = [v for v in ("QUORBEL_WIN_BUILD_DIR", "QUORBEL_SESSION_DIR", "WINEPREFIX") if v not in os.environ]
    if missing:
        pytest.exit(f"not inside the Wine session: {', '.join(missing)} unset (see conftest.py)", 2)
    build = Path(os.environ["QUORBEL_WIN_BUILD_DIR"])
    return lambda name: next(p for p in build.rglob(name + ".exe") if "CMakeFiles" not in p.parts)


class WinProcess(subprocess.Popen):
    def __init__(self, exe, args=(), cwd=None, **streams):
        streams = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, **streams}
        super().__init__(["wine", exe, *map(str, args)], cwd=cwd, **streams)

    def running(self):
        return self.poll() is None


def run_windows(exe, args=(), cwd=None, output=None, timeout=30):
    with (output.open("wb") if output else open(os.devnull, "wb")) as out:
        return subprocess.run(["wine", exe, *map(str, args)], cwd=cwd, stdout=out, stderr=subprocess.STDOUT,
                              timeout=timeout).returncode


class Client(WinProcess):
    """win/console_client.cpp: its commands asked one by one, or all read from a file as its input."""

    def ask(self, *fields, timeout=30):
        self.stdin.write(("\t".join(map(str, fields)) + "\n").encode())
        self.stdin.flush()
        # One answer a command, so that the reader's buffer never holds the next: select sees it coming.
        assert select.select([self.stdout], [], [], timeout)[0], f"no answer to {fields[0]}"
        answer = self.stdout.readline()
        assert answer, f"the client ended at {fields[0]}"
        return answer.decode().strip()

    def send(self, flags, *names, timeout=30):
        """From the client's window, or as client 0 (a play of no window, never swept) before it has one."""
        return self.ask("send", f"{flags:X}", *names, timeout=timeout) == "1"

    def server_window(self):
        return self.ask("find") != "0x00000000"


class Recorder(subprocess.Popen):
    """What the session's sink plays: raw 16-bit stereo at 44.1 kHz."""

    def __init__(self, path):
        self.path = path
        super().__init__(["parec", "-d", "capture.monitor", "--format=s16le", "--rate=44100", "--channels=2",
                          "--latency-msec=20"], stdout=path.open("wb"), stderr=subprocess.DEVNULL)
        # The sink's monitor delivers silence in real time: bytes arriving prove the connection.
        assert wait_until(lambda: path.stat().st_size > 0, 5), "parec did not start recording"

    def now(self):
        return self.path.stat().st_size // 4

    def samples(self):  # whole frames only: the file grows as it is read
        return np.fromfile(self.path, "<i2", self.now() * 2).reshape(-1, 2)

    def stop(self, after=0.4):
        time.sleep(after)
        self.terminate()
        self.wait(10)
        return self.samples()

    def wait_for_tone(self, frequency, start=0, timeout=10):
        """Waits until the tone is heard in the last tenth of a second recorded, after frame start."""
        return wait_until(lambda: self.now() - RATE // 10 >= start and
                          sound.level(self.samples(), frequency, -RATE // 10, None) > 1000, timeout)


class Server:
    def __init__(self, exe, folder, client):
        self.exe, self.folder, self.client, self.process = exe, folder, client, None

    def start(self):
        self.process = WinProcess(self.exe, cwd=self.folder)
        assert wait_until(self.client.server_window, 30, 0.1), "the server's window did not come"

    def log(self):
        """The log's entries without their time stamps, line numbers as *."""
        path = self.folder / "quorbel.log"
        text = path.read_text(errors="replace") if path.is_file() else ""
        return [re.sub(r"^\[([^\]:]+):\d+\]", r"[\1:*]", e) for e in re.findall(r"^\[[^\]]*\](.*?)\r?$", text, re.M)]

    def wait_for_log(self, count, timeout=10):
        """Waits until the log holds count entries and no more come for a moment; the entries."""
        assert wait_until(lambda: len(self.log()) >= count, timeout, 0.1), self.log()
        time.sleep(0.3)
        return self.log()

    def serves(self, record, seed, share=0.95, client=None):
        """Plays a second of fresh noise from the client (the test's) and asserts that (this share of) it is heard."""
        noise = sound.noise(seed, RATE)
        sound.write_wav(self.folder / f"serves{seed}.wav", noise)
        recorder = record()
        assert (client or self.client).send(IGNORE_FOREGROUND, f"serves{seed}.wav")
        heard = sound.match(recorder.stop(2), noise)
        assert heard.whole(share), f"the server does not serve: {heard}"


@pytest.fixture
def new_client(exe, tmp_path):
    started = []
    yield lambda stdin=subprocess.PIPE, stdout=subprocess.PIPE: started.append(
        Client(exe("console_client"), cwd=tmp_path, stdin=stdin, stdout=stdout)) or started[-1]
    for c in started:
        c.kill()


@pytest.fixture
def client(new_client):
    c = new_client()
    if c.server_window():  # one prefix, one server: the one of the test before must be gone
        c.ask("close")
        assert wait_until(lambda: not c.server_window(), 15, 0.2), "a server from before still runs"
    return c


@pytest.fixture
def server(exe, tmp_path, client):
    s = Server(exe("quorbel"), tmp_path, client)
    yield s
    if s.process is not None and s.process.running():
        client.ask("close")
        if not wait_until(lambda: not s.process.running(), 15):
            s.process.kill()


@pytest.fixture
def record(tmp_path):
    started = []
    yield lambda: started.append(Recorder(tmp_path / f"recording{len(started)}.raw")) or started[-1]
    for r in started:
        r.kill()
        r.wait()


@pytest.fixture
def recorder(record):
    return record()
