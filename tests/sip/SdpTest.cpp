// SDP as real phones send it, and what Quorvel makes of it for the other leg. Slot 0 faces the caller, slot 1
// is its partner.
#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

#include "app/config/Settings.h"
#include "sip/MySip.h"
#include "tests/support/LoopbackPeer.h"
#include "tests/support/SipText.h"
#include "tests/support/TestInstallation.h"

namespace {

class SdpTest : public testing::Test {
 protected:
  SdpTest() {
    sip.psPhones = std::make_unique<sPhone[]>(2);
    for (int slot = 0; slot < 2; ++slot) {
      sPhone& leg = sip.phone(slot);
      leg.iPairIndex = 1 - slot;
      leg.iRtpPort = 10000 + 2 * slot;
      leg.iSdpSessionID = 77;
      leg.iSdpVersion = 3;
      leg.pcMediaIP.assignCut("10.1.1.5");
      leg.sRemoteAddress = LoopbackPeer::address(5070, "10.0.0.70");
      leg.iNonAudioRemotePort = -1;
      sip.initializeCodecNegotiationList(slot);
    }
    setOptions(0, 0, 1);
  }
  ~SdpTest() override { setOptions(0, 0, 0); }

  static void setOptions(int copyCodecList, int differentIPs, int useConnection) {
    iCopyCodecListFromInitialInvite = copyCodecList;
    iCanHaveDifferentIPForDifferentMedia = differentIPs;
    iUseConnectionSessionDescriptorForFarEndMediaAddress = useConnection;
  }

  sPhone& caller() { return sip.phone(0); }
  static std::string offer(std::string_view sdp) { return sip_text::build({.sdp = std::string(sdp)}); }
  int analyze(std::string_view sdp) { return sip.analyzeMediaInSDP(0, offer(sdp)); }
  std::string written(int slot) {
    MessageText text;
    return std::string(sip.prepareSDP(slot, text));
  }
  // Payload types of the slot's list, for example "9 0 8".
  std::string codecs(int slot) {
    std::string list;
    for (int i = 0; i < sip.phone(slot).iNumCodecs; ++i) {
      if (i > 0) list += ' ';
      list += std::to_string(sip.phone(slot).psCodecs[static_cast<std::size_t>(i)].iPayloadType);
    }
    return list;
  }

  TestInstallation installation;
  MySip sip;
};

// ---- Reading ----

struct PhoneOffer {
  const char* phone;
  std::string sdp;
  int port;
  const char* ip;
  const char* codecs;
  const char* eventType;
  const char* eventAttrs;
  const char* direction;
};

TEST_F(SdpTest, OffersOfRealPhonesAreRead) {
  const PhoneOffer offers[] = {
      {"baresip",
       "v=0\r\no=- 3843 1207 IN IP4 10.0.0.20\r\ns=-\r\nc=IN IP4 10.0.0.20\r\nt=0 0\r\na=tool:baresip "
       "1.0.0\r\n"
       "m=audio 10222 RTP/AVP 9 0 8 101\r\nb=AS:125\r\na=rtpmap:9 G722/8000\r\na=rtpmap:0 PCMU/8000\r\n"
       "a=rtpmap:8 PCMA/8000\r\na=rtpmap:101 telephone-event/8000\r\na=fmtp:101 0-15\r\na=rtcp:10223\r\n"
       "a=sendrecv\r\na=label:1\r\na=rtcp-rsize\r\na=ssrc:3105712487 "
       "cname:sip:100@10.0.0.20\r\na=ptime:20\r\n",
       10222, "10.0.0.20", "9 0 8", " 101", "a=rtpmap:101 telephone-event/8000\r\na=fmtp:101 0-15\r\n",
       "a=sendrecv\r\n"},
      {"linphone style: events at several rates, no fmtp, AVPF",
       "v=0\r\no=100 2890 1934 IN IP4 10.0.0.30\r\ns=Talk\r\nc=IN IP4 10.0.0.30\r\nt=0 0\r\n"
       "m=audio 7078 RTP/AVPF 96 97 98 0 8 99 100\r\na=rtpmap:96 opus/48000/2\r\na=fmtp:96 useinbandfec=1\r\n"
       "a=rtpmap:97 speex/16000\r\na=fmtp:97 vbr=on\r\na=rtpmap:98 speex/8000\r\n"
       "a=rtpmap:99 telephone-event/48000\r\na=rtpmap:100 telephone-event/8000\r\na=rtcp-fb:* trr-int "
       "5000\r\n",
       7078, "10.0.0.30", "0 8", " 99", "a=rtpmap:99 telephone-event/48000\r\na=fmtp:99 0-15\r\n", ""},
      {"desk phone style: address in the section, ptime first, G.729",
       "v=0\r\no=Desk-SIPUA 26425 0 IN IP4 10.0.0.40\r\ns=SIP Call\r\nb=AS:4064\r\nt=0 0\r\n"
       "m=audio 28486 RTP/AVP 0 8 116 18 101\r\nc=IN IP4 10.0.0.41\r\nb=TIAS:64000\r\na=rtpmap:0 "
       "PCMU/8000\r\n"
       "a=rtpmap:8 PCMA/8000\r\na=rtpmap:116 iLBC/8000\r\na=fmtp:116 mode=20\r\na=rtpmap:18 G729/8000\r\n"
       "a=fmtp:18 annexb=yes\r\na=rtpmap:101 telephone-event/8000\r\na=fmtp:101 0-16\r\na=sendonly\r\n",
       28486, "10.0.0.41", "0 8", " 101", "a=rtpmap:101 telephone-event/8000\r\na=fmtp:101 0-16\r\n",
       "a=sendonly\r\n"},
  };
  for (const PhoneOffer& one : offers) {
    SCOPED_TRACE(one.phone);
    EXPECT_EQ(analyze(one.sdp), 0);
    EXPECT_TRUE(caller().bAudioSectionSeen);
    EXPECT_EQ(caller().iRemoteRtpPort, one.port);
    EXPECT_EQ(caller().pcRemoteRtpIP, one.ip);
    EXPECT_EQ(codecs(0), one.codecs);
    EXPECT_EQ(caller().pcTelephoneEventPT, one.eventType);
    EXPECT_EQ(caller().pcTelephoneEventAttrs, one.eventAttrs);
    EXPECT_EQ(caller().pcDirectionAttribute, one.direction);
    EXPECT_EQ(caller().bOnHold, std::string_view(one.direction) == "a=sendonly\r\n");
    EXPECT_EQ(installation.log(), "");
  }
}

TEST_F(SdpTest, CodecListKeepsOursOrTakesThePeersOrder) {
  const std::tuple<int, const char*, const char*> cases[] = {
      {0, "8 0 101", "0 8"},  {1, "8 0 101", "8 0"}, {1, "8 9 0", "8 9 0"}, {1, "18 8", "8"},
      {0, "80 00 08 9", "9"}, {0, "0  8", "0 8"},    {0, "0 8 ", "0 8"},
  };
  for (const auto& [copy, formats, kept] : cases) {
    setOptions(copy, 0, 1);
    EXPECT_EQ(analyze(sip_text::sdp(4000, formats, "a=ptime:20\r\n")), 0) << formats;
    EXPECT_EQ(codecs(0), kept) << formats;
  }
  // The port is no payload type.
  EXPECT_NE(analyze(sip_text::sdp(8, "18", "a=ptime:20\r\n")), 0);
  EXPECT_EQ(installation.logCount("WARNING in MySip::analyzeAudioInSDPHelper, Could not match any CODEC."),
            1);
}

TEST_F(SdpTest, MediaLineWithNothingAfterItKeepsTheList) {
  EXPECT_EQ(analyze(sip_text::sdp(4000, "8 0", "a=ptime:20\r\n")), 0);
  EXPECT_EQ(analyze(sip_text::sdp(4002, "18")), 0);
  EXPECT_EQ(codecs(0), "0 8");
  EXPECT_EQ(caller().iRemoteRtpPort, 4002);
  sip.copyCodecNegotionList(0, 1);
  EXPECT_EQ(codecs(1), "0 8");
}

TEST_F(SdpTest, UnknownPayloadTypeIsLearntFromTheRtpmapLine) {
  const auto narrowWithDynamicType = [&](std::string_view rest) {
    sip.initializeCodecNegotiationList(0);
    caller().psCodecs[0].iPayloadType = -1;
    sip.narrowCodecNegotiationList(0, "4000 RTP/AVP 0 110 ", rest);
    return codecs(0);
  };
  EXPECT_EQ(narrowWithDynamicType("a=rtpmap:0 pcmu/8000\r\na=rtpmap:110 g722/8000\r\n"), "110 0");
  EXPECT_EQ(narrowWithDynamicType("a=rtpmap:111 G722/8000\r\n"), "0");
  for (const char* unreadable : {"G722/8000", "a=rtpmap:x G722/8000", "a=rtpmap:-1 G722/8000", ":", ""})
    EXPECT_EQ(narrowWithDynamicType(unreadable), "0") << unreadable;
}

TEST_F(SdpTest, HoldIsRecognisedByAddressOrDirection) {
  const struct {
    const char* ip;
    const char* lines;
    bool hold;
    bool nullAddress;
    const char* direction;
  } cases[] = {
      {"0.0.0.0", "a=ptime:20\r\n", true, true, ""},
      {"0.0.0.0", "a=sendrecv\r\n", true, true, "a=sendrecv\r\n"},
      {"10.0.0.1", "a=inactive\r\n", true, false, "a=inactive\r\n"},
      {"10.0.0.1", "A=RecvOnly\r\n", true, false, "a=recvonly\r\n"},
      {"10.0.0.1", "a=sendonly\r\n", true, false, "a=sendonly\r\n"},
      {"10.0.0.1", "a=sendonly\r\na=sendrecv\r\n", false, false, "a=sendrecv\r\n"},
      {"10.0.0.1", "a=ptime:20\r\n", false, false, ""},
  };
  for (const auto& one : cases) {
    EXPECT_EQ(analyze(sip_text::sdp(4000, "0", one.lines, one.ip)), 0);
    EXPECT_EQ(caller().bOnHold, one.hold) << one.ip << one.lines;
    EXPECT_EQ(caller().bHoldByNullAddress, one.nullAddress) << one.ip << one.lines;
    EXPECT_EQ(caller().pcDirectionAttribute, one.direction);
  }
}

TEST_F(SdpTest, MediaAddressComesFromTheSectionTheSessionOrTheSignalling) {
  const std::string both = sip_text::sdp(4000, "0", "c=IN IP4 10.0.0.2\r\n", "10.0.0.1");
  EXPECT_EQ(analyze(both), 0);
  EXPECT_EQ(caller().pcRemoteRtpIP, "10.0.0.2");
  setOptions(0, 0, 0);
  EXPECT_EQ(analyze(both), 0);
  EXPECT_EQ(caller().pcRemoteRtpIP, "10.0.0.70");

  setOptions(0, 0, 1);
  for (const std::size_t length : {15U, 16U, 17U}) {
    const std::string ip = "10." + std::string(length - 3, '1');
    EXPECT_EQ(analyze(sip_text::sdp(4000, "0", "a=ptime:20\r\n", ip)) == 0, length <= 16) << length;
  }
  EXPECT_TRUE(installation.logCount("unable to find connection data for phone 0\n") == 1);
}

TEST_F(SdpTest, BadAudioSectionFailsTheSdp) {
  const char* sections[] = {
      "m=audio\r\na=x\r\n",
      "m=audiox 4000 RTP/AVP 0\r\na=x\r\n",
      "m=audio x RTP/AVP 0\r\na=x\r\n",
      "m=audio -1 RTP/AVP 0\r\na=x\r\n",
      "m=audio 65536 RTP/AVP 0\r\na=x\r\n",
      "m=audio 4000 RTP/AVP 0",
      "m=audio 4000 RTP/SAVP 0\r\na=x\r\n",
      "m=audio 4000 RTP/AVP 18\r\na=x\r\n",
      "m=audio 4000 RTP/AVP 0\r\na=rtpmap:x telephone-event/8000\r\n",
      "m=audio 4000 RTP/AVP 0\r\na=rtpmap:128 telephone-event/8000\r\n",
  };
  const std::string head = "v=0\r\nc=IN IP4 10.0.0.1\r\nt=0 0\r\n";
  for (const char* section : sections) {
    installation.clearLog();
    EXPECT_NE(analyze(head + section), 0) << section;
    EXPECT_EQ(installation.logCount("audio section in SDP is not good for phone 0\n"), 1) << section;
  }
  EXPECT_EQ(analyze(head + "m=audio 65535 RTP/AVP 0\r\na=x\r\n"), 0);
  EXPECT_EQ(analyze(head), 0);
  EXPECT_FALSE(caller().bAudioSectionSeen);
}

TEST_F(SdpTest, SectionsAfterABadAudioSectionAreStillRead) {
  EXPECT_NE(analyze(sip_text::sdp(4000, "18", "a=x\r\nm=video 5000 RTP/AVP 96\r\n")), 0);
  EXPECT_EQ(caller().iNonAudioRemotePort, 5000);
}

TEST_F(SdpTest, AttributeValuesAreCollectedUpToTheirLimits) {
  const auto lines = [](std::string_view start, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += std::string(start) + std::to_string(i) + "\r\n";
    return text;
  };
  MySip::SdpValues values;
  int count = 0;
  for (const int given : {18, 19, 20}) {
    installation.clearLog();
    MySip::extractRTPMaps(values, count, lines("a=rtpmap:", given));
    EXPECT_EQ(count, std::min(given, 19));
    MySip::extractFMTPs(values, count, lines("a=fmtp:", given));
    EXPECT_EQ(count, std::min(given, 19));
    EXPECT_EQ(installation.logCount("too many RTP Maps\n"), given > 19 ? 1 : 0);
    EXPECT_EQ(installation.logCount("too many FMTPs\n"), given > 19 ? 1 : 0);
  }
  installation.clearLog();
  for (const int margin : {-1, 0, 1}) {
    const auto room = [margin](int capacity) {
      return std::string(static_cast<std::size_t>(capacity + margin), 'v');
    };
    const std::string maps = "a=rtpmap:" + room(50) + "\r\na=rtpmap:next";
    MySip::extractRTPMaps(values, count, maps);
    EXPECT_EQ(count, margin < 0 ? 2 : 1);
    EXPECT_EQ(values[static_cast<std::size_t>(count) - 1], "next");
    const std::string fmtps = "a=fmtp:" + room(120) + "\r\na=fmtp:next";
    MySip::extractFMTPs(values, count, fmtps);
    EXPECT_EQ(count, margin < 0 ? 2 : 1);
  }
  EXPECT_EQ(installation.logCount("size of RTP Map value too long\n"), 2);
  EXPECT_EQ(installation.logCount("size of FMTP value too long\n"), 2);
}

TEST_F(SdpTest, LegWithoutSdpIsReadyForAnAnswer) {
  ASSERT_EQ(analyze(sip_text::sdp(4000, "0 101", "a=rtpmap:101 telephone-event/8000\r\na=sendonly\r\n")), 0);
  sip.initializeAudioWithoutSDP(0);
  EXPECT_TRUE(caller().bAudioSectionSeen);
  EXPECT_FALSE(caller().bOnHold);
  EXPECT_EQ(caller().iRemoteRtpPort, 0);
  EXPECT_EQ(caller().pcRemoteRtpIP, "0.0.0.0");
  EXPECT_EQ(caller().pcTelephoneEventPT.size() + caller().pcTelephoneEventAttrs.size(), 0U);
  EXPECT_EQ(caller().pcDirectionAttribute, "");
  EXPECT_EQ(codecs(0), "0");
}

// ---- Non-audio sections ----

TEST_F(SdpTest, VideoIsOfferedOnWithOurPortOrWithItsOwnAddress) {
  const std::tuple<int, const char*, int, const char*> cases[] = {
      {0, "m=video 5000 RTP/AVP 96\r\nc=IN IP4 10.0.0.2\r\na=rtpmap:96 H264/90000\r\n", 5000,
       "m=video 10002 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"},
      {0, "m=application 5000/2 udp x\r\na=y\r\nC=in ip4 1.1.1.1", 5000,
       "m=application 10002/2 udp x\r\na=y\r\n"},
      {0, "m=video 5000 RTP/AVP 96\r\nm=image 5002 udptl t38\r\n\r\n\r\n", 5002,
       "m=image 10002 udptl t38\r\n"},
      {0, "m=video 0 RTP/AVP 96\r\n", 0, "m=video 0 RTP/AVP 96\r\n"},
      {1, "m=video 5000 RTP/AVP 96\r\na=z\r\n", -1,
       "m=video 5000 RTP/AVP 96\r\na=z\r\nc=IN IP4 127.0.0.1\r\n"},
      {1, "m=video 5000 RTP/AVP 96\r\nc=IN IP4 10.0.0.2\r\n", -1,
       "m=video 5000 RTP/AVP 96\r\nc=IN IP4 10.0.0.2\r\n"},
  };
  for (const auto& [differentIPs, section, port, relayed] : cases) {
    setOptions(0, differentIPs, 1);
    caller().iNonAudioRemotePort = -1;
    EXPECT_EQ(analyze(sip_text::sdp(4000, "0", section)), 0);
    EXPECT_EQ(caller().iNonAudioRemotePort, port) << section;
    EXPECT_EQ(caller().pcNonAudioMedia, relayed);
  }
}

TEST_F(SdpTest, NonAudioSectionThatCannotBeRelayedIsLeftOut) {
  for (const char* section :
       {"m=video\r\n", "m=\r\n", "m=video x\r\n", "m=video -1 x\r\n", "m=video 65536 x\r\n"}) {
    installation.clearLog();
    EXPECT_EQ(analyze(sip_text::sdp(4000, "0", section)), 0) << section;
    EXPECT_EQ(
        installation.logCount("WARNING in MySip::analyzeMediaInSDP, non-audio segment in SDP is not good"),
        1);
    EXPECT_EQ(caller().pcNonAudioMedia, "");
    EXPECT_EQ(caller().iNonAudioRemotePort, -1);
    EXPECT_NE(analyze("v=0\r\nc=IN IP4 10.0.0.1\r\nt=0 0\r\n" + std::string(section)), 0)
        << "nothing would be left";
  }
  setOptions(0, 1, 0);
  for (const int sections : {1, 300}) {
    std::string sdp = "v=0\r\nt=0 0\r\n";
    for (int i = 0; i < sections; ++i) sdp += "m=v 5\r\n";
    installation.clearLog();
    EXPECT_NE(analyze(sdp), 0);
    EXPECT_EQ(installation.logCount("unable to find connection data for non-audio segment for phone 0\n"),
              std::min(sections, 20));
  }
}

TEST_F(SdpTest, NonAudioSectionMayFillItsFieldButNotMore) {
  const std::string start = "m=video 5000 x\r\na=";
  for (const std::size_t length :
       {3001U, 3002U, 3003U}) {  // as stored: the port grows by one, CR LF is added
    std::string section = start;
    section.resize(length - 1 - 2, 'v');
    const std::string sdp = "\r\nm=audio 4000 RTP/AVP 0\r\n" + section + "\r\n";
    setOptions(0, 0, 0);
    EXPECT_EQ(sip.analyzeMediaInSDP(0, sdp), 0) << length;
    EXPECT_EQ(caller().pcNonAudioMedia.size(), length <= 3002 ? length : 0);
  }
}

// ---- Writing ----

TEST_F(SdpTest, OurSdpHasOurAddressPortAndCodecs) {
  ASSERT_EQ(analyze(sip_text::sdp(4000, "0 8 9", "a=sendrecv\r\n")), 0);
  EXPECT_EQ(written(1),
            "v=0\r\no=- 77 3 IN IP4 10.1.1.5\r\ns=-\r\nc=IN IP4 10.1.1.5\r\nt=0 0\r\n"
            "m=audio 10002 RTP/AVP 9 0 8\r\na=rtpmap:9 G722/8000\r\na=rtpmap:0 pcmu/8000\r\na=rtpmap:8 "
            "pcma/8000\r\n"
            "a=sendrecv\r\n");
}

TEST_F(SdpTest, OurSdpMirrorsHoldEventsAndVideo) {
  const std::string video = "m=video 5000 RTP/AVP 96\r\nc=IN IP4 10.0.0.2\r\n";
  const std::string events = "a=rtpmap:101 telephone-event/8000\r\n";
  ASSERT_EQ(analyze(sip_text::sdp(4000, "0 101", events + "a=inactive\r\n" + video, "0.0.0.0")), 0);
  sPhone& partner = sip.phone(1);
  partner.iNumCodecs = 1;
  partner.psCodecs[0].iPayloadType = 9;
  partner.pcTelephoneEventPT = caller().pcTelephoneEventPT;
  partner.pcTelephoneEventAttrs = caller().pcTelephoneEventAttrs;
  const std::string head = "v=0\r\no=- 77 3 IN IP4 10.1.1.5\r\ns=-\r\n";
  const std::string line = "m=audio 10002 RTP/AVP 9 101\r\n";
  const std::string attributes = "a=rtpmap:9 G722/8000\r\na=inactive\r\n" + events + "a=fmtp:101 0-15\r\n";
  EXPECT_EQ(written(1),
            head + "c=IN IP4 0.0.0.0\r\nt=0 0\r\n" + line + attributes + "m=video 10002 RTP/AVP 96\r\n");

  setOptions(0, 1, 1);
  ASSERT_EQ(analyze(sip_text::sdp(4000, "0", "a=inactive\r\n" + video, "0.0.0.0")), 0);
  EXPECT_EQ(written(1), head + "t=0 0\r\n" + line + "c=IN IP4 0.0.0.0\r\n" + attributes + video);

  ASSERT_EQ(analyze("v=0\r\nc=IN IP4 10.0.0.1\r\nt=0 0\r\n" + video), 0);
  caller().bHoldByNullAddress = false;
  EXPECT_EQ(written(1), head + "c=IN IP4 10.1.1.5\r\nt=0 0\r\n" + video);
}

TEST_F(SdpTest, CodecWithoutPayloadTypeIsLeftOut) {
  caller().bAudioSectionSeen = true;
  sip.phone(1).psCodecs[1].iPayloadType = -1;
  EXPECT_EQ(written(1).find("pcmu"), std::string::npos);
  EXPECT_NE(written(1).find("RTP/AVP 9 8\r\n"), std::string::npos);
  EXPECT_EQ(installation.logCount("WARNING in MySip::prepareSDP, Ignoring unitialized codec\n"), 2);
}

TEST_F(SdpTest, LongestFieldsFitIntoOurSdp) {
  sPhone& partner = sip.phone(1);
  caller().bAudioSectionSeen = true;
  caller().pcNonAudioMedia.assignCut(std::string(3002, 'v'));
  caller().pcDirectionAttribute.assignCut(std::string(19, 'd'));
  partner.pcTelephoneEventAttrs.assignCut(std::string(202, 'a'));
  partner.iNumCodecs = kMaxCodecsPerLeg;
  for (auto& codec : partner.psCodecs) {
    codec.iPayloadType = 127;
    codec.pcName.assignCut(std::string(47, 'n'));
  }
  EXPECT_TRUE(written(1).ends_with(std::string(202, 'a') + std::string(3002, 'v')));
}

// ---- Learning our address ----

TEST_F(SdpTest, AddressThatThePeerSeesIsLearntFromTheVia) {
  const std::pair<const char*, const char*> cases[] = {
      {"UDP h;received=1.2.3.4;branch=x", "1.2.3.4"},
      {"UDP h;branch=x;Received=123.123.123.123", "123.123.123.123"},
      {"UDP h;received=1234567890123456;x", ""},
      {"UDP h;received=1.2.3.256;x", ""},
      {"UDP h;received=1.2.34", ""},
      {"UDP h;received=12345678901234567", ""},
      {"UDP h;received=12345678901234567890;x", ""},
      {"UDP h;received=", ""},
  };
  for (const auto& [via, learnt] : cases) {
    SCOPED_TRACE(via);
    installation.clearLog();
    caller().pcMediaIP.assignCut("10.1.1.5");
    sip.learnExternalIP(0, "SIP/2.0 180 Ringing\r\nVia: " + std::string(via) + "\r\nTo: x\r\n\r\n");
    const bool isLegal = *learnt != '\0';
    EXPECT_EQ(caller().pcMediaIP, isLegal ? learnt : "10.1.1.5");
    EXPECT_EQ(installation.logCount("Illegal IP in " + std::string(via) + "\n"), isLegal ? 0 : 1);
  }
  sip.learnExternalIP(0, "SIP/2.0 180 Ringing\r\nVia: UDP h;branch=x\r\n\r\n");
  EXPECT_EQ(caller().pcMediaIP, "10.1.1.5");
}

}  // namespace
