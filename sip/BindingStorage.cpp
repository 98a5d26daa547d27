// The two binding files of the running system: "binding" and its backup.
#include "app/config/Log.h"
#include "app/config/ProcessState.h"
#include "engine/Glob.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kSave = "MySip::saveBindingTable";
constexpr const char* kRead = "MySip::readBindingTable";

void nameFile(FixedText<300>& path, const char* name) {
  if (path.format("%s%s%s", Glob::pcKestrovaBin.c_str(), name, pcKestrovaInstanceSuffix.c_str())) return;
  Log::error("MySip::loadBindingFiles", "path of the file %s is longer than %d characters\n", name,
             static_cast<int>(path.maxLength()));
}

int reportSaving(BindingFile::SaveOutcome outcome, const char* path) {
  switch (outcome) {
    case BindingFile::SaveOutcome::eSaved:
      return 0;
    case BindingFile::SaveOutcome::eCannotOpen:
      Log::error(kSave, "Unable to write to the file %s\n", path);
      break;
    case BindingFile::SaveOutcome::eNoCount:
      Log::warning(kSave, "Unable to write count to file %s\n", path);
      break;
    case BindingFile::SaveOutcome::eNoTable:
      Log::warning(kSave, "Unable to write table to file %s\n", path);
      break;
    case BindingFile::SaveOutcome::eNoNumber:
      Log::warning(kSave, "Unable to write number to file %s\n", path);
      break;
  }
  return 1;
}

int reportLoading(BindingFile::LoadOutcome outcome, int count) {
  switch (outcome) {
    case BindingFile::LoadOutcome::eLoaded:
      return 0;
    case BindingFile::LoadOutcome::eMissing:
      break;
    case BindingFile::LoadOutcome::eNoCount:
      Log::warning(kRead, "Binding file is corrupted (index) - ignored\n");
      break;
    case BindingFile::LoadOutcome::eBadCount:
      Log::warning(kRead, "Binding file is corrupted (number of binding=%d) - ignored\n", count);
      break;
    case BindingFile::LoadOutcome::eNoTable:
      Log::warning(kRead, "Binding file is corrupted (table) - ignored\n");
      break;
    case BindingFile::LoadOutcome::eNoNumber:
      Log::warning(kRead, "Binding file is corrupted (number) - ignored\n");
      break;
  }
  return 1;
}

}  // namespace

int MySip::saveBindingTable(const char* path) {
  const BindingFile::sTable table{psBindings.get(), iNumBindings, bindingIndex};
  if (pcBindingFile == path) {
    const bool otherIsComplete = backupBindingFile.isComplete(pcBindingBackupFile.c_str());
    return reportSaving(bindingFile.save(path, table, otherIsComplete), path);
  }
  if (pcBindingBackupFile == path) {
    const bool otherIsComplete = bindingFile.isComplete(pcBindingFile.c_str());
    return reportSaving(backupBindingFile.save(path, table, otherIsComplete), path);
  }
  BindingFile copy;
  return reportSaving(copy.save(path, table, true), path);
}

int MySip::readBindingTable(const char* path) {
  emptyBindingTable();
  int count = 0;
  int repaired = 0;
  const BindingFile::LoadOutcome outcome = BindingFile::load(path, psBindings.get(), count, repaired);
  if (reportLoading(outcome, count) != 0) {
    for (int binding = 0; outcome == BindingFile::LoadOutcome::eNoTable && binding < count; ++binding)
      clearBinding(bindingAt(binding));
    return 1;
  }
  if (repaired > 0)
    Log::warning(kRead, "%d of %d bindings in the file %s were damaged and have been repaired\n", repaired,
                 count, path);
  iNumBindings = count;
  for (int binding = 0; binding < iNumBindings; ++binding) bindingChanged(binding);

  const BindingFile::sTable table{psBindings.get(), iNumBindings, bindingIndex};
  if (pcBindingFile == path) bindingFile.adopt(path, table, repaired > 0);
  if (pcBindingBackupFile == path) backupBindingFile.adopt(path, table, repaired > 0);
  return 0;
}

void MySip::loadBindingFiles() {
  nameFile(pcBindingFile, "binding");
  nameFile(pcBindingBackupFile, "binding-bkp");
  bindingFile.forget();
  backupBindingFile.forget();
  iNumBindings = 0;  // init has just allocated the records
  if (readBindingTable(pcBindingFile.c_str()) == 0) return;
  const bool haveBackup = readBindingTable(pcBindingBackupFile.c_str()) == 0;
  (void)saveBindingTable(pcBindingFile.c_str());
  if (!haveBackup) (void)saveBindingTable(pcBindingBackupFile.c_str());
}

void MySip::saveBindingFiles() {
  (void)saveBindingTable(pcBindingFile.c_str());
  (void)saveBindingTable(pcBindingBackupFile.c_str());
}
