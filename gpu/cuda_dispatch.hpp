// A batch of candidates on the CPU and the device at once: the CPU
// evaluates every candidate (values, residuals, merit and its own rows),
// finds the first order and the aimed launches of the rays that the device
// kernels differentiate, and the device's rows of those operands take the
// place of the CPU's.
#pragma once

#include <math.h>

#include "api/nuvrix.h"
#include "merit/dual.hpp"

namespace nuvrix {
namespace gpu_dispatch {

// The class of an operand: which kernel differentiates it.
enum OperandClass : int {
  kClassFocalLength = 0,  // EFFECTIVE_FOCAL_LENGTH
  kClassRayY = 1,         // RAY_Y, TRANSVERSE_Y
  kClassRayX = 2,         // RAY_X, TRANSVERSE_X
  kClassSpotX = 3,        // TRANSVERSE_X_CHIEF
  kClassSpotY = 4,        // TRANSVERSE_Y_CHIEF
  kClassOpdRaw = 5,
  kClassOpdTiltFree = 6,
  kClassOpdPistonFree = 7,
  kClassSemiDiameter = 8,  // BOUND_SEMI_DIAMETER
  kClassEdge = 9,          // BOUND_EDGE; 10 air, 11 glass
  kClassEdgeAir = 10,
  kClassEdgeGlass = 11,
  kClassAspect = 12,  // BOUND_ASPECT
  kClassCpu = 13,
};

// Limits of the run's tables.
constexpr int kMixedMaxVariables = 64;
constexpr int kMixedMaxSurfaces = 256;
constexpr int kMixedMaxOperands = 1700;
constexpr int kMixedMaxRayEntries = 512;
constexpr int kMixedMaxFieldValues = 64;
constexpr int kMixedMaxPupilPoints = 64;
constexpr int kMixedMaxBoundEntries = 16;
constexpr int kMixedMaxFields = 64;  // copies on each worker's stack

// The sag at height h of a surface of curvature c and conic k with the
// eight polynomial coefficients (plain), for the edge bounds: the conic
// part only where |c| is above 1e-15, a negative radicand counting as 0,
// each term added by a fused multiply-add, as the merit function's own
// sag forms it.
template <int N>
Dual<N> compute_sag_t(Dual<N> const& c, Dual<N> const& h, double const* coefficients,
                      Dual<N> const& k) {
  Dual<N> const r2 = h * h;
  Dual<N> sag(0.0);
  if (fabs(c.value) > kTiny) {
    Dual<N> radicand = 1.0 - (1.0 + k) * c * c * r2;
    if (radicand.value < 0.0) radicand = Dual<N>(0.0);
    sag = c * r2 / (1.0 + sqrt(radicand));
  }
  Dual<N> power = r2;
  for (int j = 0; j < 8; ++j) {
    if (coefficients[j] != 0.0) sag = fma(coefficients[j], power, sag);
    power *= r2;
  }
  return sag;
}

// The class of operand op in a system of n surfaces (weight not read).
int operand_class(MeritOperandDesc const& op, int n);

// The batch of evaluate_merit_batched with the device's help.  Returns 0,
// the batch's merged status of the CPU evaluations, or -2 for a system
// outside the entry conditions and for any failed device run; on -2 the
// outputs are not to be used.  `batch` brings the Jacobian method and the
// thread count of the CPU part.
int evaluate_mixed(SurfaceData const* surfaces, int n, double const* index_table,
                   double const* wavelengths, int wave_count, SystemConfig const* config,
                   FieldData const* fields, int field_count, MeritOperandDesc const* ops,
                   int operand_count, MeritVariableDesc const* variables, int variable_count,
                   MeritPickupDesc const* pickups, int pickup_count, int candidate_count,
                   double const* candidate_x, double* residuals, double* jacobians,
                   MeritResult* results, double* merits, int* residual_count, bool want_jacobian,
                   void* workspace, long workspace_size, double* sd_scratch, int* sd_rows,
                   double* sd_scratch_a, double* sd_scratch_b, MeritBatchedConfig batch);

}  // namespace gpu_dispatch
}  // namespace nuvrix
