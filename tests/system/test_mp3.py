"""MP3 files played by the server, recorded from the session's sound server and held against
what quorbel-decode makes of the same file: once, at other formats, in a loop, under the
foreground and the stops, cut short by a frame the decoder refuses, refused whole, eight at once
from four clients. The material is encoded with lame at test time from PCM made here."""

import os
import subprocess
import time

import numpy as np
import pytest

import sound
from conftest import IGNORE_FOREGROUND, LOOP, REPO, STOP, STOP_CLIENT, STOP_OTHERS, Client, wait_until

RATE = sound.RATE
FRAME = 1152  # samples per channel in an MPEG-1 Layer III frame


@pytest.fixture(scope="session")
def decoder():
    """The native quorbel-decode of this build."""
    build = os.environ.get("QUORBEL_NATIVE_BUILD_DIR", str(REPO / "build" / "native"))
    path = os.path.join(build, "bin", "quorbel-decode")
    assert os.access(path, os.X_OK), f"{path} not found (QUORBEL_NATIVE_BUILD_DIR names the native build)"
    return path


@pytest.fixture
def mp3(server, client, recorder, folder, decoder):
    """A server and a client with a window, the recording running; encode(), decode()."""
    server.start()
    assert client.window() != "0x00000000"
    (folder / "decode").mkdir()

    class Mp3:
        def encode(self, name, samples, rate, *options):
            """Encodes the samples with lame and these options into the folder; the name."""
            sound.write_wav(folder / (name + ".in.wav"), samples, rate)
            subprocess.run(["lame", "--quiet", *options, str(folder / (name + ".in.wav")), str(folder / name)],
                           check=True, timeout=60)
            return name

        def decode(self, name, channels=2):
            """quorbel-decode's PCM of the file (frames x channels), in a folder of its own so that
            a log it writes is not taken for the server's."""
            out = folder / "decode" / (name + ".raw")
            subprocess.run([decoder, "--raw", str(folder / name), str(out)], cwd=folder / "decode",
                           timeout=30, check=True)
            return np.fromfile(out, dtype="<i2").reshape(-1, channels)

    return Mp3()


def smooth_noise(seed, frames, channels, width):
    """Seeded noise through a box filter of width frames: inside the band lame keeps at every
    rate used here, so the decoded stream follows it closely, and it never repeats."""
    raw = sound.noise(seed, frames + width, channels, 24000).astype(np.int64)
    sums = np.cumsum(np.vstack((np.zeros((1, channels), np.int64), raw)), axis=0)
    return ((sums[width:] - sums[:-width]) // width)[:frames].astype(np.int16)


def audible(pcm):
    """The PCM without the exact zeros at either end (the encoder's delay, the silent tag frame)."""
    loud = np.flatnonzero(np.any(pcm != 0, axis=1))
    return pcm[loud[0] : loud[-1] + 1] if len(loud) else pcm[:0]


def layer3_frames(data):
    """(offset, size) of the Layer III frames of a file as lame writes it, from its first byte."""
    mpeg1 = [0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0]
    mpeg2 = [0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0]
    frames, at = [], 0
    while at + 4 <= len(data):
        h = data[at : at + 4]
        if h[0] != 0xFF or (h[1] & 0xE6) != 0xE2:
            break
        version, bitrate_index, rate_index = (h[1] >> 3) & 3, h[2] >> 4, (h[2] >> 2) & 3
        if version == 1 or bitrate_index in (0, 15) or rate_index == 3:
            break
        is_mpeg1 = version == 3
        rate = [44100, 48000, 32000][rate_index] >> (0 if is_mpeg1 else 1 if version == 2 else 2)
        bitrate = 1000 * (mpeg1 if is_mpeg1 else mpeg2)[bitrate_index]
        size = (144 if is_mpeg1 else 72) * bitrate // rate + ((h[2] >> 1) & 1)
        frames.append((at, size))
        at += size
    return frames


def correlated_share(signal, reference, lag):
    """How much of the reference (mono, at the recording's rate) is in the signal from lag on, in
    windows of 0.1 s each correlated at its best place near where the one before was found: the
    sound server may insert a few milliseconds under load."""
    window, reach = 4410, 2205
    drift, matched, windows = 0, 0, 0
    for w in range(0, len(reference) - window + 1, window):
        windows += 1
        ref = reference[w : w + window]
        start = lag + w + drift - reach
        lo = max(start, 0)
        seg = signal[lo : start + 2 * reach + window]
        if len(seg) < window:
            continue
        best, best_at = -1.0, 0
        for at in range(0, len(seg) - window + 1):
            c = np.corrcoef(seg[at : at + window], ref)[0, 1]
            if c > best:
                best, best_at = c, at
        if best > 0.9:
            matched += 1
            drift += lo + best_at - (lag + w + drift)
    return matched / windows if windows else 0.0


def best_lag(signal, reference, probe=4096):
    """Where the reference lies in the signal, by the correlation of a probe from its second
    quarter."""
    start = len(reference) // 4
    p = reference[start : start + probe]
    scores = np.correlate(signal, p, mode="valid")
    norms = np.sqrt(np.convolve(signal ** 2, np.ones(probe), mode="valid")) + 1e-9
    return int(np.argmax(scores / norms)) - start


def mono(pcm):
    return pcm.astype(np.float64).mean(axis=1)


def passes(rec, piece, pass_frames, start=0):
    """(passes of piece found from frame start, passes right after the one before): each pass is
    found in blocks in order, so a dropout of the sound server costs one block, not the pass."""
    found, seamless, previous = 0, 0, None
    while True:
        heard = sound.match(rec, piece, start)
        if not heard.whole(0.5):
            return found, seamless
        found += 1
        if previous is not None and heard.start - previous == pass_frames:
            seamless += 1
        previous, start = heard.start, heard.end



def median_level(rec, frequency, start, end):
    """The median of the tone's level over tenths of a second: a looped MP3 of a tone restarts
    its phase at every pass, which would lower one level taken across the seams."""
    levels = [sound.level(rec, frequency, at, at + 4410) for at in range(start, min(end, len(rec)) - 4410 + 1, 4410)]
    return float(np.median(levels)) if levels else 0.0


def test_stereo_at_44100_plays_once_as_the_decoder_decodes_it(mp3, server, client, recorder):
    mp3.encode("noise.mp3", smooth_noise(1201, 2 * RATE, 2, 2), RATE, "-b", "128")
    decoded = audible(mp3.decode("noise.mp3"))
    assert len(decoded) > 2 * RATE - 4096, "the decode is too short"
    assert client.send(IGNORE_FOREGROUND, "noise.mp3")
    time.sleep(3)
    rec = recorder.stop()
    heard = sound.match(rec, decoded)
    assert heard.whole(), heard
    assert sound.match(rec, decoded, heard.end).found == 0, "played more than once"
    assert server.log() == []


def test_mono_and_mpeg2_at_22050_play_at_their_own_format(mp3, server, client, recorder, folder):
    mp3.encode("mono.mp3", smooth_noise(1301, RATE * 3 // 2, 1, 12), RATE, "-m", "m", "-b", "96")
    mp3.encode("half.mp3", smooth_noise(1302, RATE * 3 // 4, 2, 12), RATE // 2, "-b", "64")
    half = (folder / "half.mp3").read_bytes()
    assert half[1] & 0x18 == 0x10, "lame did not write MPEG-2"
    assert (half[2] >> 2) & 3 == 0, "lame did not keep 22050 Hz"
    mono_ref = mono(mp3.decode("mono.mp3", 1))
    half_ref = mono(mp3.decode("half.mp3"))

    assert client.send(IGNORE_FOREGROUND, "mono.mp3")
    time.sleep(2.2)
    between = recorder.now()
    assert client.send(IGNORE_FOREGROUND, "half.mp3")
    time.sleep(2.2)
    heard = mono(recorder.stop())

    lag = best_lag(heard, mono_ref)
    assert 0 <= lag < between, lag
    assert correlated_share(heard, mono_ref, lag) >= 0.9, f"mono: lag {lag}"
    # The 22050 Hz stream at the recording's rate: every sample followed by the midpoint to the
    # next. Played at any other rate its shape would not be found.
    upsampled = np.empty(2 * len(half_ref))
    upsampled[0::2] = half_ref
    upsampled[1::2] = (half_ref + np.append(half_ref[1:], half_ref[-1])) / 2
    lag = best_lag(heard, upsampled)
    assert lag >= between - RATE // 10, lag
    assert correlated_share(heard, upsampled, lag) >= 0.9, f"22050 Hz: lag {lag}"
    assert server.log() == []


def test_loops_repeat_without_a_gap_even_of_five_frames_and_stop_within_the_drain(mp3, server, client, recorder,
                                                                                   folder):
    # Without the tag frame: a pass is the sound of the file alone.
    mp3.encode("loop.mp3", smooth_noise(1401, RATE * 3 // 4, 2, 2), RATE, "-t", "-b", "160")
    mp3.encode("short.mp3", smooth_noise(1402, 4000, 2, 2), RATE, "-t", "-b", "128")
    loop_frames = len(layer3_frames((folder / "loop.mp3").read_bytes()))
    assert len(layer3_frames((folder / "short.mp3").read_bytes())) == 5
    loop, short = mp3.decode("loop.mp3"), mp3.decode("short.mp3")
    assert len(loop) == FRAME * loop_frames and len(short) == FRAME * 5
    # The decoder runs on from pass to pass, so the first frame of a later pass carries over the
    # end of the one before; from the second frame on every pass is the same.
    assert client.send(LOOP | IGNORE_FOREGROUND, "loop.mp3")
    time.sleep(3)
    assert client.send(STOP, "LOOP.MP3")
    loop_stopped = recorder.now()
    time.sleep(0.8)
    short_start = recorder.now()
    assert client.send(LOOP | IGNORE_FOREGROUND, "short.mp3")
    time.sleep(1.5)
    assert client.send(STOP, "short.mp3")
    short_stopped = recorder.now()
    rec = recorder.stop(1.2)

    found, seamless = passes(rec, loop[FRAME:], len(loop))
    assert found >= 3, "the loop was not heard repeating"
    assert seamless >= found - 2, "passes do not follow one another directly"
    found, seamless = passes(rec, short[FRAME:], len(short), short_start)
    assert found >= 5, "the five-frame file did not loop"
    assert seamless >= found - 2, "passes of the five-frame file do not follow one another directly"
    # A stop returns once the queued sound has played; the ring holds well under half a second.
    assert not np.any(rec[loop_stopped + RATE // 2 : short_start]), "the loop sounded after its stop"
    assert not np.any(rec[short_stopped + RATE // 2 :]), "the five-frame loop sounded after its stop"
    assert server.log() == []


def test_plays_follow_the_foreground(mp3, client, recorder, in_front):
    mp3.encode("fg.mp3", sound.tone(1000, 2), RATE, "-b", "128")
    before = in_front("before")
    time.sleep(1.2)  # the server's once-a-second look sees it
    assert client.send(LOOP, "fg.mp3")
    time.sleep(1.5)
    behind = recorder.now()
    assert client.ask("front") == "1"
    came_front = recorder.now()
    assert recorder.wait_for_tone(1000, came_front), "not heard with its client in front"
    heard = recorder.now()
    time.sleep(0.5)
    after = in_front("after")
    went_back = recorder.now()
    time.sleep(2.5)
    end = recorder.now()
    after.kill()
    before.kill()
    assert client.send(STOP, "fg.mp3")
    rec = recorder.stop()
    assert not np.any(rec[:behind]), "heard while its client was not in front"
    assert heard - came_front <= RATE * 3 // 2, "the one-second look, a buffer, the way out"
    assert not np.any(rec[went_back + RATE * 3 // 2 : end]), "heard behind another window"


def test_stop_others_stop_client_and_the_sweep_end_mp3_plays_as_wav_ones(mp3, server, client, recorder, folder,
                                                                         exe):
    sound.write_wav(folder / "a.wav", sound.tone(440, 1, 6000))
    for name, frequency in (("b.mp3", 1000), ("c.mp3", 2500), ("d.mp3", 1700), ("e.mp3", 3100)):
        mp3.encode(name, sound.tone(frequency, 1, 6000), RATE, "-b", "128")
    stopper, swept = Client(exe("console_client"), folder), Client(exe("console_client"), folder)
    try:
        assert stopper.window() != "0x00000000" and swept.window() != "0x00000000"
        assert client.send(LOOP | IGNORE_FOREGROUND, "a.wav", "b.mp3", "c.mp3")
        assert stopper.send(LOOP | IGNORE_FOREGROUND, "d.mp3")
        assert swept.send(LOOP | IGNORE_FOREGROUND, "e.mp3")
        for frequency in (440, 1000, 2500, 1700, 3100):
            assert recorder.wait_for_tone(frequency), frequency
        time.sleep(0.5)
        everything = recorder.now()
        # All but the WAV: both MP3s of this client stop; the other clients' plays go on.
        assert client.send(STOP | STOP_OTHERS, "a.wav")
        others_stopped = recorder.now()
        time.sleep(1.2)
        assert stopper.send(STOP_CLIENT)
        client_stopped = recorder.now()
        time.sleep(1.2)
        assert swept.ask("destroy") == "1"
        destroyed = recorder.now()
        time.sleep(4.5)  # the sweep runs every 2 s; then the stopped sound drains
        end = recorder.now()
        assert client.send(STOP_CLIENT)
        rec = recorder.stop(0.8)
    finally:
        stopper.quit()
        swept.quit()

    settle = RATE // 2

    def sounds(start, stop, frequency):
        # Loud in at least half of the 100 ms windows (the sound server may drop out for a
        # moment). A looped one-second MP3 restarts its tone's phase at each pass, which lowers
        # the window holding the seam: MP3 tones count as loud from 2500 of their 6000.
        threshold = 4000 if frequency == 440 else 2500
        levels = [sound.level(rec, frequency, at, at + 4410) for at in range(start, stop - 4410 + 1, 4410)]
        return np.mean([level > threshold for level in levels]) >= 0.5

    for frequency in (440, 1000, 2500, 1700, 3100):
        assert sounds(everything - RATE // 2, everything, frequency), f"{frequency} Hz before the stops"
    assert sounds(others_stopped + settle, client_stopped, 440), "the named WAV stopped with the others"
    assert sound.level(rec, 1000, others_stopped + settle, client_stopped) < 300, "b.mp3 outlived stop-others"
    assert sound.level(rec, 2500, others_stopped + settle, client_stopped) < 300, "c.mp3 outlived stop-others"
    assert sounds(others_stopped + settle, client_stopped, 1700), "another client's play stopped"
    assert sound.level(rec, 1700, client_stopped + settle, destroyed) < 300, "d.mp3 outlived stop-client"
    assert sounds(client_stopped + settle, destroyed, 3100), "the swept client's play stopped early"
    assert sounds(client_stopped + settle, destroyed, 440), "stop-client reached another client"
    assert sound.level(rec, 3100, end - RATE, end) < 300, "e.mp3 outlived its client window"
    assert sounds(end - RATE, end, 440), "the sweep reached another client"
    assert server.process.running()


def test_a_refused_frame_ends_the_pass_and_a_loop_starts_over_at_the_first_frame(mp3, server, client, recorder,
                                                                                 folder):
    # 104-byte frames: the refused frame below claims more bytes than the eight frames left.
    mp3.encode("whole.mp3", smooth_noise(1601, RATE, 2, 2), RATE, "-t", "-b", "32", "--resample", "44.1")
    data = bytearray((folder / "whole.mp3").read_bytes())
    frames = layer3_frames(data)
    assert len(frames) >= 30 and frames[-1][0] + frames[-1][1] == len(data)
    bad = len(frames) - 8
    # A valid header to the scanner, which sizes it at its own rate (MPEG-1 Layer II, 384 kbit/s,
    # 32 kHz: 1728 bytes, so it hands it out and looks no further). The decoder sizes every frame
    # at the stream's 44.1 kHz, 1253 bytes, more than the file still holds: refused.
    data[frames[bad][0] + 1], data[frames[bad][0] + 2] = 0xFD, 0xE8
    (folder / "cut.mp3").write_bytes(bytes(data))
    (folder / "cutloop.mp3").write_bytes(bytes(data))
    whole, cut = mp3.decode("whole.mp3"), mp3.decode("cut.mp3")
    assert len(whole) == FRAME * len(frames)
    assert len(cut) == FRAME * bad, "quorbel-decode does not stop at the refused frame"
    assert np.array_equal(cut, whole[: len(cut)])
    # The end that the refused frame cuts off, past the next frame (which the decoder would
    # start from another reservoir, were it reached).
    cut_off = audible(whole[FRAME * (bad + 1) :])
    assert len(cut_off) > FRAME * 4
    later_pass = cut[FRAME:]  # a new stream may lose its first milliseconds: from its second frame

    assert client.send(IGNORE_FOREGROUND, "cut.mp3")
    time.sleep(2)
    loop_start = recorder.now()
    assert client.send(LOOP | IGNORE_FOREGROUND, "cutloop.mp3")
    time.sleep(2.5)
    assert client.send(STOP, "cutloop.mp3")
    stopped = recorder.now()
    rec = recorder.stop(0.8)

    heard = sound.match(rec, later_pass)
    assert heard.whole(), f"the frames before the refused one: {heard}"
    assert heard.start < loop_start
    assert sound.find(rec, cut_off[:512]) is None, "frames after the refused one were heard"
    found, seamless = passes(rec, later_pass, len(cut), loop_start)
    assert found >= 3, "the loop did not start over after the refused frame"
    assert seamless >= found - 2
    assert not np.any(rec[stopped + RATE // 2 :]), "the loop of the cut file sounded after its stop"
    assert server.log() == [], "a refused frame in a pass is no refusal of the file"


def test_refused_files_are_logged_and_serving_goes_on(mp3, server, client, recorder, folder):
    mp3.encode("good.mp3", smooth_noise(1701, RATE, 2, 2), RATE, "-t", "-b", "128")
    good = (folder / "good.mp3").read_bytes()
    frames = layer3_frames(good)
    assert len(frames) >= 10
    # Three Layer II frames (MPEG-1, 128 kbit/s, 44.1 kHz, stereo: 417 bytes): the scanner takes
    # them, the decoder plays Layer III only.
    (folder / "layer2.mp3").write_bytes((b"\xFF\xFD\x80\x00" + b"\x11" * 413) * 3)
    # A VBR header that says it holds neither a frame count nor a byte count.
    mp3.encode("vbr.mp3", smooth_noise(1702, RATE // 2, 2, 2), RATE, "-V", "4")
    vbr = bytearray((folder / "vbr.mp3").read_bytes())
    xing = vbr.find(b"Xing")
    assert xing == 4 + 32, "lame wrote no Xing header after the side information"
    vbr[xing + 4 : xing + 8] = b"\0\0\0\0"
    (folder / "xing0.mp3").write_bytes(bytes(vbr))
    # An ID3v2.2 tag (size 0) in front of good frames.
    (folder / "id3v22.mp3").write_bytes(b"ID3\x02\x00\x00\x00\x00\x00\x00" + good)
    # One frame: no successor confirms it, so the scanner finds no first frame at all.
    (folder / "oneframe.mp3").write_bytes(good[frames[1][0] : frames[1][0] + frames[1][1]])
    (folder / "empty.mp3").write_bytes(b"")

    refusals = [
        ("layer2.mp3", [], "decoder start failed"),
        ("xing0.mp3", [], "decoder start failed"),
        ("id3v22.mp3", ["[CMP3File::InitFileInfo]file(id3v22.mp3),find invalid TagID3V2 header!"], "open failed"),
        ("oneframe.mp3", ["[CMP3File::FindFirstFrameHeader]file(oneframe.mp3),not valid frame header!",
                          "[CMP3File::InitFileInfo]file(oneframe.mp3),not valid frame header!"], "open failed"),
        ("empty.mp3", ["[player/pub/FileMapObj:*]create file mapping failed(0x000003EE)"], "open failed"),
    ]
    lines = 0
    for name, reasons, said in refusals:
        assert client.send_as(0, IGNORE_FOREGROUND, name)
        player = f"[player/mp3/MP3FilePlayer:*]file({name}),{said}"
        assert wait_until(lambda: player in server.log(), 10), server.log()
        # Each request is answered before the next is sent: its lines are the last ones.
        expected = reasons + [player]
        lines += len(expected)
        assert server.log()[lines - len(expected) :] == expected
        assert len(server.log()) == lines, server.log()

    # Still serving: a good MP3 after them all.
    heard_from = recorder.now()
    assert client.send_as(0, IGNORE_FOREGROUND, "good.mp3")
    time.sleep(2)
    heard = sound.match(recorder.stop(), mp3.decode("good.mp3")[FRAME:], heard_from)
    assert heard.whole(), f"the server stopped serving: {heard}"
    assert server.process.running()
    assert len(server.log()) == lines


def test_eight_plays_from_four_clients_mix_and_each_stop_of_a_client_ends_its_own(mp3, client, recorder, folder,
                                                                                 exe):
    tones = [300, 500, 700, 1100, 1300, 1700, 1900, 2300]
    for i, frequency in enumerate(tones):
        mp3.encode(f"t{i}.mp3", sound.tone(frequency, 2, 3000), RATE, "-b", "128")
    clients = [Client(exe("console_client"), folder) for _ in range(4)]
    try:
        for c in clients:
            assert c.window() != "0x00000000"
        for n, c in enumerate(clients):
            assert c.send(LOOP | IGNORE_FOREGROUND, f"t{2 * n}.mp3", f"t{2 * n + 1}.mp3")
        for frequency in tones:
            assert recorder.wait_for_tone(frequency), f"{frequency} Hz never heard"
        span_from = recorder.now()
        time.sleep(3)
        span_to = recorder.now()
        stopped = []
        for c in clients:
            assert c.send(STOP_CLIENT)
            stopped.append(recorder.now())
            time.sleep(1.2)
        rec = recorder.stop(0.8)
    finally:
        for c in clients:
            c.quit()
    # Mixed: every tone at its own level (3000 each; the sum never clips).
    for frequency in tones:
        assert 2400 < median_level(rec, frequency, span_from, span_to) < 3600, f"{frequency} Hz in the mix"
    # Each stop of a client ends that client's two plays and no other.
    settle = RATE // 2
    for n in range(4):
        end = stopped[n + 1] if n + 1 < 4 else len(rec)
        for i, frequency in enumerate(tones):
            level = median_level(rec, frequency, stopped[n] + settle, end)
            if i < 2 * (n + 1):
                assert level < 300, f"{frequency} Hz after client {n} stopped"
            else:
                assert level > 2400, f"{frequency} Hz after client {n} stopped"
    assert not np.any(rec[stopped[3] + settle :]), "the last client's plays sounded after its stop"
