// Single-thread real-ray throughput of the exported trace: rays per second
// and ray-surface intersections per second, on the Cooke triplet and on a
// singlet with an eight-term even asphere.
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

void BM_TraceEightTermAsphere(benchmark::State& state) {
  run(state, nuvrix_test::eight_term_asphere(), 8.0);
}
BENCHMARK(BM_TraceEightTermAsphere);

}  // namespace

BENCHMARK_MAIN();
