"""Sound material (seeded noise and tones, WAV and MP3 files), and finding it in what the session's
sound server recorded. Material of 16-bit stereo at 44.1 kHz arrives bit for bit but for a few
milliseconds lost at a stream's start and, on a busy machine, a run of zeros inserted in the middle."""

import struct
import subprocess

import numpy as np

RATE = 44100
BLOCK_FRAMES = 441  # 10 ms


def noise(seed, frames, channels=2, amplitude=8000):
    """Seeded noise: no stretch of it repeats, so finding it in a recording is no accident."""
    return np.random.default_rng(seed).integers(-amplitude, amplitude + 1, size=(frames, channels), dtype=np.int16)


def tone(frequency, seconds, amplitude=8000, channels=2, rate=RATE):
    t = np.arange(int(seconds * rate)) / rate
    wave = np.round(amplitude * np.sin(2 * np.pi * frequency * t)).astype(np.int16)
    return np.repeat(wave[:, None], channels, axis=1)


def chunk(fourcc, body):
    return fourcc + struct.pack("<I", len(body)) + body


def fmt_chunk(channels=2, rate=RATE):
    return chunk(b"fmt ", struct.pack("<HHIIHH", 1, channels, rate, rate * channels * 2, channels * 2, 16))


def riff(*chunks):
    return chunk(b"RIFF", b"WAVE" + b"".join(chunks))


def write_wav(path, samples, rate=RATE):
    """A 16-bit WAV file of the samples (frames x channels); its name."""
    path.write_bytes(riff(fmt_chunk(samples.shape[1], rate), chunk(b"data", np.ascontiguousarray(samples).tobytes())))
    return path.name


def write_mp3(path, samples, rate=RATE, *options):
    write_wav(path.with_suffix(".in.wav"), samples, rate)
    subprocess.run(["lame", "--quiet", *options, path.with_suffix(".in.wav"), path], check=True, timeout=60)


class Match:
    """Where each block of the material lies (None: not found in order), how many came early (the
    stream skipped material), and where the material ends."""

    def __init__(self, places, early, end):
        self.places, self.early, self.end = places, early, end
        self.found = sum(p is not None for p in places)

    def whole(self, share=0.95):
        return self.early == 0 and self.found >= share * len(self.places)

    def __repr__(self):
        return f"Match({self.found} of {len(self.places)} blocks in order, {self.early} early, end {self.end})"


def match(recording, material, start=0):
    """Finds the material's blocks in order, from frame start on. Each block after the first found
    must lie where the one before it ends, or later by no more frames than the zeros in between; one
    that lies earlier counts as early, one that lies later with sound in between is not counted."""
    keys = lambda frames: np.ascontiguousarray(frames).view(np.uint32).reshape(-1)  # one value a stereo frame
    rec, places, early = keys(recording), [], 0
    last_end = expected = None  # where the last block found ends; where the next should begin
    for i in range(len(material) // BLOCK_FRAMES):
        block, begin = keys(material[i * BLOCK_FRAMES : (i + 1) * BLOCK_FRAMES]), last_end or start
        at = next((int(at) for at in np.flatnonzero(rec[begin : len(rec) - BLOCK_FRAMES + 1] == block[0]) + begin
                   if np.array_equal(rec[at : at + BLOCK_FRAMES], block)), None)
        if at is not None and expected is not None and at != expected:
            early += at < expected
            if at < expected or np.count_nonzero(rec[last_end:at] == 0) < at - expected:
                at = None
        places.append(at)
        if at is not None:
            last_end = expected = at + BLOCK_FRAMES
        elif expected is not None:
            expected += BLOCK_FRAMES
    return Match(places, early, expected)


def level(recording, frequency, start, end):
    """The amplitude of one frequency in frames [start, end) of the left channel."""
    x = recording[start:end, 0].astype(np.float64)
    t = np.arange(len(x)) / RATE
    return float(np.abs(np.dot(x, np.exp(-2j * np.pi * frequency * t))) * 2 / len(x)) if len(x) else 0.0


def tone_seconds(recording, frequency, start, end, threshold=2000):
    """How long the tone is heard in frames [start, end), in 50 ms windows."""
    w = RATE // 20
    return w / RATE * sum(level(recording, frequency, at, at + w) > threshold for at in range(start, end - w + 1, w))
