// The configuration check: what the program would refuse, line by line, what it would take but cannot work,
// and what meets another instance's.
#include "tools/quorvelctl/Check.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>

#include "app/config/MyConfiguration.h"
#include "app/config/Settings.h"
#include "sip/MySip.h"

int Findings::lineOf(std::string_view key) const {
  const auto found = lines.find(key);
  return found == lines.end() ? 0 : found->second;
}

bool Findings::hasError() const {
  return std::any_of(all.begin(), all.end(),
                     [](const sFinding& finding) { return finding.weight == Weight::eError; });
}

bool Findings::isRefused(std::string_view key) const {
  return std::any_of(all.begin(), all.end(), [&](const sFinding& finding) {
    return finding.weight == Weight::eError && finding.key == key && !key.empty();
  });
}

void Findings::judge(Weight weight, const char* key, std::string text) {
  if (!isRefused(key)) all.push_back({weight, lineOf(key), key, std::move(text)});
}

std::vector<sFinding> Findings::inOrder() const {
  std::vector<sFinding> sorted = all;
  const auto place = [](const sFinding& finding) {
    const int line = finding.iLine > 0 ? finding.iLine : std::numeric_limits<int>::max();
    return std::pair(finding.file, line);
  };
  std::stable_sort(sorted.begin(), sorted.end(),
                   [&](const sFinding& a, const sFinding& b) { return place(a) < place(b); });
  return sorted;
}

namespace {

// ---- Several instances ----

// What two instances on one host must not share.
struct sClaims {
  std::string file;
  std::string address, pbx;
  int iSipPort = 0, iPbxPort = 0;
  std::int64_t iFirstRtpPort = 0, iLastRtpPort = 0;
  std::vector<sPathClaim> paths;
  std::map<std::string, const char*> registered;  // names that register with the PBX, and the keys of them

  // Of the settings that were read last, and of the identities that they made.
  explicit sClaims(const sContext& context)
      : file(context.configuration),
        address(pcSipUAIPForBinding.view()),
        pbx(pcSipProxyIP.view()),
        iSipPort(iSipUAPort),
        iPbxPort(iSipProxyPort),
        iFirstRtpPort(iRtpUAPortInitVal),
        iLastRtpPort(lastRtpPort()),
        paths(claimedPaths(context)) {
    if (iRegisterTrunk != 0) registered[mySip.sTrunk.pcSipName.c_str()] = "TrunkName";
    for (int slot = 0; slot < mySip.numSlots(); ++slot)
      if (mySip.phone(slot).bShouldRegister)
        registered[mySip.phone(slot).pcSipName.c_str()] =
            slot < mySip.numOrigSlots() ? "OrigPhonesName" : "PairPhonesName";
  }

  bool usesForRtp(int port) const { return port >= iFirstRtpPort && port <= iLastRtpPort; }
};

bool isSameAddress(const std::string& one, const std::string& other) {
  constexpr std::string_view kAll = "0.0.0.0";
  return one == other || one == kAll || other == kAll;
}

bool isPbxOf(const sClaims& one, const sClaims& other) {
  return other.iPbxPort == one.iSipPort && isSameAddress(other.pbx, one.address);
}

void comparePorts(Findings& findings, const sClaims& ours, const sClaims& other) {
  if (!isSameAddress(ours.address, other.address)) return;
  if (ours.iSipPort == other.iSipPort) findings.warn("SipUAPort", "is shared with " + other.file);
  if (other.usesForRtp(ours.iSipPort))
    findings.warn("SipUAPort", "lies among the RTP ports of " + other.file);
  if (ours.usesForRtp(other.iSipPort))
    findings.warn("RtpUAPortInitVal", "SipUAPort of " + other.file + " lies among the RTP ports");
  if (ours.iFirstRtpPort <= other.iLastRtpPort && other.iFirstRtpPort <= ours.iLastRtpPort)
    findings.warn("RtpUAPortInitVal", "the RTP ports overlap those of " + other.file);
}

void comparePbx(Findings& findings, const sClaims& ours, const sClaims& other) {
  const bool isSamePbx = ours.pbx == other.pbx && ours.iPbxPort == other.iPbxPort;
  if (isPbxOf(other, ours) && isPbxOf(ours, other))
    findings.warn("SipProxyPort", "each is the PBX of the other, this file and " + other.file +
                                      ": a call goes round until every slot is taken");
  else if (isPbxOf(other, ours) && isSamePbx)
    findings.warn("SipProxyPort", "SipUAPort of " + other.file + " is where the PBX of both is");
  if (!isSamePbx) return;
  for (const auto& [name, key] : ours.registered)
    if (other.registered.contains(name))
      findings.warn(key, name + " is registered with the same PBX by " + other.file);
}

void comparePaths(Findings& findings, const sClaims& ours, const sClaims& other) {
  using Use = sPathClaim::Use;
  const auto nameOf = [](const sPathClaim& claim) {
    return *claim.pcKey == '\0' ? claim.asGiven : std::string(claim.pcKey);
  };
  for (const sPathClaim& claim : ours.paths)
    for (const sPathClaim& theirs : other.paths) {
      const bool isImplied = *claim.pcKey == '\0' && *theirs.pcKey == '\0';  // that is the names' affair
      if (isImplied || claim.path != theirs.path || claim.use != theirs.use || claim.use == Use::eReads)
        continue;
      const bool isSameKey = std::string_view(claim.pcKey) == theirs.pcKey;
      const std::string key = isSameKey ? "" : nameOf(theirs) + " of ";
      findings.warn(claim.pcKey, (*claim.pcKey == '\0' ? claim.asGiven + " " : "") + "is shared with " + key +
                                     other.file +
                                     (claim.use == Use::eNamesBeginWith ? ": equal names are one file" : ""));
    }
}

// For a start, which must not wait for the names in others' files.
constexpr std::string_view kAlone = "--alone";

struct sOther {
  sContext context;
  bool bGiven;  // by the user, who wants to know what is wrong in it
};

// The files given, and those of the instances that run on this host or are set up as the package does it;
// each once, and not our own.
std::vector<sOther> othersOf(const sContext& context) {
  namespace fs = std::filesystem;
  std::vector<sOther> others;
  if (std::ranges::find(context.words, kAlone) != context.words.end()) return others;
  const auto add = [&](sContext other, bool given) {
    const auto isSame = [&](const sContext& known) {
      std::error_code missing;
      return fs::equivalent(other.configuration, known.configuration, missing);
    };
    if (!isSame(context) && std::none_of(others.begin(), others.end(),
                                         [&](const sOther& known) { return isSame(known.context); }))
      others.push_back({std::move(other), given});
  };
  const auto addFile = [&](const fs::path& path, bool given) {
    sContext other = context;
    other.configuration = path.string();
    // Such a file is of the instance of its name; of another the name, and so log and bindings, is not known.
    other.instance = path.parent_path() / "" == fs::path(QUORVEL_CONFIGURATIONS) ? path.stem().string() : "?";
    add(std::move(other), given);
  };
  for (const std::string& path : context.words) addFile(path, true);
  for (const std::string& name : namesOfInstances()) {
    sContext other = context;
    other.instance = name;
    other.bConfigurationGiven = other.bInstallationGiven = false;
    if (name != context.instance && adoptContext(other) && findProcess(other) && locate(other))
      add(std::move(other), false);
  }
  std::error_code none;
  if (context.installation == QUORVEL_INSTALLATION && !context.instance.empty())
    for (const auto& entry : fs::directory_iterator(QUORVEL_CONFIGURATIONS, none))
      if (entry.path().extension() == ".conf" && entry.path().stem() != context.instance)
        addFile(entry.path(), false);
  return others;
}

// The settings are those of the last file that was read, so the others come after everything that is asked of
// ours.
void compareWithOthers(Findings& findings, const sContext& context) {
  const sClaims ours(context);
  for (const auto& [other, isGiven] : othersOf(context)) {
    if (!adoptContext(other)) continue;
    Findings theirs;
    if (checkLines(theirs, other.configuration)) checkStart(theirs);
    for (sFinding finding : theirs.inOrder()) {
      if (!isGiven || finding.weight != sFinding::Weight::eError) continue;
      if (finding.file.empty()) finding.file = other.configuration;
      findings.add(std::move(finding));
    }
    if (theirs.hasError()) continue;
    const sClaims claims(other);
    comparePorts(findings, ours, claims);
    comparePbx(findings, ours, claims);
    comparePaths(findings, ours, claims);
  }
  (void)adoptContext(context);
}

// An instance's name is its lock, its log and its bindings.
void checkName(Findings& findings, const sContext& context) {
  const auto process = findProcess(context);
  if (!process) return;
  sContext running = context;
  running.bConfigurationGiven = false;
  std::error_code missing;
  if (locate(running) &&
      !std::filesystem::equivalent(running.configuration, context.configuration, missing) && !missing)
    findings.add({sFinding::Weight::eWarning, 0, "",
                  nameOf(context) + " is running with " + running.configuration +
                      ": one started with this file takes its place, its log and its bindings"});
}

// ---- Printing ----

const char* wordOf(sFinding::Weight weight) {
  constexpr const char* kWords[] = {"information", "warning", "error"};
  return kWords[static_cast<int>(weight)];
}

void printLine(const sContext& context, const sFinding& finding) {
  const std::string& file = finding.file.empty() ? context.configuration : finding.file;
  std::string line = file + ":";
  if (finding.iLine > 0) line += std::to_string(finding.iLine) + ":";
  line += std::string(" ") + wordOf(finding.weight) + ": ";
  if (!finding.key.empty()) line += finding.key + ": ";
  std::puts(shownText(line + finding.text).c_str());
}

void printJson(const sContext& context, const Findings& findings) {
  std::printf("{\"valid\": %s, \"findings\": [", findings.hasError() ? "false" : "true");
  const char* separator = "";
  for (const sFinding& finding : findings.inOrder()) {
    const std::string& file = finding.file.empty() ? context.configuration : finding.file;
    std::printf("%s\n  {\"level\": \"%s\", \"file\": %s, \"line\": %d, \"key\": %s, \"text\": %s}", separator,
                wordOf(finding.weight), jsonText(file).c_str(), finding.iLine, jsonText(finding.key).c_str(),
                jsonText(finding.text).c_str());
    separator = ",";
  }
  std::puts("]}");
}

}  // namespace

int checkConfiguration(const sContext& context) {
  Findings findings;
  if (myConfiguration.readNetworkInformation())
    findings.warn("", "this host has no network address to start with");
  takeRecords();

  if (checkLines(findings, context.configuration)) {
    for (const auto check :
         {checkStart, checkDigits, checkNoiseChannel, checkThresholds, checkCommands, checkCalls})
      check(findings);
    checkPaths(findings, context);
    checkName(findings, context);
  }
  compareWithOthers(findings, context);

  const bool valid = !findings.hasError();
  if (context.bJson) {
    printJson(context, findings);
  } else {
    for (const sFinding& finding : findings.inOrder()) printLine(context, finding);
    std::puts(valid ? "The configuration is valid." : "The configuration is not valid.");
  }
  return valid ? kYes : kNo;
}
