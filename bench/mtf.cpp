// FFT MTF latency: the diffraction MTF of one wavefront map (a quarter wave
// of defocus with some coma on a circular pupil) at grid sizes 32, 64 and
// 128, on one thread and on the default OpenMP team; and the whole call
// from a system (wavefront map of a paraboloid, then its MTF) at 64.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <vector>

#include "analysis/fft_mtf.hpp"
#include "api/nuvrix.h"
#include "tests/opd_systems.hpp"
#include "tests/pupil_maps.hpp"

namespace {

int const kDefaultThreads = omp_get_max_threads();

// Runs the body with `threads` OpenMP threads (0: the default team).
struct ThreadScope {
  explicit ThreadScope(int threads) {
    omp_set_num_threads(threads > 0 ? threads : kDefaultThreads);
  }
  ~ThreadScope() { omp_set_num_threads(kDefaultThreads); }
};

void BM_FftMtfFromWavefront(benchmark::State& state) {
  int const n = static_cast<int>(state.range(0));
  ThreadScope const scope(static_cast<int>(state.range(1)));
  nuvrix_test::PupilMap const m = nuvrix_test::disc_map(n, [](double x, double y) {
    double const r2 = x * x + y * y;
    return 0.25 * r2 + 0.1 * y * r2;
  });
  std::vector<double> real(4 * n * n), imag(4 * n * n);
  std::vector<FftMtfPoint> points(101);
  FftMtfResult result;
  for (auto _ : state) {
    nuvrix::compute_fft_mtf_from_wavefront(m.w.data(), m.mask.data(), n, 100.0, 100.0, 1.0,
                                           real.data(), imag.data(), points.data(), 101, &result);
    benchmark::DoNotOptimize(points.data());
  }
  state.counters["threads"] = omp_get_max_threads();
}
BENCHMARK(BM_FftMtfFromWavefront)
    ->ArgsProduct({{32, 64, 128}, {1, 0}})
    ->ArgNames({"grid", "threads"})
    ->Unit(benchmark::kMillisecond);

void BM_FftMtfParaboloidSystem(benchmark::State& state) {
  int const n = static_cast<int>(state.range(0));
  ThreadScope const scope(static_cast<int>(state.range(1)));
  nuvrix_test::System const sys = opd_test::paraboloid(100.0, 0.0);
  SystemConfig const cfg = opd_test::pupil_at_first_surface(10.0);
  FieldData const axis = {0.0, 1.0, 0.0};
  std::vector<double> map(n * n), real(4 * n * n), imag(4 * n * n);
  std::vector<int> mask(n * n);
  std::vector<FftMtfPoint> points(101);
  FftMtfResult result;
  for (auto _ : state) {
    nuvrix_compute_fft_mtf(sys.surfaces.data(), sys.count(), sys.row(), sys.row(), 0.55, &cfg,
                           &axis, 1, 0, n, 100.0, 360.0, 360.0, 3.6, map.data(), mask.data(),
                           real.data(), imag.data(), points.data(), 101, &result);
    benchmark::DoNotOptimize(points.data());
  }
  state.counters["threads"] = omp_get_max_threads();
}
BENCHMARK(BM_FftMtfParaboloidSystem)
    ->ArgsProduct({{64}, {1, 0}})
    ->ArgNames({"grid", "threads"})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
