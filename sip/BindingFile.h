// One of the two files that hold the binding table: the number of bindings (int32), the records as they are
// in memory, and the number 12345 (int32) as trailer.
//
// The table is saved every second and may have 318 MB, so only what has changed is written, and nothing when
// nothing has. The process may be killed at any moment; whoever reads the files afterwards must find a
// complete one:
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
#include <cstdint>
#include <ctime>
#include <sys/types.h>

#include "sip/BindingIndex.h"
#include "sip/sBinding.h"

class BindingFile {
 public:
  struct sTable {
    const sBinding* psRecords;
    int iCount;
    const BindingIndex& index;  // for the revisions
  };

  enum class SaveOutcome { eSaved, eCannotOpen, eNoCount, eNoTable, eNoNumber };
  // Brings the file to the table's state. `otherIsComplete`: the other file would survive a failure here.
  [[nodiscard]] SaveOutcome save(const char* path, const sTable& table, bool otherIsComplete);

  enum class LoadOutcome { eLoaded, eMissing, eNoCount, eBadCount, eNoTable, eNoNumber };
  // Reads a file into records that are all zero bytes. Texts without terminator and counts out of range are
  // repaired and counted; whatever the file holds, the records can be used. On failure `count` is what the
  // file says, if it could be read, and some records may have been filled.
  [[nodiscard]] static LoadOutcome load(const char* path, sBinding* records, int& count, int& repaired);

  // The table has just been loaded from this file. `repaired`: the file does not hold exactly the table.
  void adopt(const char* path, const sTable& table, bool repaired);
  void forget() { bKnown = false; }

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
  static bool identify(const struct stat& status, sIdentity& out);

  bool holds(const sTable& table) const;
  SaveOutcome patch(const char* path, const sTable& table);
  SaveOutcome rewrite(const char* path, const sTable& table);
  SaveOutcome replace(const char* path, const sTable& table);
  SaveOutcome writeChanges(int file, const sTable& table);
  bool writeRecord(int file, int binding, const sBinding& record);
  void forgetRecordsFrom(int first);

  bool bKnown = false;  // the rest describes the file
  sIdentity identity;
  int iCount = -1;                                       // -1: not in the file yet
  std::array<std::uint64_t, kMaxBindings> uRevisions{};  // 0: not in the file
  std::array<std::uint8_t, kMaxBindings>
      uNumEntries{};  // subscription entries that may hold more than zero bytes
};
