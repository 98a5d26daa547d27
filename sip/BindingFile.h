// One of the two files that hold the binding table: the number of bindings (int32), the records as they are
// in memory, and the number 12345 (int32) as trailer.
//
// The table is saved every second and may have 318 MB, so only what has changed is written, nothing when
// nothing has, and never more at a time than the caller can wait for. The process may be killed at any
// moment; whoever reads the files afterwards must find a complete one:
//
//     other file complete        in place: the trailer is cut off first and written last, so that a file that
//     was left
//                                half written has none and is refused
//     other file not complete    beside it, and then renamed over it
//
// A file that was deleted, replaced or written by somebody else is written afresh. Unused subscription
// entries are holes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

#include "common/Handle.h"
#include "sip/BindingIndex.h"
#include "sip/sBinding.h"

class BindingFile {
 public:
  struct sTable {
    const sBinding* psRecords;
    const int* piOrder;  // record of each binding
    int iCount;
    const BindingIndex& index;  // for the revisions

    const sBinding& at(int binding) const { return psRecords[piOrder[binding]]; }
    std::uint64_t revision(int binding) const { return index.revision(binding); }
  };

  enum class SaveOutcome { eSaved, eUnfinished, eCannotOpen, eNoCount, eNoTable, eNoNumber };
  // Brings the file to the table's state, or, after `budget` bytes, part of the way: then it is to be called
  // again, with the table as it is by then. Takes what it wrote off the budget. `otherIsComplete`: the other
  // file would survive a failure here.
  [[nodiscard]] SaveOutcome save(const char* path, const sTable& table, bool otherIsComplete,
                                 std::size_t& budget);

  enum class LoadOutcome { eLoaded, eMissing, eNoCount, eBadCount, eNoTable, eNoNumber };
  // Reads a file into records that are all zero bytes. Texts without terminator and counts out of range are
  // repaired and counted; whatever the file holds, the records can be used. On failure `count` is what the
  // file says, if it could be read, and some records may have been filled.
  [[nodiscard]] static LoadOutcome load(const char* path, sBinding* records, int& count, int& repaired);

  // Start-up: finds out which of the table's records the file holds.
  void adopt(const char* path, const sTable& table);
  void forget();

  // The file is complete and nobody else has touched it since.
  bool isComplete(const char* path) const;

 private:
  // What tells a file from any other and from any later state of itself.
  struct sIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};

    bool operator==(const sIdentity& other) const {
      return device == other.device && inode == other.inode && size == other.size &&
             modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec;
    }
  };
  // What a file holds.
  struct sContent {
    int iCount = -1;                                       // -1: not even a count
    std::array<std::uint64_t, kMaxBindings> uRevisions{};  // 0: no revision of the table's
    std::array<std::uint8_t, kMaxBindings> uNumEntries{};  // entries that may hold more than zero bytes

    void forgetFrom(int binding);
    bool holds(const sTable& table) const;
  };

  static bool identify(const struct stat& status, sIdentity& out);
  bool openInPlace(const char* path, bool isComplete);
  bool openBeside(const char* path);
  SaveOutcome writeChanges(const sTable& table, std::size_t& budget);
  bool writeCount(int count);
  std::size_t writeRecord(int binding, const sBinding& record);  // bytes, 0 on failure
  SaveOutcome finish(const char* path, SaveOutcome outcome);

  bool bComplete = false;  // the file at the path, when it is still `identity`, holds `content`
  sIdentity identity;
  sContent content;

  FileDescriptor file;   // being written, while open
  bool bBeside = false;  // beside the path
  bool bCut = false;     // it has no trailer
  sContent written;
};
