"""Sound material and recordings for the system tests: seeded noise and tones, WAV files, and
finding material in what the session's sound server recorded.

The recording is 16-bit stereo at 44.1 kHz. Material of that format arrives bit for bit, except
that the sound server may lose a few milliseconds at a stream's start and, on a busy machine,
insert a short run of zeros in the middle of it. So material is compared in blocks found in
order: each block must follow the one before it directly, or after a run of zeros; a block found
early, or after anything but zeros, is not the material.
"""

import struct

import numpy as np

RATE = 44100
BLOCK_FRAMES = 441  # 10 ms


def noise(seed, frames, channels=2, amplitude=8000):
    """Seeded noise: no stretch of it repeats, so finding it in a recording is no accident."""
    rng = np.random.default_rng(seed)
    return rng.integers(-amplitude, amplitude + 1, size=(frames, channels), dtype=np.int16)


def tone(frequency, seconds, amplitude=8000, channels=2):
    """A sine on every channel."""
    t = np.arange(int(seconds * RATE)) / RATE
    wave = np.round(amplitude * np.sin(2 * np.pi * frequency * t)).astype(np.int16)
    return np.repeat(wave[:, None], channels, axis=1)


def chunk(fourcc, body):
    return fourcc + struct.pack("<I", len(body)) + body


def fmt_chunk(channels=2, rate=RATE, bits=16, audio_format=1):
    align = channels * bits // 8
    return chunk(b"fmt ", struct.pack("<HHIIHH", audio_format, channels, rate, rate * align, align, bits))


def riff(*chunks):
    body = b"WAVE" + b"".join(chunks)
    return b"RIFF" + struct.pack("<I", len(body)) + body


def wav_bytes(samples, rate=RATE, bits=16):
    """A WAV file of the samples (frames x channels; int16, or uint8 for 8-bit)."""
    pcm = np.ascontiguousarray(samples).tobytes()
    if len(pcm) % 2:
        pcm += b"\0"  # the pad byte of an odd chunk
    return riff(fmt_chunk(samples.shape[1], rate, bits), chunk(b"data", pcm))


def write_wav(path, samples, rate=RATE):
    path.write_bytes(wav_bytes(samples, rate))
    return path.name


def read_raw(path):
    """A raw recording as frames x 2."""
    data = np.fromfile(path, dtype="<i2")
    return data[: len(data) // 2 * 2].reshape(-1, 2)


def _keys(frames):
    """One 32-bit value per stereo frame, so that frames compare as numbers."""
    f = np.ascontiguousarray(frames.astype(np.int16))
    return f.view(np.uint32).reshape(-1)


def find(recording, material, start=0):
    """The recording frame at which the material's block of frames begins, searched from start;
    None when it is not there."""
    rec = _keys(recording)
    needle = _keys(material)
    if len(needle) == 0 or len(rec) < len(needle):
        return None
    candidates = np.flatnonzero(rec[start : len(rec) - len(needle) + 1] == needle[0]) + start
    for at in candidates:
        if np.array_equal(rec[at : at + len(needle)], needle):
            return int(at)
    return None


class Match:
    """How material was found in a recording: where each of its blocks lies (None: not found in
    order), and how many blocks came early (the stream skipped material)."""

    def __init__(self, places, early):
        self.places = places
        self.early = early

    @property
    def found(self):
        return sum(p is not None for p in self.places)

    @property
    def fraction(self):
        return self.found / len(self.places) if self.places else 0.0

    @property
    def start(self):
        """Where the material's first frame lies, from the first block found."""
        for i, p in enumerate(self.places):
            if p is not None:
                return p - i * BLOCK_FRAMES
        return None

    @property
    def end(self):
        """One past the material's last frame, from the last block found."""
        last = len(self.places) - 1
        for i in range(last, -1, -1):
            if self.places[i] is not None:
                return self.places[i] + (last - i + 1) * BLOCK_FRAMES
        return None

    def whole(self, share=0.95):
        """Nearly every block in order and none early: the material was played."""
        return self.early == 0 and self.fraction >= share

    def __repr__(self):
        return (f"Match({self.found} of {len(self.places)} blocks in order, {self.early} early, "
                f"start {self.start}, end {self.end})")


def match(recording, material, start=0):
    """Finds the material's blocks in order, from frame start on. The first block found anchors
    it; each later block must lie where the one before it ends, or later by no more frames than
    the zeros in between (silence the sound server inserted). A block that lies earlier than that
    counts as early; one that lies later with sound in between is not counted."""
    count = len(material) // BLOCK_FRAMES
    places = [None] * count
    early = 0
    rec = _keys(recording)
    last_end = None  # where the last block found ends
    expected = None  # where the next block should begin
    for i in range(count):
        block = material[i * BLOCK_FRAMES : (i + 1) * BLOCK_FRAMES]
        at = find(recording, block, start if last_end is None else last_end)
        if at is not None and expected is not None:
            if at < expected:
                early += 1
                at = None
            elif at > expected and np.count_nonzero(rec[last_end:at] == 0) < at - expected:
                at = None
        if at is not None:
            places[i] = at
            last_end = at + BLOCK_FRAMES
            expected = last_end
        elif expected is not None:
            expected += BLOCK_FRAMES
    return Match(places, early)


def level(recording, frequency, start, end, channel=0):
    """The amplitude of one frequency in frames [start, end) of a channel."""
    x = recording[start:end, channel].astype(np.float64)
    if len(x) == 0:
        return 0.0
    t = np.arange(len(x)) / RATE
    return float(np.abs(np.dot(x, np.exp(-2j * np.pi * frequency * t))) * 2 / len(x))


def sound_runs(recording, gap_frames):
    """Stretches [start, end) of frames with sound, split where gap_frames of silence lie."""
    loud = np.flatnonzero(np.any(recording != 0, axis=1))
    if len(loud) == 0:
        return []
    breaks = np.flatnonzero(np.diff(loud) > gap_frames)
    starts = np.concatenate(([loud[0]], loud[breaks + 1]))
    ends = np.concatenate((loud[breaks] + 1, [loud[-1] + 1]))
    return list(zip(starts.tolist(), ends.tolist()))
