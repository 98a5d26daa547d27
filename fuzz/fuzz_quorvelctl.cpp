// Any bytes as what quorvelctl reads: log, statistics, page of figures and its own state of the totals; a
// configuration to check; names to explain a call of. A log with SipDebug=1 holds whatever was sent to the
// SIP port. What is printed must be JSON where that was asked for, steers no terminal, and shows no
// credentials.
//
//   byte 0    bit 0 JSON, bit 1 the input is the state of the totals, too, bits 2-3 what is done with the
//   rest:
//             trace and metrics, explain (a word a line), check, calls and status
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <netdb.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "app/config/Settings.h"
#include "fuzz/Require.h"
#include "tools/quorvelctl/CallPage.h"
#include "tools/quorvelctl/Context.h"

extern "C" hostent* gethostbyname(const char*) {
  h_errno = HOST_NOT_FOUND;
  return nullptr;
}

extern "C" int socket(int, int, int) noexcept {  // no port of this host is tried
  errno = EMFILE;
  return -1;
}

// The binding table is 300 MB of which hardly a page is used; the sanitizer would mark it all, for each
// input. It lies in one of two places, so that one engine's can be replaced by the next one's; the targets of
// SIP watch its bounds.
extern "C" void* __real_calloc(std::size_t count, std::size_t size);
extern "C" void __real_free(void* memory);

struct sTablePlace {
  static constexpr std::size_t kBytes = 1'000'000'000;
  void* const pvMemory =
      mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  std::size_t uUsed = 0;
};
sTablePlace psPlaces[2];

extern "C" void* __wrap_calloc(std::size_t count, std::size_t size) {
  constexpr std::size_t kLarge = 100'000'000;
  if (count * size >= kLarge && count * size <= sTablePlace::kBytes)
    for (sTablePlace& place : psPlaces)
      if (place.uUsed == 0 && place.pvMemory != MAP_FAILED) {
        place.uUsed = count * size;
        return place.pvMemory;
      }
  return __real_calloc(count, size);
}

extern "C" void __wrap_free(void* memory) {
  for (sTablePlace& place : psPlaces)
    if (place.uUsed > 0 && memory == place.pvMemory) {
      require(madvise(memory, place.uUsed, MADV_DONTNEED) == 0);
      place.uUsed = 0;
      return;
    }
  __real_free(memory);
}

namespace {

namespace fs = std::filesystem;

// ---- What is printed ----

// RFC 8259, read to the end of one value.
class Json {
 public:
  explicit Json(std::string_view text) : rest(text) {}
  bool isWhole() { return value(0) && (skipBlanks(), rest.empty()); }

 private:
  void skipBlanks() { rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r\n"), rest.size())); }
  bool take(std::string_view what) {
    skipBlanks();
    if (!rest.starts_with(what)) return false;
    rest.remove_prefix(what.size());
    return true;
  }
  bool string() {
    if (!take("\"")) return false;
    for (; !rest.empty() && rest[0] != '"'; rest.remove_prefix(1)) {
      if (static_cast<unsigned char>(rest[0]) < 0x20) return false;
      if (rest[0] != '\\') continue;
      rest.remove_prefix(1);
      const auto isHex = [](char digit) { return std::isxdigit(static_cast<unsigned char>(digit)) != 0; };
      if (rest.empty() || std::string_view("\"\\/bfnrtu").find(rest[0]) == std::string_view::npos)
        return false;
      if (rest[0] == 'u' && (rest.size() < 5 || !std::all_of(rest.begin() + 1, rest.begin() + 5, isHex)))
        return false;
    }
    return take("\"");
  }
  bool number() {
    const std::size_t length = std::min(rest.find_first_not_of("-+.0123456789eE"), rest.size());
    const bool isGiven = length > 0 && rest[0] != '+' && rest[0] != '.';
    rest.remove_prefix(length);
    return isGiven;
  }
  bool list(std::string_view end, bool named, int depth) {
    if (take(end)) return true;
    do {
      if (named && !(string() && take(":"))) return false;
      if (!value(depth + 1)) return false;
    } while (take(","));
    return take(end);
  }
  bool value(int depth) {
    if (depth > 10) return false;
    if (take("{")) return list("}", true, depth);
    if (take("[")) return list("]", false, depth);
    if (take("true") || take("false") || take("null")) return true;
    return rest.starts_with('"') ? string() : number();
  }

  std::string_view rest;
};

bool isHarmless(std::string_view text) {
  int before = 0;
  return std::none_of(text.begin(), text.end(), [&](char character) {
    const auto byte = static_cast<unsigned char>(character);
    const bool isC1 = std::exchange(before, byte) == 0xC2 && byte < 0xA0;
    return byte == 0x7F || isC1 || (byte < 0x20 && byte != '\n' && byte != '\r' && byte != '\t');
  });
}

// The messages in what a trace printed: one text, from which the lines with times and addresses are taken.
// The digits that stand for a byte are no letters of the text behind it.
std::vector<std::string> shownMessages(std::string_view printed) {
  std::string text;
  while (!printed.empty()) {
    const std::string_view line = printed.substr(0, printed.find('\n'));
    if (line.find(" <- ") == std::string_view::npos && line.find(" -> ") == std::string_view::npos)
      text += line;
    text += '\n';
    printed.remove_prefix(std::min(line.size() + 1, printed.size()));
  }
  for (std::size_t at = 0; (at = text.find("\\x", at)) != std::string::npos; ++at) text.replace(at, 4, "?");
  return {text};
}

// As JSON, each is a string of its own.
std::vector<std::string> jsonMessages(std::string_view printed) {
  constexpr std::string_view kText = "\"text\": \"";  // inside a string its quotes would have a backslash
  std::vector<std::string> messages;
  for (std::size_t at = 0; (at = printed.find(kText, at)) != std::string_view::npos;) {
    std::string& text = messages.emplace_back();
    for (at += kText.size(); printed[at] != '"'; ++at) {
      const bool isEscaped = printed[at] == '\\' && printed[++at] == 'u';
      text += isEscaped ? static_cast<char>(std::stoi(std::string(printed.substr(at + 1, 4)), nullptr, 16))
                        : printed[at];
      if (isEscaped) at += 4;
    }
  }
  return messages;
}

constexpr std::string_view kMask = "(masked)";

std::string_view withoutBlanks(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(" \t"), text.size()));
}

// Is the mask all there is, up to one of the characters?
bool isMask(std::string_view value, std::string_view ends) {
  value = withoutBlanks(value);
  return value.starts_with(kMask) &&
         (value.size() == kMask.size() || ends.find(value[kMask.size()]) != std::string_view::npos);
}

// What is between "sip:" or "sips:" and an @ has behind its colon the mask.
bool arePasswordsMasked(std::string_view line) {
  for (std::size_t at = line.find('@'); at != std::string_view::npos; at = line.find('@', at + 1)) {
    const std::size_t before = at == 0 ? std::string_view::npos : line.find_last_of("@<>\" \t", at - 1);
    std::string_view user = line.substr(before + 1, at - before - 1);  // npos + 1 is the line's beginning
    const std::size_t sip = user.find("sip:"), sips = user.find("sips:");
    if (sip == std::string_view::npos && sips == std::string_view::npos) continue;
    user.remove_prefix(sip < sips ? sip + 4 : sips + 5);
    const std::size_t colon = user.find(':');
    if (colon != std::string_view::npos && user.substr(colon + 1) != kMask) return false;
  }
  return true;
}

// Answers to challenges, wherever in the line; keys of media where they begin it.
bool isLineMasked(std::string_view line) {
  for (const std::string_view name : {"authorization", "authentication-info"})
    for (std::size_t at = 0; (at = line.find(name, at)) != std::string_view::npos;) {
      at += name.size();
      const std::string_view sign = withoutBlanks(line.substr(at));
      if (sign.starts_with(':') && !isMask(sign.substr(1), "")) return false;
      if (name == "authorization" && sign.starts_with('=') && !isMask(sign.substr(1), "&> \"")) return false;
    }
  for (const auto& [name, sign] :
       {std::pair("a=crypto", ':'), std::pair("a=key-mgmt", ':'), std::pair("k", '=')}) {
    if (!line.starts_with(name)) continue;
    const std::string_view rest = withoutBlanks(line.substr(std::strlen(name)));
    if (rest.starts_with(sign) && !isMask(rest.substr(1), "")) return false;
  }
  return arePasswordsMasked(line);
}

// No value of a masked header goes on in a line that begins with a blank.
bool isMasked(std::string_view printed, bool asJson) {
  for (std::string& message : asJson ? jsonMessages(printed) : shownMessages(printed)) {
    std::transform(message.begin(), message.end(), message.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    bool isHeader = false;
    for (std::string_view rest = message; !rest.empty();) {
      std::string_view line = rest.substr(0, rest.find('\n'));
      rest.remove_prefix(std::min(line.size() + 1, rest.size()));
      if (line.ends_with('\r')) line.remove_suffix(1);
      if (!isLineMasked(line)) return false;
      if (isHeader && (line.starts_with(' ') || line.starts_with('\t'))) return false;
      isHeader = line.find("authorization:") != std::string_view::npos ||
                 line.find("authentication-info:") != std::string_view::npos;
    }
  }
  return true;
}

// What a command prints, on either stream.
class Printed {
 public:
  Printed() : iMemory(memfd_create("printed", MFD_CLOEXEC)), pfMemory(fdopen(iMemory, "w")) {
    require(pfMemory != nullptr);
  }
  std::string of(int (*command)(const sContext&), const sContext& context) {
    std::FILE* const terminals[] = {stdout, stderr};
    stdout = stderr = pfMemory;
    (void)command(context);
    stdout = terminals[0];
    stderr = terminals[1];
    require(std::fflush(pfMemory) == 0);
    std::string text(static_cast<std::size_t>(lseek(iMemory, 0, SEEK_CUR)), '\0');
    require(pread(iMemory, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    require(lseek(iMemory, 0, SEEK_SET) == 0 && ftruncate(iMemory, 0) == 0);
    return text;
  }

 private:
  int iMemory;
  std::FILE* pfMemory;
};

// ---- What is read ----

// One file under all the names, in memory where the system has such a place.
struct Instance {
  Instance() {
    std::error_code ignored;
    std::string place = (fs::is_directory("/dev/shm", ignored) ? "/dev/shm" : "/tmp") +
                        std::string("/fuzz-quorvelctl-XXXXXX");
    require(mkdtemp(place.data()) != nullptr);
    folder = place;
    fs::create_directories(folder / "bin");
    fs::create_directories(folder / "log");
    file = folder / "log" / "errLog-fuzz";
    context = {.installation = folder / "bin/",
               .configuration = folder / "quorvel.conf",
               .instance = "-fuzz",
               .bNamed = true,  // the others' are none of ours
               .words = {}};
    std::ofstream(context.configuration)
        << "ConfigVersion=2\nIPVersion=4\nSipProxyIP=127.0.0.1\nSipProxyPort=5060\nSipUAIP=127.0.0.1\n"
        << "SipUAPort=5070\nRtpUAPortInitVal=20000\nSeparator=##\nDefaultCmd=*##0\nNumPhonesToAllocate=4\n"
        << "RegisterOrigPhones=0\nRegisterPairPhones=0\nNeedToCheckDTMF=0\nCPUPower=5\n"
        << "DetectAggressiveLevel=2\nCleanAggressiveLevel=8\nAECAlgorithm=basic\n"
        << "StatisticsFile=../log/errLog-fuzz\nRealTimeAverageStatisticsFile=../log/errLog-fuzz\n";
    require(adoptContext(context) && loadConfiguration(context));
    std::error_code different;
    std::ofstream(file).put('\n');
    for (const char* key : {pcStatisticsFile.c_str(), pcRealTimeAverageStatisticsFile.c_str()})
      require(fs::equivalent(key, file, different));  // or nothing of the input is read
  }
  ~Instance() { fs::remove_all(folder); }

  fs::path folder, file;
  sContext context;
};

// Prints and judges; text that is for other programs is neither JSON nor for a terminal, but of one line
// each.
std::string check(const sContext& context, int (*command)(const sContext&), bool asJson) {
  static Printed printed;
  const std::string text = printed.of(command, context);
  require(isHarmless(text));
  if (asJson) require(Json(text).isWhole());
  return text;
}

void write(const fs::path& path, std::string_view text, std::string_view end = "") {
  std::ofstream(path, std::ios::binary) << text << end;
}

void traceAndMeasure(Instance& instance, std::string_view text, bool isState) {
  // A last message that is found whatever stands before it, and the end of a page, which would be waited for.
  write(instance.file, text, "\n\n INFO in x, *** Got from 127.0.0.1:1:\nCall-ID: c@p\r\n</html>\n");
  sContext context = instance.context;
  context.words = {"c@p"};
  const std::string trace = check(context, traceCall, context.bJson);
  require(trace.find("c@p") != std::string::npos && isMasked(trace, context.bJson));
  context.words.clear();
  check(context, writeMetrics, false);
  // With a state that is the input, or with the one of the run before.
  const fs::path figures = instance.folder / "x.prom", state = instance.folder / "x.prom.state";
  context.words = {figures};
  fs::remove(state);
  if (isState) fs::copy_file(instance.file, state);
  for (int run = 0; run < 2; ++run) {
    const std::string said = check(context, writeMetrics, context.bJson);
    require(context.bJson ? said.starts_with("{\"written\"") : said.empty());
  }
}

void explain(const Instance& instance, std::string_view text) {
  sContext context = instance.context;
  while (context.words.size() < 3) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    context.words.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  check(context, explainCall, context.bJson);
}

void checkFile(const Instance& instance, std::string_view text) {
  sContext context = instance.context;
  context.configuration = instance.folder / "other.conf";
  write(context.configuration, text);
  check(context, checkConfiguration, context.bJson);
}

// That no process has the instance's name is all that the commands themselves can say here.
void showState(const Instance& instance, std::string_view text) {
  write(instance.file, text, "\n</html>\n");
  require(loadConfiguration(instance.context) && readCallPage().has_value());
  (void)isDraining(instance.context);
  for (const auto command : {showCalls, showStatus}) check(instance.context, command, instance.context.bJson);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Instance instance;
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  instance.context.bJson = (data[0] & 1) != 0;
  require(adoptContext(instance.context));
  const std::string_view words = text.substr(0, text.find('\0'));  // as a command line gives them
  switch (data[0] >> 2 & 3) {
    case 0:
      traceAndMeasure(instance, text, (data[0] & 2) != 0);
      break;
    case 1:
      explain(instance, words);
      break;
    case 2:
      checkFile(instance, text);
      break;
    default:
      showState(instance, text);
  }
  return 0;
}
