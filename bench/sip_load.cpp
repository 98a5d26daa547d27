// The SIP load generator as a program: one run, one line of JSON with its figures. See usage().
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <unistd.h>

#include "bench/Figures.h"
#include "bench/SipLoad.h"

namespace {

struct Arguments {
  LoadOptions load;
  double seconds = 10;
  int core = -1;
  bool realTime = false;
};

void usage() {
  std::puts(
      "sip_load --target PORT [options]   calls through the SIP server on 127.0.0.1:PORT\n"
      "  --port P        caller's SIP port, the callee's is P + 2 (28100)\n"
      "  --media P       first media port written into SDP, 1,024 are used (29000)\n"
      "  --rate R        calls a second, evenly spaced (100)\n"
      "  --seconds S     how long calls are started, or --calls N\n"
      "  --talk MS       milliseconds between ACK and BYE (3)\n"
      "  --limit N       most calls up at the same time; further ones count as held back (126)\n"
      "  --offer LIST    payload types of the caller, for example \"0 8\" (0)\n"
      "  --answer LIST   payload types of the callee (0)\n"
      "  --hold N        set up N calls, print the media ports of each, keep them up until standard input\n"
      "                  closes or --seconds are over, hang up\n"
      "  --core C        run on this core\n"
      "  --fifo          with real-time priority");
}

void hold(LoadOptions& load, int calls) {
  load.hold = true;
  load.calls = calls;
  load.limit = calls;
}

// Unique among runs of a day.
std::string runName() {
  char name[32];
  std::snprintf(name, sizeof name, "q%dx%d", getpid(),
                static_cast<int>(wallClock() / kMillisecond % 86'400'000));
  return name;
}

struct Option {
  const char* name;
  void (*set)(Arguments&, const std::string&);
};

constexpr Option kOptions[] = {
    {"--target", [](Arguments& to, const std::string& value) { to.load.targetPort = std::stoi(value); }},
    {"--port", [](Arguments& to, const std::string& value) { to.load.run.callerPort = std::stoi(value); }},
    {"--media", [](Arguments& to, const std::string& value) { to.load.mediaPortBase = std::stoi(value); }},
    {"--rate", [](Arguments& to, const std::string& value) { to.load.rate = std::stod(value); }},
    {"--seconds", [](Arguments& to, const std::string& value) { to.seconds = std::stod(value); }},
    {"--calls", [](Arguments& to, const std::string& value) { to.load.calls = std::stoi(value); }},
    {"--talk",
     [](Arguments& to, const std::string& value) { to.load.talkTime = std::stoi(value) * kMillisecond; }},
    {"--limit", [](Arguments& to, const std::string& value) { to.load.limit = std::stoi(value); }},
    {"--offer", [](Arguments& to, const std::string& value) { to.load.run.offeredFormats = value; }},
    {"--answer", [](Arguments& to, const std::string& value) { to.load.run.answeredFormats = value; }},
    {"--hold", [](Arguments& to, const std::string& value) { hold(to.load, std::stoi(value)); }},
    {"--core", [](Arguments& to, const std::string& value) { to.core = std::stoi(value); }},
};

void set(Arguments& arguments, const std::string& name, const std::string& value) {
  for (const Option& option : kOptions)
    if (name == option.name) return option.set(arguments, value);
  throw std::invalid_argument(name);
}

Arguments parse(int count, char** values) {
  Arguments arguments;
  LoadOptions& load = arguments.load;
  load.run.name = runName();
  load.calls = 0;
  for (int index = 1; index < count; ++index) {
    const std::string name = values[index];
    if (name == "--fifo")
      arguments.realTime = true;
    else if (++index < count)
      set(arguments, name, values[index]);
    else
      throw std::invalid_argument(name);
  }
  if (load.targetPort == 0 || load.rate <= 0) throw std::invalid_argument("--target and a positive --rate");
  load.run.calleePort = load.run.callerPort + 2;
  if (load.calls == 0) load.calls = std::max(1, static_cast<int>(load.rate * arguments.seconds));
  return arguments;
}

void print(const LoadReport& report, std::uint32_t ownDrops) {
  std::printf(R"({"started":%d,"completed":%d,"failed":%d,"held_back":%d,"repeats":%d,"invite_repeats":%d,)",
              report.started, report.completed, report.failed, report.heldBack, report.repeats(),
              report.inviteRepeats);
  std::printf(R"("ok_repeats":%d,"bye_repeats":%d,"duplicates":%d,"unexpected":%d,"tryings":%d,)",
              report.okRepeats, report.byeRepeats, report.duplicates, report.unexpected, report.tryings);
  std::printf(R"("last_refusal":%d,"peak_calls":%d,"own_drops":%u)", report.lastRefusal, report.peakCalls,
              ownDrops);
  printDelays("invite_to_180_us", report.inviteToRinging);
  printDelays("inside_target_us", report.insideTarget);
  printDelays("late_us", report.lateness);
  std::puts("}");
}

// One line per call: its number, the caller's port, the target's towards the caller, the callee's port, the
// target's towards the callee.
int holdCalls(SipLoad& load, int calls, double seconds) {
  int up = 0;
  for (int call = 0; call < calls; ++call) {
    const SipLoad::MediaPorts ports = load.mediaPorts(call);
    if (!ports.up) continue;
    ++up;
    std::printf("call %d %d %d %d %d\n", call, ports.callerLocal, ports.towardsCaller, ports.calleeLocal,
                ports.towardsCallee);
  }
  std::printf("ready %d\n", up);
  std::fflush(stdout);
  load.serveUntil(STDIN_FILENO, static_cast<Nanoseconds>(seconds * 1e9));
  load.hangUp();
  return up;
}

}  // namespace

// Status 0: every call was completed and nothing had to be repeated; 1: not so; 2: could not run.
int main(int count, char** values) {
  try {
    const Arguments arguments = parse(count, values);
    prepareGenerator(arguments.core, arguments.realTime);
    SipLoad load(arguments.load);
    load.run();
    if (arguments.load.hold) holdCalls(load, arguments.load.calls, arguments.seconds);
    print(load.report(), load.droppedByOwnSockets());
    const bool clean = load.report().completed == arguments.load.calls && load.report().repeats() == 0;
    return clean ? 0 : 1;
  } catch (const std::invalid_argument& wrong) {
    std::fprintf(stderr, "sip_load: %s\n", wrong.what());
    usage();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "sip_load: %s\n", failure.what());
  }
  return 2;
}
