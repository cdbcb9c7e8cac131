// Aimed rays per second: the exported front end with aiming on the Cooke
// triplet, every ray of a pupil grid at three fields aimed at its point of
// the stop and traced to the image, single thread.  A second benchmark
// times the exported aim alone from the paraxial pupil launch.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "api/nuvrix.h"
#include "tests/systems.hpp"

namespace {

struct PupilPoint {
  double field, px, py;
};

std::vector<PupilPoint> grid() {
  std::vector<PupilPoint> out;
  for (double field : {0.0, 14.0, 20.0}) {
    for (int i = 0; i <= 8; ++i) {
      for (int j = 0; j <= 8; ++j) {
        double const px = -1.0 + 0.25 * i, py = -1.0 + 0.25 * j;
        if (px * px + py * py <= 1.0) out.push_back({field, px, py});
      }
    }
  }
  return out;
}

struct Setup {
  nuvrix_test::System sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = {};
  double pupil_radius = 0.0, ep = 0.0, stop_radius = 0.0;
  Setup() {
    cfg.aperture_type = 0;
    cfg.aperture_value = 10.0;
    cfg.stop_surface = nuvrix_test::kCookeStop;
    cfg.ray_aiming = 1;
    pupil_radius = nuvrix_compute_pupil_radius(sys.surfaces.data(), sys.count(), sys.row(), &cfg);
    ep = nuvrix_entrance_pupil_position(sys.surfaces.data(), sys.count(), sys.row(),
                                        cfg.stop_surface);
    stop_radius = nuvrix_compute_stop_radius(sys.surfaces.data(), sys.count(), sys.row(), &cfg);
  }
};

void BM_AimedRayCookeTriplet(benchmark::State& state) {
  Setup const s;
  std::vector<PupilPoint> const points = grid();
  long valid = 0;
  for (auto _ : state) {
    for (PupilPoint const& p : points) {
      RayTraceResult const r = nuvrix_trace_arbitrary_ray(
          s.sys.surfaces.data(), s.sys.count(), s.sys.row(), &s.cfg, 1, 0, p.field,
          s.pupil_radius, p.px, p.py, 587.5618, s.ep, s.stop_radius);
      valid += r.valid;
      benchmark::DoNotOptimize(r);
    }
  }
  double const rays = static_cast<double>(state.iterations()) * points.size();
  state.counters["aimed_rays/s"] = benchmark::Counter(rays, benchmark::Counter::kIsRate);
  state.counters["valid_fraction"] = valid / rays;
}
BENCHMARK(BM_AimedRayCookeTriplet);

void BM_AimToStopCookeTriplet(benchmark::State& state) {
  Setup const s;
  std::vector<PupilPoint> const points = grid();
  long converged = 0;
  for (auto _ : state) {
    for (PupilPoint const& p : points) {
      double const a = p.field * 3.14159265358979323846 / 180.0;
      double const m = std::sin(a), n = std::cos(a);
      AimToStopResult const r = nuvrix_aim_to_stop(
          s.sys.surfaces.data(), s.sys.count(), s.sys.row(), s.cfg.stop_surface,
          p.px * s.pupil_radius, p.py * s.pupil_radius - s.ep * m / n, 0.0, m, n, p.px, p.py,
          s.stop_radius);
      converged += r.converged;
      benchmark::DoNotOptimize(r);
    }
  }
  double const rays = static_cast<double>(state.iterations()) * points.size();
  state.counters["aims/s"] = benchmark::Counter(rays, benchmark::Counter::kIsRate);
  state.counters["converged_fraction"] = converged / rays;
}
BENCHMARK(BM_AimToStopCookeTriplet);

}  // namespace

BENCHMARK_MAIN();
