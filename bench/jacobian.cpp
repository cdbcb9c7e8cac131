// The merit Jacobian's cost: the Cooke triplet of the report with its
// default merit function and eight variables (the six curvatures and the
// two air spaces), through nuvrix_evaluate_merit_and_jacobian: the analytic
// method on one thread, finite differences on one and on two threads.
#include <benchmark/benchmark.h>

#include <vector>

#include "api/nuvrix.h"
#include "tools/lens_file.hpp"
#include "tools/merit_function.hpp"

namespace {

struct Setup {
  lensfile::Lens lens;
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritVariableDesc> vars;
  std::vector<MeritResult> results, thread_results;
  std::vector<double> residuals, thread_residuals, jacobian;
  std::vector<SurfaceData> work;
  std::vector<FieldData> work_fields;
  Setup() {
    std::string error;
    lensfile::build_lens(lensfile::cooke_triplet(), lens, error);
    ops = lensfile::default_merit_function(lens);
    for (int i = 1; i <= 6; ++i) vars.push_back(variable(0, i));
    vars.push_back(variable(1, 2));
    vars.push_back(variable(1, 4));
    size_t const m = ops.size(), threads = 2;
    results.resize(m);
    residuals.resize(2 * m);
    thread_results.resize(m * threads);
    thread_residuals.resize(2 * m * threads);
    jacobian.resize(2 * m * vars.size());
    work.resize(lens.surfaces.size() * threads);
    work_fields.resize(lens.fields.size() * threads);
  }
  static MeritVariableDesc variable(unsigned kind, int surface) {
    MeritVariableDesc v = {};
    v.kind = kind;
    v.surface = surface;
    return v;
  }
  int run(int mode, int threads) {
    lensfile::Lens const& L = lens;
    double merit = 0.0, sd = 0.0, a = 0.0, b = 0.0;
    int rows = 0, sd_rows = 0;
    return nuvrix_evaluate_merit_and_jacobian(
        L.surfaces.data(), L.count(), L.indices.data(), L.wavelengths_um.data(),
        static_cast<int>(L.wavelengths_um.size()), &L.config, L.fields.data(),
        static_cast<int>(L.fields.size()), ops.data(), static_cast<int>(ops.size()), vars.data(),
        static_cast<int>(vars.size()), nullptr, 0, mode, threads > 1, threads, results.data(),
        residuals.data(), work.data(), work_fields.data(), thread_results.data(),
        thread_residuals.data(), jacobian.data(), &rows, &merit, &sd, &sd_rows, &a, &b, nullptr);
  }
};

void jacobian_bench(benchmark::State& state, int mode, int threads) {
  Setup s;
  if (s.run(mode, threads) != 0) {
    state.SkipWithError("the call refused the merit function");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(s.run(mode, threads));
  state.counters["jacobians/s"] =
      benchmark::Counter(1.0, benchmark::Counter::kIsIterationInvariantRate);
  state.counters["operands"] = static_cast<double>(s.ops.size());
  state.counters["variables"] = static_cast<double>(s.vars.size());
}

void BM_JacobianAnalyticOneThread(benchmark::State& state) { jacobian_bench(state, 1, 1); }
void BM_JacobianFiniteDifferencesOneThread(benchmark::State& state) { jacobian_bench(state, 0, 1); }
void BM_JacobianFiniteDifferencesTwoThreads(benchmark::State& state) { jacobian_bench(state, 0, 2); }

}  // namespace

BENCHMARK(BM_JacobianAnalyticOneThread)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_JacobianFiniteDifferencesOneThread)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_JacobianFiniteDifferencesTwoThreads)->Unit(benchmark::kMicrosecond)->UseRealTime();

BENCHMARK_MAIN();
