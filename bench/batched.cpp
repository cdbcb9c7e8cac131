// The batch's cost: populations of 256, 1024 and 4096 candidates of the
// report's Cooke triplet with its default merit function and its six
// curvatures as variables, values only and with analytic Jacobians, on one
// thread, two threads and every core (thread_count 0), and through the
// mixed CPU and device run when a device is present.
#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "api/nuvrix.h"
#include "tools/lens_file.hpp"
#include "tools/merit_function.hpp"

namespace {

struct Population {
  lensfile::Lens lens;
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritVariableDesc> vars;
  std::vector<double> x, residuals, jacobians, merits, scratch;
  std::vector<MeritResult> results;
  long scratch_bytes = 0;
  int count = 0;
  explicit Population(int candidates) : count(candidates) {
    std::string error;
    lensfile::build_lens(lensfile::cooke_triplet(), lens, error);
    ops = lensfile::default_merit_function(lens);
    for (int i = 1; i <= 6; ++i) {
      MeritVariableDesc v = {};
      v.kind = 0, v.surface = i, v.field = -1;
      vars.push_back(v);
    }
    // Each curvature a few parts in a thousand of a radius away from the lens.
    for (int c = 0; c < count; ++c) {
      for (int i = 1; i <= 6; ++i) {
        x.push_back(lens.surfaces[i].curvature + 2e-4 * std::sin(0.37 * c + 1.9 * i));
      }
    }
    size_t const width = 2 * ops.size();
    residuals.resize(width * count);
    jacobians.resize(width * vars.size() * count);
    merits.resize(count);
    results.resize(ops.size() * count);
    scratch_bytes = nuvrix_batched_scratch_size(count, lens.count(),
                                                static_cast<int>(lens.fields.size()),
                                                static_cast<int>(ops.size()), 6, 0, 0);
    scratch.resize(static_cast<size_t>(scratch_bytes / 8 + 1));
  }
  int run(int use_gpu, int threads, int want_jacobian) {
    lensfile::Lens const& L = lens;
    double sd = 0.0, a = 0.0, b = 0.0;
    int rows = 0, sd_rows = 0;
    MeritBatchedConfig const config = {use_gpu, 1, threads, want_jacobian, {}};
    return nuvrix_evaluate_merit_batched(
        L.surfaces.data(), L.count(), L.indices.data(), L.wavelengths_um.data(),
        static_cast<int>(L.wavelengths_um.size()), &L.config, L.fields.data(),
        static_cast<int>(L.fields.size()), ops.data(), static_cast<int>(ops.size()), vars.data(),
        6, nullptr, 0, count, x.data(), residuals.data(), jacobians.data(), results.data(),
        merits.data(), &rows, config, scratch.data(), scratch_bytes, &sd, &sd_rows, &a, &b,
        nullptr);
  }
};

// args: candidates, threads (0: every core), Jacobians, device.
void BM_Batch(benchmark::State& state) {
  int const candidates = static_cast<int>(state.range(0)), threads = static_cast<int>(state.range(1));
  int const want = static_cast<int>(state.range(2)), device = static_cast<int>(state.range(3));
  if (device != 0 && nuvrix_gpu_init() != 0) {
    state.SkipWithError("no device");
    return;
  }
  Population p(candidates);
  if (p.run(device, threads, want) != 0) {
    state.SkipWithError("the batch refused the merit function");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(p.run(device, threads, want));
  state.counters["candidates/s"] = benchmark::Counter(
      static_cast<double>(candidates), benchmark::Counter::kIsIterationInvariantRate);
}

void arguments(benchmark::internal::Benchmark* b) {
  b->ArgNames({"candidates", "threads", "jacobian", "device"});
  for (int want : {0, 1}) {
    for (int candidates : {256, 1024, 4096}) {
      for (int threads : {1, 2, 0}) b->Args({candidates, threads, want, 0});
      if (want == 1) b->Args({candidates, 0, want, 1});
    }
  }
}

}  // namespace

BENCHMARK(BM_Batch)->Apply(arguments)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
