"""Speech for the benchmarks of the voice engine: recorded talkers of the Debian packages of telephone announcements,
espeak-ng voices of several languages, and noise. All of it comes out the same every time.

What was made is kept in a directory as .npy files and read from there the next time.
"""

import dataclasses
import hashlib
import json
import pathlib
import random
import subprocess
import wave

import numpy as np
from scipy.signal import resample_poly

SOUNDS = pathlib.Path("/usr/share/asterisk/sounds")
ACTIVE_RMS = 1642       # -26 dB of full scale while the talker talks
LEAD_SECONDS = 2        # noise alone at the start
GAP_SECONDS = (0.8, 2.5)
UTTERANCES = 5
NOISE_SECONDS = 30
LIMIT = 32512

TEXTS = {
    "en": ["The quick brown fox jumps over the lazy dog.", "She sells sea shells by the sea shore.",
           "Please call back at half past six.", "Four score and seven years ago.",
           "Thank you for holding, someone will be with you shortly.", "Chop the fresh fish into thin slices.",
           "Zero, nine, eight, five, three.", "Stop talking and listen.", "Funny thoughts vanish slowly."],
    "de": ["Bitte rufen Sie morgen frueh wieder an.", "Der schnelle braune Fuchs springt ueber den faulen Hund.",
           "Zwei, drei, fuenf, acht.", "Schoene Gruesse an alle zu Hause.", "Kannst du mich gut verstehen?"],
    "fr": ["Veuillez patienter quelques instants.", "Je vous rappelle demain matin.", "Six, sept, huit, neuf.",
           "Le chat dort sur la chaise pres du feu.", "Pouvez-vous parler un peu plus fort?"],
    "pl": ["Prosze zadzwonic jutro rano.", "Szesc, siedem, osiem, dziewiec.", "Czy dobrze mnie slychac?",
           "Szybki lis skacze nad leniwym psem.", "Dziekuje za rozmowe."],
}
SYNTHETIC = [("en-us", "en"), ("en-gb+f3", "en"), ("en+m7", "en"), ("de", "de"), ("fr+f4", "fr"), ("pl+m3", "pl")]
RECORDED = ["en_US_f_Allison", "es_MX_f_Allison", "fr_CA_f_June", "it_IT_m_Carlo", "ru_RU_f_IvrvoiceRU"]
BABBLERS = ["en-us", "en+m3", "en+f2", "de", "fr", "es", "en-gb+m1", "en+f5"]


@dataclasses.dataclass
class Talker:
    name: str
    recorded: bool
    clean: np.ndarray        # utterances with silence around them
    utterances: list         # of (first sample, behind the last)
    gains: list              # what each was multiplied by, so that all have the same level


# ---- Reading and making sound

def decoded(path, rate):
    """Any sound file as samples at the rate."""
    raw = subprocess.run(["ffmpeg", "-v", "error", "-i", str(path), "-ac", "1", "-ar", str(rate), "-f", "s16le", "-"],
                         stdout=subprocess.PIPE, check=True).stdout
    return np.frombuffer(raw, "<i2").astype(float)


def spoken(voice, text, rate, speed=160):
    done = subprocess.run(["espeak-ng", "-v", voice, "-s", str(speed), "--stdout", text], stdout=subprocess.PIPE,
                          check=True)
    made = int.from_bytes(done.stdout[24:28], "little")
    samples = np.frombuffer(done.stdout[44:len(done.stdout) // 2 * 2], "<i2").astype(float)
    factor = np.gcd(made, rate)
    return resample_poly(samples, rate // factor, made // factor)


def write_wav(path, rate, samples):
    with wave.open(str(path), "wb") as file:
        file.setnchannels(1)
        file.setsampwidth(2)
        file.setframerate(rate)
        file.writeframes(np.clip(np.round(samples), -LIMIT, LIMIT).astype("<i2").tobytes())


def read_wav(path):
    with wave.open(str(path)) as file:
        return np.frombuffer(file.readframes(file.getnframes()), "<i2").astype(float)


def trimmed(samples):
    loud = np.nonzero(np.abs(samples) > 0.01 * np.abs(samples).max())[0]
    return samples[loud[0]:loud[-1] + 1]


def active_rms(samples, rate):
    """Level of the 20 ms frames that lie within 30 dB of the loudest."""
    size = rate // 50
    power = (samples[:len(samples) // size * size].reshape(-1, size) ** 2).mean(1)
    return np.sqrt(power[power > power.max() * 1e-3].mean())


def utterance(samples, rate):
    """The samples at the level that all have, and what they were multiplied by."""
    cut = trimmed(samples)
    gain = ACTIVE_RMS / active_rms(cut, rate)
    return cut * gain, gain


def announcements(folder, shortest=1.5, longest=6.0):
    """Recorded sentences of that length; G.722 takes 8,000 bytes a second."""
    return sorted(path for path in (SOUNDS / folder).glob("*.g722")
                  if shortest * 8000 <= path.stat().st_size <= longest * 8000)


# ---- Talkers

def arranged(name, recorded, utterances, rate, chance):
    """One talker's utterances behind one another, with pauses of different length."""
    pieces, marks = [np.zeros(LEAD_SECONDS * rate)], []
    position = len(pieces[0])
    for samples, _ in utterances:
        marks.append((position, position + len(samples)))
        gap = np.zeros(int(rate * chance.uniform(*GAP_SECONDS)))
        pieces += [samples, gap]
        position += len(samples) + len(gap)
    return Talker(name, recorded, np.concatenate(pieces), marks, [gain for _, gain in utterances])


def make_talkers(rate):
    chance = random.Random(1)
    talkers = []
    for folder in RECORDED:
        files = announcements(folder)
        if not files:
            continue
        chosen = chance.sample(files, UTTERANCES)
        talkers.append(arranged(folder, True, [utterance(decoded(file, rate), rate) for file in chosen], rate, chance))
    for voice, language in SYNTHETIC:
        texts = chance.sample(TEXTS[language], UTTERANCES)
        talkers.append(arranged("espeak " + voice, False, [utterance(spoken(voice, text, rate), rate) for text in texts],
                                rate, chance))
    return talkers


# ---- Noise, each with an RMS of 1

def pink(count, rate, chance):
    spectrum = np.fft.rfft(chance.standard_normal(count))
    lowest = 20 * count / rate  # no rumble below 20 Hz
    return np.fft.irfft(spectrum / np.sqrt(np.maximum(np.arange(len(spectrum)), lowest)), count)


def babble(count, rate, chance):
    """Eight voices talking at once."""
    pick = random.Random(2)
    total = np.zeros(count)
    for voice in BABBLERS:
        talk = np.zeros(0)
        while len(talk) < count:
            talk = np.concatenate([talk, utterance(spoken(voice, pick.choice(TEXTS["en"]), rate), rate)[0]])
        total += np.roll(talk[:count], int(chance.integers(count)))
    return total


def make_noises(rate):
    chance = np.random.default_rng(1)
    count = NOISE_SECONDS * rate
    noises = {"white": chance.standard_normal(count), "pink": pink(count, rate, chance),
              "babble": babble(count, rate, chance)}
    return {name: noise / np.sqrt((noise ** 2).mean()) for name, noise in noises.items()}


def mixed(talker, noise, snr):
    """The talker in noise: the level while the talker talks lies snr dB above the noise."""
    return talker.clean + np.resize(noise, len(talker.clean)) * (ACTIVE_RMS * 10 ** (-snr / 20))


# ---- Keeping it

def load(directory, rate):
    """Talkers and noises at the rate, made anew when this file has changed."""
    stamp = hashlib.sha256(pathlib.Path(__file__).read_bytes()).hexdigest()[:12]
    kept = pathlib.Path(directory) / f"{stamp}-{rate}"
    if not (kept / "index.json").exists():
        kept.mkdir(parents=True, exist_ok=True)
        talkers, noises = make_talkers(rate), make_noises(rate)
        for number, talker in enumerate(talkers):
            np.save(kept / f"talker{number}.npy", talker.clean)
        for name, noise in noises.items():
            np.save(kept / f"{name}.npy", noise)
        index = {"talkers": [(talker.name, talker.recorded, talker.utterances, talker.gains) for talker in talkers],
                 "noises": list(noises)}
        (kept / "index.json").write_text(json.dumps(index))
    index = json.loads((kept / "index.json").read_text())
    talkers = [Talker(name, recorded, np.load(kept / f"talker{number}.npy"), [tuple(mark) for mark in marks], gains)
               for number, (name, recorded, marks, gains) in enumerate(index["talkers"])]
    return talkers, {name: np.load(kept / f"{name}.npy") for name in index["noises"]}
