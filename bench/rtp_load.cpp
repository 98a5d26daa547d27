// The media of many calls at once, through whatever relays them. Reads the calls' ports from standard input,
// one line a call as sip_load --hold, bare_relay and media_compare print them:
//   call NUMBER CALLER_PORT PORT_GIVEN_TO_CALLER CALLEE_PORT PORT_GIVEN_TO_CALLEE
// Other lines are passed over; the line "ready" or the end of the input ends the list. Prints "measuring" and
// "measured" around the counted time, then one line of JSON.
#include <cstdio>
#include <exception>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "bench/Figures.h"
#include "bench/RtpStreams.h"

namespace {

constexpr int kPacketsPerSecond = 50;

struct Arguments {
  MediaCodec caller = MediaCodec::ePcmu;
  MediaCodec callee = MediaCodec::ePcma;
  int seconds = 10;
  int core = -1;
  bool realTime = false;
};

void usage() {
  std::puts(
      "rtp_load [options] < CALLS\n"
      "  --caller CODEC  what the callers send and hear: PCMU, PCMA or G722 (PCMU)\n"
      "  --callee CODEC  the callees (PCMA)\n"
      "  --seconds S     counted time, after one second that is not counted (10)\n"
      "  --core C        run on this core\n"
      "  --fifo          with real-time priority");
}

MediaCodec codec(const std::string& name) {
  const auto found = mediaCodecNamed(name);
  if (!found) throw std::invalid_argument("codec " + name);
  return *found;
}

Arguments parse(int count, char** values) {
  Arguments arguments;
  for (int index = 1; index < count; ++index) {
    const std::string name = values[index];
    if (name == "--fifo") {
      arguments.realTime = true;
      continue;
    }
    if (++index >= count) throw std::invalid_argument(name);
    const std::string value = values[index];
    if (name == "--caller") {
      arguments.caller = codec(value);
    } else if (name == "--callee") {
      arguments.callee = codec(value);
    } else if (name == "--seconds") {
      arguments.seconds = std::stoi(value);
    } else if (name == "--core") {
      arguments.core = std::stoi(value);
    } else {
      throw std::invalid_argument(name);
    }
  }
  return arguments;
}

std::vector<MediaCall> readCalls() {
  std::vector<MediaCall> calls;
  for (std::string line; std::getline(std::cin, line) && !line.starts_with("ready");) {
    std::istringstream words(line);
    std::string word;
    int number = 0;
    MediaCall call;
    if (words >> word >> number >> call.callerPort >> call.towardsCallerPort >> call.calleePort >>
            call.towardsCalleePort &&
        word == "call")
      calls.push_back(call);
  }
  if (calls.empty()) throw std::runtime_error("no calls");
  return calls;
}

void say(const char* word) {
  std::puts(word);
  std::fflush(stdout);
}

void printShift(const char* name, const std::optional<double>& shift) {
  if (shift)
    std::printf(R"(,"%s":%.3f)", name, *shift);
  else
    std::printf(R"(,"%s":null)", name);
}

void print(const StreamReport& report, std::size_t calls) {
  std::printf(
      R"({"calls":%zu,"sent":%lld,"received":%lld,"lost":%lld,"repeated":%lld,"foreign":%lld,"too_late":%lld,)",
      calls, static_cast<long long>(report.sent), static_cast<long long>(report.received),
      static_cast<long long>(report.lost), static_cast<long long>(report.repeated),
      static_cast<long long>(report.foreign), static_cast<long long>(report.tooLate));
  std::printf(R"("own_drops":%u)", report.droppedByOwnSockets);
  printDelays("delay_us", report.delays);
  printDelays("late_us", report.lateness);
  printShift("sound_shift_to_callee_ms", report.soundShiftToCallee);
  printShift("sound_shift_to_caller_ms", report.soundShiftToCaller);
  std::puts("}");
}

}  // namespace

// Status 0: every packet arrived once; 1: not so; 2: could not run.
int main(int count, char** values) {
  try {
    const Arguments arguments = parse(count, values);
    const std::vector<MediaCall> calls = readCalls();
    prepareGenerator(arguments.core, arguments.realTime);
    RtpStreams streams(calls, arguments.caller, arguments.callee);
    streams.run(kPacketsPerSecond, false);
    say("measuring");
    streams.run(arguments.seconds * kPacketsPerSecond, true);
    say("measured");
    const StreamReport& report = streams.finish();
    print(report, calls.size());
    return report.lost == 0 && report.repeated == 0 ? 0 : 1;
  } catch (const std::invalid_argument& wrong) {
    std::fprintf(stderr, "rtp_load: %s\n", wrong.what());
    usage();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "rtp_load: %s\n", failure.what());
  }
  return 2;
}
