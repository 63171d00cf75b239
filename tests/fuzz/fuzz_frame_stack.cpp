// The frame-stack loop on the CPU reference device with whatever the bytes
// give: any mode value, switches, fade, stack length up to past one launch,
// sizes, pitches, offsets and pixel values (NaN and infinities included), in
// the three storage forms. The one-launch path must give the pass-by-pass
// loop's bits, and neither may touch memory outside its frames. A NaN may
// come out with another payload: which operand's payload an operation passes
// on is the compiler's choice.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "CpuRender.h"

namespace {

struct Frame {
  int w, h, pitch, x, y;
  std::vector<uint8_t> bytes;  // exactly the rows, so a stray read is caught
};

std::vector<uint8_t> Render(const std::vector<Frame>& frames, const Frame& output, KernelData kd, bool is16f,
                            CpuHalfForm form, bool fused) {
  const int pixelBytes = is16f ? 8 : 16;
  FrameStackJob job;
  for (const Frame& f : frames)
    job.frames.push_back({const_cast<uint8_t*>(f.bytes.data()), f.w, f.h, f.pitch * pixelBytes, f.x, f.y});
  std::vector<uint8_t> out = output.bytes;
  job.output = {out.data(), output.w, output.h, output.pitch * pixelBytes, 0, 0};
  job.is16f = is16f;
  job.kernelData = &kd;
  CpuLaunchConfig config;
  config.halfForm = form;
  FrameStackHost host = MakeCpuFrameStackHost(config, job);
  if (!fused) host.runStack = nullptr;
  if (RenderFrameStack(job, host) != 0) __builtin_trap();
  return out;
}

bool IsNaN(const uint8_t* v, bool is16f) {
  if (is16f) {
    uint16_t h;
    std::memcpy(&h, v, 2);
    return (h & 0x7c00u) == 0x7c00u && (h & 0x3ffu) != 0;
  }
  float f;
  std::memcpy(&f, v, 4);
  return f != f;
}

bool SameValues(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b, bool is16f) {
  const size_t n = is16f ? 2 : 4;
  for (size_t i = 0; i < a.size(); i += n)
    if (std::memcmp(&a[i], &b[i], n) != 0 && !(IsNaN(&a[i], is16f) && IsNaN(&b[i], is16f))) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const int form = in.ConsumeIntegralInRange(0, 2);
  const bool is16f = form > 0;
  const int pixelBytes = is16f ? 8 : 16;
  KernelData kd{};
  kd.numFrames = in.ConsumeIntegralInRange(0, 19);
  kd.blendMode = static_cast<BlendMode>(in.ConsumeIntegralInRange(-1, 12));
  kd.diffMode = static_cast<DiffBlendMode>(in.ConsumeIntegralInRange(-1, 3));
  kd.output = static_cast<ColorFrom>(in.ConsumeIntegralInRange(-1, 4));
  kd.normalize = in.ConsumeBool();
  kd.percentEase = in.ConsumeFloatingPoint<float>();

  auto makeFrame = [&](bool offset) {
    Frame f;
    f.w = in.ConsumeIntegralInRange(1, 24);
    f.h = in.ConsumeIntegralInRange(1, 24);
    f.pitch = f.w + in.ConsumeIntegralInRange(0, 3);
    f.x = offset ? in.ConsumeIntegralInRange(-30, 30) : 0;
    f.y = offset ? in.ConsumeIntegralInRange(-30, 30) : 0;
    f.bytes = in.ConsumeBytes<uint8_t>(static_cast<size_t>(f.pitch) * f.h * pixelBytes);
    f.bytes.resize(static_cast<size_t>(f.pitch) * f.h * pixelBytes);
    return f;
  };
  const Frame output = makeFrame(false);
  std::vector<Frame> frames;
  for (int i = 0; i < kd.numFrames; ++i) {
    // Most frames match the output, as hosts give them; some are placed.
    if (in.ConsumeBool()) {
      frames.push_back(makeFrame(true));
    } else {
      Frame f = output;
      f.bytes = in.ConsumeBytes<uint8_t>(output.bytes.size());
      f.bytes.resize(output.bytes.size());
      frames.push_back(f);
    }
  }
  const CpuHalfForm halfForm = form == 2 ? CpuHalfForm::CUDA : CpuHalfForm::OpenCL;
  if (!SameValues(Render(frames, output, kd, is16f, halfForm, true), Render(frames, output, kd, is16f, halfForm, false),
                  is16f))
    __builtin_trap();
  return 0;
}
