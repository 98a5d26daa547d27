/* Kestrova, the voice engine of Quorvel: noise reduction with comfort noise, gain control, DTMF detection,
 * voice learning (noise channels) and acoustic echo cancellation (echo channels) on 16-bit linear audio in
 * short frames. This is the one header that users of the engine include; it is plain C.
 *
 * Calling order: KestrovaPackageInit once; per channel one of the init functions; then any number of frame
 * calls; then the matching terminate. A channel may be initialised again without terminating it and then
 * starts a fresh stream. Channel numbers are 0 to 5, for noise channels and, separately, for echo channels:
 * noise channel 2 and echo channel 2 share nothing but the number.
 *
 *   sKestrovaPackage package = {KESTROVA_API_VERSION, "/opt/quorvel/bin/", 5};
 *   sKestrovaInit init = {0};            every field that is not set is 0
 *   init.sBitsPerSample = 16;            16-bit samples in the machine's byte order
 *   init.iSampleRate = 8000;
 *   init.sFrameUnits = 1;                frames of 32 samples, 4 ms
 *   ... the settings below ...
 *   if (KestrovaPackageInit(&package) == 0 && KestrovaInit(0, &init) == 0)
 *     while (read a frame) KestrovaProcessFrame(0, frame, 64, frame, &result);
 *   KestrovaTerminate(0);
 *
 * Samples: 16-bit linear in the machine's byte order, or 8-bit with 128 as zero. Other rates than 8000 Hz are
 * multiples of it; a frame is then longer by that factor: 32 x sFrameUnits x (rate / 8000) samples. A shorter
 * or longer piece of up to 4096 bytes is processed too.
 *
 * Noise channels: speech is recognised by its repeating at a stable pitch, with the consonants around it, and
 * written with the background taken off its spectrum; everything else is lowered to the comfort-noise level.
 * The output is late by sMaxNumCyclesInDelayBuffer x 4 ms: the first frames give no output, from then on each
 * gives as many bytes as it takes, never more. The result does not depend on how the stream is cut into
 * frames (but for a constant on the line, which is followed frame by frame) nor on what other channels do. A
 * DTMF digit and the five seconds after it pass untouched but for the gain.
 *
 * Echo channels: feed what the loudspeaker plays with KestrovaAECProcessSpkFrame and what the microphone
 * hears with KestrovaAECProcessMicFrame, the loudspeaker frame of a period before its microphone frame. The
 * two streams are counted; when one runs ahead of the other by more than the other's lag setting, silence is
 * fed in the place of the frames that are missing, one frame per call.
 *
 * Results: 0 success, 1 bad channel number or processing failure (also a frame without init, a null pointer,
 * a length that is no whole number of samples), 2 initialisation failure.
 *
 * Threads: KestrovaPackageInit must have returned before any channel is used. A channel is driven by one
 * thread at a time; different channels are independent. The engine holds no lock, writes to no log, and
 * allocates only in the init functions and where a registration is completed. An init takes a tenth of a
 * millisecond of processor time, 0.7 where its memory is new to the process; one with a learned voice as
 * long as its image takes to be summed and copied.
 */
#ifndef ENGINE_KESTROVA_H
#define ENGINE_KESTROVA_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KESTROVA_API_VERSION 2
#define KESTROVA_VERSION_NUMBER 593945u
#define KESTROVA_MAX_CHANNEL 5
#define KESTROVA_MAX_PATTERNS 4000 /* records of a learned voice */

/* Learned voice data, handed out by KestrovaCopySpeakerInformationAfterRegistration and taken by
 * KestrovaIpsavoxInit. Its size is what KestrovaCompleteRegistration reports. */
typedef struct sAPISpeaker sAPISpeaker;

/* How a channel is to work. Values outside their range are clamped except where stated. */
typedef struct sKestrovaInit {
  uint16_t sBitsPerSample;           /* 16: 16-bit linear; anything else: 8-bit */
  int32_t iSampleRate;               /* Hz, 8000..64000 */
  uint16_t sFrameUnits;              /* frame length in units of 32 samples, 1..8, else the init fails */
  uint16_t sInitialDelayUnits;       /* leading silence in units of 8 samples, at most 96 samples */
  uint8_t bCheckDTMF;                /* run DTMF detection */
  uint8_t bRemoveNonSelfFrequencies; /* take the background, and other voices than a learned one, off the
                                      * spectrum; 0 only lowers pauses and measures no background */
  uint16_t sCNGInitialValue;         /* comfort noise at the start, percent, 0..100 */
  uint16_t sCNGStep;                 /* comfort noise step, percent */
  uint16_t sCNGEndValue;             /* comfort noise at the end, percent, 0..100 */
  uint16_t sBurstEndDecrease;   /* decrease of the speech gain per period after confident speech, percent */
  uint16_t sBurstEndMode;       /* periods per second; a period is 8000 / value samples */
  uint16_t sBurstEndLowerValue; /* floor of the speech gain, percent, 0..100 */
  uint16_t sBurstEndStep;       /* bonus added to the speech-gain target, percent */
  uint16_t sMaxNumCyclesInDelayBuffer; /* 2..50 cycles of 32 samples */
  uint16_t sDetectAggressiveLevel;     /* 0..4 */
  uint16_t sCleanAggressiveLevel;      /* 5..12 */
  uint8_t bCancelAcousticShock;
  uint8_t bStartBypassed; /* the channel starts with processing bypassed */
  uint8_t bBypassVAD;
  uint8_t bDoAGC;
  int32_t iAGCLevel;                       /* target level, largest - smallest sample */
  int32_t iAGCMinPercent;                  /* negative is taken as 0 */
  int32_t iAGCMaxPercent;                  /* raised to at least iAGCMinPercent */
  int32_t iGroupType;                      /* voice group 0..3 */
  uint8_t bStartRegistration;              /* voice init: record a new speaker */
  const sAPISpeaker* psSpeakerInformation; /* voice init: learned speaker to load, or null */
  uint16_t sAecAlgorithm;                  /* 0 basic .. 7 advanced */
  uint16_t sSpkLagFrames;       /* frames the loudspeaker stream may lag the microphone stream, 0..50 */
  uint16_t sMicLagFrames;       /* frames the microphone stream may lag the loudspeaker stream, 0..50 */
  uint16_t sAecSupressionHold;  /* suppression hangover level, 0..10 */
  uint16_t sAecAggressiveLevel; /* 0..20 */
  uint16_t sAecHowlingLevel;    /* 0..20 */
  uint16_t sAecMaxCoef;         /* percent, 10..300 */
  uint16_t sAecMinCoef;         /* percent, 1..150 */
  int16_t sAecTailType;         /* -58..5 */
  int16_t sAecTailStart;        /* -58..0 */
  int32_t iAecTalkHoldSamples;  /* talk hold length */
  int32_t iAecHold2Samples;     /* strong-talk hold length */
  uint16_t sMinOutputPercentDuringEcho; /* 0..100 */
} sKestrovaInit;

typedef struct sKestrovaPackage {
  int32_t iAPIVersion;        /* must be KESTROVA_API_VERSION */
  const char* pcBinDirectory; /* installation directory, or null */
  int32_t iCPUPower;          /* processing effort, 0..10 */
} sKestrovaPackage;

/* What the engine says of one frame. */
typedef struct sKestrovaFrameResult {
  int32_t iOutBytes;       /* bytes written to the output */
  int32_t iSpeech;         /* 1: speech was written */
  int32_t iConfidentVoice; /* 1: speech of a talk spurt whose voice is certain */
  int32_t iDtmf;           /* 1: a DTMF digit was written, now or in the last five seconds; its text:
                            * KestrovaGetLastDTMFBuffer */
  int32_t iNoiseLevel;   /* the background: largest - smallest sample of its last stretch; 0 until measured */
  int32_t iSpeakerMatch; /* the speaker's level, largest - smallest sample; 0 before any speech */
  int32_t iGainPercent;  /* gain of the automatic gain control */
  int32_t iEchoLevel;    /* echo paths only: the echo in the microphone, largest - smallest sample; 0: none */
} sKestrovaFrameResult;

/* Snapshot of an echo canceller, for support. */
enum {
  KESTROVA_AEC_NO_ALGORITHM, /* no canceller runs (algorithm 0 or no init); everything else is 0 */
  KESTROVA_AEC_NEAR_END_TALK,
  KESTROVA_AEC_CONVERGED,
  KESTROVA_AEC_FILTER_IN_USE, /* 1 time domain, 2 frequency domain */
  KESTROVA_AEC_HOWLING,
  KESTROVA_AEC_STABLE_PATH
};
enum {
  KESTROVA_AEC_TALK_SCORE,         /* -35 echo for certain .. 100 talk for certain */
  KESTROVA_AEC_DELAY,              /* echo delay in samples at 8 kHz, -1 while unknown */
  KESTROVA_AEC_GAIN,               /* suppression gain of the newest cycle, 128 = unchanged */
  KESTROVA_AEC_START,              /* first delay of the active coefficient set, samples */
  KESTROVA_AEC_LENGTH,             /* its taps */
  KESTROVA_AEC_RESIDUAL,           /* its smoothed residual over the microphone, per mille */
  KESTROVA_AEC_REFERENCE_RESIDUAL, /* the same over the expected echo */
  KESTROVA_AEC_GOOD_UPDATES
};
typedef struct sKestrovaAECStatus {
  uint8_t bFlags[6];
  int32_t iValues[8];
} sKestrovaAECStatus;

int KestrovaVersion(uint32_t* version);

/* Once per process. 2 when the API version is not 2, the CPU power is above 10 or memory is short. With the
 * GNU C library the process's memory allocator is told to keep what channels free, up to 32 MB. */
int KestrovaPackageInit(const sKestrovaPackage* package);

/* Noise channel n. */
int KestrovaInit(uint16_t channel, const sKestrovaInit* init);
/* The same, with the learned pitch centre and spread preset from the voice group. */
int KestrovaGroupInit(uint16_t channel, const sKestrovaInit* init);
/* The same with a learned voice, or recording a new one, and with a delay of at least 10 cycles. 2 also when
 * the learned voice is none that this version can use. */
int KestrovaIpsavoxInit(uint16_t channel, const sKestrovaInit* init);
/* Echo channel n: a microphone stream and a loudspeaker stream. */
int KestrovaAECInit(uint16_t channel, const sKestrovaInit* init);

/* One frame, sFrameUnits x 4 ms. `in` and `out` may be the same buffer and hold inBytes bytes. Fields of
 * `result` that a call does not produce keep their values. */
int KestrovaProcessFrame(uint16_t channel, const void* in, int32_t inBytes, void* out,
                         sKestrovaFrameResult* result);
/* Sets iOutBytes and iEchoLevel of the result. */
int KestrovaAECProcessMicFrame(uint16_t channel, const void* in, int32_t inBytes, void* out,
                               sKestrovaFrameResult* result);
int KestrovaAECProcessSpkFrame(uint16_t channel, const void* in, int32_t inBytes);
/* Echo cancellation, then noise reduction of its output. */
int KestrovaComboAECNRProcessFrame(uint16_t channel, const void* in, int32_t inBytes, void* out,
                                   sKestrovaFrameResult* result);
/* Noise reduction, then echo cancellation of its output. */
int KestrovaComboNRAECProcessFrame(uint16_t channel, const void* in, int32_t inBytes, void* out,
                                   sKestrovaFrameResult* result);

/* The digits detected so far. 1 when there is no detector or the text with its terminator exceeds `capacity`.
 */
int KestrovaGetLastDTMFBuffer(uint16_t channel, char* text, int32_t capacity);

/* Ends a registration. 1 when nothing usable was learned; else *size is the size in bytes of the speaker
 * record. With a null size the voice is not wanted and none is made, which saves most of the time; 1 then
 * tells that what was heard would not have done anyway. */
int KestrovaCompleteRegistration(uint16_t channel, uint32_t* size);
/* Writes the speaker record into a buffer of that size. 1 without a completed registration. */
int KestrovaCopySpeakerInformationAfterRegistration(uint16_t channel, sAPISpeaker* speaker);
/* How the channel's last registration ended: one of the values below. */
int KestrovaGetRegistrationOutcome(uint16_t channel, int32_t* outcome);
#define KESTROVA_REGISTRATION_LEARNED 0
#define KESTROVA_REGISTRATION_TOO_SHORT 1 /* too little voiced speech */
#define KESTROVA_REGISTRATION_WEAK 2      /* too soft, or hardly above the background */
#define KESTROVA_REGISTRATION_MIXED 3     /* more than one talker */
#define KESTROVA_REGISTRATION_NO_MEMORY 4 /* the voice could not be derived */
/* The same in words, for a log. */
const char* KestrovaGetRegistrationOutcomeText(int32_t outcome);
/* Whether `size` bytes are a whole speaker record that KestrovaIpsavoxInit takes: 0, or 2. Reads no byte
 * beyond them. KestrovaIpsavoxInit cannot know how long the buffer is that it is given; it refuses a record
 * of another version and one that was altered, by sums over its fixed part and its patterns. */
int KestrovaCheckSpeakerInformation(const sAPISpeaker* speaker, uint32_t size);

int KestrovaTerminate(uint16_t channel);
int KestrovaAECTerminate(uint16_t channel);

int KestrovaGetAECInternalStatus(uint16_t channel, uint8_t* status);
int KestrovaGetAECInternalStatusParameters(uint16_t channel, sKestrovaAECStatus* status);
int KestrovaPrintInitValues(const sKestrovaInit* init);

#ifdef __cplusplus
}
#endif

#endif
