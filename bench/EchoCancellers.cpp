#include "bench/EchoCancellers.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "engine/Kestrova.h"

#ifdef QUORVEL_ECHO_PEERS
#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>
#include <webrtc/common.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>
#endif

namespace {

class Ours : public EchoCanceller {
 public:
  Ours(int iAlgorithm, int iRate, int iMicLead) : uHeldBack(static_cast<std::size_t>(iMicLead)) {
    const sKestrovaPackage package{KESTROVA_API_VERSION, nullptr, 5};
    sKestrovaInit init{};
    init.sBitsPerSample = 16;
    init.iSampleRate = iRate;
    init.sFrameUnits = 1;
    init.sMaxNumCyclesInDelayBuffer = iAlgorithm == 0 ? 0 : 2;
    init.sAecAlgorithm = static_cast<std::uint16_t>(iAlgorithm);
    init.sSpkLagFrames = init.sMicLagFrames = 15;
    init.sAecSupressionHold = 6;
    init.sAecAggressiveLevel = init.sAecHowlingLevel = 10;
    init.sAecMaxCoef = 100;
    init.sAecMinCoef = 1;
    init.sAecTailType = 1;
    init.iAecTalkHoldSamples = iAlgorithm == 0 ? 4000 : 2000;
    init.iAecHold2Samples = 2000;
    if (KestrovaPackageInit(&package) != 0 || KestrovaAECInit(0, &init) != 0)
      throw std::runtime_error("init");
    uDelay = static_cast<std::size_t>(init.sMaxNumCyclesInDelayBuffer * 32 * (iRate / 8000));
  }
  void process(const std::int16_t* psFar, const std::int16_t* psMic, std::size_t uCount,
               std::vector<std::int16_t>& out) override {
    const auto iBytes = static_cast<std::int32_t>(2 * uCount);
    far.insert(far.end(), psFar, psFar + uCount);
    if (uLead < uHeldBack) {
      uLead += uCount;
    } else {
      if (KestrovaAECProcessSpkFrame(0, far.data(), iBytes) != 0) throw std::runtime_error("spk");
      far.erase(far.begin(), far.begin() + static_cast<std::ptrdiff_t>(uCount));
    }
    std::int16_t psOut[2048];
    sKestrovaFrameResult result{};
    if (KestrovaAECProcessMicFrame(0, psMic, iBytes, psOut, &result) != 0) throw std::runtime_error("mic");
    out.insert(out.end(), psOut, psOut + result.iOutBytes / 2);
  }
  [[nodiscard]] std::size_t delay() const override { return uDelay; }
  [[nodiscard]] std::string inside() const override {
    sKestrovaAECStatus s{};
    (void)KestrovaGetAECInternalStatusParameters(0, &s);
    char pcText[160];
    std::snprintf(pcText, sizeof pcText, "%d %d %d %d %d %d | %d %d %d %d %d %d %d %d", s.bFlags[0],
                  s.bFlags[1], s.bFlags[2], s.bFlags[3], s.bFlags[4], s.bFlags[5], s.iValues[0], s.iValues[1],
                  s.iValues[2], s.iValues[3], s.iValues[4], s.iValues[5], s.iValues[6], s.iValues[7]);
    return pcText;
  }

 private:
  std::size_t uDelay = 64;
  std::size_t uHeldBack;          // samples by which the microphone's stream is ahead
  std::size_t uLead = 0;          // the same so far
  std::vector<std::int16_t> far;  // not fed yet
};

// Collects frames until a peer's own frame is full.
class Framed : public EchoCanceller {
 public:
  explicit Framed(std::size_t uFrameSamples) : uFrame(uFrameSamples) {}
  void process(const std::int16_t* psFar, const std::int16_t* psMic, std::size_t uCount,
               std::vector<std::int16_t>& out) override {
    far.insert(far.end(), psFar, psFar + uCount);
    mic.insert(mic.end(), psMic, psMic + uCount);
    while (far.size() >= uFrame) {
      std::vector<std::int16_t> result(uFrame);
      frame(far.data(), mic.data(), result.data());
      out.insert(out.end(), result.begin(), result.end());
      far.erase(far.begin(), far.begin() + static_cast<std::ptrdiff_t>(uFrame));
      mic.erase(mic.begin(), mic.begin() + static_cast<std::ptrdiff_t>(uFrame));
    }
  }

 protected:
  virtual void frame(const std::int16_t* psFar, const std::int16_t* psMic, std::int16_t* psOut) = 0;
  std::size_t uFrame;

 private:
  std::vector<std::int16_t> far, mic;
};

#ifdef QUORVEL_ECHO_PEERS
class Speex : public Framed {
 public:
  Speex(int iRate, double dDelayMs) : Framed(static_cast<std::size_t>(iRate / 50)) {
    const int iTail = static_cast<int>((dDelayMs + 80) * iRate / 1000);
    pEcho = speex_echo_state_init(static_cast<int>(uFrame), iTail);
    pPreprocess = speex_preprocess_state_init(static_cast<int>(uFrame), iRate);
    speex_echo_ctl(pEcho, SPEEX_ECHO_SET_SAMPLING_RATE, &iRate);
    speex_preprocess_ctl(pPreprocess, SPEEX_PREPROCESS_SET_ECHO_STATE, pEcho);
    int iOff = 0;
    speex_preprocess_ctl(pPreprocess, SPEEX_PREPROCESS_SET_DENOISE, &iOff);
  }
  ~Speex() override {
    speex_preprocess_state_destroy(pPreprocess);
    speex_echo_state_destroy(pEcho);
  }
  [[nodiscard]] std::size_t delay() const override { return uFrame; }

 protected:
  void frame(const std::int16_t* psFar, const std::int16_t* psMic, std::int16_t* psOut) override {
    speex_echo_cancellation(pEcho, psMic, psFar, psOut);
    speex_preprocess_run(pPreprocess, psOut);
  }

 private:
  SpeexEchoState* pEcho = nullptr;
  SpeexPreprocessState* pPreprocess = nullptr;
};

class Webrtc : public Framed {
 public:
  Webrtc(int iRate, double dDelayMs)
      : Framed(static_cast<std::size_t>(iRate / 100)),
        iFrameRate(iRate),
        iDelayMs(static_cast<int>(dDelayMs)) {
    webrtc::Config config;
    config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(true));
    config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(true));
    pProcessing.reset(webrtc::AudioProcessing::Create(config));
    pProcessing->echo_cancellation()->Enable(true);
    pProcessing->echo_cancellation()->set_suppression_level(webrtc::EchoCancellation::kHighSuppression);
  }
  [[nodiscard]] std::size_t delay() const override { return static_cast<std::size_t>(iFrameRate * 6 / 1000); }

 protected:
  void frame(const std::int16_t* psFar, const std::int16_t* psMic, std::int16_t* psOut) override {
    webrtc::AudioFrame audio;
    audio.UpdateFrame(-1, 0, psFar, uFrame, iFrameRate, webrtc::AudioFrame::kNormalSpeech,
                      webrtc::AudioFrame::kVadUnknown, 1);
    pProcessing->AnalyzeReverseStream(&audio);
    audio.UpdateFrame(-1, 0, psMic, uFrame, iFrameRate, webrtc::AudioFrame::kNormalSpeech,
                      webrtc::AudioFrame::kVadUnknown, 1);
    pProcessing->set_stream_delay_ms(iDelayMs);
    pProcessing->ProcessStream(&audio);
    std::copy_n(audio.data_, uFrame, psOut);
  }

 private:
  std::unique_ptr<webrtc::AudioProcessing> pProcessing;
  int iFrameRate;
  int iDelayMs;
};
#endif

// Processor time of this thread: other programs on the machine do not count.
double cpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::vector<std::int16_t> rounded(const Audio& audio) {
  std::vector<std::int16_t> samples(audio.size());
  std::transform(audio.begin(), audio.end(), samples.begin(), [](float x) {
    return static_cast<std::int16_t>(std::lround(std::clamp(x, -32512.0F, 32512.0F)));
  });
  return samples;
}

}  // namespace

std::unique_ptr<EchoCanceller> makeCanceller(const std::string& sName, int iRate, double dDelayMs,
                                             int iMicLead) {
  (void)dDelayMs;
  if (sName.starts_with("ours-")) return std::make_unique<Ours>(sName[5] - '0', iRate, iMicLead);
#ifdef QUORVEL_ECHO_PEERS
  if (sName == "speex") return std::make_unique<Speex>(iRate, dDelayMs);
  if (sName == "webrtc") return std::make_unique<Webrtc>(iRate, dDelayMs);
#endif
  throw std::runtime_error("unknown canceller " + sName);
}

Audio cancel(EchoCanceller& canceller, const Audio& far, const Audio& mic, int iRate, double* pdSeconds,
             const char* pcTrace) {
  const auto psFar = rounded(far);
  const auto psMic = rounded(mic);
  const auto uFrame = static_cast<std::size_t>(iRate / 250);
  std::vector<std::int16_t> out;
  out.reserve(mic.size() + 1024);
  std::FILE* pTrace = pcTrace != nullptr ? std::fopen(pcTrace, "w") : nullptr;
  const double dStart = cpuSeconds();
  for (std::size_t i = 0; i + uFrame <= mic.size(); i += uFrame) {
    canceller.process(psFar.data() + i, psMic.data() + i, uFrame, out);
    if (pTrace != nullptr) {
      std::fprintf(pTrace, "%.3f %s\n", static_cast<double>(i) / iRate, canceller.inside().c_str());
    }
  }
  if (pdSeconds != nullptr) {
    *pdSeconds = cpuSeconds() - dStart;
  }
  if (pTrace != nullptr) std::fclose(pTrace);
  // Our own output starts with the sample that the input starts with; a peer's is late inside itself.
  const bool bLate = dynamic_cast<Ours*>(&canceller) == nullptr;
  const std::size_t uSkip = bLate ? canceller.delay() : 0;
  Audio audio(mic.size(), 0);
  for (std::size_t i = 0; i + uSkip < out.size() && i < audio.size(); ++i) audio[i] = out[i + uSkip];
  return audio;
}
