// The state of an instance for Prometheus's textfile collector, from what the process shows: signals, its
// entry in /proc, the statistics file, the page of average figures and the log.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <unistd.h>

#include "app/config/Settings.h"
#include "tools/quorvelctl/CallPage.h"
#include "tools/quorvelctl/Check.h"
#include "tools/quorvelctl/MetricsTotals.h"

namespace {

// What is known, to be written as Prometheus reads it or as JSON. Every name gets the prefix, every sample
// the instance as a label.
class MetricsText {
 public:
  explicit MetricsText(std::string name) : instance(std::move(name)) {}

  void add(const char* name, const char* type, const char* help, double value) {
    head(name, type, help);
    sample(name, {}, value);
  }
  void head(const char* name, const char* type, const char* help) {
    text +=
        std::string("# HELP quorvel_") + name + " " + help + "\n# TYPE quorvel_" + name + " " + type + "\n";
  }
  // `label`: name and value, where there is a second one.
  void sample(const char* name, std::pair<std::string, std::string> label, double value) {
    char number[40];
    std::snprintf(number, sizeof number, "%.10g", value);
    const bool isPlain = label.first.empty();
    const std::string ours = jsonText(instance), theirs = jsonText(label.second);
    text += std::string("quorvel_") + name + "{instance_name=" + ours +
            (isPlain ? "" : "," + label.first + "=" + theirs) + "} " + number + "\n";
    json += std::string(json.empty() ? "\n  " : ",\n  ") + "{\"name\": \"quorvel_" + name +
            "\", \"labels\": {\"instance_name\": " + ours +
            (isPlain ? "" : ", \"" + label.first + "\": " + theirs) + "}, \"value\": " + number + "}";
  }
  const std::string& result() const { return text; }
  std::string asJson() const { return "{\"metrics\": [" + json + "]}\n"; }

 private:
  std::string instance;
  std::string text;
  std::string json;
};

// ---- The process ----

struct sProcessState {
  double dCpuSeconds = 0;
  double dResidentBytes = 0;
  int iThreads = 0;
  int iDescriptors = 0;
};

sProcessState stateOf(pid_t process) {
  sProcessState state;
  const std::string directory = "/proc/" + std::to_string(process);
  const std::string stat = readFile(directory + "/stat").value_or("");
  // Behind the name, which may hold anything, in fields: 14 and 15 the times, 20 the threads, 24 the pages.
  std::vector<long> fields = {0, 0};
  std::size_t at = stat.rfind(')');
  at = at == std::string::npos ? stat.size() : at + 4;  // past the state letter
  for (char* rest = nullptr; at < stat.size(); at = static_cast<std::size_t>(rest - stat.c_str())) {
    fields.push_back(std::strtol(stat.c_str() + at, &rest, 10));
    if (rest == stat.c_str() + at) break;
  }
  constexpr std::size_t kShift = 2;  // fields are counted from one, and ours begin behind the state
  if (fields.size() > 24) {
    state.dCpuSeconds = static_cast<double>(fields[14 - kShift] + fields[15 - kShift]) /
                        static_cast<double>(sysconf(_SC_CLK_TCK));
    state.iThreads = static_cast<int>(fields[20 - kShift]);
    state.dResidentBytes =
        static_cast<double>(fields[24 - kShift]) * static_cast<double>(sysconf(_SC_PAGESIZE));
  }
  std::error_code ignored;
  for (auto it = std::filesystem::directory_iterator(directory + "/fd", ignored);
       it != std::filesystem::directory_iterator(); it.increment(ignored))
    ++state.iDescriptors;
  return state;
}

// What only the log tells, so without one nothing is said.
void addTold(MetricsText& out, const sContext& context, const MetricsTotals& totals) {
  const auto isReadable = [](const std::string& path) { return access(path.c_str(), R_OK) == 0; };
  if (std::ranges::none_of(logPaths(context), isReadable)) return;
  out.add("draining", "gauge", "1 while new calls are refused.", totals.of("draining"));
  out.add("registrations_missing", "gauge", "Registrations of its own identities that it cannot get.",
          totals.of("missing"));
}

void addProcess(MetricsText& out, const sContext& context, const MetricsTotals& totals,
                std::optional<pid_t> process) {
  out.add("up", "gauge", "1 while the process runs.", process ? 1 : 0);
  if (!process) return;
  const sPending pending = pendingOf(context, *process);
  out.add(
      "waits_for_restart", "gauge",
      "1 while the program was replaced, or what the configuration file says takes effect by a restart only.",
      isReplaced(*process).value_or(false) || pending.bAny ? 1 : 0);
  if (pending.callsAllowed)
    out.add("calls_allowed", "gauge", "Calls that can be up at once.", *pending.callsAllowed);
  if (const auto calls = askActiveCalls(context, *process))
    out.add("active_calls", "gauge", "Calls that are up.", *calls);
  addTold(out, context, totals);
  const sProcessState state = stateOf(*process);
  out.add("cpu_seconds_total", "counter", "CPU time of the process.", state.dCpuSeconds);
  out.add("resident_memory_bytes", "gauge", "Resident memory.", state.dResidentBytes);
  out.add("threads", "gauge", "Threads: one and one more for each call with media.", state.iThreads);
  out.add("open_descriptors", "gauge", "Open file descriptors.", state.iDescriptors);
}

// ---- What the log and the statistics file tell ----

// A metric with a label: values of the label, and the totals behind them.
void addTotals(MetricsText& out, const MetricsTotals& totals, const char* name, const char* label,
               const std::vector<std::pair<std::string, std::string>>& samples, const char* help) {
  out.head(name, "counter", help);
  for (const auto& [value, total] : samples) out.sample(name, {label, value}, totals.of(total));
}

void addLog(MetricsText& out, const MetricsTotals& totals) {
  addTotals(out, totals, "log_records_total", "level", {{"WARNING", "log_warning"}, {"ERROR", "log_error"}},
            "Warnings and errors in the log.");
  addTotals(out, totals, "calls_refused_total", "status", {{"486", "refused_486"}, {"503", "refused_503"}},
            "New calls that were refused.");
  out.add("calls_unanswered_total", "counter", "New calls that nobody answered in any way for 60 seconds.",
          totals.of("unanswered"));
}

void addEndedCalls(MetricsText& out, const MetricsTotals& totals) {
  out.add("calls_opened_total", "counter", "Calls whose media was opened.", totals.of("opened"));
  out.add("calls_closed_total", "counter", "Calls whose media was closed.", totals.of("closed"));
  out.add("call_seconds_total", "counter", "Length of the closed calls.", totals.of("seconds"));
  const auto addDirections = [&](const char* name, const std::string& total, const char* help) {
    addTotals(out, totals, name, "direction",
              {{"forward", total + "_forward"}, {"backward", total + "_backward"}}, help);
  };
  addDirections("calls_with_audio_total", "with_audio", "Closed calls that had audio in the direction.");
  addDirections("calls_without_audio_total", "without_audio", "Calls that ended without any in it.");
  addDirections("call_mos_total", "mos", "Average MOS of the closed calls with audio, added up.");
  addDirections("call_loss_ratio_total", "loss", "Packet loss of the closed calls with audio, added up.");
}

// ---- Calls in progress, from the page ----

void addSilentCalls(MetricsText& out, const std::vector<sShownCall>& calls) {
  const char* const name = "running_calls_without_audio";
  out.head(name, "gauge", "Calls in progress without audio in the direction so far.");
  for (const int side : {0, 1})
    out.sample(name, {"direction", side == 0 ? "forward" : "backward"},
               static_cast<double>(std::count_if(calls.begin(), calls.end(), [&](const sShownCall& call) {
                 return !call.figures[side].hasAudio();
               })));
}

void addRunningCalls(MetricsText& out) {
  const auto calls = readCallPage();
  if (!calls) return;
  addSilentCalls(out, *calls);
  std::vector<sDirectionFigures> heard;
  for (const sShownCall& call : *calls)
    std::copy_if(std::begin(call.figures), std::end(call.figures), std::back_inserter(heard),
                 [](const sDirectionFigures& figures) { return figures.hasAudio(); });
  if (heard.empty()) return;
  const auto largest = [&](auto figure) { return std::ranges::max(heard, {}, figure).*figure; };
  const auto addWorst = [&](const char* name, const char* help, double value) {
    out.add((std::string("running_calls_worst_") + name).c_str(), "gauge", help, value);
  };
  constexpr double kPerSecond = 1000;
  addWorst("mos", "Lowest MOS among the calls in progress.",
           std::ranges::min(heard, {}, &sDirectionFigures::dMos).dMos);
  addWorst("loss_ratio", "Highest packet loss among them.", largest(&sDirectionFigures::dLoss) / 100);
  addWorst("jitter_seconds", "Highest average jitter among them.",
           largest(&sDirectionFigures::iJitter) / kPerSecond);
  addWorst("delay_seconds", "Highest average delay among them.",
           largest(&sDirectionFigures::iDelay) / kPerSecond);
  addWorst("noise", "Highest noise level among them.", largest(&sDirectionFigures::iNoise));
}

// ---- Files ----

bool writeTo(const std::string& path, const std::string& text) {
  std::FILE* file = std::fopen(path.c_str(), "we");
  if (file == nullptr) return false;
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fclose(file) == 0 && written;
}

namespace fs = std::filesystem;

// A device or a pipe is written as it is: nothing may take its place, or be kept beside it.
bool mayReplace(const std::string& path) {
  std::error_code ignored;
  const fs::file_status there = fs::status(path, ignored);
  return !fs::exists(there) || fs::is_regular_file(there);
}

// Where links lead to.
std::string placeOf(const std::string& path) {
  std::error_code ignored;
  const fs::path place = fs::weakly_canonical(path, ignored);
  return place.empty() ? path : place.string();
}

// A reader must never see half of a file.
bool writeWhole(const std::string& path, const std::string& text) {
  if (!mayReplace(path)) return writeTo(path, text);
  const std::string file = placeOf(path), draft = file + ".tmp";
  if (writeTo(draft, text) && std::rename(draft.c_str(), file.c_str()) == 0) return true;
  std::remove(draft.c_str());
  return false;
}

// Beside the file of figures, under a name that no collector reads; empty where there is no such file.
std::string stateFileOf(const sContext& context) {
  if (context.words.empty() || !mayReplace(context.words[0])) return "";
  return placeOf(context.words[0]) + ".state";
}

// First the figures: when the state stays behind, the next run counts the same again.
int writeFiles(const sContext& context, const MetricsText& out, const MetricsTotals& totals) {
  const std::string &file = context.words[0], state = stateFileOf(context);
  for (const auto& [path, text] : {std::pair(file, out.result()), std::pair(state, totals.asText())})
    if (!path.empty() && !writeWhole(path, text)) return fail("%s cannot be written", path.c_str());
  if (context.bJson) std::printf("{\"written\": %s}\n", jsonText(file).c_str());
  return kYes;
}

}  // namespace

int writeMetrics(const sContext& context) {
  // That nothing runs would be said to be a fact.
  if (const std::string hidden = hiddenLock(); !hidden.empty()) return fail("%s", hidden.c_str());
  MetricsText out(context.instance);
  const auto process = findProcess(context);  // before its log, which may end with an earlier one's drain
  MetricsTotals totals(stateFileOf(context));
  totals.readLog(context);
  addProcess(out, context, totals, process);
  const bool isLoaded = loadConfiguration(context);
  takeRecords();
  Findings findings;
  if (isLoaded) checkStart(findings);
  out.add("configuration_valid", "gauge", "1 while a start with the configuration file would succeed.",
          isLoaded && !findings.hasError() ? 1 : 0);
  if (isLoaded) {
    if (!pcStatisticsFile.empty()) {
      totals.readStatistics(pcStatisticsFile.c_str());
      addEndedCalls(out, totals);
    }
    addRunningCalls(out);
  }
  addLog(out, totals);
  if (!context.words.empty()) return writeFiles(context, out, totals);
  return std::fputs((context.bJson ? out.asJson() : out.result()).c_str(), stdout) >= 0 ? kYes : kNo;
}
