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
