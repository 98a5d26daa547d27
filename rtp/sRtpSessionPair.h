// The relay's record of one call. Side 0 is the leg towards the phone that placed the call, side 1 the
// partner leg; a packet that arrives on side s leaves through the sockets of side 1 - s.
//
// The record is made of parts, in the order of its fields; opening a pair resets each part by assigning a
// fresh one. What would be large to reset (packets, message buffers, codec states) is not: it is written
// before it is read.
//
// Threads: the SIP thread writes everything before the pair's media thread exists and after it was joined. In
// between the record belongs to the media thread; the SIP thread reads what opening wrote and the Relaxed and
// PublishedCounter fields, and it writes bStopRequested. A call that ends while a voice is being registered
// leaves its record to the ending thread, until that one was joined.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/time.h>

#include "common/FixedText.h"
#include "common/Handle.h"
#include "common/Relaxed.h"
#include "rtp/Codec.h"
#include "rtp/MyGWB.h"

template <typename T>
using PerSide = std::array<T, 2>;

inline constexpr int kMessageBufferBytes = 2000;  // one datagram of at most 1999 bytes
inline constexpr int kMaxDatagramBytes = kMessageBufferBytes - 1;
inline constexpr int kNumMessageBuffers = 30;     // as many as the queue has slots
inline constexpr int kJitterBufferEntries = 5;    // four wait for a gap to be filled, the fifth ends the wait
inline constexpr int kWidebandFrameSamples = 64;  // 4 ms at 16 kHz; 32 samples at 8 kHz
inline constexpr int kOutRingSamples = 800;       // 100 ms at 8 kHz, 50 ms at 16 kHz
inline constexpr int kMaxDtmfDigits = 99;
inline constexpr std::uint8_t kNoTelephoneEventPT = 255;  // payload types have 7 bits

constexpr int samplesPerFrame(int sampleRate) {
  return sampleRate == 8000 ? kWidebandFrameSamples / 2 : kWidebandFrameSamples;
}

// A datagram that waits for the packet path.
struct sRtpQueuedMsg {
  char* pcMsg = nullptr;  // buffer of the pool; null: the slot is free
  bool bIsRtp = false;    // from the RTP socket, else from the RTCP socket
  int iSide = 0;
  int iLength = 0;
};

// A whole RTP packet that arrived ahead of its turn. Entries are kept in ascending sequence order.
struct sJitterBufferEntry {
  std::array<char, kMessageBufferBytes> pcPacket;
  int iLength;
  int iSeq;
};

// ---- The legs: who they are, where they are, how they are reached ----
struct sPairLegs {
  bool bInUse = false;
  bool bOpened = false;  // by the call that has it or had it last: with sockets, engine channels and thread
  PerSide<FixedText<100>> pcCallID;
  PerSide<int> iLastSeq{-1, -1};  // last packet handed to the packet path; -1 until the first
  PerSide<int> iLocalRtpPort{};
  PerSide<int> iRemoteRtpPort{};
  PerSide<int> iRtpSocket{-1, -1};
  PerSide<sockaddr_in> sLocalRtpAddr{};
  PerSide<sockaddr_in> sRemoteRtpAddr{};
  PerSide<int> iLocalRtcpPort{};
  PerSide<int> iRemoteRtcpPort{};
  PerSide<int> iRtcpSocket{-1, -1};
  PerSide<sockaddr_in> sLocalRtcpAddr{};
  PerSide<sockaddr_in> sRemoteRtcpAddr{};
  PerSide<int> iNonAudioPort{};  // far end's port of its first non-audio section; 0: none
  PerSide<sockaddr_in> sRemoteNonAudioAddr{};
  PerSide<sockaddr_in> sRemoteNonAudioRtcpAddr{};
  PerSide<FixedText<166>> pcPartyName;
  int iCleaningType = 0;  // 0 none, 1 side 0, 2 side 1, 3 both
  std::uint8_t ucTelephoneEventPT = kNoTelephoneEventPT;
};

struct sPairDigits {
  PerSide<FixedText<kMaxDtmfDigits + 1>> pcDtmfDigits;  // received as telephone events, in order
  PerSide<std::int64_t> iLastDigitSample{};             // iProcessedSamples when the last event arrived
};

// Empty where nothing is recorded.
struct sRecording {
  File pfFile;
  FixedText<800> pcPath;  // a library (299), the time with its counters, two party names and the kind of file
};

struct sPairRecordings {
  PerSide<sRecording> pfOrigRecording;   // decoded input of the side
  PerSide<sRecording> pfCleanRecording;  // processed output of the side
  PerSide<sRecording> pfSynchFile;  // order in which microphone and loudspeaker frames reached the engine
};

// Linear samples between decoder and encoder, at iSampleRate.
struct sPairSamples {
  PerSide<int> iFrameFill{};
  PerSide<std::array<std::int16_t, kWidebandFrameSamples>> psFrame;  // the engine frame being assembled
  PerSide<std::array<std::int16_t, kOutRingSamples>> psOutRing;      // processed, not yet encoded
  PerSide<int> iOutRingWrite{};
  PerSide<int> iOutRingAvailable{};
  PerSide<int> iOutRingRead{};
};

// Read by the statistics pages while packets flow, except fMinMos and fAvgMos, which only the SIP thread
// touches. 32 bits of samples would be full after 37 hours at 16 kHz.
struct sPairStatistics {
  PerSide<Relaxed<std::int64_t>> iSpeechSamples{};
  PerSide<Relaxed<std::int64_t>> iConfidentVoiceSamples{};
  PerSide<Relaxed<std::int64_t>> iProcessedSamples{};  // call duration in samples
  PerSide<Relaxed<double>> dNoiseSum{};                // sums and maxima are per engine frame
  PerSide<Relaxed<double>> dEchoSum{};
  PerSide<Relaxed<double>> dAgcSum{};
  PerSide<Relaxed<int>> iMaxNoise{};
  PerSide<Relaxed<int>> iMaxEcho{};
  PerSide<Relaxed<int>> iMaxAgc{};
  PerSide<Relaxed<int>> iPacketsReceived{};
  PerSide<Relaxed<int>> iMaxJitter{};  // RTP timestamp units
  PerSide<Relaxed<std::int64_t>> iJitterSum{};
  PerSide<Relaxed<int>> iPacketsLost{};
  PerSide<float> fMinMos{};
  PerSide<float> fAvgMos{};
};

struct sPairCommands {
  PerSide<bool> bRegistering{};
  PerSide<int> iRegistrationSamples{};
  PerSide<std::time_t> tRegistrationStart{-1, -1};  // of Clock::steadyTime
  PerSide<File> pfRegistrationData;
  PerSide<File> pfRegistrationRaw;
  PerSide<File> pfRegistrationWave;
  PerSide<FixedText<300>> pcRegistrationRawPath;
  PerSide<FixedText<50>> pcRegistrationName;    // of the voice being registered or activated
  PerSide<const unsigned char*> pucToneData{};  // next tone byte for packets received on the side
  PerSide<int> iToneRemaining{};                // tone bytes still to play; 0: no tone
  PerSide<FixedText<100>> pcLastDtmfCommand;    // last digit string that was examined
};

struct sPairJitterBuffer {
  PerSide<std::array<sJitterBufferEntry, kJitterBufferEntries>> psJitter;
  PerSide<int> iJitterCount{};
};

struct sPairDelay {
  PerSide<std::uint32_t> uRefTimestamp{};
  PerSide<std::uint32_t> uSsrc{};
  PerSide<timeval> sRefArrival{};     // of Clock::steadyTime
  PerSide<Relaxed<int>> iMaxDelay{};  // milliseconds
  PerSide<int> iDelayCount{};         // since the last reference packet
  PerSide<Relaxed<std::int64_t>> iDelaySum{};
};

struct sPairCodecLists {
  PerSide<int> iNumCodecs{};
  PerSide<CodecList> psCodecs{};  // entry 0 is the codec that is sent towards the side
};

struct sPairCodecStates {
  PerSide<sGWBEncode_t> sG722Encoder;  // for sending towards the side
  PerSide<sGWBDecode_t> sG722Decoder;  // for packets received from the side
};

struct sPairProcessing {
  int iSampleRate = 8000;  // of the engine frames
  PerSide<bool> bNoiseReduction{};
  PerSide<bool> bAecMic{};  // echo is cancelled in the side's input
  PerSide<bool> bAecSpk{};  // the side's input is the echo reference of the other side
};

struct sPairQueue {
  std::array<sRtpQueuedMsg, kNumMessageBuffers> psQueue{};
  int iQueueRead = -1;   // last slot handed out
  int iQueueWrite = -1;  // last slot filled
};

struct sPairThread {
  PublishedCounter iSelectErrors;              // consecutive failures
  PerSide<PublishedCounter> iInactiveSeconds;  // since the last datagram of the side
  PerSide<std::time_t> tLastPacket{};          // of Clock::steadyTime
  Relaxed<bool> bStopRequested{false};
  Relaxed<bool> bThreadRunning{false};  // created and not ended
  pthread_t tThread{};
  bool bThreadToJoin = false;   // created and not joined, though it may have ended
  bool bEnding = false;         // the call is over; tThread ends its registrations
  Relaxed<bool> bEnded{false};  // and has done so
  fd_set sReadSet;
  int iMaxFd = -1;
};

struct sRtpSessionPair : sPairLegs,
                         sPairDigits,
                         sPairRecordings,
                         sPairSamples,
                         sPairStatistics,
                         sPairCommands,
                         sPairJitterBuffer,
                         sPairDelay,
                         sPairCodecLists,
                         sPairCodecStates,
                         sPairProcessing,
                         sPairQueue,
                         sPairThread {
  int iPairIndex = -1;   // own index in the table; the media thread's argument points here
  int iFileCounter = 0;  // 0..9, makes the names of recordings differ
  std::array<std::array<char, kMessageBufferBytes>, kNumMessageBuffers> pcMsgBuffers;
  char* pcFreeMsg =
      nullptr;  // head of the pool's free list; a free buffer starts with the next one's address
};
