// A large array of plain values that starts as zeros without being touched: the system maps its pages when
// they are first written, so that setting up a channel does not depend on what its rings hold.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
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
  ZeroedArray(const ZeroedArray& other) : ZeroedArray(other.uSize) { *this = other; }
  ZeroedArray(ZeroedArray&&) noexcept = default;
  ZeroedArray& operator=(ZeroedArray&&) noexcept = default;
  // Copies in place between arrays of one size, allocates otherwise.
  ZeroedArray& operator=(const ZeroedArray& other) {
    if (this == &other) return *this;
    if (uSize != other.uSize) *this = ZeroedArray(other.uSize);
    if (uSize != 0) std::memcpy(data(), other.data(), uSize * sizeof(T));
    return *this;
  }
  ~ZeroedArray() = default;

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
