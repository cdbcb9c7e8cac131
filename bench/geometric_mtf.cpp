// Binned geometric MTF latency: the Cooke triplet (EPD 10, stop on surface
// 4, d line) at the fields 0, 14 and 20 degrees, 64 pupil samples across
// (3228 rays, each traced twice: extents, then bins), an image array of 256,
// frequencies 0 to 100 cycles/mm; on one thread and on the default team.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <vector>

#include "api/nuvrix.h"
#include "tests/systems.hpp"

namespace {

int const kDefaultThreads = omp_get_max_threads();
constexpr int kSamples = 64;
constexpr int kGrid = 256;

// Runs the body with `threads` OpenMP threads (0: the default team).
struct ThreadScope {
  explicit ThreadScope(int threads) {
    omp_set_num_threads(threads > 0 ? threads : kDefaultThreads);
  }
  ~ThreadScope() { omp_set_num_threads(kDefaultThreads); }
};

void BM_GeometricMtfCookeTriplet(benchmark::State& state) {
  int const field_index = static_cast<int>(state.range(0));
  ThreadScope const scope(static_cast<int>(state.range(1)));
  nuvrix_test::System const sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = {};
  cfg.aperture_value = 10.0;
  cfg.stop_surface = nuvrix_test::kCookeStop;
  FieldData const fields[3] = {{0.0, 1.0, 0.0}, {14.0, 1.0, 0.0}, {20.0, 1.0, 0.0}};
  std::vector<double> real(kGrid * kGrid), imag(kGrid * kGrid);
  std::vector<GeometricMtfPoint> points(101);
  GeometricMtfResult result;
  for (auto _ : state) {
    int const status = nuvrix_compute_geometric_mtf(
        sys.surfaces.data(), sys.count(), sys.row(), &cfg, fields, 3, field_index, 0, kSamples, 0,
        100.0, 100.0, real.data(), imag.data(), kGrid, points.data(), 101, &result);
    benchmark::DoNotOptimize(status);
    benchmark::ClobberMemory();
  }
  state.counters["threads"] = omp_get_max_threads();
}
BENCHMARK(BM_GeometricMtfCookeTriplet)
    ->ArgsProduct({{0, 1, 2}, {1, 0}})
    ->ArgNames({"field", "threads"})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
