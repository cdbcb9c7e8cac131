// The value kernels of the side file: one thread a candidate.
#include "kernels/value_bodies.cuh"

extern "C" __global__ void nuvrix_efl_value_kernel(SurfaceData const* surfaces,
                                                   double const* catalog,
                                                   int const* material_ids, int wave_count,
                                                   int wave_index, double const* curvatures,
                                                   double const* thicknesses, double* results,
                                                   int n, int population) {
  int const i = blockIdx.x * blockDim.x + threadIdx.x;
  nuvrix::kernels::efl_value_body(i, surfaces, catalog, material_ids, wave_count, wave_index,
                                  curvatures, thicknesses, results, n, population);
}

extern "C" __global__ void nuvrix_ry_value_kernel(
    SurfaceData const* surfaces, double const* catalog, int const* material_ids, int wave_count,
    int wave_index, double field_value, double px, double py, int field_type,
    double const* curvatures, double const* thicknesses, double const* conics,
    double const* pupil_radii, double const* pupil_positions, double* results, int n,
    int population, int last_surface) {
  int const i = blockIdx.x * blockDim.x + threadIdx.x;
  nuvrix::kernels::RyRay const ray = {field_value, px, py, field_type, last_surface};
  nuvrix::kernels::ry_value_body(i, surfaces, catalog, material_ids, wave_count, wave_index, ray,
                                 curvatures, thicknesses, conics, pupil_radii, pupil_positions,
                                 results, n, population);
}
