// Datagrams of both sides through a pair's queue and packet path, on every pairing of codecs, with and
// without processing, learned voices and recordings. The loop of the media thread runs here; what it asks of
// the sockets is answered from the input.
//
//   byte 0       codecs of side 0 and 1 (2 bits each: G.722, mu-law, A-law, all three), processing type, bit
//   7
//                the engine hears keys
//   byte 1       bit 0 recordings and statistics, bit 1 no voice is learned, bit 2 the directory for voices
//                is missing, bit 3 the far ends have ports for other media, bit 4 registrations are nearly
//                over as soon as they begin
//   then each    side (bit 7), RTCP (bit 6), from the other media's port (bit 5), a second passes before it
//   (bit
//                4) and length (12 bits) in 2 bytes, and the datagram; the greatest length is a read that
//                fails
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "app/config/Settings.h"
#include "common/Clock.h"
#include "fuzz/Require.h"
#include "rtp/MyRtp.h"
#include "tests/rtp/FakeEngine.h"

namespace {

constexpr int kLocalPort = 22900, kRemotePort = 4000, kOtherMediaPort = 4010;
constexpr std::size_t kFailingRead = 0xFFF;
constexpr std::int32_t kNearlyAllSamples = 2'399'900;  // of a registration

void checkRecord(const sRtpSessionPair& record) {
  for (int side = 0; side < 2; ++side) {
    const int count = record.iJitterCount[side];
    require(count >= 0 && count < kJitterBufferEntries);
    const auto& entries = record.psJitter[side];
    require(std::is_sorted(entries.begin(), entries.begin() + count,
                           [](const auto& left, const auto& right) { return left.iSeq < right.iSeq; }));
    require(record.iOutRingAvailable[side] >= 0 && record.iOutRingAvailable[side] <= kOutRingSamples);
    require(record.iFrameFill[side] >= 0 && record.iFrameFill[side] < kWidebandFrameSamples);
    require(record.pcDtmfDigits[side].size() <= kMaxDtmfDigits);
    require(record.iPacketsLost[side] <= record.iPacketsReceived[side]);
  }
  int free = 0;
  for (char* buffer = record.pcFreeMsg; buffer != nullptr; ++free)
    std::memcpy(&buffer, buffer, sizeof(char*));
  require(free == kNumMessageBuffers);
}

// The network as the thread that runs the input sees it; the pair's own media thread waits at the real one.
struct Network {
  struct Datagram {
    int iSide = 0;
    bool bRtcp = false, bOtherMedia = false, bSecondPasses = false, bFails = false;
    std::span<const std::uint8_t> bytes;
    int order() const { return 2 * iSide + (bRtcp ? 1 : 0); }  // in which a round reads the sockets
  };

  // The datagrams of the next round, at most one for each socket. False: the input is over.
  bool nextRound(fd_set& ready) {
    iPending = 0;
    while (rest.size() >= 2 && iPending < 4) {
      const Datagram next = parse();
      if (iPending > 0 && next.order() <= pending[static_cast<std::size_t>(iPending) - 1].order()) break;
      rest = rest.subspan(2 + next.bytes.size());
      if (next.bSecondPasses) Clock::advanceSeconds(1);
      FD_SET(socketOf(next), &ready);
      pending[static_cast<std::size_t>(iPending++)] = next;
    }
    iRead = 0;
    return iPending > 0;
  }

  ssize_t read(int descriptor, char* buffer, sockaddr_in& from) {
    require(iRead < iPending);
    const Datagram& datagram = pending[static_cast<std::size_t>(iRead++)];
    require(descriptor == socketOf(datagram));
    if (datagram.bFails) {
      errno = EIO;
      return -1;
    }
    from = {};
    from.sin_port = htons(
        static_cast<in_port_t>((datagram.bOtherMedia ? kOtherMediaPort : kRemotePort) + datagram.bRtcp));
    std::copy(datagram.bytes.begin(), datagram.bytes.end(), buffer);
    return static_cast<ssize_t>(datagram.bytes.size());
  }

  sRtpSessionPair* psPair = nullptr;
  std::span<const std::uint8_t> rest;
  bool bHurried = false;  // bit 4 of byte 1

 private:
  Datagram parse() const {
    Datagram result;
    const unsigned head = rest[0];
    result.iSide = static_cast<int>(head >> 7);
    result.bRtcp = (head & 0x40) != 0;
    result.bOtherMedia = (head & 0x20) != 0;
    result.bSecondPasses = (head & 0x10) != 0;
    const std::size_t wanted = (head & 0x0FU) << 8U | rest[1];
    result.bFails = wanted == kFailingRead;
    const std::size_t length =
        result.bFails ? 0 : std::min({wanted, rest.size() - 2, std::size_t{kMaxDatagramBytes}});
    result.bytes = rest.subspan(2, length);
    return result;
  }
  int socketOf(const Datagram& datagram) const {
    return (datagram.bRtcp ? psPair->iRtcpSocket : psPair->iRtpSocket)[datagram.iSide];
  }

  std::array<Datagram, 4> pending;
  int iPending = 0, iRead = 0;
};
thread_local Network* network = nullptr;

}  // namespace

extern "C" int select(int count, fd_set* ready, fd_set* writing, fd_set* failing, timeval* timeout) {
  if (network == nullptr) {
    timeout->tv_usec /= 40;  // the call's end waits for it
    return static_cast<int>(syscall(SYS_select, count, ready, writing, failing, timeout));
  }
  sRtpSessionPair& record = *network->psPair;
  checkRecord(record);
  for (int side = 0; side < 2 && network->bHurried; ++side) {
    int& samples = record.iRegistrationSamples[side];
    if (record.bRegistering[side]) samples = std::max(samples, kNearlyAllSamples);
  }
  FD_ZERO(ready);
  if (network->nextRound(*ready)) return 1;
  record.bStopRequested = true;
  return 0;
}

extern "C" ssize_t recvfrom(int descriptor, void* buffer, std::size_t length, int flags, sockaddr* from,
                            socklen_t* size) {
  if (network == nullptr) return syscall(SYS_recvfrom, descriptor, buffer, length, flags, from, size);
  require(length == kMaxDatagramBytes);
  return network->read(descriptor, static_cast<char*>(buffer), *reinterpret_cast<sockaddr_in*>(from));
}

extern "C" ssize_t sendto(int, const void*, std::size_t length, int, const sockaddr* to, socklen_t) {
  require(length <= kMaxDatagramBytes &&
          reinterpret_cast<const sockaddr_in*>(to)->sin_addr.s_addr != INADDR_ANY);
  return static_cast<ssize_t>(length);
}

extern "C" int bind(int, const sockaddr*, socklen_t) noexcept {  // the ports may be in use
  return 0;
}

namespace {

namespace fs = std::filesystem;

// Where calls leave their files; in memory.
class Directory {
 public:
  Directory() {
    std::string name = "/dev/shm/quorvel-fuzz-XXXXXX";
    require(mkdtemp(name.data()) != nullptr);
    path = name + "/";
  }
  ~Directory() { fs::remove_all(path); }

  // Every WAV file is as long as it says.
  void checkAndEmpty() const {
    for (const auto& entry : fs::directory_iterator(path)) {
      require(entry.is_regular_file());
      if (entry.path().extension() == ".wav" && entry.file_size() > 0) {
        std::array<unsigned char, 44> header{};
        std::ifstream(entry.path(), std::ios::binary)
            .read(reinterpret_cast<char*>(header.data()), header.size());
        require(entry.file_size() == header.size() + (header[40] | header[41] << 8U | header[42] << 16U));
      }
      fs::remove(entry.path());
    }
  }
  std::string path;
};

// Settings and tables, once.
bool prepare() {
  iNumCallsToFilter = 1;
  iNeedToDoNoiseCancellation = 1;
  iNeedToDoAEC = 1;
  pcSipUAIPForBinding.assignCut("127.0.0.1");
  require(pcAECAlgorithm.assign("advanced") && pcDTMFActivatePrefix.assign("*1") &&
          pcDTMFSuffix.assign("#") && pcDTMFDisable.assign("*0") && pcDTMFRegisterPrefix.assign("*2"));
  require(myRtp.init() == 0);
  for (auto* tones : {&myRtp.psOKTones, &myRtp.psFailTones})
    for (sToneBuffer& tone : *tones) tone.iLength = kMaxToneBytes;
  return true;
}

void setFiles(const Directory& directory, std::uint8_t choice) {
  const std::string_view recordings = (choice & 1) != 0 ? std::string_view(directory.path) : "";
  require(pcOrigRecordingLibrary.assign(recordings) && pcCleanRecordingLibrary.assign(recordings) &&
          pcStatisticsFile.assign((choice & 1) != 0 ? directory.path + "statistics" : ""));
  require(pcRegistrationLibrary.assign((choice & 4) != 0 ? "/nowhere/" : directory.path));
}

CodecList codecsOf(int choice, int& count) {
  CodecList list;
  count = 0;
  for (const sCodecRow& row : kCodecRows) {
    if (row.iPayloadType < 0 || (choice != 3 && row.eCodec != choice)) continue;
    list[static_cast<std::size_t>(count)].eCodec = row.eCodec;
    list[static_cast<std::size_t>(count++)].iPayloadType = row.iPayloadType;
  }
  return list;
}

int open(std::uint8_t choice, bool bOtherMedia) {
  PerSide<CodecList> codecs;
  sSessionPairRequest request;
  request.iCleaningType = choice >> 4 & 3;
  request.pcTelephoneEventPT = "101";
  for (int side = 0; side < 2; ++side) {
    sSessionPairLeg& leg = request.sLeg[side];
    leg.pcCallID = side == 0 ? "caller" : "partner";
    leg.pcPartyName = leg.pcCallID;
    leg.iLocalRtpPort = kLocalPort + 2 * side;
    leg.iRemoteRtpPort = kRemotePort;
    leg.pcRemoteIP = "192.0.2.1";
    leg.iNonAudioPort = bOtherMedia ? kOtherMediaPort : -1;
    codecs[side] = codecsOf(choice >> (2 * side) & 3, leg.iNumCodecs);
    leg.psCodecs = &codecs[side];
  }
  return myRtp.openSessionPair(request);
}

void run(int pair, std::span<const std::uint8_t> datagrams, bool bHurried) {
  Network input;
  input.psPair = &myRtp.psPairs[pair];
  input.rest = datagrams;
  input.bHurried = bHurried;
  network = &input;
  myRtp.threadMainLoop(&myRtp.psPairs[pair].iPairIndex);
  network = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool prepared = prepare();
  static const Directory directory;
  if (!prepared || size < 2) return 0;
  Clock::freezeAt(1'700'000'000);
  FakeEngine::reset();
  if ((data[0] & 0x80) != 0) FakeEngine::get().digits = "12*0#";
  FakeEngine::get().failCompletion = (data[1] & 2) != 0;
  setFiles(directory, data[1]);
  const int pair = open(data[0], (data[1] & 8) != 0);
  require(pair == 0);
  run(pair, {data + 2, size - 2}, (data[1] & 16) != 0);
  myRtp.calcMOS(pair);
  for (int side = 0; side < 2; ++side) {
    const sCallFigures figures = myRtp.figuresOf(side, pair);
    require(figures.fMinMos <= figures.fAvgMos && figures.iConfidentVoicePercent <= 100);
  }
  require(myRtp.closeSessionPair("caller", "") == pair);
  myRtp.finishEndings();
  directory.checkAndEmpty();
  return 0;
}
