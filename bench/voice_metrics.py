"""What a noise suppressor does to speech and to pauses, in figures. Signals are arrays of samples of the same length,
the output already shifted by the system's delay."""

import functools

import numpy as np
from scipy.signal import resample_poly

STOI_RATE = 10000
STOI_FRAME = 256
STOI_BANDS = 15
STOI_SEGMENT = 30       # frames, 384 ms
STOI_CLIP = 1 + 10 ** (15 / 20)
PAUSE_BEGINS = 0.4      # seconds after a word: hangover and comfort noise have settled
PAUSE_ENDS = 0.03       # seconds before the next word
PIECE = 0.1             # seconds over which a level in a pause is taken
ONSET = 0.05            # seconds: the beginning of an utterance
WEAK_DB = (-35, -15)    # weak frames of speech, relative to the level of the active speech


def decibels(power):
    return 10 * np.log10(np.maximum(power, 1e-12))


# ---- Short-time objective intelligibility (Taal, Hendriks, Heusdens, Jensen, IEEE Trans. ASLP 19(7), 2011)

@functools.cache
def third_octaves():
    frequencies = np.arange(STOI_FRAME + 1) * STOI_RATE / (2 * STOI_FRAME)
    bands = np.zeros((STOI_FRAME + 1, STOI_BANDS))
    for band in range(STOI_BANDS):
        centre = 150 * 2 ** (band / 3)
        low, high = (np.argmin(np.abs(frequencies - centre * 2 ** (side / 6))) for side in (-1, 1))
        bands[low:high, band] = 1
    return bands


def frames_of(samples, size):
    return np.lib.stride_tricks.sliding_window_view(samples, size)[::size // 2]


def overlapped(frames):
    half = frames.shape[1] // 2
    joined = np.zeros((len(frames) + 1) * half)
    joined[:len(frames) * half] += frames[:, :half].ravel()
    joined[half:] += frames[:, half:].ravel()
    return joined


def stoi(clean, heard, rate):
    """0 to 1; frames more than 40 dB below the loudest clean one do not count."""
    window = np.hanning(STOI_FRAME + 2)[1:-1]
    factor = np.gcd(rate, STOI_RATE)
    pair = [frames_of(resample_poly(signal, STOI_RATE // factor, rate // factor), STOI_FRAME) * window
            for signal in (clean, heard)]
    level = decibels((pair[0] ** 2).sum(1))
    spoken = level > level.max() - 40
    bands = []
    for frames in pair:
        spectrum = np.fft.rfft(frames_of(overlapped(frames[spoken]), STOI_FRAME) * window, 2 * STOI_FRAME)
        bands.append(np.sqrt(np.abs(spectrum) ** 2 @ third_octaves()))
    x, y = (np.lib.stride_tricks.sliding_window_view(each, STOI_SEGMENT, 0) for each in bands)
    scale = np.linalg.norm(x, axis=2, keepdims=True) / (np.linalg.norm(y, axis=2, keepdims=True) + 1e-12)
    y = np.minimum(y * scale, x * STOI_CLIP)
    x, y = (each - each.mean(2, keepdims=True) for each in (x, y))
    return float(np.mean((x * y).sum(2) / (np.linalg.norm(x, axis=2) * np.linalg.norm(y, axis=2) + 1e-12)))


# ---- Levels

def share(clean, heard):
    """How much of the clean speech is in what was heard, as an amplitude: noise beside it does not count."""
    return (clean * heard).sum() / ((clean ** 2).sum() + 1e-9)


def amplitude_db(value):
    return 20 * np.log10(max(value, 1e-3))


def pauses(talker, rate):
    ends = [first for first, _ in talker.utterances[1:]] + [len(talker.clean)]
    for (_, behind), following in zip(talker.utterances, ends):
        first, last = behind + int(PAUSE_BEGINS * rate), following - int(PAUSE_ENDS * rate)
        if last - first >= PIECE * rate:
            yield slice(first, last)


def pause_figures(talker, noisy, heard, rate):
    """Reduction in the pauses, and how it swings: the standard deviation and the width of the middle nine tenths of
    the gain in pieces of 100 ms."""
    size = int(PIECE * rate)
    before, after, gains = 0, 0, []
    for pause in pauses(talker, rate):
        pieces = [signal[pause][:(pause.stop - pause.start) // size * size].reshape(-1, size) ** 2
                  for signal in (noisy, heard)]
        before, after = before + pieces[0].sum(), after + pieces[1].sum()
        gains += list(decibels(pieces[1].mean(1) + 0.1) - decibels(pieces[0].mean(1) + 0.1))
    low, high = np.percentile(gains, (5, 95))
    return {"pause_db": decibels(after) - decibels(before), "pause_sd": np.std(gains), "pause_swing": high - low}


def speech_figures(talker, heard, rate, active_rms):
    """Onsets (mean and worst), weak and strong frames: level of the clean speech that is left."""
    size = rate // 50
    count = len(talker.clean) // size
    clean, out = (signal[:count * size].reshape(count, size) for signal in (talker.clean, heard))
    level = decibels((clean ** 2).mean(1)) - decibels(active_rms ** 2)
    weak = (level > WEAK_DB[0]) & (level < WEAK_DB[1])
    strong = level >= WEAK_DB[1]
    onset = [slice(first, first + int(ONSET * rate)) for first, _ in talker.utterances]
    onsets = [share(talker.clean[each], heard[each]) for each in onset]
    return {"onset_db": amplitude_db(np.mean(onsets)), "onset_worst": amplitude_db(min(onsets)),
            "weak_db": amplitude_db(share(clean[weak], out[weak])),
            "speech_db": amplitude_db(share(clean[strong], out[strong]))}


def delay_of(played, heard, rate, longest=0.1):
    """Samples by which `heard` lies behind, by correlation."""
    reach = int(longest * rate)
    size = 1 << int(np.ceil(np.log2(len(played) + reach)))
    product = np.fft.irfft(np.fft.rfft(heard, size) * np.conj(np.fft.rfft(played, size)), size)
    return int(np.argmax(product[:reach]))


def advanced(heard, delay):
    return np.concatenate([heard[delay:], np.zeros(delay)])
