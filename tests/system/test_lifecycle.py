"""The server's life: one instance that forwards what a second start is given, quorbel-play, its end by WM_CLOSE or
by the sweep, and quorbel-decode's standard output; what it refuses, with its log lines, and the blocks it survives."""

import re
import time

import sound
from conftest import IGNORE_FOREGROUND, LOOP, RATE, REPO, run_windows, wait_until


def test_one_instance_forwards_to_itself_quorbel_play_sends_to_it_and_a_close_or_the_sweep_ends_it(
        server, client, recorder, tmp_path, exe):
    # A folder whose Windows path (Z: and the host path) is about 200 bytes: the long name fits as given but not as a
    # full path (past 260 bytes). The same name lies where the server would look.
    play, out, far = exe("quorbel-play"), tmp_path / "play.out", tmp_path
    while len(str(far)) + 2 < 200:
        far = far / ("d" * min(40, 200 - len(str(far)) - 3))
    far.mkdir(parents=True)
    chime, name = sound.noise(61, RATE), "a-name-long-enough-to-carry-the-full-path-past-the-limit.wav"
    for path, samples in ((far / "chime.wav", chime), (far / "tone.wav", sound.tone(1500, 1)),
                          (far / name, sound.noise(63, RATE)), (tmp_path / name, sound.noise(64, RATE)),
                          (tmp_path / "kept.wav", sound.tone(1000, 1)), (tmp_path / "held.wav", sound.tone(2500, 1))):
        sound.write_wav(path, samples)
    server.start()
    assert run_windows(exe("quorbel"), cwd=tmp_path) == 0 and server.process.running() and client.server_window()
    # Forwarded names play from the sender's folder, with none of its windows in front; one too long in full does not.
    assert run_windows(exe("quorbel"), ["chime.wav"], cwd=far) == 0
    time.sleep(2)
    long_from = recorder.now()
    assert run_windows(exe("quorbel"), [name], cwd=far) == 0
    time.sleep(2)
    assert not recorder.samples()[long_from:].any(), "a name too long to forward was played"

    # quorbel-play: a play and a stop from its folder name the same file, found by the server there.
    assert run_windows(play, ["-l", "-i", "tone.wav"], far, out) == 0
    assert recorder.wait_for_tone(1500)
    assert run_windows(play, ["-s", "tone.wav"], far, out) == 0
    stopped = recorder.now()
    time.sleep(1)
    assert not recorder.samples()[stopped + RATE // 2 :].any(), "the stop by the same name did not stop it"
    # --as-given: the server resolves the name in its own folder, where there is no such file.
    assert run_windows(play, ["--as-given", "-i", "tone.wav"], far, out) == 0
    assert server.wait_for_log(2) == ["[player/pub/FileMapObj:*]create file(tone.wav) failed(0x00000002)",
                                      "[player/wav/WavFilePlayer:*]file(tone.wav),open failed"]
    assert run_windows(play, ["-i", name], far, out) == 2 and "too long as a full path" in out.read_text()
    assert run_windows(play, ["--as-given", "-i", name], far, out) == 0

    # Forwarded plays and those of client 0 belong to no window: no sweep ends them. A close ends every play.
    assert client.send(LOOP | IGNORE_FOREGROUND, "kept.wav")
    time.sleep(2.5)
    assert recorder.wait_for_tone(1000) and server.process.running()
    closed = recorder.now()
    assert client.ask("close") == "1" and server.process.wait(15) == 0
    time.sleep(1)
    rec = recorder.samples()
    heard = sound.match(rec, chime)
    assert heard.whole(), heard
    assert not rec[closed + RATE :].any(), "sound after the close"
    assert len(server.log()) == 2, server.log()

    # quorbel-play with no server: wrong usage and no server are told apart by the exit status, with a message.
    assert run_windows(play, ["--help"], tmp_path, out) == 0 and "Usage: quorbel-play" in out.read_text()
    version = re.search(r"project\(Quorbel VERSION (\S+)", (REPO / "CMakeLists.txt").read_text())[1]
    assert run_windows(play, ["--version"], tmp_path, out) == 0 and out.read_text() == f"quorbel-play {version}\n"
    for wrong in (["--bogus", "x.wav"], ["--stop", "--loop", "x.wav"], ["--stop-client", "x.wav"], ["--loop"]):
        assert run_windows(play, wrong, tmp_path, out) == 2, wrong
    assert run_windows(play, ["x.wav"], tmp_path, out) == 1 and "no Quorbel server is running" in out.read_text()
    # --start brings a server up; --hold keeps a window of its own as the client for 3 s.
    assert run_windows(play, ["--start", "--hold", "3", "-l", "-i", "held.wav"], tmp_path, out, 60) == 0
    assert out.read_text().startswith("client 0x"), out.read_text()
    released = recorder.now()
    # Its window gone, the sweep (every 2 s) stops the loop and, the last client gone, ends the server.
    assert wait_until(lambda: not client.server_window(), 15, 0.2), "the server did not end with its client"
    rec = recorder.stop(0.5)
    assert sound.level(rec, 2500, released - RATE, released) > 4000, "not heard while held"
    assert not rec[released + 3 * RATE :].any(), "the loop outlived its client window"


def test_quorbel_decode_writes_the_same_bytes_to_standard_output_as_to_a_file(tmp_path, exe):
    decode = exe("quorbel-decode")
    sound.write_mp3(tmp_path / "noise.mp3", sound.noise(81, RATE))  # its PCM holds 0x0A bytes
    assert run_windows(decode, ["noise.mp3", "-"], tmp_path, tmp_path / "piped.wav") == 0
    assert run_windows(decode, ["noise.mp3", "file.wav"], tmp_path) == 0
    assert (tmp_path / "piped.wav").read_bytes() == (tmp_path / "file.wav").read_bytes()


def test_refused_files_and_hostile_blocks_are_logged_exactly_and_serving_goes_on(server, client, record, tmp_path):
    # A folder in the log's place (as root, permissions stop no write): the first refusals' entries go, not the plays.
    (tmp_path / "quorbel.log").mkdir()
    server.start()
    assert client.send(IGNORE_FOREGROUND, "missing.wav")
    server.serves(record, 71)
    (tmp_path / "quorbel.log").rmdir()

    # Each refused play logs its reason, then its player's line: a format the device refuses, each MP3 refusal.
    (tmp_path / "nochannels.wav").write_bytes(sound.riff(sound.fmt_chunk(0), sound.chunk(b"data", bytes(400))))
    # Three Layer II frames (MPEG-1, 128 kbit/s, 44.1 kHz: 417 bytes): the scanner takes them, the
    # decoder plays Layer III only. One Layer III frame alone: no successor confirms it.
    (tmp_path / "layer2.mp3").write_bytes((b"\xFF\xFD\x80\x00" + b"\x11" * 413) * 3)
    (tmp_path / "oneframe.mp3").write_bytes(b"\xFF\xFB\x90\x00" + bytes(413))
    wav, mp3 = "[player/wav/WavFilePlayer:*]file({}),", "[player/mp3/MP3FilePlayer:*]file({}),"
    refusals = {
        "missing.wav": ["[player/pub/FileMapObj:*]create file(missing.wav) failed(0x00000002)", wav + "open failed"],
        "nochannels.wav": ["[player/pub/WavOut:*]invalid format(0,44100,16)", wav + "waveout init failed"],
        "layer2.mp3": [mp3 + "decoder start failed"],
        "oneframe.mp3": ["[CMP3File::FindFirstFrameHeader]file(oneframe.mp3),not valid frame header!",
                         "[CMP3File::InitFileInfo]file(oneframe.mp3),not valid frame header!", mp3 + "open failed"],
    }
    for name, lines in refusals.items():  # one at a time, so that each one's lines come in order
        logged = len(server.log())
        assert client.send(IGNORE_FOREGROUND, name)
        assert server.wait_for_log(logged + len(lines))[logged:] == [line.format(name) for line in lines]

    # Blocks no client library makes: a whole name is tried (it does not exist), the cut one is not; nothing crashes.
    blocks = [
        ("data shorter than the count promises", 3, b"\0\0\0\0first.wav\0second.wav"),
        ("an empty block", 1, b""),
        ("a block shorter than a handle", 1, b"\x01\x02"),
        ("every flag and count bit set: a stop of the client", 0xFFFFFFFFFFFFFFFF, b"\0\0\0\0loud.wav\0"),
    ]
    logged = len(server.log())
    for what, dw_data, block in blocks:
        assert client.ask("raw", f"{dw_data:X}", block.hex()) == "1" and server.process.running(), what
    server.serves(record, 75)
    assert server.log()[logged:] == [
        "[player/pub/FileMapObj:*]create file(first.wav) failed(0x00000002)", wav.format("first.wav") + "open failed"]
