// The trace microbenchmarks: the same synthetic trace in float and in double.
#include "kernels/microbench_bodies.cuh"

extern "C" __global__ void nuvrix_trace_microbench_f32(float* out, int ray_count,
                                                       int surface_count, int pass_count) {
  nuvrix::kernels::microbench_body<float>(blockIdx.x * blockDim.x + threadIdx.x, out, ray_count,
                                          surface_count, pass_count);
}

extern "C" __global__ void nuvrix_trace_microbench_f64(double* out, int ray_count,
                                                       int surface_count, int pass_count) {
  nuvrix::kernels::microbench_body<double>(blockIdx.x * blockDim.x + threadIdx.x, out,
                                           ray_count, surface_count, pass_count);
}
