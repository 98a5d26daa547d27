#include "tools/kestrova-wav-picture.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cairo.h>
#include <cmath>
#include <complex>
#include <memory>
#include <numbers>
#include <stdexcept>

namespace {

// Pixels
constexpr int kWidth = 1280;
constexpr int kLeft = 80;
constexpr int kRight = 100;
constexpr int kPlotWidth = kWidth - kLeft - kRight;
constexpr int kTop = 60;
constexpr int kPlotHeight = 256;  // one row per bin of the transform
constexpr int kGap = 46;          // between the plots, with the caption of the lower one
constexpr int kStripHeight = 26;
constexpr int kHeight = kTop + 2 * kPlotHeight + 2 * kGap + kStripHeight + 90;
constexpr int kCurveHeight = 120;  // only with echo

// Spectrograms: frames of 512 samples, at most eight of them averaged into one column of pixels.
constexpr std::size_t kFrame = 2 * kPlotHeight;
constexpr std::size_t kFramesPerColumn = 8;
constexpr double kDarkest = -110;  // dB of a full-scale sine
constexpr double kBrightest = -20;

struct sColour {
  double r, g, b;
};
// Dark to bright, so that it reads in black and white, too.
constexpr std::array<sColour, 6> psScale{{{0.00, 0.00, 0.02},
                                          {0.20, 0.06, 0.38},
                                          {0.53, 0.13, 0.42},
                                          {0.86, 0.31, 0.24},
                                          {0.98, 0.64, 0.12},
                                          {0.99, 1.00, 0.72}}};

sColour colourOf(double dLevel) {
  const double dAt =
      std::clamp((dLevel - kDarkest) / (kBrightest - kDarkest), 0.0, 1.0) * (psScale.size() - 1);
  const auto uBelow = std::min(static_cast<std::size_t>(dAt), psScale.size() - 2);
  const double t = dAt - static_cast<double>(uBelow);
  const sColour& a = psScale[uBelow];
  const sColour& b = psScale[uBelow + 1];
  return {a.r + t * (b.r - a.r), a.g + t * (b.g - a.g), a.b + t * (b.b - a.b)};
}

struct sMeaning {
  const char* pcName;
  sColour colour;
};
// By Decision.
constexpr std::array<sMeaning, 5> psMeanings{{{"nothing yet", {0.93, 0.93, 0.93}},
                                              {"pause: comfort noise", {0.75, 0.78, 0.82}},
                                              {"speech", {0.45, 0.70, 0.40}},
                                              {"certain speech", {0.10, 0.45, 0.15}},
                                              {"DTMF", {0.85, 0.55, 0.10}}}};

// ---- Spectrum

using Spectrum = std::array<std::complex<double>, kFrame>;

// Decimation in time, in place.
void transform(Spectrum& x) {
  constexpr int kBits = std::bit_width(kFrame) - 1;
  for (std::size_t i = 0; i < kFrame; ++i) {
    std::size_t uReversed = 0;
    for (int b = 0; b < kBits; ++b) uReversed |= ((i >> b) & 1U) << (kBits - 1 - b);
    if (uReversed > i) std::swap(x[i], x[uReversed]);
  }
  for (std::size_t uHalf = 1; uHalf < kFrame; uHalf *= 2) {
    for (std::size_t k = 0; k < uHalf; ++k) {
      const auto turn =
          std::polar(1.0, -std::numbers::pi * static_cast<double>(k) / static_cast<double>(uHalf));
      for (std::size_t i = k; i < kFrame; i += 2 * uHalf) {
        const auto t = turn * x[i + uHalf];
        x[i + uHalf] = x[i] - t;
        x[i] += t;
      }
    }
  }
}

// Adds the power of each bin of the frame around uCentre; a full-scale sine has 1.
void addPower(std::span<const std::int16_t> samples, std::size_t uCentre,
              std::array<double, kPlotHeight>& power) {
  Spectrum x{};
  for (std::size_t i = 0; i < kFrame; ++i) {
    const std::size_t uAt = uCentre + i;
    if (uAt < kFrame / 2 || uAt - kFrame / 2 >= samples.size()) continue;
    const double dWindow = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(i) / kFrame);
    x[i] = dWindow * samples[uAt - kFrame / 2] / 32768;
  }
  transform(x);
  constexpr double kScale = 4.0 / kFrame;  // the window takes half of the sine, and half lies at its negative
  for (std::size_t k = 0; k < power.size(); ++k) power[k] += std::norm(x[k] * kScale);
}

// ---- Drawing

class Canvas {
 public:
  explicit Canvas(int iHeight)
      : pSurface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, kWidth, iHeight)),
        pCairo(cairo_create(pSurface)) {
    rectangle(0, 0, kWidth, iHeight, {1, 1, 1});
    cairo_select_font_face(pCairo, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(pCairo, 13);
  }
  ~Canvas() {
    cairo_destroy(pCairo);
    cairo_surface_destroy(pSurface);
  }
  Canvas(const Canvas&) = delete;
  Canvas& operator=(const Canvas&) = delete;

  void rectangle(double x, double y, double dWidth, double dHeight, const sColour& colour) {
    cairo_set_source_rgb(pCairo, colour.r, colour.g, colour.b);
    cairo_rectangle(pCairo, x, y, dWidth, dHeight);
    cairo_fill(pCairo);
  }
  // dAnchor: 0 the text starts at x, 0.5 is centred on it, 1 ends there.
  void text(double x, double y, const std::string& sText, double dAnchor = 0) {
    cairo_text_extents_t extents;
    cairo_text_extents(pCairo, sText.c_str(), &extents);
    cairo_set_source_rgb(pCairo, 0.1, 0.1, 0.1);
    cairo_move_to(pCairo, x - dAnchor * extents.x_advance, y);
    cairo_show_text(pCairo, sText.c_str());
  }
  void write(const std::string& sName) {
    const cairo_status_t status = cairo_surface_write_to_png(pSurface, sName.c_str());
    if (status != CAIRO_STATUS_SUCCESS)
      throw std::runtime_error(sName + ": " + cairo_status_to_string(status));
  }

 private:
  cairo_surface_t* pSurface;
  cairo_t* pCairo;
};

std::string shortNumber(double dValue) {
  std::array<char, 32> pcText{};
  std::snprintf(pcText.data(), pcText.size(), "%g", dValue);
  return pcText.data();
}

class Drawing {
 public:
  explicit Drawing(const sPicture& shown)
      : canvas(kHeight + (shown.bEcho ? kCurveHeight + kGap : 0)),
        picture(shown),
        uSamples(shown.before.size()) {}

  void draw(const std::string& sName) {
    canvas.text(kLeft, 24, picture.sTitle);
    spectrogram(kTop, "before", picture.before);
    const int iSecond = kTop + kPlotHeight + kGap;
    spectrogram(iSecond, "after", picture.after);
    int iStrip = iSecond + kPlotHeight + kGap;
    if (picture.bEcho) {
      curve(iStrip);
      iStrip += kCurveHeight + kGap;
    }
    strip(iStrip);
    timeAxis(iStrip + kStripHeight);
    scale();
    canvas.write(sName);
  }

 private:
  [[nodiscard]] std::size_t sampleAt(int iColumn) const {
    return uSamples * static_cast<std::size_t>(iColumn) / kPlotWidth;
  }

  void spectrogram(int iTop, const char* pcCaption, std::span<const std::int16_t> samples) {
    canvas.text(kLeft, iTop - 8, pcCaption);
    for (int iColumn = 0; iColumn < kPlotWidth; ++iColumn) column(iTop, iColumn, samples);
    const int iHighest = picture.iRate / 2000;
    for (int iKilohertz = 0; iKilohertz <= iHighest; iKilohertz += iHighest / 4) {
      const double y = iTop + kPlotHeight - kPlotHeight * iKilohertz / static_cast<double>(iHighest);
      canvas.rectangle(kLeft - 5, y - 0.5, 5, 1, {0.1, 0.1, 0.1});
      canvas.text(kLeft - 9, y + 4, std::to_string(iKilohertz) + " kHz", 1);
    }
  }

  void column(int iTop, int iColumn, std::span<const std::int16_t> samples) {
    const std::size_t uFirst = sampleAt(iColumn);
    const std::size_t uSpan = std::max<std::size_t>(1, sampleAt(iColumn + 1) - uFirst);
    const std::size_t uFrames = std::clamp<std::size_t>(uSpan / (kFrame / 2), 1, kFramesPerColumn);
    std::array<double, kPlotHeight> power{};
    for (std::size_t f = 0; f < uFrames; ++f)
      addPower(samples, uFirst + (2 * f + 1) * uSpan / (2 * uFrames), power);
    for (int k = 0; k < kPlotHeight; ++k) {
      const double dMean = power[static_cast<std::size_t>(k)] / static_cast<double>(uFrames);
      canvas.rectangle(kLeft + iColumn, iTop + kPlotHeight - 1 - k, 1, 1,
                       colourOf(10 * std::log10(dMean + 1e-15)));
    }
  }

  // Mean power of the 200 ms around a sample, at least that of a sample value of 1.
  [[nodiscard]] double power(std::span<const std::int16_t> samples, std::size_t uCentre) const {
    const auto uHalf = static_cast<std::size_t>(picture.iRate / 10);
    const std::size_t uFirst = uCentre > uHalf ? uCentre - uHalf : 0;
    double dSum = 0;
    for (std::size_t i = uFirst; i < uCentre + uHalf && i < samples.size(); ++i) {
      dSum += static_cast<double>(samples[i]) * samples[i];
    }
    return std::max(1.0, dSum / static_cast<double>(2 * uHalf));
  }

  // How far the output lies below the microphone, 0 to 60 dB.
  void curve(int iTop) {
    constexpr double kMostDb = 60;
    canvas.text(kLeft, iTop - 8, "echo return loss enhancement: microphone over output");
    for (int iColumn = 0; iColumn < kPlotWidth; ++iColumn) {
      const std::size_t uAt = sampleAt(iColumn);
      const double dErle = 10 * std::log10(power(picture.before, uAt) / power(picture.after, uAt));
      const double dHeight = kCurveHeight * std::clamp(dErle, 0.0, kMostDb) / kMostDb;
      canvas.rectangle(kLeft + iColumn, iTop + kCurveHeight - dHeight, 1, dHeight, {0.20, 0.06, 0.38});
    }
    for (int iDb = 0; iDb <= 60; iDb += 20) {
      const double y = iTop + kCurveHeight * (1 - iDb / kMostDb);
      canvas.rectangle(kLeft - 5, y - 0.5, 5, 1, {0.1, 0.1, 0.1});
      canvas.text(kLeft - 9, y + 4, std::to_string(iDb) + " dB", 1);
    }
  }

  // The most speech-like decision within a column is shown, so that no short word is lost.
  void strip(int iTop) {
    canvas.text(kLeft, iTop - 8, "what the engine decided");
    for (int iColumn = 0; iColumn < kPlotWidth; ++iColumn) {
      auto most = Decision::eNothing;
      const std::size_t uLast = std::max(sampleAt(iColumn), sampleAt(iColumn + 1) - 1) / picture.uFrame;
      for (std::size_t f = sampleAt(iColumn) / picture.uFrame; f <= uLast && f < picture.decisions.size();
           ++f)
        most = std::max(most, picture.decisions[f]);
      canvas.rectangle(kLeft + iColumn, iTop, 1, kStripHeight,
                       psMeanings[static_cast<std::size_t>(most)].colour);
    }
    double x = kLeft;
    for (const sMeaning& meaning : psMeanings) {
      canvas.rectangle(x, iTop + kStripHeight + 52, 14, 14, meaning.colour);
      const bool bPause = &meaning - psMeanings.data() == static_cast<std::ptrdiff_t>(Decision::eSilence);
      canvas.text(x + 20, iTop + kStripHeight + 64,
                  picture.bEcho && bPause ? "pause or echo" : meaning.pcName);
      x += 190;
    }
  }

  // About ten marks at round times.
  void timeAxis(int iTop) {
    const double dSeconds = static_cast<double>(uSamples) / picture.iRate;
    double dStep = std::pow(10, std::floor(std::log10(dSeconds / 10)));
    for (const double dFactor : {2.0, 2.5, 2.0}) {
      if (dSeconds / dStep > 12) dStep *= dFactor;
    }
    for (int i = 0; i * dStep <= dSeconds; ++i) {
      const double x = kLeft + kPlotWidth * i * dStep / dSeconds;
      canvas.rectangle(x - 0.5, iTop, 1, 5, {0.1, 0.1, 0.1});
      canvas.text(x, iTop + 20, shortNumber(i * dStep), 0.5);
    }
    canvas.text(kLeft + kPlotWidth, iTop + 38, "seconds", 1);
  }

  void scale() {
    constexpr int kX = kWidth - kRight + 24;
    for (int i = 0; i < kPlotHeight; ++i) {
      const double dLevel = kBrightest - (kBrightest - kDarkest) * i / kPlotHeight;
      canvas.rectangle(kX, kTop + i, 14, 1, colourOf(dLevel));
    }
    for (double dLevel = kBrightest; dLevel >= kDarkest; dLevel -= 30) {
      const double y = kTop + kPlotHeight * (kBrightest - dLevel) / (kBrightest - kDarkest);
      canvas.text(kX + 18, y + 4, shortNumber(dLevel));
    }
    canvas.text(kX - 4, kTop - 8, "dB");
  }

  Canvas canvas;
  const sPicture& picture;
  std::size_t uSamples;
};

}  // namespace

void drawPicture(const std::string& sName, const sPicture& picture) {
  if (picture.before.empty()) throw std::runtime_error(sName + ": there is nothing to draw");
  Drawing(picture).draw(sName);
}
