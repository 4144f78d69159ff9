"""Faults injected into a running server: more plays than wave devices, the sound server frozen, absent or killed,
sound files replaced or cut short, a second server started while the first closes, and one load round: ten console
clients fire seeded mixes of requests at one server as fast as it answers, three killed mid-run with windows up."""

import collections
import os
import random
import re
import subprocess
import time

import pytest

import sound
from conftest import IGNORE_FOREGROUND, LOOP, RATE, REPO, STOP, STOP_CLIENT, STOP_OTHERS, WinProcess, wait_until

@pytest.fixture
def sound_server():
    """sound_server(command): stops, kills or freezes the session's sound server; the next test finds it running."""
    run = lambda *command, check=True: subprocess.run(
        ["bash", REPO / "scripts" / "wine-session", "--dir", os.environ["QUORBEL_SESSION_DIR"], *command],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60, check=check)
    yield run
    run("sound-thaw", check=False)
    run("sound-start")


def test_never_deaf_past_the_device_limit_or_with_the_sound_server_frozen_absent_or_killed(
        server, client, tmp_path, record, sound_server):
    def loop_heard():  # a fresh recording each time: a stopped sound server ends the one before
        assert client.send(LOOP | IGNORE_FOREGROUND, "tone.wav")
        assert record().wait_for_tone(440)

    # Wine serves a process's wave devices from one thread that can wait on 63 of them; a 64th
    # open at once would end every done notification of the process for good.
    server.start()
    names = [sound.write_wav(tmp_path / f"loop{i}.wav", sound.tone(200 + 37 * i, 0.25, 300)) for i in range(64)]
    assert client.send(LOOP | IGNORE_FOREGROUND, *names)
    time.sleep(5)
    assert client.send(STOP_CLIENT, timeout=120)  # each stop drains its play's ring
    server.serves(record, 151)
    log = server.log()
    assert len(log) == 2 and log[0] == "[player/pub/WavOut:*]too many devices open(63)", log
    assert log[1] in [f"[player/wav/WavFilePlayer:*]file({n}),waveout init failed" for n in names], log

    # A frozen sound server answers nothing: the play gives its device up after the ring's wait limit
    # (1.6 s) and closes it on a thread of its own, which the frozen server holds; the play ends.
    sound.write_wav(tmp_path / "tone.wav", sound.tone(440, 1))
    loop_heard()
    sound_server("sound-freeze")
    left_open = "[player/pub/WavOut:*]device left open: close did not return within 1000 ms"
    assert wait_until(lambda: server.log()[2:] in ([f"[player/pub/WavOut:*]wait for {what} timed out", left_open]
                                                   for what in ("a free buffer", "buffers")), 15, 0.1), server.log()
    started = time.monotonic()
    assert client.send(STOP, "tone.wav")  # of the ended play: at once
    assert time.monotonic() - started < 1
    sound_server("sound-thaw")
    server.serves(record, 161)

    # Absent: a WAV and an MP3 play are refused, the device's line first. (Wine may keep a process whose
    # first open failed without a device for good: this one has opened devices before.)
    sound.write_wav(tmp_path / "noise.wav", sound.noise(101, RATE))
    sound.write_mp3(tmp_path / "tone.mp3", sound.tone(1000, 1.5), RATE, "-b", "128")
    sound_server("sound-stop")
    for n, name, refused in ((0, "noise.wav", "[player/wav/WavFilePlayer:*]file(noise.wav),waveout init failed"),
                             (2, "tone.mp3", "[player/mp3/MP3FilePlayer:*]file(tone.mp3),wav init failed")):
        assert client.send(IGNORE_FOREGROUND, name)
        log = server.wait_for_log(6 + n)[4 + n :]
        assert re.fullmatch(r"\[player/pub/WavOut:\*\]waveOutOpen\(\) return\([1-9]\d*\)", log[0]), log
        assert log[1:] == [refused], log
    sound_server("sound-start")
    server.serves(record, 102)

    # Killed mid-loop: the device no longer reports its buffers done, and every wait is bounded.
    loop_heard()
    sound_server("sound-stop", "--kill")
    time.sleep(0.3)
    started = time.monotonic()
    assert client.send(STOP, "tone.wav")
    assert time.monotonic() - started <= 10 and server.process.running()
    timed_out = "[player/pub/WavOut:*]wait for buffers timed out"
    assert wait_until(lambda: timed_out in server.log()[8:], 10, 0.1), server.log()
    time.sleep(3)
    log = server.log()[8:]
    assert set(log) <= {"[player/pub/WavOut:*]wait for a free buffer timed out", timed_out,
                        "[player/pub/WavOut:*]waveOutReset() return(1)",
                        "[player/pub/WavOut:*]waveOutUnprepareHeader() return(33)",
                        "[player/pub/WavOut:*]waveOutClose() return(1)"}, log
    sound_server("sound-start")
    logged = len(server.log())
    server.serves(record, 111, share=0.5)
    assert len(server.log()) == logged, server.log()

    # Frozen again mid-loop, closed before the device is given up: the close ends in time though a play thread is held.
    loop_heard()
    sound_server("sound-freeze")
    time.sleep(0.3)
    started = time.monotonic()
    assert client.ask("close") == "1"
    status = server.process.wait(10)
    # The server ends with status 0, but with a device open on the frozen sound server Wine's own end of
    # the host process dies of SIGSEGV in its sound driver (ExitProcess or TerminateProcess alike).
    assert time.monotonic() - started <= 3 and status in (0, -11), status
    assert server.log()[-1] == "[player/pub/PlayerRegistry:*]play threads still running(1)", server.log()


def test_files_replaced_or_cut_short_are_played_as_they_are_now_and_not_while_playing(
        server, client, recorder, tmp_path):
    before, after = sound.noise(131, RATE * 3 // 4), sound.noise(132, RATE * 3 // 4)
    for name, samples in (("x.wav", before), ("x.new", after), ("y.wav", sound.tone(440, 1)),
                          ("z.wav", sound.tone(2500, 1))):
        sound.write_wav(tmp_path / name, samples)
    sound.write_mp3(tmp_path / "x.mp3", sound.tone(1000, 2), RATE, "-b", "128")
    server.start()
    assert client.send(IGNORE_FOREGROUND, "x.wav")
    time.sleep(1.8)  # played out and unmapped
    assert client.ask("replace", "x.new", "x.wav") == "done"  # as a Windows program replaces it
    replaced = recorder.now()
    assert client.send(IGNORE_FOREGROUND, "x.wav")
    time.sleep(1.8)
    mp3_whole = recorder.now()
    assert client.send(IGNORE_FOREGROUND, "x.mp3")
    time.sleep(3)

    # Cut from the host only while nothing maps the file (Windows would refuse; Linux lets it happen and
    # the next read raises SIGBUS). An MP3 cut inside a frame plays up to the cut, that frame refused silently.
    os.truncate(tmp_path / "x.mp3", (tmp_path / "x.mp3").stat().st_size // 2 + 101)
    mp3_cut = recorder.now()
    assert client.send(IGNORE_FOREGROUND, "x.mp3")
    time.sleep(3)

    # A file being played is held open, shared for reading only, and mapped: no program may write it or rename over it.
    loop_from = recorder.now()
    assert client.send(LOOP | IGNORE_FOREGROUND, "y.wav")
    assert recorder.wait_for_tone(440, loop_from)
    cut, replace = client.ask("truncate", "y.wav"), client.ask("replace", "z.wav", "y.wav")
    assert cut == "refused CreateFile 0x00000020" and replace.startswith("refused MoveFileEx "), (cut, replace)
    attempted = recorder.now()
    assert recorder.wait_for_tone(440, attempted + RATE // 2), "the loop did not go on"
    assert client.send(STOP, "y.wav")
    rec = recorder.stop(0.5)
    # Once the play has ended, the same cut is allowed: the refusal was the play's doing.
    assert client.ask("truncate", "y.wav") == "done"

    assert sound.match(rec, before).whole(0.5), "the first content was not played"
    assert sound.match(rec, after, replaced).whole(0.5), "the new content was not played"
    assert sound.match(rec, before, replaced).found == 0, "the old content was played again"
    assert sound.tone_seconds(rec, 1000, mp3_whole, mp3_cut) > 1.7, "the whole MP3"
    assert 0.6 < sound.tone_seconds(rec, 1000, mp3_cut, loop_from) < 1.4, "the MP3 cut at half its bytes"
    assert sound.level(rec, 2500, attempted, len(rec)) < 200, "the replacement was heard"
    assert server.log() == []


def test_second_start_while_the_first_closes_leaves_one_server_or_none(server, client, tmp_path, exe, record, recorder):
    for name, frequency in (("a.wav", 440), ("b.wav", 1000), ("c.wav", 2500), ("late.wav", 700)):
        sound.write_wav(tmp_path / name, sound.tone(frequency, 1))
    # The first closes (by the WM_CLOSE the sweep posts too) with three loops to stop; the second starts so much later.
    for r, delay in enumerate([0, 0.3, 0.7, 1.0, 1.7]):
        if not client.server_window():
            server.start()
        assert client.send(LOOP | IGNORE_FOREGROUND, "a.wav", "b.wav", "c.wav")
        assert recorder.wait_for_tone(440, recorder.now()) and recorder.wait_for_tone(2500, recorder.now())
        assert client.ask("close") == "1"
        time.sleep(delay)
        second = WinProcess(exe("quorbel"), ["late.wav"], cwd=tmp_path)
        # The first ends within its close's deadline. The second hands its arguments on (or finds no
        # window) and ends, or it found the mutex free and is the server now.
        assert server.process.wait(15) == 0, f"round {r}: the first server lingers"
        assert wait_until(lambda: not second.running() or client.server_window(), 15), \
            f"round {r}: the second neither ended nor made a window"
        if second.running():
            time.sleep(1)
            assert second.running() and client.server_window(), f"round {r}: the second made a window and ended"
            server.serves(record, 150 + r, share=0.5)  # a new process's first stream may lose its start
            assert client.ask("close") == "1" and second.wait(15) == 0, f"round {r}: the second did not end well"
        else:
            assert second.wait(0) == 0
        assert not client.server_window(), f"round {r}: a server runs though both ended"
    assert server.log() == []


CLIENTS, DOOMED, REQUESTS = 10, 3, 300
# A refused play's lines (its reason, then its player's); what the sound path logs when Wine's audio lags is allowed.
REFUSAL = re.compile(r"\[player/\w+/\w+FilePlayer:\*\]file\((gone-\d+-\d\.wav|bad-\d+\.(?:wav|mp3))\),open failed")
EXPECTED = re.compile("|".join([
    r"\[player/pub/FileMapObj:\*\]create file\(gone-\d+-\d\.wav\) failed\(0x00000002\)",
    r"\[CWavFile::InitFileInfo\]file\(bad-\d+\.wav\),RiffHeader format=0x20495641",
    r"\[CMP3File::(FindFirstFrameHeader|InitFileInfo)\]file\(bad-\d+\.mp3\),not valid frame header!", REFUSAL.pattern,
    r"\[player/pub/WavOut:\*\](waveOutOpen\(\) return\(\d+\)|too many devices open\(63\)|wait for (a free "
    r"buffer|buffers) timed out)|\[player/(wav/Wav|mp3/MP3)FilePlayer:\*\]file\([\w.]+\),(waveout|wav) init failed"]))


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


def counts(server, client):
    """The server's process id, threads (Linux tasks), an event's type number, handles by type."""
    found = re.fullmatch(r"pid (\d+) event (\d+) types((?: \d+:\d+)*)", client.ask("handles"))
    assert found, "the server's handles could not be read"
    handles = {int(t): int(n) for t, n in re.findall(r"(\d+):(\d+)", found.group(3))}
    return int(found.group(1)), len(os.listdir(f"/proc/{server.process.pid}/task")), int(found.group(2)), handles


def test_ten_clients_three_killed_leave_the_server_serving_quiet_whole_and_at_its_baseline(
        server, client, new_client, recorder, record, tmp_path):
    for name, frequency, seconds in (("loop0.wav", 523, 0.25), ("loop1.wav", 784, 0.25), ("loop2.wav", 1175, 0.25),
                                     ("loop3.wav", 1568, 0.25), ("once0.wav", 2000, 0.08), ("once1.wav", 2500, 0.08),
                                     ("once2.wav", 3000, 0.08), ("warm.wav", 4000, 0.2), ("keeper.wav", 300, 1)):
        sound.write_wav(tmp_path / name, sound.tone(frequency, seconds, 3000))
    sound.write_mp3(tmp_path / "once.mp3", sound.tone(3500, 0.1, 3000))
    for c in range(1, CLIENTS + 1):
        (tmp_path / f"bad-{c}.wav").write_bytes(b"RIFF\x04\0\0\0AVI ")  # a RIFF file of another form
        (tmp_path / f"bad-{c}.mp3").write_bytes(b"x" * 3000)  # no frame at all
    server.start()
    # This window keeps the server up while the load clients come and go. One play of each kind
    # first: what Wine starts once for sound, and the decoder's tables, belong to the baseline.
    client.ask("window")
    assert client.send(IGNORE_FOREGROUND, "warm.wav", "once.mp3", "gone-0-0.wav")
    time.sleep(3)
    pid, threads, event, handles = counts(server, client)
    assert client.send(LOOP | IGNORE_FOREGROUND, "keeper.wav")

    rng, runs = random.Random(1), []
    for c in range(1, CLIENTS + 1):
        # A doomed client ends its mix with a loop only the sweep can stop, then keeps busy until it is
        # killed. The others let every play join before they stop: a play still opening is not reached.
        doomed = c > CLIENTS - DOOMED
        lines = ["window", *[request(rng, c, False) for _ in range(REQUESTS // 2 if doomed else REQUESTS)]]
        lines += [f"send\t{LOOP | IGNORE_FOREGROUND:X}\tloop{c % 4}.wav", *[request(rng, c, True) for _ in range(
            40 * REQUESTS)]] if doomed else ["wait\t1000", f"send\t{STOP_CLIENT:X}"]
        into, out = tmp_path / f"client{c}.in", tmp_path / f"client{c}.out"
        into.write_text("".join(line + "\n" for line in lines))
        runs.append((new_client(stdin=into.open("rb"), stdout=out.open("wb")), lines, doomed, out))
    started, peak, kill_at = time.monotonic(), threads, {}
    while any(p.running() for p, _, _, _ in runs):
        assert time.monotonic() - started < 240, "the clients did not end: a hang"
        time.sleep(0.02)
        for p, lines, doomed, out in runs:
            # Killed a seeded moment after every loop it asked for has had time to join the list.
            if doomed and out.read_bytes().count(b"\n") > REQUESTS // 2 + 1:
                kill_at.setdefault(p, time.monotonic() + 0.8 + rng.uniform(0, 1.5))
            if p in kill_at and time.monotonic() >= kill_at[p]:
                p.kill()
        peak = max(peak, len(os.listdir(f"/proc/{server.process.pid}/task")))
    killed = recorder.now()
    for p, lines, doomed, out in runs:
        answers = out.read_text().split()
        assert doomed == (len(answers) < len(lines)), "a doomed client ended before it was killed, or another early"
        taken = all(a == "1" for line, a in zip(lines[1:], answers[1:]) if line != "front")
        assert answers[0] != "0x00000000" and taken, "a request was not taken"
    assert server.process.running(), "the server died under the load"

    # The sweep stops the loops of the killed clients and only theirs: the keeper's goes on until stopped.
    time.sleep(5)
    rec = recorder.samples()
    assert sound.tone_seconds(rec, 300, killed, len(rec)) >= 0.9 * (len(rec) - killed) / RATE, "the keeper's loop ended"
    assert client.send(STOP, "keeper.wav")
    stopped = recorder.now()
    time.sleep(4)
    assert not recorder.samples()[stopped + RATE // 2 :].any(), "the loops of the killed clients went on"

    # Threads and handles back at the baseline; events aside, of which Wine's winmm keeps those of
    # the wave devices it opened, for reuse: at most one more for each play thread at the peak.
    now, allowed = [], {t: n + (peak - threads if t == event else 0) for t, n in handles.items()}

    def at_baseline():
        now.append(counts(server, client))
        return now[-1][1] <= threads and all(n <= allowed.get(t, 0) for t, n in now[-1][3].items())

    assert wait_until(at_baseline, 45, 0.5), f"not back at the baseline: {now[-1]} against {threads}, {handles}"

    fresh = new_client()
    fresh.ask("window")
    server.serves(record, 7, client=fresh)  # a fresh client is served after the load

    # Every line of the log is one whole entry of this server, of a form expected here, and there are as many
    # refused plays of each name as the clients that ran to their end had taken.
    entry = r"\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3} 0*%d:\d{4,}\][^\r\n]*\r\n" % pid
    assert re.fullmatch(f"({entry})*", (tmp_path / "quorbel.log").read_bytes().decode()), "not all whole entries of it"
    log = server.log()
    assert all(map(EXPECTED.fullmatch, log)), [message for message in log if not EXPECTED.fullmatch(message)]
    plays = collections.Counter(name for message in log for name in REFUSAL.findall(message))
    assert plays.pop("gone-0-0.wav") == 1, "the warm-up's refused play"
    for _, lines, doomed, _ in runs:
        sends = [f for f in (line.split("\t") for line in lines) if f[0] == "send" and not int(f[1], 16) & STOP]
        taken = collections.Counter(n for f in sends for n in f[2:] if n.startswith(("gone", "bad")))
        assert doomed or all(plays[name] == n for name, n in taken.items()), "refused plays logged against taken"
