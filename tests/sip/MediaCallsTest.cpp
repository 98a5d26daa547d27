// The calls into the media relay, and the list of its open session pairs that the statistics pages read.
#include "app/config/Settings.h"
#include "rtp/MyRtp.h"
#include "rtp/sRtpSessionPair.h"
#include "tests/sip/SipFixture.h"

namespace {

class MediaCallsTest : public SipFixture {
 protected:
  MediaCallsTest() {
    start();
    for (int slot = 0; slot < sip->numSlots(); ++slot) {
      sPhone& leg = sip->phone(slot);
      sip->setCallID(slot, "media-" + std::to_string(slot));
      leg.pcRemoteSipName.assignCut("name" + std::to_string(slot));
      leg.pcRemoteRtpIP.assignCut("127.0.0.1");
      leg.iRemoteRtpPort = caller.port();
      leg.iNonAudioRemotePort = -1;
      sip->initializeCodecNegotiationList(slot);
    }
  }
  ~MediaCallsTest() override {
    sip->closeRtpSessionPair(0, 2);
    sip->closeRtpSessionPair(1, 3);
  }
  int relayIndex(int slot) { return myRtp.findRtpIndex(sip->phone(slot).pcCallID.c_str(), ""); }
};

TEST_F(MediaCallsTest, ListOfOpenPairsFollowsTheCalls) {
  sip->openRtpSessionPair(0, 2);
  sip->openRtpSessionPair(1, 3);
  ASSERT_EQ(sip->iNumActiveRtpIndexes, 2);
  EXPECT_EQ(sip->piActiveRtpIndexes[0], relayIndex(0));
  EXPECT_EQ(sip->piActiveRtpIndexes[1], relayIndex(1));

  sip->closeRtpSessionPair(2, 0);
  ASSERT_EQ(sip->iNumActiveRtpIndexes, 1);
  EXPECT_EQ(sip->piActiveRtpIndexes[0], relayIndex(1));
  sip->closeRtpSessionPair(2, 0);
  EXPECT_EQ(sip->iNumActiveRtpIndexes, 1) << "nothing is open any more";
  EXPECT_EQ(installation.logCount(" ERROR in "), 0) << installation.log();
}

TEST_F(MediaCallsTest, SideZeroIsTheOrigLegWhoeverRestarts) {
  for (const int by : {0, 2}) {
    sip->restartRtpSession(by, 2 - by);
    EXPECT_EQ(sip->iNumActiveRtpIndexes, 1);
    EXPECT_EQ(myRtp.psPairs[relayIndex(0)].pcCallID[0], "media-0");
    EXPECT_EQ(myRtp.psPairs[relayIndex(0)].pcCallID[1], "media-2");
  }
}

TEST_F(MediaCallsTest, DisagreementWithTheRelayIsLogged) {
  sip->openRtpSessionPair(0, 2);
  sip->iNumActiveRtpIndexes = iNumCallsToFilter;
  sip->openRtpSessionPair(1, 3);
  EXPECT_EQ(
      installation.logCount("ERROR in MySip::openRtpSessionPair, too many active calls in statistics\n"), 1);
  sip->openRtpSessionPair(1, 3);
  EXPECT_EQ(installation.logCount("unable to open session pair for 1 name1 - 3 name3\n"), 1);

  const int index = relayIndex(0);
  sip->iNumActiveRtpIndexes = 0;
  sip->closeRtpSessionPair(0, 2);
  EXPECT_EQ(
      installation.logCount("ERROR in MySip::closeRtpSessionPair, did not find match in statistics for " +
                            std::to_string(index) + "\n"),
      1);
}

}  // namespace
