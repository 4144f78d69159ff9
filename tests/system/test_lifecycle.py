"""The server's life: one instance per desktop with forwarding, the end by the sweep or by
WM_CLOSE, refused files and hostile requests that it survives, and quorbel-play."""

import struct
import time

import numpy as np

import sound
from conftest import IGNORE_FOREGROUND, LOOP, run_windows, wait_until

RATE = sound.RATE



def wait_for_log(server, message, timeout=10):
    return wait_until(lambda: message in server.log(), timeout, 0.1)


def silent_after(rec, frame):
    return not np.any(rec[frame:])


def test_second_start_leaves_one_server_and_forwards_its_arguments(server, client, recorder, folder, exe):
    server.start()
    # Without arguments there is nothing to say: it ends at once.
    assert run_windows(exe("quorbel"), cwd=folder) == 0
    assert server.process.running() and client.server_window()

    # With arguments the running server plays them, audibly although no window of the sender is
    # in front, resolved from the sender's folder.
    chime = sound.noise(61, RATE)
    (folder / "elsewhere").mkdir()
    sound.write_wav(folder / "elsewhere" / "chime.wav", chime)
    assert run_windows(exe("quorbel"), ["chime.wav"], cwd=folder / "elsewhere") == 0
    time.sleep(2.5)
    heard = sound.match(recorder.stop(), chime)
    assert heard.whole(), heard
    # Its plays belong to no client window: no sweep closes the server for them.
    time.sleep(2.5)
    assert server.process.running()
    assert server.log() == []


def test_forwarded_name_whose_full_path_does_not_fit_is_left_out(server, client, recorder, folder, exe):
    server.start()
    # A working folder of about 200 bytes as Windows sees it (Z: and the host path), and a name
    # that takes its full path past 260 bytes.
    far = folder
    while len(str(far)) + 2 < 200:
        far = far / ("d" * min(40, 200 - len(str(far)) - 3))
    far.mkdir(parents=True)
    name = "forwarded-name-long-enough-to-carry-the-full-path-past-the-limit.wav"
    assert 2 + len(str(far)) + 1 + len(name) >= 260
    # The file the user meant, and another of the same name where the server would look.
    sound.write_wav(far / name, sound.noise(63, RATE))
    sound.write_wav(folder / name, sound.noise(64, RATE))
    assert run_windows(exe("quorbel"), [name], cwd=far) == 0
    time.sleep(2)
    assert not np.any(recorder.stop()), "something was played"
    assert server.log() == []
    assert server.process.running()


def test_destroyed_client_window_ends_its_plays_and_the_last_one_the_server(server, client, recorder, folder):
    server.start()
    assert client.window() != "0x00000000"
    sound.write_wav(folder / "tone.wav", sound.tone(440, 1))
    assert client.send(LOOP | IGNORE_FOREGROUND, "tone.wav")
    assert recorder.wait_for_tone(440)
    time.sleep(2.5)  # at least one sweep with the client alive
    assert server.process.running()

    assert client.ask("destroy") == "1"
    destroyed = recorder.now()
    assert server.process.wait(15) == 0, "the server did not end with its last client"
    ended = recorder.now()
    rec = recorder.stop(0.5)
    # The sweep runs every 2 s; the stopped sound drains; then the close.
    assert ended - destroyed <= 5 * RATE
    assert silent_after(rec, destroyed + 3 * RATE), "the tone went on after its client window was gone"
    assert server.log() == []


def test_close_from_outside_ends_the_server_with_its_plays(server, client, recorder, folder):
    server.start()
    sound.write_wav(folder / "tone.wav", sound.tone(1000, 1))
    assert client.send_as(0, LOOP | IGNORE_FOREGROUND, "tone.wav")  # client 0: never swept
    assert recorder.wait_for_tone(1000)
    closed = recorder.now()
    assert server.close() == 0
    rec = recorder.stop(1)
    assert silent_after(rec, closed + RATE)
    assert not client.server_window()
    assert server.log() == []


def le32(v):
    return struct.pack("<I", v)


def test_every_refused_wav_is_logged_twice_and_serving_goes_on(server, client, recorder, folder):
    server.start()
    pcm = sound.noise(71, 100).tobytes()
    data = sound.chunk(b"data", pcm)
    fmt = sound.fmt_chunk()
    files = {
        "empty.wav": b"",
        "short.wav": b"RIFF\x04\0\0\0WAV",
        "notriff.wav": b"RIFX" + sound.riff(fmt, data)[4:],
        "notwave.wav": sound.riff(fmt, data)[:8] + b"AVI " + sound.riff(fmt, data)[12:],
        "nofmt.wav": sound.riff(data),
        "cutfmt.wav": sound.riff(fmt)[: 12 + 8 + 10],
        "float.wav": sound.riff(sound.fmt_chunk(2, RATE, 32, 3), data),
        "extensible.wav": sound.riff(sound.fmt_chunk(2, RATE, 16, 0xFFFE), data),
        "nodata.wav": sound.riff(fmt),
        "nochannels.wav": sound.riff(sound.fmt_chunk(0, RATE, 16), data),
    }
    for name, body in files.items():
        (folder / name).write_bytes(body)
    (folder / "folder.wav").mkdir()

    open_failed = "[player/wav/WavFilePlayer:*]file({}),open failed"
    refusals = [
        ("missing.wav", "[player/pub/FileMapObj:*]create file(missing.wav) failed(0x00000002)", open_failed),
        ("folder.wav", "[player/pub/FileMapObj:*]create file(folder.wav) failed(0x00000005)", open_failed),
        ("empty.wav", "[player/pub/FileMapObj:*]create file mapping failed(0x000003EE)", open_failed),
        ("short.wav", "[CWavFile::InitFileInfo]file(short.wav),size too small", open_failed),
        ("notriff.wav", "[CWavFile::InitFileInfo]file(notriff.wav),RiffHeader id=0x58464952", open_failed),
        ("notwave.wav", "[CWavFile::InitFileInfo]file(notwave.wav),RiffHeader format=0x20495641", open_failed),
        ("nofmt.wav", "[CWavFile::InitFileInfo]file(nofmt.wav),no fmt info", open_failed),
        ("cutfmt.wav", "[CWavFile::InitFileInfo]file(cutfmt.wav),no fmt info", open_failed),
        ("float.wav", "[CWavFile::InitFileInfo]file(float.wav),AudioFormat=3", open_failed),
        ("extensible.wav", "[CWavFile::InitFileInfo]file(extensible.wav),AudioFormat=65534", open_failed),
        ("nodata.wav", "[CWavFile::InitFileInfo]file(nodata.wav),no data info", open_failed),
        ("nochannels.wav", "[player/pub/WavOut:*]invalid format(0,44100,16)",
         "[player/wav/WavFilePlayer:*]file({}),waveout init failed"),
    ]
    assert client.send_as(0, IGNORE_FOREGROUND, *[name for name, _, _ in refusals])
    for name, first, second in refusals:
        assert wait_for_log(server, second.format(name)), second.format(name)
    log = server.log()
    for name, first, second in refusals:
        assert log.count(first) == 1, first
        assert log.count(second.format(name)) == 1, second
    assert len(log) == 2 * len(refusals), log

    # Still serving.
    noise = sound.noise(72, RATE)
    sound.write_wav(folder / "good.wav", noise)
    assert client.send_as(0, IGNORE_FOREGROUND, "good.wav")
    time.sleep(2.5)
    heard = sound.match(recorder.stop(), noise)
    assert heard.whole(), heard
    assert server.process.running()


def test_hostile_requests_are_survived(server, client, recorder, folder):
    server.start()
    zero = le32(0)
    blocks = [
        ("data shorter than the count promises", 3, zero + b"first.wav\0second.wav"),
        ("count 255 and no names", 0xFF, zero),
        ("a 300-byte name before a good one", 2, zero + b"n" * 296 + b".wav\0after.wav\0"),
        ("an empty block", 1, b""),
        ("a block shorter than a handle", 1, b"\x01\x02"),
        ("every flag and count bit set", 0xFFFFFFFFFFFFFFFF, zero + b"loud.wav\0"),
    ]
    for what, dw_data, data in blocks:
        assert client.ask("raw", f"{dw_data:X}", data.hex()) == "1", what
        assert server.process.running(), what
    # The names that were whole were tried (they do not exist); nothing else was.
    assert wait_for_log(server, "[player/wav/WavFilePlayer:*]file(after.wav),open failed")
    assert wait_for_log(server, "[player/wav/WavFilePlayer:*]file(first.wav),open failed")
    time.sleep(0.5)
    log = server.log()
    text = "\n".join(log)
    assert "second" not in text and "nnnn" not in text, text
    assert "loud" not in text, f"a stop-client request played a name: {text}"
    assert len(log) == 4, text

    noise = sound.noise(81, RATE)
    sound.write_wav(folder / "good.wav", noise)
    assert client.send_as(0, IGNORE_FOREGROUND, "good.wav")
    time.sleep(2.5)
    heard = sound.match(recorder.stop(), noise)
    assert heard.whole(), heard


def test_quorbel_play_starts_a_server_plays_and_holds_its_window(client, recorder, folder, exe):
    play = exe("quorbel-play")
    out = folder / "play.out"
    # Wrong usage and no server are told apart by the exit status, with a message.
    assert run_windows(play, ["--help"], folder, out) == 0
    assert "Usage: quorbel-play" in out.read_text()
    for wrong in (["--bogus", "x.wav"], ["--stop", "--loop", "x.wav"], ["--stop-client", "x.wav"], ["--loop"]):
        assert run_windows(play, wrong, folder, out) == 2, wrong
    assert run_windows(play, ["x.wav"], folder, out) == 1
    assert "no Quorbel server is running" in out.read_text()
    assert not client.server_window()

    sound.write_wav(folder / "tone.wav", sound.tone(2500, 1))
    # --start brings a server up; --hold keeps a window of its own as the client for 3 s.
    try:
        assert run_windows(play, ["--start", "--hold", "3", "-l", "-i", "tone.wav"], folder, out, 60) == 0
        assert out.read_text().startswith("client 0x"), out.read_text()
        released = recorder.now()
        # Its window gone, the sweep stops the loop and, the last client gone, ends the server.
        assert wait_until(lambda: not client.server_window(), 15, 0.2)
        rec = recorder.stop(0.5)
        assert sound.level(rec, 2500, released - RATE, released) > 4000, "not heard while held"
        assert silent_after(rec, released + 3 * RATE)
    finally:
        if client.server_window():
            client.ask("close")
            wait_until(lambda: not client.server_window(), 15, 0.2)
