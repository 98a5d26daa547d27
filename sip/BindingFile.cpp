#include "sip/BindingFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

#include "common/FixedText.h"
#include "common/Handle.h"

namespace {

constexpr std::int32_t kTrailer = 12345;
constexpr std::int32_t kMaxRelayCSeq = 1 << 30;  // the rest is enough to count on
constexpr mode_t kFileMode = 0666;               // less the process's umask, as fopen creates files
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
  if (record.iRelayCSeqCounter < 0 || record.iRelayCSeqCounter > kMaxRelayCSeq) {
    record.iRelayCSeqCounter = 1;
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

// Count and trailer.
BindingFile::LoadOutcome checkFrame(int file, int& count) {
  using enum BindingFile::LoadOutcome;
  std::int32_t bindings;
  if (!readAt(file, 0, &bindings, sizeof bindings)) return eNoCount;
  count = bindings;
  if (count < 0 || count > kMaxBindings) return eBadCount;
  if (count > 0 && !reaches(file, recordOffset(count) - 1)) return eNoTable;
  std::int32_t trailer;
  const bool isComplete = readAt(file, recordOffset(count), &trailer, sizeof trailer) && trailer == kTrailer;
  return isComplete ? eLoaded : eNoNumber;
}

bool equalsAt(int file, off_t offset, const std::byte* bytes, std::size_t size) {
  std::array<std::byte, sizeof(sSubscription)> buffer;
  for (std::size_t done = 0; done < size; done += buffer.size()) {
    const std::size_t part = std::min(buffer.size(), size - done);
    if (!readAt(file, offset + static_cast<off_t>(done), buffer.data(), part) ||
        std::memcmp(buffer.data(), bytes + done, part) != 0) {
      return false;
    }
  }
  return true;
}

bool holdsRecord(int file, int binding, const sBinding& record) {
  const off_t offset = recordOffset(binding);
  return equalsAt(file, offset, bytesOf(record), bindingFrontBytes(record.iNumSubscriptions)) &&
         equalsAt(file, offset + static_cast<off_t>(kBindingTailOffset), bytesOf(record) + kBindingTailOffset,
                  kBindingTailBytes);
}

FixedText<310> pathBeside(const char* path) {
  FixedText<310> beside;
  (void)beside.format("%s.new", path);
  return beside;
}

}  // namespace

// ---- Loading ----

BindingFile::LoadOutcome BindingFile::load(const char* path, sBinding* records, int& count, int& repaired) {
  repaired = 0;
  const FileDescriptor opened(open(path, O_RDONLY | kOpenFlags));
  if (!opened.isOpen()) return LoadOutcome::eMissing;
  const LoadOutcome frame = checkFrame(opened.get(), count);
  if (frame != LoadOutcome::eLoaded) return frame;
  for (int binding = 0; binding < count; ++binding) {
    bool damaged = false;
    if (!readRecord(opened.get(), recordOffset(binding), records[binding], damaged))
      return LoadOutcome::eNoTable;
    if (damaged) ++repaired;
  }
  return LoadOutcome::eLoaded;
}

void BindingFile::adopt(const char* path, const sTable& table) {
  forget();
  const FileDescriptor opened(open(path, O_RDONLY | kOpenFlags));
  struct stat status;
  int count = 0;
  if (!opened.isOpen() || fstat(opened.get(), &status) != 0 || !identify(status, identity) ||
      checkFrame(opened.get(), count) != LoadOutcome::eLoaded) {
    return;
  }
  content.iCount = count;
  content.forgetFrom(0);
  std::fill_n(content.uNumEntries.begin(), count, std::uint8_t{kMaxSubscriptions});  // whoever wrote it
  for (int binding = 0; binding < std::min(count, table.iCount); ++binding) {
    if (holdsRecord(opened.get(), binding, table.at(binding)))
      content.uRevisions[static_cast<std::size_t>(binding)] = table.revision(binding);
  }
  bComplete = true;
}

void BindingFile::forget() {
  bComplete = false;
  file.reset();
}

// ---- What is in the file ----

bool BindingFile::identify(const struct stat& status, sIdentity& out) {
  out = {status.st_dev, status.st_ino, status.st_size, status.st_mtim};
  return S_ISREG(status.st_mode);
}

bool BindingFile::isComplete(const char* path) const {
  struct stat status;
  sIdentity now;
  return bComplete && stat(path, &status) == 0 && identify(status, now) && now == identity;
}

bool BindingFile::sContent::holds(const sTable& table) const {
  if (iCount != table.iCount) return false;
  for (int binding = 0; binding < iCount; ++binding) {
    if (uRevisions[static_cast<std::size_t>(binding)] != table.revision(binding)) return false;
  }
  return true;
}

void BindingFile::sContent::forgetFrom(int binding) {
  std::fill(uRevisions.begin() + binding, uRevisions.end(), 0);
  std::fill(uNumEntries.begin() + binding, uNumEntries.end(), std::uint8_t{0});
}

// ---- Saving ----

BindingFile::SaveOutcome BindingFile::save(const char* path, const sTable& table, bool otherIsComplete,
                                           std::size_t& budget) {
  if (!file.isOpen()) {
    const bool complete = isComplete(path);
    if (complete && content.holds(table)) return SaveOutcome::eSaved;
    if (!(otherIsComplete ? openInPlace(path, complete) : openBeside(path))) return SaveOutcome::eCannotOpen;
  }
  const SaveOutcome outcome = writeChanges(table, budget);
  return outcome == SaveOutcome::eUnfinished ? outcome : finish(path, outcome);
}

bool BindingFile::openInPlace(const char* path, bool isComplete) {
  bComplete = bBeside = false;
  bCut = !isComplete;
  written = isComplete ? content : sContent{};
  file.reset(open(path, O_WRONLY | kOpenFlags | (isComplete ? 0 : O_CREAT | O_TRUNC), kFileMode));
  return file.isOpen();
}

bool BindingFile::openBeside(const char* path) {
  struct stat status;
  if (stat(path, &status) == 0 && S_ISDIR(status.st_mode)) return false;  // nothing could be renamed over it
  bBeside = bCut = true;
  written = sContent{};
  file.reset(open(pathBeside(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | kOpenFlags, kFileMode));
  return file.isOpen();
}

// Between calls the table may have changed in every way; the file has no trailer then. It gets it as the very
// last step.
BindingFile::SaveOutcome BindingFile::writeChanges(const sTable& table, std::size_t& budget) {
  if (!bCut || written.iCount != table.iCount) {
    const int kept = std::min(written.iCount, table.iCount);
    if (kept >= 0 && ftruncate(file.get(), recordOffset(kept)) != 0) return SaveOutcome::eNoTable;
    bCut = true;
    written.forgetFrom(std::max(kept, 0));
  }
  if (written.iCount != table.iCount && !writeCount(table.iCount)) return SaveOutcome::eNoCount;
  for (int binding = 0; binding < table.iCount; ++binding) {
    std::uint64_t& revision = written.uRevisions[static_cast<std::size_t>(binding)];
    if (revision == table.revision(binding)) continue;
    if (budget == 0) return SaveOutcome::eUnfinished;
    const std::size_t bytes = writeRecord(binding, table.at(binding));
    if (bytes == 0) return SaveOutcome::eNoTable;
    revision = table.revision(binding);
    budget -= std::min(budget, bytes);
  }
  const bool fits = writeAt(file.get(), recordOffset(table.iCount), &kTrailer, sizeof kTrailer);
  return fits ? SaveOutcome::eSaved : SaveOutcome::eNoNumber;
}

bool BindingFile::writeCount(int count) {
  const std::int32_t bindings = count;
  if (!writeAt(file.get(), 0, &bindings, sizeof bindings)) return false;
  written.iCount = count;
  return true;
}

std::size_t BindingFile::writeRecord(int binding, const sBinding& record) {
  const off_t offset = recordOffset(binding);
  std::uint8_t& entries = written.uNumEntries[static_cast<std::size_t>(binding)];
  const std::size_t before = bindingFrontBytes(entries);
  const std::size_t front = bindingFrontBytes(record.iNumSubscriptions);
  const bool success =
      writeAt(file.get(), offset, bytesOf(record), front) &&
      (before <= front || zeroAt(file.get(), offset + static_cast<off_t>(front), before - front)) &&
      writeAt(file.get(), offset + static_cast<off_t>(kBindingTailOffset),
              bytesOf(record) + kBindingTailOffset, kBindingTailBytes);
  if (!success) return 0;
  entries = static_cast<std::uint8_t>(record.iNumSubscriptions);
  return front + kBindingTailBytes;
}

BindingFile::SaveOutcome BindingFile::finish(const char* path, SaveOutcome outcome) {
  struct stat status;
  sIdentity finished;
  const bool identified = fstat(file.get(), &status) == 0 && identify(status, finished);
  if (close(file.release()) != 0 && outcome == SaveOutcome::eSaved) outcome = SaveOutcome::eNoNumber;
  const FixedText<310> beside = pathBeside(path);
  if (bBeside && outcome == SaveOutcome::eSaved && std::rename(beside.c_str(), path) != 0)
    outcome = SaveOutcome::eCannotOpen;
  if (outcome != SaveOutcome::eSaved) {
    if (bBeside) unlink(beside.c_str());  // what stood at the path before still does
    return outcome;
  }
  bComplete = identified;
  identity = finished;
  content = written;
  return outcome;
}
