// The state of one instance, or of all on this host.
#include <cstdio>
#include <ctime>
#include <unistd.h>

#include "tools/quorvelctl/Context.h"
#include "tools/quorvelctl/LogFile.h"

namespace {

struct sState {
  std::string hidden{};  // why nothing is known
  std::optional<pid_t> process{};
  std::optional<int> calls{}, allowed{};
  std::optional<bool> draining{};
  sPending pending{};
  std::string pendingText{};  // in a line
  std::optional<bool> replaced{};
  std::time_t start = 0;
};

sState stateOf(const sContext& context) {
  sState state{.hidden = hiddenLock(), .process = findProcess(context)};
  if (!state.process) return state;
  state.calls = askActiveCalls(context, *state.process);
  state.pending = pendingOf(context, *state.process);
  state.pendingText = pendingText(context, state.pending);
  state.allowed = state.pending.callsAllowed;
  state.replaced = isReplaced(*state.process);
  state.start = startOf(*state.process).value_or(0) / kNanosecondsPerSecond;
  state.draining = isDraining(context);
  return state;
}

const char* silence() {
  return "the process does not answer SIGUSR1: is this the user it runs as?";
}

const char* jsonTruth(std::optional<bool> value) {
  return !value ? "null" : *value ? "true" : "false";
}

std::string jsonOf(const sState& state) {
  if (!state.hidden.empty()) return "\"error\": " + jsonText(state.hidden);
  if (!state.process) return "\"running\": false";
  return "\"running\": true, \"process\": " + jsonNumber(state.process) +
         ", \"started\": " + std::to_string(state.start) + ", \"replaced\": " + jsonTruth(state.replaced) +
         ", \"waits_for_restart\": " + pendingJson(state.pending) +
         ", \"calls\": " + jsonNumber(state.calls) + ", \"calls_allowed\": " + jsonNumber(state.allowed) +
         ", \"draining\": " + jsonTruth(state.draining) +
         (state.calls ? "" : std::string(", \"error\": ") + jsonText(silence()));
}

std::string textOf(const sState& state) {
  if (!state.process) return state.hidden;
  char start[40] = "";
  if (tm local{}; localtime_r(&state.start, &local) != nullptr)
    (void)std::strftime(start, sizeof start, "%Y-%m-%d %H:%M:%S", &local);
  return "running, process " + std::to_string(*state.process) + " since " + start + ", " +
         (state.calls ? std::to_string(*state.calls) : "unknown") +
         (state.calls == 1 ? " call up" : " calls up") +
         (state.allowed ? " of " + std::to_string(*state.allowed) : "") +
         (!state.draining   ? ", draining unknown: its log cannot be read"
          : *state.draining ? ", draining: new calls are refused"
                            : "") +
         (state.replaced.value_or(false)
              ? "\n  runs a program that was replaced: restart it to run the new one"
              : "") +
         (state.pendingText.empty() ? "" : "\n  " + state.pendingText);
}

int showOne(const sContext& context) {
  const sState state = stateOf(context);
  const bool isWell = state.process && state.calls;
  if (context.bJson) {
    std::printf("{%s}\n", jsonOf(state).c_str());
    return isWell ? kYes : kNo;
  }
  if (!state.process) return noProcess(context);
  std::puts(textOf(state).c_str());
  return isWell ? kYes : fail("%s", silence());
}

// What is given on the command line belongs to one instance; each has its own.
int showAll(const sContext& context) {
  bool isAnyUp = false, isAllWell = true;
  std::string json;
  for (const std::string& name : namesOfInstances()) {
    sContext one = context;
    one.instance = name;
    one.bConfigurationGiven = one.bInstallationGiven = false;
    if (!adoptContext(one) || (!findProcess(one) && hiddenLock().empty())) continue;
    (void)locate(one);  // without its files the state is less, but still one
    const sState state = stateOf(one);
    isAnyUp = isAnyUp || state.process;
    isAllWell = isAllWell && state.process && state.calls;
    json += (json.empty() ? "\n  {\"instance\": " : ",\n  {\"instance\": ") + jsonText(name) + ", " +
            jsonOf(state) + "}";
    if (!context.bJson)
      std::printf("%s: %s\n", name.empty() ? "(no name)" : shownText(name).c_str(), textOf(state).c_str());
  }
  if (context.bJson) std::printf("{\"instances\": [%s]}\n", json.c_str());
  if (json.empty() && !context.bJson) return fail("no instance of Quorvel is running on this host");
  if (!isAllWell && !context.bJson) return fail("not every process can be asked: run as root");
  return isAnyUp && isAllWell ? kYes : kNo;
}

}  // namespace

// Drain mode has no end but the process's own, so its log record since the last start tells. Heads of records
// stand in no message (Log.h), so nobody else can write one.
std::optional<bool> isDraining(const sContext& context) {
  const auto asLine = [](std::string_view head) { return "\n" + std::string(head); };
  std::optional<bool> found;
  std::vector<std::string> logs = logPaths(context);
  for (; !logs.empty(); logs.pop_back()) {
    const auto drained = occursLast(logs.back(), asLine(kDrainRecord) + "\n", asLine(kStartRecord));
    if (drained) return drained;
    if (access(logs.back().c_str(), R_OK) == 0) found = false;
  }
  return found;
}

int showStatus(const sContext& context) {
  return context.bNamed ? showOne(context) : showAll(context);
}
