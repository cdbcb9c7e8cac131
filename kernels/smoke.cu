// The smoke kernel: proves that the module loads and that a launch reads
// and writes device memory.  Each thread takes one element: the sum, the
// product and the length of (a, b), all correctly rounded operations, so
// the host can check the results to the bit.
extern "C" __global__ void nuvrix_smoke_kernel(double const* a, double const* b, double* out_0,
                                               double* out_1, double* out_2, int count) {
  int const i = blockIdx.x * blockDim.x + threadIdx.x;
  if (i >= count) return;
  double const x = a[i], y = b[i];
  out_0[i] = x + y;
  out_1[i] = x * y;
  out_2[i] = sqrt(x * x + y * y);
}
