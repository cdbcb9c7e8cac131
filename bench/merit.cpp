// The merit driver's cost: nuvrix_evaluate_merit on the Cooke triplet with
// the report's default merit function (transverse x and y on a hexapolar
// pupil at every field and wavelength, the focal length, thickness and edge
// bounds), one thread; and the rays its operands trace, traced bare through
// the exported front end with the same arguments.  The ratio of the two
// medians is what the driver and the catalogue add.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "api/nuvrix.h"
#include "tools/lens_file.hpp"
#include "tools/merit_function.hpp"

namespace {

struct Setup {
  lensfile::Lens lens;
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritResult> results;
  std::vector<double> residuals;
  double max_y = 0.0, max_x = 0.0, pupil_radius = 0.0, ep = 0.0;
  int rays = 0;
  Setup() {
    std::string error;
    lensfile::build_lens(lensfile::cooke_triplet(), lens, error);
    ops = lensfile::default_merit_function(lens);
    results.resize(ops.size());
    residuals.resize(2 * ops.size());
    for (FieldData const& f : lens.fields) {
      max_y = std::fmax(max_y, std::fabs(f.field_y));
      max_x = std::fmax(max_x, std::fabs(f.field_x));
    }
    int const primary = lens.config.primary_wavelength;
    pupil_radius =
        nuvrix_compute_pupil_radius(lens.surfaces.data(), lens.count(), lens.row(primary), &lens.config);
    ep = nuvrix_entrance_pupil_position(lens.surfaces.data(), lens.count(), lens.row(primary),
                                        lens.config.stop_surface);
    for (MeritOperandDesc const& op : ops) rays += op.type == 70 || op.type == 71;
  }
};

void BM_EvaluateMeritCookeTriplet(benchmark::State& state) {
  Setup s;
  lensfile::Lens const& L = s.lens;
  double merit = 0.0;
  int slots = 0;
  for (auto _ : state) {
    int const unsupported = nuvrix_evaluate_merit(
        L.surfaces.data(), L.count(), L.indices.data(), L.wavelengths_um.data(),
        static_cast<int>(L.wavelengths_um.size()), &L.config, L.fields.data(),
        static_cast<int>(L.fields.size()), s.ops.data(), static_cast<int>(s.ops.size()),
        s.results.data(), s.residuals.data(), &slots, &merit);
    benchmark::DoNotOptimize(unsupported);
  }
  state.counters["evaluations/s"] = benchmark::Counter(1.0, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["operands/s"] = benchmark::Counter(static_cast<double>(s.ops.size()),
                                                    benchmark::Counter::kIsIterationInvariantRate);
  state.counters["operands"] = static_cast<double>(s.ops.size());
  state.counters["merit"] = merit;
}

// One trace per transverse operand, as the catalogue traces it.
void BM_BareTracesOfTheOperands(benchmark::State& state) {
  Setup s;
  lensfile::Lens const& L = s.lens;
  for (auto _ : state) {
    for (MeritOperandDesc const& op : s.ops) {
      if (op.type != 70 && op.type != 71) continue;
      RayTraceResult const r = nuvrix_trace_arbitrary_ray(
          L.surfaces.data(), L.count(), L.row(op.wave), &L.config, 0, 0, op.hy * s.max_y,
          s.pupil_radius, op.px, op.py, 0.0, s.ep, 0.0);
      benchmark::DoNotOptimize(r);
    }
  }
  state.counters["rays/s"] = benchmark::Counter(static_cast<double>(s.rays),
                                                benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_EvaluateMeritCookeTriplet)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareTracesOfTheOperands)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
