// The two binding files of the running system: "binding" and its backup.
#include <limits>

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
    case BindingFile::SaveOutcome::eUnfinished:
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

BindingFile::sTable MySip::bindingTable() const {
  return {psBindings.get(), piBindingOrder.data(), iNumBindings, bindingIndex};
}

// ---- Saving ----

BindingFile::SaveOutcome MySip::saveBindingFile(std::size_t& budget) {
  const bool otherIsComplete = backupBindingFile.isComplete(pcBindingBackupFile.c_str());
  return bindingFile.save(pcBindingFile.c_str(), bindingTable(), otherIsComplete, budget);
}

BindingFile::SaveOutcome MySip::saveBackupBindingFile(std::size_t& budget) {
  const bool otherIsComplete = bindingFile.isComplete(pcBindingFile.c_str());
  return backupBindingFile.save(pcBindingBackupFile.c_str(), bindingTable(), otherIsComplete, budget);
}

int MySip::saveBindingTable(const char* path) {
  std::size_t everything = std::numeric_limits<std::size_t>::max();
  if (pcBindingFile == path) return reportSaving(saveBindingFile(everything), path);
  if (pcBindingBackupFile == path) return reportSaving(saveBackupBindingFile(everything), path);
  BindingFile copy;
  return reportSaving(copy.save(path, bindingTable(), true, everything), path);
}

void MySip::beginSavingBindings() {
  if (eSavingBindings == SavingBindings::eDone) eSavingBindings = SavingBindings::eFile;
}

bool MySip::continueSavingBindings(std::size_t budget) {
  if (eSavingBindings == SavingBindings::eFile) {
    const BindingFile::SaveOutcome outcome = saveBindingFile(budget);
    if (outcome == BindingFile::SaveOutcome::eUnfinished) return false;
    (void)reportSaving(outcome, pcBindingFile.c_str());
    eSavingBindings = SavingBindings::eBackup;
  }
  if (eSavingBindings == SavingBindings::eBackup) {
    if (budget == 0) return false;
    const BindingFile::SaveOutcome outcome = saveBackupBindingFile(budget);
    if (outcome == BindingFile::SaveOutcome::eUnfinished) return false;
    (void)reportSaving(outcome, pcBindingBackupFile.c_str());
    eSavingBindings = SavingBindings::eDone;
  }
  return true;
}

void MySip::saveBindingFiles() {
  beginSavingBindings();
  (void)continueSavingBindings(std::numeric_limits<std::size_t>::max());
}

// ---- Loading ----

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
  return 0;
}

void MySip::loadBindingFiles(BindingFiles files) {
  nameFile(pcBindingFile, "binding");
  nameFile(pcBindingBackupFile, "binding-bkp");
  eSavingBindings = SavingBindings::eDone;
  iNumBindings = 0;  // init has just allocated the records
  if (readBindingTable(pcBindingFile.c_str()) != 0) (void)readBindingTable(pcBindingBackupFile.c_str());
  if (files == BindingFiles::eOfAnother) return;
  bindingFile.adopt(pcBindingFile.c_str(), bindingTable());
  backupBindingFile.adopt(pcBindingBackupFile.c_str(), bindingTable());
  saveBindingFiles();  // now, while no call waits for it
}
