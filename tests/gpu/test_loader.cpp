// The driver loader against a stand-in driver (fake_cuda.cpp), on any
// machine.  Each case loads its own copy of the library from a folder of
// its own, with the side file the case needs beside it: a copy is a new
// instance with its own once-only set-up, so every case starts afresh.
// This program does not link the library, so that no instance in the
// global scope takes the copies' calls to their own exported functions.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "api/nuvrix.h"
#include "gpu/cuda_loader.hpp"
#include "gpu/gpu_jacobian.hpp"
#include "kernels/de_bodies.cuh"
#include "first_order/aim_robust.hpp"
#include "first_order/semi_diameter.hpp"
#include "merit/dual_launch.hpp"
#include "merit/merit_context.hpp"
#include "merit/variable_transform.hpp"
#include "tests/systems.hpp"
#include "trace/front_ends.hpp"

#ifndef NUVRIX_LIBRARY_FILE
#error "NUVRIX_LIBRARY_FILE names the built library"
#endif

namespace {

// The seventeen kernels of the side file, the first ten required.
std::vector<std::string> all_kernels() {
  return {"nuvrix_smoke_kernel",           "nuvrix_efl_jacobian_kernel",
          "nuvrix_ry_jacobian_kernel",     "nuvrix_spot_jacobian_kernel",
          "nuvrix_opd_jacobian_kernel",    "nuvrix_sd_jacobian_kernel",
          "nuvrix_ry_batched_jacobian_kernel", "nuvrix_efl_value_kernel",
          "nuvrix_ry_value_kernel",        "nuvrix_merit_value_kernel",
          "nuvrix_merit_value_kernel_f32", "nuvrix_merit_value_kernel_soa",
          "nuvrix_trace_microbench_f32",   "nuvrix_trace_microbench_f64",
          "nuvrix_de_vary_kernel",         "nuvrix_de_select_kernel",
          "nuvrix_trace_grid_kernel"};
}

// A library copy with a side file listing `kernels` (none: no side file;
// an empty list: an empty file), under the failure `mode` of the fake.
struct Copy {
  void* lib = nullptr;
  std::string dir;
  Copy(char const* mode, std::vector<std::string> const* kernels) {
    setenv("FAKE_CUDA", mode, 1);
    char templ[] = "/tmp/nuvrix_loader_XXXXXX";
    dir = mkdtemp(templ);
    std::string const copy = dir + "/libnuvrix_native.so";
    {
      std::ifstream in(NUVRIX_LIBRARY_FILE, std::ios::binary);
      std::ofstream out(copy, std::ios::binary);
      out << in.rdbuf();
    }
    if (kernels != nullptr) {
      std::ofstream side(dir + "/nuvrix_kernel.fatbin", std::ios::binary);
      std::string text;
      for (std::string const& k : *kernels) text += k + "\n";
      if (!text.empty()) side.write(text.c_str(), static_cast<std::streamsize>(text.size() + 1));
    }
    lib = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  }
  ~Copy() {
    std::string const cmd = "rm -rf " + dir;
    (void)std::system(cmd.c_str());
  }
  template <typename F>
  F fn(char const* name) const {
    return reinterpret_cast<F>(dlsym(lib, name));
  }
  int init() const { return fn<int32_t (*)()>("nuvrix_gpu_init")(); }
  nuvrix::gpu::GpuState& state() const {
    return fn<nuvrix::gpu::GpuState& (*)()>("_ZN6nuvrix3gpu5stateEv")();
  }
};

int outstanding() {
  void* fake = dlopen("libcuda.so", RTLD_NOW | RTLD_NOLOAD);
  auto f = reinterpret_cast<int (*)()>(dlsym(fake, "fake_cuda_outstanding"));
  return f == nullptr ? -1 : f();
}

using Smoke = int (*)(double const*, double const*, double*, double*, double*, int);
constexpr char kSmoke[] = "_ZN6nuvrix3gpu14cuda_run_smokeEPKdS2_PdS3_S3_i";

}  // namespace

TEST(GpuLoader, SetUpStatusFollowsWhatIsMissing) {
  std::vector<std::string> const all = all_kernels();
  std::vector<std::string> const empty;
  std::vector<std::string> no_merit, no_grid;
  for (std::string const& k : all) {
    if (k != "nuvrix_merit_value_kernel") no_merit.push_back(k);
    if (k != "nuvrix_trace_grid_kernel") no_grid.push_back(k);
  }
  struct Case {
    char const* what;
    char const* mode;
    std::vector<std::string> const* kernels;
    int want;
  } const cases[] = {
      {"a driver without a device is no driver", "nodevice", &all, 1},
      {"no context", "noctx", &all, 3},
      {"no side file", "", nullptr, 4},
      {"an empty side file", "", &empty, 4},
      {"a required kernel missing", "", &no_merit, 4},
      {"an optional kernel missing", "", &no_grid, 0},
      {"everything there", "", &all, 0},
  };
  for (Case const& c : cases) {
    Copy copy(c.mode, c.kernels);
    ASSERT_NE(copy.lib, nullptr) << c.what;
    EXPECT_EQ(copy.init(), c.want) << c.what;
    EXPECT_EQ(copy.init(), c.want) << c.what << ": the outcome stays";
    GpuQueryResult const q = copy.fn<GpuQueryResult (*)()>("nuvrix_gpu_query")();
    EXPECT_EQ(q.available, c.want == 0 ? 1 : 0) << c.what;
    if (c.want == 0) {
      EXPECT_EQ(q.multiprocessor_count, 132);
      EXPECT_EQ(q.max_threads_per_block, 1024);
      EXPECT_EQ(q.compute_major * 10 + q.compute_minor, 90);
      // Occupancy of the stand-in: 8 blocks of 64 on each of 132 multiprocessors.
      EXPECT_EQ(copy.fn<int32_t (*)()>("nuvrix_gpu_merit_value_fill_count")(), 132 * 8 * 64);
      nuvrix::gpu::GpuState& s = copy.state();
      EXPECT_NE(s.merit_value, nullptr);
      EXPECT_EQ(s.trace_grid == nullptr, c.kernels == &no_grid) << c.what;
    } else {
      EXPECT_EQ(q.warp_size, 0);
      EXPECT_EQ(copy.fn<int32_t (*)()>("nuvrix_gpu_merit_value_fill_count")(), 0);
    }
  }
}

TEST(GpuLoader, MemoryAndSmokeRoundTrip) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  auto alloc = copy.fn<int32_t (*)(long, void**)>("nuvrix_gpu_alloc_device");
  auto htod = copy.fn<int32_t (*)(void*, void const*, long)>("nuvrix_gpu_htod_device");
  auto dtoh = copy.fn<int32_t (*)(void*, void const*, long)>("nuvrix_gpu_dtoh_device");
  auto release = copy.fn<int32_t (*)(void*)>("nuvrix_gpu_free_device");
  void* d = reinterpret_cast<void*>(1);
  EXPECT_EQ(alloc(0, &d), 0);
  EXPECT_EQ(d, nullptr);
  EXPECT_EQ(alloc(8, nullptr), -3);
  ASSERT_EQ(alloc(24, &d), 0);
  double const up[3] = {1.5, -2.0, 1e300};
  double down[3] = {0.0, 0.0, 0.0};
  EXPECT_EQ(htod(d, up, 24), 0);
  EXPECT_EQ(htod(d, nullptr, 24), -4);
  EXPECT_EQ(dtoh(down, d, 0), 0);
  EXPECT_EQ(dtoh(down, d, 24), 0);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(down[k], up[k]);
  EXPECT_EQ(release(d), 0);
  EXPECT_EQ(outstanding(), 0);
  // The smoke kernel over 300 elements: two blocks of 256 threads.
  int const n = 300;
  std::vector<double> a(n), b(n), o0(n), o1(n), o2(n);
  for (int i = 0; i < n; ++i) a[i] = 0.25 * i - 3.0, b[i] = 1.0 / (i + 1);
  Smoke const smoke = copy.fn<Smoke>(kSmoke);
  ASSERT_EQ(smoke(a.data(), b.data(), o0.data(), o1.data(), o2.data(), n), 0);
  for (int i = 0; i < n; ++i) {
    ASSERT_EQ(o0[i], a[i] + b[i]);
    ASSERT_EQ(o1[i], a[i] * b[i]);
    ASSERT_EQ(o2[i], std::sqrt(a[i] * a[i] + b[i] * b[i]));
  }
  EXPECT_EQ(smoke(a.data(), b.data(), o0.data(), o1.data(), o2.data(), 0), 0);
  EXPECT_EQ(smoke(nullptr, b.data(), o0.data(), o1.data(), o2.data(), n), -3);
  EXPECT_EQ(outstanding(), 0);
}

// A failing driver call: its code, the error's name, and nothing left
// allocated on the device.
TEST(GpuLoader, DriverFailuresBecomeCodes) {
  std::vector<std::string> const all = all_kernels();
  struct Case {
    char const* mode;
    int want, cu_error;
  } const cases[] = {{"allocfail", -3, 2}, {"launchfail", -5, 700}, {"syncfail", -6, 999}};
  double a[4] = {1, 2, 3, 4}, o[4];
  for (Case const& c : cases) {
    Copy copy(c.mode, &all);
    ASSERT_EQ(copy.init(), 0) << c.mode;
    EXPECT_EQ(copy.fn<Smoke>(kSmoke)(a, a, o, o, o, 4), c.want) << c.mode;
    EXPECT_EQ(copy.fn<int32_t (*)()>("nuvrix_gpu_last_cuda_error")(), c.cu_error) << c.mode;
    auto name = copy.fn<char const* (*)(int)>("_ZN6nuvrix3gpu15cuda_error_nameEi");
    EXPECT_EQ(std::string(name(c.cu_error)), "CUDA_ERROR_FAKE_" + std::to_string(c.cu_error));
    EXPECT_EQ(outstanding(), 0) << c.mode;
  }
}

// The EFL population: each candidate's value, from the kernel body that the
// stand-in runs, equals the CPU's focal length of that candidate.
TEST(GpuLoader, EflPopulationMatchesTheCpu) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  nuvrix_test::System const base = nuvrix_test::cooke_triplet();
  int const n = base.count(), waves = 3, population = 300;  // two blocks of 256
  // Two glasses at three wavelengths; air behind the other surfaces.
  std::vector<double> const catalog = {1.6262, 1.6204, 1.6180, 1.6321, 1.6200, 1.6150};
  std::vector<int> ids = {-1, 0, -1, 1, -1, 0, -1, -1};
  std::vector<double> curv(static_cast<size_t>(n) * population), thick(curv.size());
  for (int i = 0; i < population; ++i) {
    for (int k = 0; k < n; ++k) {
      curv[i * n + k] = base.surfaces[k].curvature * (1.0 + 1e-3 * ((i * 7 + k) % 11 - 5));
      thick[i * n + k] = base.surfaces[k].thickness;
    }
  }
  auto alloc = copy.fn<int32_t (*)(long, void**)>("nuvrix_gpu_alloc_device");
  auto htod = copy.fn<int32_t (*)(void*, void const*, long)>("nuvrix_gpu_htod_device");
  auto release = copy.fn<int32_t (*)(void*)>("nuvrix_gpu_free_device");
  auto size = copy.fn<long (*)(int, int)>("_ZN6nuvrix3gpu27cuda_efl_value_scratch_sizeEii");
  using Run = int (*)(SurfaceData const*, int, double const*, int, int, int, int const*,
                      double const*, double const*, double*, int, void*, long);
  Run const run = copy.fn<Run>("_ZN6nuvrix3gpu18cuda_run_efl_valueEPK11SurfaceDataiPKdiiiPKiS5_S5_PdiPvl");
  auto efl = copy.fn<double (*)(SurfaceData const*, int32_t, double const*)>("nuvrix_calculate_efl");
  void *d_catalog = nullptr, *scratch = nullptr;
  long const bytes = size(population, n);
  ASSERT_EQ(alloc(8 * static_cast<long>(catalog.size()), &d_catalog), 0);
  ASSERT_EQ(htod(d_catalog, catalog.data(), 8 * static_cast<long>(catalog.size())), 0);
  ASSERT_EQ(alloc(bytes, &scratch), 0);
  auto const* cat = static_cast<double const*>(d_catalog);
  std::vector<double> results(population, -1.0);
  for (int w : {0, 2}) {
    ASSERT_EQ(run(base.surfaces.data(), n, cat, 2, waves, w, ids.data(), curv.data(),
                  thick.data(), results.data(), population, scratch, bytes),
              0);
    for (int i = 0; i < population; ++i) {
      std::vector<SurfaceData> s = base.surfaces;
      std::vector<double> row(n, 1.0);
      for (int k = 0; k < n; ++k) {
        s[k].curvature = curv[i * n + k];
        if (ids[k] >= 0) row[k] = catalog[ids[k] * waves + w];
      }
      ASSERT_EQ(results[i], efl(s.data(), n, row.data())) << i;
    }
  }
  // The real-ray heights of the same population at a field angle and a
  // field height, and to an inner surface: the y of trace_arbitrary_ray.
  using RunRy = int (*)(SurfaceData const*, int, double const*, int, int, int, int const*, double,
                        double, double, int, double const*, double const*, double const*,
                        double const*, double const*, double*, int, int, void*, long);
  RunRy const run_ry = copy.fn<RunRy>(
      "_ZN6nuvrix3gpu17cuda_run_ry_valueEPK11SurfaceDataiPKdiiiPKidddiS5_S5_S5_S5_S5_PdiiPvl");
  auto trace = copy.fn<RayTraceResult (*)(SurfaceData const*, int32_t, double const*,
                                          SystemConfig const*, int32_t, int32_t, double, double,
                                          double, double, double, double, double)>(
      "nuvrix_trace_arbitrary_ray");
  ASSERT_NE(run_ry, nullptr);
  long const ry_bytes = copy.fn<long (*)(int, int)>(
      "_ZN6nuvrix3gpu26cuda_ry_value_scratch_sizeEii")(population, n);
  void* ry_scratch = nullptr;
  ASSERT_EQ(alloc(ry_bytes, &ry_scratch), 0);
  std::vector<double> conic(curv.size(), -0.2), radii(population), positions(population);
  for (int i = 0; i < population; ++i) radii[i] = 10.0 + 0.01 * i, positions[i] = 11.0 - 0.02 * i;
  struct RyCase {
    double field;
    int field_type, last;
  } const ry_cases[] = {{14.0, 0, 0}, {14.0, 1, 0}, {20.0, 0, 4}};
  for (RyCase const& c : ry_cases) {
    ASSERT_EQ(run_ry(base.surfaces.data(), n, cat, 2, waves, 1, ids.data(), c.field, 0.3, -0.8,
                     c.field_type, curv.data(), thick.data(), conic.data(), radii.data(),
                     positions.data(), results.data(), population, c.last, ry_scratch, ry_bytes),
              0);
    for (int i = 0; i < population; ++i) {
      std::vector<SurfaceData> s = base.surfaces;
      std::vector<double> row(n, 1.0);
      for (int k = 0; k < n; ++k) {
        s[k].curvature = curv[i * n + k];
        s[k].conic = -0.2;
        if (ids[k] >= 0) row[k] = catalog[ids[k] * waves + 1];
      }
      SystemConfig cfg = {};
      cfg.field_type = c.field_type;
      RayTraceResult const r = trace(s.data(), n, row.data(), &cfg, 0, c.last, c.field, radii[i],
                                     0.3, -0.8, 0.0, positions[i], 0.0);
      ASSERT_TRUE(r.valid) << i;
      ASSERT_EQ(results[i], r.y) << i;
    }
  }
  EXPECT_EQ(release(ry_scratch), 0);
  // The checks in their order: sizes, an empty population, pointers and
  // scratch, a glass beyond the catalogue.
  double* out = results.data();
  EXPECT_EQ(run(base.surfaces.data(), n, cat, 2, waves, 3, ids.data(), curv.data(), thick.data(),
                out, population, scratch, bytes), -8);
  EXPECT_EQ(run(base.surfaces.data(), n, cat, 2, waves, 0, ids.data(), curv.data(), thick.data(),
                out, 0, nullptr, 0), 0);
  EXPECT_EQ(run(base.surfaces.data(), n, cat, 2, waves, 0, ids.data(), curv.data(), thick.data(),
                out, population, scratch, bytes - 1), -3);
  ids[3] = 2;
  EXPECT_EQ(run(base.surfaces.data(), n, cat, 2, waves, 0, ids.data(), curv.data(), thick.data(),
                out, population, scratch, bytes), -8);
  EXPECT_EQ(release(scratch), 0);
  EXPECT_EQ(release(d_catalog), 0);
  EXPECT_EQ(outstanding(), 0);
}

namespace {

// A population of the Cooke triplet for the merit kernels: every
// candidate's curvatures, thicknesses and conics perturbed, and its two
// crowns and flint drawn from a catalogue of three glasses at the F, d and
// C lines.
struct MeritPopulation {
  nuvrix_test::System base = nuvrix_test::cooke_triplet();
  int n = base.count(), waves = 3, population = 100;  // two blocks of 64
  std::vector<double> wavelengths = {0.4861, 0.5876, 0.6563};
  std::vector<double> catalog = {1.6321, 1.6204, 1.6150, 1.6280, 1.6170, 1.6120,
                                 1.6321, 1.6170, 1.6075};
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {14.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  SystemConfig config = {};
  std::vector<MeritOperandDesc> ops;
  std::vector<int> ids;
  std::vector<double> curv, thick, conic;
  MeritPopulation() {
    config.stop_surface = nuvrix_test::kCookeStop;
    config.aperture_value = 12.5;
    config.primary_wavelength = 1;
    struct Op {
      unsigned code;
      double hy, px, py;
      int wave, surface;
    } const list[] = {{71, 1.0, 0.0, 0.7, 1, 0}, {70, 0.7, 0.5, 0.0, 0, 0},
                      {50, 0.0, 0.0, 0.0, 1, 0}, {69, 1.0, 0.0, 1.0, 2, 0},
                      {74, 0.7, 0.0, 1.0, -1, 2}, {73, 1.0, 0.0, -0.7, 1, 0}};
    for (Op const& o : list) {
      MeritOperandDesc op = {};
      op.type = o.code, op.hy = o.hy, op.px = o.px, op.py = o.py, op.wave = o.wave;
      op.surface = o.surface, op.group_id = -1, op.weight = 1.0, op.scale = 1.0;
      op.target = o.code == 50 ? 50.0 : 0.0;
      ops.push_back(op);
    }
    for (int i = 0; i < population; ++i) {
      int const glass[3] = {i % 3, (i + 1) % 3, (i / 3) % 3};
      for (int k = 0; k < n; ++k) {
        SurfaceData const& s = base.surfaces[k];
        double const t = 1e-3 * ((i * 7 + k) % 11 - 5);
        curv.push_back(s.curvature * (1.0 + t));
        thick.push_back(k == 0 ? s.thickness : s.thickness * (1.0 - t / 3.0));
        conic.push_back(k % 2 == 0 ? t : 0.0);
        ids.push_back(k == 1 ? glass[0] : k == 3 ? glass[2] : k == 5 ? glass[1] : -1);
      }
    }
  }
  // Candidate i as the CPU sees it: its surfaces and index rows.
  void candidate(int i, bool as_float, std::vector<SurfaceData>& s, std::vector<double>& rows) {
    auto r = [&](double v) { return as_float ? static_cast<double>(static_cast<float>(v)) : v; };
    s = base.surfaces;
    rows.assign(static_cast<size_t>(waves) * n, 1.0);
    for (int k = 0; k < n; ++k) {
      s[k].curvature = r(curv[i * n + k]);
      s[k].thickness = r(thick[i * n + k]);
      s[k].conic = r(conic[i * n + k]);
      int const g = ids[i * n + k];
      for (int w = 0; w < waves && g >= 0; ++w) rows[w * n + k] = catalog[g * waves + w];
    }
  }
};

using MeritRun = int (*)(SurfaceData const*, int, double const*, int, int, int const*,
                         double const*, SystemConfig const*, FieldData const*, int,
                         MeritOperandDesc const*, int, double const*, double const*,
                         double const*, double*, int, void*, long, MeritResult*, int, int, int);
constexpr char kRunMerit[] =
    "_ZN6nuvrix3gpu20cuda_run_merit_valueEPK11SurfaceDataiPKdiiPKiS5_PK12SystemConfigPK9FieldData"
    "iPK16MeritOperandDesciS5_S5_S5_PdiPvlP11MeritResultiii";

}  // namespace

// Each candidate's merit and operand results from the merit kernel's body
// equal evaluate_merit on that candidate; the surface-major form gives the
// same bits, the float form those of the candidate rounded to floats, and
// a form missing from the side file falls back to the plain kernel.
TEST(GpuLoader, MeritPopulationMatchesTheCpu) {
  std::vector<std::string> const all = all_kernels();
  std::vector<std::string> no_forms;
  for (std::string const& k : all) {
    if (k.find("merit_value_kernel_") == std::string::npos) no_forms.push_back(k);
  }
  MeritPopulation m;
  int const P = m.population, n = m.n, O = static_cast<int>(m.ops.size()), F = 3;
  for (std::vector<std::string> const* kernels : {&all, static_cast<decltype(&all)>(&no_forms)}) {
    Copy copy("", kernels);
    ASSERT_EQ(copy.init(), 0);
    auto alloc = copy.fn<int32_t (*)(long, void**)>("nuvrix_gpu_alloc_device");
    auto htod = copy.fn<int32_t (*)(void*, void const*, long)>("nuvrix_gpu_htod_device");
    auto release = copy.fn<int32_t (*)(void*)>("nuvrix_gpu_free_device");
    auto size = copy.fn<long (*)(int, int, int, int, int)>("nuvrix_gpu_merit_value_scratch_size");
    auto evaluate = copy.fn<int32_t (*)(SurfaceData const*, int32_t, double const*, double const*,
                                        int32_t, SystemConfig const*, FieldData const*, int32_t,
                                        MeritOperandDesc const*, int32_t, MeritResult*, double*,
                                        int32_t*, double*)>("nuvrix_evaluate_merit");
    auto last_kernel = reinterpret_cast<char const* (*)()>(
        dlsym(dlopen("libcuda.so", RTLD_NOW | RTLD_NOLOAD), "fake_cuda_last_kernel"));
    MeritRun const run = copy.fn<MeritRun>(kRunMerit);
    long const bytes = size(P, n, m.waves, F, O);
    void *d_catalog = nullptr, *scratch = nullptr;
    ASSERT_EQ(alloc(8 * static_cast<long>(m.catalog.size()), &d_catalog), 0);
    ASSERT_EQ(htod(d_catalog, m.catalog.data(), 8 * static_cast<long>(m.catalog.size())), 0);
    ASSERT_EQ(alloc(bytes, &scratch), 0);
    auto const* cat = static_cast<double const*>(d_catalog);
    auto go = [&](int f32, int soa, int reuse, SurfaceData const* surfaces,
                  std::vector<double>& merits, std::vector<MeritResult>* results) {
      merits.assign(P, -1.0);
      return run(surfaces, n, cat, 3, m.waves, m.ids.data(), m.wavelengths.data(), &m.config,
                 m.fields.data(), F, m.ops.data(), O, m.curv.data(), m.thick.data(),
                 m.conic.data(), merits.data(), P, scratch, bytes,
                 results != nullptr ? results->data() : nullptr, reuse, f32, soa);
    };
    std::vector<double> plain, other;
    std::vector<MeritResult> results(static_cast<size_t>(P) * O);
    ASSERT_EQ(go(0, 0, 0, m.base.surfaces.data(), plain, &results), 0);
    EXPECT_STREQ(last_kernel(), "nuvrix_merit_value_kernel");
    for (int i = 0; i < P; ++i) {
      std::vector<SurfaceData> s;
      std::vector<double> rows;
      m.candidate(i, false, s, rows);
      std::vector<MeritResult> want(O);
      std::vector<double> residuals(2 * O);
      int slots = 0;
      double merit = -1.0;
      evaluate(s.data(), n, rows.data(), m.wavelengths.data(), m.waves, &m.config,
               m.fields.data(), F, m.ops.data(), O, want.data(), residuals.data(), &slots,
               &merit);
      ASSERT_EQ(plain[i], merit) << i;
      ASSERT_GT(merit, 0.0);
      for (int k = 0; k < O; ++k) {
        ASSERT_EQ(results[i * O + k].value, want[k].value) << i << " " << k;
        ASSERT_EQ(results[i * O + k].status, want[k].status) << i << " " << k;
      }
    }
    // With the uploads kept, the base surfaces given now are not read.
    std::vector<SurfaceData> junk(n);
    ASSERT_EQ(go(0, 1, 1, junk.data(), other, nullptr), 0);
    EXPECT_STREQ(last_kernel(), kernels == &all ? "nuvrix_merit_value_kernel_soa"
                                                : "nuvrix_merit_value_kernel");
    EXPECT_EQ(other, plain);
    ASSERT_EQ(go(1, 0, 1, junk.data(), other, nullptr), 0);
    if (kernels == &all) {
      for (int i = 0; i < P; i += 9) {
        std::vector<SurfaceData> s;
        std::vector<double> rows;
        m.candidate(i, true, s, rows);
        double merit = -1.0;
        int slots = 0;
        evaluate(s.data(), n, rows.data(), m.wavelengths.data(), m.waves, &m.config,
                 m.fields.data(), F, m.ops.data(), O, results.data(), nullptr, &slots, &merit);
        ASSERT_EQ(other[i], merit) << i;
      }
    } else {
      EXPECT_EQ(other, plain);
    }
    // The checks in their order.
    SurfaceData const* base = m.base.surfaces.data();
    EXPECT_EQ(run(base, n, cat, 3, m.waves, m.ids.data(), m.wavelengths.data(), &m.config,
                  m.fields.data(), 0, m.ops.data(), O, m.curv.data(), m.thick.data(),
                  m.conic.data(), other.data(), P, scratch, bytes, nullptr, 0, 0, 0), -8);
    EXPECT_EQ(run(base, n, cat, 3, m.waves, m.ids.data(), m.wavelengths.data(), &m.config,
                  m.fields.data(), F, m.ops.data(), O, m.curv.data(), m.thick.data(),
                  m.conic.data(), other.data(), 0, nullptr, 0, nullptr, 0, 0, 0), 0);
    EXPECT_EQ(run(base, n, nullptr, 3, m.waves, m.ids.data(), m.wavelengths.data(), &m.config,
                  m.fields.data(), F, m.ops.data(), O, m.curv.data(), m.thick.data(),
                  m.conic.data(), other.data(), P, scratch, bytes, nullptr, 0, 0, 0), -3);
    EXPECT_EQ(run(base, n, cat, 3, m.waves, m.ids.data(), m.wavelengths.data(), &m.config,
                  m.fields.data(), F, m.ops.data(), O, m.curv.data(), m.thick.data(),
                  m.conic.data(), other.data(), P, scratch, bytes - 1, nullptr, 0, 0, 0), -3);
    EXPECT_EQ(run(base, n, cat, 2, m.waves, m.ids.data(), m.wavelengths.data(), &m.config,
                  m.fields.data(), F, m.ops.data(), O, m.curv.data(), m.thick.data(),
                  m.conic.data(), other.data(), P, scratch, bytes, nullptr, 0, 0, 0), -8);
    EXPECT_EQ(release(scratch), 0);
    EXPECT_EQ(release(d_catalog), 0);
    EXPECT_EQ(outstanding(), 0);
  }
}

namespace {

// The caller's workspace of gpu_evaluate_merit_value: host arrays of
// `capacity` entries and a device block for that many rays.
struct Workspace {
  std::vector<int32_t> ints[5];
  std::vector<double> doubles[20];
  GpuTraceScratch s = {};
  Workspace(int capacity, void* device, long bytes) {
    for (auto& v : ints) v.assign(capacity, 0);
    for (auto& v : doubles) v.assign(capacity, 0.0);
    int32_t** ip[5] = {&s.field_indices, &s.wave_indices, &s.ray_kinds, &s.surface_indices,
                       &s.valid_flags};
    double** dp[20] = {&s.hy_values, &s.px_values, &s.py_values, &s.x,        &s.y,
                       &s.z,         &s.l,         &s.m,         &s.n,        &s.optical_path,
                       &s.launch_x,  &s.launch_y,  &s.launch_z,  &s.launch_l, &s.launch_m,
                       &s.launch_n,  &s.normal_x,  &s.normal_y,  &s.normal_z, &s.stop_radii};
    for (int k = 0; k < 5; ++k) *ip[k] = ints[k].data();
    for (int k = 0; k < 20; ++k) *dp[k] = doubles[k].data();
    s.capacity = capacity;
    s.device_scratch = device;
    s.device_scratch_bytes = bytes;
  }
};

template <typename F>
F fake(char const* name) {
  return reinterpret_cast<F>(dlsym(dlopen("libcuda.so", RTLD_NOW | RTLD_NOLOAD), name));
}

// The CPU's analytic value and Jacobian row of one operand, with respect to
// curvature variables, on the surfaces s: false when the call fails.
bool cpu_row(Copy const& copy, std::vector<SurfaceData> const& s, double const* table,
             double const* waves, int wave_count, SystemConfig const& config,
             std::vector<FieldData> const& fields, MeritOperandDesc const& op,
             std::vector<MeritVariableDesc> const& vars, double& value, std::vector<double>& row) {
  auto jacobian = copy.fn<decltype(&nuvrix_evaluate_merit_and_jacobian)>(
      "nuvrix_evaluate_merit_and_jacobian");
  int const V = static_cast<int>(vars.size()), F = static_cast<int>(fields.size());
  MeritResult result[1], thread_result[1];
  double residuals[2], thread_residuals[2], merit = 0.0, sd = 0.0, a = 0.0, b = 0.0;
  std::vector<SurfaceData> work(s.size());
  std::vector<FieldData> work_fields(fields.size());
  row.assign(2 * V, 0.0);
  int slots = 0, sd_rows = 0;
  int const status = jacobian(s.data(), static_cast<int>(s.size()), table, waves, wave_count,
                              &config, fields.data(), F, &op, 1, vars.data(), V, nullptr, 0, 1,
                              0, 1, result, residuals, work.data(), work_fields.data(),
                              thread_result, thread_residuals, row.data(), &slots, &merit, &sd,
                              &sd_rows, &a, &b, nullptr);
  value = residuals[0];
  return status == 0;
}

// A population of curvature variables on surfaces 1 .. V: candidate i
// moves curvature v by a fraction `spread` times one of -3 .. 3.
struct Curvatures {
  std::vector<int> surfaces_of;
  std::vector<MeritVariableDesc> vars;
  std::vector<double> values;  // C rows of V
  Curvatures(nuvrix_test::System const& sys, int V, int C, double spread) {
    for (int v = 0; v < V; ++v) {
      surfaces_of.push_back(v + 1);
      MeritVariableDesc d = {};
      d.kind = 0, d.surface = v + 1;
      vars.push_back(d);
    }
    for (int i = 0; i < C; ++i) {
      for (int v = 0; v < V; ++v) {
        values.push_back(sys.surfaces[v + 1].curvature * (1.0 + spread * ((i + 3 * v) % 7 - 3)));
      }
    }
  }
  std::vector<SurfaceData> candidate(nuvrix_test::System const& sys, int i) const {
    std::vector<SurfaceData> s = sys.surfaces;
    int const V = static_cast<int>(vars.size());
    for (int v = 0; v < V; ++v) s[v + 1].curvature = values[i * V + v];
    return s;
  }
};

}  // namespace

// The grid kernel's rays, with their full records, aim and stopping
// surfaces, against the front end that the CPU traces them with.
TEST(GpuLoader, TraceGridFollowsTheFrontEnd) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  nuvrix_test::System const sys = nuvrix_test::cooke_triplet();
  int const n = sys.count(), R = 7, F = 2;
  std::vector<double> table(sys.indices);
  for (double v : sys.indices) table.push_back(v + 0.01 * (v > 1.0));  // a second row
  double const waves[2] = {0.5876, 0.4861};
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {14.0, 0.0, 3.0}};
  SystemConfig config = {};
  config.stop_surface = nuvrix_test::kCookeStop;
  config.aperture_value = 12.5;
  int field_idx[R] = {0, 1, 1, 0, 1, 1, 0}, wave_idx[R] = {0, 0, 1, 1, 0, 1, 0};
  int kinds[R] = {0, 1, 1, 0, 1, 1, 1}, surfaces_to[R] = {0, 0, 3, 0, 2, 0, 1};
  double px[R] = {0.0, 0.3, -0.5, 0.7, 0.0, 0.2, 0.9}, py[R] = {1.0, 0.8, 0.5, 0.0, -1.0, 0.1, 0.0};
  double stops[R] = {0.0, 4.0, 4.2, 0.0, 4.0, 4.4, 3.9};
  double const field_table[8] = {0.0, 0.0, 12.5, 11.0, 10.0, -2.0, 12.0, 9.0};
  using Full = decltype(&nuvrix_gpu_run_trace_grid_full);
  Full const grid = copy.fn<Full>("nuvrix_gpu_run_trace_grid_full");
  long const bytes = copy.fn<long (*)(int, int, int, int)>("nuvrix_gpu_trace_grid_scratch_size")(
      n, 2, F, R);
  void* scratch = nullptr;
  ASSERT_EQ(copy.fn<int32_t (*)(long, void**)>("nuvrix_gpu_alloc_device")(bytes, &scratch), 0);
  // Plain; aimed with given stop radii; aimed with a field table; aimed
  // again with the lists kept from the last call.
  for (int variant = 0; variant < 4; ++variant) {
    bool const aim = variant >= 1, with_table = variant == 2;
    double out[16][R];
    int valid[R];
    for (auto& row : out) std::fill(row, row + R, -9.0);
    double const R0 = 12.5, ep = 11.0;
    ASSERT_EQ(grid(sys.surfaces.data(), n, table.data(), 2, waves, &config, fields.data(), F,
                   field_idx, wave_idx, px, py, with_table ? field_table : nullptr, R0, ep,
                   out[0], out[1], out[2], valid, R, scratch, bytes, variant == 3, kinds, out[3],
                   out[4], out[5], out[6], out[7], out[8], out[9], out[10], out[11], out[12],
                   surfaces_to, out[13], out[14], out[15], aim ? 1 : 0,
                   variant == 1 ? stops : nullptr),
              0);
    for (int r = 0; r < R; ++r) {
      double const* row = table.data() + wave_idx[r] * n;
      FieldData const& f = fields[field_idx[r]];
      double const* t = field_table + 4 * field_idx[r];
      double const fy = with_table ? t[0] : f.field_y, fx = with_table ? t[1] : f.field_x;
      double const radius = with_table ? t[2] : R0, pos = with_table ? t[3] : ep;
      double const stop = !aim ? 0.0 : variant == 1 ? stops[r]
                                 : nuvrix::aim_stop_radius(sys.surfaces.data(), n, row, &config,
                                                           radius);
      RayState st[2];
      RayTraceResult const want = nuvrix::trace_arbitrary_ray_full(
          sys.surfaces.data(), n, row, &config, fy, radius, px[r], py[r],
          waves[wave_idx[r]] * 1000.0, pos, aim ? 1 : 0, stop, surfaces_to[r], st, 2, fx);
      ASSERT_TRUE(want.valid) << variant << " " << r;
      bool const full = kinds[r] == 1;
      double const expect[16] = {want.x, want.y, want.phase_waves, full ? want.z : 0.0,
                                 full ? want.l : 0.0, full ? want.m : 0.0, full ? want.n : 0.0,
                                 full ? st[1].x : 0.0, full ? st[1].y : 0.0,
                                 full ? st[1].z : 0.0, full ? st[0].l : 0.0,
                                 full ? st[0].m : 0.0, full ? st[0].n : 1.0,
                                 full ? want.nx : 0.0, full ? want.ny : 0.0,
                                 full ? want.nz : 0.0};
      EXPECT_EQ(valid[r], 1);
      for (int k = 0; k < 16; ++k) ASSERT_EQ(out[k][r], expect[k]) << variant << " " << r << " " << k;
    }
  }
  // The checks: a row out of range, an empty grid, a short scratch; and a
  // side file without the grid kernel.
  double o[R];
  int v[R];
  auto plain = copy.fn<decltype(&nuvrix_gpu_run_trace_grid)>("nuvrix_gpu_run_trace_grid");
  wave_idx[3] = 2;
  EXPECT_EQ(plain(sys.surfaces.data(), n, table.data(), 2, waves, &config, fields.data(), F,
                  field_idx, wave_idx, px, py, nullptr, 12.5, 11.0, o, o, o, v, R, scratch, bytes,
                  0), -8);
  wave_idx[3] = 1;
  EXPECT_EQ(plain(sys.surfaces.data(), n, table.data(), 2, waves, &config, fields.data(), F,
                  field_idx, wave_idx, px, py, nullptr, 12.5, 11.0, o, o, o, v, 0, nullptr, 0, 0),
            0);
  EXPECT_EQ(plain(sys.surfaces.data(), n, table.data(), 2, waves, &config, fields.data(), F,
                  field_idx, wave_idx, px, py, nullptr, 12.5, 11.0, o, o, o, v, R, scratch,
                  bytes - 1, 0), -3);
  EXPECT_EQ(copy.fn<int32_t (*)(void*)>("nuvrix_gpu_free_device")(scratch), 0);
  std::vector<std::string> no_grid(all.begin(), all.end() - 1);
  Copy without("", &no_grid);
  ASSERT_EQ(without.init(), 0);
  EXPECT_EQ(without.fn<decltype(&nuvrix_gpu_run_trace_grid)>("nuvrix_gpu_run_trace_grid")(
                sys.surfaces.data(), n, table.data(), 2, waves, &config, fields.data(), F,
                field_idx, wave_idx, px, py, nullptr, 12.5, 11.0, o, o, o, v, R,
                reinterpret_cast<void*>(64), bytes, 0),
            -9);
  EXPECT_EQ(outstanding(), 0);
}

// The merit with its rays from the device equals the merit of the CPU: the
// rays on defined fields go in one launch, each once and as many as fit,
// and every case of the fallback list runs no kernel.
TEST(GpuLoader, MeritWithDeviceRaysEqualsTheCpu) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  auto launches = fake<int (*)()>("fake_cuda_grid_launches");
  auto last_rays = fake<int (*)()>("fake_cuda_last_rays");
  auto evaluate = copy.fn<decltype(&nuvrix_evaluate_merit)>("nuvrix_evaluate_merit");
  auto on_device =
      copy.fn<decltype(&nuvrix_gpu_evaluate_merit_value)>("nuvrix_gpu_evaluate_merit_value");
  nuvrix_test::System base = nuvrix_test::cooke_triplet();
  int const n = base.count();
  // Fields whose normalised values are exact, so that the device's field
  // equals the CPU's scaled one to the bit.
  std::vector<FieldData> const fields = {{0.0, 0.0, 0.0}, {10.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  struct Op {
    unsigned code;
    double hy, px, py;
    int wave, surface;
  } const list[] = {{71, 0.5, 0.0, 0.7, 1, 0},  {70, 1.0, 0.5, 0.0, 0, 0},
                    {73, 1.0, 0.0, -0.7, 1, 0}, {71, 0.5, 0.0, 0.7, 1, 0},
                    {69, 0.5, 0.0, 1.0, -1, 0}, {74, 1.0, 0.0, 1.0, 1, 3},
                    {71, 0.3, 0.0, 0.5, 1, 0},  {50, 0.0, 0.0, 0.0, 1, 0}};
  std::vector<MeritOperandDesc> ops;
  for (Op const& o : list) {
    MeritOperandDesc op = {};
    op.type = o.code, op.hy = o.hy, op.px = o.px, op.py = o.py, op.wave = o.wave;
    op.surface = o.surface, op.group_id = -1, op.weight = 1.0, op.scale = 1.0;
    ops.push_back(op);
  }
  // Rays: 1, 1, 2 (with its chief), 0 (the same again), 3 (the OPD ray and
  // the chief twice, one of them already there: 2 new), 2 (the index rises
  // at surface 3: also the ray to surface 2), 0 (off every field).
  int const distinct = 1 + 1 + 2 + 0 + 2 + 2 + 0;
  std::vector<double> waves = {0.4861, 0.5876, 0.6563};
  std::vector<double> table;
  for (int w = 0; w < 3; ++w) {
    for (int k = 0; k < n; ++k) table.push_back(base.indices[k] + (base.indices[k] > 1.0) * 0.01 * (1 - w));
  }
  long const bytes = copy.fn<long (*)(int, int, int, int)>("nuvrix_gpu_trace_grid_scratch_size")(
      n, 65, 3, 16);
  void* device = nullptr;
  ASSERT_EQ(copy.fn<int32_t (*)(long, void**)>("nuvrix_gpu_alloc_device")(bytes, &device), 0);
  int const O = static_cast<int>(ops.size());
  struct Case {
    char const* what;
    int aiming, capacity, thin_lens, wave_count, want_rays;
  } const cases[] = {
      {"no aim", 0, 16, 0, 3, distinct},
      {"aimed", 1, 16, 0, 3, distinct},
      {"aimed, room for four", 1, 4, 0, 3, 4},
      {"a thin lens", 0, 16, 1, 3, -1},
      {"no workspace", 0, 0, 0, 3, -1},
      {"aimed at 65 wavelengths", 1, 16, 0, 65, -1},
      {"65 wavelengths without aim", 0, 16, 0, 65, distinct},
  };
  for (Case const& c : cases) {
    SystemConfig config = {};
    config.stop_surface = nuvrix_test::kCookeStop;
    config.aperture_value = 12.5;
    config.primary_wavelength = 1;
    config.ray_aiming = c.aiming;
    std::vector<SurfaceData> s = base.surfaces;
    if (c.thin_lens != 0) s[n - 2].type = 2, s[n - 2].focal_length = 1e6;
    std::vector<double> w = waves, t = table;
    for (int k = 3; k < c.wave_count; ++k) {
      w.push_back(0.5876);
      t.insert(t.end(), table.begin() + n, table.begin() + 2 * n);
    }
    std::vector<MeritResult> r_cpu(O), r_dev(O);
    std::vector<double> res_cpu(2 * O, 0.0), res_dev(2 * O, 0.0);
    int slots_cpu = -1, slots_dev = -1;
    double m_cpu = -1.0, m_dev = -2.0;
    int const u_cpu = evaluate(s.data(), n, t.data(), w.data(), c.wave_count, &config,
                               fields.data(), 3, ops.data(), O, r_cpu.data(), res_cpu.data(),
                               &slots_cpu, &m_cpu);
    Workspace ws(c.capacity > 0 ? c.capacity : 1, device, bytes);
    ws.s.capacity = c.capacity;
    int const before = launches();
    int const u_dev = on_device(s.data(), n, t.data(), w.data(), c.wave_count, &config,
                                fields.data(), 3, ops.data(), O, r_dev.data(), res_dev.data(),
                                &slots_dev, &m_dev, &ws.s, 0);
    EXPECT_EQ(launches() - before, c.want_rays < 0 ? 0 : 1) << c.what;
    if (c.want_rays >= 0) {
      EXPECT_EQ(last_rays(), c.want_rays) << c.what;
    }
    EXPECT_EQ(u_dev, u_cpu) << c.what;
    EXPECT_EQ(slots_dev, slots_cpu) << c.what;
    EXPECT_EQ(m_dev, m_cpu) << c.what;
    EXPECT_EQ(res_dev, res_cpu) << c.what;
    for (int k = 0; k < O; ++k) {
      EXPECT_EQ(r_dev[k].value, r_cpu[k].value) << c.what << " " << k;
      EXPECT_EQ(r_dev[k].status, r_cpu[k].status) << c.what << " " << k;
    }
  }
  EXPECT_EQ(copy.fn<int32_t (*)(void*)>("nuvrix_gpu_free_device")(device), 0);
  EXPECT_EQ(outstanding(), 0);
}

// The microbenchmark: its codes, a freed buffer on every path, and its
// checksum: through one surface a ray parallel to the axis keeps its
// height, so ray 0 sums -(1 + 1e-3 p) over the passes; through many the
// two precisions agree to float rounding.
TEST(GpuLoader, MicrobenchTimesAndChecks) {
  std::vector<std::string> const all = all_kernels();
  auto bench = [](Copy const& c) {
    return c.fn<decltype(&nuvrix_gpu_run_trace_microbench)>("nuvrix_gpu_run_trace_microbench");
  };
  {
    Copy copy("", &all);
    ASSERT_EQ(copy.init(), 0);
    double ms = -1.0, sum = -1.0, sum32 = -1.0;
    ASSERT_EQ(bench(copy)(1, 300, 0, 4, 0, &ms, &sum), 0);  // one surface, one iteration
    EXPECT_GE(ms, 0.0);
    EXPECT_NEAR(sum, -(4.0 + 1e-3 * 6.0), 1e-13);
    ASSERT_EQ(bench(copy)(1, 300, 40, 3, 2, &ms, &sum), 0);
    ASSERT_EQ(bench(copy)(0, 300, 40, 3, 2, &ms, &sum32), 0);
    EXPECT_NE(sum, sum32);
    EXPECT_NEAR(sum32, sum, 1e-4 * std::fabs(sum));
    EXPECT_EQ(bench(copy)(1, 0, 40, 3, 2, &ms, &sum), -3);
    EXPECT_EQ(ms, 0.0);
    EXPECT_EQ(sum, 0.0);
    EXPECT_EQ(bench(copy)(1, 10, 40, 0, 2, nullptr, nullptr), -3);
    EXPECT_EQ(outstanding(), 0);
  }
  std::vector<std::string> no_f64(all);
  no_f64.erase(std::find(no_f64.begin(), no_f64.end(), "nuvrix_trace_microbench_f64"));
  struct Case {
    char const* mode;
    std::vector<std::string> const* kernels;
    int want;
  } const cases[] = {{"", &no_f64, -4}, {"allocfail", &all, -5}, {"launchfail", &all, -6},
                     {"syncfail", &all, -7}};
  for (Case const& c : cases) {
    Copy copy(c.mode, c.kernels);
    ASSERT_EQ(copy.init(), 0);
    EXPECT_EQ(bench(copy)(1, 10, 4, 1, 1, nullptr, nullptr), c.want) << c.mode;
    EXPECT_EQ(outstanding(), 0) << c.mode;
  }
}

// The focal-length Jacobian of a population over ten curvature variables
// (two passes of slots) equals the CPU's analytic Jacobian of an EFL
// operand, candidate by candidate; factors scale each derivative.
TEST(GpuLoader, EflJacobianMatchesTheCpuAnalyticRows) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  nuvrix_test::System const sys = nuvrix_test::make_system(
      {0.0, 30.0, -200.0, 25.0, 60.0, -40.0, 35.0, -22.0, 80.0, 50.0, -90.0, 0.0},
      {1e10, 4.0, 1.0, 3.0, 2.0, 4.0, 6.0, 2.0, 1.0, 3.0, 40.0, 0.0},
      {1.0, 1.6, 1.0, 1.62, 1.0, 1.58, 1.0, 1.65, 1.0, 1.52, 1.0, 1.0});
  int const n = sys.count(), V = 10, C = 40;
  Curvatures pop(sys, V, C, 0.01);
  std::vector<int>& surfaces_of = pop.surfaces_of;
  std::vector<MeritVariableDesc> const& vars = pop.vars;
  std::vector<double> const& values = pop.values;
  std::vector<double> factors(values.size(), 2.0);
  auto run = copy.fn<int (*)(SurfaceData const*, int, double const*, int const*, int,
                             double const*, double const*, double*, double*, int)>(
      "_ZN6nuvrix3gpu21cuda_run_efl_jacobianEPK11SurfaceDataiPKdPKiiS5_S5_PdS8_i");
  ASSERT_NE(run, nullptr);
  std::vector<double> results(C), rows(values.size()), scaled(values.size());
  ASSERT_EQ(run(sys.surfaces.data(), n, sys.row(0), surfaces_of.data(), V, values.data(), nullptr,
                results.data(), rows.data(), C),
            0);
  ASSERT_EQ(run(sys.surfaces.data(), n, sys.row(0), surfaces_of.data(), V, values.data(),
                factors.data(), results.data(), scaled.data(), C),
            0);
  SystemConfig config = {};
  config.stop_surface = 5;
  config.aperture_value = 10.0;
  FieldData const field = {0.0, 0.0, 0.0};
  double const wave = 0.5876;
  MeritOperandDesc op = {};
  op.type = 50, op.weight = 1.0, op.group_id = -1, op.wave = -1;
  for (int i = 0; i < C; ++i) {
    std::vector<SurfaceData> const s = pop.candidate(sys, i);
    double value = 0.0;
    std::vector<double> jac;
    ASSERT_TRUE(cpu_row(copy, s, sys.indices.data(), &wave, 1, config, {field}, op, vars, value,
                        jac));
    ASSERT_EQ(results[i], value) << i;
    for (int v = 0; v < V; ++v) {
      ASSERT_EQ(rows[i * V + v], jac[v]) << i << " " << v;
      ASSERT_EQ(scaled[i * V + v], 2.0 * jac[v]) << i << " " << v;
    }
  }
  // Sizes and variable surfaces out of range; an empty population.
  EXPECT_EQ(run(sys.surfaces.data(), 1, sys.row(0), surfaces_of.data(), V, values.data(), nullptr,
                results.data(), rows.data(), C), -8);
  EXPECT_EQ(run(sys.surfaces.data(), n, sys.row(0), surfaces_of.data(), 65, values.data(),
                nullptr, results.data(), rows.data(), C), -8);
  EXPECT_EQ(run(sys.surfaces.data(), n, sys.row(0), surfaces_of.data(), V, values.data(), nullptr,
                results.data(), rows.data(), 0), 0);
  surfaces_of[3] = n;
  EXPECT_EQ(run(sys.surfaces.data(), n, sys.row(0), surfaces_of.data(), V, values.data(), nullptr,
                results.data(), rows.data(), C), -8);
  EXPECT_EQ(outstanding(), 0);
}

// The real-ray Jacobian of a population, with and without aiming, at a
// wavelength other than the primary one, equals the CPU's analytic rows
// of RAY_X and RAY_Y for each candidate, from the first order and the aim
// that the host finds for it.
TEST(GpuLoader, RayJacobianMatchesTheCpuAnalyticRows) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  nuvrix_test::System const sys = nuvrix_test::cooke_triplet();
  int const n = sys.count(), V = 6, C = 30, W = 3;
  std::vector<double> table;
  for (int w = 0; w < W; ++w) {
    for (int k = 0; k < n; ++k) table.push_back(sys.indices[k] + (sys.indices[k] > 1.0) * 0.01 * (1 - w));
  }
  double const waves[W] = {0.4861, 0.5876, 0.6563};
  std::vector<FieldData> const fields = {{0.0, 0.0, 0.0}, {14.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  Curvatures const pop(sys, V, C, 0.004);
  std::vector<int> const& surfaces_of = pop.surfaces_of;
  std::vector<MeritVariableDesc> const& vars = pop.vars;
  std::vector<double> const& values = pop.values;
  using Run = int (*)(SurfaceData const*, int, double const*, int const*, int, double, double,
                      double const*, double, double, double, int, int, double const*,
                      double const*, double const*, double const*, double*, double*, int, int);
  Run const run = copy.fn<Run>(
      "_ZN6nuvrix3gpu20cuda_run_ry_jacobianEPK11SurfaceDataiPKdPKiiddS5_dddiiS5_S5_S5_S5_PdS8_ii");
  ASSERT_NE(run, nullptr);
  auto batched = copy.fn<decltype(&nuvrix::gpu::cuda_run_ry_batched_jacobian)>(
      "_ZN6nuvrix3gpu28cuda_run_ry_batched_jacobianEPK11SurfaceDataiPKdPKiiS5_S5_S5_iS5_S5_S5_"
      "iiS5_S5_S5_S5_PdS8_iS7_");
  ASSERT_NE(batched, nullptr);
  double const px = 0.3, py = 0.7;
  for (int aiming = 0; aiming < 2; ++aiming) {
    SystemConfig config = {};
    config.stop_surface = nuvrix_test::kCookeStop;
    config.aperture_value = 12.5;
    config.primary_wavelength = 1;
    config.ray_aiming = aiming;
    std::vector<double> frames(3 * C), aims(3 * C, 0.0);
    for (int i = 0; i < C; ++i) {
      std::vector<SurfaceData> const s = pop.candidate(sys, i);
      nuvrix::MeritContext const ctx =
          nuvrix::build_context(s.data(), n, table.data(), W, &config, fields.data(), 3);
      double const* row = table.data() + 2 * n;
      frames[3 * i] = ctx.pupil_radius, frames[3 * i + 1] = ctx.entrance_pupil_position;
      frames[3 * i + 2] = aiming != 0 ? nuvrix::aim_stop_radius(s.data(), n, row, &config,
                                                                 ctx.pupil_radius)
                                      : 0.0;
      if (aiming != 0) {
        ASSERT_TRUE(nuvrix::aim_plain_launch(s.data(), n, row, config, 20.0, 0.0, frames[3 * i],
                                             frames[3 * i + 1], frames[3 * i + 2], px, py,
                                             &aims[3 * i]));
      }
    }
    for (int coordinate = 0; coordinate < 2; ++coordinate) {
      double const setup[6] = {0.0, 0.0, static_cast<double>(aiming),
                               static_cast<double>(config.stop_surface), 0.0,
                               static_cast<double>(coordinate)};
      std::vector<double> results(C), rows(static_cast<size_t>(C) * V);
      ASSERT_EQ(run(sys.surfaces.data(), n, table.data(), surfaces_of.data(), V, 20.0, 0.0,
                    values.data(), px, py, 12.5, 2, 1, nullptr, frames.data(), aims.data(), setup,
                    results.data(), rows.data(), C, 0),
                0);
      // The batched kernel with this one entry gives the same bits.
      std::vector<double> radii(C), positions(C), stops(C), b_results(C), b_rows(rows.size());
      for (int i = 0; i < C; ++i) {
        radii[i] = frames[3 * i], positions[i] = frames[3 * i + 1], stops[i] = frames[3 * i + 2];
      }
      double const entry_field[2] = {20.0, 0.0}, batch_setup[6] = {0.0, 0.0, setup[2], setup[3],
                                                                   0.0, 12.5};
      int const is_x = coordinate == 0 ? 1 : 0;
      ASSERT_EQ(batched(sys.surfaces.data(), n, table.data(), surfaces_of.data(), V, values.data(),
                        batch_setup, entry_field, 1, &px, &py, nullptr, 1, 2, radii.data(),
                        positions.data(), stops.data(), aims.data(), b_results.data(),
                        b_rows.data(), C, &is_x),
                0);
      EXPECT_EQ(b_results, results);
      EXPECT_EQ(b_rows, rows);
      MeritOperandDesc op = {};
      op.type = static_cast<unsigned>(coordinate), op.weight = 1.0, op.group_id = -1;
      op.wave = 2, op.hy = 1.0, op.px = px, op.py = py;
      for (int i = 0; i < C; ++i) {
        std::vector<SurfaceData> const s = pop.candidate(sys, i);
        double value = 0.0;
        std::vector<double> jac;
        ASSERT_TRUE(cpu_row(copy, s, table.data(), waves, W, config, fields, op, vars, value, jac));
        ASSERT_EQ(results[i], value) << aiming << coordinate << " " << i;
        for (int v = 0; v < V; ++v) {
          ASSERT_EQ(rows[i * V + v], jac[v]) << aiming << coordinate << " " << i << " " << v;
        }
      }
    }
  }
  EXPECT_EQ(outstanding(), 0);
}

// The spot kernel's entries (a ray less the chief ray of its field and row)
// equal the CPU's analytic rows of TRANSVERSE_X_CHIEF and _Y_CHIEF, and the
// OPD kernel's those of OPD_RAW, for a population with aiming on.
TEST(GpuLoader, SpotAndOpdJacobiansMatchTheCpuAnalyticRows) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  nuvrix_test::System const sys = nuvrix_test::cooke_triplet();
  int const n = sys.count(), V = 6, C = 12, W = 2, E = 5;
  std::vector<double> table(sys.indices);
  for (double v : sys.indices) table.push_back(v + 0.01 * (v > 1.0));
  double const waves[W] = {0.5876, 0.4861};
  std::vector<FieldData> const fields = {{0.0, 0.0, 0.0}, {10.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  double const field_y[3] = {0.0, 10.0, 20.0}, field_x[3] = {0.0, 0.0, 0.0};
  int const entry_fields[E] = {2, 1, 2, 0, 1}, entry_rows[E] = {1, 0, 0, 1, 1};
  int const coords[E] = {1, 0, 0, 1, 1};
  double const px[E] = {0.3, 0.5, 0.0, 0.2, -0.4}, py[E] = {0.7, -0.5, 1.0, 0.6, 0.8};
  Curvatures const pop(sys, V, C, 0.004);
  std::vector<int> const& surfaces_of = pop.surfaces_of;
  std::vector<MeritVariableDesc> const& vars = pop.vars;
  std::vector<double> const& values = pop.values;
  SystemConfig config = {};
  config.stop_surface = nuvrix_test::kCookeStop;
  config.aperture_value = 12.5;
  config.ray_aiming = 1;
  std::vector<double> radii(C), positions(C), reference(C);
  std::vector<double> stops(static_cast<size_t>(C) * W), ray_aims(3 * C * E), chief_aims(3 * C * E);
  std::vector<double> ref_aims(3 * C * E);
  auto candidate = [&](int i) { return pop.candidate(sys, i); };
  for (int i = 0; i < C; ++i) {
    std::vector<SurfaceData> const s = candidate(i);
    nuvrix::MeritContext const ctx =
        nuvrix::build_context(s.data(), n, table.data(), W, &config, fields.data(), 3);
    radii[i] = ctx.pupil_radius, positions[i] = ctx.entrance_pupil_position;
    reference[i] = ctx.reference_radius;
    for (int w = 0; w < W; ++w) {
      stops[i * W + w] =
          nuvrix::aim_stop_radius(s.data(), n, table.data() + w * n, &config, ctx.pupil_radius);
    }
    for (int e = 0; e < E; ++e) {
      int const w = entry_rows[e];
      double const* row = table.data() + w * n;
      double const fy = field_y[entry_fields[e]];
      ASSERT_TRUE(nuvrix::aim_plain_launch(s.data(), n, row, config, fy, 0.0, radii[i],
                                           positions[i], stops[i * W + w], px[e], py[e],
                                           &ray_aims[3 * (i * E + e)]));
      ASSERT_TRUE(nuvrix::aim_plain_launch(s.data(), n, row, config, fy, 0.0, radii[i],
                                           positions[i], stops[i * W + w], 0.0, 0.0,
                                           &chief_aims[3 * (i * E + e)]));
      ASSERT_TRUE(nuvrix::aim_plain_launch(s.data(), n, table.data(), config, fy, 0.0, radii[i],
                                           positions[i], stops[i * W], 0.0, 0.0,
                                           &ref_aims[3 * (i * E + e)]));
    }
  }
  double const setup[6] = {0.0, 0.0, 1.0, static_cast<double>(config.stop_surface), 0.0, 12.5};
  auto spot = copy.fn<decltype(&nuvrix::gpu::cuda_run_spot_jacobian)>(
      "_ZN6nuvrix3gpu22cuda_run_spot_jacobianEPK11SurfaceDataiPKdiPKiiS5_S5_S5_S5_S7_iiS5_S5_S7_"
      "S7_iiS5_S5_S5_S5_S5_S5_PdS8_ii");
  ASSERT_NE(spot, nullptr);
  std::vector<double> results(C * E), rows(static_cast<size_t>(C) * E * V);
  ASSERT_EQ(spot(sys.surfaces.data(), n, table.data(), W, surfaces_of.data(), V, values.data(),
                 setup, field_y, field_x, entry_fields, E, 3, px, py, entry_rows, coords, 0, 0,
                 nullptr, radii.data(), positions.data(), stops.data(), ray_aims.data(),
                 chief_aims.data(), results.data(), rows.data(), C, 1),
            0);
  for (int i = 0; i < C; ++i) {
    std::vector<SurfaceData> const s = candidate(i);
    for (int e = 0; e < E; ++e) {
      MeritOperandDesc op = {};
      op.type = coords[e] != 0 ? 73u : 72u, op.weight = 1.0, op.group_id = -1;
      op.wave = entry_rows[e], op.hy = field_y[entry_fields[e]] / 20.0, op.px = px[e];
      op.py = py[e];
      double value = 0.0;
      std::vector<double> jac;
      ASSERT_TRUE(cpu_row(copy, s, table.data(), waves, W, config, fields, op, vars, value, jac));
      ASSERT_EQ(results[i * E + e], value) << i << " " << e;
      for (int v = 0; v < V; ++v) {
        ASSERT_EQ(rows[(i * E + e) * V + v], jac[v]) << i << " " << e << " " << v;
      }
    }
  }
  // The OPD of the same entries against the CPU's rows of OPD_RAW.
  auto opd = copy.fn<decltype(&nuvrix::gpu::cuda_run_opd_jacobian)>(
      "_ZN6nuvrix3gpu21cuda_run_opd_jacobianEPK11SurfaceDataiPKdiPKiiS5_S5_S5_S5_S7_iiS5_S5_S7_"
      "S5_iiS5_S5_S5_S5_S5_S5_S5_S5_PdS8_i");
  ASSERT_NE(opd, nullptr);
  ASSERT_EQ(opd(sys.surfaces.data(), n, table.data(), W, surfaces_of.data(), V, values.data(),
                setup, field_y, field_x, entry_fields, E, 3, px, py, entry_rows, waves, 0, 0,
                nullptr, radii.data(), positions.data(), stops.data(), ray_aims.data(),
                chief_aims.data(), ref_aims.data(), reference.data(), results.data(), rows.data(),
                C),
            0);
  for (int i = 0; i < C; ++i) {
    std::vector<SurfaceData> const s = candidate(i);
    for (int e = 0; e < E; ++e) {
      MeritOperandDesc op = {};
      op.type = 69, op.weight = 1.0, op.group_id = -1;
      op.wave = entry_rows[e], op.hy = field_y[entry_fields[e]] / 20.0, op.px = px[e];
      op.py = py[e];
      double value = 0.0;
      std::vector<double> jac;
      ASSERT_TRUE(cpu_row(copy, s, table.data(), waves, W, config, fields, op, vars, value, jac));
      // The CPU's value is the plain OPD's, whose rays the front end aims to
      // its own tolerance (the dual rays start from aim_to_stop's launch),
      // a few parts in 1e12 of the waves here; its row comes from the same
      // slots as the kernel's.
      ASSERT_NEAR(results[i * E + e], value, 1e-10 * std::fabs(value))
          << "opd " << i << " " << e;
      for (int v = 0; v < V; ++v) {
        ASSERT_EQ(rows[(i * E + e) * V + v], jac[v]) << "opd " << i << " " << e << " " << v;
      }
    }
  }
  EXPECT_EQ(outstanding(), 0);
}

// The semi-diameter kernel's sample heights: on every candidate the largest
// of a surface's samples is the semi-diameter that the solve sets, and the
// derivative of that sample is the solve's own slope, by central
// differences of the solve, with and without aiming.
TEST(GpuLoader, SemiDiameterJacobianFollowsTheSolve) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  nuvrix_test::System const sys = nuvrix_test::cooke_triplet();
  int const n = sys.count(), V = 6, C = 4, F = 3;
  std::vector<FieldData> const fields = {{0.0, 0.0, 0.0}, {14.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  double const wave = 0.5876;
  int const watched[2] = {2, 5};
  Curvatures const pop(sys, V, C, 0.004);
  std::vector<int> e_surface, e_row;
  std::vector<double> e_fy, e_px, e_py, e_scale;
  for (int k : watched) {
    for (int f = 0; f < F; ++f) {
      for (int j = 0; j < 8; ++j) {
        e_surface.push_back(k), e_row.push_back(0), e_fy.push_back(fields[f].field_y);
        e_px.push_back(nuvrix::sd_px_vals[j]), e_py.push_back(nuvrix::sd_py_vals[j]);
        e_scale.push_back(1.0);
      }
    }
  }
  int const E = static_cast<int>(e_surface.size());
  std::vector<int> const& surfaces_of = pop.surfaces_of;
  std::vector<double> const& values = pop.values;
  auto solved = [&](std::vector<SurfaceData> s, SystemConfig const& cfg, int k) {
    copy.fn<decltype(&nuvrix_solve_semi_diameters)>("nuvrix_solve_semi_diameters")(
        s.data(), n, sys.indices.data(), &wave, 1, &cfg, fields.data(), F);
    return s[k].semi_diameter;
  };
  auto run = copy.fn<decltype(&nuvrix::gpu::cuda_run_sd_jacobian)>(
      "_ZN6nuvrix3gpu20cuda_run_sd_jacobianEPK11SurfaceDataiPKdiPKiiS5_S5_S5_S7_S7_S5_S5_S5_S5_"
      "iS5_S5_S5_S5_PdS8_i");
  ASSERT_NE(run, nullptr);
  for (int aiming = 0; aiming < 2; ++aiming) {
    SystemConfig cfg = {};
    cfg.stop_surface = nuvrix_test::kCookeStop;
    cfg.aperture_value = 12.5;
    cfg.ray_aiming = aiming;
    std::vector<double> radii(C), positions(C), stops(C), aims(3 * C * E);
    for (int i = 0; i < C; ++i) {
      std::vector<SurfaceData> const s = pop.candidate(sys, i);
      double const* row = sys.indices.data();
      radii[i] = nuvrix::paraxial_marginal_height(s.data(), n, row, cfg);
      positions[i] = nuvrix::compute_entrance_pupil_position(s.data(), n, row, cfg.stop_surface);
      stops[i] = aiming != 0 ? nuvrix::aim_stop_radius(s.data(), n, row, &cfg, radii[i]) : 0.0;
      for (int e = 0; e < E; ++e) {
        double* u = &aims[3 * (i * E + e)];
        if (!nuvrix::aim_plain_launch(s.data(), n, row, cfg, e_fy[e], 0.0, radii[i],
                                      positions[i], stops[i], e_px[e], e_py[e], u)) {
          u[0] = std::nan("");  // a sample the aim misses counts for nothing
        }
      }
    }
    double const setup[6] = {0.0, 0.0, static_cast<double>(aiming),
                             static_cast<double>(cfg.stop_surface), 0.0, 12.5};
    std::vector<double> results(C * E), rows(static_cast<size_t>(C) * E * V);
    ASSERT_EQ(run(sys.surfaces.data(), n, sys.indices.data(), 1, surfaces_of.data(), V,
                  values.data(), nullptr, setup, e_surface.data(), e_row.data(), e_fy.data(),
                  e_px.data(), e_py.data(), e_scale.data(), E, radii.data(), positions.data(),
                  stops.data(), aims.data(), results.data(), rows.data(), C),
              0);
    for (int i = 0; i < C; ++i) {
      std::vector<SurfaceData> const s = pop.candidate(sys, i);
      for (int w = 0; w < 2; ++w) {
        int best = -1;
        for (int e = 0; e < E; ++e) {
          if (e_surface[e] == watched[w] && results[i * E + e] == results[i * E + e] &&
              (best < 0 || results[i * E + e] > results[i * E + best])) {
            best = e;
          }
        }
        double const sd = solved(s, cfg, watched[w]);
        EXPECT_NEAR(results[i * E + best], sd, 1e-12 * sd) << aiming << " " << i << " " << w;
        for (int v = 0; v < V; ++v) {
          double const c = s[v + 1].curvature, h = 1e-6 * std::fabs(c);
          std::vector<SurfaceData> up = s, down = s;
          up[v + 1].curvature = c + h, down[v + 1].curvature = c - h;
          double const slope =
              (solved(up, cfg, watched[w]) - solved(down, cfg, watched[w])) / (2.0 * h);
          EXPECT_NEAR(rows[(i * E + best) * V + v], slope, 1e-6 * (std::fabs(slope) + 1.0))
              << aiming << " " << i << " " << w << " " << v;
        }
      }
    }
  }
  EXPECT_EQ(outstanding(), 0);
}

namespace {

// A batch of the Cooke triplet with aspheric back surface for the mixed
// run: six curvature variables (two bounded), a population around the
// lens, and the operand list of each case.
struct MixedBatch {
  nuvrix_test::System sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = {};
  std::vector<double> waves = {0.5876, 0.4861};
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {14.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritVariableDesc> vars;
  std::vector<MeritPickupDesc> pickups;
  std::vector<double> x, residuals, jacobians, merits;
  std::vector<MeritResult> results;
  int C = 9, count = 0;

  MixedBatch() {
    for (int i : {1, 3, 5}) sys.surfaces[i].is_glass = 1;
    sys.surfaces[6].conic = -0.6, sys.surfaces[6].coefficients[0] = 2e-6;
    for (double v : std::vector<double>(sys.indices)) sys.indices.push_back(v + 0.012 * (v > 1.0));
    cfg.stop_surface = nuvrix_test::kCookeStop, cfg.aperture_value = 10.0;
    for (int i = 1; i <= 6; ++i) {
      MeritVariableDesc v = {};
      v.kind = 0, v.surface = i, v.field = -1;
      if (i == 2 || i == 5) v.has_lower = v.has_upper = 1, v.lower = -0.06, v.upper = 0.06;
      vars.push_back(v);
    }
    for (int c = 0; c < C; ++c) {
      for (int v = 0; v < 6; ++v) {
        MeritVariableDesc const& var = vars[v];
        double const p = sys.surfaces[var.surface].curvature + 0.0015 * std::sin(1.7 * c + v);
        x.push_back(nuvrix::transform_to_unbounded(p, var.has_lower, var.lower, var.has_upper,
                                                   var.upper));
      }
    }
  }
  MeritOperandDesc& add(unsigned code, double hy = 0.0, double px = 0.0, double py = 0.0) {
    MeritOperandDesc op = {};
    op.type = code, op.weight = 1.0, op.group_id = -1, op.wave = -1;
    op.hy = hy, op.px = px, op.py = py;
    ops.push_back(op);
    return ops.back();
  }
  int run(Copy const& copy, int use_gpu, int mode) {
    auto batched = copy.fn<decltype(&nuvrix_evaluate_merit_batched)>(
        "nuvrix_evaluate_merit_batched");
    auto size = copy.fn<decltype(&nuvrix_batched_scratch_size)>("nuvrix_batched_scratch_size");
    int const n = sys.count(), M = static_cast<int>(ops.size()), V = static_cast<int>(vars.size());
    int const F = static_cast<int>(fields.size());
    long const bytes = size(C, n, F, M, V, 0, 0);
    std::vector<double> scratch(static_cast<size_t>(bytes / 8 + 1));
    residuals.assign(static_cast<size_t>(C) * 2 * M, 0.0);
    jacobians.assign(residuals.size() * V, 0.0);
    merits.assign(C, 0.0);
    results.assign(static_cast<size_t>(C) * M, {0.0, 0});
    double sd = 0.0, a = 0.0, b = 0.0;
    int rows = 0;
    MeritBatchedConfig const config = {use_gpu, mode, 2, 1, {}};
    return batched(sys.surfaces.data(), n, sys.indices.data(), waves.data(), 2, &cfg,
                   fields.data(), F, ops.data(), M, vars.data(), V, pickups.data(),
                   static_cast<int>(pickups.size()), C, x.data(), residuals.data(),
                   jacobians.data(), results.data(), merits.data(), &count, config,
                   scratch.data(), bytes, &sd, &rows, &a, &b, nullptr);
  }
};

int launches() {
  void* fake = dlopen("libcuda.so", RTLD_NOW | RTLD_NOLOAD);
  return reinterpret_cast<int (*)()>(dlsym(fake, "fake_cuda_launches"))();
}
std::string last_kernel() {
  void* fake = dlopen("libcuda.so", RTLD_NOW | RTLD_NOLOAD);
  return reinterpret_cast<char const* (*)()>(dlsym(fake, "fake_cuda_last_kernel"))();
}

}  // namespace

// The mixed batch against the CPU batch.  With finite differences on the
// CPU, the rows that the device gives must equal the CPU's analytic rows,
// and every other row the CPU's finite-difference rows: so the device's
// rows are seen to take their place.  Values are the CPU's in both.  Three
// lists: every ray class with the centroid, piston and tilt groups; five
// rays for the batched kernel; the single-surface bounds on one field.
TEST(GpuLoader, MixedBatchTakesTheDeviceRowsOfItsClasses) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  auto bound = [](MixedBatch& m, unsigned code, int surface, double lower, double upper) {
    MeritOperandDesc& b = m.add(code);
    b.surface_first = b.surface_last = surface;
    b.has_lower = lower > -1e9, b.lower = lower, b.has_upper = upper < 1e9, b.upper = upper;
  };
  for (int list = 0; list < 3; ++list) {
    for (int aiming = 0; aiming < 2; ++aiming) {
      MixedBatch m;
      m.cfg.ray_aiming = aiming;
      m.add(50).target = 50.0;
      m.ops[0].transform = 8;
      m.add(1, 1.0, 0.0, 1.0).surface = list == 1 ? 0 : 3;  // RAY_Y on surface 3
      m.add(0, 0.7, 0.6, 0.2).wave = list == 1 ? -1 : 1;
      for (double py : {1.0, -0.6}) m.add(71, 1.0, 0.0, py).centroid_tag = 1;
      m.add(70, 0.7, 0.8, 0.1);
      if (list == 0) {
        m.add(72, 0.7, 0.5, 0.5), m.add(73, 1.0, 0.0, -0.8).wave = 1;
        double const pupil[4][2] = {{0.0, 1.0}, {0.0, -1.0}, {0.7, 0.0}, {0.3, 0.6}};
        for (auto const& q : pupil) m.add(67, 1.0, q[0], q[1]);
        for (int k = 0; k < 3; ++k) m.add(68, 0.7, pupil[k][0], pupil[k][1]);
        m.add(69, 0.0, 0.0, 1.0), m.add(69, 0.0, 0.5, -0.5).wave = 1;
      }
      if (list == 2) {
        m.fields.resize(1), m.fields[0].field_y = 20.0;
        bound(m, 46, 2, -1e10, 7.0);  // semi-diameter above 7 mm
        bound(m, 47, 3, -1e10, 1.0);  // a glass wider than its thickness allows
        bound(m, 43, 1, 4.0, 1e10), bound(m, 44, 2, 7.0, 1e10), bound(m, 45, 5, 3.0, 1e10);
        bound(m, 44, 6, 1e10, 1e10);  // inside its bounds: a zero row
      }
      if (list == 1) {  // a composite: the CPU differentiates the whole list
        MeritOperandDesc& sum = m.add(31);
        sum.operand_a = 0, sum.operand_b = 1;
      }
      MeritOperandDesc& edge = m.add(44);  // several surfaces: on the CPU
      edge.surface_first = 1, edge.surface_last = 5, edge.has_lower = 1, edge.lower = 3.5;
      int const M = static_cast<int>(m.ops.size()), V = 6, R = 2 * M;
      int const cpu_rows = list == 1 ? 2 : 1;  // the last rows
      ASSERT_EQ(m.run(copy, 0, 1), 0);
      std::vector<double> const analytic = m.jacobians, merits = m.merits;
      ASSERT_EQ(m.run(copy, 0, 0), 0);
      std::vector<double> const differences = m.jacobians;
      int const before = launches();
      ASSERT_EQ(m.run(copy, 1, 0), 0);
      EXPECT_EQ(m.merits, merits);
      std::vector<double> const mixed = m.jacobians;
      int const launched = launches() - before;
      ASSERT_EQ(m.run(copy, 1, 1), 0);  // analytic on the CPU as well: every row agrees
      for (size_t k = 0; k < analytic.size(); ++k) {
        EXPECT_NEAR(m.jacobians[k], analytic[k], 1e-10 * std::fabs(analytic[k]) + 1e-12) << k;
      }
      EXPECT_EQ(last_kernel(), list == 0   ? "nuvrix_opd_jacobian_kernel"
                               : list == 1 ? "nuvrix_ry_batched_jacobian_kernel"
                                           : "nuvrix_sd_jacobian_kernel");
      if (list == 1) {
        EXPECT_EQ(launched, 2);  // the focal length and five rays
      }
      double largest = 0.0;
      for (int c = 0; c < m.C; ++c) {
        ASSERT_EQ(m.count, M);
        for (int r = 0; r < M; ++r) {
          bool const device = r < M - cpu_rows;  // the operands' rows, in order
          std::vector<double> const& want = device ? analytic : differences;
          for (int v = 0; v < V; ++v) {
            size_t const k = (static_cast<size_t>(c) * R + r) * V + v;
            largest = std::fmax(largest, std::fabs(want[k]));
            EXPECT_NEAR(mixed[k], want[k], 1e-10 * std::fabs(want[k]) + 1e-12)
                << list << aiming << " candidate " << c << " row " << r << " v " << v;
          }
        }
      }
      EXPECT_GT(largest, 1.0);
    }
  }
  EXPECT_EQ(outstanding(), 0);
}

// Each refusal of the mixed run's entry conditions, the CPU-only list that
// runs no kernel, and a process without a device.
TEST(GpuLoader, MixedBatchRefusals) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  auto rays = [](MixedBatch& m, int count) {
    for (int k = 0; k < count; ++k) m.add(1, (k / 64) / 8.0, (k % 64) / 64.0 - 0.5, 0.3);
  };
  auto bounds = [](MixedBatch& m, int count) {
    m.fields.resize(1);
    for (int k = 0; k < count; ++k) {
      MeritOperandDesc& b = m.add(46);
      b.surface_first = b.surface_last = 1 + k % 6, b.has_upper = 1, b.upper = 30.0;
    }
  };
  struct Case {
    char const* what;
    void (*edit)(MixedBatch&);
    int want;
  } const cases[] = {
      {"a thickness variable", [](MixedBatch& m) { m.add(50), m.vars[0].kind = 1; }, -2},
      {"a paraxial lens", [](MixedBatch& m) { m.add(50), m.sys.surfaces[7].type = 2; }, -2},
      {"1701 operands", [](MixedBatch& m) { for (int k = 0; k < 1701; ++k) m.add(50); }, -2},
      {"a pickup", [](MixedBatch& m) { m.add(50), m.pickups.push_back({6, 2, 1, 1.0, 0.0}); }, -2},
      {"all weights 0", [](MixedBatch& m) { m.add(50).weight = 0.0; }, -2},
      {"513 ray entries", [](MixedBatch& m) { m.fields.resize(1); }, -2},
      {"512 ray entries", [](MixedBatch& m) { m.fields.resize(1); }, 0},
      {"17 bound entries", [](MixedBatch& m) { m.fields.resize(1); }, -2},
      {"OPD out of field order",
       [](MixedBatch& m) {
         m.add(1, 0.0), m.add(1, 1.0), m.add(69, 1.0, 0.0, 1.0), m.add(69, 0.0, 0.0, 1.0);
       },
       -2},
      {"five ray entries on two rows",
       [](MixedBatch& m) {
         for (int k = 0; k < 5; ++k) m.add(71, 1.0, 0.0, 0.2 * k).wave = k == 4;
       },
       -2},
      {"class 13 only", [](MixedBatch& m) { m.add(57), m.add(44).surface_last = 3; }, 0},
  };
  for (Case const& c : cases) {
    MixedBatch m;
    m.C = 3, m.x.resize(3 * 6);
    c.edit(m);
    std::string const what = c.what;
    if (what == "513 ray entries") rays(m, 513);
    if (what == "512 ray entries") rays(m, 512);
    if (what == "17 bound entries") bounds(m, 17);
    int const before = launches();
    EXPECT_EQ(m.run(copy, 1, 1), c.want) << c.what;
    if (what == "class 13 only") {
      EXPECT_EQ(launches(), before) << c.what;
    }
  }
  // Sixteen bound entries are taken, and without a device the run refuses.
  MixedBatch m;
  m.C = 3, m.x.resize(3 * 6);
  bounds(m, 16);
  EXPECT_EQ(m.run(copy, 1, 1), 0);
  Copy none("nodevice", &all);
  m.add(50);
  EXPECT_EQ(m.run(none, 1, 1), -2);
  EXPECT_EQ(m.run(none, 0, 1), 0);
}

// A ray that fails on the device but not on the CPU: that candidate's rows
// all come from the CPU (here by finite differences), the others' device
// rows stay.
TEST(GpuLoader, MixedBatchFallsBackToTheCpuWhereTheDeviceRayFails) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("raynan", &all);
  ASSERT_EQ(copy.init(), 0);
  MixedBatch m;
  m.add(1, 1.0, 0.0, 1.0), m.add(0, 0.7, 0.6, 0.2), m.add(50).target = 50.0;
  int const V = 6, R = 2 * static_cast<int>(m.ops.size());
  ASSERT_EQ(m.run(copy, 0, 0), 0);
  std::vector<double> const differences = m.jacobians;
  ASSERT_EQ(m.run(copy, 0, 1), 0);
  std::vector<double> const analytic = m.jacobians;
  ASSERT_EQ(m.run(copy, 1, 0), 0);
  for (int c = 0; c < m.C; ++c) {
    for (int k = 0; k < 3 * V; ++k) {
      size_t const at = static_cast<size_t>(c) * R * V + k;
      double const want = c == 0 ? differences[at] : analytic[at];
      EXPECT_NEAR(m.jacobians[at], want, 1e-10 * std::fabs(want) + 1e-12) << c << " " << k;
    }
  }
  EXPECT_EQ(outstanding(), 0);
}

namespace {

// A population of the Cooke triplet for the differential evolution: each
// candidate's curvatures spread around the lens, its thicknesses and
// conics the lens's, its glasses rows of a two-glass catalogue.  The
// stand-in driver keeps device memory in host memory, so host arrays stand
// for the device arrays here.
struct DePopulation {
  nuvrix_test::System sys = nuvrix_test::cooke_triplet();
  int n = sys.count(), P = 24, W = 1, F = 2, O = 0;
  SystemConfig cfg = {};
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  std::vector<MeritOperandDesc> ops;
  std::vector<double> waves = {0.5876}, catalog = {1.620410, 1.620040, 1.5168};
  std::vector<double> a, b, c, merit, ta, tb, tc, tmerit, table;
  std::vector<int> materials, tmaterials, glass_surfaces = {3}, offsets = {0, 2}, choices = {1, 2};
  std::vector<unsigned char> scratch;
  DeConditionDesc condition = {0.8, 0.0, 0.5, 0.2, 1, 6, {0, 0}};

  DePopulation() {
    for (int i : {1, 3, 5}) sys.surfaces[i].is_glass = 1;
    for (int k = 0; k < n; ++k) sys.surfaces[k].semi_diameter = 8.0;
    cfg.stop_surface = nuvrix_test::kCookeStop, cfg.aperture_value = 10.0;
    MeritOperandDesc efl = {};
    efl.type = 50, efl.weight = 1.0, efl.group_id = -1, efl.wave = -1, efl.target = 50.0;
    ops.push_back(efl);
    for (double py : {1.0, 0.5, -0.7}) {
      MeritOperandDesc op = efl;
      op.type = 71, op.target = 0.0, op.hy = 1.0, op.py = py;
      ops.push_back(op);
    }
    O = static_cast<int>(ops.size());
    int const ids[8] = {-1, 0, -1, 1, -1, 0, -1, -1};
    for (int i = 0; i < P; ++i) {
      for (int k = 0; k < n; ++k) {
        double const spread = k >= 1 && k <= 6 ? 0.003 * std::sin(1.3 * i + 2.1 * k) : 0.0;
        a.push_back(sys.surfaces[k].curvature + spread);
        b.push_back(sys.surfaces[k].thickness), c.push_back(0.0), materials.push_back(ids[k]);
      }
    }
    for (int k = 1; k <= 6; ++k) {
      double const c0 = sys.surfaces[k].curvature;
      table.insert(table.end(), {double(k), 0.0, c0 - 0.01, c0 + 0.01});
    }
    table.insert(table.end(), {2.0, 1.0, 4.0, 9.0});  // an air space, 4 to 9 mm
    merit.assign(P, 0.0), tmerit.assign(P, 0.0);
    ta.assign(a.size(), 0.0), tb = ta, tc = ta, tmaterials.assign(materials.size(), 0);
    // The merit kernel's sections: surfaces, index rows, results, working space.
    scratch.resize(static_cast<size_t>(200 * P * n + 8 * W * P * n + 16 * P * O +
                                       8 * P * (F + 2 * O + 8)));
  }
  long bytes() const { return static_cast<long>(scratch.size()); }
  int evaluate(Copy const& copy, long scratch_bytes) {
    return copy.fn<decltype(&nuvrix_gpu_run_de_eval_pop)>("nuvrix_gpu_run_de_eval_pop")(
        a.data(), b.data(), c.data(), materials.data(), merit.data(), sys.surfaces.data(),
        catalog.data(), waves.data(), &cfg, fields.data(), ops.data(), scratch.data(),
        scratch_bytes, P, n, W, F, O);
  }
  int generation(Copy const& copy, int g, double scale, double crossover, double glass_rate,
                 long scratch_bytes, int size) {
    return copy.fn<decltype(&nuvrix_gpu_run_de_generation)>("nuvrix_gpu_run_de_generation")(
        a.data(), b.data(), c.data(), materials.data(), merit.data(), ta.data(), tb.data(),
        tc.data(), tmaterials.data(), tmerit.data(), table.data(),
        static_cast<int>(table.size() / 4), glass_surfaces.data(), offsets.data(),
        choices.data(), 1, sys.surfaces.data(), catalog.data(), waves.data(), &cfg,
        fields.data(), ops.data(), scratch.data(), scratch_bytes, size, n, W, F, O, 2026, g, 8,
        scale, crossover, glass_rate, 0, 0, condition);
  }
  // Candidate i's merit on the CPU, from its rows and glasses.
  double cpu_merit(Copy const& copy, int i) const {
    std::vector<SurfaceData> s = sys.surfaces;
    std::vector<double> row(n, 1.0);
    for (int k = 0; k < n; ++k) {
      s[k].curvature = a[i * n + k], s[k].thickness = b[i * n + k], s[k].conic = c[i * n + k];
      if (materials[i * n + k] >= 0) row[k] = catalog[materials[i * n + k]];
    }
    std::vector<MeritResult> r(O);
    double m = -1.0;
    copy.fn<decltype(&nuvrix_evaluate_merit)>("nuvrix_evaluate_merit")(
        s.data(), n, row.data(), waves.data(), W, &cfg, fields.data(), F, ops.data(), O,
        r.data(), nullptr, nullptr, &m);
    return m;
  }
};

}  // namespace

// The runners' order of checks: nothing for an empty population, not even
// the set-up; the merit kernel alone for an evaluation, the vary and
// select kernels as well for a generation; the scratch.
TEST(GpuLoader, DifferentialEvolutionCallRules) {
  std::vector<std::string> no_vary;
  for (std::string const& k : all_kernels()) {
    if (k != "nuvrix_de_vary_kernel") no_vary.push_back(k);
  }
  DePopulation p;
  {
    Copy none("", nullptr);  // its set-up would fail for want of a side file
    int const before = none.state().status;
    p.P = 0;
    EXPECT_EQ(p.evaluate(none, 0), 0);
    EXPECT_EQ(p.generation(none, 0, 0.5, 0.9, 0.0, 0, 0), 0);
    EXPECT_EQ(none.state().status, before);
    EXPECT_EQ(none.init(), 4);
    p.P = 24;
  }
  Copy copy("", &no_vary);
  EXPECT_EQ(copy.fn<decltype(&nuvrix_gpu_de_scratch_size)>("nuvrix_gpu_de_scratch_size")(
                p.P, p.n, p.W, p.F, p.O),
            p.bytes());
  EXPECT_EQ(p.evaluate(copy, p.bytes() - 1), -3);
  EXPECT_EQ(p.evaluate(copy, p.bytes()), 0);
  EXPECT_EQ(p.generation(copy, 0, 0.5, 0.9, 0.0, p.bytes(), p.P), -10);
  std::vector<std::string> const all = all_kernels();
  Copy full("", &all);
  EXPECT_EQ(p.generation(full, 0, 0.5, 0.9, 0.0, p.bytes() - 1, p.P), -3);
  EXPECT_EQ(outstanding(), 0);
}

// Generations on the stand-in device: no candidate ever gets worse, every
// merit is the CPU's merit of that candidate, every candidate keeps its
// bounds, the condition and the glass choices; the same seed gives the
// same population; a crossover rate of 0 changes nothing.
TEST(GpuLoader, DifferentialEvolutionGenerations) {
  std::vector<std::string> const all = all_kernels();
  Copy copy("", &all);
  ASSERT_EQ(copy.init(), 0);
  DePopulation p;
  ASSERT_EQ(p.evaluate(copy, p.bytes()), 0);
  DePopulation const start = p;
  for (int g = 0; g < 6; ++g) {
    std::vector<double> const before = p.merit;
    ASSERT_EQ(p.generation(copy, g, 0.6, 0.8, 0.3, p.bytes(), p.P), 0);
    nuvrix::kernels::DeRows const trials = {p.ta.data(), p.tb.data(), p.tc.data(),
                                            p.tmaterials.data()};
    for (int i = 0; i < p.P; ++i) {
      EXPECT_LE(p.merit[i], before[i]) << g << " " << i;
      EXPECT_EQ(p.merit[i], p.cpu_merit(copy, i)) << g << " " << i;
      EXPECT_TRUE(nuvrix::kernels::de_condition_met(trials, i, p.sys.surfaces.data(), p.n,
                                                    p.condition));
      for (size_t j = 0; j < p.table.size() / 4; ++j) {  // every trial within its bounds
        double const* row = &p.table[4 * j];
        int const k = static_cast<int>(row[0]);
        double const v = row[1] == 0.0 ? p.ta[i * p.n + k] : p.tb[i * p.n + k];
        EXPECT_TRUE(v >= row[2] && v <= row[3]) << g << " " << i << " " << j;
      }
    }
  }
  int improved = 0, glass_changed = 0;
  for (int i = 0; i < p.P; ++i) {
    improved += p.merit[i] < start.merit[i];
    int const m = p.materials[i * p.n + 3];
    EXPECT_TRUE(m == 1 || m == 2) << m;
    glass_changed += p.tmaterials[i * p.n + 3] == 2;  // a trial took the other glass
    nuvrix::kernels::DeRows const rows = {p.a.data(), p.b.data(), p.c.data(), p.materials.data()};
    EXPECT_TRUE(nuvrix::kernels::de_condition_met(rows, i, p.sys.surfaces.data(), p.n,
                                                  p.condition));
  }
  EXPECT_GT(improved, p.P / 2);
  EXPECT_GT(glass_changed, 0);
  // The same seed from the same start: the same bits.
  DePopulation q = start;
  for (int g = 0; g < 6; ++g) ASSERT_EQ(q.generation(copy, g, 0.6, 0.8, 0.3, q.bytes(), q.P), 0);
  EXPECT_EQ(q.a, p.a);
  EXPECT_EQ(q.b, p.b);
  EXPECT_EQ(q.materials, p.materials);
  EXPECT_EQ(q.merit, p.merit);
  // No crossover and no glass substitution: nothing moves.
  DePopulation r = start;
  ASSERT_EQ(r.generation(copy, 0, 0.0, 0.0, 0.0, r.bytes(), r.P), 0);
  EXPECT_EQ(r.a, start.a);
  EXPECT_EQ(r.b, start.b);
  EXPECT_EQ(r.merit, start.merit);
  EXPECT_EQ(outstanding(), 0);
}
