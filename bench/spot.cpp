// Spot diagram of the Cooke triplet (EPD 10, stop on surface 4, fields 0,
// 14 and 20 degrees) at the 14-degree field: a hexapolar grid of 20 rings
// (1261 rays) at the F, d and C lines, unaimed, on one thread and on two.
// At the end the program prints the parallel speed-up of this run: the
// one-thread time over the two-thread time, medians when repeated.
//
// The index rows of the F (486.1327 nm), d (587.5618 nm) and C (656.2725 nm)
// lines come from the engine's model glass, nuvrix::model_index, with the
// catalogue nd and vd of SK16 (1.62041, 60.32) and F2 (1.62004, 36.37) and no
// partial-dispersion deviation.
#include <benchmark/benchmark.h>
#include <omp.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "api/nuvrix.h"
#include "tests/systems.hpp"
#include "trace/material.hpp"

namespace {

constexpr int kRings = 20;
constexpr int kFieldIndex = 1;  // 14 degrees

struct Glass {
  double nd, vd;
};

struct CookeSpot {
  nuvrix_test::System sys = nuvrix_test::cooke_triplet();
  std::vector<double> table;  // rows F, d, C
  double weights[3] = {1.0, 1.0, 1.0};
  SystemConfig cfg = {};
  FieldData fields[3] = {};

  CookeSpot() {
    double const lines[3] = {486.1327, 587.5618, 656.2725};
    Glass const sk16 = {1.62041, 60.32}, f2 = {1.62004, 36.37};
    Glass const behind[8] = {{1, 0}, sk16, {1, 0}, f2, {1, 0}, sk16, {1, 0}, {1, 0}};
    for (double wl : lines) {
      for (Glass const& g : behind) {
        table.push_back(g.vd == 0.0 ? 1.0 : nuvrix::model_index<double>(wl, g.nd, g.vd, 0.0));
      }
    }
    cfg.aperture_type = 0;
    cfg.aperture_value = 10.0;
    cfg.stop_surface = nuvrix_test::kCookeStop;
    cfg.primary_wavelength = 1;
    double const angles[3] = {0.0, 14.0, 20.0};
    for (int f = 0; f < 3; ++f) fields[f].field_y = angles[f];
  }

  int run(SpotDiagramResult& r) const {
    return nuvrix_compute_spot_diagram(sys.surfaces.data(), sys.count(), table.data(), weights, 3,
                                       &cfg, fields, 3, kFieldIndex, kRings, 1, &r);
  }
};

void report_rays(benchmark::State& state, int rays) {
  state.counters["rays/s"] = benchmark::Counter(static_cast<double>(state.iterations()) * rays,
                                                benchmark::Counter::kIsRate);
}

// One spot diagram on state.range(0) threads.
void BM_SpotDiagramCookeTriplet(benchmark::State& state) {
  CookeSpot const s;
  omp_set_num_threads(static_cast<int>(state.range(0)));
  SpotDiagramResult r = {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(s.run(r));
    benchmark::ClobberMemory();
  }
  report_rays(state, r.ray_count);
}
BENCHMARK(BM_SpotDiagramCookeTriplet)->ArgName("threads")->Arg(1)->Arg(2)
    ->Unit(benchmark::kMillisecond);

// The single-threaded, fixed-order variant with every hit stored.
void BM_SpotDiagramWithRaysCookeTriplet(benchmark::State& state) {
  CookeSpot const s;
  std::vector<SpotRayHit> hits(3 * (1 + 3 * kRings * (kRings + 1)));
  SpotDiagramResult r = {};
  for (auto _ : state) {
    benchmark::DoNotOptimize(nuvrix_compute_spot_diagram_with_rays(
        s.sys.surfaces.data(), s.sys.count(), s.table.data(), s.weights, 3, &s.cfg, s.fields, 3,
        kFieldIndex, kRings, 1, hits.data(), static_cast<int>(hits.size()), &r));
    benchmark::ClobberMemory();
  }
  report_rays(state, r.ray_count);
}
BENCHMARK(BM_SpotDiagramWithRaysCookeTriplet)->Unit(benchmark::kMillisecond);

// The console report, keeping the time per call of each thread count (the
// median when the benchmark is repeated).
class SpeedupReporter : public benchmark::ConsoleReporter {
 public:
  double time[3] = {0.0, 0.0, 0.0};

  SpeedupReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(std::vector<Run> const& runs) override {
    for (Run const& run : runs) {
      std::string const name = run.benchmark_name();
      if (name.find("BM_SpotDiagramCookeTriplet/threads:") != 0) continue;
      bool const median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (!median && run.run_type != Run::RT_Iteration) continue;
      int const threads = name.find("threads:1") != std::string::npos ? 1 : 2;
      time[threads] = run.GetAdjustedRealTime();
    }
    ConsoleReporter::ReportRuns(runs);
  }
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  SpeedupReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  if (reporter.time[1] > 0.0 && reporter.time[2] > 0.0) {
    std::printf("spot diagram, 1261 rays x 3 wavelengths: %.3f ms on 1 thread, %.3f ms on 2, "
                "speed-up %.2f\n",
                reporter.time[1], reporter.time[2], reporter.time[1] / reporter.time[2]);
  }
  return 0;
}
