// Renders: one frame through the plain or the smart render commands, and
// several frames from a pool of threads.
#include <exception>
#include <thread>

#include "AeHostInternal.h"

namespace aehost {

namespace {

constexpr PF_ChannelMask kChannelsARGB = 0xF;

}  // namespace

// ---- Rendering ----

RenderResult Impl::RenderOne(A_long time, RenderPath path) {
  RenderJob job;
  job.id = nextRenderId++;
  job.time = time;
  {
    const std::optional<A_long> key = FrameKeyAt(time);
    std::lock_guard<std::mutex> lock(framesMutex);
    if (frames.empty()) throw HostError("the input layer has no frames");
    const auto& frame = key ? frames.at(*key) : frames.begin()->second;
    job.width = frame->width;
    job.height = frame->height;
  }
  // Booked frames may be evicted again once the render is over, however it ends.
  struct Unpinner {
    Impl& host;
    RenderJob& job;
    ~Unpinner() {
      for (const auto& [idx, b] : job.bookings)
        if (b.rec.hasFrame) host.Unpin(b.rec.frameTime);
    }
  } unpin{*this, job};
  RenderResult r;
  r.renderId = job.id;
  r.time = time;

  const bool smart = (globalOutFlags2 & PF_OutFlag2_SUPPORTS_SMART_RENDER) != 0;
  if (path == RenderPath::Render || (path == RenderPath::Auto && !smart)) {
    // The plain render: the input layer's pixels come as parameter 0.
    std::shared_ptr<WorldRecord> input;
    bool uploaded = false;
    if (const auto key = FrameKeyAt(time)) input = CachedWorld(false, *key, FrameByKey(*key), &uploaded);
    auto output = NewWorld(false, job.width, job.height, SoftwareFormat(), true, false);
    auto defs = ParamArray(input ? &input->world : nullptr);
    auto ptrs = Pointers(defs);
    r.result = Send(PF_Cmd_RENDER, time, nullptr, &job, ptrs.data(), &output->world, &r.render);
    r.hasOutput = true;
    r.output = DownloadImage(*output);
    return r;
  }
  if (path == RenderPath::SmartGPU && deviceKind == GpuKind::None)
    throw HostError("a GPU render needs a device set up");
  const bool deviceOffered = path == RenderPath::SmartGPU || (path == RenderPath::Auto && gpuReady);
  if (deviceOffered) SelectDeviceOnThisThread();

  PF_PreRenderInput preIn{};
  preIn.output_request.rect = PF_LRect{0, 0, job.width, job.height};
  preIn.output_request.channel_mask = kChannelsARGB;
  preIn.bitdepth = 32;
  if (deviceOffered) {
    preIn.gpu_data = gpuData;
    preIn.what_gpu = whatGpu;
  }
  PF_PreRenderOutput preOut{};
  PF_PreRenderExtra preExtra{&preIn, &preOut, &kPreRenderCallbacks};
  auto defs = ParamArray(nullptr);
  auto ptrs = Pointers(defs);
  PF_Err err = Send(PF_Cmd_SMART_PRE_RENDER, time, &preExtra, &job, ptrs.data(), nullptr, &r.preRender);
  r.resultRect = preOut.result_rect;
  r.maxResultRect = preOut.max_result_rect;
  r.outputFlags = preOut.flags;

  if (!err) {
    job.gpu = path == RenderPath::SmartGPU ||
              (deviceOffered && (preOut.flags & PF_RenderOutputFlag_GPU_RENDER_POSSIBLE) != 0);
    PF_SmartRenderInput in{};
    in.output_request = preIn.output_request;
    in.bitdepth = 32;
    in.pre_render_data = preOut.pre_render_data;
    if (job.gpu) {
      in.gpu_data = gpuData;
      in.what_gpu = whatGpu;
    }
    PF_SmartRenderExtra extra{&in, &kSmartRenderCallbacks};
    err = Send(job.gpu ? PF_Cmd_SMART_RENDER_GPU : PF_Cmd_SMART_RENDER, time, &extra, &job, ptrs.data(), nullptr,
               &r.render);
  }
  // The host frees the effect's pre-render data once it is done with it.
  if (preOut.delete_pre_render_data_func) {
    CommandContext ctx;
    ctx.host = this;
    ctx.job = &job;
    {
      ContextScope scope(&ctx);
      preOut.delete_pre_render_data_func(preOut.pre_render_data);
    }
    r.preRenderDataDeleted = true;
    Record(CallRecord::Kind::EffectCall, "", "delete_pre_render_data_func",
           Args("data=", preOut.pre_render_data ? "set" : "null"), 0, job.id);
  }
  r.result = err;
  if (job.output) {
    r.hasOutput = true;
    r.output = DownloadImage(*job.output);
  }
  for (auto& [idx, b] : job.bookings) {
    r.checkouts.push_back(b.rec);
    if (b.rec.pixelCheckouts > b.rec.checkins) ++r.worldsNotCheckedIn;
  }
  r.uploads = job.uploads;
  std::vector<std::shared_ptr<WorldRecord>> left;
  {
    std::lock_guard<std::mutex> lock(worldsMutex);
    for (auto it = effectWorlds.begin(); it != effectWorlds.end();) {
      if (it->second->renderId == job.id) {
        left.push_back(it->second);
        it = effectWorlds.erase(it);
      } else {
        ++it;
      }
    }
  }
  r.effectWorldsLeft = left.size();
  return r;
}

RenderResult AeHost::Render(A_long time, RenderPath path) { return impl_->RenderOne(time, path); }

std::vector<RenderResult> AeHost::RenderMany(const std::vector<A_long>& times, int threads, RenderPath path) {
  std::vector<RenderResult> results(times.size());
  std::atomic<size_t> next{0};
  std::exception_ptr failure;
  std::mutex failureMutex;
  auto work = [&] {
    for (size_t i = next++; i < times.size(); i = next++) {
      try {
        results[i] = impl_->RenderOne(times[i], path);
      } catch (...) {
        std::lock_guard<std::mutex> lock(failureMutex);
        if (!failure) failure = std::current_exception();
      }
    }
  };
  std::vector<std::thread> pool;
  const size_t n = std::min(times.size(), static_cast<size_t>(threads > 1 ? threads : 1));
  for (size_t t = 0; t < n; ++t) pool.emplace_back(work);
  for (auto& t : pool) t.join();
  if (failure) std::rethrow_exception(failure);
  return results;
}

}  // namespace aehost
