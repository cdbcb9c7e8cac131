// The driver loader against a stand-in driver (fake_cuda.cpp), on any
// machine.  Each case loads its own copy of the library from a folder of
// its own, with the side file the case needs beside it: a copy is a new
// instance with its own once-only set-up, so every case starts afresh.
// This program does not link the library, so that no instance in the
// global scope takes the copies' calls to their own exported functions.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "api/nuvrix.h"
#include "gpu/cuda_loader.hpp"
#include "tests/systems.hpp"

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
