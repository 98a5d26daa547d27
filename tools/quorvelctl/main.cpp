// quorvelctl: what an administrator asks of a running Quorvel, or of its configuration before it runs.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tools/quorvelctl/Context.h"

namespace {

constexpr std::array kCommands = {
    sCommand{"check", "[OTHER ...]",
             "every error of the configuration, and what will not work, also beside other instances' files",
             0, 99, checkConfiguration},
    sCommand{"explain", "CALLER DESTINATION [NAME]",
             "which rule decides such a call, where it goes and what is processed", 2, 3, explainCall},
    sCommand{"status", "", "is the instance running, draining, how many calls are up", 0, 0, showStatus},
    sCommand{"calls", "", "the calls in progress with their figures", 0, 0, showCalls},
    sCommand{"drain", "[SECONDS]",
             "refuse new calls; with a time, wait that long for the running ones to end", 0, 1,
             drainInstance},
    sCommand{"reload", "", "check the configuration file and have the process read it again", 0, 0,
             reloadInstance},
    sCommand{"stop", "[SECONDS]", "drain for at most that long (default 0), then hang up and end the process",
             0, 1, stopInstance},
    sCommand{"trace", "CALL-ID", "the SIP messages of both legs of a call, from a log with SipDebug=1", 1, 1,
             traceCall},
    sCommand{"metrics", "[FILE]", "the state of the instance for a Prometheus textfile collector", 0, 1,
             writeMetrics},
};

int usage(std::FILE* out) {
  std::fputs(
      "usage: quorvelctl [-c CONFIGURATION] [-i INSTANCE] [--json] COMMAND ...\n\n"
      "  -c FILE    configuration file; otherwise $KESTROVA_BIN/quorvel.conf\n"
      "  -i NAME    name of the instance; otherwise the one without a name\n"
      "  --json     print JSON\n\n",
      out);
  for (const sCommand& command : kCommands) {
    const std::string head = std::string(command.name) + " " + std::string(command.words);
    std::fprintf(out, "  %-34s%.*s\n", head.c_str(), static_cast<int>(command.help.size()),
                 command.help.data());
  }
  std::fputs(
      "\nExit status: 0 yes or done, 1 no or failed, 2 wrong usage. KESTROVA_BIN names the installation.\n",
      out);
  return out == stdout ? kYes : kUsageError;
}

bool takeOption(std::span<char*>& words, sContext& context) {
  const std::string_view option = words[0];
  if (option == "--json") {
    context.bJson = true;
    words = words.subspan(1);
    return true;
  }
  if (words.size() < 2 || (option != "-c" && option != "-i")) return false;
  (option == "-c" ? context.configuration : context.instance) = words[1];
  words = words.subspan(2);
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  std::span<char*> words(arguments, static_cast<std::size_t>(count));
  words = words.subspan(words.empty() ? 0 : 1);
  if (!words.empty() && (std::string_view(words[0]) == "--help" || std::string_view(words[0]) == "help"))
    return usage(stdout);
  sContext context;
  if (const char* installation = std::getenv("KESTROVA_BIN")) context.installation = installation;
  context.configuration = context.installation + "quorvel.conf";
  while (!words.empty() && words[0][0] == '-')
    if (!takeOption(words, context)) return usage(stderr);
  if (words.empty()) return usage(stderr);

  for (const sCommand& command : kCommands) {
    if (command.name != words[0]) continue;
    context.words.assign(words.begin() + 1, words.end());
    if (context.words.size() < command.iFewestWords || context.words.size() > command.iMostWords)
      return usage(stderr);
    if (!context.installation.ends_with('/'))
      return fail("KESTROVA_BIN must name the installation directory, with its final slash");
    if (!adoptContext(context)) return fail("the instance's name, or KESTROVA_BIN, is too long");
    const int status = command.pfRun(context);
    return std::fflush(stdout) == 0 ? status : kNo;
  }
  return usage(stderr);
}
