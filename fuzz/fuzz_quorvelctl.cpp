// Any bytes as the files that quorvelctl reads of a running instance: log, statistics, page of figures, and
// its own state of the totals. A log with SipDebug=1 holds whatever was sent to the SIP port.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "app/config/Settings.h"
#include "tools/quorvelctl/Context.h"

namespace {

namespace fs = std::filesystem;

// One file under all the names, in memory where the system has such a place.
struct Instance {
  Instance() {
    std::error_code ignored;
    std::string place = (fs::is_directory("/dev/shm", ignored) ? "/dev/shm" : "/tmp") +
                        std::string("/fuzz-quorvelctl-XXXXXX");
    if (mkdtemp(place.data()) == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    folder = place;
    fs::create_directories(folder / "bin");
    fs::create_directories(folder / "log");
    file = folder / "log" / "errLog-fuzz";
    context = {.installation = folder / "bin/",
               .configuration = folder / "quorvel.conf",
               .instance = "-fuzz",
               .words = {}};
    std::ofstream(context.configuration)
        << "ConfigVersion=2\nIPVersion=4\nSipProxyIP=127.0.0.1\nSipProxyPort=5060\nSipUAIP=127.0.0.1\n"
        << "SipUAPort=5070\nRtpUAPortInitVal=20000\nSeparator=##\nDefaultCmd=*##0\nNumPhonesToAllocate=4\n"
        << "RegisterOrigPhones=0\nRegisterPairPhones=0\nNeedToCheckDTMF=0\nCPUPower=5\n"
        << "DetectAggressiveLevel=2\nCleanAggressiveLevel=8\nAECAlgorithm=basic\n"
        << "StatisticsFile=../log/errLog-fuzz\nRealTimeAverageStatisticsFile=../log/errLog-fuzz\n";
    if (!adoptContext(context) || !loadConfiguration(context)) std::abort();
    std::error_code different;
    std::ofstream(file).put('\n');
    for (const char* key : {pcStatisticsFile.c_str(), pcRealTimeAverageStatisticsFile.c_str()})
      if (!fs::equivalent(key, file, different)) std::abort();  // read nothing of the input
  }
  ~Instance() { fs::remove_all(folder); }

  fs::path folder, file;
  sContext context;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Instance instance;
  if (size == 0) return 0;
  // A last message that is found whatever stands before it, and the end of a page, which would be waited for.
  std::ofstream(instance.file, std::ios::binary)
          .write(reinterpret_cast<const char*>(data) + 1, static_cast<std::streamsize>(size - 1))
      << "\n\n INFO in x, *** Got from 127.0.0.1:1:\nCall-ID: c@p\r\n</html>\n";
  sContext& context = instance.context;
  context.bJson = (data[0] & 1) != 0;
  context.words = {"c@p"};
  if (traceCall(context) != kYes) std::abort();
  context.words.clear();
  if (writeMetrics(context) != kYes) std::abort();
  // With a state that is the input, or with the one of the run before.
  const fs::path figures = instance.folder / "x.prom", state = instance.folder / "x.prom.state";
  context.words = {figures};
  fs::remove(state);
  if ((data[0] & 2) != 0) fs::copy_file(instance.file, state);
  for (int run = 0; run < 2; ++run)
    if (writeMetrics(context) != kYes) std::abort();
  return 0;
}
