#include "app/config/KeyRegistry.h"

#include <array>

#include "app/config/ComputedDefaults.h"

namespace {

using enum KeyType;
using enum KeyGroup;
using Kind = sKeyCheck::Kind;

template <typename Text>
constexpr TextTarget text(Text& target) {
  return TextTarget(target);
}

constexpr sKeyDefault preset(const char* value) {
  return {.pcText = value};
}
constexpr sKeyDefault none(const char* example) {
  return {.pcExample = example};
}
constexpr sKeyDefault required(const char* example) {
  return {.kind = sKeyDefault::Kind::eRequired, .pcExample = example, .bSetInSample = true};
}
constexpr sKeyDefault computed(void (*compute)(), const char* description, const char* example) {
  return {.kind = sKeyDefault::Kind::eComputed,
          .pfCompute = compute,
          .pcComputed = description,
          .pcExample = example};
}
// What a fresh installation is to have although the program could do without.
constexpr sKeyDefault inSample(const char* value, const char* example) {
  return {.pcText = value, .pcExample = example, .bSetInSample = true};
}
// Without rules and without a default command no call finds its way.
constexpr sKeyDefault kDefaultCommand = {.pcExample = "*##3", .bSetInSample = true};

constexpr sKeyCheck kAny{};
constexpr sKeyCheck kFlag{Kind::eFlag, 0, 1};
constexpr sKeyCheck kPositive{Kind::ePositive, 1};
constexpr sKeyCheck kPercent{Kind::eRange, 0, 100};
constexpr sKeyCheck supported(int value) {
  return {Kind::eSupported, value, value};
}
constexpr sKeyCheck range(int low, int high) {
  return {Kind::eRange, low, high};
}

constexpr bool kReload = true;
constexpr bool kStart = false;  // read at start-up only

// Shorter than a second row of pages every second makes no sense: they are written at half this period.
constexpr int kShortestRefreshSeconds = 2;

constexpr std::array<sKey, kNumKeys> kKeys = std::to_array<sKey>({
    {"ConfigVersion", eInteger, &iConfigVersion, required("2"), supported(2), kStart, eFile,
     "Version of the file format."},
    {"IPVersion", eInteger, &iIPVersion, required("4"), supported(4), kStart, eFile,
     "IP version of all traffic."},
    {"SipProxyIP", eAddress, text(pcSipProxyIP), required("127.0.0.1"), kAny, kStart, eAddresses,
     "Address or host name of the PBX: destination of registrations, and of calls that nothing sends "
     "elsewhere. A name is looked up once, at start-up."},
    {"SipProxyPort", eInteger, &iSipProxyPort, required("5060"), kAny, kStart, eAddresses,
     "SIP port of the PBX."},
    {"SipUAIP", eAddress, text(pcSipUAIP),
     computed(&computed_defaults::ownAddress,
              "the local address that reaches the PBX; with the PBX at 127.0.0.1 the host's first address",
              "192.0.2.10"),
     kAny, kStart, eAddresses, "Our own address as it is written into SIP headers and SDP."},
    {"SipProxyDomain", eWord, text(pcSipProxyDomain),
     computed(&computed_defaults::proxyDomain, "SipProxyIP; with the PBX at 127.0.0.1 SipUAIP",
              "pbx.example.com"),
     kAny, kStart, eAddresses, "Host part of the SIP names of our phones and of their registrations."},
    {"SipUAPort", eInteger, &iSipUAPort, required("5070"), kAny, kStart, eAddresses,
     "Our own SIP port (UDP), bound and announced."},
    {"RtpUAPortInitVal", eInteger, &iRtpUAPortInitVal, required("20000"), kAny, kStart, eAddresses,
     "First local RTP port; phone number i, from 0, uses this plus 2 i for RTP and the port after it for "
     "RTCP."},
    {"Separator", eWord, text(pcSeparator), required("##"), kAny, kStart, eCommands,
     "Text between destination and processing type in a command. A caller's display name that contains it is "
     "such a command: destination, separator, type, separator, name (300@192.0.2.10##3##Ann). It goes before "
     "all rules, so no name should contain it."},
    {"CmdBasedOnCallerID", eListWord, text(pcCmdBasedOnCallerID), none("1??@192.0.2.20=*##1;"), kAny, kStart,
     eCommands,
     "At most 10 rules pattern=command;, where the pattern is matched with the caller's SIP name and a ? "
     "stands for any character."},
    {"DefaultCmd", eWord, text(pcDefaultCmd), kDefaultCommand, kAny, kStart, eCommands,
     "Command for calls that no rule matches: destination (* keeps the dialled one), separator, processing "
     "type (0 none, 1 the caller's audio, 2 the called party's, 3 both). Without it such calls fail."},
    {"NeedToDoNoiseCancellation", eInteger, &iNeedToDoNoiseCancellation, preset("1"), kFlag, kReload, eEngine,
     "1 reduces the background noise of call audio."},
    {"NeedToDoAEC", eInteger, &iNeedToDoAEC, preset("0"), kFlag, kReload, eEcho,
     "1 cancels acoustic echo in call audio."},
    {"TrunkName", eWord, text(pcTrunkName), none("quorvel"), kAny, kStart, eIdentities,
     "Name of the trunk identity; empty means that there is no trunk."},
    {"RegisterTrunk", eInteger, &iRegisterTrunk, preset("0"), kFlag, kStart, eIdentities,
     "1 registers the trunk with the PBX."},
    {"NumPhonesToAllocate",
     eInteger,
     &iNumPhonesToAllocate,
     required("6"),
     {Kind::eEvenCount, 1, kMaxPhonesToAllocate},
     kStart,
     eIdentities,
     "Number of phones, an even number: the first half faces the callers, the second half places our own "
     "calls, and every call takes one of each."},
    {"SipProxyArchitecture", eInteger, &iSipProxyArchitecture, preset("0"), kFlag, kStart, eAddresses,
     "1 when phones know us as their PBX: names at our address are rewritten to the PBX's address, and "
     "registrations of phones are passed on to the PBX."},
    {"OrigPhonesName", eListWord, text(pcOrigPhonesName), none("line1;line2;line3;"), kAny, kStart,
     eIdentities,
     "Names of the phones that face the callers, each followed by a semicolon; empty: generated."},
    {"PairPhonesName", eListWord, text(pcPairPhonesName), none("out1;out2;out3;"), kAny, kStart, eIdentities,
     "Names of the phones that place our own calls, each followed by a semicolon; empty: generated."},
    {"RegisterOrigPhones", eInteger, &iRegisterOrigPhones, required("0"), kFlag, kStart, eIdentities,
     "1 registers the phones that face the callers with the PBX."},
    {"RegisterPairPhones", eInteger, &iRegisterPairPhones, required("0"), kFlag, kStart, eIdentities,
     "1 registers the phones that place our own calls with the PBX."},
    {"Secret", eWord, text(pcSecret), none("change-me"), kAny, kStart, eIdentities,
     "Digest password of the trunk and of phones without one of their own."},
    {"NeedToCheckDTMF", eInteger, &iNeedToCheckDTMF, required("1"), kFlag, kReload, eEngine,
     "1 detects DTMF tones in the audio and keeps them intact."},
    {"BypassVAD", eInteger, &iBypassVAD, preset("0"), kFlag, kReload, eEngine,
     "1 bypasses the decision between speech and pause: all audio is treated as speech."},
    {"CPUPower", eInteger, &iCPUPower, required("5"), range(0, 10), kReload, eEngine,
     "Processing effort of the voice engine, 0 least. The engine takes it once, at start-up: a reload checks "
     "and "
     "stores a new value, which has no effect before the next start."},
    {"DetectAggressiveLevel", eInteger, &iDetectAggressiveLevel, required("2"), range(0, 4), kReload, eEngine,
     "How readily sounds are taken for something other than the talker's speech."},
    {"CleanAggressiveLevel", eInteger, &iCleanAggressiveLevel, required("10"), range(5, 12), kReload, eEngine,
     "How strongly noise is removed; up to 10 speech is spared and pauses keep an even level, 11 and 12 "
     "remove all that is recognised."},
    {"CancelAcousticShock", eInteger, &iCancelAcousticShock, preset("0"), kFlag, kReload, eGain,
     "1 protects the listener from sudden loud sounds."},
    {"RegisterExpiration", eInteger, &iRegisterExpiration, preset("3600"), kPositive, kStart, eIdentities,
     "Expiry in seconds asked for in registrations; they are renewed at half of it."},
    {"GroupType", eInteger, &iGroupType, preset("0"), range(0, 3), kReload, eEngine,
     "Voice group that a call starts with: 0 any, 1 deep, 2 middle, 3 high voices."},
    {"CNGInitialValue", eInteger, &iCNGInitialValue, preset("15"), kPercent, kReload, eEngine,
     "Comfort noise at the start of a pause, in percent of the background noise."},
    {"CNGEndValue", eInteger, &iCNGEndValue, preset("15"), kPercent, kReload, eEngine,
     "Comfort noise that a long pause ends with, in percent of the background noise."},
    {"BurstEndDecrease", eInteger, &iBurstEndDecrease, preset("40"), kPercent, kReload, eEngine,
     "Decrease of the speech gain per second after the last certain speech, in percent."},
    {"BurstEndLowerValue", eInteger, &iBurstEndLowerValue, preset("15"), kPercent, kReload, eEngine,
     "Lowest speech gain, in percent."},
    {"RemoveNonSelfFrequencies", eInteger, &iRemoveNonSelfFrequencies, preset("1"), kFlag, kReload, eEngine,
     "1 takes the background, and other voices than a learned one, off the spectrum; 0 only lowers pauses, "
     "and no noise level is measured."},
    {"DOSExpressions", eExpressions, sExpressionTarget{&iNumberOfDOSExpressions, &pcDOSExpressions},
     none("9??@192.0.2.20;"), kAny, kStart, eCommands,
     "Patterns of callers whose calls are refused with 503, each followed by a semicolon."},
    {"AOSExpressions", eExpressions, sExpressionTarget{&iNumberOfAOSExpressions, &pcAOSExpressions},
     none("911@192.0.2.20;"), kAny, kStart, eCommands,
     "Patterns of callers who are served although DOSExpressions refuses them."},
    {"OrigRecordingLibrary", ePath, text(pcOrigRecordingLibrary), none("../recordings/"), kAny, kReload,
     eRecordings,
     "Directory, with its final slash, for recordings of the audio as received; empty means no recording."},
    {"CleanRecordingLibrary", ePath, text(pcCleanRecordingLibrary), none("../recordings/"), kAny, kReload,
     eRecordings,
     "Directory, with its final slash, for recordings of the processed audio; empty means no recording."},
    {"StatisticsFile", ePath, text(pcStatisticsFile), none("../statistics/main.log"), kAny, kReload,
     eStatistics, "File that gets a line per call; empty means none."},
    {"DTMFRegistraterPrefix", eWord, text(pcDTMFRegisterPrefix), inSample("abcde", "*1*"), kAny, kReload,
     eDtmf, "Digits that start the registration of the talker's voice; a name and DTMFSuffix follow."},
    {"DTMFActivatePrefix", eWord, text(pcDTMFActivatePrefix), inSample("abcde", "*2*"), kAny, kReload, eDtmf,
     "Digits that switch processing on; a name, or none, and DTMFSuffix follow."},
    {"DTMFSuffix", eWord, text(pcDTMFSuffix), inSample("abcde", "#"), kAny, kReload, eDtmf,
     "Digits that end a registration or activation command."},
    {"DTMFDisable", eWord, text(pcDTMFDisable), inSample("abcde", "*3*"), kAny, kReload, eDtmf,
     "Digits that switch processing off."},
    {"RegistrationLibrary", ePath, text(pcRegistrationLibrary), inSample("", "../voices/"), kAny, kReload,
     eDtmf, "Directory, with its final slash, for learned voices."},
    {"DTMFOKToneFile", ePath, text(pcDTMFOKToneFile), inSample("", "../tones/ok.raw"), kAny, kStart, eDtmf,
     "Tone that confirms a command: 16-bit samples at 8 kHz without a header, at most 2 s; empty means "
     "none."},
    {"DTMFFailToneFile", ePath, text(pcDTMFFailToneFile), inSample("", "../tones/fail.raw"), kAny, kStart,
     eDtmf, "Tone that reports the failure of a command, in the same form; empty means none."},
    {"MaxCoefInAECParam", eInteger, &iMaxCoefInAECParam, preset("100"), range(10, 300), kReload, eEcho,
     "Largest coupling from loudspeaker to microphone that the basic algorithm reckons with, in percent."},
    {"AECTailType", eInteger, &iAECTailType, preset("1"), range(-58, 5), kReload, eEcho,
     "Longest echo delay: 0 covers 0.4 s, each step up to 5 adds 0.5 s; -1 covers 0.1 s, -58 2.9 s."},
    {"StartWithFilterActivated", eInteger, &iStartWithFilterActivated, preset("1"), kFlag, kReload, eEngine,
     "1 starts every call with processing switched on, 0 leaves that to a DTMF command."},
    {"ThresholdToHighlightNoiseLevel", eInteger, &iThresholdToHighlightNoiseLevel, preset("3000"), kAny,
     kReload, eStatistics, "Noise level from which the pages show it in red."},
    {"ThresholdToHighlightEchoLevel", eInteger, &iThresholdToHighlightEchoLevel, preset("1000"), kAny,
     kReload, eStatistics, "Echo level from which the pages show it in red."},
    {"ThresholdToHighlightJitter", eInteger, &iThresholdToHighlightJitter, preset("10"), kAny, kReload,
     eStatistics, "Jitter in milliseconds from which the pages show it in red."},
    {"ThresholdToHighlightDelay", eInteger, &iThresholdToHighlightDelay, preset("100"), kAny, kReload,
     eStatistics, "Delay in milliseconds from which the pages show it in red."},
    {"ThresholdToHighlightPacketLoss", eFloat, &fThresholdToHighlightPacketLoss, preset("0.1"), kAny, kReload,
     eStatistics, "Packet loss in percent from which the pages show it in red."},
    {"ThresholdToHighlightMOS", eFloat, &fThresholdToHighlightMOS, preset("3.6"), kAny, kReload, eStatistics,
     "Estimated MOS down from which the pages show it in red."},
    {"RealTimeAverageStatisticsFile", ePath, text(pcRealTimeAverageStatisticsFile),
     none("../statistics/average.html"), kAny, kReload, eStatistics,
     "HTML page with the averages of running calls; empty means that it is not written."},
    {"RealTimeExtremeStatisticsFile", ePath, text(pcRealTimeExtremeStatisticsFile),
     none("../statistics/extreme.html"), kAny, kReload, eStatistics,
     "HTML page with the extremes of running calls; empty means that it is not written."},
    {"RefreshRateOfRealTimeStatistics",
     eInteger,
     &iRefreshRateOfRealTimeStatistics,
     preset("10"),
     {Kind::eRaised, kShortestRefreshSeconds},
     kReload,
     eStatistics,
     "Seconds after which a browser loads the pages again; they are written twice as often."},
    {"OrigPhonesNamePrefix", eWord, text(pcOrigPhonesNamePrefix), preset("KestrovaOrig"), kAny, kStart,
     eIdentities,
     "Start of the generated names of the phones that face the callers; a number from 0 follows."},
    {"PairPhonesNamePrefix", eWord, text(pcPairPhonesNamePrefix), preset("KestrovaPair"), kAny, kStart,
     eIdentities, "Start of the generated names of the phones that place our own calls."},
    {"RTPTimeoutInSeconds", eInteger, &iRTPTimeoutInSeconds, preset("30"), kAny, kStart, eCalls,
     "Seconds after which a call is ended when one side sends neither RTP nor RTCP."},
    {"AECAlgorithm",
     eWord,
     text(pcAECAlgorithm),
     required("advanced"),
     {Kind::eAecAlgorithm},
     kReload,
     eEcho,
     "Echo cancellation: basic, advanced-4, advanced-7 or advanced, which is advanced-7."},
    {"NeedToDoAGC", eInteger, &iNeedToDoAGC, preset("0"), kFlag, kReload, eGain,
     "1 brings speech to an even level."},
    {"AGCLevel", eInteger, &iAGCLevel, preset("32000"), range(0, 64000), kReload, eGain,
     "Level that speech is brought to, peak to peak in 16-bit samples."},
    {"AECMinOutputPercentageDuringEcho", eInteger, &iAECMinOutputPercentageDuringEcho, preset("0"), kPercent,
     kReload, eEcho, "Lowest gain while echo is suppressed, in percent; not used by the basic algorithm."},
    {"CanHaveDifferentIPForDifferentMedia", eInteger, &iCanHaveDifferentIPForDifferentMedia, preset("0"),
     kFlag, kStart, eCalls, "1 lets the media sections of one session description have different addresses."},
    {"RTPTimeoutWhenOnHoldInSeconds", eInteger, &iRTPTimeoutWhenOnHoldInSeconds, preset("300"), kAny, kStart,
     eCalls, "Seconds after which a call on hold is ended when one side sends neither RTP nor RTCP."},
    {"PairPhoneShouldImpersonateTheOriginator", eInteger, &iPairPhoneShouldImpersonateTheOriginator,
     preset("0"), kFlag, kStart, eCalls,
     "1 shows the called party the caller's identity instead of our phone's."},
    {"ThresholdToHighlightAGCCoef", eInteger, &iThresholdToHighlightAGCCoef, preset("300"), kAny, kReload,
     eStatistics, "Gain in percent from which the pages show it in red."},
    {"SipRoutingFile",
     ePath,
     text(pcSipRoutingFile),
     none("routing.conf"),
     {Kind::eRoutingFile},
     kStart,
     eCommands,
     "File of at most 10 rows host::port::pattern;pattern; that send matching destinations to another next "
     "hop than the PBX; empty means no routes."},
    {"SipUAIPForBinding", eAddress, text(pcSipUAIPForBinding),
     computed(&computed_defaults::bindingAddress, "SipUAIP", "192.0.2.10"), kAny, kStart, eAddresses,
     "Local address that the SIP and RTP sockets are bound to."},
    {"CmdBasedOnDestination", eListWord, text(pcCmdBasedOnDestination), none("2??@192.0.2.20=*##2;"), kAny,
     kStart, eCommands,
     "Rules as in CmdBasedOnCallerID, matched with the dialled SIP name; tried after those."},
    {"OrigPhonesSecret", eListWord, text(pcOrigPhonesSecret), none("secret1;secret2;secret3;"), kAny, kStart,
     eIdentities,
     "Passwords of the phones of OrigPhonesName, in their order, each followed by a semicolon; without that "
     "list Secret counts."},
    {"PairPhonesSecret", eListWord, text(pcPairPhonesSecret), none("secret1;secret2;secret3;"), kAny, kStart,
     eIdentities,
     "Passwords of the phones of PairPhonesName, in their order, each followed by a semicolon; without that "
     "list Secret counts."},
    {"InviteShouldMatchPairPhoneName", eInteger, &iInviteShouldMatchPairPhoneName, preset("0"), kFlag, kStart,
     eCalls,
     "1 takes the pair of phones whose second phone has the name of the registered caller, or else of the "
     "called "
     "phone, which then must have registered with us; without one, or when it is taken, the caller hears "
     "busy."},
    {"NumCallsToFilter", eInteger, &iNumCallsToFilter, preset("3"), kPositive, kStart, eCalls,
     "Most calls at the same time, at most 127; further ones hear busy. The voice engine has room for "
     "three."},
    {"SipDebug", eInteger, &iSipDebug, preset("0"), kFlag, kStart, eDiagnosis,
     "1 writes every SIP message to the log."},
    {"SimEmulatorInputFile", ePath, text(pcSimEmulatorInputFile), none(""), kAny, kStart, eDiagnosis,
     "Accepted for the sake of older files; nothing reads it."},
    {"AECHowlingLevel", eInteger, &iAECHowlingLevel, preset("10"), range(0, 20), kReload, eEcho,
     "How readily howling is detected; 0 switches the detection off."},
    {"UseContactHeaderForFarEndAddressDuringRegistation", eInteger,
     &iUseContactHeaderForFarEndAddressDuringRegistation, preset("0"), kFlag, kStart, eIdentities,
     "1 reaches a registering phone at its Contact address, 0 at the address its packets come from."},
    {"UseConnectionSessionDescriptorForFarEndMediaAddress", eInteger,
     &iUseConnectionSessionDescriptorForFarEndMediaAddress, preset("1"), kFlag, kStart, eCalls,
     "1 sends media to the address in the session description, 0 to the address that SIP comes from."},
    {"PSHExpressions", eExpressions, sExpressionTarget{&iNumberOfPSHExpressions, &pcPSHExpressions},
     none("X-Account:;"), kAny, kStart, eCommands,
     "Names of headers, with their colon, that are copied from a caller's INVITE into ours."},
    {"UseOriginalRURI", eInteger, &iUseOriginalRURI, preset("0"), kFlag, kStart, eCalls,
     "1 keeps the request URI of the caller's INVITE."},
    {"CopyCodecListFromInitialInvite", eInteger, &iCopyCodecListFromInitialInvite, preset("0"), kFlag, kStart,
     eCalls, "1 offers the called party the caller's codecs in the caller's order."},
    {"AECAggressiveLevel", eInteger, &iAECAggressiveLevel, preset("10"), range(0, 20), kReload, eEcho,
     "How readily a talker at the near end is let through while there is echo."},
});

constexpr std::array<const char*, kKeyGroups> kGroupTitles = {
    "File format",
    "The PBX and our own addresses",
    "Identities and registration",
    "Call commands, refused callers and routes",
    "Calls",
    "Voice engine",
    "Echo cancellation",
    "Gain and protection",
    "DTMF commands and tones",
    "Recordings",
    "Statistics",
    "Diagnosis",
};

}  // namespace

std::span<const sKey, kNumKeys> keyRegistry() {
  return kKeys;
}

int findKey(std::string_view name) {
  for (std::size_t i = 0; i < kKeys.size(); ++i)
    if (name == kKeys[i].pcName) return static_cast<int>(i);
  return -1;
}

const char* keyGroupTitle(KeyGroup group) {
  return kGroupTitles[static_cast<std::size_t>(group)];
}
