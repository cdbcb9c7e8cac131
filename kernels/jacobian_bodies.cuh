// The bodies of the Jacobian kernels, one item a thread, written once for
// the device and the host (the stand-in driver of the tests runs them
// too).  The device differentiates with respect to curvatures only: a
// candidate is the base surfaces with its own values of the curvature
// variables, and each item carries the variables in passes of eight slots
// of Dual<10>, as the CPU's analytic Jacobian does, through the same
// templates, so that its values and rows are the CPU's.
#pragma once

#include "merit/dual_system.hpp"
#include "merit/operand_catalogue.hpp"

namespace nuvrix {
namespace kernels {

constexpr int kMaxJacobianSurfaces = 256;

// A candidate's surfaces as the dual templates read them: the plain
// records, its own curvatures, and on every curvature that variables of
// the pass address the slots of those variables (a mask of the eight).
struct CurvatureDuals {
  using Scalar = JDual;
  SurfaceData const* surfaces;
  int n;
  double const* curvatures;    // the candidate's, n of them
  unsigned char const* slots;  // bit s: the variable of slot s moves this curvature
  NUVRIX_HD SurfaceData const& record(int k) const { return surfaces[k]; }
  NUVRIX_HD JDual curvature(int k) const {
    JDual c(curvatures[k]);
    for (int s = 0; s < kPassVariables; ++s) {
      if ((slots[k] >> s) & 1) c.d[s] += 1.0;
    }
    return c;
  }
  NUVRIX_HD JDual thickness(int k) const { return JDual(surfaces[k].thickness); }
  NUVRIX_HD JDual conic(int k) const { return JDual(surfaces[k].conic); }
  NUVRIX_HD JDual coefficient(int k, int j) const { return JDual(surfaces[k].coefficients[j]); }
  NUVRIX_HD JDual focal_length(int k) const { return JDual(surfaces[k].focal_length); }
};

// The variables of one candidate: its curvatures, and the slot masks of
// the pass that starts at variable `first`.  False when n is out of range.
struct Candidate {
  double curvatures[kMaxJacobianSurfaces];
  unsigned char slots[kMaxJacobianSurfaces];
};

NUVRIX_HD bool load_candidate(Candidate& c, SurfaceData const* surfaces, int n,
                              int const* variable_surfaces, int variable_count,
                              double const* values) {
  if (n < 1 || n > kMaxJacobianSurfaces) return false;
  for (int k = 0; k < n; ++k) c.curvatures[k] = surfaces[k].curvature;
  for (int v = 0; v < variable_count; ++v) c.curvatures[variable_surfaces[v]] = values[v];
  return true;
}

NUVRIX_HD void load_pass(Candidate& c, int n, int const* variable_surfaces, int variable_count,
                         int first) {
  for (int k = 0; k < n; ++k) c.slots[k] = 0;
  for (int v = first; v < variable_count && v < first + kPassVariables; ++v) {
    c.slots[variable_surfaces[v]] |= static_cast<unsigned char>(1u << (v - first));
  }
}

// The row of an item: the slots of each pass, times the factor of each
// variable when factors are given.
NUVRIX_HD void store_slots(JDual const& value, int first, int variable_count,
                           double const* factors, double* row) {
  for (int v = first; v < variable_count && v < first + kPassVariables; ++v) {
    double const d = value.d[v - first];
    row[v] = factors != nullptr ? d * factors[v] : d;
  }
}

// Candidate i of the focal-length operand: the value and the derivatives
// of what the CPU's dual catalogue forms for code 50 on the index row.
NUVRIX_HD void efl_jacobian_body(int i, SurfaceData const* surfaces, int n, double const* row,
                                 int const* variable_surfaces, int variable_count,
                                 double const* values, double const* factors, double* results,
                                 double* rows, int count) {
  if (i >= count) return;
  long const at = static_cast<long>(i) * variable_count;
  Candidate c;
  if (!load_candidate(c, surfaces, n, variable_surfaces, variable_count, values + at)) {
    results[i] = 0.0;
    for (int v = 0; v < variable_count; ++v) rows[at + v] = 0.0;
    return;
  }
  CurvatureDuals const view = {surfaces, n, c.curvatures, c.slots};
  for (int first = 0; first < variable_count || first == 0; first += kPassVariables) {
    load_pass(c, n, variable_surfaces, variable_count, first);
    JDual const f = detail::catalogue_focal_length(view, row);
    if (first == 0) results[i] = f.value;
    store_slots(f, first, variable_count, factors != nullptr ? factors + at : nullptr,
                rows + at);
  }
}

}  // namespace kernels
}  // namespace nuvrix
