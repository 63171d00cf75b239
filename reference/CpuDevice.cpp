#include "CpuDevice.h"

#include <algorithm>
#include <system_error>
#include <thread>
#include <vector>

#include "CpuKernels.h"

namespace {

// Runs body(x, y) for every work item of the global range (w, h rounded up to
// whole groups), group by group. Threads take whole rows of groups.
template <typename Body>
void Launch2D(const CpuLaunchConfig& config, unsigned int w, unsigned int h, Body body) {
  const unsigned int bs = config.blockSize;
  const unsigned int groupsX = (w + bs - 1) / bs;
  const unsigned int groupsY = (h + bs - 1) / bs;
  const bool powerCurve = config.halfForm == CpuHalfForm::CUDA;
  auto rows = [&](unsigned int gy0, unsigned int gy1) {
    gfcpu::tWorkItem.halfPowerCurve = powerCurve;
    for (unsigned int gy = gy0; gy < gy1; ++gy)
      for (unsigned int gx = 0; gx < groupsX; ++gx)
        for (unsigned int ly = 0; ly < bs; ++ly)
          for (unsigned int lx = 0; lx < bs; ++lx) {
            gfcpu::tWorkItem.x = gx * bs + lx;
            gfcpu::tWorkItem.y = gy * bs + ly;
            body();
          }
  };
  const unsigned int threads = std::max(1u, std::min<unsigned int>(config.threads, groupsY));
  if (threads == 1) {
    rows(0, groupsY);
    return;
  }
  // This thread takes the last share, and the shares of threads the system
  // cannot start (short of memory): the same rows, only later.
  std::vector<std::thread> pool;
  unsigned int started = 0;
  try {
    for (; started + 1 < threads; ++started)
      pool.emplace_back(rows, groupsY * started / threads, groupsY * (started + 1) / threads);
  } catch (const std::system_error&) {
  }
  rows(groupsY * started / threads, groupsY);
  for (auto& th : pool) th.join();
}

}  // namespace

void CpuMainKernel(const CpuLaunchConfig& config, const void* inPre, const void* inCur, void* outIm, void* outDst,
                   const KernelData* params, int inPrePitch, int inCurPitch, int inDstPitch, int in16f,
                   unsigned int inWidth, unsigned int inHeight, const void* inIm, float weight) {
  using gfcpu::float4;
  Launch2D(config, inWidth, inHeight, [&] {
    gfcpu::MainKernel(static_cast<const float4*>(inPre), static_cast<const float4*>(inCur), static_cast<float4*>(outIm),
                      static_cast<float4*>(outDst), params, inPrePitch, inCurPitch, inDstPitch, in16f, inWidth,
                      inHeight, static_cast<const float4*>(inIm), weight);
  });
}

void CpuStackKernel(const CpuLaunchConfig& config, const void* const* frames, void* outIm, void* outDst,
                    const KernelData* params, int inDstPitch, int in16f, unsigned int inWidth, unsigned int inHeight,
                    const void* inIm, const StackChunk& chunk) {
  using gfcpu::float4;
  const float4* const* f = reinterpret_cast<const float4* const*>(frames);
  Launch2D(config, inWidth, inHeight, [&] {
    gfcpu::StackKernel(f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8], f[9], f[10], f[11], f[12], f[13], f[14],
                       f[15], static_cast<float4*>(outIm), static_cast<float4*>(outDst), params, inDstPitch, in16f,
                       inWidth, inHeight, static_cast<const float4*>(inIm), chunk);
  });
}

void CpuResizeKernel(const CpuLaunchConfig& config, const void* inSrc, void* outDst, int inSrcPitch, int inDstPitch,
                     int in16f, unsigned int inWidth, unsigned int inHeight, unsigned int outWidth,
                     unsigned int outHeight, int inOffsetX, int inOffsetY) {
  using gfcpu::float4;
  Launch2D(config, outWidth, outHeight, [&] {
    gfcpu::ResizeKernel(static_cast<const float4*>(inSrc), static_cast<float4*>(outDst), inSrcPitch, inDstPitch, in16f,
                        inWidth, inHeight, outWidth, outHeight, inOffsetX, inOffsetY);
  });
}
