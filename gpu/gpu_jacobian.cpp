// The runners of the Jacobian kernels: device buffers of their own, freed
// on every path.
#include "gpu/gpu_jacobian.hpp"

#include "gpu/cuda_loader.hpp"
#include "kernels/jacobian_bodies.cuh"

namespace nuvrix {
namespace gpu {
namespace {

constexpr int kMaxBuffers = 24;
constexpr int kMaxVariables = 64;

// The device buffers of one run: each allocation is remembered and freed
// when the run ends, whatever its outcome.
struct Buffers {
  CUdeviceptr held[kMaxBuffers] = {};
  int count = 0;
  int status = 0;  // the first failure
  ~Buffers() {
    for (int k = 0; k < count; ++k) g_api.cuMemFree_v2(held[k]);
  }
  void fail(int code, CUresult r) {
    if (status == 0) status = code, g_last_cu_error = r;
  }
  CUdeviceptr make(long bytes) {
    if (status != 0 || bytes < 1) return 0;
    CUdeviceptr d = 0;
    CUresult const r = g_api.cuMemAlloc_v2(&d, static_cast<size_t>(bytes));
    if (r != kCudaSuccess || count == kMaxBuffers) {
      fail(-3, r);
      return 0;
    }
    held[count++] = d;
    return d;
  }
  // A buffer holding `bytes` of host data; 0 for a null array.
  CUdeviceptr with(void const* host, long bytes) {
    if (host == nullptr) return 0;
    CUdeviceptr const d = make(bytes);
    if (status != 0) return 0;
    CUresult const r = g_api.cuMemcpyHtoD_v2(d, host, static_cast<size_t>(bytes));
    if (r != kCudaSuccess) fail(-4, r);
    return d;
  }
  void back(void* host, CUdeviceptr d, long bytes) {
    if (status != 0 || host == nullptr) return;
    CUresult const r = g_api.cuMemcpyDtoH_v2(host, d, static_cast<size_t>(bytes));
    if (r != kCudaSuccess) fail(-7, r);
  }
  void run(CUfunction f, unsigned grid, unsigned block, void** params) {
    if (status != 0) return;
    CUresult r = g_api.cuLaunchKernel(f, grid, 1, 1, block, 1, 1, 0, nullptr, params, nullptr);
    if (r != kCudaSuccess) return fail(-5, r);
    r = g_api.cuCtxSynchronize();
    if (r != kCudaSuccess) fail(-6, r);
  }
};

bool variables_in_range(int const* variable_surfaces, int variable_count, int n) {
  for (int v = 0; v < variable_count; ++v) {
    if (variable_surfaces[v] < 1 || variable_surfaces[v] > n - 1) return false;
  }
  return true;
}

}  // namespace

int cuda_run_efl_jacobian(SurfaceData const* surfaces, int n, double const* row,
                          int const* variable_surfaces, int variable_count,
                          double const* values, double const* factors, double* results,
                          double* rows, int count) {
  if (n < 2 || n > 256 || variable_count < 1 || variable_count > kMaxVariables) return -8;
  if (count < 1) return 0;
  if (surfaces == nullptr || row == nullptr || variable_surfaces == nullptr ||
      values == nullptr || results == nullptr || rows == nullptr) {
    return -3;
  }
  if (!variables_in_range(variable_surfaces, variable_count, n)) return -8;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  g_last_cu_error = 0;
  long const N = n, V = variable_count, C = count;
  Buffers b;
  CUdeviceptr d_surfaces = b.with(surfaces, 200 * N), d_row = b.with(row, 8 * N);
  CUdeviceptr d_vars = b.with(variable_surfaces, 4 * V), d_values = b.with(values, 8 * C * V);
  CUdeviceptr d_factors = b.with(factors, 8 * C * V);
  CUdeviceptr d_results = b.make(8 * C), d_rows = b.make(8 * C * V);
  void* params[10] = {&d_surfaces, &n,         &d_row,     &d_vars,    &variable_count,
                      &d_values,   &d_factors, &d_results, &d_rows,    &count};
  b.run(state().efl_jacobian, static_cast<unsigned>((C + 255) / 256), 256, params);
  b.back(results, d_results, 8 * C);
  b.back(rows, d_rows, 8 * C * V);
  return b.status;
}

int cuda_run_ry_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                         int const* variable_surfaces, int variable_count, double field_y,
                         double field_x, double const* values, double px, double py,
                         double aperture_value, int wave_row, int primary_row,
                         double const* factors, double const* frames, double const* aims,
                         double const* setup, double* results, double* rows, int count,
                         int last_surface) {
  if (n < 2 || n > 256 || variable_count < 1 || variable_count > kMaxVariables) return -8;
  if (wave_row < 0 || primary_row < 0) return -8;
  if (count < 1) return 0;
  if (surfaces == nullptr || index_table == nullptr || variable_surfaces == nullptr ||
      values == nullptr || frames == nullptr || aims == nullptr || setup == nullptr ||
      results == nullptr || rows == nullptr) {
    return -3;
  }
  if (!variables_in_range(variable_surfaces, variable_count, n)) return -8;
  int const stop = static_cast<int>(setup[3]);
  if (stop < 1 || stop > n - 1 || last_surface < 0 || last_surface > n - 1) return -8;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  g_last_cu_error = 0;
  long const N = n, V = variable_count, C = count;
  long const W = (wave_row > primary_row ? wave_row : primary_row) + 1;  // rows read
  Buffers b;
  CUdeviceptr d_surfaces = b.with(surfaces, 200 * N), d_table = b.with(index_table, 8 * N * W);
  CUdeviceptr d_vars = b.with(variable_surfaces, 4 * V), d_values = b.with(values, 8 * C * V);
  CUdeviceptr d_factors = b.with(factors, 8 * C * V), d_frames = b.with(frames, 24 * C);
  CUdeviceptr d_aims = b.with(aims, 24 * C), d_setup = b.with(setup, 48);
  CUdeviceptr d_results = b.make(8 * C), d_rows = b.make(8 * C * V);
  CUdeviceptr d_work = b.make(kernels::ray_jacobian_work_bytes(n) * C);
  void* params[22] = {&d_surfaces, &n,          &d_table,    &d_vars,      &variable_count,
                      &field_y,    &field_x,    &d_values,   &px,          &py,
                      &aperture_value, &wave_row, &primary_row, &d_factors, &d_frames,
                      &d_aims,     &d_setup,    &d_results,  &d_rows,      &count,
                      &last_surface, &d_work};
  b.run(state().ry_jacobian, static_cast<unsigned>((C + 63) / 64), 64, params);
  b.back(results, d_results, 8 * C);
  b.back(rows, d_rows, 8 * C * V);
  return b.status;
}

}  // namespace gpu
}  // namespace nuvrix
