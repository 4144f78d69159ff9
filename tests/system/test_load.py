"""One load round: ten console clients fire a seeded mix of requests at one server as fast as they
are answered, and three are killed mid-run with their windows up. Afterwards the server is the same
process and still serves, goes quiet, has its threads and handles back at the baseline, and its
log is whole."""

import collections
import os
import random
import re
import time

import numpy as np

import sound
from conftest import IGNORE_FOREGROUND, LOOP, RATE, STOP, STOP_CLIENT, STOP_OTHERS, wait_until

CLIENTS, DOOMED, REQUESTS = 10, 3, 300
REFUSED = re.compile(r"gone-\d+-\d\.wav|bad-\d+\.(wav|mp3)")
# What the sound path logs when Wine's audio cannot keep up: counted, not failed.
SOUND_PATH = re.compile(r"\[player/pub/WavOut:\*\](waveOutOpen\(\) return\(\d+\)|too many devices open\(63\)|wait "
                        r"for (a free buffer|buffers) timed out)|\[player/(wav/Wav|mp3/MP3)FilePlayer:\*\]file\("
                        r"[\w.]+\),(waveout|wav) init failed")


def request(rng, c, tail):
    """One command line of client c's mix; in the tail no loops and no stops."""
    once = lambda: rng.choice(["once0.wav", "once1.wav", "once2.wav", "once.mp3"])
    refused = lambda: rng.choice([f"gone-{c}-{rng.randrange(3)}.wav", f"bad-{c}.wav", f"bad-{c}.mp3"])
    r = rng.randrange(50 if tail else 100)
    flags, loop = rng.choice((0, IGNORE_FOREGROUND)), f"loop{rng.randrange(4)}.wav"
    if r < 50:
        names = [once()] if r < 14 else [refused()] if r < 38 else \
            [once() if rng.randrange(3) == 0 else refused() for _ in range(2 + rng.randrange(3))]
    elif r < 86:
        flags, names = ((LOOP | rng.choice((0, IGNORE_FOREGROUND, IGNORE_FOREGROUND)), [loop]) if r < 56 else
                        (STOP, [loop]) if r < 74 else (STOP | STOP_OTHERS, [loop]) if r < 80 else (STOP_CLIENT, []))
    else:
        # Its window to the front, or a stop of a file it never plays: a walk of the lists.
        return "front" if r < 92 else f"send\t{STOP:X}\tnever-{c}.wav"
    return "\t".join(["send", f"{flags:X}", *names])


def collect(client, answers, timeout=0.002):
    """Adds the client's answers that have come; False once its output has ended."""
    more = client.read(timeout)
    *done, client.buffer = client.buffer.split(b"\n")
    answers += [a.decode().strip() for a in done]
    return more


def refused_plays_logged(folder, pid):
    """Checks that every line of the log is one whole entry of this server and that each thread's
    entries fall into whole refused plays, one name each; the plays of each name."""
    text = (folder / "quorbel.log").read_bytes().decode()
    assert text.endswith("\r\n"), "the log ends inside an entry"
    threads, plays = collections.defaultdict(list), collections.Counter()
    for n, line in enumerate(text[:-2].split("\r\n")):
        entry = re.fullmatch(r"\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d):\d{3} (\d{4,}):(\d{4,})\](.*)", line)
        assert entry and int(entry.group(2)) == pid, f"line {n} is no entry of this server: {line!r}"
        time.strptime(entry.group(1), "%Y-%m-%d %H:%M:%S")
        message = re.sub(r"^\[([^\]:]+):\d+\]", r"[\1:*]", entry.group(4))
        if REFUSED.search(message):
            threads[entry.group(3)].append(message)
        else:
            assert SOUND_PATH.fullmatch(message), f"line {n} is not an entry expected here: {line!r}"
    for tid, entries in threads.items():
        while entries:
            name = REFUSED.search(entries[0]).group(0)
            player = "wav/WavFilePlayer" if name.endswith(".wav") else "mp3/MP3FilePlayer"
            play = ([f"[player/pub/FileMapObj:*]create file({name}) failed(0x00000002)"] if name.startswith("gone")
                    else [f"[CWavFile::InitFileInfo]file({name}),RiffHeader format=0x20495641"] if player[0] == "w"
                    else [f"[CMP3File::{f}]file({name}),not valid frame header!"
                          for f in ("FindFirstFrameHeader", "InitFileInfo")]) + [f"[player/{player}:*]file({name}),open failed"]
            assert entries[: len(play)] == play, f"thread {tid}: not one whole refused play: {entries[:4]}"
            plays[name], entries = plays[name] + 1, entries[len(play) :]
    print(f"the log: {n + 1} entries, {sum(plays.values())} refused plays from {len(threads)} thread ids")
    return plays


def counts(server, client):
    """The server's process id, threads (Linux tasks), an event's type number, handles by type."""
    found = re.fullmatch(r"pid (\d+) event (\d+) types((?: \d+:\d+)*)", client.ask("handles"))
    assert found, "the server's handles could not be read"
    handles = {int(t): int(n) for t, n in re.findall(r"(\d+):(\d+)", found.group(3))}
    return int(found.group(1)), len(os.listdir(f"/proc/{server.process.pid}/task")), int(found.group(2)), handles


def test_ten_clients_three_killed_leave_the_server_serving_quiet_whole_and_at_its_baseline(
        server, client, new_client, recorder, folder):
    for k, frequency in enumerate((523, 784, 1175, 1568)):
        sound.write_wav(folder / f"loop{k}.wav", sound.tone(frequency, 0.25, 3000))
    for k, frequency in enumerate((2000, 2500, 3000)):
        sound.write_wav(folder / f"once{k}.wav", sound.tone(frequency, 0.08, 3000))
    sound.write_mp3(folder / "once.mp3", sound.tone(3500, 0.1, 3000))
    sound.write_wav(folder / "warm.wav", sound.tone(4000, 0.2, 3000))
    sound.write_wav(folder / "keeper.wav", sound.tone(300, 1, 3000))
    for c in range(1, CLIENTS + 1):
        (folder / f"bad-{c}.wav").write_bytes(b"RIFF\x04\0\0\0AVI ")  # a RIFF file of another form
        (folder / f"bad-{c}.mp3").write_bytes(b"x" * 3000)  # no frame at all
    server.start()
    # This window keeps the server up while the load clients come and go. One play of each kind
    # first: what Wine starts once for sound, and the decoder's tables, belong to the baseline.
    client.window()
    assert client.send(IGNORE_FOREGROUND, "warm.wav", "once.mp3", "gone-0-0.wav")
    time.sleep(3)
    pid, threads, event, handles = counts(server, client)
    assert client.send(LOOP | IGNORE_FOREGROUND, "keeper.wav")

    rng, runs = random.Random(1), []
    for c in range(1, CLIENTS + 1):
        # A doomed client ends its mix with a loop that only the sweep can stop, then goes on until
        # it is killed: its tail, without loops or stops, only keeps it busy. The others let every
        # play join before they stop: a play still opening is not reached.
        doomed = c > CLIENTS - DOOMED
        lines = ["window", *[request(rng, c, False) for _ in range(REQUESTS // 2 if doomed else REQUESTS)]]
        lines += [f"send\t{LOOP | IGNORE_FOREGROUND:X}\tloop{c % 4}.wav", *[request(rng, c, True) for _ in range(
            40 * REQUESTS)]] if doomed else ["wait\t1000", f"send\t{STOP_CLIENT:X}", "quit"]
        (folder / f"client{c}.in").write_text("".join(line + "\n" for line in lines))
        runs.append((new_client((folder / f"client{c}.in").open("rb")), lines, doomed, []))
    started, peak, kill_at = time.monotonic(), threads, {}
    while any(p.running() for p, _, _, _ in runs):
        assert time.monotonic() - started < 240, "the clients did not end: a hang"
        for p, lines, doomed, answers in runs:
            collect(p, answers)
            # Killed a seeded moment after every loop it asked for has had time to join the list.
            if doomed and len(answers) > REQUESTS // 2 + 1:
                kill_at.setdefault(p, time.monotonic() + 0.8 + rng.uniform(0, 1.5))
            if p in kill_at and time.monotonic() >= kill_at[p]:
                p.kill()
        peak = max(peak, len(os.listdir(f"/proc/{server.process.pid}/task")))
    took, killed = time.monotonic() - started, recorder.now()
    for p, lines, doomed, answers in runs:
        while collect(p, answers, 1):
            pass
        assert doomed == (len(answers) < len(lines)), "a doomed client ended before it was killed, or another early"
        assert answers[0] != "0x00000000" and all(a == "1" for line, a in zip(lines[1:], answers[1:]) if line != "front"), \
            "a request was not taken"
    sent = sum(len(answers) for _, _, _, answers in runs)
    print(f"{CLIENTS} clients ({DOOMED} killed mid-run): {sent} requests answered in {took:.1f} s, "
          f"{sent / took:.0f} per second; threads {threads} at the baseline, {peak} at the peak")
    assert server.process.running(), "the server died under the load"

    # The sweep (every 2 s) stops the loops of the killed clients, and only theirs: the keeper's
    # loop goes on, and once it is stopped too all is quiet, and stays so.
    time.sleep(5)
    rec, w = recorder.samples(), RATE // 10
    assert np.mean([sound.level(rec, 300, at, at + w) > 2000 for at in range(killed, len(rec) - w, w)]) >= 0.9, \
        "the keeper's loop did not go on"
    assert client.send(STOP, "keeper.wav")
    stopped = recorder.now()
    time.sleep(4)
    assert recorder.silent_since(stopped + RATE // 2), "the loops of the killed clients went on"

    # Threads and handles back at the baseline; events aside, of which Wine's winmm keeps those of
    # the wave devices it opened, for reuse: at most one more for each play thread at the peak.
    now = []

    def at_baseline():
        now.append(counts(server, client))
        allowed = {t: n + (peak - threads if t == event else 0) for t, n in handles.items()}
        return now[-1][1] <= threads and all(n <= allowed.get(t, 0) for t, n in now[-1][3].items())

    assert wait_until(at_baseline, 45, 0.5), f"not back at the baseline: {now[-1]} against {threads}, {handles}"
    assert now[-1][0] == pid, "the server is another process"
    print(f"handles by type at the baseline {handles}, after {now[-1][3]} (events are type {event})")

    fresh, probe = new_client(), sound.noise(7, RATE)
    sound.write_wav(folder / "probe.wav", probe)
    fresh.window()
    probe_from = recorder.now()
    assert fresh.send(IGNORE_FOREGROUND, "probe.wav")
    time.sleep(2)
    heard = sound.match(recorder.stop(0), probe, probe_from)
    assert heard.whole(), f"a fresh client was not served after the load: {heard}"

    # As many refused plays of each name in the log as the server took from the clients that ran
    # to their end.
    plays = refused_plays_logged(folder, pid)
    assert plays.pop("gone-0-0.wav") == 1, "the warm-up's refused play"
    for _, lines, doomed, _ in runs:
        sent = [f for f in (line.split("\t") for line in lines) if f[0] == "send" and not int(f[1], 16) & STOP_CLIENT]
        taken = collections.Counter(n for f in sent if not int(f[1], 16) & STOP for n in f[2:] if REFUSED.fullmatch(n))
        assert doomed or all(plays[name] == n for name, n in taken.items()), "refused plays logged against taken"
