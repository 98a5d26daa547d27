// No memory is taken from the heap after a channel's initialisation.
#include "engine/Glob.h"
#include "tests/engine/EngineFixture.h"
#include "tests/support/AllocationCount.h"

namespace {

class AllocationTest : public EngineTest {};

TEST_F(AllocationTest, NoFrameOfANoiseChannelTakesMemory) {
  for (const int iRate : {8000, 16000}) {
    sKestrovaInit init = defaultInit();
    init.iSampleRate = iRate;
    init.bCheckDTMF = init.bDoAGC = init.bCancelAcousticShock = 1;
    ASSERT_EQ(KestrovaInit(0, &init), 0);
    const auto uSecond = static_cast<std::size_t>(iRate);
    Samples in = silence(uSecond);
    for (const double dPitch : {110.0, 190.0}) {
      in += voice(uSecond, iRate, dPitch, 9000);
      in += silence(uSecond / 2);
    }
    in += tone(uSecond / 4, 770, 4000, 1336, 4000);
    in = mixed(in, gaussianNoise(in.size(), 100, 3));
    const std::size_t uFrame = uSecond / 250;
    sKestrovaFrameResult result{};
    int iError = 0;
    const AllocationCount count;
    for (std::size_t i = 0; i + uFrame <= in.size(); i += uFrame) {
      iError |= KestrovaProcessFrame(0, in.data() + i, static_cast<int>(2 * uFrame), in.data() + i, &result);
    }
    const long lTaken = count.taken();
    EXPECT_EQ(lTaken, 0) << iRate;
    EXPECT_EQ(iError, 0);
  }
}

TEST_F(AllocationTest, EveryRoadToTheHeapIsCounted) {
  const AllocationCount count;
  void* volatile pNew = ::operator new(8);  // volatile: the compiler may not leave the request out
  EXPECT_EQ(count.taken(), 1);
  void* volatile pZeros = std::calloc(100, 10);
  EXPECT_EQ(count.taken(), 2);
  std::free(pZeros);
  ::operator delete(pNew);
}

}  // namespace
