// The runners of the Jacobian kernels: device buffers of their own, freed
// on every path.
#include "gpu/gpu_jacobian.hpp"

#include "gpu/cuda_loader.hpp"
#include "kernels/jacobian_bodies.cuh"

namespace nuvrix {
namespace gpu {
namespace {

constexpr int kMaxBuffers = 32;
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

namespace {

constexpr int kMaxEntries = 512;     // ray entries of one call
constexpr int kMaxGridRows = 65535;  // candidates across the second grid dimension

// The arrays of a run of the entry kernels, on the host.
struct EntryRun {
  SurfaceData const* surfaces;
  int n;
  double const* index_table;
  int rows_read;  // rows of the index table the entries and the primary row reach
  int const* variable_surfaces;
  int variable_count;
  double const* values;
  double const* factors;
  double const* setup;  // six numbers
  int primary_row, last_surface;
  double field_y[kMaxEntries], field_x[kMaxEntries];
  double const* px;
  double const* py;
  int rows[kMaxEntries], coordinates[kMaxEntries];
  int entry_count;
  double const* pupil_radii;
  double const* pupil_positions;
  double const* stop_radii;
  int stop_stride;
  double const* ray_aims;
  double const* chief_aims;
  double const* ref_aims;
  double const* reference_radii;
  double const* wavelengths;
  int wave_count;
  int afocal;
  double* results;
  double* jacobian;
  int count;
};

// Uploads, launches and reads back a run of the entry kernels on a device
// already entered.
int run_entries(EntryRun const& h, CUfunction kernel, bool two_dimensional) {
  g_last_cu_error = 0;
  long const N = h.n, V = h.variable_count, C = h.count, E = h.entry_count;
  long const items = C * E;
  Buffers b;
  CUdeviceptr d_surfaces = b.with(h.surfaces, 200 * N);
  CUdeviceptr d_table = b.with(h.index_table, 8 * N * h.rows_read);
  CUdeviceptr d_vars = b.with(h.variable_surfaces, 4 * V);
  CUdeviceptr d_values = b.with(h.values, 8 * C * V), d_factors = b.with(h.factors, 8 * C * V);
  CUdeviceptr d_setup = b.with(h.setup, 48);
  CUdeviceptr d_fy = b.with(h.field_y, 8 * E), d_fx = b.with(h.field_x, 8 * E);
  CUdeviceptr d_px = b.with(h.px, 8 * E), d_py = b.with(h.py, 8 * E);
  CUdeviceptr d_rows = b.with(h.rows, 4 * E), d_coords = b.with(h.coordinates, 4 * E);
  CUdeviceptr d_radii = b.with(h.pupil_radii, 8 * C);
  CUdeviceptr d_positions = b.with(h.pupil_positions, 8 * C);
  CUdeviceptr d_stops = b.with(h.stop_radii, 8 * C * h.stop_stride);
  CUdeviceptr d_aims = b.with(h.ray_aims, 24 * items);
  CUdeviceptr d_chief = b.with(h.chief_aims, 24 * items);
  CUdeviceptr d_ref = b.with(h.ref_aims, 24 * items);
  CUdeviceptr d_reference_radii = b.with(h.reference_radii, 8 * C);
  CUdeviceptr d_waves = b.with(h.wavelengths, 8L * h.wave_count);
  CUdeviceptr d_results = b.make(8 * items), d_jacobian = b.make(8 * items * V);
  CUdeviceptr d_work = b.make(kernels::ray_jacobian_work_bytes(h.n) * items);
  int n = h.n, variable_count = h.variable_count, primary_row = h.primary_row;
  int last_surface = h.last_surface, entry_count = h.entry_count;
  int stop_stride = h.stop_stride, count = h.count, afocal = h.afocal;
  void* params[31] = {&d_surfaces, &n,          &d_table,     &d_vars,       &variable_count,
                      &d_values,   &d_factors,  &d_setup,     &primary_row,  &last_surface,
                      &d_fy,       &d_fx,       &d_px,        &d_py,         &d_rows,
                      &d_coords,   &entry_count, &d_radii,    &d_positions,  &d_stops,
                      &stop_stride, &d_aims,    &d_chief,     &d_ref,        &d_reference_radii,
                      &d_waves,    &afocal,     &d_results,   &d_jacobian,   &count,
                      &d_work};
  // A block of the entries rounded up to a warp; candidates across y, or
  // every item in a row.
  unsigned const block = static_cast<unsigned>((E + 31) / 32 * 32);
  if (b.status == 0) {
    unsigned const gx = static_cast<unsigned>(two_dimensional ? 1 : (items + block - 1) / block);
    unsigned const gy = static_cast<unsigned>(two_dimensional ? C : 1);
    CUresult r =
        g_api.cuLaunchKernel(kernel, gx, gy, 1, block, 1, 1, 0, nullptr, params, nullptr);
    if (r != kCudaSuccess) {
      b.fail(-5, r);
    } else if ((r = g_api.cuCtxSynchronize()) != kCudaSuccess) {
      b.fail(-6, r);
    }
  }
  b.back(h.results, d_results, 8 * items);
  b.back(h.jacobian, d_jacobian, 8 * items * V);
  return b.status;
}

// The checks that both entry runners share, before the device.
int check_entries(SurfaceData const* surfaces, int n, double const* index_table,
                  int const* variable_surfaces, int variable_count, double const* setup,
                  int entry_count, int count) {
  if (n < 2 || n > 256 || variable_count < 1 || variable_count > kMaxVariables) return -8;
  if (entry_count < 1 || entry_count > kMaxEntries || count > kMaxGridRows) return -8;
  if (count < 1) return 0;
  if (surfaces == nullptr || index_table == nullptr || variable_surfaces == nullptr ||
      setup == nullptr) {
    return -3;
  }
  if (!variables_in_range(variable_surfaces, variable_count, n)) return -8;
  int const stop = static_cast<int>(setup[3]);
  if (stop < 1 || stop > n - 1) return -8;
  return 1;  // go on
}

}  // namespace

namespace {

// The spot and OPD runners: the same entries, a different kernel.  The
// OPD needs its reference aims, wavelengths and reference radii; both need
// chief_aims when they subtract the chief ray.
int run_field_entries(SurfaceData const* surfaces, int n, double const* index_table,
                      int wave_count, int const* variable_surfaces, int variable_count,
                      double const* values, double const* setup, double const* field_y,
                      double const* field_x, int const* entry_fields, int entry_count,
                      int field_count, double const* px, double const* py,
                      int const* entry_rows, int const* entry_coordinates, int primary_row,
                      int last_surface, double const* factors, double const* pupil_radii,
                      double const* pupil_positions, double const* stop_radii,
                      double const* ray_aims, double const* chief_aims, double const* ref_aims,
                      double const* reference_radii, double const* wavelengths, int afocal,
                      double* results, double* rows, int count, bool needs_chief, bool opd,
                      CUfunction* kernel) {
  int const checked = check_entries(surfaces, n, index_table, variable_surfaces, variable_count,
                                    setup, entry_count, count);
  if (checked != 1) return checked;
  if (wave_count < 1 || field_count < 1 || primary_row < 0 || primary_row >= wave_count ||
      last_surface < 0 || last_surface > n - 1) {
    return -8;
  }
  if (values == nullptr || field_y == nullptr || field_x == nullptr || entry_fields == nullptr ||
      px == nullptr || py == nullptr || entry_rows == nullptr || entry_coordinates == nullptr ||
      pupil_radii == nullptr || pupil_positions == nullptr || stop_radii == nullptr ||
      ray_aims == nullptr || results == nullptr || rows == nullptr ||
      (needs_chief && chief_aims == nullptr) ||
      (opd && (ref_aims == nullptr || wavelengths == nullptr || reference_radii == nullptr))) {
    return -3;
  }
  EntryRun h = {};
  for (int e = 0; e < entry_count; ++e) {
    int const f = entry_fields[e], w = entry_rows[e];
    if (f < 0 || f >= field_count || w < 0 || w >= wave_count) return -8;
    h.field_y[e] = field_y[f], h.field_x[e] = field_x[f];
    h.rows[e] = w, h.coordinates[e] = entry_coordinates[e];
  }
  h.surfaces = surfaces, h.n = n, h.index_table = index_table, h.rows_read = wave_count;
  h.variable_surfaces = variable_surfaces, h.variable_count = variable_count;
  h.values = values, h.factors = factors, h.setup = setup;
  h.primary_row = primary_row, h.last_surface = last_surface;
  h.px = px, h.py = py, h.entry_count = entry_count;
  h.pupil_radii = pupil_radii, h.pupil_positions = pupil_positions;
  h.stop_radii = stop_radii, h.stop_stride = wave_count;
  h.ray_aims = ray_aims, h.chief_aims = chief_aims, h.ref_aims = ref_aims;
  h.reference_radii = reference_radii, h.wavelengths = wavelengths;
  h.wave_count = wavelengths != nullptr ? wave_count : 0, h.afocal = afocal;
  h.results = results, h.jacobian = rows, h.count = count;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  return run_entries(h, *kernel, true);
}

}  // namespace

int cuda_run_spot_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                           int wave_count, int const* variable_surfaces, int variable_count,
                           double const* values, double const* setup, double const* field_y,
                           double const* field_x, int const* entry_fields, int entry_count,
                           int field_count, double const* px, double const* py,
                           int const* entry_rows, int const* entry_coordinates, int primary_row,
                           int last_surface, double const* factors, double const* pupil_radii,
                           double const* pupil_positions, double const* stop_radii,
                           double const* ray_aims, double const* chief_aims, double* results,
                           double* rows, int count, int subtract_chief) {
  if (subtract_chief == 0) chief_aims = nullptr;  // the plain coordinate
  return run_field_entries(surfaces, n, index_table, wave_count, variable_surfaces,
                           variable_count, values, setup, field_y, field_x, entry_fields,
                           entry_count, field_count, px, py, entry_rows, entry_coordinates,
                           primary_row, last_surface, factors, pupil_radii, pupil_positions,
                           stop_radii, ray_aims, chief_aims, nullptr, nullptr, nullptr, 0,
                           results, rows, count, subtract_chief != 0, false,
                           &state().spot_jacobian);
}

int cuda_run_opd_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                          int wave_count, int const* variable_surfaces, int variable_count,
                          double const* values, double const* setup, double const* field_y,
                          double const* field_x, int const* entry_fields, int entry_count,
                          int field_count, double const* px, double const* py,
                          int const* entry_rows, double const* wavelengths, int primary_row,
                          int afocal, double const* factors, double const* pupil_radii,
                          double const* pupil_positions, double const* stop_radii,
                          double const* ray_aims, double const* chief_aims,
                          double const* ref_aims, double const* reference_radii,
                          double* results, double* rows, int count) {
  static int const zeros[kMaxEntries] = {};
  return run_field_entries(surfaces, n, index_table, wave_count, variable_surfaces,
                           variable_count, values, setup, field_y, field_x, entry_fields,
                           entry_count, field_count, px, py, entry_rows, zeros, primary_row, 0,
                           factors, pupil_radii, pupil_positions, stop_radii, ray_aims,
                           chief_aims, ref_aims, reference_radii, wavelengths, afocal, results,
                           rows, count, true, true, &state().opd_jacobian);
}

int cuda_run_ry_batched_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                                 int const* variable_surfaces, int variable_count,
                                 double const* values, double const* setup,
                                 double const* entry_fields, int entry_count, double const* px,
                                 double const* py, double const* factors, int primary_row,
                                 int wave_row, double const* pupil_radii,
                                 double const* pupil_positions, double const* stop_radii,
                                 double const* aims, double* results, double* rows, int count,
                                 int const* entry_is_x) {
  int const checked = check_entries(surfaces, n, index_table, variable_surfaces, variable_count,
                                    setup, entry_count, count);
  if (checked != 1) return checked;
  if (primary_row < 0 || wave_row < 0) return -8;
  if (values == nullptr || entry_fields == nullptr || px == nullptr || py == nullptr ||
      pupil_radii == nullptr || pupil_positions == nullptr || stop_radii == nullptr ||
      aims == nullptr || results == nullptr || rows == nullptr || entry_is_x == nullptr) {
    return -3;
  }
  EntryRun h = {};
  for (int e = 0; e < entry_count; ++e) {
    h.field_y[e] = entry_fields[2 * e], h.field_x[e] = entry_fields[2 * e + 1];
    h.rows[e] = wave_row, h.coordinates[e] = entry_is_x[e] != 0 ? 0 : 1;
  }
  h.surfaces = surfaces, h.n = n, h.index_table = index_table;
  h.rows_read = (wave_row > primary_row ? wave_row : primary_row) + 1;
  h.variable_surfaces = variable_surfaces, h.variable_count = variable_count;
  h.values = values, h.factors = factors, h.setup = setup;
  h.primary_row = primary_row, h.last_surface = 0;
  h.px = px, h.py = py, h.entry_count = entry_count;
  h.pupil_radii = pupil_radii, h.pupil_positions = pupil_positions;
  // One stop radius a candidate, of the one row.
  h.stop_radii = stop_radii, h.stop_stride = 1;
  h.ray_aims = aims, h.chief_aims = nullptr;
  h.results = results, h.jacobian = rows, h.count = count;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  return run_entries(h, state().ry_batched_jacobian, false);
}

int cuda_run_sd_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                         int wave_count, int const* variable_surfaces, int variable_count,
                         double const* values, double const* factors, double const* setup,
                         int const* entry_surfaces, int const* entry_rows,
                         double const* entry_field_y, double const* entry_px,
                         double const* entry_py, double const* entry_scales, int entry_count,
                         double const* pupil_radii, double const* pupil_positions,
                         double const* stop_radii, double const* aims, double* results,
                         double* rows, int count) {
  int const checked = check_entries(surfaces, n, index_table, variable_surfaces, variable_count,
                                    setup, entry_count, count);
  if (checked != 1) return checked;
  if (wave_count < 1) return -8;
  if (values == nullptr || entry_surfaces == nullptr || entry_rows == nullptr ||
      entry_field_y == nullptr || entry_px == nullptr || entry_py == nullptr ||
      entry_scales == nullptr || pupil_radii == nullptr || pupil_positions == nullptr ||
      stop_radii == nullptr || aims == nullptr || results == nullptr || rows == nullptr) {
    return -3;
  }
  for (int e = 0; e < entry_count; ++e) {
    if (entry_surfaces[e] < 1 || entry_surfaces[e] > n - 1 || entry_rows[e] < 0 ||
        entry_rows[e] >= wave_count) {
      return -8;
    }
  }
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  g_last_cu_error = 0;
  long const N = n, V = variable_count, C = count, E = entry_count, W = wave_count;
  long const items = C * E;
  Buffers b;
  CUdeviceptr d_surfaces = b.with(surfaces, 200 * N), d_table = b.with(index_table, 8 * N * W);
  CUdeviceptr d_vars = b.with(variable_surfaces, 4 * V), d_values = b.with(values, 8 * C * V);
  CUdeviceptr d_factors = b.with(factors, 8 * C * V), d_setup = b.with(setup, 48);
  CUdeviceptr d_surf = b.with(entry_surfaces, 4 * E), d_rows_of = b.with(entry_rows, 4 * E);
  CUdeviceptr d_fy = b.with(entry_field_y, 8 * E), d_px = b.with(entry_px, 8 * E);
  CUdeviceptr d_py = b.with(entry_py, 8 * E), d_scales = b.with(entry_scales, 8 * E);
  CUdeviceptr d_radii = b.with(pupil_radii, 8 * C * W);
  CUdeviceptr d_positions = b.with(pupil_positions, 8 * C * W);
  CUdeviceptr d_stops = b.with(stop_radii, 8 * C * W), d_aims = b.with(aims, 24 * items);
  CUdeviceptr d_results = b.make(8 * items), d_jacobian = b.make(8 * items * V);
  CUdeviceptr d_work = b.make(kernels::ray_jacobian_work_bytes(n) * items);
  int item_count = count;
  void* params[24] = {&d_surfaces, &n,         &d_table,   &d_vars,      &variable_count,
                      &d_values,   &d_factors, &d_setup,   &d_surf,      &d_rows_of,
                      &d_fy,       &d_px,      &d_py,      &d_scales,    &entry_count,
                      &wave_count, &d_radii,   &d_positions, &d_stops,   &d_aims,
                      &d_results,  &d_jacobian, &item_count, &d_work};
  b.run(state().sd_jacobian, static_cast<unsigned>((items + 63) / 64), 64, params);
  b.back(results, d_results, 8 * items);
  b.back(rows, d_jacobian, 8 * items * V);
  return b.status;
}

}  // namespace gpu
}  // namespace nuvrix
