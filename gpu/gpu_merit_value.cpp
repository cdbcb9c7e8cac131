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
