"""Faults injected into a running server: clients killed while their loops sound, more plays at
once than the platform has wave devices for, the sound server absent, killed or frozen, a log
that cannot be created, sound files replaced or cut short, and a second server started while the
first closes. What each measured is printed."""

import os
import re
import subprocess
import time

import numpy as np
import pytest

import sound
from conftest import (IGNORE_FOREGROUND, LOOP, REPO, STOP, STOP_CLIENT, Client, WinProcess, run_windows,
                      wait_until)

RATE = sound.RATE


def session(*command):
    """Runs scripts/wine-session on the session the tests run in; True when it succeeded."""
    script = REPO / "scripts" / "wine-session"
    return subprocess.run(["bash", str(script), "--dir", os.environ["QUORBEL_SESSION_DIR"], *command],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60).returncode == 0


class SoundServer:
    """The session's sound server, stopped, killed or frozen on purpose."""

    def __init__(self):
        self.frozen = self.stopped = False

    def freeze(self):
        self.frozen = True
        assert session("sound-freeze")

    def thaw(self):
        assert session("sound-thaw")
        self.frozen = False

    def stop(self, kill=False):
        self.stopped = True
        assert session("sound-stop", *(["--kill"] if kill else []))

    def start(self):
        assert session("sound-start")
        self.stopped = False


@pytest.fixture
def sound_server():
    """Whatever happens to it in a test, the next test finds it running."""
    s = SoundServer()
    yield s
    if s.frozen:
        session("sound-thaw")
    if s.stopped:
        assert session("sound-start"), "the session's sound server did not come back"


def make_mp3(folder, name, samples):
    """An MP3 of the samples, CBR 128 kbit/s, made with lame."""
    sound.write_wav(folder / (name + ".source.wav"), samples)
    subprocess.run(["lame", "--silent", "-b", "128", str(folder / (name + ".source.wav")), str(folder / name)],
                   check=True, timeout=60)
    return name


def tone_seconds(rec, frequency, start, end, threshold=2000):
    """How long the tone is heard in [start, end), in 50 ms windows."""
    window = RATE // 20
    end = min(end, len(rec))
    heard = sum(sound.level(rec, frequency, at, at + window) > threshold for at in range(start, end - window + 1, window))
    return heard * window / RATE


def last_tone_frame(rec, frequency, start, threshold=1000):
    """The end of the last 50 ms window from start on in which the tone is heard; start if none."""
    window = RATE // 20
    last = start
    for at in range(start, len(rec) - window + 1, window):
        if sound.level(rec, frequency, at, at + window) > threshold:
            last = at + window
    return last



def test_burst_of_loops_beyond_the_device_limit_leaves_the_server_hearing(server, client, folder, record):
    """Wine serves a process's wave devices from one thread that can wait on 63 of them; a 64th
    open at once would end every done notification of the process for good. So one of 64 loops
    is refused, the others play, and once they are stopped the next play is heard whole."""
    server.start()
    names = [sound.write_wav(folder / f"loop{i}.wav", sound.tone(200 + 37 * i, 0.25, 300)) for i in range(64)]
    assert client.send_as(0, LOOP | IGNORE_FOREGROUND, *names)
    time.sleep(5)
    # The stops drain one play after another, each its queued ring.
    started = time.monotonic()
    assert client.send_as(0, STOP_CLIENT, timeout=120)
    print(f"the stop of 63 loops returned after {time.monotonic() - started:.1f} s")

    recorder = record()
    noise = sound.noise(151, RATE)
    sound.write_wav(folder / "fresh.wav", noise)
    assert client.send_as(0, IGNORE_FOREGROUND, "fresh.wav")
    time.sleep(2.5)
    heard = sound.match(recorder.stop(), noise)
    assert heard.whole(), f"the play after the burst: {heard}"

    # Exactly one refusal, with its two lines, and nothing else.
    log = server.log()
    assert len(log) == 2, log
    assert log[0] == "[player/pub/WavOut:*]too many devices open(63)"
    assert log[1] in [f"[player/wav/WavFilePlayer:*]file({n}),waveout init failed" for n in names], log[1]
    assert server.process.running()


def test_frozen_sound_server_holds_neither_a_play_nor_the_close(server, client, folder, record, sound_server):
    """A frozen sound server answers nothing: no queued buffer comes back, and a call on the
    device may block as long as it is frozen. A play gives its device up and ends, the server
    goes on serving, and a close ends the process in time although a play thread is held."""
    server.start()
    sound.write_wav(folder / "tone.wav", sound.tone(440, 1))
    recorder = record("before")
    assert client.send_as(0, LOOP | IGNORE_FOREGROUND, "tone.wav")
    assert recorder.wait_for_tone(440)
    recorder.stop(0)

    sound_server.freeze()
    # Given up after the ring's wait limit (1.6 s here), then closed on a thread of its own,
    # which the frozen server holds: the device is left open and the play ends.
    left_open = "[player/pub/WavOut:*]device left open: close did not return within 1000 ms"
    assert wait_until(lambda: left_open in server.log(), 15, 0.1), server.log()
    log = server.log()
    assert len(log) == 2, log
    assert log[0] in ("[player/pub/WavOut:*]wait for a free buffer timed out",
                      "[player/pub/WavOut:*]wait for buffers timed out"), log
    # Still serving: a stop of the ended play returns at once.
    started = time.monotonic()
    assert client.send_as(0, STOP, "tone.wav")
    assert time.monotonic() - started < 1

    # Thawed, the same server plays again.
    sound_server.thaw()
    noise = sound.noise(161, RATE)
    sound.write_wav(folder / "noise.wav", noise)
    recorder = record("thawed")
    assert client.send_as(0, IGNORE_FOREGROUND, "noise.wav")
    time.sleep(2)
    loop_from = recorder.now()
    assert client.send_as(0, LOOP | IGNORE_FOREGROUND, "tone.wav")
    assert recorder.wait_for_tone(440, loop_from)
    heard = sound.match(recorder.stop(0), noise)
    assert heard.whole(), f"not heard after the thaw: {heard}"

    # Frozen again while the loop plays, then closed before its device is given up: the play
    # thread is held by the sound path, and the close ends the process all the same.
    sound_server.freeze()
    time.sleep(0.3)
    logged = len(server.log())
    started = time.monotonic()
    assert client.ask("close") == "1"
    status = server.process.wait(10)
    took = time.monotonic() - started
    print(f"close with the sound server frozen: the process ended {took:.2f} s after WM_CLOSE")
    assert took <= 3, took
    # The server ends itself with status 0; but with a device open on the frozen sound server,
    # Wine's own end of the host process dies of SIGSEGV in its sound driver (seen in every try,
    # with ExitProcess as with TerminateProcess). Under Windows there is no such step.
    assert status in (0, -11), status
    log = server.log()
    assert len(log) > logged and log[-1] == "[player/pub/PlayerRegistry:*]play threads still running(1)", log

    # Thawed, a new server starts and is heard.
    sound_server.thaw()
    server.start()
    recorder = record("after")
    assert client.send_as(0, IGNORE_FOREGROUND, "noise.wav")
    time.sleep(2)
    heard = sound.match(recorder.stop(0), noise)
    assert heard.whole(), f"a new server was not heard: {heard}"


# The sweep looks for dead client windows every 2 s; a stop lets the ring's queued sound (186 ms)
# play out, and Wine reports it done up to about 300 ms late: so a killed client's sound ends
# within about 2.5 s. 3 s leaves room for a loaded machine.
KILL_TO_SILENCE = 3.0


def test_killed_last_clients_loop_ends_within_a_sweep_and_the_server_closes(server, client, folder, exe, record):
    sound.write_wav(folder / "tone.wav", sound.tone(440, 1))
    for round in range(3):
        server.start()
        victim = Client(exe("console_client"), folder)
        assert victim.window() != "0x00000000"
        recorder = record(f"round{round}")
        assert victim.send(LOOP | IGNORE_FOREGROUND, "tone.wav")
        assert recorder.wait_for_tone(440)
        time.sleep(2.5 + 0.3 * round)  # a sweep with the client alive; each round at another phase
        assert server.process.running()
        killed = recorder.now()
        victim.kill()
        assert server.process.wait(15) == 0, "the server did not end with its last client"
        rec = recorder.stop(0.5)
        loud = np.flatnonzero(np.any(rec[killed:] != 0, axis=1))
        assert len(loud) > 0, "nothing was sounding when the client was killed"
        to_silence = (loud[-1] + 1) / RATE
        print(f"killed client, round {round}: kill to silence {to_silence:.2f} s")
        assert to_silence <= KILL_TO_SILENCE
        assert server.log() == []


def test_killed_client_beside_another_ends_only_its_own_loop(server, client, folder, exe, recorder):
    server.start()
    sound.write_wav(folder / "victim.wav", sound.tone(440, 1))
    sound.write_wav(folder / "survivor.wav", sound.tone(1000, 1))
    victim, survivor = Client(exe("console_client"), folder), Client(exe("console_client"), folder)
    try:
        assert victim.window() != "0x00000000" and survivor.window() != "0x00000000"
        assert victim.send(LOOP | IGNORE_FOREGROUND, "victim.wav")
        assert survivor.send(LOOP | IGNORE_FOREGROUND, "survivor.wav")
        assert recorder.wait_for_tone(440) and recorder.wait_for_tone(1000)
        time.sleep(2.5)
        killed = recorder.now()
        victim.kill()
        time.sleep(5)  # two sweeps at least
        assert server.process.running(), "the server closed though a client was left"
        now = recorder.now()
        rec = recorder.samples()
        to_silence = (last_tone_frame(rec, 440, killed) - killed) / RATE
        window = RATE // 10
        steady = np.mean([sound.level(rec, 1000, at, at + window) >= 4000 for at in range(killed, now - window, window)])
        print(f"killed client beside another: kill to silence {to_silence:.2f} s; the other's loop at full "
              f"level in {100 * steady:.0f} % of the 100 ms windows after the kill")
        assert to_silence <= KILL_TO_SILENCE
        assert sound.level(rec, 440, now - RATE, now) < 200
        assert sound.level(rec, 1000, now - RATE, now) > 4000
        assert steady >= 0.9  # room for a dropout of the sound server, none for a stopped loop
        # The one left stops its loop and goes: now the server closes.
        assert survivor.send(STOP, "survivor.wav")
    finally:
        survivor.quit()
        victim.kill()
    assert server.process.wait(15) == 0, "the server did not end with its last client"
    assert server.log() == []


def open_code(message):
    """The result code of a waveOutOpen() line, or None."""
    found = re.fullmatch(r"\[player/pub/WavOut:\*\]waveOutOpen\(\) return\((\d+)\)", message)
    return int(found.group(1)) if found else None


class Material:
    def __init__(self, folder):
        self.noise = sound.noise(101, RATE)
        sound.write_wav(folder / "noise.wav", self.noise)
        make_mp3(folder, "tone.mp3", sound.tone(1000, 1.5))


def refused_plays(server, client):
    """Asks for a WAV and an MP3 play one after the other and checks that each is refused with
    the device's line first; the two codes of waveOutOpen."""
    before = len(server.log())
    assert client.send_as(0, IGNORE_FOREGROUND, "noise.wav")
    assert wait_until(lambda: len(server.log()) >= before + 2, 10)
    assert client.send_as(0, IGNORE_FOREGROUND, "tone.mp3")
    assert wait_until(lambda: len(server.log()) >= before + 4, 10)
    time.sleep(0.3)
    log = server.log()[before:]
    assert len(log) == 4, log
    codes = open_code(log[0]), open_code(log[2])
    assert None not in codes and min(codes) > 0, log
    assert log[1] == "[player/wav/WavFilePlayer:*]file(noise.wav),waveout init failed"
    assert log[3] == "[player/mp3/MP3FilePlayer:*]file(tone.mp3),wav init failed"
    return codes


def both_heard(client, record, material, tag):
    """Plays the WAV and the MP3; whether both were heard."""
    recorder = record(tag)
    assert client.send_as(0, IGNORE_FOREGROUND, "noise.wav")
    time.sleep(2)
    mp3_from = recorder.now()
    assert client.send_as(0, IGNORE_FOREGROUND, "tone.mp3")
    mp3 = recorder.wait_for_tone(1000, mp3_from)
    time.sleep(2)  # played out: nothing of it may still sound when the next fault comes
    wav = sound.match(recorder.stop(0), material.noise).fraction >= 0.5
    assert wav == mp3, f"{tag}: WAV heard {wav}, MP3 heard {mp3}"
    return wav and mp3


def test_sound_server_absent_after_the_device_was_used_refuses_plays_until_it_is_back(
        server, client, folder, record, sound_server):
    """Wine's winmm finds the sound devices once per process. Found before the sound server went
    away, opens fail while it is away and work again once it is back."""
    server.start()
    material = Material(folder)
    assert both_heard(client, record, material, "before")
    sound_server.stop()
    print(f"sound server absent after the device was used: waveOutOpen() returned {refused_plays(server, client)}")
    assert server.process.running() and client.server_window()
    sound_server.start()
    logged = len(server.log())
    assert both_heard(client, record, material, "after"), "not heard after the sound server came back"
    assert len(server.log()) == logged, server.log()


def test_sound_server_absent_at_the_first_play_refuses_plays_and_a_new_server_is_heard(
        server, client, folder, record, sound_server):
    """Absent at the process's first open, Wine may keep the process without a device for good:
    every play is refused with its two lines, and a new server process finds the device."""
    server.start()
    material = Material(folder)
    sound_server.stop()
    codes = refused_plays(server, client)
    assert server.process.running()
    sound_server.start()
    logged = len(server.log())
    recovered = both_heard(client, record, material, "after")
    again = None if recovered else refused_plays(server, client)
    print(f"sound server absent at the first play: waveOutOpen() returned {codes}; once it was back the "
          f"same process {'played' if recovered else f'refused again, returning {again}'}")
    if recovered:
        assert len(server.log()) == logged, server.log()
    assert server.close() == 0
    server.start()
    assert both_heard(client, record, material, "new-server")


def test_sound_server_killed_mid_loop_neither_crashes_nor_hangs_the_server(
        server, client, folder, record, sound_server):
    server.start()
    sound.write_wav(folder / "tone.wav", sound.tone(440, 1))
    recorder = record("before")
    assert client.send_as(0, LOOP | IGNORE_FOREGROUND, "tone.wav")
    assert recorder.wait_for_tone(440)
    recorder.stop(0)
    sound_server.stop(kill=True)
    time.sleep(0.3)
    # The device no longer reports its buffers done: the stop waits for them with a bound.
    started = time.monotonic()
    assert client.send_as(0, STOP, "tone.wav")
    stop_took = time.monotonic() - started
    assert stop_took <= 10
    assert server.process.running() and client.server_window()
    # The play's own end waits and closes with bounds too; when its lines stop, it is over.
    timed_out = "[player/pub/WavOut:*]wait for buffers timed out"
    assert wait_until(lambda: timed_out in server.log(), 10, 0.1), server.log()
    assert wait_quiet(server, 3, 30)
    log = server.log()
    print(f"sound server killed mid-loop: the stop returned after {stop_took:.2f} s; the log says {log}")
    known = {"[player/pub/WavOut:*]wait for a free buffer timed out", timed_out,
             "[player/pub/WavOut:*]waveOutReset() return(1)",
             "[player/pub/WavOut:*]waveOutUnprepareHeader() return(33)",
             "[player/pub/WavOut:*]waveOutClose() return(1)"}
    assert set(log) <= known, log
    assert server.process.running()

    # Back again: the next play is heard, and a loop stops as usual.
    sound_server.start()
    before = len(server.log())
    noise = sound.noise(111, RATE)
    sound.write_wav(folder / "noise.wav", noise)
    recorder = record("after")
    assert client.send_as(0, IGNORE_FOREGROUND, "noise.wav")
    time.sleep(2)
    loop_from = recorder.now()
    assert client.send_as(0, LOOP | IGNORE_FOREGROUND, "tone.wav")
    assert recorder.wait_for_tone(440, loop_from)
    started = time.monotonic()
    assert client.send_as(0, STOP, "tone.wav")
    assert time.monotonic() - started <= 2
    assert sound.match(recorder.stop(0.5), noise).fraction >= 0.5
    assert len(server.log()) == before, server.log()


def wait_quiet(server, quiet, timeout):
    """Waits until the log has not changed for quiet seconds."""
    last, changed, end = server.log(), time.monotonic(), time.monotonic() + timeout
    while time.monotonic() < end:
        now = server.log()
        if now != last:
            last, changed = now, time.monotonic()
        if time.monotonic() - changed >= quiet:
            return True
        time.sleep(0.1)
    return False


def test_log_file_that_cannot_be_created_loses_entries_only_until_it_can(server, client, folder, recorder):
    # As root, permissions do not stop a write; a folder in the log file's place does.
    (folder / "quorbel.log").mkdir()
    server.start()
    noise = sound.noise(121, RATE)
    sound.write_wav(folder / "noise.wav", noise)
    # Entries that cannot be written, then a play as usual.
    assert client.send_as(0, IGNORE_FOREGROUND, "missing.wav", "missing.mp3")
    assert client.send_as(0, IGNORE_FOREGROUND, "noise.wav")
    time.sleep(2)
    assert sound.match(recorder.stop(0), noise).fraction >= 0.5
    assert server.process.running()
    (folder / "quorbel.log").rmdir()
    assert client.send_as(0, IGNORE_FOREGROUND, "gone.wav")
    assert wait_until(lambda: len(server.log()) == 2, 10)
    assert server.log() == ["[player/pub/FileMapObj:*]create file(gone.wav) failed(0x00000002)",
                            "[player/wav/WavFilePlayer:*]file(gone.wav),open failed"]


def file_ops(exe, folder, *args):
    """Runs server_fileops (a file changed as a Windows program would): its status and its line."""
    out = folder / "fileops.out"
    status = run_windows(exe("server_fileops"), args, folder, out)
    return status, out.read_text(errors="replace").strip()


def test_file_replaced_between_plays_is_played_with_its_new_content(server, client, folder, exe, recorder):
    server.start()
    before, after = sound.noise(131, RATE * 3 // 4), sound.noise(132, RATE * 3 // 4)
    sound.write_wav(folder / "x.wav", before)
    assert client.send_as(0, IGNORE_FOREGROUND, "x.wav")
    time.sleep(1.8)  # played out and unmapped
    (folder / "x.new").write_bytes(sound.wav_bytes(after))
    assert file_ops(exe, folder, "replace", "x.new", "x.wav") == (0, "done")
    replaced = recorder.now()
    assert client.send_as(0, IGNORE_FOREGROUND, "x.wav")
    time.sleep(1.8)
    rec = recorder.stop(0)
    assert sound.match(rec, before).fraction >= 0.5, "the first content was not played"
    assert sound.match(rec, after, replaced).fraction >= 0.5, "the new content was not played"
    assert sound.match(rec, before, replaced).found == 0, "the old content was played again"
    assert server.log() == []


def test_file_cut_short_between_plays_is_refused_or_played_short(server, client, folder, recorder):
    server.start()
    noise = sound.noise(141, RATE)
    sound.write_wav(folder / "x.wav", noise)
    make_mp3(folder, "x.mp3", sound.tone(1000, 2))
    assert client.send_as(0, IGNORE_FOREGROUND, "x.wav")
    time.sleep(2)
    mp3_whole = recorder.now()
    assert client.send_as(0, IGNORE_FOREGROUND, "x.mp3")
    time.sleep(3)

    # Cut shorter and shorter from the host while nothing holds the file (a file the server has
    # mapped is never cut from the Linux side: Windows would refuse, Linux lets it happen and the
    # server's next read of the lost pages raises SIGBUS, which no Windows program meets).
    cuts = [(44 + RATE * 2, "[CWavFile::InitFileInfo]file(x.wav),no data info"),
            (30, "[CWavFile::InitFileInfo]file(x.wav),no fmt info"),
            (5, "[CWavFile::InitFileInfo]file(x.wav),size too small"),
            (0, "[player/pub/FileMapObj:*]create file mapping failed(0x000003EE)")]
    open_failed = "[player/wav/WavFilePlayer:*]file(x.wav),open failed"
    for refusals, (size, reason) in enumerate(cuts, 1):
        os.truncate(folder / "x.wav", size)
        assert client.send_as(0, IGNORE_FOREGROUND, "x.wav")
        assert wait_until(lambda: server.log().count(open_failed) == refusals, 10), size
        assert server.log().count(reason) == 1, reason
    assert len(server.log()) == 2 * len(cuts), server.log()

    # An MP3 cut in the middle of its frames plays up to the cut, refusing the last frame silently.
    os.truncate(folder / "x.mp3", (folder / "x.mp3").stat().st_size // 2 + 101)
    mp3_cut = recorder.now()
    assert client.send_as(0, IGNORE_FOREGROUND, "x.mp3")
    time.sleep(3)
    good_from = recorder.now()
    good = sound.noise(142, RATE)
    sound.write_wav(folder / "good.wav", good)
    assert client.send_as(0, IGNORE_FOREGROUND, "good.wav")
    time.sleep(2)
    rec = recorder.stop(0)
    assert sound.match(rec, noise).fraction >= 0.5, "the WAV was not played before it was cut"
    whole = tone_seconds(rec, 1000, mp3_whole, mp3_cut)
    cut = tone_seconds(rec, 1000, mp3_cut, good_from)
    print(f"MP3 of 2 s: {whole:.2f} s heard whole, {cut:.2f} s heard cut at half its bytes")
    assert whole > 1.7 and 0.6 < cut < 1.4
    assert sound.match(rec, good, good_from).fraction >= 0.5, "serving did not go on"
    assert len(server.log()) == 2 * len(cuts), server.log()


def test_file_being_played_cannot_be_cut_or_replaced(server, client, folder, exe, recorder):
    server.start()
    sound.write_wav(folder / "x.wav", sound.tone(440, 1))
    sound.write_wav(folder / "y.wav", sound.tone(1000, 1))
    size = (folder / "x.wav").stat().st_size
    assert client.send_as(0, LOOP | IGNORE_FOREGROUND, "x.wav")
    assert recorder.wait_for_tone(440)
    # The server holds the file open for reading, shared for reading only, and mapped: a program
    # that wants to cut it cannot open it for writing, and a rename over it is refused. This is
    # Windows' behaviour, and Wine's as measured here.
    cut = file_ops(exe, folder, "truncate", "x.wav", "100")
    replace = file_ops(exe, folder, "replace", "y.wav", "x.wav")
    print(f"file being played: truncation {cut[1]}; replacement {replace[1]}")
    assert cut == (1, "refused CreateFile 0x00000020")
    assert replace[0] == 1 and replace[1].startswith("refused MoveFileEx "), replace
    assert (folder / "x.wav").stat().st_size == size
    attempted = recorder.now()
    assert recorder.wait_for_tone(440, attempted + RATE // 2), \
        "the loop did not go on"
    assert client.send_as(0, STOP, "x.wav")
    rec = recorder.stop(0.5)
    assert sound.level(rec, 1000, attempted, len(rec)) < 200, "the replacement was heard"
    # Once the play has ended, the same cut is allowed: the refusal was the play's doing.
    assert file_ops(exe, folder, "truncate", "x.wav", "100") == (0, "done")
    assert (folder / "x.wav").stat().st_size == 100
    assert server.log() == []


def test_second_server_started_while_the_first_closes_leaves_one_or_none(server, client, folder, exe, record):
    for name, frequency in (("a.wav", 440), ("b.wav", 1000), ("c.wav", 2500), ("late.wav", 700)):
        sound.write_wav(folder / name, sound.tone(frequency, 1))
    # (by the sweep: the last client window destroyed; else WM_CLOSE), then the second start.
    rounds = [(False, 0), (False, 0.15), (False, 0.3), (False, 0.6), (False, 1.0), (True, 0.7), (True, 1.7)]
    outcomes = []
    for r, (by_sweep, delay) in enumerate(rounds):
        if not client.server_window():
            server.start()
        recorder = record(f"round{r}")
        # Three loops, so that the close has plays to stop.
        if by_sweep:
            assert client.window() != "0x00000000"
            assert client.send(LOOP | IGNORE_FOREGROUND, "a.wav", "b.wav", "c.wav")
        else:
            assert client.send_as(0, LOOP | IGNORE_FOREGROUND, "a.wav", "b.wav", "c.wav")
        assert recorder.wait_for_tone(440) and recorder.wait_for_tone(2500)
        assert client.ask("destroy" if by_sweep else "close") == "1"
        closed = time.monotonic()
        time.sleep(delay)
        second = WinProcess(exe("quorbel"), ["late.wav"], cwd=folder)
        started = time.monotonic()
        # The first must end within its close's deadline.
        assert server.process.wait(15) == 0, f"round {r}: the first server lingers"
        first_took = time.monotonic() - closed
        # The second either hands its arguments on (or finds no window) and ends, or it found the
        # mutex free and is the server now.
        assert wait_until(lambda: not second.running() or client.server_window(), 15), \
            f"round {r}: the second neither ended nor made a window"
        second_took = time.monotonic() - started
        if not second.running():
            assert second.wait(0) == 0
            assert not client.server_window(), f"round {r}: a server runs though both ended"
            outcomes.append("ended")
        else:
            time.sleep(1)
            assert second.running() and client.server_window(), f"round {r}: the second made a window and ended"
            outcomes.append("server")
        recorder.stop(0.5)
        print(f"round {r} ({'sweep' if by_sweep else 'WM_CLOSE'}, second start {delay} s later): first ended "
              f"{first_took:.2f} s after the close; second {outcomes[-1]} after {second_took:.2f} s")
        if outcomes[-1] == "server":
            # Whichever runs now serves normally; a second long, since a new process's first
            # stream may lose its first milliseconds.
            noise = sound.noise(150 + r, RATE)
            sound.write_wav(folder / "check.wav", noise)
            check = record(f"check{r}")
            assert client.send_as(0, IGNORE_FOREGROUND, "check.wav")
            time.sleep(2)
            assert sound.match(check.stop(0), noise).fraction >= 0.5, f"round {r}: the second does not serve"
            assert client.ask("close") == "1"
            assert second.wait(15) is not None, f"round {r}: the second server did not close"
        assert not client.server_window()
    # A start after all of it serves.
    server.start()
    noise = sound.noise(160, RATE)
    sound.write_wav(folder / "final.wav", noise)
    recorder = record("final")
    assert client.send_as(0, IGNORE_FOREGROUND, "final.wav")
    time.sleep(2)
    assert sound.match(recorder.stop(0), noise).fraction >= 0.5
    print(f"second start while closing: {outcomes.count('ended')} rounds the second ended, "
          f"{outcomes.count('server')} rounds it became the server")
    assert server.log() == []
