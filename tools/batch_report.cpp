// The batch block of the nuvrix report: a few hundred random perturbations
// of the lens's curvatures evaluated in one call, their merits' spread, the
// time on one thread and on every core, with Jacobians; and with a device
// the same Jacobians through the mixed CPU and device run.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "tools/merit_function.hpp"
#include "tools/report.hpp"

namespace lensfile {
namespace {

constexpr int kCandidates = 256;
constexpr double kSpread = 0.01;  // relative spread of the perturbed curvatures
constexpr int kMaxVariables = 64;

struct Batch {
  const Lens& lens;
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritVariableDesc> vars;
  std::vector<double> x, residuals, jacobians, merits, scratch;
  long bytes = 0;

  explicit Batch(const Lens& l) : lens(l) {
    ops = !lens.merit.empty() ? lens.merit : default_merit_function(lens);
    for (int k = 1; k + 1 < lens.count() && static_cast<int>(vars.size()) < kMaxVariables; ++k) {
      if (lens.surfaces[k].curvature == 0.0) continue;
      MeritVariableDesc v = {};
      v.kind = 0, v.surface = k, v.field = -1;
      vars.push_back(v);
    }
    std::mt19937_64 rng(20261124);
    std::uniform_real_distribution<double> spread(-kSpread, kSpread);
    for (int c = 0; c < kCandidates; ++c) {
      for (const MeritVariableDesc& v : vars) {
        x.push_back(lens.surfaces[v.surface].curvature * (1.0 + (c == 0 ? 0.0 : spread(rng))));
      }
    }
    const size_t width = 2 * ops.size();
    residuals.resize(width * kCandidates);
    jacobians.resize(width * vars.size() * kCandidates);
    merits.resize(kCandidates);
    bytes = nuvrix_batched_scratch_size(kCandidates, lens.count(),
                                        static_cast<int>(lens.fields.size()),
                                        static_cast<int>(ops.size()),
                                        static_cast<int>(vars.size()), 0, 0);
    scratch.resize(static_cast<size_t>(bytes / 8 + 1));
  }
  // Status and seconds of one batch.
  int run(int use_gpu, int threads, int want_jacobian, double& seconds) {
    double sd = 0.0, a = 0.0, b = 0.0;
    int rows = 0, sd_rows = 0;
    const MeritBatchedConfig config = {use_gpu, 1, threads, want_jacobian, {}};
    const auto t0 = std::chrono::steady_clock::now();
    const int status = nuvrix_evaluate_merit_batched(
        lens.surfaces.data(), lens.count(), lens.indices.data(), lens.wavelengths_um.data(),
        static_cast<int>(lens.wavelengths_um.size()), &lens.config, lens.fields.data(),
        static_cast<int>(lens.fields.size()), ops.data(), static_cast<int>(ops.size()),
        vars.data(), static_cast<int>(vars.size()), lens.pickups.data(),
        static_cast<int>(lens.pickups.size()), kCandidates, x.data(), residuals.data(),
        jacobians.data(), nullptr, merits.data(), &rows, config, scratch.data(), bytes, &sd,
        &sd_rows, &a, &b, nullptr);
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return status;
  }
};

}  // namespace

void print_batch(const Lens& lens) {
  print_heading("Batch");
  Batch b(lens);
  if (b.vars.empty()) {
    std::printf("  no curved surface to perturb\n");
    return;
  }
  double one = 0.0, all = 0.0, jac = 0.0;
  const int status = b.run(0, 1, 0, one);
  if (status != 0 || b.run(0, 0, 0, all) != 0) {
    std::printf("  the batch returned status %d\n", status);
    return;
  }
  std::vector<double> sorted = b.merits;
  std::sort(sorted.begin(), sorted.end());
  std::printf(
      "  %d candidates: %zu curvatures perturbed by up to %.0f %% (candidate 0 the lens)\n"
      "  merit of the lens %.6g; of the population %.6g .. %.6g, median %.6g\n"
      "  values: %.1f ms on one thread, %.1f ms on every core (%.2f times)\n",
      kCandidates, b.vars.size(), 100.0 * kSpread, b.merits[0], sorted.front(), sorted.back(),
      sorted[kCandidates / 2], 1e3 * one, 1e3 * all, one / all);
  const int analytic = b.run(0, 0, 1, jac);
  if (analytic != 0) {
    std::printf("  analytic Jacobians refused (status %d) for this merit function\n", analytic);
    return;
  }
  std::printf("  analytic Jacobians on every core: %.1f ms\n", 1e3 * jac);
  const std::vector<double> cpu = b.jacobians;
  double mixed = 0.0;
  const int device = b.run(1, 0, 1, mixed);
  if (device != 0) {
    std::printf("  mixed CPU and device run: status %d (%s)\n", device,
                nuvrix_gpu_init() != 0 ? "no device" : "outside its entry conditions");
    return;
  }
  double worst = 0.0;
  for (size_t k = 0; k < cpu.size(); ++k) {
    worst = std::fmax(worst, std::fabs(b.jacobians[k] - cpu[k]) / std::fmax(std::fabs(cpu[k]), 1e-12));
  }
  std::printf("  mixed CPU and device run: %.1f ms (%.2f times the CPU batch); largest relative\n"
              "  difference of a Jacobian element from the CPU's: %.2g\n",
              1e3 * mixed, jac / mixed, worst);
}

}  // namespace lensfile
