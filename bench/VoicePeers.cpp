#include "bench/VoicePeers.h"

#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <speex/speex_preprocess.h>
#include <stdexcept>
#include <utility>
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

namespace {

void check(bool bGood, const char* pcWhat) {
  if (!bGood) throw std::runtime_error(std::string(pcWhat) + " failed");
}

class Quorvel : public VoicePeer {
 public:
  Quorvel(int iRate, sKestrovaInit init, bool bGainControl)
      : uFrame(static_cast<std::size_t>(32 * init.sFrameUnits * iRate / 8000)) {
    init.iSampleRate = iRate;
    if (bGainControl) init.bDoAGC = 1;
    check(KestrovaGroupInit(kChannel, &init) == 0, "initialising the noise channel");
  }
  ~Quorvel() override { (void)KestrovaTerminate(kChannel); }
  [[nodiscard]] std::size_t frameSamples() const override { return uFrame; }
  // The engine gives nothing until its delay has passed.
  void process(std::span<std::int16_t> frame) override {
    sKestrovaFrameResult result{};
    check(KestrovaProcessFrame(kChannel, frame.data(), static_cast<int>(frame.size_bytes()), frame.data(),
                               &result) == 0,
          "processing a frame");
    const auto uGiven = static_cast<std::ptrdiff_t>(result.iOutBytes / 2);
    std::rotate(frame.begin(), frame.begin() + uGiven, frame.end());
    std::fill(frame.begin(), frame.end() - uGiven, std::int16_t{0});
  }

 private:
  static constexpr std::uint16_t kChannel = 0;
  std::size_t uFrame;
};

class Speex : public VoicePeer {
 public:
  Speex(int iRate, int iSuppressDb, bool bGainControl)
      : uFrame(static_cast<std::size_t>(iRate / 50)),
        pState(speex_preprocess_state_init(static_cast<int>(uFrame), iRate)) {
    check(pState != nullptr, "SpeexDSP");
    int iOn = 1;
    check(speex_preprocess_ctl(pState.get(), SPEEX_PREPROCESS_SET_DENOISE, &iOn) == 0, "SET_DENOISE");
    if (iSuppressDb != 0) {
      check(speex_preprocess_ctl(pState.get(), SPEEX_PREPROCESS_SET_NOISE_SUPPRESS, &iSuppressDb) == 0,
            "SET_NOISE_SUPPRESS");
    }
    if (bGainControl)
      check(speex_preprocess_ctl(pState.get(), SPEEX_PREPROCESS_SET_AGC, &iOn) == 0, "SET_AGC");
  }
  [[nodiscard]] std::size_t frameSamples() const override { return uFrame; }
  void process(std::span<std::int16_t> frame) override {
    (void)speex_preprocess_run(pState.get(), frame.data());
  }

 private:
  struct Destroy {
    void operator()(SpeexPreprocessState* pState) const { speex_preprocess_state_destroy(pState); }
  };
  std::size_t uFrame;
  std::unique_ptr<SpeexPreprocessState, Destroy> pState;
};

class WebRtc : public VoicePeer {
 public:
  WebRtc(int iRate, bool bGainControl) : pApm(webrtc::AudioProcessing::Create()) {
    check(pApm != nullptr, "WebRTC");
    frame10ms.num_channels_ = 1;
    frame10ms.sample_rate_hz_ = iRate;
    frame10ms.samples_per_channel_ = static_cast<std::size_t>(iRate / 100);
    check(pApm->noise_suppression()->set_level(webrtc::NoiseSuppression::kHigh) == 0, "set_level");
    check(pApm->noise_suppression()->Enable(true) == 0, "noise suppression");
    if (!bGainControl) return;
    check(pApm->gain_control()->set_mode(webrtc::GainControl::kAdaptiveDigital) == 0, "set_mode");
    check(pApm->gain_control()->Enable(true) == 0, "gain control");
  }
  [[nodiscard]] std::size_t frameSamples() const override { return frame10ms.samples_per_channel_; }
  void process(std::span<std::int16_t> frame) override {
    std::copy(frame.begin(), frame.end(), frame10ms.data_);
    check(pApm->ProcessStream(&frame10ms) == 0, "ProcessStream");
    std::copy_n(frame10ms.data_, frame.size(), frame.begin());
  }

 private:
  std::unique_ptr<webrtc::AudioProcessing> pApm;
  webrtc::AudioFrame frame10ms;
};

constexpr int kStrongDb = -30;  // SpeexDSP's default is -15

using Maker = std::function<std::unique_ptr<VoicePeer>(int, const sKestrovaInit&)>;

const std::vector<std::pair<std::string, Maker>>& makers() {
  static const std::vector<std::pair<std::string, Maker>> table{
      {"quorvel", [](int r, const auto& init) { return std::make_unique<Quorvel>(r, init, false); }},
      {"speex", [](int r, const auto&) { return std::make_unique<Speex>(r, 0, false); }},
      {"speex-30", [](int r, const auto&) { return std::make_unique<Speex>(r, kStrongDb, false); }},
      {"webrtc", [](int r, const auto&) { return std::make_unique<WebRtc>(r, false); }},
      {"quorvel-agc", [](int r, const auto& init) { return std::make_unique<Quorvel>(r, init, true); }},
      {"speex-agc", [](int r, const auto&) { return std::make_unique<Speex>(r, 0, true); }},
      {"webrtc-agc", [](int r, const auto&) { return std::make_unique<WebRtc>(r, true); }}};
  return table;
}

}  // namespace

const std::vector<std::string>& peerNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> all;
    for (const auto& [sName, make] : makers()) all.push_back(sName);
    return all;
  }();
  return names;
}

std::unique_ptr<VoicePeer> makePeer(const std::string& sName, int iRate, const sKestrovaInit& init) {
  for (const auto& [sKnown, make] : makers()) {
    if (sKnown == sName) return make(iRate, init);
  }
  throw std::runtime_error("unknown system " + sName);
}
