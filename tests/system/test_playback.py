"""What the server plays, as recorded from the session's sound server: WAV files once and in a
loop, the stops, several clients, and the foreground."""

import time

import numpy as np
import pytest

import sound
from conftest import IGNORE_FOREGROUND, LOOP, STOP, STOP_CLIENT, STOP_OTHERS, Client

RATE = sound.RATE


@pytest.fixture
def playing(server, client, recorder):
    """A server, a client with a window, and the recording running."""
    server.start()
    assert client.window() != "0x00000000"
    return server



def test_wav_played_once_arrives_sample_for_sample(playing, client, recorder, folder):
    noise = sound.noise(1101, 2 * RATE)
    sound.write_wav(folder / "noise.wav", noise)
    assert client.send(IGNORE_FOREGROUND, "noise.wav")
    time.sleep(3)
    rec = recorder.stop()
    heard = sound.match(rec, noise)
    assert heard.whole(), heard
    assert sound.match(rec, noise, heard.end).found == 0, "played more than once"
    assert playing.log() == []


def test_every_data_chunk_plays_in_file_order(playing, client, recorder, folder):
    first, second = sound.noise(21, RATE), sound.noise(22, RATE)
    # An odd-sized chunk between them is stepped over without a pad byte.
    (folder / "two.wav").write_bytes(sound.riff(
        sound.fmt_chunk(), sound.chunk(b"data", first.tobytes()), sound.chunk(b"junk", b"abc"),
        sound.chunk(b"data", second.tobytes())))
    assert client.send(IGNORE_FOREGROUND, "two.wav")
    time.sleep(3)
    rec = recorder.stop()
    heard = sound.match(rec, np.concatenate((first, second)))
    assert heard.whole(), heard


def test_loop_repeats_without_a_gap_until_stopped_by_its_own_name(playing, client, recorder, folder):
    loop = sound.noise(31, RATE // 2)
    sound.write_wav(folder / "loop.wav", loop)
    assert client.send(LOOP | IGNORE_FOREGROUND, "loop.wav")
    time.sleep(2.5)
    # Other forms of the same path are other names.
    assert client.send(STOP, ".\\loop.wav")
    assert client.send(STOP, "sub\\..\\loop.wav")
    after_wrong_stops = recorder.now()
    time.sleep(1)
    # Another letter case is the same name.
    assert client.send(STOP, "LOOP.WAV")
    stopped = recorder.now()
    rec = recorder.stop(1.5)

    passes = sound.match(rec, np.concatenate((loop, loop, loop, loop)))
    assert passes.whole(), f"the passes do not follow one another directly: {passes}"
    assert sound.match(rec, loop, after_wrong_stops).found > 0, "a stop by another path form stopped it"
    # The stop returns once the queued sound has played: nothing after it but the way out.
    assert not np.any(rec[stopped + RATE // 2 :]), "sound after the stop"


def test_stop_others_keeps_only_the_named_file_and_two_names_keep_none(playing, client, recorder, folder):
    for name, frequency in (("a.wav", 440), ("b.wav", 1000), ("c.wav", 2500)):
        sound.write_wav(folder / name, sound.tone(frequency, 1))
    assert client.send(LOOP | IGNORE_FOREGROUND, "a.wav", "b.wav", "c.wav")
    assert recorder.wait_for_tone(2500)
    time.sleep(0.5)
    before = recorder.now()
    assert client.send(STOP | STOP_OTHERS, "A.wav")
    one = recorder.now()
    time.sleep(1.2)
    assert client.send(STOP | STOP_OTHERS, "a.wav", "x.wav")
    two = recorder.now()
    rec = recorder.stop(1.2)

    settle = RATE // 2
    for frequency in (440, 1000, 2500):
        assert sound.level(rec, frequency, before - RATE // 2, before) > 4000, frequency
    assert sound.level(rec, 440, one + settle, two) > 4000
    assert sound.level(rec, 1000, one + settle, two) < 300
    assert sound.level(rec, 2500, one + settle, two) < 300
    assert not np.any(rec[two + settle :]), "still sounding after stopping all but a.wav, then all but x.wav"


def test_clients_are_independent_and_a_stop_of_the_client_needs_no_names(
        playing, client, recorder, folder, exe):
    other = Client(exe("console_client"), folder)
    try:
        assert other.window() != "0x00000000"
        for name, frequency in (("a.wav", 440), ("b.wav", 1000), ("c.wav", 2500)):
            sound.write_wav(folder / name, sound.tone(frequency, 1))
        assert client.send(LOOP | IGNORE_FOREGROUND, "a.wav", "b.wav")
        assert other.send(LOOP | IGNORE_FOREGROUND, "b.wav", "c.wav")
        assert recorder.wait_for_tone(2500)
        time.sleep(0.5)
        both = recorder.now()
        assert client.send(STOP_CLIENT)  # no names
        first_gone = recorder.now()
        time.sleep(1.2)
        assert other.send(STOP, "B.WAV")
        b_gone = recorder.now()
        time.sleep(1.2)
        end = recorder.now()
        rec = recorder.stop()
    finally:
        other.quit()

    # A tone of amplitude 8000 that sounds measures near 8000, one that stopped below 300. Both
    # clients' b.wav sound together at first, adding at whatever phase they have: not measured.
    settle = RATE // 2
    assert sound.level(rec, 440, both - RATE // 2, both) > 4000
    assert sound.level(rec, 2500, both - RATE // 2, both) > 4000
    # The first client's plays ended; the other's b.wav and c.wav went on.
    assert sound.level(rec, 440, first_gone + settle, b_gone) < 300
    assert 4000 < sound.level(rec, 1000, first_gone + settle, b_gone) < 10000
    assert sound.level(rec, 2500, first_gone + settle, b_gone) > 4000
    # A stop of b.wav by the other client ends its own b.wav only.
    assert sound.level(rec, 1000, b_gone + settle, end) < 300
    assert sound.level(rec, 2500, b_gone + settle, end) > 4000


def test_plays_follow_the_foreground_and_keep_their_timing(playing, client, recorder, folder, in_front):
    noise = sound.noise(41, 10 * RATE)
    sound.write_wav(folder / "fg.wav", noise)
    before = in_front("before")
    time.sleep(1.2)  # the server's once-a-second look sees it
    assert client.send(0, "fg.wav")
    time.sleep(1.5)
    assert client.ask("front") == "1"
    came_front = recorder.now()
    time.sleep(2.5)
    after = in_front("after")
    went_back = recorder.now()
    time.sleep(2.5)
    after.kill()
    before.kill()
    assert client.ask("front") == "1"
    came_again = recorder.now()
    time.sleep(6)
    rec = recorder.stop()

    runs = sound.sound_runs(rec, RATE // 5)
    assert len(runs) == 2, f"expected one audible stretch per time in front: {runs}"
    reaction = RATE * 3 // 2  # the one-second look, a buffer and the way out
    assert came_front <= runs[0][0] <= came_front + reaction
    assert went_back <= runs[0][1] <= went_back + reaction
    assert came_again <= runs[1][0] <= came_again + reaction
    # Both stretches are the file on one timeline: the silent part kept its length, and the play
    # ends where the file ends. Blocks cut by a switch are not found; all others are, in order.
    heard = sound.match(rec, noise)
    assert heard.early == 0, heard
    audible = sum(end - start for start, end in runs) // sound.BLOCK_FRAMES
    assert heard.found >= 0.95 * audible - 4, heard
    assert abs(heard.end - runs[1][1]) <= 256, heard


def test_ignoring_the_foreground_is_never_silenced(playing, client, recorder, folder, in_front):
    noise = sound.noise(51, 4 * RATE)
    sound.write_wav(folder / "always.wav", noise)
    in_front("other")
    time.sleep(1.2)  # the server's once-a-second look sees it
    assert client.send(IGNORE_FOREGROUND, "always.wav")
    time.sleep(1.5)
    assert client.ask("front") == "1"
    time.sleep(3.5)
    rec = recorder.stop()
    heard = sound.match(rec, noise)
    assert heard.whole(), heard
