// The device paths against the CPU, in one run: the ray grid on the Cooke
// triplet, unaimed (ray-surface intersections a second), the population
// merit of the report's default merit function on random perturbations of
// the triplet (candidates a second, with the uploads kept), the same
// population on every CPU core through nuvrix_evaluate_merit, and the two
// trace microbenchmarks.  Without a device the device benchmarks report
// that they were skipped; the CPU population runs everywhere.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cmath>
#include <random>
#include <vector>

#include "api/nuvrix.h"
#include "tools/lens_file.hpp"
#include "tools/merit_function.hpp"

namespace {

bool device_ready() { return nuvrix_gpu_init() == 0; }

struct Triplet {
  lensfile::Lens lens;
  std::vector<MeritOperandDesc> ops;
  Triplet() {
    std::string error;
    lensfile::build_lens(lensfile::cooke_triplet(), lens, error);
    ops = lensfile::default_merit_function(lens);
  }
  int n() const { return lens.count(); }
  int waves() const { return static_cast<int>(lens.wavelengths_um.size()); }
  int fields() const { return static_cast<int>(lens.fields.size()); }
};

// A population of the triplet: every curvature within 0.5 % of the design,
// the glasses of the design from a catalogue of one row a glass surface.
struct Population {
  std::vector<double> curvatures, thicknesses, conics, catalog;
  std::vector<int> ids;
  int rows = 0;
  Population(Triplet const& t, int population) {
    int const n = t.n(), W = t.waves();
    std::vector<int> glass(n, -1);
    for (int k = 0; k < n; ++k) {
      bool air = true;
      for (int w = 0; w < W; ++w) air = air && t.lens.index(w, k) == 1.0;
      if (air) continue;
      glass[k] = rows++;
      for (int w = 0; w < W; ++w) catalog.push_back(t.lens.index(w, k));
    }
    std::mt19937_64 rng(7);
    std::uniform_real_distribution<double> spread(-0.005, 0.005);
    for (int i = 0; i < population; ++i) {
      for (int k = 0; k < n; ++k) {
        SurfaceData const& s = t.lens.surfaces[k];
        curvatures.push_back(s.curvature * (1.0 + spread(rng)));
        thicknesses.push_back(s.thickness);
        conics.push_back(s.conic);
        ids.push_back(glass[k]);
      }
    }
  }
};

void BM_GridTracerCookeTriplet(benchmark::State& state) {
  if (!device_ready()) return state.SkipWithError("no device");
  Triplet t;
  int const R = static_cast<int>(state.range(0)), n = t.n();
  std::vector<int> fields(R), waves(R), valid(R);
  std::vector<double> px(R), py(R), x(R), y(R), path(R);
  std::mt19937_64 rng(3);
  std::uniform_real_distribution<double> unit(-0.7, 0.7);
  for (int r = 0; r < R; ++r) {
    fields[r] = r % t.fields(), waves[r] = (r / t.fields()) % t.waves();
    px[r] = unit(rng), py[r] = unit(rng);
  }
  int const primary = t.lens.config.primary_wavelength;
  double const radius = nuvrix_compute_pupil_radius(t.lens.surfaces.data(), n,
                                                    t.lens.row(primary), &t.lens.config);
  double const ep = nuvrix_entrance_pupil_position(t.lens.surfaces.data(), n, t.lens.row(primary),
                                                   t.lens.config.stop_surface);
  long const bytes = nuvrix_gpu_trace_grid_scratch_size(n, t.waves(), t.fields(), R);
  void* scratch = nullptr;
  if (nuvrix_gpu_alloc_device(bytes, &scratch) != 0) return state.SkipWithError("no memory");
  int reuse = 0;
  for (auto _ : state) {
    int const status = nuvrix_gpu_run_trace_grid(
        t.lens.surfaces.data(), n, t.lens.indices.data(), t.waves(), t.lens.wavelengths_um.data(),
        &t.lens.config, t.lens.fields.data(), t.fields(), fields.data(), waves.data(), px.data(),
        py.data(), nullptr, radius, ep, x.data(), y.data(), path.data(), valid.data(), R, scratch,
        bytes, reuse);
    if (status != 0) state.SkipWithError("grid run failed");
    reuse = 1;
  }
  nuvrix_gpu_free_device(scratch);
  state.counters["intersections/s"] = benchmark::Counter(
      static_cast<double>(R) * (n - 1), benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_GridTracerCookeTriplet)->Arg(1 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PopulationMeritDevice(benchmark::State& state) {
  if (!device_ready()) return state.SkipWithError("no device");
  Triplet t;
  int const P = static_cast<int>(state.range(0)), n = t.n(), O = static_cast<int>(t.ops.size());
  Population p(t, P);
  std::vector<double> merits(P);
  long const bytes = nuvrix_gpu_merit_value_scratch_size(P, n, t.waves(), t.fields(), O);
  long const catalog_bytes = nuvrix_gpu_glass_catalog_bytes(p.rows, t.waves());
  void *scratch = nullptr, *catalog = nullptr;
  if (nuvrix_gpu_alloc_device(bytes, &scratch) != 0 ||
      nuvrix_gpu_alloc_device(catalog_bytes, &catalog) != 0 ||
      nuvrix_gpu_htod_device(catalog, p.catalog.data(), catalog_bytes) != 0) {
    nuvrix_gpu_free_device(scratch);
    return state.SkipWithError("no memory");
  }
  int reuse = 0;
  for (auto _ : state) {
    int const status = nuvrix_gpu_run_merit_value(
        t.lens.surfaces.data(), n, static_cast<double const*>(catalog), p.rows, t.waves(),
        p.ids.data(), t.lens.wavelengths_um.data(), &t.lens.config, t.lens.fields.data(),
        t.fields(), t.ops.data(), O, p.curvatures.data(), p.thicknesses.data(), p.conics.data(),
        merits.data(), P, scratch, bytes, reuse);
    if (status != 0) state.SkipWithError("population run failed");
    reuse = 1;
  }
  nuvrix_gpu_free_device(scratch);
  nuvrix_gpu_free_device(catalog);
  state.counters["candidates/s"] =
      benchmark::Counter(P, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_PopulationMeritDevice)->Arg(4096)->Arg(16384)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same candidates on every core of the machine, one evaluation each.
void BM_PopulationMeritCpu(benchmark::State& state) {
  Triplet t;
  int const P = static_cast<int>(state.range(0)), n = t.n(), O = static_cast<int>(t.ops.size());
  Population p(t, P);
  std::vector<double> merits(P);
  for (auto _ : state) {
#pragma omp parallel
    {
      std::vector<SurfaceData> s = t.lens.surfaces;
      std::vector<MeritResult> results(O);
#pragma omp for schedule(dynamic, 16)
      for (int i = 0; i < P; ++i) {
        for (int k = 0; k < n; ++k) s[k].curvature = p.curvatures[static_cast<size_t>(i) * n + k];
        nuvrix_evaluate_merit(s.data(), n, t.lens.indices.data(), t.lens.wavelengths_um.data(),
                              t.waves(), &t.lens.config, t.lens.fields.data(), t.fields(),
                              t.ops.data(), O, results.data(), nullptr, nullptr, &merits[i]);
      }
    }
    benchmark::DoNotOptimize(merits.data());
  }
  state.counters["candidates/s"] =
      benchmark::Counter(P, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["threads"] = omp_get_max_threads();
}
BENCHMARK(BM_PopulationMeritCpu)->Arg(4096)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TraceMicrobench(benchmark::State& state) {
  if (!device_ready()) return state.SkipWithError("no device");
  int const f64 = static_cast<int>(state.range(0)), rays = 1 << 20, surfaces = 16, passes = 8;
  for (auto _ : state) {
    double ms = 0.0, sum = 0.0;
    if (nuvrix_gpu_run_trace_microbench(f64, rays, surfaces, passes, 10, &ms, &sum) != 0) {
      state.SkipWithError("microbench failed");
      break;
    }
    state.SetIterationTime(ms / 1000.0 / 10.0);
  }
  state.counters["intersections/s"] = benchmark::Counter(
      static_cast<double>(rays) * surfaces * passes, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_TraceMicrobench)->Arg(0)->Arg(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
