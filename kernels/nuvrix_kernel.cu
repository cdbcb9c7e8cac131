// The side file nuvrix_kernel.fatbin is built from this one translation
// unit (a fat binary comes from one source): each kernel family stands in
// its own file, included here.
#include "kernels/smoke.cu"
#include "kernels/value.cu"
#include "kernels/merit.cu"
#include "kernels/grid.cu"
#include "kernels/microbench.cu"
#include "kernels/jacobian.cu"
#include "kernels/de.cu"
