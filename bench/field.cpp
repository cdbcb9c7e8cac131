// Relative illumination curve latency: 11 points (point_count 10) over
// 0 ... 20 deg on the Cooke triplet, EPD 10, stop on surface 4.  Each point
// costs one chief ray and 24 x 16 bisection probes; the axis is traced once
// more for the reference.  Unaimed and aimed (mode 1) launches.
#include <benchmark/benchmark.h>

#include "api/nuvrix.h"
#include "tests/systems.hpp"

namespace {

void BM_RelativeIlluminationCurveCooke(benchmark::State& state) {
  nuvrix_test::System const sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = {};
  cfg.aperture_type = 0;
  cfg.aperture_value = 10.0;
  cfg.stop_surface = nuvrix_test::kCookeStop;
  cfg.ray_aiming = static_cast<int>(state.range(0));
  RelativeIlluminationPoint points[11];
  RelativeIlluminationResult result;
  for (auto _ : state) {
    nuvrix_compute_relative_illumination(sys.surfaces.data(), sys.count(), sys.row(), &cfg, 10,
                                         20.0, 0, points, &result);
    benchmark::DoNotOptimize(points);
  }
  state.counters["edge_illumination"] = points[10].illumination;
}
BENCHMARK(BM_RelativeIlluminationCurveCooke)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
