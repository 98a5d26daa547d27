// The engine, ready for channels.
#pragma once

#include "engine/Kestrova.h"
#include "fuzz/Require.h"

inline bool prepareEngine() {
  const sKestrovaPackage package{KESTROVA_API_VERSION, nullptr, 5};
  require(KestrovaPackageInit(&package) == 0);
  return true;
}
