// Files and directories: that they can be read and written by whoever runs the instance, and that no two of
// them are one.
#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/config/Settings.h"
#include "rtp/MyRtp.h"
#include "tools/quorvelctl/Check.h"

namespace {

namespace fs = std::filesystem;
using Use = sPathClaim::Use;

std::string canonical(const std::string& path) {
  std::error_code error;
  const fs::path found = fs::weakly_canonical(path, error);
  return (error ? fs::path(path).lexically_normal() : found).string();
}

// Asks with the rights of the user whom the instance is for: that of its process or, while none runs, the
// owner of the installation directory. Only root can; everybody else asks for himself.
class AskingAs {
 public:
  AskingAs(Findings& findings, const sContext& context) {
    const passwd* own = getpwuid(geteuid());
    name = own == nullptr ? std::to_string(geteuid()) : own->pw_name;
    struct stat found {};
    const auto process = findProcess(context);
    const std::string witness = process ? "/proc/" + std::to_string(*process) : context.installation;
    if (geteuid() != 0 || stat(witness.c_str(), &found) != 0 || found.st_uid == 0) return;
    const passwd* user = getpwuid(found.st_uid);
    if (user == nullptr) return;
    name = user->pw_name;
    isGuessed = !process;
    isChanged = initgroups(user->pw_name, user->pw_gid) == 0 && setegid(user->pw_gid) == 0 &&
                seteuid(user->pw_uid) == 0;
    findings.add({sFinding::Weight::eInformation, 0, "",
                  "files and directories are looked at with the rights of user " + name + ", who " +
                      (process ? "runs the instance" : "owns " + context.installation)});
  }
  AskingAs(const AskingAs&) = delete;
  AskingAs& operator=(const AskingAs&) = delete;
  ~AskingAs() {
    if (isChanged && (seteuid(0) != 0 || setegid(0) != 0 || setgroups(0, nullptr) != 0)) std::abort();
  }

  // Was it told by no process? Then the instance may also be for root.
  bool isGuess() const { return isGuessed; }
  // Empty when the user may; otherwise why not.
  std::string refusal(const std::string& path, int mode) const {
    if (faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0) return "";
    if (errno == ENOENT || errno == ENOTDIR) return path + " does not exist";
    return path + " cannot be " + ((mode & W_OK) != 0 ? "written to" : "read") + " by user " + name;
  }

 private:
  std::string name;
  bool isGuessed = false;
  bool isChanged = false;
};

void addFile(std::vector<sPathClaim>& claims, const char* key, Use use, const std::string& path) {
  if (!path.empty()) claims.push_back({key, use, canonical(path), path});
}

void checkClaim(Findings& findings, const AskingAs& user, const sPathClaim& claim) {
  const auto warn = [&](const std::string& why) {
    if (!why.empty()) findings.warn(claim.pcKey, why);
  };
  std::error_code ignored;
  const std::string_view key = claim.pcKey;
  if (claim.use == Use::eReads) {
    const std::string why = user.refusal(claim.asGiven, R_OK);
    // Without these two the process does not start, without a tone it does.
    const bool isNeeded = key.empty() || key == "SipRoutingFile";
    if (!why.empty() && isNeeded && (!user.isGuess() || !fs::exists(claim.path, ignored)))
      return findings.refuse(claim.pcKey, why);
    constexpr std::uintmax_t kTooLong = 2 * kMaxToneBytes;
    const bool isTone = fs::is_regular_file(claim.path, ignored) && key.ends_with("ToneFile");
    if (why.empty() && isTone && fs::file_size(claim.path, ignored) >= kTooLong)
      return warn("is longer than 2 s, of which only these are played: " + claim.asGiven);
    return warn(why.empty() && fs::is_directory(claim.path, ignored) ? claim.asGiven + " is a directory"
                                                                     : why);
  }
  if (claim.use == Use::eNamesBeginWith && !claim.asGiven.ends_with('/'))
    warn("does not end with a slash, so the names of files begin with " +
         fs::path(claim.asGiven).filename().string());
  if (claim.use == Use::eWrites && fs::is_directory(claim.path, ignored))
    return warn(claim.asGiven + " is a directory");
  const std::string directory = fs::path(claim.asGiven).parent_path().string();
  const std::string why = user.refusal(directory, W_OK | X_OK);
  if (!why.empty() || claim.use != Use::eWrites || !fs::exists(claim.path, ignored)) return warn(why);
  warn(user.refusal(claim.asGiven, W_OK));
}

std::string shownName(const sPathClaim& claim) {
  return *claim.pcKey == '\0' ? claim.asGiven : claim.pcKey;
}

// Two recordings or voices may lie in one directory; anything else that is written is for itself.
void checkTwice(Findings& findings, const std::vector<sPathClaim>& claims) {
  for (std::size_t i = 0; i < claims.size(); ++i)
    for (std::size_t k = 0; k < i; ++k)
      if (claims[i].path == claims[k].path &&
          (claims[i].use == Use::eWrites || claims[k].use == Use::eWrites)) {
        const bool isOurs = *claims[i].pcKey == '\0';
        findings.warn(
            claims[isOurs ? k : i].pcKey,
            "names the same file as " + shownName(claims[isOurs ? i : k]) + ": one spoils the other");
      }
}

}  // namespace

std::vector<sPathClaim> claimedPaths(const sContext& context) {
  std::vector<sPathClaim> claims;
  const auto add = [&](const char* key, Use use, std::string_view path) {
    addFile(claims, key, use, std::string(path));
  };
  add("", Use::eReads, context.configuration);
  add("", Use::eWrites, logPath(context));
  for (const char* name : {"binding", "binding-bkp"})
    add("", Use::eWrites, context.installation + name + context.instance);
  add("SipRoutingFile", Use::eReads, pcSipRoutingFile);
  add("DTMFOKToneFile", Use::eReads, pcDTMFOKToneFile);
  add("DTMFFailToneFile", Use::eReads, pcDTMFFailToneFile);
  add("StatisticsFile", Use::eWrites, pcStatisticsFile);
  add("RealTimeAverageStatisticsFile", Use::eWrites, pcRealTimeAverageStatisticsFile);
  add("RealTimeExtremeStatisticsFile", Use::eWrites, pcRealTimeExtremeStatisticsFile);
  add("RegistrationLibrary", Use::eNamesBeginWith, pcRegistrationLibrary.load());
  add("OrigRecordingLibrary", Use::eNamesBeginWith, pcOrigRecordingLibrary);
  add("CleanRecordingLibrary", Use::eNamesBeginWith, pcCleanRecordingLibrary);
  return claims;
}

// With the rights of the user whom the instance is for, who may also be refused a port.
void checkPaths(Findings& findings, const sContext& context) {
  const std::vector<sPathClaim> claims = claimedPaths(context);
  checkTwice(findings, claims);
  const AskingAs user(findings, context);
  checkPortIsFree(findings, context, user.isGuess());
  for (const sPathClaim& claim : claims) checkClaim(findings, user, claim);
}
