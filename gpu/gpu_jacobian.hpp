// The host side of the Jacobian kernels.  The device differentiates with
// respect to curvature variables only: variable v moves the curvature of
// surface variable_surfaces[v] (1 .. n - 1), and a candidate is the base
// surfaces with its own values of those variables, `values` holding
// count rows of variable_count.  Each runner allocates its device buffers,
// uploads, launches, synchronises, downloads and frees them all on every
// path; it returns 0 or the codes of the GPU family (-8 for sizes or
// variable surfaces out of range, -3 for a null array or a failed
// allocation).  `factors`, when given (count rows of variable_count),
// multiply each derivative, so that a host can have the rows with respect
// to its unbounded variables (the transform's derivative) at once.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {
namespace gpu {

// Code 50 on the index row `row` (n indices; the operand's wavelength row
// of the host's table): results[i] the focal length of candidate i,
// rows[i * variable_count + v] its derivative.
int cuda_run_efl_jacobian(SurfaceData const* surfaces, int n, double const* row,
                          int const* variable_surfaces, int variable_count,
                          double const* values, double const* factors, double* results,
                          double* rows, int count);

}  // namespace gpu
}  // namespace nuvrix
