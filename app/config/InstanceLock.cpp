#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "app/config/Guarded.h"
#include "app/config/InstanceFile.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "common/Handle.h"

namespace {

constexpr const char* kReadFunction = "MyConfiguration::readTmpFile";
constexpr const char* kWriteFunction = "MyConfiguration::writeTmpFile";
constexpr int kFailure = 2;
constexpr int kToleratedFailures = 4;
constexpr int kNiceValue = -15;

enum class Lock { eOurs, eLost, eUnknown };

// Short of descriptors or memory we know nothing of the file.
Lock unopenedLock(const InstancePath& path) {
  const bool isShort = errno == EMFILE || errno == ENFILE || errno == ENOMEM;
  Log::error(kReadFunction, "Unable to open %s for reading\n", path.c_str());
  return isShort ? Lock::eUnknown : Lock::eLost;
}

Lock readLock() {
  const InstancePath path = instancePath(kLockFile);
  const FileDescriptor file = openRegularFile(path.c_str(), O_RDONLY);
  if (!file.isOpen()) return unopenedLock(path);
  std::int32_t owner = 0;
  if (read(file.get(), &owner, sizeof owner) != static_cast<ssize_t>(sizeof owner)) {
    Log::error(kReadFunction, "Unable to read from %s\n", path.c_str());
    return Lock::eLost;
  }
  if (owner == getpid()) return Lock::eOurs;
  Log::error(kReadFunction, "Can't run more than one Quorvel (with same instance) on a single computer\n");
  return Lock::eLost;
}

int writeLock() {
  const InstancePath path = instancePath(kLockFile);
  switch (writeInstanceFile(path, getpid())) {
    case InstanceFileResult::eWritten:
      return 0;
    case InstanceFileResult::eNotOpened:
      Log::error(kWriteFunction, "Unable to open %s for writing\n", path.c_str());
      return kFailure;
    case InstanceFileResult::eNotWritten:
      Log::error(kWriteFunction, "Unable to write to %s\n", path.c_str());
      return kFailure;
  }
  return kFailure;
}

int countLockFailures() {
  static int iFailureCount = 0;
  switch (readLock()) {
    case Lock::eOurs:
      iFailureCount = 0;
      break;
    case Lock::eLost:
      ++iFailureCount;
      break;
    case Lock::eUnknown:
      return 0;
  }
  if (iFailureCount <= kToleratedFailures) return 0;
  Log::error(kReadFunction, "going to return fatal\n");
  return kFailure;
}

}  // namespace

int MyConfiguration::writeTmpFile() {
  return guarded(kWriteFunction, kFailure, writeLock);
}

int MyConfiguration::readTmpFile() {
  return guarded(kReadFunction, kFailure, countLockFailures);
}

void MyConfiguration::increaseProcessPriority() {
  if (setpriority(PRIO_PROCESS, static_cast<id_t>(getpid()), kNiceValue) == 0) return;
  Log::warning("MyConfiguration::increaseProcessPriority",
               "Unable to set priority class - check your user has permission to change priority\n");
}
