#include "app/config/InstanceFile.h"

#include <fcntl.h>
#include <unistd.h>

#include "app/config/ProcessState.h"
#include "common/Handle.h"

InstancePath instancePath(const char* name) {
  InstancePath path;
  path.assignCut(name);
  (void)path.append(pcKestrovaInstanceSuffix);
  return path;
}

InstanceFileResult writeInstanceFile(const InstancePath& path, std::int32_t value) {
  constexpr mode_t kReadableByAll = 0644;
  const FileDescriptor file =
      openRegularFile(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, kReadableByAll);
  if (!file.isOpen()) return InstanceFileResult::eNotOpened;
  if (write(file.get(), &value, sizeof value) != static_cast<ssize_t>(sizeof value))
    return InstanceFileResult::eNotWritten;
  return InstanceFileResult::eWritten;
}
