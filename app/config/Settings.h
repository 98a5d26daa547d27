// The settings: one process-wide value per key of the configuration file, named after the key with a type
// prefix (i integer, f float, pc text). MyConfiguration::readParams writes them, at start-up and on a reload;
// everyone else reads them where needed, so a reload takes effect at the next use. Keys, checks and defaults
// stand in KeyRegistry.
//
// Plain types are touched by the main thread only. Relaxed values and SharedText may also be read by media
// threads while a reload replaces them.
#pragma once

#include <array>

#include "common/FixedText.h"
#include "common/Relaxed.h"

// ---- Limits of the configuration ----

inline constexpr int kMaxPhonesToAllocate = 1000;
inline constexpr int kMaxExpressions = 10;
inline constexpr int kExpressionCapacity = 50;  // bytes, terminator included
inline constexpr int kMaxCommandRules = 10;
inline constexpr int kSipNameCapacity = 166;  // user@host, terminator included
inline constexpr int kMaxSipRoutingRows = 10;

using SettingPath = FixedText<300>;
using Expression = FixedText<kExpressionCapacity>;
using ExpressionList = std::array<Expression, kMaxExpressions>;
using RuleText = FixedText<kSipNameCapacity>;

// ---- File format ----

inline int iConfigVersion;
inline int iIPVersion;

// ---- The PBX and our own addresses ----

inline FixedText<16> pcSipProxyIP;
inline int iSipProxyPort;
inline FixedText<16> pcSipUAIP;
inline FixedText<50> pcSipProxyDomain;
inline int iSipUAPort;
inline int iRtpUAPortInitVal;
inline FixedText<16> pcSipUAIPForBinding;
inline int iSipProxyArchitecture;

// ---- Call commands, refused and preserved ----

inline FixedText<10> pcSeparator;
inline FixedText<2670> pcCmdBasedOnCallerID;
inline FixedText<2670> pcCmdBasedOnDestination;
inline FixedText<100> pcDefaultCmd;
inline int iNumberOfDOSExpressions;
inline ExpressionList pcDOSExpressions;
inline int iNumberOfAOSExpressions;
inline ExpressionList pcAOSExpressions;
inline int iNumberOfPSHExpressions;
inline ExpressionList pcPSHExpressions;
inline SettingPath pcSipRoutingFile;

// What the analysis of the command keys yields. Processing types: 0 none, 1 side 0, 2 side 1, 3 both.
inline int iNumCmdBasedOnCallerID;
inline std::array<RuleText, kMaxCommandRules> ppcCmdBasedOnCallerIDFilter;
inline std::array<RuleText, kMaxCommandRules> ppcCmdBasedOnCallerIDDestination;
inline std::array<int, kMaxCommandRules> piCmdBasedOnCallerIDFilteringType;
inline int iNumCmdBasedOnDestination;
inline std::array<RuleText, kMaxCommandRules> ppcCmdBasedOnDestinationFilter;
inline std::array<RuleText, kMaxCommandRules> ppcCmdBasedOnDestinationDestination;
inline std::array<int, kMaxCommandRules> piCmdBasedOnDestinationFilteringType;
inline RuleText pcDefaultDestination;
inline int iDefaultFilteringType;

// One row of the SIP routing file: destinations that match an expression go to this next hop instead of the
// PBX.
struct sSipRoutingRow {
  FixedText<16> pcIP;
  int iPort = 0;
  int iNumExpressions = 0;
  ExpressionList pcExpressions;
};
inline int iNumSipRoutingRecords;
inline std::array<sSipRoutingRow, kMaxSipRoutingRows> psSipRoutingRows;

// ---- Identities and registration ----

inline FixedText<100> pcTrunkName;
inline int iRegisterTrunk;
inline int iNumPhonesToAllocate;
inline FixedText<50000> pcOrigPhonesName;
inline FixedText<50000> pcPairPhonesName;
inline FixedText<96> pcOrigPhonesNamePrefix;
inline FixedText<96> pcPairPhonesNamePrefix;
inline int iRegisterOrigPhones;
inline int iRegisterPairPhones;
inline FixedText<20> pcSecret;
inline FixedText<10000> pcOrigPhonesSecret;
inline FixedText<10000> pcPairPhonesSecret;
inline int iRegisterExpiration;
inline int iUseContactHeaderForFarEndAddressDuringRegistation;

// ---- Call set-up and SDP ----

inline int iNumCallsToFilter;
inline int iInviteShouldMatchPairPhoneName;
inline int iPairPhoneShouldImpersonateTheOriginator;
inline int iUseOriginalRURI;
inline int iCopyCodecListFromInitialInvite;
inline int iCanHaveDifferentIPForDifferentMedia;
inline int iUseConnectionSessionDescriptorForFarEndMediaAddress;
inline int iRTPTimeoutInSeconds;
inline int iRTPTimeoutWhenOnHoldInSeconds;
inline int iSipDebug;
inline SettingPath pcSimEmulatorInputFile;

// ---- The voice engine (read when a channel is initialised, also by media threads) ----

inline Relaxed<int> iNeedToDoNoiseCancellation;
inline Relaxed<int> iNeedToDoAEC;
inline Relaxed<int> iNeedToCheckDTMF;
inline Relaxed<int> iBypassVAD;
inline Relaxed<int> iCPUPower;
inline Relaxed<int> iDetectAggressiveLevel;
inline Relaxed<int> iCleanAggressiveLevel;
inline Relaxed<int> iCancelAcousticShock;
inline Relaxed<int> iGroupType;
inline Relaxed<int> iCNGInitialValue;
inline Relaxed<int> iCNGEndValue;
inline Relaxed<int> iBurstEndDecrease;
inline Relaxed<int> iBurstEndLowerValue;
inline Relaxed<int> iRemoveNonSelfFrequencies;
inline Relaxed<int> iMaxCoefInAECParam;
inline Relaxed<int> iAECTailType;
inline Relaxed<int> iStartWithFilterActivated;
inline SharedText<20> pcAECAlgorithm;
inline Relaxed<int> iNeedToDoAGC;
inline Relaxed<int> iAGCLevel;
inline Relaxed<int> iAECMinOutputPercentageDuringEcho;
inline Relaxed<int> iAECHowlingLevel;
inline Relaxed<int> iAECAggressiveLevel;

// ---- DTMF commands, tones, recordings ----

inline SharedText<300> pcDTMFRegisterPrefix;  // key DTMFRegistraterPrefix
inline SharedText<300> pcDTMFActivatePrefix;
inline SharedText<300> pcDTMFSuffix;
inline SharedText<300> pcDTMFDisable;
inline SharedText<300> pcRegistrationLibrary;
inline SettingPath pcDTMFOKToneFile;
inline SettingPath pcDTMFFailToneFile;
inline SettingPath pcOrigRecordingLibrary;
inline SettingPath pcCleanRecordingLibrary;

// ---- Statistics ----

inline SettingPath pcStatisticsFile;
inline SettingPath pcRealTimeAverageStatisticsFile;
inline SettingPath pcRealTimeExtremeStatisticsFile;
inline Relaxed<int> iRefreshRateOfRealTimeStatistics;
inline Relaxed<int> iThresholdToHighlightNoiseLevel;
inline Relaxed<int> iThresholdToHighlightEchoLevel;
inline Relaxed<int> iThresholdToHighlightJitter;
inline Relaxed<int> iThresholdToHighlightDelay;
inline Relaxed<int> iThresholdToHighlightAGCCoef;
inline Relaxed<float> fThresholdToHighlightPacketLoss;
inline Relaxed<float> fThresholdToHighlightMOS;
