#include "sip/BindingFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

#include "common/FixedText.h"
#include "common/Handle.h"

namespace {

constexpr std::int32_t kTrailer = 12345;
constexpr mode_t kFileMode = 0666;  // less the process's umask, as fopen creates files
// A FIFO or device in the file's place must not make the main loop wait.
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK;

off_t recordOffset(int binding) {
  return static_cast<off_t>(sizeof(std::int32_t)) +
         static_cast<off_t>(binding) * static_cast<off_t>(sizeof(sBinding));
}

bool writeAt(int file, off_t offset, const void* data, std::size_t size) {
  const char* next = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = pwrite(file, next, size, offset);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    next += written;
    offset += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool readAt(int file, off_t offset, void* data, std::size_t size) {
  char* next = static_cast<char*>(data);
  while (size > 0) {
    const ssize_t received = pread(file, next, size, offset);
    if (received < 0 && errno == EINTR) continue;
    if (received <= 0) return false;
    next += received;
    offset += received;
    size -= static_cast<std::size_t>(received);
  }
  return true;
}

// A hole where the file system can make one, else written zeros.
bool zeroAt(int file, off_t offset, std::size_t size) {
  if (fallocate(file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, static_cast<off_t>(size)) == 0) {
    return true;
  }
  static constexpr std::array<char, sizeof(sSubscription)> kZeros{};
  for (std::size_t done = 0; done < size; done += kZeros.size()) {
    const std::size_t part = std::min(kZeros.size(), size - done);
    if (!writeAt(file, offset + static_cast<off_t>(done), kZeros.data(), part)) return false;
  }
  return true;
}

// ---- Repair of loaded records ----

template <std::size_t N>
bool terminate(FixedText<N>& text) {
  char& last = text.data()[N - 1];
  const bool damaged = last != '\0';
  last = '\0';
  return damaged;
}

template <typename... Texts>
bool terminateAll(Texts&... texts) {
  return (static_cast<int>(terminate(texts)) + ...) != 0;
}

bool repairEntry(sSubscription& entry) {
  return terminateAll(entry.pcRelayBranch, entry.pcRelayTag, entry.pcRelayCallID, entry.pcPhoneVia,
                      entry.pcPhoneCSeq, entry.pcPhoneCallID, entry.pcPhoneTo, entry.pcPhoneFrom,
                      entry.pcPhoneContact, entry.pcPhoneExpires, entry.pcPhoneRequestLine, entry.pcNotifyVia,
                      entry.pcNotifyFrom, entry.pcNotifyTo, entry.pcNotifyContact, entry.pcNotifyCSeq,
                      entry.pcNotifyBranch);
}

bool repairFront(sBinding& record) {
  return terminateAll(record.pcBindingName, record.pcBindingNameAtUA, record.pcBindingNameAtDomain,
                      record.pcContactIP, record.pcBindingUser, record.pcRelayBranch, record.pcRelayTag,
                      record.pcRelayCallID, record.pcPhoneVia, record.pcPhoneCSeq, record.pcPhoneCallID,
                      record.pcPhoneTo, record.pcPhoneFrom, record.pcPhoneContact, record.pcPhoneExpires);
}

bool repairTail(sBinding& record) {
  bool damaged = terminate(record.pcPhoneViaParams);
  for (sLastMsgData& stored : record.psLastMsgs) damaged |= terminateAll(stored.pcMsg, stored.pcCallID);
  if (record.iLastMsgIndex < 0 || record.iLastMsgIndex >= kStoredMessages) {
    record.iLastMsgIndex = 0;
    damaged = true;
  }
  return damaged;
}

// Reads only what is used; the rest of the record stays untouched.
bool readRecord(int file, off_t offset, sBinding& record, bool& damaged) {
  if (!readAt(file, offset, bytesOf(record), bindingFrontBytes(0))) {
    record.iNumSubscriptions = 0;
    return false;
  }
  damaged = record.iNumSubscriptions < 0 || record.iNumSubscriptions > kMaxSubscriptions;
  if (damaged) record.iNumSubscriptions = 0;
  const std::size_t entryBytes = bindingFrontBytes(record.iNumSubscriptions) - bindingFrontBytes(0);
  if (!readAt(file, offset + static_cast<off_t>(bindingFrontBytes(0)), record.psSubscriptions.data(),
              entryBytes) ||
      !readAt(file, offset + static_cast<off_t>(kBindingTailOffset), bytesOf(record) + kBindingTailOffset,
              kBindingTailBytes)) {
    return false;
  }
  damaged |= repairFront(record);
  damaged |= repairTail(record);
  for (int entry = 0; entry < record.iNumSubscriptions; ++entry)
    damaged |= repairEntry(record.subscription(entry));
  return true;
}

// Is there a byte at the offset? Tells a file of full length from a shorter one, whatever kind of file it is.
bool reaches(int file, off_t offset) {
  char byte;
  return readAt(file, offset, &byte, 1);
}

}  // namespace

// ---- Loading ----

BindingFile::LoadOutcome BindingFile::load(const char* path, sBinding* records, int& count, int& repaired) {
  repaired = 0;
  const FileDescriptor file(open(path, O_RDONLY | kOpenFlags));
  if (!file.isOpen()) return LoadOutcome::eMissing;
  std::int32_t bindings;
  if (!readAt(file.get(), 0, &bindings, sizeof bindings)) return LoadOutcome::eNoCount;
  count = bindings;
  if (count < 0 || count > kMaxBindings) return LoadOutcome::eBadCount;
  if (count > 0 && !reaches(file.get(), recordOffset(count) - 1)) return LoadOutcome::eNoTable;
  std::int32_t trailer;
  if (!readAt(file.get(), recordOffset(count), &trailer, sizeof trailer) || trailer != kTrailer) {
    return LoadOutcome::eNoNumber;
  }
  for (int binding = 0; binding < count; ++binding) {
    bool damaged = false;
    if (!readRecord(file.get(), recordOffset(binding), records[binding], damaged))
      return LoadOutcome::eNoTable;
    if (damaged) ++repaired;
  }
  return LoadOutcome::eLoaded;
}

void BindingFile::adopt(const char* path, const sTable& table, bool repaired) {
  struct stat status;
  if (repaired || stat(path, &status) != 0 || !identify(status, identity)) return forget();
  iCount = table.iCount;
  forgetRecordsFrom(table.iCount);
  for (std::size_t binding = 0; binding < static_cast<std::size_t>(table.iCount); ++binding) {
    uRevisions[binding] = table.index.revision(static_cast<int>(binding));
    uNumEntries[binding] = kMaxSubscriptions;  // somebody else may have written more than zeros there
  }
  bKnown = true;
}

// ---- What is in the file ----

bool BindingFile::identify(const struct stat& status, sIdentity& out) {
  out = {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
  return S_ISREG(status.st_mode);
}

bool BindingFile::isComplete(const char* path) const {
  struct stat status;
  sIdentity now;
  return bKnown && stat(path, &status) == 0 && identify(status, now) && now == identity;
}

bool BindingFile::holds(const sTable& table) const {
  if (iCount != table.iCount) return false;
  for (int binding = 0; binding < iCount; ++binding) {
    if (uRevisions[static_cast<std::size_t>(binding)] != table.index.revision(binding)) return false;
  }
  return true;
}

void BindingFile::forgetRecordsFrom(int first) {
  std::fill(uRevisions.begin() + first, uRevisions.end(), 0);
  std::fill(uNumEntries.begin() + first, uNumEntries.end(), std::uint8_t{0});
}

// ---- Saving ----

BindingFile::SaveOutcome BindingFile::save(const char* path, const sTable& table, bool otherIsComplete) {
  const bool known = isComplete(path);
  if (known && holds(table)) return SaveOutcome::eSaved;
  if (!otherIsComplete) return replace(path, table);
  bKnown = false;
  return known ? patch(path, table) : rewrite(path, table);
}

BindingFile::SaveOutcome BindingFile::patch(const char* path, const sTable& table) {
  const FileDescriptor file(open(path, O_WRONLY | kOpenFlags));
  if (!file.isOpen()) return SaveOutcome::eCannotOpen;
  const int kept = std::min(iCount, table.iCount);
  if (ftruncate(file.get(), recordOffset(kept)) != 0) return SaveOutcome::eNoTable;
  forgetRecordsFrom(kept);
  return writeChanges(file.get(), table);
}

BindingFile::SaveOutcome BindingFile::rewrite(const char* path, const sTable& table) {
  const FileDescriptor file(open(path, O_WRONLY | O_CREAT | O_TRUNC | kOpenFlags, kFileMode));
  if (!file.isOpen()) return SaveOutcome::eCannotOpen;
  iCount = -1;
  forgetRecordsFrom(0);
  return writeChanges(file.get(), table);
}

BindingFile::SaveOutcome BindingFile::replace(const char* path, const sTable& table) {
  FixedText<310> beside;
  struct stat status;
  const bool isDirectory = stat(path, &status) == 0 && S_ISDIR(status.st_mode);
  if (isDirectory || !beside.format("%s.new", path)) return SaveOutcome::eCannotOpen;
  BindingFile successor;
  SaveOutcome outcome = successor.rewrite(beside.c_str(), table);
  if (outcome == SaveOutcome::eSaved && std::rename(beside.c_str(), path) != 0)
    outcome = SaveOutcome::eCannotOpen;
  if (outcome == SaveOutcome::eSaved) {
    *this = successor;
  } else {
    unlink(beside.c_str());  // what stood at the path before still does
  }
  return outcome;
}

// The file has no trailer when this begins, and gets it as the very last step.
BindingFile::SaveOutcome BindingFile::writeChanges(int file, const sTable& table) {
  const std::int32_t bindings = table.iCount;
  if (iCount != table.iCount && !writeAt(file, 0, &bindings, sizeof bindings)) return SaveOutcome::eNoCount;
  iCount = table.iCount;
  for (int binding = 0; binding < iCount; ++binding) {
    std::uint64_t& revision = uRevisions[static_cast<std::size_t>(binding)];
    if (revision == table.index.revision(binding)) continue;
    if (!writeRecord(file, binding, table.psRecords[binding])) return SaveOutcome::eNoTable;
    revision = table.index.revision(binding);
  }
  if (!writeAt(file, recordOffset(iCount), &kTrailer, sizeof kTrailer)) return SaveOutcome::eNoNumber;
  struct stat status;
  bKnown = fstat(file, &status) == 0 && identify(status, identity);
  return SaveOutcome::eSaved;
}

bool BindingFile::writeRecord(int file, int binding, const sBinding& record) {
  const off_t offset = recordOffset(binding);
  std::uint8_t& entries = uNumEntries[static_cast<std::size_t>(binding)];
  const std::size_t before = bindingFrontBytes(entries);
  const std::size_t front = bindingFrontBytes(record.iNumSubscriptions);
  if (!writeAt(file, offset, bytesOf(record), front)) return false;
  if (before > front && !zeroAt(file, offset + static_cast<off_t>(front), before - front)) return false;
  entries = static_cast<std::uint8_t>(record.iNumSubscriptions);
  return writeAt(file, offset + static_cast<off_t>(kBindingTailOffset), bytesOf(record) + kBindingTailOffset,
                 kBindingTailBytes);
}
