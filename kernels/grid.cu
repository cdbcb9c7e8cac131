// The ray-grid kernel: every ray of a merit evaluation in one launch, one
// thread a ray.
#include "kernels/grid_bodies.cuh"

extern "C" __global__ void nuvrix_trace_grid_kernel(
    SurfaceData const* surfaces, int n, double const* index_table, double const* wavelengths,
    SystemConfig const* config, FieldData const* fields, int const* field_indices,
    int const* wave_indices, double const* px, double const* py, double const* field_table,
    double pupil_radius, double entrance_pupil_position, double* x, double* y,
    double* optical_path, int* valid, int const* ray_kinds, double* z, double* l, double* m,
    double* n_out, double* launch_x, double* launch_y, double* launch_z, double* launch_l,
    double* launch_m, double* launch_n, int const* surface_indices, double* normal_x,
    double* normal_y, double* normal_z, int aim, double const* stop_radii, int ray_count) {
  nuvrix::kernels::TraceGrid const g = {
      surfaces,     n,        index_table, wavelengths, config,   fields,     field_indices,
      wave_indices, px,       py,          field_table, pupil_radius, entrance_pupil_position,
      x,            y,        optical_path, valid,      ray_kinds, z,         l,
      m,            n_out,    launch_x,    launch_y,    launch_z, launch_l,   launch_m,
      launch_n,     surface_indices, normal_x, normal_y, normal_z, aim,      stop_radii,
      ray_count};
  nuvrix::kernels::trace_grid_body(blockIdx.x * blockDim.x + threadIdx.x, g);
}
