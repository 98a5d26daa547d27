// How often the calling thread takes memory from the heap, by whatever road: operator new, malloc, calloc,
// realloc and aligned memory. A test program that links AllocationCount.cpp counts all of its own and its
// libraries' requests, also under the sanitizers.
//
//   const AllocationCount count;
//   ... frames ...
//   EXPECT_EQ(count.taken(), 0);
#pragma once

class AllocationCount {
 public:
  AllocationCount() : lStart(requests()) {}
  // Requests since this object was made.
  [[nodiscard]] long taken() const { return requests() - lStart; }

 private:
  [[nodiscard]] static long requests();

  long lStart;
};
