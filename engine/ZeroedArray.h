// A large array of plain values that starts as zeros without being touched: the system maps its pages when
// they are first written, so that setting up a channel costs microseconds, whatever its rings hold.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>

template <typename T>
class ZeroedArray {
  static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

 public:
  ZeroedArray() = default;
  // Throws std::bad_alloc when memory is short.
  explicit ZeroedArray(std::size_t uCount)
      : pValues(static_cast<T*>(std::calloc(uCount, sizeof(T)))), uSize(uCount) {
    if (!pValues) throw std::bad_alloc();
  }

  [[nodiscard]] T* data() { return pValues.get(); }
  [[nodiscard]] const T* data() const { return pValues.get(); }
  [[nodiscard]] std::size_t size() const { return uSize; }
  T& operator[](std::size_t uIndex) { return pValues.get()[uIndex]; }
  const T& operator[](std::size_t uIndex) const { return pValues.get()[uIndex]; }

 private:
  struct Free {
    void operator()(T* pMemory) const { std::free(pMemory); }
  };
  std::unique_ptr<T[], Free> pValues;
  std::size_t uSize = 0;
};
