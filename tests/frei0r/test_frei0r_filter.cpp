// The built frei0r filter through its entry points, as a host calls them.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" {
#include "frei0r.h"
}

namespace {

struct Filter {
  void* so = dlopen(TD_FREI0R_FILTER, RTLD_NOW | RTLD_LOCAL);
  template <typename F>
  F Get(const char* name) {
    return reinterpret_cast<F>(dlsym(so, name));
  }
  ~Filter() {
    if (so) dlclose(so);
  }
};

constexpr unsigned kW = 40, kH = 24;

std::vector<uint32_t> Frame(int k) {
  std::vector<uint32_t> f(kW * kH);
  for (size_t i = 0; i < f.size(); ++i) f[i] = static_cast<uint32_t>((i * 2654435761u) ^ (k * 97u + i * k));
  return f;
}

// Switching to a mode that reads float frames midway converts the frames
// already held, exactly: the picture is the one an instance in that mode
// from the start gives.
TEST(Frei0rFilter, AModeChangeKeepsTheHistoryExact) {
  setenv("POCL_CACHE_DIR", TD_POCL_CACHE_DIR, 0);
  Filter f;
  ASSERT_NE(f.so, nullptr) << dlerror();
  ASSERT_EQ(f.Get<int (*)()>("f0r_init")(), 1);
  auto construct = f.Get<f0r_instance_t (*)(unsigned, unsigned)>("f0r_construct");
  auto destruct = f.Get<void (*)(f0r_instance_t)>("f0r_destruct");
  auto update = f.Get<void (*)(f0r_instance_t, double, const uint32_t*, uint32_t*)>("f0r_update");
  auto set = f.Get<void (*)(f0r_instance_t, f0r_param_t, int)>("f0r_set_param_value");
  auto info = f.Get<void (*)(f0r_param_info_t*, int)>("f0r_get_param_info");
  int motion = -1;
  for (int i = 0; i < 16 && motion < 0; ++i) {
    f0r_param_info_t p{};
    info(&p, i);
    if (p.name && std::string(p.name) == "Motion Amplification") motion = i;
  }
  ASSERT_GE(motion, 0);
  double on = 1.0, off = 0.0;

  f0r_instance_t switched = construct(kW, kH), steady = construct(kW, kH);
  set(steady, &on, motion);
  set(switched, &off, motion);
  std::vector<uint32_t> a(kW * kH), b(kW * kH), first(kW * kH);
  for (int k = 0; k < 12; ++k) {
    if (k == 8) set(switched, &on, motion);
    const std::vector<uint32_t> in = Frame(k);
    update(switched, k / 25.0, in.data(), a.data());
    update(steady, k / 25.0, in.data(), b.data());
    if (k == 7) first = a;
    if (k >= 8) EXPECT_EQ(a, b) << "frame " << k;
  }
  EXPECT_NE(first, b);  // the switch changes the picture
  set(switched, &off, motion);  // and back: floats become the bytes they came from
  update(switched, 12 / 25.0, Frame(12).data(), a.data());
  f0r_instance_t fresh = construct(kW, kH);
  for (int k = 0; k <= 12; ++k) update(fresh, k / 25.0, Frame(k).data(), b.data());
  EXPECT_EQ(a, b);
  destruct(switched);
  destruct(steady);
  destruct(fresh);
}

}  // namespace
