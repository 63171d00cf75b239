// Renders: one frame through the plain or the smart render commands, and
// several frames from a pool of threads.
#include <exception>
#include <thread>

#include "AeHostInternal.h"

namespace aehost {

namespace {

constexpr PF_ChannelMask kChannelsARGB = 0xF;

// The size of the frame at `time`, else of the first frame: a time outside the
// clip still renders, at the layer's size.
void SizeJob(const Impl& h, RenderJob& job) {
  const std::optional<A_long> key = h.FrameKeyAt(job.time);
  std::lock_guard<std::mutex> lock(h.framesMutex);
  if (h.frames.empty()) throw HostError("the input layer has no frames");
  const auto& frame = key ? h.frames.at(*key) : h.frames.begin()->second;
  job.width = frame->width;
  job.height = frame->height;
}

// The plain render: the input layer's pixels come as parameter 0.
void RenderPlain(Impl& h, RenderJob& job, RenderResult& r) {
  std::shared_ptr<WorldRecord> input;
  bool uploaded = false;
  if (const auto key = h.FrameKeyAt(job.time)) input = h.CachedWorld(false, *key, h.FrameByKey(*key), &uploaded);
  auto output = h.NewWorld(false, job.width, job.height, h.SoftwareFormat(), true, false);
  auto defs = h.ParamArray(input ? &input->world : nullptr);
  auto ptrs = Pointers(defs);
  r.result = h.Send(PF_Cmd_RENDER, job.time, nullptr, &job, ptrs.data(), &output->world, &r.render);
  r.hasOutput = true;
  r.output = h.DownloadImage(*output);
}

PF_Err PreRender(Impl& h, RenderJob& job, bool deviceOffered, PF_ParamDef** params, PF_PreRenderInput& in,
                 PF_PreRenderOutput& out, RenderResult& r) {
  in.output_request.rect = PF_LRect{0, 0, job.width, job.height};
  in.output_request.channel_mask = kChannelsARGB;
  in.bitdepth = 32;
  if (deviceOffered) {
    in.gpu_data = h.gpuData;
    in.what_gpu = h.whatGpu;
  }
  PF_PreRenderExtra extra{&in, &out, &kPreRenderCallbacks};
  const PF_Err err = h.Send(PF_Cmd_SMART_PRE_RENDER, job.time, &extra, &job, params, nullptr, &r.preRender);
  r.resultRect = out.result_rect;
  r.maxResultRect = out.max_result_rect;
  r.outputFlags = out.flags;
  return err;
}

// On the GPU when asked for, or when the device was offered and pre-render said it can.
PF_Err SmartRender(Impl& h, RenderJob& job, RenderPath path, bool deviceOffered, PF_ParamDef** params,
                   const PF_PreRenderInput& preIn, const PF_PreRenderOutput& preOut, RenderResult& r) {
  job.gpu =
      path == RenderPath::SmartGPU || (deviceOffered && (preOut.flags & PF_RenderOutputFlag_GPU_RENDER_POSSIBLE) != 0);
  PF_SmartRenderInput in{};
  in.output_request = preIn.output_request;
  in.bitdepth = 32;
  in.pre_render_data = preOut.pre_render_data;
  if (job.gpu) {
    in.gpu_data = h.gpuData;
    in.what_gpu = h.whatGpu;
  }
  PF_SmartRenderExtra extra{&in, &kSmartRenderCallbacks};
  return h.Send(job.gpu ? PF_Cmd_SMART_RENDER_GPU : PF_Cmd_SMART_RENDER, job.time, &extra, &job, params, nullptr,
                &r.render);
}

// The host frees the effect's pre-render data once it is done with it.
void DeletePreRenderData(Impl& h, RenderJob& job, const PF_PreRenderOutput& preOut, RenderResult& r) {
  if (!preOut.delete_pre_render_data_func) return;
  CommandContext ctx;
  ctx.host = &h;
  ctx.job = &job;
  {
    ContextScope scope(&ctx);
    preOut.delete_pre_render_data_func(preOut.pre_render_data);
  }
  r.preRenderDataDeleted = true;
  h.Record(CallRecord::Kind::EffectCall, "", "delete_pre_render_data_func",
           Args("data=", preOut.pre_render_data ? "set" : "null"), 0, job.id);
}

// The output, the checkouts, and the GPU worlds the effect left behind, which
// the host takes back.
void CollectResult(Impl& h, const RenderJob& job, RenderResult& r) {
  if (job.output) {
    r.hasOutput = true;
    r.output = h.DownloadImage(*job.output);
  }
  for (const auto& [idx, b] : job.bookings) {
    r.checkouts.push_back(b.rec);
    if (b.rec.pixelCheckouts > b.rec.checkins) ++r.worldsNotCheckedIn;
  }
  r.uploads = job.uploads;
  std::vector<std::shared_ptr<WorldRecord>> left;
  {
    std::lock_guard<std::mutex> lock(h.worldsMutex);
    for (auto it = h.effectWorlds.begin(); it != h.effectWorlds.end();) {
      if (it->second->renderId == job.id) {
        left.push_back(it->second);
        it = h.effectWorlds.erase(it);
      } else {
        ++it;
      }
    }
  }
  r.effectWorldsLeft = left.size();
}

}  // namespace

RenderResult Impl::RenderOne(A_long time, RenderPath path) {
  RenderJob job;
  job.id = nextRenderId++;
  job.time = time;
  SizeJob(*this, job);
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
    RenderPlain(*this, job, r);
    return r;
  }
  if (path == RenderPath::SmartGPU && !device.kind) throw HostError("a GPU render needs a device set up");
  const bool deviceOffered = path == RenderPath::SmartGPU || (path == RenderPath::Auto && gpuReady);
  if (deviceOffered) SelectDeviceOnThisThread();

  // Pre-render and render see the same parameter values.
  auto defs = ParamArray(nullptr);
  auto ptrs = Pointers(defs);
  PF_PreRenderInput preIn{};
  PF_PreRenderOutput preOut{};
  PF_Err err = PreRender(*this, job, deviceOffered, ptrs.data(), preIn, preOut, r);
  if (!err) err = SmartRender(*this, job, path, deviceOffered, ptrs.data(), preIn, preOut, r);
  DeletePreRenderData(*this, job, preOut, r);
  r.result = err;
  CollectResult(*this, job, r);
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
