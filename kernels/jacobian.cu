// The Jacobian kernels: one thread an item (a candidate, or a candidate's
// ray), forward-mode dual numbers over the curvature variables.
#include "kernels/jacobian_bodies.cuh"

extern "C" __global__ void nuvrix_efl_jacobian_kernel(
    SurfaceData const* surfaces, int n, double const* row, int const* variable_surfaces,
    int variable_count, double const* values, double const* factors, double* results,
    double* rows, int count) {
  nuvrix::kernels::efl_jacobian_body(blockIdx.x * blockDim.x + threadIdx.x, surfaces, n, row,
                                     variable_surfaces, variable_count, values, factors, results,
                                     rows, count);
}

extern "C" __global__ void nuvrix_ry_jacobian_kernel(
    SurfaceData const* surfaces, int n, double const* index_table, int const* variable_surfaces,
    int variable_count, double field_y, double field_x, double const* values, double px,
    double py, double aperture_value, int wave_row, int primary_row, double const* factors,
    double const* frames, double const* aims, double const* setup, double* results,
    double* rows, int count, int last_surface, void* work) {
  nuvrix::kernels::RayJacobianArgs const a = {
      surfaces,   n,           index_table, variable_surfaces, variable_count, field_y,
      field_x,    values,      px,          py,                aperture_value, wave_row,
      primary_row, factors,    frames,      aims,              setup,          results,
      rows,       count,       last_surface, work};
  nuvrix::kernels::ry_jacobian_body(blockIdx.x * blockDim.x + threadIdx.x, a);
}

// The entries of the spot and batched ray kernels, as their runners hand
// them over.
#define NUVRIX_RAY_ENTRY_PARAMS                                                                \
  SurfaceData const *surfaces, int n, double const *index_table,                                \
      int const *variable_surfaces, int variable_count, double const *values,                   \
      double const *factors, double const *setup, int primary_row, int last_surface,            \
      double const *field_y, double const *field_x, double const *px, double const *py,         \
      int const *rows, int const *coordinates, int entry_count, double const *pupil_radii,      \
      double const *pupil_positions, double const *stop_radii, int stop_stride,                 \
      double const *ray_aims, double const *chief_aims, double const *ref_aims,                 \
      double const *reference_radii, double const *wavelengths, int afocal, double *results,    \
      double *jacobian, int count, void *work

__device__ nuvrix::kernels::RayEntries ray_entries(NUVRIX_RAY_ENTRY_PARAMS) {
  return nuvrix::kernels::RayEntries{
      surfaces,    n,          index_table, variable_surfaces, variable_count,
      values,      factors,    nuvrix::kernels::ray_config(setup, setup[5]),
      primary_row, last_surface, field_y,   field_x,           px,
      py,          rows,       coordinates, entry_count,       pupil_radii,
      pupil_positions, stop_radii, stop_stride, ray_aims,      chief_aims,
      ref_aims,    reference_radii, wavelengths, afocal,       results,
      jacobian,    count,      work};
}

#define NUVRIX_RAY_ENTRY_ARGS                                                                  \
  surfaces, n, index_table, variable_surfaces, variable_count, values, factors, setup,          \
      primary_row, last_surface, field_y, field_x, px, py, rows, coordinates, entry_count,      \
      pupil_radii, pupil_positions, stop_radii, stop_stride, ray_aims, chief_aims, ref_aims,    \
      reference_radii, wavelengths, afocal, results, jacobian, count, work

// Entries across x, candidates across y.
extern "C" __global__ void nuvrix_spot_jacobian_kernel(NUVRIX_RAY_ENTRY_PARAMS) {
  nuvrix::kernels::ray_entry_body(blockIdx.y, blockIdx.x * blockDim.x + threadIdx.x,
                                  ray_entries(NUVRIX_RAY_ENTRY_ARGS));
}

// The OPD entries: the same shape as the spot kernel.
extern "C" __global__ void nuvrix_opd_jacobian_kernel(NUVRIX_RAY_ENTRY_PARAMS) {
  nuvrix::kernels::ray_entry_body(blockIdx.y, blockIdx.x * blockDim.x + threadIdx.x,
                                  ray_entries(NUVRIX_RAY_ENTRY_ARGS));
}

// Items in a row: candidate t / entry_count, entry t % entry_count.
extern "C" __global__ void nuvrix_ry_batched_jacobian_kernel(NUVRIX_RAY_ENTRY_PARAMS) {
  long const t = static_cast<long>(blockIdx.x) * blockDim.x + threadIdx.x;
  if (entry_count < 1 || t >= static_cast<long>(count) * entry_count) return;
  nuvrix::kernels::ray_entry_body(static_cast<int>(t / entry_count),
                                  static_cast<int>(t % entry_count),
                                  ray_entries(NUVRIX_RAY_ENTRY_ARGS));
}

// One thread a sample ray of a candidate.
extern "C" __global__ void nuvrix_sd_jacobian_kernel(
    SurfaceData const* surfaces, int n, double const* index_table, int const* variable_surfaces,
    int variable_count, double const* values, double const* factors, double const* setup,
    int const* surfaces_of, int const* rows, double const* field_y, double const* px,
    double const* py, double const* scales, int entry_count, int wave_count,
    double const* pupil_radii, double const* pupil_positions, double const* stop_radii,
    double const* aims, double* results, double* jacobian, int count, void* work) {
  nuvrix::kernels::SdEntries const a = {
      surfaces,    n,          index_table, variable_surfaces, variable_count, values,
      factors,     nuvrix::kernels::ray_config(setup, setup[5]), surfaces_of, rows, field_y,
      px,          py,         scales,      entry_count,       wave_count,     pupil_radii,
      pupil_positions, stop_radii, aims,    results,           jacobian,       count,
      work};
  nuvrix::kernels::sd_entry_body(static_cast<long>(blockIdx.x) * blockDim.x + threadIdx.x, a);
}
