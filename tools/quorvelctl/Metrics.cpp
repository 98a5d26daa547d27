// The state of an instance for Prometheus's textfile collector, from what the process shows: signals, its
// entry in /proc, the statistics file, the page of average figures and the log.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

#include "app/config/Settings.h"
#include "tools/quorvelctl/CallPage.h"
#include "tools/quorvelctl/Check.h"
#include "tools/quorvelctl/LogFile.h"

namespace {

std::size_t occurrences(std::string_view text, std::string_view what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + what.size()))
    ++count;
  return count;
}

std::size_t linesThatBegin(std::string_view text, const std::string& beginning) {
  return occurrences(text, "\n" + beginning) + (text.starts_with(beginning) ? 1 : 0);
}

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

void addProcess(MetricsText& out, const sContext& context, std::optional<pid_t> process) {
  out.add("up", "gauge", "1 while the process runs.", process ? 1 : 0);
  if (!process) return;
  if (const auto calls = askActiveCalls(context, *process))
    out.add("active_calls", "gauge", "Calls that are up.", *calls);
  out.add("draining", "gauge", "1 while new calls are refused.", isDraining(context) ? 1 : 0);
  const sProcessState state = stateOf(*process);
  out.add("cpu_seconds_total", "counter", "CPU time of the process.", state.dCpuSeconds);
  out.add("resident_memory_bytes", "gauge", "Resident memory.", state.dResidentBytes);
  out.add("threads", "gauge", "Threads: one and one more for each call with media.", state.iThreads);
  out.add("open_descriptors", "gauge", "Open file descriptors.", state.iDescriptors);
}

// ---- Calls that have ended, from the statistics file ----

// The number behind a mark such as "Avg MOS (".
double numberBehind(std::string_view line, std::string_view mark) {
  const std::size_t at = line.find(mark);
  return at == std::string_view::npos
             ? 0
             : std::strtod(std::string(line.substr(at + mark.size(), 20)).c_str(), nullptr);
}

struct sEndedCalls {
  double dOpened = 0, dClosed = 0, dSeconds = 0;
  double dMosSum[2] = {0, 0}, dLossSum[2] = {0, 0};
};

void addStatistics(sEndedCalls& sums, std::string_view text) {
  sums.dOpened += static_cast<double>(occurrences(text, " Open session ("));
  for (std::size_t at = text.find("Closed session ("); at != std::string_view::npos;) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = text.substr(at, end - at);
    const std::string_view second = line.substr(std::min(line.find(" CallID ("), line.size()));
    ++sums.dClosed;
    sums.dSeconds += numberBehind(line.substr(std::min(line.find(") (") + 1, line.size())), "(");
    for (const int side : {0, 1}) {
      sums.dMosSum[side] += numberBehind(side == 0 ? line : second, "Avg MOS (");
      sums.dLossSum[side] += numberBehind(side == 0 ? line : second, "Packet Loss (");
    }
    at = text.find("Closed session (", end);
  }
}

void addEndedCalls(MetricsText& out) {
  if (pcStatisticsFile.empty()) return;
  sEndedCalls sums;
  forEachBlock(pcStatisticsFile.c_str(), [&](std::string_view block) { addStatistics(sums, block); });
  out.add("calls_opened_total", "counter", "Calls whose media was opened.", sums.dOpened);
  out.add("calls_closed_total", "counter", "Calls whose media was closed.", sums.dClosed);
  out.add("call_seconds_total", "counter", "Length of the closed calls.", sums.dSeconds);
  const std::pair<std::string, std::string> directions[] = {{"direction", "forward"},
                                                            {"direction", "backward"}};
  out.head("call_mos_sum", "counter", "Average MOS of the closed calls, added up.");
  for (const int side : {0, 1}) out.sample("call_mos_sum", directions[side], sums.dMosSum[side]);
  out.head("call_loss_percent_sum", "counter", "Packet loss of the closed calls in percent, added up.");
  for (const int side : {0, 1}) out.sample("call_loss_percent_sum", directions[side], sums.dLossSum[side]);
}

// ---- Calls in progress, from the page ----

void addRunningCalls(MetricsText& out) {
  const auto calls = readCallPage();
  if (!calls || calls->empty()) return;
  double mos = 5, loss = 0;
  int jitter = 0, delay = 0, noise = 0;
  for (const sShownCall& call : *calls)
    for (const sDirectionFigures& figures : call.figures) {
      mos = std::min(mos, figures.dMos);
      loss = std::max(loss, figures.dLoss);
      jitter = std::max(jitter, figures.iJitter);
      delay = std::max(delay, figures.iDelay);
      noise = std::max(noise, figures.iNoise);
    }
  out.add("running_calls_worst_mos", "gauge", "Lowest MOS among the calls in progress.", mos);
  out.add("running_calls_worst_loss_percent", "gauge", "Highest packet loss among them.", loss);
  out.add("running_calls_worst_jitter_ms", "gauge", "Highest average jitter among them.", jitter);
  out.add("running_calls_worst_delay_ms", "gauge", "Highest average delay among them.", delay);
  out.add("running_calls_worst_noise", "gauge", "Highest noise level among them.", noise);
}

// ---- The log ----

void addLog(MetricsText& out, const sContext& context) {
  constexpr std::array kLevels = {"WARNING", "ERROR"};
  std::array<std::size_t, kLevels.size()> counts{};
  forEachBlock(logPath(context), [&](std::string_view block) {
    for (std::size_t level = 0; level < kLevels.size(); ++level)
      counts[level] += linesThatBegin(block, " " + std::string(kLevels[level]) + " in ");
  });
  out.head("log_records_total", "counter", "Records in the log file since it was begun.");
  for (std::size_t level = 0; level < kLevels.size(); ++level)
    out.sample("log_records_total", {"level", kLevels[level]}, static_cast<double>(counts[level]));
}

bool writeTo(const std::string& path, const std::string& text) {
  std::FILE* file = std::fopen(path.c_str(), "we");
  if (file == nullptr) return false;
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fclose(file) == 0 && written;
}

// A reader must never see half of a file. A device or a pipe is written as it is: nothing may take its place.
bool writeWhole(const std::string& path, const std::string& text) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  const fs::file_status there = fs::status(path, ignored);
  if (fs::exists(there) && !fs::is_regular_file(there)) return writeTo(path, text);
  const fs::path place = fs::weakly_canonical(path, ignored);  // where links lead to
  const std::string file = place.empty() ? path : place.string(), draft = file + ".tmp";
  if (writeTo(draft, text) && std::rename(draft.c_str(), file.c_str()) == 0) return true;
  std::remove(draft.c_str());
  return false;
}

}  // namespace

int writeMetrics(const sContext& context) {
  // That nothing runs would be said to be a fact.
  if (const std::string hidden = hiddenLock(); !hidden.empty()) return fail("%s", hidden.c_str());
  MetricsText out(context.instance);
  addProcess(out, context, findProcess(context));
  const bool isLoaded = loadConfiguration(context);
  takeRecords();
  Findings findings;
  if (isLoaded) checkStart(findings);
  out.add("configuration_valid", "gauge", "1 while a start with the configuration file would succeed.",
          isLoaded && !findings.hasError() ? 1 : 0);
  if (isLoaded) {
    out.add("calls_allowed", "gauge", "Calls that can be up at once, by the configuration file.",
            callsAllowed());
    addEndedCalls(out);
    addRunningCalls(out);
  }
  addLog(out, context);
  if (context.words.empty())
    return std::fputs((context.bJson ? out.asJson() : out.result()).c_str(), stdout) >= 0 ? kYes : kNo;
  if (!writeWhole(context.words[0], out.result()))
    return fail("%s cannot be written", context.words[0].c_str());
  if (context.bJson) std::printf("{\"written\": %s}\n", jsonText(context.words[0]).c_str());
  return kYes;
}
