// The media relay: a fixed table of session pairs, one per call, each with its own sockets and media thread.
// This header is what the SIP engine and the statistics pages see.
#pragma once

#include <ctime>

#include "common/FixedText.h"
#include "rtp/Codec.h"

struct sRtpSessionPair;

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

class MyRtp {
 public:
  int init();
  int openSessionPair(const sSessionPairRequest& request);
  int closeSessionPair(const char* callId1, const char* callId2);
  int findRtpIndex(const char* callId1, const char* callId2);
  void calcMOS(int pair);
};

inline MyRtp myRtp;
