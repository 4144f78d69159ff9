"""What the server plays, as recorded from the session's sound server: WAV files bit for bit, MP3 files (lame's, of
PCM made here) as quorbel-decode decodes them or at their own format, loops without a gap, the stops, the foreground."""

import os
import subprocess
import time
from pathlib import Path

import numpy as np

import sound
from conftest import IGNORE_FOREGROUND, LOOP, RATE, REPO, STOP, STOP_CLIENT, STOP_OTHERS


def decode(folder, name):
    """The native quorbel-decode's PCM of the MP3 file (frames x 2) but the exact zeros at its ends."""
    decoder = Path(os.environ.get("QUORBEL_NATIVE_BUILD_DIR", REPO / "build" / "native")) / "bin" / "quorbel-decode"
    (folder / "decode").mkdir(exist_ok=True)  # a folder of its own, so that a log it writes is not the server's
    raw = subprocess.run([decoder, "--raw", folder / name, "-"], cwd=folder / "decode", capture_output=True,
                         timeout=30, check=True)
    pcm = np.frombuffer(raw.stdout, "<i2").reshape(-1, 2)
    loud = np.flatnonzero(np.any(pcm != 0, axis=1))
    return pcm[loud[0] : loud[-1] + 1]


def test_files_play_once_exactly_or_at_their_own_format_and_loop_without_a_gap(server, client, recorder, tmp_path):
    wav, loop = sound.noise(1101, RATE), sound.noise(31, RATE // 2)
    sound.write_wav(tmp_path / "noise.wav", wav)
    sound.write_wav(tmp_path / "loop.wav", loop)
    # Two data chunks with an odd-sized chunk between them, stepped over without a pad byte.
    first, second = sound.noise(21, RATE // 2), sound.noise(22, RATE // 2)
    (tmp_path / "two.wav").write_bytes(sound.riff(sound.fmt_chunk(), sound.chunk(b"data", first.tobytes()),
                                                sound.chunk(b"junk", b"abc"), sound.chunk(b"data", second.tobytes())))
    sound.write_mp3(tmp_path / "noise.mp3", sound.noise(1201, 2 * RATE), RATE, "-b", "128")
    # A tone played at another rate or channel count than its own is heard at another pitch.
    sound.write_mp3(tmp_path / "mono.mp3", sound.tone(700, 1, channels=1), RATE, "-m", "m", "-b", "96")
    sound.write_mp3(tmp_path / "half.mp3", sound.tone(1500, 1, rate=RATE // 2), RATE // 2, "-b", "64")
    half = (tmp_path / "half.mp3").read_bytes()
    assert half[1] & 0x18 == 0x10 and (half[2] >> 2) & 3 == 0, "lame did not write MPEG-2 at 22050 Hz"
    # Five frames, no tag frame: a pass shorter than the output's ring. The decoder runs on from
    # pass to pass, so a loop sounds as the frames decoded several times in a row.
    sound.write_mp3(tmp_path / "loop.mp3", sound.noise(1401, 4000), RATE, "-t", "-b", "128")
    assert 5 * 417 <= len((tmp_path / "loop.mp3").read_bytes()) <= 5 * 418, "lame did not write five frames"
    (tmp_path / "eight.mp3").write_bytes((tmp_path / "loop.mp3").read_bytes() * 8)

    server.start()
    # Other forms of loop.wav's path are other names; its name in another letter case is its own.
    marks = []
    for flags, name, seconds in ((0, "noise.wav", 1.5), (0, "two.wav", 1.5), (0, "noise.mp3", 2.5),
                                 (0, "mono.mp3", 1.6), (0, "half.mp3", 1.6), (LOOP, "loop.wav", 2.3),
                                 (STOP, ".\\loop.wav", 0), (STOP, "sub\\..\\loop.wav", 0.8), (STOP, "LOOP.WAV", 0.8),
                                 (LOOP, "loop.mp3", 2), (STOP, "Loop.Mp3", 1)):
        marks.append(recorder.now())
        assert client.send(flags | IGNORE_FOREGROUND, name)
        time.sleep(seconds)
    rec = recorder.stop(0)

    for material, mark in ((wav, 0), (np.concatenate((first, second)), 1), (decode(tmp_path, "noise.mp3"), 2)):
        heard = sound.match(rec, material, marks[mark])
        assert heard.whole(), heard
        assert sound.match(rec, material, heard.end).found == 0, "played more than once"
    assert 0.8 <= sound.tone_seconds(rec, 700, marks[3], marks[4]) <= 1.2, "mono MP3"
    assert 0.8 <= sound.tone_seconds(rec, 1500, marks[4], marks[5]) <= 1.2, "MPEG-2 MP3 at 22050 Hz"
    passes = sound.match(rec, np.tile(loop, (4, 1)), marks[5])
    assert passes.whole(), f"the WAV's passes do not follow one another directly: {passes}"
    assert sound.match(rec, loop, marks[8]).found > 0, "a stop by another form of the path stopped it"
    # A stop returns once the queued sound has played: nothing half a second after it.
    assert not np.any(rec[marks[9] - RATE * 3 // 10 : marks[9]]), "the WAV loop sounded after its stop"
    passes = sound.match(rec, decode(tmp_path, "eight.mp3"), marks[9])
    assert passes.whole(), f"the MP3's passes are not its frames over again: {passes}"
    assert not np.any(rec[-RATE // 2 :]), "the MP3 loop sounded after its stop"
    assert server.log() == []


def test_stops_reach_the_plays_they_name_and_plays_follow_the_foreground(
        server, client, new_client, recorder, tmp_path):
    tones = {"a.wav": 440, "b.mp3": 1000, "c.mp3": 2500, "d.mp3": 1700, "e.wav": 3100}
    for name, frequency in tones.items():
        (sound.write_wav if name.endswith(".wav") else sound.write_mp3)(tmp_path / name, sound.tone(frequency, 1, 6000))
    always, noise = sound.noise(51, RATE), sound.noise(41, 10 * RATE)
    sound.write_wav(tmp_path / "always.wav", always)
    sound.write_wav(tmp_path / "fg.wav", noise)
    server.start()
    other = new_client()
    client.ask("window")
    other.ask("window")
    assert client.send(LOOP | IGNORE_FOREGROUND, "a.wav", "b.mp3", "c.mp3")
    assert other.send(LOOP | IGNORE_FOREGROUND, "d.mp3", "e.wav")
    for frequency in tones.values():
        assert recorder.wait_for_tone(frequency), frequency
    time.sleep(0.5)
    # This client's plays but a.wav (in any letter case); the other's, by no name; each of two names stops the other.
    marks = [recorder.now()]
    for sender, flags, *names in ((client, STOP | STOP_OTHERS, "A.WAV"), (other, STOP_CLIENT),
                                  (client, STOP | STOP_OTHERS, "a.wav", "x.wav")):
        assert sender.send(flags, *names)
        marks.append(recorder.now())
        time.sleep(1.2)
    marks.append(recorder.now())

    # Another window in front: a play that follows the foreground starts silent, one told to
    # ignore it does not; the first sounds only while its client is in front, on its own timeline.
    assert other.ask("front") == "1"
    time.sleep(1.2)  # the server's once-a-second look sees it
    assert client.send(IGNORE_FOREGROUND, "always.wav")
    time.sleep(1.5)
    start = recorder.now()
    assert client.send(0, "fg.wav")
    time.sleep(1.5)
    fronts = []
    for front in (client, other, client):
        assert front.ask("front") == "1"
        fronts.append(recorder.now() - start)
        time.sleep(2.5)
    rec = recorder.stop(3.5)

    expected = [set(tones.values()), {440, 1700, 3100}, {440}, set()]
    spans = [(marks[0] - RATE // 2, marks[0])] + [(m + RATE // 2, n) for m, n in zip(marks[1:], marks[2:])]
    for step, ((begin, end), on) in enumerate(zip(spans, expected)):
        for frequency in tones.values():
            if frequency in on:  # the sound server may drop out, a looped MP3's seam is quieter: half will do
                assert sound.tone_seconds(rec, frequency, begin, end, 2500) >= (end - begin) / RATE / 2, \
                    f"{frequency} Hz stopped at step {step}"
            else:
                assert sound.level(rec, frequency, begin, end) < 300, f"{frequency} Hz sounds at step {step}"
    assert not np.any(rec[marks[3] + RATE // 2 : marks[4]]), "sound after every play was stopped"

    heard = sound.match(rec, always, marks[4])
    assert heard.whole() and heard.end <= start, f"silenced though told to ignore the foreground: {heard}"
    loud = np.flatnonzero(np.any(rec[start:] != 0, axis=1))
    breaks = np.flatnonzero(np.diff(loud) > RATE // 5)  # a fifth of a second of silence parts two stretches
    runs = list(zip(loud[np.r_[0, breaks + 1]].tolist(), (loud[np.r_[breaks, -1]] + 1).tolist()))
    assert len(runs) == 2, f"expected one audible stretch per time in front: {runs}"
    for front, at in zip(fronts, (runs[0][0], runs[0][1], runs[1][0])):
        assert front <= at <= front + RATE * 3 // 2, (fronts, runs)  # the one-second look, a buffer, the way out
    # Both stretches are the file on one timeline: the silent part kept its length, and the play
    # ends where the file ends. Blocks cut by a switch are not found; all others are, in order.
    heard = sound.match(rec[start:], noise)
    audible_blocks = sum(end - begin for begin, end in runs) // sound.BLOCK_FRAMES
    assert heard.early == 0 and heard.found >= 0.95 * audible_blocks - 4, heard
    assert abs(heard.end - runs[1][1]) <= 256, heard
