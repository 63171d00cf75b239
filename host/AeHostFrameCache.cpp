// The upload cache: each frame of the input layer goes to the device (or is
// converted for software) once, and stays while renders book it.
#include "AeHostInternal.h"

namespace aehost {

std::shared_ptr<WorldRecord> Impl::CachedWorld(bool gpu, A_long key, const std::shared_ptr<const Image>& frame,
                                               bool* uploaded) {
  std::lock_guard<std::mutex> lock(cacheMutex);
  *uploaded = false;
  auto& cache = gpu ? gpuCache : softCache;
  auto it = cache.find(key);
  if (it != cache.end()) {
    it->second.lastUse = ++cacheClock;
    return it->second.world;
  }
  auto world =
      NewWorld(gpu, frame->width, frame->height, gpu ? PF_PixelFormat_GPU_BGRA128 : SoftwareFormat(), false, false);
  UploadImage(*world, *frame);
  if (gpu) {
    ++uploads;
    *uploaded = true;
  }
  cache[key] = CacheEntry{world, ++cacheClock};
  // Over the limit: drop the least recently used frames that no render has
  // booked or holds. Renders fetch their stack newest first, so recency alone
  // would drop the frames the render under way asks for next.
  while (options.frameCacheLimit && cache.size() > options.frameCacheLimit) {
    auto victim = cache.end();
    for (auto c = cache.begin(); c != cache.end(); ++c)
      if (c->first != key && c->second.world.use_count() == 1 && !pinned.count(c->first) &&
          (victim == cache.end() || c->second.lastUse < victim->second.lastUse))
        victim = c;
    if (victim == cache.end()) break;
    cache.erase(victim);
  }
  return world;
}

void Impl::Pin(A_long key) {
  std::lock_guard<std::mutex> lock(cacheMutex);
  pinned.insert(key);
}

void Impl::Unpin(A_long key) {
  std::lock_guard<std::mutex> lock(cacheMutex);
  auto it = pinned.find(key);
  if (it != pinned.end()) pinned.erase(it);
}

void Impl::DropCached(A_long key) {
  std::lock_guard<std::mutex> lock(cacheMutex);
  gpuCache.erase(key);
  softCache.erase(key);
}

// ---- Cache, resources, log, injection ----

size_t AeHost::UploadCount() const { return impl_->uploads; }
void AeHost::ResetUploadCount() { impl_->uploads = 0; }

void AeHost::ClearFrameCache() {
  std::lock_guard<std::mutex> lock(impl_->cacheMutex);
  impl_->gpuCache.clear();
  impl_->softCache.clear();
}

}  // namespace aehost
