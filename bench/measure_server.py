#!/usr/bin/python3
"""Measures the running server under Wine: the delay before sound of a request against a program
that plays the same burst through waveOut itself, what a play costs while it sounds, and how many
looping plays it holds at once.

    bench/measure_server.py [--trials N] [--max-plays N] [--dir DIR]

Run it inside a Wine session (scripts/wine-session) with QUORBEL_WIN_BUILD_DIR naming the Windows
build; scripts/measure does both. Its files go to DIR (default build/measure-run). It prints:
 1. the delay before sound: a request to the server against bench/win/measure_client playing the
    same 0.3 s burst through waveOut itself, both timed from the wall clock before the request (or
    before waveOutOpen) to the burst's onset in the recording, alternately, --trials each; the
    recording's own lag is the same for both, so their difference is the server's extra;
 2. memory, threads and CPU of the server idle and with 8 looping plays of WAV and of MP3, so the
    cost of one play;
 3. looping plays of one tone each, 4 up to --max-plays: for each count, how many plays were
    refused (logged), how many are heard, how many 50 ms windows of 4 s of recording miss a heard
    tone (an underrun of that play), and how many waits for a device timed out (a stall).
Every figure is a wall-clock or CPU reading: run it on an otherwise quiet machine.
"""

import argparse
import os
import re
import shutil
import struct
import subprocess
import sys
import time
from pathlib import Path

import numpy as np

RATE = 44100
REPO = Path(__file__).resolve().parents[1]


def fail(why):
    sys.exit(f"measure_server: {why}")


def tone(frequency, seconds, amplitude):
    """A stereo sine, 16-bit."""
    wave = np.round(amplitude * np.sin(2 * np.pi * frequency * np.arange(int(seconds * RATE)) / RATE))
    return np.repeat(wave.astype(np.int16)[:, None], 2, axis=1)


def write_wav(path, samples):
    data = samples.tobytes()
    fmt = struct.pack("<HHIIHH", 1, 2, RATE, RATE * 4, 4, 16)
    body = b"WAVE" + b"fmt " + struct.pack("<I", len(fmt)) + fmt + b"data" + struct.pack("<I", len(data)) + data
    path.write_bytes(b"RIFF" + struct.pack("<I", len(body)) + body)


def level(rec, frequency, start, end):
    """The amplitude of one frequency in frames [start, end) of the left channel."""
    x = rec[start:end, 0].astype(np.float64)
    if len(x) == 0:
        return 0.0
    return float(np.abs(np.dot(x, np.exp(-2j * np.pi * frequency * np.arange(len(x)) / RATE))) * 2 / len(x))


class Recorder:
    """The session's sink, recorded with parec: raw 16-bit stereo at 44.1 kHz."""

    def __init__(self, path):
        self.path = path
        self.parec = subprocess.Popen(["parec", "-d", "capture.monitor", "--format=s16le", "--rate=44100",
                                       "--channels=2", "--latency-msec=20"], stdout=path.open("wb"),
                                      stderr=subprocess.DEVNULL)
        end = time.monotonic() + 5
        while path.stat().st_size == 0:
            if time.monotonic() > end:
                fail("parec did not start recording")
            time.sleep(0.05)

    def now(self):
        return self.path.stat().st_size // 4

    def stop(self):
        self.parec.terminate()
        self.parec.wait(10)
        data = np.fromfile(self.path, dtype="<i2")
        return data[: len(data) // 2 * 2].reshape(-1, 2)


class Bench:
    def __init__(self, build, folder):
        self.folder = folder
        self.runs = 0

        def find(name):
            hits = [p for p in build.rglob(name + ".exe") if "CMakeFiles" not in p.parts]
            return hits[0] if hits else fail(f"{name}.exe not found under {build}")

        self.quorbel, self.measure_client = find("quorbel"), find("measure_client")

    def client(self, *args, timeout=60):
        """Runs measure_client with these arguments to its end; its output, or None on failure."""
        self.runs += 1
        out = self.folder / f"client-{self.runs}.out"
        with out.open("wb") as f:
            try:
                status = subprocess.run(["wine", self.measure_client, *map(str, args)], cwd=self.folder, stdout=f,
                                        stderr=subprocess.DEVNULL, timeout=timeout).returncode
            except subprocess.TimeoutExpired:
                return None
        return out.read_text() if status == 0 else None

    def log(self):
        path = self.folder / "quorbel.log"
        return re.findall(r"^\[[^\]]*\](.*?)\r?$", path.read_text(errors="replace"), re.M) if path.is_file() else []


def proc_kb(pid, field):
    """A field of /proc/PID/status in kB (or a count), or -1."""
    found = re.search(rf"^{field}:\s+(\d+)", Path(f"/proc/{pid}/status").read_text(), re.M)
    return int(found.group(1)) if found else -1


def cpu_ms(pid):
    """User plus system CPU of the process, in milliseconds."""
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return 1000.0 * (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def snapshot(bench, pid):
    counts = dict(re.findall(r"(\w+) (-?\d+)", bench.client("counts") or ""))
    return {"rss": proc_kb(pid, "VmRSS"), "data": proc_kb(pid, "VmData"), "tasks": proc_kb(pid, "Threads"),
            "private": int(counts.get("private", -1)), "handles": int(counts.get("handles", -1)),
            "threads": int(counts.get("threads", -1))}


def known(value, form):
    """Wine answers another process's private bytes and handle count with 0: shown as unknown."""
    return form % value if value > 0 else "n/a"


def show(what, s):
    print(f"  {what:<26} private {known(s['private'] / 1048576, '%.1f')} MiB  VmRSS {s['rss'] / 1024:7.1f} MiB  "
          f"VmData {s['data'] / 1024:7.1f} MiB  handles {known(s['handles'], '%d')}  threads {s['threads']:3d} "
          f"(Linux tasks {s['tasks']})")


def delay_before_sound(bench, trials):
    print(f"\n== delay before sound: the server against waveOut called directly ({trials} bursts each)")
    burst = tone(1000, 0.3, 16000)
    write_wav(bench.folder / "burst.wav", burst)
    (bench.folder / "burst.raw").write_bytes(burst.tobytes())
    recorder = Recorder(bench.folder / "onset.raw")
    t0, f0 = time.time() * 1e6, recorder.now()
    stamps = {"direct": [], "server": []}
    for _ in range(trials):
        for kind, name in (("direct", "burst.raw"), ("server", "burst.wav")):
            stamps[kind] += [int(s) for s in re.findall(r"stamp (\d+)", bench.client(kind, name, 1, 900) or "")]
    time.sleep(0.5)
    rec = recorder.stop()
    medians = {}
    for kind, title in (("direct", "waveOut directly"), ("server", "through the server")):
        delays = []
        for stamp in stamps[kind]:
            expected = f0 + int((stamp - t0) * RATE / 1e6)
            lo, hi = max(0, expected - RATE // 4), min(len(rec), expected + RATE * 3 // 4)
            loud = np.flatnonzero(np.abs(rec[lo:hi, 0].astype(np.int32)) > 2000)
            if len(loud):
                delays.append(1000 * (lo + loud[0] - expected) / RATE)
        medians[kind] = float(np.median(delays)) if delays else float("nan")
        spread = f"min {min(delays):.1f}, max {max(delays):.1f}" if delays else "none found"
        print(f"  {title}: {len(delays)} of {len(stamps[kind])} bursts found, median {medians[kind]:.1f} ms ({spread})")
    print(f"  the server's extra delay: {medians['server'] - medians['direct']:.1f} ms "
          "(medians; both include the same recording lag)")


def cpu_per_second(pid, seconds=5):
    """The process's CPU time per second of wall time, over the next seconds."""
    cpu = cpu_ms(pid)
    time.sleep(seconds)
    return (cpu_ms(pid) - cpu) / seconds


def cost_per_play(bench, pid):
    print("\n== what a play costs (8 looping plays of no client window, the server process)")
    time.sleep(1)
    idle = snapshot(bench, pid)
    idle_cpu = cpu_per_second(pid)
    show("idle", idle)
    print(f"  idle CPU: {idle_cpu:.2f} ms per second")
    loops = 8
    for kind in ("wav", "mp3"):
        names = [f"tone{i}.wav" for i in range(loops)] if kind == "wav" else ["second.mp3"] * loops
        if bench.client("send", "11", *names) is None:  # loop, never silenced
            fail("the loops were not taken")
        time.sleep(2)
        busy = snapshot(bench, pid)
        per_second = cpu_per_second(pid)
        bench.client("send", "18")  # stop every play of no client window
        time.sleep(2)
        show(f"{loops} {kind} loops", busy)
        show("  stopped again", snapshot(bench, pid))
        private = known((busy["private"] - idle["private"]) / 1024 / loops, "%.0f") if idle["private"] > 0 else "n/a"
        print(f"  per {kind} play: VmRSS {(busy['rss'] - idle['rss']) / loops:.0f} KiB, VmData "
              f"{(busy['data'] - idle['data']) / loops:.0f} KiB, private {private} KiB, "
              f"{(per_second - idle_cpu) / loops:.1f} ms CPU per second of sound, "
              f"{(busy['threads'] - idle['threads']) / loops:.1f} threads")


def concurrent_plays(bench, max_plays, amplitude):
    print("\n== concurrent looping plays, one tone each: 50 ms windows of 4 s missing a tone")
    recorder = Recorder(bench.folder / "concurrent.raw")
    steps = []
    for count in [c for c in (4, 8, 16, 24, 32, 48, 64, 80) if c <= max_plays]:
        logged = len(bench.log())
        if bench.client("send", "11", *[f"tone{i}.wav" for i in range(count)]) is None:
            fail("the loops were not taken")
        time.sleep(1.5)
        start = recorder.now()
        time.sleep(4)
        end = recorder.now()
        bench.client("send", "18")
        time.sleep(1)
        messages = bench.log()[logged:]
        refused = sum(any(f"file(tone{i}.wav)," in m for m in messages) for i in range(count))
        steps.append((count, start, end, refused, sum("timed out" in m for m in messages)))
    rec = recorder.stop()
    held, w = 0, RATE // 20
    for count, start, end, refused, timeouts in steps:
        # Heard: the tone is there over the whole 4 s. The session's sound server mixes at most
        # 32 streams into its sink (PulseAudio's MAX_MIX_CHANNELS), so beyond that the other
        # plays run unheard. An underrun: a 50 ms window missing a tone that is heard.
        end = min(end, len(rec))
        heard = [i for i in range(count) if level(rec, 300 + 100 * i, start, end) >= amplitude / 2]
        windows = range(start, end - w + 1, w)
        missing = sum(any(level(rec, 300 + 100 * i, at, at + w) < amplitude / 2 for i in heard) for at in windows)
        print(f"  {count:2d} plays asked: {refused:2d} refused (logged), {len(heard):2d} heard; {missing} of "
              f"{len(windows)} windows miss a heard tone; {timeouts} device waits timed out")
        if missing == 0 and len(windows) > 0 and len(heard) == count:
            held = count
    print(f"  held without an underrun: {held} plays (the largest count above with every play heard and no "
          "window missing a tone)")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--trials", type=int, default=10)
    parser.add_argument("--max-plays", type=int, default=64)
    parser.add_argument("--dir", type=Path, default=REPO / "build" / "measure-run")
    args = parser.parse_args()
    max_plays = max(4, min(args.max_plays, 80))
    if not os.environ.get("QUORBEL_WIN_BUILD_DIR") or not os.environ.get("PULSE_SERVER"):
        fail("run it inside the Wine session with QUORBEL_WIN_BUILD_DIR set (see scripts/measure)")
    shutil.rmtree(args.dir, ignore_errors=True)
    args.dir.mkdir(parents=True)
    bench = Bench(Path(os.environ["QUORBEL_WIN_BUILD_DIR"]), args.dir)

    # The material: a second of tone as WAV and MP3, a tone for each play (whole cycles in a
    # second, so that each loop is seamless).
    write_wav(args.dir / "second.wav", tone(440, 1, 8000))
    subprocess.run(["lame", "--quiet", "-b", "128", args.dir / "second.wav", args.dir / "second.mp3"], check=True)
    amplitude = 25000 // max_plays
    for i in range(max_plays):
        write_wav(args.dir / f"tone{i}.wav", tone(300 + 100 * i, 1, amplitude))

    server = subprocess.Popen(["wine", bench.quorbel], cwd=args.dir, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    end = time.monotonic() + 30
    while bench.client("counts") is None:
        if time.monotonic() > end:
            fail("the server's window did not appear")
        time.sleep(0.2)
    try:
        delay_before_sound(bench, args.trials)
        cost_per_play(bench, server.pid)
        concurrent_plays(bench, max_plays, amplitude)
    finally:
        bench.client("close")
        try:
            server.wait(15)
        except subprocess.TimeoutExpired:
            server.kill()
    log = (args.dir / "quorbel.log").read_text(errors="replace") if (args.dir / "quorbel.log").exists() else ""
    print(f"\nthe server's log ({args.dir}/quorbel.log): {len(log)} bytes\n{log}", end="")


if __name__ == "__main__":
    main()
