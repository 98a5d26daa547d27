// quorvelctl: what an administrator asks of a running Quorvel, or of its configuration before it runs.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tools/quorvelctl/Context.h"

namespace {

constexpr std::array kCommands = {
    sCommand{"check", "[OTHER ... | --alone]",
             "every error of the configuration, and what will not work, also beside others", 0, 99,
             checkConfiguration},
    sCommand{"explain", "CALLER DESTINATION [NAME]",
             "which rule decides such a call, where it goes, what is processed", 2, 3, explainCall},
    sCommand{"status", "", "is it running, draining, how many calls are up; without -i of all instances", 0,
             0, showStatus, false},
    sCommand{"calls", "", "the calls in progress with their figures", 0, 0, showCalls},
    sCommand{"drain", "[SECONDS]", "refuse new calls; with a time, wait that long for the running ones", 0, 1,
             drainInstance, false},
    sCommand{"reload", "", "check the configuration file and have the process read it again", 0, 0,
             reloadInstance},
    sCommand{"stop", "[SECONDS]", "end the process; with a time, wait that long for running calls first", 0,
             1, stopInstance, false},
    sCommand{
        "trace", "CALL-ID | --phone NAME",
        "SIP of a call, registration or subscription, all legs; needs SipDebug=1; --log FILE: in older logs",
        1, 99, traceCall},
    sCommand{"metrics", "[FILE]", "the state of the instance for a Prometheus textfile collector", 0, 1,
             writeMetrics},
};

constexpr std::string_view kVersion = "--version";

constexpr const char* kOptions =
    "usage: quorvelctl [-c CONFIGURATION] [-i INSTANCE] [--json] COMMAND ...\n"
    "       quorvelctl --version\n\n"
    "  -c FILE    configuration file; otherwise that of the running process; or of the package,\n"
    "             " QUORVEL_CONFIGURATIONS
    "INSTANCE.conf; or quorvel.conf of the installation\n"
    "  -i NAME    name of the instance; otherwise the one without a name\n"
    "  --json     print JSON, errors as {\"error\": ...}\n\n";

constexpr const char* kExamples =
    "\nexamples:\n"
    "  quorvelctl status                            what runs on this host\n"
    "  quorvelctl -i main check " QUORVEL_CONFIGURATIONS
    "b.conf       beside instance b\n"
    "  quorvelctl -i main explain 100 0891234567    a call from 100 to that number\n"
    "  quorvelctl -i main explain 100@192.0.2.7 200 a caller who is not at the PBX\n"
    "  quorvelctl -i main --json calls\n"
    "  quorvelctl -i main trace --phone 100         its calls and registrations\n"
    "  quorvelctl -i main stop 600                  gives running calls ten minutes\n"
    "\nExit status: 0 yes or done (stop: also when nothing runs), 1 no or failed, 2 wrong usage.\n"
    "A running process is asked as root or as the user it runs as. KESTROVA_BIN names the installation,\n"
    "with its final slash; otherwise that of the running process counts, or " QUORVEL_INSTALLATION ".\n";

int usage(std::FILE* out) {
  std::fputs(kOptions, out);
  for (const sCommand& command : kCommands) {
    const std::string head = std::string(command.name) + " " + std::string(command.words);
    std::fprintf(out, "  %-34s%.*s\n", head.c_str(), static_cast<int>(command.help.size()),
                 command.help.data());
  }
  std::fputs(kExamples, out);
  return out == stdout ? kYes : kUsageError;
}

int wrongUsage(const sContext& context) {
  if (!context.bJson) return usage(stderr);
  std::puts("{\"error\": \"wrong usage: see quorvelctl --help\"}");
  return kUsageError;
}

bool isHelp(std::string_view word) {
  return word == "--help" || word == "-h" || word == "help";
}

// Options may stand anywhere before "--", behind which names may look like one. The words that are left begin
// with the command.
bool takeWords(std::span<char*> arguments, sContext& context) {
  bool isOver = false;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view word = arguments[i];
    const bool isPath = word == "-c", isName = word == "-i";
    if (isOver || !word.starts_with('-')) {
      context.words.emplace_back(word);
    } else if (word == "--") {
      isOver = true;
    } else if (word == "--json") {
      context.bJson = true;
    } else if (isPath || isName) {
      if (++i == arguments.size()) return false;
      (isPath ? context.configuration : context.instance) = arguments[i];
      (isPath ? context.bConfigurationGiven : context.bNamed) = true;
    } else if (context.words.empty() && !isHelp(word) && word != kVersion) {
      return false;
    } else {
      context.words.emplace_back(word);
    }
  }
  return true;
}

int run(const sCommand& command, sContext& context) {
  if (context.words.size() < command.iFewestWords || context.words.size() > command.iMostWords)
    return wrongUsage(context);
  if (!adoptContext(context)) return fail("the instance's name, or KESTROVA_BIN, is too long");
  if (!locate(context) && command.bNeedsFiles) {
    const std::string hidden = hiddenLock();
    return fail("%s", !hidden.empty()
                          ? hidden.c_str()
                          : "KESTROVA_BIN must name the installation directory, with its final slash: no "
                            "process of that name runs, and there is no " QUORVEL_INSTALLATION);
  }
  const int status = command.pfRun(context);
  return std::fflush(stdout) == 0 ? status : kNo;
}

}  // namespace

int main(int count, char** arguments) {
  sContext context;
  if (const char* installation = std::getenv("KESTROVA_BIN"); installation != nullptr && *installation != 0) {
    context.installation = installation;
    context.bInstallationGiven = true;
  }
  const std::span<char*> all(arguments, static_cast<std::size_t>(count));
  std::vector<std::string>& words = context.words;
  if (!takeWords(all.subspan(all.empty() ? 0 : 1), context) || words.empty()) return wrongUsage(context);
  if (isHelp(words[0]) || (words.size() > 1 && isHelp(words[1]))) return usage(stdout);
  if (words[0] == kVersion) return std::puts("quorvelctl " QUORVEL_VERSION) >= 0 ? kYes : kNo;

  for (const sCommand& command : kCommands) {
    if (command.name != words[0]) continue;
    words.erase(words.begin());
    return run(command, context);
  }
  return wrongUsage(context);
}
