#include "tests/calls/support/Tones.h"

#include <array>
#include <cmath>
#include <numbers>

namespace {

// What packaging/make-tones makes.
constexpr double kRisingTo = 1175;
constexpr double kLowBeep = 425;

constexpr std::string_view kKeys = "123456789*0#";
constexpr std::array kRows{697.0, 770.0, 852.0, 941.0};
constexpr std::array kColumns{1209.0, 1336.0, 1477.0};

// The share of the energy of those samples that is the tone of that frequency; 0 for what is hardly audible.
double share(const std::int16_t* samples, int count, int rate, double frequency) {
  double re = 0;
  double im = 0;
  double energy = 0;
  for (int i = 0; i < count; ++i) {
    const double phase = 2 * std::numbers::pi * frequency * i / rate;
    re += samples[i] * std::cos(phase);
    im += samples[i] * std::sin(phase);
    energy += static_cast<double>(samples[i]) * samples[i];
  }
  constexpr double kAudible = 1000;
  if (energy < kAudible * kAudible * count) return 0;
  return 2 * (re * re + im * im) / (energy * count);
}

}  // namespace

std::string tonesIn(const Sound& sound) {
  constexpr double kPure = 0.9;
  constexpr int kPiecesOfATone = 4;       // 80 ms in a row
  constexpr int kPiecesOfAFailTone = 40;  // its second and third beep belong to the first
  std::string found;
  const int piece = sound.rate / 50;
  int inARow = 0;
  int sinceLast = kPiecesOfAFailTone;
  char before = ' ';
  for (int at = 0; at + piece <= static_cast<int>(sound.samples.size()); at += piece, ++sinceLast) {
    const std::int16_t* samples = sound.samples.data() + at;
    const char here = share(samples, piece, sound.rate, kRisingTo) > kPure  ? 'O'
                      : share(samples, piece, sound.rate, kLowBeep) > kPure ? 'F'
                                                                            : ' ';
    inARow = here == before ? inARow + 1 : 1;
    before = here;
    if (here == ' ' || inARow != kPiecesOfATone) continue;
    if (!found.empty() && found.back() == 'F' && here == 'F' && sinceLast < kPiecesOfAFailTone) continue;
    found += here;
    sinceLast = 0;
  }
  return found;
}

Sound keysPressed(const std::string& keys, double seconds, int rate) {
  constexpr double kLevel = 6000;
  Sound sound{.rate = rate, .samples = {}};
  sound.samples.resize(static_cast<std::size_t>(rate) * 3 / 2);
  for (const char key : keys) {
    const std::size_t place = kKeys.find(key);
    for (int i = 0; i < rate * 12 / 100 && place != std::string_view::npos; ++i) {
      const double t = 2 * std::numbers::pi * i / rate;
      const double both = std::sin(kRows[place / 3] * t) + std::sin(kColumns[place % 3] * t);
      sound.samples.push_back(static_cast<std::int16_t>(kLevel * both));
    }
    sound.samples.resize(sound.samples.size() + static_cast<std::size_t>(key == ' ' ? rate : rate * 8 / 100));
  }
  sound.samples.resize(static_cast<std::size_t>(seconds * rate));
  return sound;
}

Settings keyCommands(const std::filesystem::path& home) {
  std::filesystem::create_directories(home / "voices");
  std::filesystem::copy(QUORVEL_SHIPPED_TONES, home / "tones", std::filesystem::copy_options::recursive);
  return {{"DefaultCmd", "*##3"},
          {"DTMFRegistraterPrefix", "*1*"},
          {"DTMFActivatePrefix", "*2*"},
          {"DTMFSuffix", "#"},
          {"DTMFDisable", "*3*"},
          {"DTMFOKToneFile", "../tones/ok.raw"},
          {"DTMFFailToneFile", "../tones/fail.raw"},
          {"RegistrationLibrary", "../voices/"}};
}
