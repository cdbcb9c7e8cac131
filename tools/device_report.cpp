// The device block of the nuvrix report: what the engine's GPU set-up
// found, and with a device the merit of a population of random
// perturbations of the lens in one launch, timed beside the same
// evaluations on the CPU.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include "tools/merit_function.hpp"
#include "tools/report.hpp"

namespace lensfile {
namespace {

constexpr int kPopulation = 4096;
constexpr double kSpread = 0.005;  // relative spread of the perturbed curvatures
constexpr int kDefaultRings = 2;

const char* setup_words(int status) {
  switch (status) {
    case 1: return "no CUDA driver (libcuda.so) on this machine, or none with a device";
    case 2: return "the driver reports no device";
    case 3: return "the device's context cannot be made";
    case 4: return "no usable nuvrix_kernel.fatbin beside the library";
    default: return "the device cannot be used";
  }
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

void population_on_device(const Lens& lens) {
  const std::vector<MeritOperandDesc> ops =
      !lens.merit.empty() ? lens.merit : default_merit_function(lens, kDefaultRings);
  const int n = lens.count(), W = static_cast<int>(lens.wavelengths_um.size());
  const int F = static_cast<int>(lens.fields.size()), O = static_cast<int>(ops.size());
  std::vector<double> catalog;
  std::vector<int> one;
  glass_catalogue(lens, catalog, one);
  const int rows = static_cast<int>(catalog.size()) / W;
  std::vector<int> ids;
  std::vector<double> curv, thick, conic;
  std::mt19937_64 rng(20261123);
  std::uniform_real_distribution<double> spread(-kSpread, kSpread);
  for (int i = 0; i < kPopulation; ++i) {
    for (int k = 0; k < n; ++k) {
      const SurfaceData& s = lens.surfaces[k];
      curv.push_back(s.curvature * (1.0 + (i == 0 ? 0.0 : spread(rng))));
      thick.push_back(s.thickness);
      conic.push_back(s.conic);
      ids.push_back(one[k]);
    }
  }
  void* d_catalog = nullptr;
  void* scratch = nullptr;
  const long bytes = nuvrix_gpu_merit_value_scratch_size(kPopulation, n, W, F, O);
  const long catalog_bytes = nuvrix_gpu_glass_catalog_bytes(rows, W);
  if (nuvrix_gpu_alloc_device(catalog_bytes, &d_catalog) != 0 ||
      nuvrix_gpu_htod_device(d_catalog, catalog.data(), catalog_bytes) != 0 ||
      nuvrix_gpu_alloc_device(bytes, &scratch) != 0) {
    std::printf("  device memory for the population could not be had (%.1f MB)\n", bytes / 1e6);
    nuvrix_gpu_free_device(d_catalog);
    return;
  }
  std::vector<double> gpu(kPopulation), cpu(kPopulation);
  int status = 0;
  double first = 0.0, again = 0.0;
  for (int reuse = 0; reuse < 2 && status == 0; ++reuse) {
    const auto t0 = std::chrono::steady_clock::now();
    status = nuvrix_gpu_run_merit_value(
        lens.surfaces.data(), n, static_cast<const double*>(d_catalog), rows, W, ids.data(),
        lens.wavelengths_um.data(), &lens.config, lens.fields.data(), F, ops.data(), O,
        curv.data(), thick.data(), conic.data(), gpu.data(), kPopulation, scratch, bytes, reuse);
    (reuse == 0 ? first : again) = seconds_since(t0);
  }
  nuvrix_gpu_free_device(scratch);
  nuvrix_gpu_free_device(d_catalog);
  if (status != 0) {
    std::printf("  the population run failed: status %d, driver error %d\n", status,
                nuvrix_gpu_last_cuda_error());
    return;
  }
  std::vector<MeritResult> results(O);
  std::vector<SurfaceData> s = lens.surfaces;
  const auto t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < kPopulation; ++i) {
    for (int k = 0; k < n; ++k) s[k].curvature = curv[static_cast<size_t>(i) * n + k];
    nuvrix_evaluate_merit(s.data(), n, lens.indices.data(), lens.wavelengths_um.data(), W,
                          &lens.config, lens.fields.data(), F, ops.data(), O, results.data(),
                          nullptr, nullptr, &cpu[i]);
  }
  const double on_cpu = seconds_since(t0);
  double lo = gpu[0], hi = gpu[0], worst = 0.0;
  for (int i = 0; i < kPopulation; ++i) {
    lo = std::fmin(lo, gpu[i]), hi = std::fmax(hi, gpu[i]);
    const double scale = std::fmax(std::fabs(cpu[i]), 1e-300);
    worst = std::fmax(worst, std::fabs(gpu[i] - cpu[i]) / scale);
  }
  std::printf(
      "  %d candidates: the curvatures perturbed by up to %.1f %% (candidate 0 the lens)\n"
      "  merit of the lens %.6g; of the population %.6g .. %.6g\n"
      "  device, one launch: %.2f ms with the uploads, %.2f ms reusing them\n"
      "  CPU, one candidate after another on one thread: %.2f ms (%.1f times the device)\n"
      "  largest relative difference of a candidate's merit, device against CPU: %.2g\n",
      kPopulation, 100.0 * kSpread, gpu[0], lo, hi, 1e3 * first, 1e3 * again, 1e3 * on_cpu,
      on_cpu / again, worst);
}

}  // namespace

void print_device(const Lens& lens) {
  print_heading("Device");
  const int status = nuvrix_gpu_init();
  const GpuQueryResult q = nuvrix_gpu_query();
  if (status != 0 || q.available == 0) {
    std::printf("  no device available (set-up status %d): %s;\n"
                "  every result above came from the CPU\n",
                status, setup_words(status));
    return;
  }
  std::printf(
      "  device 0: compute capability %d.%d, %d multiprocessors of %d threads, blocks of up to\n"
      "  %d threads, warps of %d; a population of %d fills it with the merit kernel\n",
      q.compute_major, q.compute_minor, q.multiprocessor_count,
      q.max_threads_per_multiprocessor, q.max_threads_per_block, q.warp_size,
      nuvrix_gpu_merit_value_fill_count());
  population_on_device(lens);
}

// The lens's glasses as a device catalogue: one row for each surface that
// is followed by glass (its indices at every wavelength), air elsewhere.
void glass_catalogue(const Lens& lens, std::vector<double>& catalog, std::vector<int>& ids) {
  const int n = lens.count(), W = static_cast<int>(lens.wavelengths_um.size());
  ids.assign(n, -1);
  int rows = 0;
  for (int k = 0; k < n; ++k) {
    bool air = true;
    for (int w = 0; w < W; ++w) air = air && lens.index(w, k) == 1.0;
    if (air) continue;
    ids[k] = rows++;
    for (int w = 0; w < W; ++w) catalog.push_back(lens.index(w, k));
  }
  if (catalog.empty()) catalog.assign(W, 1.0);  // a device catalogue holds a row at least
}

}  // namespace lensfile
