// A generation of differential evolution: the report's Cooke triplet with
// its default merit function and six curvatures free within +-0.08 per mm,
// populations of 4096, 16384 and 65536.  On the device, one call of
// nuvrix_gpu_run_de_generation on a population that stays in device
// memory; on the CPU with every core, the same vary and select rules (the
// kernels' own bodies) around one batched evaluation of the trials.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "api/nuvrix.h"
#include "kernels/de_bodies.cuh"
#include "tools/lens_file.hpp"
#include "tools/merit_function.hpp"

namespace {

namespace kernels = nuvrix::kernels;

struct Generation {
  lensfile::Lens lens;
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritVariableDesc> vars;
  std::vector<double> table, a, b, c, merit, ta, tb, tc, tmerit, x, residuals, scratch;
  std::vector<int> materials, tmaterials;
  DeConditionDesc condition = {0.5, 0.5, 0.5, 0.0, 1, 6, {0, 0}};
  int P, n;
  explicit Generation(int population) : P(population) {
    std::string error;
    lensfile::build_lens(lensfile::cooke_triplet(), lens, error);
    ops = lensfile::default_merit_function(lens);
    n = lens.count();
    nuvrix_solve_semi_diameters(lens.surfaces.data(), n, lens.indices.data(),
                                lens.wavelengths_um.data(), 3, &lens.config, lens.fields.data(),
                                3);
    for (int k = 1; k <= 6; ++k) {
      table.insert(table.end(), {double(k), 0.0, -0.08, 0.08});
      MeritVariableDesc v = {};
      v.kind = 0, v.surface = k, v.field = -1;
      vars.push_back(v);
    }
    for (int i = 0; i < P; ++i) {
      for (int k = 0; k < n; ++k) {
        double const spread = k >= 1 && k <= 6 ? 0.002 * std::sin(0.37 * i + 1.9 * k) : 0.0;
        a.push_back(lens.surfaces[k].curvature + spread), b.push_back(lens.surfaces[k].thickness);
        c.push_back(0.0), materials.push_back(-1);
      }
    }
    ta = a, tb = b, tc = c, tmaterials = materials;
    merit.assign(P, 1e300), tmerit.assign(P, 0.0);
    x.resize(static_cast<size_t>(P) * 6), residuals.resize(static_cast<size_t>(P) * 2 * ops.size());
    scratch.resize(static_cast<size_t>(
        nuvrix_batched_scratch_size(P, n, 3, static_cast<int>(ops.size()), 6, 0, 0) / 8 + 1));
  }
  kernels::DeRows rows() { return {a.data(), b.data(), c.data(), materials.data()}; }
  kernels::DeRows trials() { return {ta.data(), tb.data(), tc.data(), tmaterials.data()}; }
  int cpu(int g) {
    static int const none[1] = {0};
    kernels::DeVary const v = {rows(), trials(), table.data(), 6, P, n, none, none, none, 0,
                               2026, g, 8, 0.5, 0.9, 0.0, 0, 0, lens.surfaces.data(),
                               condition};
#pragma omp parallel for schedule(static)
    for (int i = 0; i < P; ++i) kernels::de_vary_body(i, v);
    for (int i = 0; i < P; ++i) {
      for (int k = 1; k <= 6; ++k) x[i * 6 + k - 1] = ta[i * n + k];
    }
    int count = 0;
    MeritBatchedConfig const config = {0, 0, 0, 0, {}};
    lensfile::Lens const& L = lens;
    int const status = nuvrix_evaluate_merit_batched(
        L.surfaces.data(), n, L.indices.data(), L.wavelengths_um.data(), 3, &L.config,
        L.fields.data(), 3, ops.data(), static_cast<int>(ops.size()), vars.data(), 6, nullptr, 0,
        P, x.data(), residuals.data(), nullptr, nullptr, tmerit.data(), &count, config,
        scratch.data(), static_cast<long>(scratch.size() * 8), nullptr, nullptr, nullptr,
        nullptr, nullptr);
    for (int i = 0; i < P; ++i) {
      kernels::de_select_body(i, rows(), merit.data(), trials(), tmerit.data(), P, n);
    }
    return status;
  }
};

void BM_DeGenerationCpu(benchmark::State& state) {
  Generation g(static_cast<int>(state.range(0)));
  int k = 0;
  for (auto _ : state) benchmark::DoNotOptimize(g.cpu(k++));
  state.counters["generations/s"] = benchmark::Counter(1.0, benchmark::Counter::kIsRate);
}

// Device copies of host arrays, freed when the benchmark ends.
struct Held {
  std::vector<void*> all;
  bool ok = true;
  ~Held() {
    for (void* d : all) nuvrix_gpu_free_device(d);
  }
  template <typename T>
  T* upload(std::vector<T> const& host) {
    void* d = nullptr;
    long const bytes = static_cast<long>(sizeof(T) * host.size());
    ok = ok && nuvrix_gpu_alloc_device(bytes, &d) == 0;
    if (d != nullptr) all.push_back(d);
    ok = ok && nuvrix_gpu_htod_device(d, host.data(), bytes) == 0;
    return static_cast<T*>(d);
  }
};

void BM_DeGenerationDevice(benchmark::State& state) {
  if (nuvrix_gpu_init() != 0) {
    state.SkipWithError("no device");
    return;
  }
  Generation g(static_cast<int>(state.range(0)));
  lensfile::Lens const& L = g.lens;
  std::vector<double> catalog;
  std::vector<int> ids(g.n, -1);
  for (int k = 0; k < g.n; ++k) {
    if (L.index(0, k) == 1.0) continue;
    ids[k] = static_cast<int>(catalog.size() / 3);
    for (int w = 0; w < 3; ++w) catalog.push_back(L.index(w, k));
  }
  for (int i = 0; i < g.P; ++i) {
    for (int k = 0; k < g.n; ++k) g.materials[i * g.n + k] = ids[k];
  }
  Held h;
  double *pa = h.upload(g.a), *pb = h.upload(g.b), *pc = h.upload(g.c);
  double *pm = h.upload(g.merit), *ta = h.upload(g.ta), *tb = h.upload(g.tb);
  double *tc = h.upload(g.tc), *tm = h.upload(g.tmerit), *table = h.upload(g.table);
  int *pmat = h.upload(g.materials), *tmat = h.upload(g.materials);
  std::vector<int> const zero = {0};
  int* none = h.upload(zero);
  SurfaceData* surfaces = h.upload(L.surfaces);
  double *glass = h.upload(catalog), *waves = h.upload(L.wavelengths_um);
  SystemConfig* config = h.upload(std::vector<SystemConfig>{L.config});
  FieldData* fields = h.upload(L.fields);
  MeritOperandDesc* ops = h.upload(g.ops);
  int const O = static_cast<int>(g.ops.size());
  long const bytes = nuvrix_gpu_de_scratch_size(g.P, g.n, 3, 3, O);
  std::vector<unsigned char> const room(static_cast<size_t>(bytes));
  void* scratch = h.upload(room);
  bool const ok = h.ok &&
       nuvrix_gpu_run_de_eval_pop(pa, pb, pc, pmat, pm, surfaces, glass, waves, config, fields,
                                  ops, scratch, bytes, g.P, g.n, 3, 3, O) == 0;
  if (!ok) {
    state.SkipWithError("device memory or the first evaluation failed");
    return;
  }
  int k = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(nuvrix_gpu_run_de_generation(
        pa, pb, pc, pmat, pm, ta, tb, tc, tmat, tm, table, 6, none, none, none, 0, surfaces,
        glass, waves, config, fields, ops, scratch, bytes, g.P, g.n, 3, 3, O, 2026, k++, 8, 0.5,
        0.9, 0.0, 0, 0, g.condition));
  }
  state.counters["generations/s"] = benchmark::Counter(1.0, benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_DeGenerationDevice)->Arg(4096)->Arg(16384)->Arg(65536)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DeGenerationCpu)->Arg(4096)->Arg(16384)->Arg(65536)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
