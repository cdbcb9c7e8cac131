// Scratch layouts of the value paths and the fill count of the merit kernel.
#include "gpu/gpu_merit_value.hpp"

#include <climits>

#include "gpu/cuda_loader.hpp"

namespace nuvrix {
namespace gpu {
namespace {

using Wide = __int128;  // the sizes are formed exactly, then checked against a long

Wide padded(Wide bytes) { return (bytes + 7) / 8 * 8; }

long fitted(Wide bytes) { return bytes > LONG_MAX ? 0 : static_cast<long>(bytes); }

constexpr Wide kSurfaceBytes = 200, kFieldBytes = 24, kOperandBytes = 136, kConfigBytes = 48;
constexpr Wide kResultBytes = 16;

}  // namespace

long cuda_efl_value_scratch_size(int population, int n) {
  if (population < 1 || n < 1) return 0;
  Wide const P = population, N = n;
  // surfaces; material ids; curvatures and thicknesses; results
  return fitted(kSurfaceBytes * N + padded(4 * N) + 2 * 8 * N * P + 8 * P);
}

long cuda_ry_value_scratch_size(int population, int n) {
  if (population < 1 || n < 1) return 0;
  Wide const P = population, N = n;
  // surfaces; material ids; three row arrays; two per-individual arrays; results
  return fitted(kSurfaceBytes * N + padded(4 * N) + 3 * 8 * N * P + 2 * 8 * P + 8 * P);
}

long cuda_merit_value_scratch_size(int population, int n, int wave_count, int field_count,
                                   int operand_count) {
  if (population < 1 || n < 1 || wave_count < 1 || field_count < 1 || operand_count < 1) return 0;
  Wide const P = population, N = n, W = wave_count, F = field_count, O = operand_count;
  Wide bytes = kSurfaceBytes * N + 8 * W + kConfigBytes + kFieldBytes * F + kOperandBytes * O;
  bytes += padded(4 * P * N);           // material ids
  bytes += 3 * 8 * P * N;               // curvatures, thicknesses and a third row array
  bytes += kSurfaceBytes * P * N;       // each individual's surfaces
  bytes += 8 * W * P * N;               // each individual's index rows
  bytes += kResultBytes * P * O;        // operand results
  bytes += 8 * P * (F + 2 * O + 8);     // working space
  bytes += 8 * P;                       // merit values
  return fitted(bytes);
}

long cuda_trace_grid_scratch_size(int n, int wave_count, int field_count, int ray_count) {
  if (n < 0 || wave_count < 0 || field_count < 0 || ray_count < 0) return 0;
  Wide const N = n, W = wave_count, F = field_count, R = ray_count;
  Wide bytes = kSurfaceBytes * N + 8 * N * W + 8 * W + kConfigBytes + kFieldBytes * F;
  bytes += 2 * padded(4 * R);  // field and wave indices
  bytes += 2 * 8 * R;          // px, py
  bytes += 32 * F;             // the per-field table
  bytes += 3 * 8 * R;          // x, y, optical path
  bytes += 2 * padded(4 * R);  // valid flags, ray kinds
  bytes += 10 * 8 * R;         // z, l, m, n and the six launch arrays
  bytes += padded(4 * R);      // surface indices
  bytes += 3 * 8 * R;          // the normal
  bytes += 8 * R;              // stop radii
  return fitted(bytes);
}

namespace {

// Sections of a scratch block, handed out in order.
struct Sections {
  CUdeviceptr next;
  CUdeviceptr take(long bytes) {
    CUdeviceptr const at = next;
    next += static_cast<CUdeviceptr>(padded(bytes));
    return at;
  }
};

// One upload into the scratch; the raw code is kept on failure.
bool upload(CUdeviceptr at, void const* host, long bytes) {
  if (bytes < 1) return true;
  CUresult const r = g_api.cuMemcpyHtoD_v2(at, host, static_cast<size_t>(bytes));
  if (r != kCudaSuccess) g_last_cu_error = r;
  return r == kCudaSuccess;
}

// Launch, synchronise: 0, -5 or -6.
int launch_and_wait(CUfunction f, int count, int block, void** params) {
  unsigned const grid = static_cast<unsigned>((static_cast<long>(count) + block - 1) / block);
  CUresult r = g_api.cuLaunchKernel(f, grid, 1, 1, static_cast<unsigned>(block), 1, 1, 0,
                                    nullptr, params, nullptr);
  if (r != kCudaSuccess) {
    g_last_cu_error = r;
    return -5;
  }
  r = g_api.cuCtxSynchronize();
  if (r != kCudaSuccess) {
    g_last_cu_error = r;
    return -6;
  }
  return 0;
}

}  // namespace

int cuda_run_efl_value(SurfaceData const* surfaces, int n, double const* glass_catalog,
                       int catalog_rows, int wave_count, int wave_index, int const* material_ids,
                       double const* curvatures, double const* thicknesses, double* results,
                       int population, void* scratch, long scratch_bytes) {
  if (n < 1 || wave_count < 1 || wave_index < 0 || wave_index >= wave_count) return -8;
  if (population < 1) return 0;
  if (glass_catalog == nullptr || material_ids == nullptr || surfaces == nullptr ||
      curvatures == nullptr || thicknesses == nullptr || results == nullptr) {
    return -3;
  }
  for (int i = 0; i < n; ++i) {
    if (material_ids[i] >= catalog_rows) return -8;  // beyond the catalogue
  }
  long const need = cuda_efl_value_scratch_size(population, n);
  if (scratch == nullptr || need == 0 || scratch_bytes < need) return -3;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  g_last_cu_error = 0;
  long const N = n, P = population;
  Sections s = {reinterpret_cast<CUdeviceptr>(scratch)};
  CUdeviceptr d_surfaces = s.take(200 * N), d_ids = s.take(4 * N);
  CUdeviceptr d_curv = s.take(8 * N * P), d_thick = s.take(8 * N * P), d_results = s.take(8 * P);
  if (!upload(d_surfaces, surfaces, 200 * N) || !upload(d_ids, material_ids, 4 * N) ||
      !upload(d_curv, curvatures, 8 * N * P) || !upload(d_thick, thicknesses, 8 * N * P)) {
    return -4;
  }
  CUdeviceptr d_catalog = reinterpret_cast<CUdeviceptr>(glass_catalog);
  void* params[10] = {&d_surfaces, &d_catalog, &d_ids, &wave_count, &wave_index,
                      &d_curv,     &d_thick,   &d_results, &n,    &population};
  int const ran = launch_and_wait(state().efl_value, population, 256, params);
  if (ran != 0) return ran;
  CUresult const r = g_api.cuMemcpyDtoH_v2(results, d_results, static_cast<size_t>(8 * P));
  if (r != kCudaSuccess) {
    g_last_cu_error = r;
    return -7;
  }
  return 0;
}

int cuda_merit_value_fill_count() {
  if (cuda_init() != 0) return 0;
  GpuState& s = state();
  if (s.merit_value == nullptr || g_api.cuOccupancyMaxActiveBlocksPerMultiprocessor == nullptr) {
    return 0;
  }
  if (detail::enter_device() != 0) return 0;
  int multiprocessors = 0, blocks = 0;
  g_api.cuDeviceGetAttribute(&multiprocessors, 16, s.device);
  if (multiprocessors < 1) return 0;
  if (g_api.cuOccupancyMaxActiveBlocksPerMultiprocessor(&blocks, s.merit_value, 64, 0) !=
          kCudaSuccess ||
      blocks < 1) {
    return 0;
  }
  long long const threads = static_cast<long long>(multiprocessors) * blocks * 64;
  return threads > INT_MAX ? INT_MAX : static_cast<int>(threads);
}

}  // namespace gpu
}  // namespace nuvrix
