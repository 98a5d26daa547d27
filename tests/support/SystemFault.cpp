#include "tests/support/SystemFault.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <stdexcept>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <type_traits>

#include "tests/support/Sanitized.h"

namespace {

#ifdef QUORVEL_SANITIZED
constexpr bool kHeapIsOurs = false;
#else
constexpr bool kHeapIsOurs = true;
#endif
constexpr std::array<std::string_view, 13> kFunctions{
    "socket", "fcntl",       "setsockopt",     "getsockname", "ioctl",  "sendto",   "recvfrom",
    "select", "setpriority", "pthread_create", "rename",      "fdopen", "fallocate"};

std::atomic<const char*> failing{nullptr};
std::atomic<int> fault{0}, sparedCalls{0}, failed{0};
std::atomic<bool> onThisThread{true};
thread_local bool isTestsThread = false;

// The error number when this call is to fail, otherwise 0.
int faultOf(std::string_view function) {
  const char* const name = failing;
  if (name == nullptr || function != name || isTestsThread != onThisThread) return 0;
  if (sparedCalls.fetch_sub(1) > 0) return 0;
  ++failed;
  return fault;
}

// -1 with errno set when the call is to fail, else what the program would have got without this file: from a
// sanitizer, or from the C library.
template <auto kDeclared, typename... Arguments>
auto callOrFail(const char* name, Arguments... arguments) {
  static const auto system = reinterpret_cast<decltype(kDeclared)>(dlsym(RTLD_NEXT, name));
  using Result = decltype(system(arguments...));
  const int error = faultOf(name);
  if (error == 0) return system(arguments...);
  errno = error;
  if constexpr (std::is_pointer_v<Result>)
    return Result(nullptr);
  else
    return static_cast<Result>(-1);
}

}  // namespace

SystemFault::SystemFault(const char* function, int error, int spared, Of whose) {
  if (!isPossible(function)) throw std::invalid_argument(function);
  isTestsThread = true;
  fault = error;
  sparedCalls = spared;
  failed = 0;
  onThisThread = whose == Of::eThisThread;
  failing = function;
}

SystemFault::~SystemFault() {
  failing = nullptr;
}

bool SystemFault::isPossible(std::string_view function) {
  return function.ends_with("new") ? kHeapIsOurs
                                   : std::ranges::find(kFunctions, function) != kFunctions.end();
}

int SystemFault::failures() {
  return failed;
}

// ---- The system as the program sees it ----

#ifndef QUORVEL_SANITIZED
void* operator new(std::size_t bytes) {
  void* const memory = faultOf("throwing new") != 0 ? nullptr : std::malloc(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](std::size_t bytes, const std::nothrow_t& /*mayFail*/) noexcept {
  return faultOf("new") != 0 ? nullptr
                             : std::malloc(bytes);  // freed by the library's delete, which calls free
}
#endif

extern "C" {

// Where a sanitizer is part of the program, it must hear of threads.
int __interceptor_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                                 void* argument) __attribute__((weak));

int socket(int domain, int type, int protocol) noexcept {
  return callOrFail<&socket>("socket", domain, type, protocol);
}
int fcntl(int file, int command, ...) {
  va_list list;
  va_start(list, command);
  void* const argument = va_arg(list, void*);
  va_end(list);
  return callOrFail<&fcntl>("fcntl", file, command, argument);
}
int setsockopt(int file, int level, int option, const void* value, socklen_t size) noexcept {
  return callOrFail<&setsockopt>("setsockopt", file, level, option, value, size);
}
int getsockname(int file, sockaddr* address, socklen_t* size) noexcept {
  return callOrFail<&getsockname>("getsockname", file, address, size);
}
int ioctl(int file, unsigned long request, ...) noexcept {
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  return callOrFail<&ioctl>("ioctl", file, request, argument);
}
ssize_t sendto(int file, const void* data, std::size_t length, int flags, const sockaddr* to,
               socklen_t size) {
  return callOrFail<&sendto>("sendto", file, data, length, flags, to, size);
}
ssize_t recvfrom(int file, void* data, std::size_t length, int flags, sockaddr* from, socklen_t* size) {
  return callOrFail<&recvfrom>("recvfrom", file, data, length, flags, from, size);
}
int select(int count, fd_set* read, fd_set* write, fd_set* other, timeval* timeout) {
  return callOrFail<&select>("select", count, read, write, other, timeout);
}
int setpriority(__priority_which_t which, id_t who, int value) noexcept {
  return callOrFail<&setpriority>("setpriority", which, who, value);
}
int rename(const char* from, const char* to) noexcept {
  return callOrFail<&rename>("rename", from, to);
}
FILE* fdopen(int file, const char* mode) noexcept {
  return callOrFail<&fdopen>("fdopen", file, mode);
}
int fallocate(int file, int mode, off_t offset, off_t length) {
  return callOrFail<&fallocate>("fallocate", file, mode, offset, length);
}
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
  static const auto system = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (const int error = faultOf("pthread_create"); error != 0) return error;
  if (__interceptor_pthread_create != nullptr)
    return __interceptor_pthread_create(thread, attributes, start, argument);
  return system(thread, attributes, start, argument);
}
}
