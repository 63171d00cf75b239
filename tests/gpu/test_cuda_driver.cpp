// The CUDA rows through the driver API. CTest runs CudaDriver with the stand-in
// driver (fake_libcuda.cpp) first on the library path, and NoCudaDriver with a
// libcuda.so.1 there that does not load, so either runs with or without a GPU.
#include "TremorDistiller_AePrGPU_Functions.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "FakeCudaDriver.h"
#include "GpuTestSupport.h"

extern const unsigned char kTremorDistillerCudaImage[];

namespace {

template <typename F>
F* FromDriver(const char* name) {
  void* library = dlopen("libcuda.so.1", RTLD_NOW);  // the one the module loads
  return reinterpret_cast<F*>(dlsym(library, name));
}
FakeCudaDriver& Fake() { return *FromDriver<FakeCudaDriver*()>("FakeCudaDriverState")(); }
void MakeCurrent(uintptr_t context) { FromDriver<void(CUcontext)>("FakeCudaMakeCurrent")(CUcontext(context)); }
void* P(uintptr_t p) { return reinterpret_cast<void*>(p); }

struct Pass {
  PassBuffers buffers{P(1), P(2), P(3), P(4), P(5), P(6), P(7)};
  KernelData kd{};
  MainKernelArgs main{40, 40, 40, 0, 37, 19};
  ResizeKernelArgs pre{40, 40, 0, 37, 19, 37, 19, 0, 0};
  ResizeKernelArgs cur{40, 40, 0, 37, 19, 37, 19, 2, 0};  // the newer frame on a canvas
  int32_t Run() { return GPURender(CUDA, nullptr, nullptr, nullptr, buffers, kd, main, pre, cur, 16, 512); }
};

TEST(CudaDriver, PassLaunchesTheImageKernelsInTheCurrentContext) {
  FakeCudaDriver& f = Fake();
  MakeCurrent(0x10);
  Pass p;
  p.kd.percent = 0.5f;
  p.kd.percentEase = 2.0f;  // weight 0.75
  ASSERT_EQ(p.Run(), 0);
  StackChunk chunk{};
  chunk.passes = 3;
  const void* frames[STACK_CHUNK_FRAMES] = {P(0x100), P(0x101)};
  GetCudaCalls().launchStack(frames, P(3), P(7), P(0x5000), 40, 1, 33, 17, P(4), chunk, 16);

  ASSERT_EQ(f.loads, std::vector<CUcontext>{CUcontext(0x10)});
  EXPECT_EQ(f.image, kTremorDistillerCudaImage);
  ASSERT_EQ(f.launches.size(), 3u);
  // Each: 16 x 16 blocks over its size (37 x 19, 33 x 17), then its arguments in order.
  EXPECT_EQ(f.launches[0].kernel, "ResizeKernel");  // the newer frame onto its canvas
  EXPECT_EQ(f.launches[0].words, (std::vector<uint32_t>{3, 2, 1, 16, 16, 1, 2, 6, 40, 40, 0, 37, 19, 37, 19, 2, 0}));
  EXPECT_EQ(f.launches[1].kernel, "MainKernel");
  EXPECT_EQ(f.launches[1].words, (std::vector<uint32_t>{3, 2, 1, 16, 16, 1, 1, 6, 3, 7, 0x5000, 40, 40, 40, 0, 37, 19,
                                                        4, 0x3F400000 /* 0.75f */}));
  EXPECT_EQ(f.launches[2].kernel, "StackKernel");
  EXPECT_EQ(f.launches[2].words[7], 0x101u);  // frame 1, then frame 15 and the rest
  EXPECT_EQ(std::vector<uint32_t>(f.launches[2].words.begin() + 21, f.launches[2].words.end()),
            (std::vector<uint32_t>{0, 3, 7, 0x5000, 40, 1, 33, 17, 4, 3}));
  EXPECT_EQ(f.syncs, 3);
  EXPECT_EQ(f.liveAllocations, 0);
}

TEST(CudaDriver, OneLoadPerContextAndErrorsStayWithTheirThread) {
  FakeCudaDriver& f = Fake();
  const auto resize = [] { GetCudaCalls().launchResize(P(1), P(2), 8, 8, 0, 8, 8, 8, 8, 0, 0, 16); };
  std::vector<std::thread> threads;
  for (uintptr_t i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      MakeCurrent(0x20 + i % 2);
      for (int n = 0; n < 5; ++n) resize();
      EXPECT_EQ(GetCudaCalls().peekAtLastError(), 0);
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(std::count(f.loads.begin(), f.loads.end(), CUcontext(0x20)), 1);
  EXPECT_EQ(std::count(f.loads.begin(), f.loads.end(), CUcontext(0x21)), 1);

  std::thread([&] {
    MakeCurrent(0x20);
    f.launchResult = CUDA_ERROR_LAUNCH_FAILED;
    resize();
    f.launchResult = CUDA_SUCCESS;
    EXPECT_STREQ(GetCudaCalls().getErrorString(GetCudaCalls().peekAtLastError()), "unspecified launch failure");
    std::thread([&] {
      EXPECT_EQ(GetCudaCalls().peekAtLastError(), 0);
      resize();  // no current context
      EXPECT_EQ(GetCudaCalls().peekAtLastError(), CUDA_ERROR_INVALID_CONTEXT);
    }).join();
  }).join();
}

TEST(NoCudaDriver, PassFailsWithItsText) {
  LogCapture log;
  EXPECT_EQ(Pass().Run(), 512);
  EXPECT_EQ(log.Count("CUDA Assert: the CUDA driver (libcuda.so.1) could not be loaded"), 1u);
}

}  // namespace
