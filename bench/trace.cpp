// Single-thread real-ray throughput of the exported trace: rays per second
// and ray-surface intersections per second, on the Cooke triplet and on a
// singlet with an eight-term even asphere; the latency of one ray alone; and
// the latencies of the operations that bound it.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "api/nuvrix.h"
#include "tests/systems.hpp"

namespace {

// A fan of launch heights and slopes across a 10 mm pupil at 0 to 20 degrees.
struct Launch {
  double y, m, n;
};

std::vector<Launch> launches(double pupil_radius) {
  std::vector<Launch> out;
  for (int f = 0; f < 8; ++f) {
    double const a = (20.0 * f / 7.0) * 3.14159265358979323846 / 180.0;
    for (int p = 0; p < 32; ++p) {
      double const y = pupil_radius * (2.0 * (p + 0.5) / 32.0 - 1.0) - 25.0 * std::tan(a);
      out.push_back({y, std::sin(a), std::cos(a)});
    }
  }
  return out;
}

void run(benchmark::State& state, nuvrix_test::System const& sys, double pupil_radius) {
  std::vector<Launch> const rays = launches(pupil_radius);
  int const traced_surfaces = sys.count() - 1;
  long valid = 0;
  for (auto _ : state) {
    for (Launch const& r : rays) {
      RayTraceResult const res = nuvrix_trace_ray(sys.surfaces.data(), sys.count(), sys.row(), 1, 0,
                                                  0.0, r.y, 0.0, r.m, r.n, 587.5618);
      valid += res.valid;
      benchmark::DoNotOptimize(res);
    }
  }
  double const n_rays = static_cast<double>(state.iterations()) * rays.size();
  state.counters["rays/s"] = benchmark::Counter(n_rays, benchmark::Counter::kIsRate);
  state.counters["intersections/s"] =
      benchmark::Counter(n_rays * traced_surfaces, benchmark::Counter::kIsRate);
  state.counters["valid_fraction"] = valid / n_rays;
}

void BM_TraceCookeTriplet(benchmark::State& state) {
  run(state, nuvrix_test::cooke_triplet(), 5.0);
}
BENCHMARK(BM_TraceCookeTriplet);

// The same rays, each launched only once the previous one has finished: its
// launch height takes 0 times the previous ray's phase, which changes no bit
// but makes the rays dependent.  This is the latency of one ray through the
// chain of dependent divisions and square roots of the trace; the ratio of
// the two benchmarks shows how much the processor overlaps independent rays.
void BM_TraceCookeTripletOneAtATime(benchmark::State& state) {
  nuvrix_test::System const sys = nuvrix_test::cooke_triplet();
  std::vector<Launch> const rays = launches(5.0);
  double zero = 0.0;
  benchmark::DoNotOptimize(zero);  // a zero the compiler cannot fold away
  double carry = 0.0;
  for (auto _ : state) {
    for (Launch const& r : rays) {
      RayTraceResult const res = nuvrix_trace_ray(sys.surfaces.data(), sys.count(), sys.row(), 1,
                                                  0, 0.0, r.y + carry, 0.0, r.m, r.n, 587.5618);
      carry = zero * res.phase_waves;
    }
  }
  double const n_rays = static_cast<double>(state.iterations()) * rays.size();
  state.counters["rays/s"] = benchmark::Counter(n_rays, benchmark::Counter::kIsRate);
  state.counters["intersections/s"] =
      benchmark::Counter(n_rays * (sys.count() - 1), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_TraceCookeTripletOneAtATime);

// Latencies of the two operations that dominate the trace: a chain of
// dependent divisions and a chain of dependent square roots (each root
// followed by an addition, which the trace has as well).
void BM_DivisionLatency(benchmark::State& state) {
  double x = 1.0000001;
  for (auto _ : state) {
    for (int k = 0; k < 1000; ++k) x = 1.0000001 / x;
    benchmark::DoNotOptimize(x);
  }
  state.counters["ns/op"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * 1000.0,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_DivisionLatency);

void BM_SquareRootLatency(benchmark::State& state) {
  double x = 3.0;
  for (auto _ : state) {
    for (int k = 0; k < 1000; ++k) x = std::sqrt(x) + 1.0;
    benchmark::DoNotOptimize(x);
  }
  state.counters["ns/op"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * 1000.0,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_SquareRootLatency);

void BM_AdditionLatency(benchmark::State& state) {
  double x = 3.0;
  for (auto _ : state) {
    for (int k = 0; k < 1000; ++k) x = x + 1e-9;
    benchmark::DoNotOptimize(x);
  }
  state.counters["ns/op"] = benchmark::Counter(
      static_cast<double>(state.iterations()) * 1000.0,
      benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_AdditionLatency);

void BM_TraceEightTermAsphere(benchmark::State& state) {
  run(state, nuvrix_test::eight_term_asphere(), 8.0);
}
BENCHMARK(BM_TraceEightTermAsphere);

}  // namespace

BENCHMARK_MAIN();
