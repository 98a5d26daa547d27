// The media relay: a fixed table of session pairs, one per call, each with its own sockets and media thread.
// What arrives on one leg is ordered, decoded, passed through the voice engine where the call asks for it,
// encoded in the other leg's codec and sent on.
//
//  1  Initialisation        rtp/Initialisation.cpp
//  2  Opening and closing   rtp/OpenSession.cpp, rtp/CloseSession.cpp, rtp/EndingPairs.cpp,
//                           rtp/PairSockets.cpp
//  3  Recordings            rtp/Recordings.cpp
//  4  Engine channels       rtp/EngineChannels.cpp
//  5  Media thread          rtp/MediaThread.cpp
//  6  Packets in order      rtp/PacketCheck.cpp, rtp/JitterBuffer.cpp
//  7  Audio                 rtp/ProcessData.cpp, rtp/RateConversion.cpp
//  8  Tones                 rtp/Tones.cpp
//  9  DTMF commands         rtp/DtmfCommands.cpp
// 10  Voice registration    rtp/VoiceRegistration.cpp
// 11  Call quality          rtp/CallQuality.cpp
//
// Threads: sections 1 to 4 and calcMOS run on the SIP thread, sections 5 to 10 and calcJitterStatistics on
// the media thread of the pair they name, which also fills initialisation records of section 4 when a key
// command restarts a channel: the settings these read are safe to share. A registration that is still running
// when its call ends is stopped on a thread of its own, after the media thread was joined, since deriving a
// voice and storing it would hold up all calls. "Side" is 0 or 1, "pair" an index of psPairs.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string_view>

#include "common/FixedText.h"
#include "engine/Kestrova.h"
#include "rtp/Codec.h"
#include "rtp/PairIndex.h"
#include "rtp/ProfileWrites.h"
#include "rtp/sRtpSessionPair.h"

class RtpHeader;
class VoiceProfile;

// What the SIP side knows of one leg when the call's media is agreed.
struct sSessionPairLeg {
  const char* pcCallID = "";
  int iLocalRtpPort = 0;
  int iRemoteRtpPort = 0;
  const char* pcRemoteIP = "";  // dotted
  int iNumCodecs = 0;
  const CodecList* psCodecs = nullptr;
  const char* pcPartyName = "";
  int iNonAudioPort = 0;  // far end's port of its non-audio section, 0 or -1 when none
};

// Side 0 is the leg towards the phone that placed the call, side 1 the partner leg.
struct sSessionPairRequest {
  sSessionPairLeg sLeg[2];
  int iCleaningType = 0;  // 0 none, 1 side 0, 2 side 1, 3 both
  std::time_t sTimeCallStart = 0;
  const char* pcTelephoneEventPT =
      "";  // payload type of side 0 as decimal text, leading blanks allowed, or empty
};

// select waits for descriptors below this one.
inline constexpr int kMaxDescriptors = FD_SETSIZE;
static_assert(kMaxDescriptors == 1024);

// Descriptors to reckon with for that many calls. A call needs four sockets and up to six recordings or a
// registration's files, but few calls need all at once; the process has some of its own.
constexpr std::int64_t descriptorsFor(std::int64_t calls) {
  constexpr std::int64_t kPerCall = 8;
  constexpr std::int64_t kOfTheProcess = 8;
  return calls * kPerCall + kOfTheProcess;
}

inline constexpr int kMostCalls = 127;
static_assert(descriptorsFor(kMostCalls) <= kMaxDescriptors &&
              descriptorsFor(kMostCalls + 1) > kMaxDescriptors);

// The engine's channel of a side, for noise and echo alike; further pairs have none.
constexpr std::uint16_t channelOf(int side, int pair) {
  return static_cast<std::uint16_t>(2 * pair + side);
}
inline constexpr int kPairsWithChannels = (KESTROVA_MAX_CHANNEL + 1) / 2;

inline constexpr int kMaxToneBytes = 16000;  // 2 s; one byte is one 8 kHz sample time in every codec

// A tone encoded in one codec.
struct sToneBuffer {
  std::array<unsigned char, kMaxToneBytes> pcData;
  int iLength = 0;  // 0: no tone for that codec
};

// The quality figures of one direction of a call, as the statistics line and the pages print them. Levels and
// gains are the engine's figures; averages are truncated.
struct sCallFigures {
  int iConfidentVoicePercent;
  int iAvgNoise;
  int iMaxNoise;
  int iAvgAgc;
  int iMaxAgc;
  int iAvgEcho;
  int iMaxEcho;
  int iAvgJitterMs;
  int iMaxJitterMs;
  float fPacketLossPercent;
  int iAvgDelayMs;
  int iMaxDelayMs;
  float fAvgMos;  // as of the last calcMOS
  float fMinMos;
};

class MyRtp {
 public:
  // The tables, in the order of their use. Codes are indexed by the sample, taken as unsigned, >> 3.
  std::unique_ptr<sRtpSessionPair[]> psPairs;  // NumCallsToFilter entries
  int iMaxPairIndex = -1;                      // highest index in use; -1 when none is
  std::array<sToneBuffer, kNumCodecValues> psFailTones;
  std::array<sToneBuffer, kNumCodecValues> psOKTones;
  std::array<sCodecTiming, kNumCodecValues> psCodecTiming{};
  std::array<std::uint8_t, 8192> pucLinearToALaw{};
  std::array<std::int16_t, 256> psALawToLinear{};
  std::array<std::uint8_t, 8192> pucLinearToULaw{};
  std::array<std::int16_t, 256> psULawToLinear{};

  // ---- 1 Initialisation ----

  // Once, after the configuration was read and before the SIP engine starts. 0, or 2 on failure.
  int init();
  // Fills the four G.711 tables.
  void initializeCodecTables();

  // ---- 2 Opening and closing ----

  // Opens a pair and starts its media thread. The pair's index, or -1. After a failure the slot stays in use
  // with what was opened so far; closeSessionPair releases it.
  [[nodiscard]] int openSessionPair(const sSessionPairRequest& request);
  // Stops and releases the open pair that carries either Call-ID on either side. Its index, or -1 (silently)
  // when there is none. Does not wait for the media thread's time-out, nor for a registration that the call
  // leaves running: the slot is free again when that has ended. One that ends by its own length in that very
  // moment is waited for.
  int closeSessionPair(const char* callId1, const char* callId2);
  // Waits until the registrations of all closed pairs have ended.
  void finishEndings();
  // Closes every open pair and waits for its registrations: no thread uses the tables any more.
  void closeAll();
  // Index of the open pair that carries either Call-ID on either side, lowest first; -1, logged, when none.
  int findRtpIndex(const char* callId1, const char* callId2);
  // Refills the descriptor set from the pair's four sockets.
  void recalculateFDSet(int pair);

  // ---- 3 Recordings ----

  // Makes text safe for a file name, in place. As a path it keeps ':', '/', '\' and blanks.
  static void replaceSpecialChars(char* text, bool forPath);

  // ---- 4 Engine channels ----

  // Is the side's input processed, in any or in the named way?
  bool shouldProcessFrame(int side, int pair) const;
  bool shouldProcessAECMicFrame(int side, int pair) const;
  bool shouldProcessAECSpkFrame(int side, int pair) const;
  // Initialisation records from the settings, for the pair's sample rate, not bypassed and without a learned
  // voice.
  void fillKestrovaInitNoise(sKestrovaInit& init, int pair) const;
  void fillKestrovaInitAEC(sKestrovaInit& init, int pair) const;

  // ---- 5 Media thread ----

  // Body of the media thread; `arg` points at the pair's iPairIndex.
  void threadMainLoop(void* arg);
  // Reads at most one datagram from each ready socket into the queue, or forwards it at once when it is not
  // audio.
  void checkFDSet(const fd_set* ready, int pair);
  // Pops a buffer from the pair's pool (null when empty); pushes one back.
  char* getMsgFromPool(int pair);
  void returnMsgToPool(char* buffer, int pair);
  bool isNonAudioPort(int side, int pair, int fromPort) const;
  bool isNonAudioRTCPPort(int side, int pair, int fromPort) const;
  void sendToNonAudioMsg(int side, int pair, const char* msg, int len);
  void sendToNonAudioRTCPMsg(int side, int pair, const char* msg, int len);

  // ---- 6 Packets in order ----
  // `msg` is a whole datagram in a buffer of kMessageBufferBytes; it is changed in place and sent.

  int analyzeRtpMsg(int side, int pair, char* msg, int len);
  int analyzeRtcpMsg(int side, int pair, const char* msg, int len);
  // 0 handled, 1 dropped.
  int parseAndSendRtpMsg(int side, int pair, char* msg, int len);
  // The codec of the packet's payload type, when the side negotiated it.
  bool isValidAudioCodecOfPacket(int side, int pair, const char* msg,
                                 SUPPORTED_CODECS_IN_QUORVEL& codec) const;
  // The same for a packet that passed that check before.
  SUPPORTED_CODECS_IN_QUORVEL extractCodecFromValidMsg(int side, int pair, const char* msg) const;
  // Writes the payload type that is sent towards the other side; the marker bit stays.
  void updateCodecHeaderInRtpMsg(int side, int pair, char* msg) const;
  void insertToJitterBuffer(int side, int pair, const char* msg, int len, int seq);
  // Sends what is next in order; with `force`, the first packet in any case, its gap counted as one loss.
  void processJitterBuffer(bool force, int side, int pair);
  void addToneAndSendRtp(int side, int pair, char* msg, int len);

  // ---- 7 Audio ----

  // Decodes the payload, runs the engine frames it completes and rebuilds the payload in place in the other
  // side's codec. outLen: bytes of the new payload, at most payloadLen.
  void processData(int side, int pair, char* payload, int payloadLen, SUPPORTED_CODECS_IN_QUORVEL codec,
                   int& outLen);

  // ---- 8 Tones ----
  // Into the packets received on the side, that is, heard by the party on the other one.

  void playOKTone(int side, int pair);
  void playFailTone(int side, int pair);
  void addToneToRtpMsg(int side, int pair, char* msg, int len);

  // ---- 9 DTMF commands ----

  // Collects the digits of an RFC 4733 packet. Always 0.
  int handleTelephoneEvent(int side, int pair, const char* msg, int len);
  // Runs at most one command; a digit string that was used up is emptied.
  void checkAndHandleDTMFCommands(int side, int pair, char* digits);
  void doActivation(int side, int pair, std::string_view name);
  void doDisable(int side, int pair);

  // ---- 10 Voice registration ----

  void doRegistration(int side, int pair, std::string_view name);
  void doStopRegistration(int side, int pair);
  void doAbortRegistration(int side, int pair);
  static void writeWaveHeader(std::FILE* file, std::uint32_t dataBytes, int sampleRate);
  static void writeWaveData(std::FILE* raw, std::FILE* wave, std::uint32_t dataBytes);

  // ---- 11 Call quality ----

  // Counts how much audio arrived ahead of the packet with this sequence number.
  void calcJitterStatistics(int seq, int side, int pair);
  // Brings fAvgMos and fMinMos of both sides up to date.
  void calcMOS(int pair);
  sCallFigures figuresOf(int side, int pair) const;
  // Seconds of audio that side 0 has sent so far.
  int callSeconds(int pair) const;

 private:
  // 1
  bool allocatePairs(int numPairs);
  bool initializeEngine();
  void loadTone(const char* path, const char* name, std::array<sToneBuffer, kNumCodecValues>& tones);
  // 2
  int takeFreeSlot(const sSessionPairRequest& request);
  void storeLegs(int pair, const sSessionPairRequest& request, in_addr own);
  void storeCodecs(int pair, const sSessionPairRequest& request);
  void resetForCall(int pair);
  bool createSocket(int& descriptor, int pair);
  bool openSockets(int pair);
  bool startThread(int pair);
  int findOpenPair(const char* callId1, const char* callId2) const;
  [[nodiscard]] bool closePair(int pair);
  void stopThread(int pair);
  void closeSockets(int side, int pair);
  void leaveTable(int pair);
  bool isLearning(int pair) const;
  bool createThread(int pair, void* (*body)(void*));
  bool endInBackground(int pair);
  static void* endingThread(void* arg);
  void endPair(int pair);
  void endChannels(int side, int pair);
  void freeEnded(bool bWait);
  // 3
  void openRecordings(int pair, std::time_t callStart);
  void closeRecordings(int pair);
  void writeOpenLine(int pair);
  void writeClosingLine(int pair);
  // 4
  bool startEngineChannels(int pair);
  // 5
  bool runRound(int pair);
  void countSelectError(int pair);
  bool readRtpSocket(int side, int pair);
  bool readRtcpSocket(int side, int pair);
  bool drainQueue(int pair);
  // 6
  bool startsNewStream(int side, int pair, const RtpHeader& header) const;
  void resynchronise(int side, int pair, const RtpHeader& header);
  void sendUnchanged(int side, int pair, char* msg, int len);
  void sendProcessed(int side, int pair, char* msg, int len, SUPPORTED_CODECS_IN_QUORVEL codec);
  void sendBuffered(int side, int pair, sJitterBufferEntry& entry);
  // 7
  int decodeIntoFrame(int side, int pair, const char* payload, int remaining,
                      SUPPORTED_CODECS_IN_QUORVEL codec);
  void encodeFromRing(int side, int pair, char* payload, int outLen);
  void handleFrame(int side, int pair);
  void handleRegistrationFrame(int side, int pair, sKestrovaFrameResult& result);
  void handleEngineFrame(int side, int pair, sKestrovaFrameResult& result);
  void checkDigits(int side, int pair, const sKestrovaFrameResult& result);
  // 9
  bool restartNoiseChannel(int side, int pair, const sAPISpeaker* speaker, bool bypassed);
  bool restartEchoChannel(int side, int pair, bool bypassed);
  // 10
  std::string_view registeredProfile(int side, int pair) const;
  bool loadProfile(int side, int pair, std::string_view name, VoiceProfile& profile);

  PairIndex pairIndex;
  ProfileWrites profileWrites;
};

inline MyRtp myRtp;
