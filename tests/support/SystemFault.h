// Makes a function of the system fail while an object lives: `const SystemFault fault("sendto", EPERM);`.
// Works in test programs that link SystemFault.cpp, which stands before the C library in all of the program's
// calls to accept the functions named there. One fault at a time.
#pragma once

#include <string_view>

class SystemFault {
 public:
  enum class Of { eThisThread, eOtherThreads };

  // The first `spared` calls still succeed. Throws std::invalid_argument for a function that cannot fail
  // here.
  SystemFault(const char* function, int error, int spared = 0, Of whose = Of::eThisThread);
  ~SystemFault();
  SystemFault(const SystemFault&) = delete;
  SystemFault& operator=(const SystemFault&) = delete;

  // Whether it can be made to fail. Memory ("new", for the requests that may fail, and "throwing new") is a
  // sanitizer's own.
  static bool isPossible(std::string_view function);
  // How often it has failed since the object was made.
  static int failures();
};
