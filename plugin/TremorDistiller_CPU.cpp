// The software path. There is no CPU form of the effect: a software frame gets
// the input at half value, and the user is told once how to turn the GPU on.
#include "TremorDistiller_CPU.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <sstream>
#include <system_error>
#include <thread>
#include <vector>

#include "LogsController.h"
#include "TremorDistiller.h"
#include "TremorDistiller_GPURecords.h"

namespace {

struct FormatDepth {
  PF_PixelFormat code;
  int depth;
};

constexpr FormatDepth kAeFormatDepths[] = {
    {PF_FourCharCode("bgra"), 8},  {PF_FourCharCode("argb"), 8},  {PF_FourCharCode("vuya"), 8},
    {PF_FourCharCode("ae16"), 16}, {PF_FourCharCode("ae32"), 32}, {PF_FourCharCode("@CDA"), 32},
};

constexpr FormatDepth kPrFormatDepths[] = {
    {PF_FourCharCode("bgra"), 8},  {PF_FourCharCode("bgrx"), 8},  {PF_FourCharCode("bgrp"), 8},
    {PF_FourCharCode("argb"), 8},  {PF_FourCharCode("xrgb"), 8},  {PF_FourCharCode("prgb"), 8},
    {PF_FourCharCode("vuya"), 8},  {PF_FourCharCode("vuyx"), 8},  {PF_FourCharCode("vuyp"), 8},
    {PF_FourCharCode("uyvy"), 8},  {PF_FourCharCode("yuy2"), 8},  {PF_FourCharCode("yuy3"), 8},
    {PF_FourCharCode("vup7"), 8},  {PF_FourCharCode("vux7"), 8},  {PF_FourCharCode("uyv7"), 8},
    {PF_FourCharCode("VUYA"), 8},  {PF_FourCharCode("v210"), 10}, {PF_FourCharCode("v211"), 10},
    {PF_FourCharCode("RGB1"), 10}, {PF_FourCharCode("@PQ2"), 12}, {PF_FourCharCode("@PQ7"), 12},
    {PF_FourCharCode("@PQP"), 12}, {PF_FourCharCode("Bgra"), 16}, {PF_FourCharCode("Bgrx"), 16},
    {PF_FourCharCode("Bgrp"), 16}, {PF_FourCharCode("Argb"), 16}, {PF_FourCharCode("Xrgb"), 16},
    {PF_FourCharCode("Prgb"), 16}, {PF_FourCharCode("Vuya"), 16}, {PF_FourCharCode("BGra"), 32},
    {PF_FourCharCode("BGrx"), 32}, {PF_FourCharCode("BGrp"), 32}, {PF_FourCharCode("ARgb"), 32},
    {PF_FourCharCode("XRgb"), 32}, {PF_FourCharCode("PRgb"), 32}, {PF_FourCharCode("VUya"), 32},
    {PF_FourCharCode("VUyx"), 32}, {PF_FourCharCode("VUyp"), 32}, {PF_FourCharCode("VUp7"), 32},
    {PF_FourCharCode("VUx7"), 32}, {PF_FourCharCode("UYvy"), 32}, {PF_FourCharCode("UYv7"), 32},
    {PF_FourCharCode("vUYa"), 32}, {PF_FourCharCode("BGaL"), 32}, {PF_FourCharCode("BGxL"), 32},
    {PF_FourCharCode("BGpL"), 32}, {PF_FourCharCode("ARgL"), 32}, {PF_FourCharCode("XRgL"), 32},
    {PF_FourCharCode("PRgL"), 32},
};

constexpr char kNoticeLine1[] = "Tremor Distiller cannot render using CPU only.";
constexpr char kSettingsPathAe[] = "Go in File > Project Settings";
constexpr char kSettingsPathPr[] = "Go in File > Project Settings > General";
constexpr char kSelectGpu[] = " and select 'Mercury GPU Acceleration'";
constexpr char kNoticeMessageHead[] =
    "Wrong Settings for GPU Acceleration\n\nSorry, the current version of the plugin only supports GPU "
    "acceleration. ";

// Integer components are cut toward zero (255 gives 127); floats are narrowed
// from double and neither clamped nor premultiplied.
template <typename T>
T Half(T v) {
  return static_cast<T>(static_cast<double>(v) * 0.5);
}

template <typename T>
void HalfValuePixelOf(const unsigned char* in, unsigned char* out) {
  T px[4];
  std::memcpy(px, in, sizeof px);  // host rows carry no alignment promise
  for (int k = 1; k < 4; ++k) px[k] = Half(px[k]);
  std::memcpy(out, px, sizeof px);
}

template <typename T>
void HalfValueSpan(const unsigned char* in, unsigned char* out, A_long count) {
  constexpr size_t kPixel = 4 * sizeof(T);
  for (A_long x = 0; x < count; ++x) HalfValuePixelOf<T>(in + x * kPixel, out + x * kPixel);
}

// Raised once: only while no notice stands.
void RaiseNotice(PF_InData* in_data, PF_OutData* out_data) {
  const std::string line2 = std::string(IsPremiere(in_data) ? kSettingsPathPr : kSettingsPathAe) + kSelectGpu;
  bool raised = false;
  EditGPUStatusText([&](GPUStatusText& text) {
    if (!text.noticeLine1.empty()) return;
    text.gpuName.clear();
    text.frameworkName.clear();
    text.noticeLine1 = kNoticeLine1;
    text.noticeLine2 = line2;
    raised = true;
  });
  if (!raised || !out_data) return;
  const std::string message = kNoticeMessageHead + line2;
  in_data->utils->ansi.strcpy(out_data->return_msg, message.c_str());
  out_data->out_flags |= PF_OutFlag_DISPLAY_ERROR_MESSAGE;
}

}  // namespace

int PixelFormatDepth(PF_PixelFormat format, bool premiere) {
  const FormatDepth* first = premiere ? std::begin(kPrFormatDepths) : std::begin(kAeFormatDepths);
  const FormatDepth* last = premiere ? std::end(kPrFormatDepths) : std::end(kAeFormatDepths);
  const FormatDepth* row = std::find_if(first, last, [format](const FormatDepth& r) { return r.code == format; });
  return row == last ? 0 : row->depth;
}

int PixelSizeOfDepth(int depth) {
  switch (depth) {
    case 8: return 4;
    case 16: return 8;
    case 32: return 16;
    default: return 0;
  }
}

void HalfValueRow(int depth, const PF_EffectWorld& input, const PF_EffectWorld& output, A_long row) {
  const int size = PixelSizeOfDepth(depth);
  if (size == 0 || row < 0 || row >= output.height) return;
  auto* dst = static_cast<unsigned char*>(output.data) + static_cast<std::ptrdiff_t>(row) * output.rowbytes;

  // The loops follow the output, but an input smaller than it is read only
  // within its own rows and width (and never past its row size); the rest of
  // the output is written transparent black rather than left as it was.
  A_long covered = 0;
  if (row < input.height && input.data) {
    covered = std::min(output.width, input.width);
    if (input.rowbytes >= 0) covered = std::min<A_long>(covered, input.rowbytes / size);
    covered = std::max<A_long>(covered, 0);
    const auto* src = static_cast<const unsigned char*>(input.data) + static_cast<std::ptrdiff_t>(row) * input.rowbytes;
    switch (depth) {
      case 8: HalfValueSpan<uint8_t>(src, dst, covered); break;
      case 16: HalfValueSpan<uint16_t>(src, dst, covered); break;
      default: HalfValueSpan<float>(src, dst, covered); break;
    }
  }
  if (output.width > covered) std::memset(dst + covered * size, 0, static_cast<size_t>(output.width - covered) * size);
}

void ForEachRowInParallel(A_long rows, unsigned threads, const std::function<void(A_long row)>& rowWork) {
  if (rows <= 0) return;
  // hardware_concurrency() may answer 0 when it cannot tell.
  const A_long bands = std::min<A_long>(rows, static_cast<A_long>(std::clamp<unsigned>(threads, 1u, 1024u)));
  auto runBand = [&](A_long band) {
    const A_long begin = static_cast<A_long>(static_cast<int64_t>(rows) * band / bands);
    const A_long end = static_cast<A_long>(static_cast<int64_t>(rows) * (band + 1) / bands);
    for (A_long r = begin; r < end; ++r) rowWork(r);
  };
  if (bands < 2) {
    runBand(0);
    return;
  }
  // Band 0 runs here; each band writes only its own rows, so no lock.
  std::vector<std::thread> pool;
  pool.reserve(static_cast<size_t>(bands - 1));
  A_long band = 1;
  try {
    for (; band < bands; ++band) pool.emplace_back(runBand, band);
  } catch (const std::system_error&) {
    // No more threads to be had: the bands left run here.
    for (; band < bands; ++band) runBand(band);
  }
  runBand(0);
  for (std::thread& t : pool) t.join();
}

PF_Err RenderCPU(PF_InData* in_data, PF_OutData* out_data, PF_EffectWorld* input, PF_EffectWorld* output) {
  if (!input || !output) {
    LOG_ERROR("Input or Output data is unavailable");
    return PF_Err_INTERNAL_STRUCT_DAMAGED;
  }

  // The notice comes on the second software frame without a device, so one
  // frame asked for before the host has set its device up goes by silently.
  GPUStatus& status = GetGPUStatus();
  if (status.softwareRenderSeen) RaiseNotice(in_data, out_data);
  if (status.noDevice) status.softwareRenderSeen = true;

  ScopedSuite<PF_WorldSuite2> worlds(in_data, out_data);
  PF_PixelFormat format = PF_PixelFormat_INVALID;
  PF_Err err = worlds->PF_GetPixelFormat(input, &format);
  if (IsPremiere(in_data)) {
    // Premiere answers the world suite with a generic code; its own format
    // comes from the pixel format suite, and that answer is taken unchecked.
    ScopedSuite<PF_PixelFormatSuite1> pixelFormats(in_data, out_data);
    PF_PixelFormat second = PF_PixelFormat_INVALID;
    pixelFormats->GetPixelFormat(input, &second);
    format = second;
  }

  const int depth = PixelFormatDepth(format, IsPremiere(in_data));
  if (PixelSizeOfDepth(depth) == 0) {
    LOG_ERROR("Wrong bitdepth: ", depth);
    return PF_Err_BAD_CALLBACK_PARAM;
  }

  ForEachRowInParallel(output->height, std::thread::hardware_concurrency(),
                       [&](A_long row) { HalfValueRow(depth, *input, *output, row); });
  return err;
}
