// Scratch layouts of the value paths and the fill count of the merit kernel.
#include "gpu/gpu_merit_value.hpp"

#include <chrono>
#include <climits>

#include "gpu/cuda_loader.hpp"
#include "kernels/merit_bodies.cuh"

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

// The steps of a value run after its own checks: the glass ids against the
// catalogue (-8), the scratch (-3), the device (-1, -2).  1 to go on, with
// the last driver error cleared.
int begin_value_run(int const* ids, long id_count, int catalog_rows, long need, void* scratch,
                    long scratch_bytes) {
  for (long i = 0; i < id_count; ++i) {
    if (ids[i] >= catalog_rows) return -8;  // beyond the catalogue
  }
  if (scratch == nullptr || need == 0 || scratch_bytes < need) return -3;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  g_last_cu_error = 0;
  return 1;
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
  int const ready = begin_value_run(material_ids, n, catalog_rows,
                                    cuda_efl_value_scratch_size(population, n), scratch,
                                    scratch_bytes);
  if (ready != 1) return ready;
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

int cuda_run_ry_value(SurfaceData const* surfaces, int n, double const* glass_catalog,
                      int catalog_rows, int wave_count, int wave_index, int const* material_ids,
                      double field_value, double px, double py, int field_type,
                      double const* curvatures, double const* thicknesses, double const* conics,
                      double const* pupil_radii, double const* pupil_positions, double* results,
                      int population, int last_surface, void* scratch, long scratch_bytes) {
  if (n < 1 || wave_count < 1 || wave_index < 0 || wave_index >= wave_count) return -8;
  if (population < 1) return 0;
  if (glass_catalog == nullptr || material_ids == nullptr || surfaces == nullptr ||
      curvatures == nullptr || thicknesses == nullptr || conics == nullptr ||
      pupil_radii == nullptr || pupil_positions == nullptr || results == nullptr) {
    return -3;
  }
  int const ready = begin_value_run(material_ids, n, catalog_rows,
                                    cuda_ry_value_scratch_size(population, n), scratch,
                                    scratch_bytes);
  if (ready != 1) return ready;
  long const N = n, P = population;
  Sections s = {reinterpret_cast<CUdeviceptr>(scratch)};
  CUdeviceptr d_surfaces = s.take(200 * N), d_ids = s.take(4 * N);
  CUdeviceptr d_curv = s.take(8 * N * P), d_thick = s.take(8 * N * P);
  CUdeviceptr d_conic = s.take(8 * N * P), d_radii = s.take(8 * P);
  CUdeviceptr d_positions = s.take(8 * P), d_results = s.take(8 * P);
  if (!upload(d_surfaces, surfaces, 200 * N) || !upload(d_ids, material_ids, 4 * N) ||
      !upload(d_curv, curvatures, 8 * N * P) || !upload(d_thick, thicknesses, 8 * N * P) ||
      !upload(d_conic, conics, 8 * N * P) || !upload(d_radii, pupil_radii, 8 * P) ||
      !upload(d_positions, pupil_positions, 8 * P)) {
    return -4;
  }
  CUdeviceptr d_catalog = reinterpret_cast<CUdeviceptr>(glass_catalog);
  void* params[18] = {&d_surfaces, &d_catalog,  &d_ids,      &wave_count,  &wave_index,
                      &field_value, &px,        &py,         &field_type,  &d_curv,
                      &d_thick,    &d_conic,    &d_radii,    &d_positions, &d_results,
                      &n,          &population, &last_surface};
  int const ran = launch_and_wait(state().ry_value, population, 256, params);
  if (ran != 0) return ran;
  CUresult const r = g_api.cuMemcpyDtoH_v2(results, d_results, static_cast<size_t>(8 * P));
  if (r != kCudaSuccess) {
    g_last_cu_error = r;
    return -7;
  }
  return 0;
}

namespace {

constexpr int kChunk = 2048;  // elements a staged upload carries

// The population rows as the chosen merit kernel reads them: as they stand
// (plain), rounded to floats, or surface-major.  The last two are staged
// through a small buffer, a chunk an upload.
bool upload_rows_float(CUdeviceptr at, double const* rows, long count) {
  float staged[kChunk];
  for (long from = 0; from < count; from += kChunk) {
    long const m = count - from < kChunk ? count - from : kChunk;
    for (long j = 0; j < m; ++j) staged[j] = static_cast<float>(rows[from + j]);
    if (!upload(at + static_cast<CUdeviceptr>(4 * from), staged, 4 * m)) return false;
  }
  return true;
}

template <typename T>
bool upload_rows_surface_major(CUdeviceptr at, T const* rows, long population, long n) {
  T staged[kChunk];
  for (long k = 0; k < n; ++k) {
    for (long from = 0; from < population; from += kChunk) {
      long const m = population - from < kChunk ? population - from : kChunk;
      for (long j = 0; j < m; ++j) staged[j] = rows[(from + j) * n + k];
      long const offset = static_cast<long>(sizeof(T)) * (k * population + from);
      if (!upload(at + static_cast<CUdeviceptr>(offset), staged,
                  static_cast<long>(sizeof(T)) * m)) {
        return false;
      }
    }
  }
  return true;
}

bool upload_population_rows(CUdeviceptr at, double const* rows, long population, long n,
                            int layout) {
  if (layout == kernels::kRowsFloat) return upload_rows_float(at, rows, population * n);
  if (layout == kernels::kRowsSurfaceMajor) {
    return upload_rows_surface_major(at, rows, population, n);
  }
  return upload(at, rows, 8 * population * n);
}

}  // namespace

int cuda_run_merit_value(SurfaceData const* surfaces, int n, double const* glass_catalog,
                         int catalog_rows, int wave_count, int const* material_ids,
                         double const* wavelengths, SystemConfig const* config,
                         FieldData const* fields, int field_count,
                         MeritOperandDesc const* operands, int operand_count,
                         double const* curvatures, double const* thicknesses,
                         double const* conics, double* merit_values, int population,
                         void* scratch, long scratch_bytes, MeritResult* operand_results,
                         int reuse_uploads, int use_f32, int use_soa) {
  if (n < 1 || wave_count < 1 || field_count < 1 || operand_count < 1) return -8;
  if (population < 1) return 0;
  if (glass_catalog == nullptr || material_ids == nullptr || surfaces == nullptr ||
      wavelengths == nullptr || config == nullptr || fields == nullptr || operands == nullptr ||
      curvatures == nullptr || thicknesses == nullptr || conics == nullptr ||
      merit_values == nullptr) {
    return -3;
  }
  long const N = n, P = population, W = wave_count, F = field_count, O = operand_count;
  int const ready = begin_value_run(
      material_ids, P * N, catalog_rows,
      cuda_merit_value_scratch_size(population, n, wave_count, field_count, operand_count),
      scratch, scratch_bytes);
  if (ready != 1) return ready;
  // The kernel first: it decides how the rows travel.  An absent optional
  // form falls back to the plain kernel.
  GpuState& st = state();
  CUfunction kernel = st.merit_value;
  int layout = kernels::kRowsPlain;
  if (use_soa != 0 && st.merit_value_soa != nullptr) {
    kernel = st.merit_value_soa;
    layout = kernels::kRowsSurfaceMajor;
  } else if (use_f32 != 0 && st.merit_value_f32 != nullptr) {
    kernel = st.merit_value_f32;
    layout = kernels::kRowsFloat;
  }
  Sections s = {reinterpret_cast<CUdeviceptr>(scratch)};
  CUdeviceptr d_surfaces = s.take(200 * N), d_waves = s.take(8 * W), d_config = s.take(48);
  CUdeviceptr d_fields = s.take(24 * F), d_ops = s.take(136 * O), d_ids = s.take(4 * P * N);
  CUdeviceptr d_curv = s.take(8 * P * N), d_thick = s.take(8 * P * N);
  CUdeviceptr d_conic = s.take(8 * P * N), d_own = s.take(200 * P * N);
  CUdeviceptr d_rows = s.take(8 * W * P * N), d_results = s.take(16 * P * O);
  CUdeviceptr d_work = s.take(8 * P * (F + 2 * O + 8)), d_merit = s.take(8 * P);
  if (reuse_uploads == 0 &&
      (!upload(d_surfaces, surfaces, 200 * N) || !upload(d_waves, wavelengths, 8 * W) ||
       !upload(d_config, config, 48) || !upload(d_fields, fields, 24 * F) ||
       !upload(d_ops, operands, 136 * O))) {
    return -4;
  }
  bool const ids_ok = layout == kernels::kRowsSurfaceMajor
                          ? upload_rows_surface_major(d_ids, material_ids, P, N)
                          : upload(d_ids, material_ids, 4 * P * N);
  if (!ids_ok || !upload_population_rows(d_curv, curvatures, P, N, layout) ||
      !upload_population_rows(d_thick, thicknesses, P, N, layout) ||
      !upload_population_rows(d_conic, conics, P, N, layout)) {
    return -4;
  }
  CUdeviceptr d_catalog = reinterpret_cast<CUdeviceptr>(glass_catalog);
  void* params[20] = {&d_surfaces, &n,      &d_catalog, &d_ids,     &wave_count,
                      &d_waves,    &d_config, &d_fields, &field_count, &d_ops,
                      &operand_count, &d_curv, &d_thick, &d_conic,  &d_own,
                      &d_rows,     &d_results, &d_work,  &d_merit,  &population};
  int const ran = launch_and_wait(kernel, population, 64, params);
  if (ran != 0) return ran;
  CUresult r = g_api.cuMemcpyDtoH_v2(merit_values, d_merit, static_cast<size_t>(8 * P));
  if (r == kCudaSuccess && operand_results != nullptr) {
    r = g_api.cuMemcpyDtoH_v2(operand_results, d_results, static_cast<size_t>(16 * P * O));
  }
  if (r != kCudaSuccess) {
    g_last_cu_error = r;
    return -7;
  }
  return 0;
}

int cuda_run_trace_grid(SurfaceData const* surfaces, int n, double const* index_table,
                        int wave_count, double const* wavelengths, SystemConfig const* config,
                        FieldData const* fields, int field_count, int const* field_indices,
                        int const* wave_indices, double const* px_values,
                        double const* py_values, double const* field_table, double pupil_radius,
                        double entrance_pupil_position, double* x, double* y,
                        double* optical_path, int* valid, int ray_count, void* scratch,
                        long scratch_bytes, int reuse_uploads, int const* ray_kinds, double* z,
                        double* l, double* m, double* n_out, double* launch_x, double* launch_y,
                        double* launch_z, double* launch_l, double* launch_m, double* launch_n,
                        int const* surface_indices, double* normal_x, double* normal_y,
                        double* normal_z, int aim, double const* stop_radii) {
  if (n < 1 || wave_count < 1 || field_count < 1) return -8;
  if (ray_count < 1) return 0;
  if (surfaces == nullptr || index_table == nullptr || wavelengths == nullptr ||
      config == nullptr || fields == nullptr || field_indices == nullptr ||
      wave_indices == nullptr || px_values == nullptr || py_values == nullptr || x == nullptr ||
      y == nullptr || optical_path == nullptr || valid == nullptr) {
    return -3;
  }
  for (int r = 0; r < ray_count; ++r) {
    if (field_indices[r] < 0 || field_indices[r] >= field_count || wave_indices[r] < 0 ||
        wave_indices[r] >= wave_count) {
      return -8;
    }
  }
  long const need = cuda_trace_grid_scratch_size(n, wave_count, field_count, ray_count);
  if (scratch == nullptr || need == 0 || scratch_bytes < need) return -3;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  CUfunction const kernel = state().trace_grid;
  if (kernel == nullptr) return -9;
  g_last_cu_error = 0;
  long const N = n, W = wave_count, F = field_count, R = ray_count;
  Sections s = {reinterpret_cast<CUdeviceptr>(scratch)};
  CUdeviceptr d_surfaces = s.take(200 * N), d_table = s.take(8 * N * W);
  CUdeviceptr d_waves = s.take(8 * W), d_config = s.take(48), d_fields = s.take(24 * F);
  CUdeviceptr d_field_idx = s.take(4 * R), d_wave_idx = s.take(4 * R);
  CUdeviceptr d_px = s.take(8 * R), d_py = s.take(8 * R), d_field_table = s.take(32 * F);
  CUdeviceptr d_x = s.take(8 * R), d_y = s.take(8 * R), d_path = s.take(8 * R);
  CUdeviceptr d_valid = s.take(4 * R), d_kinds = s.take(4 * R);
  CUdeviceptr d_out[10];  // z, l, m, n and the six launch arrays
  for (CUdeviceptr& d : d_out) d = s.take(8 * R);
  CUdeviceptr d_surface_idx = s.take(4 * R);
  CUdeviceptr d_normal[3] = {s.take(8 * R), s.take(8 * R), s.take(8 * R)};
  CUdeviceptr d_stops = s.take(8 * R);
  if (reuse_uploads == 0 &&
      (!upload(d_config, config, 48) || !upload(d_fields, fields, 24 * F) ||
       !upload(d_waves, wavelengths, 8 * W) || !upload(d_field_idx, field_indices, 4 * R) ||
       !upload(d_wave_idx, wave_indices, 4 * R) || !upload(d_px, px_values, 8 * R) ||
       !upload(d_py, py_values, 8 * R) ||
       (ray_kinds != nullptr && !upload(d_kinds, ray_kinds, 4 * R)) ||
       (surface_indices != nullptr && !upload(d_surface_idx, surface_indices, 4 * R)) ||
       (field_table != nullptr && !upload(d_field_table, field_table, 32 * F)))) {
    return -4;
  }
  if (!upload(d_surfaces, surfaces, 200 * N) || !upload(d_table, index_table, 8 * N * W) ||
      (stop_radii != nullptr && !upload(d_stops, stop_radii, 8 * R))) {
    return -4;
  }
  // A null optional array reaches the kernel as a null pointer.
  auto given = [](void const* host, CUdeviceptr d) -> CUdeviceptr {
    return host != nullptr ? d : 0;
  };
  double* const outs[10] = {z, l, m, n_out, launch_x, launch_y, launch_z, launch_l, launch_m,
                            launch_n};
  double* const normals[3] = {normal_x, normal_y, normal_z};
  CUdeviceptr p_table = given(field_table, d_field_table), p_kinds = given(ray_kinds, d_kinds);
  CUdeviceptr p_surface_idx = given(surface_indices, d_surface_idx);
  CUdeviceptr p_stops = given(stop_radii, d_stops), p_out[10], p_normal[3];
  for (int k = 0; k < 10; ++k) p_out[k] = given(outs[k], d_out[k]);
  for (int k = 0; k < 3; ++k) p_normal[k] = given(normals[k], d_normal[k]);
  void* params[36] = {&d_surfaces, &n,          &d_table,     &d_waves,      &d_config,
                      &d_fields,   &d_field_idx, &d_wave_idx, &d_px,         &d_py,
                      &p_table,    &pupil_radius, &entrance_pupil_position,    &d_x,
                      &d_y,        &d_path,     &d_valid,     &p_kinds,      &p_out[0],
                      &p_out[1],   &p_out[2],   &p_out[3],    &p_out[4],     &p_out[5],
                      &p_out[6],   &p_out[7],   &p_out[8],    &p_out[9],     &p_surface_idx,
                      &p_normal[0], &p_normal[1], &p_normal[2], &aim,        &p_stops,
                      &ray_count};
  int const ran = launch_and_wait(kernel, ray_count, 128, params);
  if (ran != 0) return ran;
  struct Down {
    void* host;
    CUdeviceptr device;
    long bytes;
  } downs[17] = {{x, d_x, 8 * R}, {y, d_y, 8 * R}, {optical_path, d_path, 8 * R},
                 {valid, d_valid, 4 * R}};
  int count = 4;
  for (int k = 0; k < 10; ++k) downs[count++] = {outs[k], d_out[k], 8 * R};
  for (int k = 0; k < 3; ++k) downs[count++] = {normals[k], d_normal[k], 8 * R};
  for (Down const& d : downs) {
    if (d.host == nullptr) continue;
    CUresult const r = g_api.cuMemcpyDtoH_v2(d.host, d.device, static_cast<size_t>(d.bytes));
    if (r != kCudaSuccess) {
      g_last_cu_error = r;
      return -7;
    }
  }
  return 0;
}

namespace {

// The timed part of the microbenchmark on a buffer that exists: 0, -6 or -7.
int time_microbench(CUfunction kernel, CUdeviceptr buffer, int ray_count, int surface_count,
                    int pass_count, int iterations, int use_f64, double* elapsed_ms,
                    double* checksum) {
  void* params[4] = {&buffer, &ray_count, &surface_count, &pass_count};
  unsigned const grid = static_cast<unsigned>((static_cast<long>(ray_count) + 127) / 128);
  auto launch = [&] {
    CUresult const r =
        g_api.cuLaunchKernel(kernel, grid, 1, 1, 128, 1, 1, 0, nullptr, params, nullptr);
    if (r != kCudaSuccess) g_last_cu_error = r;
    return r == kCudaSuccess;
  };
  auto wait = [&] {
    CUresult const r = g_api.cuCtxSynchronize();
    if (r != kCudaSuccess) g_last_cu_error = r;
    return r == kCudaSuccess;
  };
  if (!launch()) return -6;
  if (!wait()) return -7;
  auto const start = std::chrono::steady_clock::now();
  for (int k = 0; k < iterations; ++k) {
    if (!launch()) return -6;
  }
  if (!wait()) return -7;
  auto const stop = std::chrono::steady_clock::now();
  if (elapsed_ms != nullptr) {
    *elapsed_ms = std::chrono::duration<double, std::milli>(stop - start).count();
  }
  if (checksum != nullptr) {
    double first64 = 0.0;
    float first32 = 0.0f;
    void* first = use_f64 != 0 ? static_cast<void*>(&first64) : static_cast<void*>(&first32);
    CUresult const r = g_api.cuMemcpyDtoH_v2(first, buffer, use_f64 != 0 ? 8 : 4);
    if (r != kCudaSuccess) {
      g_last_cu_error = r;
      return -7;
    }
    *checksum = use_f64 != 0 ? first64 : static_cast<double>(first32);
  }
  return 0;
}

}  // namespace

int cuda_run_trace_microbench(int use_f64, int ray_count, int surface_count, int pass_count,
                              int iterations, double* elapsed_ms, double* checksum) {
  if (elapsed_ms != nullptr) *elapsed_ms = 0.0;
  if (checksum != nullptr) *checksum = 0.0;
  if (ray_count < 1 || pass_count < 1) return -3;
  if (iterations < 1) iterations = 1;
  surface_count = surface_count < 1 ? 1 : (surface_count > 256 ? 256 : surface_count);
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  CUfunction const kernel =
      use_f64 != 0 ? state().trace_microbench_f64 : state().trace_microbench_f32;
  if (kernel == nullptr) return -4;
  CUdeviceptr buffer = 0;
  size_t const bytes = static_cast<size_t>(ray_count) * (use_f64 != 0 ? 8 : 4);
  CUresult const r = g_api.cuMemAlloc_v2(&buffer, bytes);
  if (r != kCudaSuccess) {
    g_last_cu_error = r;
    return -5;
  }
  int const ran = time_microbench(kernel, buffer, ray_count, surface_count, pass_count,
                                  iterations, use_f64, elapsed_ms, checksum);
  g_api.cuMemFree_v2(buffer);
  return ran;
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
