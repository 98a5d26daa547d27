#!/usr/bin/python3
"""Makes engine/analysis/WorldVoices.cpp: what voiced sounds of all voices look like, as centres found by k-means over the
envelopes of talker_material.WORLD: 64 of them, and 256 with more voices. The envelope is that of
engine/analysis/VoiceEnvelope.h."""

import argparse
import sys

import numpy as np
from scipy.cluster.vq import kmeans2

import talker_material

FRAME, HOP, BINS, BANDS, COEFFICIENTS = 256, 128, 128, 20, 14
COARSE, FINE = 64, 256
LOWEST, HIGHEST = 100.0, 3800.0     # Hz
FLOOR = 1e-3                        # of the strongest band
UNIT = 8                            # the table is in eighths of a deviation
FRAMES_PER_TALKER = 1000

MORE = [("en+Andy", "m", "en", "en+Andy"), ("en+Annie", "f", "en", "en+Annie"), ("de+anika", "f", "de", "de+anika"),
        ("de+steph", "f", "de", "de+steph"), ("es+Mario", "m", "es", "es+Mario"), ("es+linda", "f", "es", "es+linda"),
        ("pl+edward", "m", "pl", "pl+edward"), ("pl+Alicia", "f", "pl", "pl+Alicia"), ("fr+Hugo", "m", "fr", "fr+Hugo"),
        ("fr+belinda", "f", "fr", "fr+belinda"), ("en+m4", "m", "en", "en+m4"), ("en+m8", "m", "en", "en+m8"),
        ("de+f1", "f", "de", "de+f1")]

HEAD = """// Made by bench/voice_world.py from talkers that are not among those the engine is judged on: centres (k-means) of
// the envelopes of their voiced frames, in eighths of the deviation below.
#include "engine/analysis/WorldVoices.h"

// Root mean square distance of a coefficient from its nearest centre.
const std::array<float, kEnvelopeCoefficients> kEnvelopeDeviation{{{deviations}}};

// clang-format off
"""
TABLE = "const std::array<sPackedEnvelope, {count}> {name}{{{{ // {talkers} talkers"


def mel(frequency):
    return 2595 * np.log10(1 + frequency / 700)


def band_weights():
    edges = 700 * (10 ** (np.linspace(mel(LOWEST), mel(HIGHEST), BANDS + 2) / 2595) - 1)
    frequency = np.arange(BINS) * talker_material.RATE / FRAME
    rows = [np.clip(np.minimum((frequency - low) / (middle - low), (high - frequency) / (high - middle)), 0, None)
            for low, middle, high in zip(edges, edges[1:], edges[2:])]
    return np.array([row / row.sum() for row in rows])


def frames_of(samples, size):
    count = (len(samples) - 512) // HOP
    return np.lib.stride_tricks.sliding_window_view(samples, size)[::HOP][:count]


def voiced(samples):
    """Frames that repeat: the peak of the normalised autocorrelation of 64 ms below 1 kHz."""
    window = np.hanning(512)
    power = np.abs(np.fft.rfft(frames_of(samples, 512) * window, 1024)) ** 2
    power[:, :6], power[:, 128:] = 0, 0
    own = np.fft.irfft(np.abs(np.fft.rfft(window, 1024)) ** 2)
    repeating = np.fft.irfft(power)[:, 18:145] / (power.mean(1, keepdims=True) + 1e-9) / (own[18:145] / own[0])
    energy = (frames_of(samples, FRAME) ** 2).mean(1)
    return (repeating.max(1) > 0.55) & (energy > np.percentile(energy, 95) * 10 ** -2.5)


def envelopes(samples):
    window = 0.5 * (1 - np.cos(2 * np.pi * np.arange(FRAME) / (FRAME - 1)))
    power = np.abs(np.fft.rfft(frames_of(samples, FRAME) * window))[:, :BINS] ** 2
    bands = power @ band_weights().T
    bands = np.log(np.maximum(bands, FLOOR * bands.max(1, keepdims=True)) + 1)
    order = np.arange(1, COEFFICIENTS + 1)
    cosines = np.cos(np.pi * np.outer(order, np.arange(BANDS) + 0.5) / BANDS) * np.sqrt(2 / BANDS)
    return bands @ cosines.T


def everything(talkers):
    return np.concatenate([envelopes(talker.samples)[voiced(talker.samples)][:FRAMES_PER_TALKER] for talker in talkers])


def print_table(name, count, talkers, centres):
    print(TABLE.format(name=name, count=count, talkers=len(talkers)))
    packed = np.clip(np.round(centres * UNIT), -127, 127).astype(int)
    for row in packed[np.argsort(packed[:, 0])]:
        print("    {{" + ", ".join(f"{value:4d}" for value in row) + "}},")
    print("}};")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--keep", default="build/bench/voice-material", help="where talkers are kept")
    keep = parser.parse_args().keep
    talkers = talker_material.load(keep, talker_material.WORLD)
    sounds = everything(talkers)
    centres, nearest = kmeans2(sounds, COARSE, minit="++", seed=1, iter=20)
    deviation = np.sqrt(((sounds - centres[nearest]) ** 2).mean(0))
    print(HEAD.format(deviations=", ".join(f"{value:.4f}F" for value in deviation)), end="")
    print_table("kWorldEnvelopes", "kWorldVoices", talkers, centres / deviation)
    talkers += talker_material.load(keep, MORE)
    fine, _ = kmeans2(everything(talkers) / deviation, FINE, minit="++", seed=1, iter=20)
    print_table("kFineWorldEnvelopes", "kFineWorldVoices", talkers, fine)
    print("// clang-format on")
    return 0


if __name__ == "__main__":
    sys.exit(main())
