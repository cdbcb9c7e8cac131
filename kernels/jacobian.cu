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
