// The operands of the analytic Jacobian that need no real ray, over dual
// numbers: boundaries, the paraxial marginal quantities, the total track,
// surface parameters, the Seidel sums and the model-glass bounds.  The steps
// are those of the plain catalogue, instantiated over a view that reads the
// parameters a variable can reach from the dual arrays of a DualSystem;
// every branch and every selection of an extreme looks at the value, and the
// slots follow the branch the value took.  Where the plain catalogue leans on
// a routine of the plain paraxial trace (the back focus), a dual form of the
// same steps stands here.
#pragma once

#include "merit/dual_system.hpp"
#include "merit/operand_catalogue.hpp"

namespace nuvrix {
namespace detail {

// The surfaces of a DualSystem as the catalogue steps read them: dual
// parameters from its arrays, types and flags from the plain records.  The
// semi-diameters carry the derivative of the automatic solve.
template <typename U>
struct DualSurfaces {
  using Scalar = JDual;
  DualSystem<U> const* sys;
  int n;
  NUVRIX_HD SurfaceData const& record(int k) const { return sys->surfaces[k]; }
  NUVRIX_HD JDual const& curvature(int k) const { return sys->curvatures[k]; }
  NUVRIX_HD JDual const& thickness(int k) const { return sys->thicknesses[k]; }
  NUVRIX_HD JDual const& conic(int k) const { return sys->conics[k]; }
  NUVRIX_HD JDual const& coefficient(int k, int j) const { return sys->coefficients[k][j]; }
  NUVRIX_HD JDual const& focal_length(int k) const { return sys->focal_lengths[k]; }
  NUVRIX_HD JDual const& semi_diameter(int k) const { return sys->semi_diameters[k]; }
  NUVRIX_HD JDual const& model_nd(int k) const { return sys->model_nd[k]; }
  NUVRIX_HD JDual const& model_vd(int k) const { return sys->model_vd[k]; }
  NUVRIX_HD JDual const& model_dpgf(int k) const { return sys->model_dpgf[k]; }
};

// One row of the paraxial trace behind the back focus, over dual numbers:
// the transfer by thickness i (fused, skipped when infinite), then surface
// i + 1 as the plain paraxial step acts: a matrix, an ideal lens (no power
// for an infinite or zero focal length), a mirror or a refraction, with the
// reduced slope n u - y P formed by one fused multiply-add.
template <typename U>
NUVRIX_HD void dual_end_step(DualSurfaces<U> const& v, U const* row, int i, JDual& y, JDual& u) {
  JDual const& t = v.thickness(i);
  if (!is_infinite_distance(t.value)) y = fma(t, u, y);
  int const k = i + 1;
  SurfaceData const& s = v.record(k);
  U const& n_a = row[i];
  U const& n_b = row[k];
  if (s.type == NUVRIX_SURFACE_MATRIX) {
    JDual const yp = fma(v.coefficient(k, 0), y, v.coefficient(k, 1) * u);
    JDual const up = fma(v.coefficient(k, 2), y, v.coefficient(k, 3) * u);
    y = yp;
    u = up;
    return;
  }
  JDual p;
  U d;
  if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS) {
    JDual const& f = v.focal_length(k);
    p = (is_inf(f.value) || f.value == 0.0) ? JDual(0.0) : JDual(1.0 / f);
    d = n_b;
  } else if (s.is_mirror != 0) {
    p = (-2.0 * n_a) * v.curvature(k);
    d = -n_a;
  } else {
    p = (n_b - n_a) * v.curvature(k);
    d = n_b;
  }
  u = fma(n_a, u, -(p * y)) / d;
}

// Code 51: -y / u behind the last surface in front of the image, from the
// axial object point (slope 1 / |t0|, so the object distance carries slots)
// for a finite object, else from a unit ray parallel to the axis.  0 below
// three surfaces, 1e15 where that slope vanishes.
template <typename U>
NUVRIX_HD JDual dual_back_focus(DualSurfaces<U> const& v, U const* row) {
  int const n = v.n;
  if (n <= 2) return JDual(0.0);
  double const t = val(v.thickness(0));
  bool const finite = is_finite(t) && fabs(t) < kInfiniteDistance;
  JDual y = JDual(finite ? 0.0 : 1.0);
  JDual u = finite ? JDual(1.0 / fabs(v.thickness(0))) : JDual(0.0);
  // Rows behind n - 3 do not reach the state that the back focus reads.
  for (int i = 0; i <= n - 3; ++i) dual_end_step(v, row, i, y, u);
  if (fabs(u.value) < kTiny) return JDual(kNoPowerFocal);
  return -y / u;
}

// The plain values of an index row: the Seidel sums take constant indices.
NUVRIX_HD double const* plain_index_row(double const* row, int, double*) { return row; }
NUVRIX_HD double const* plain_index_row(JDual const* row, int count, double* buffer) {
  for (int k = 0; k < count; ++k) buffer[k] = row[k].value;
  return buffer;
}

// Codes 80 to 86 over the dual curvatures and thicknesses of the first 256
// surfaces, the dual pupil radius and entrance pupil position, and the dual
// conics and focal lengths, whose values are those of the records that the
// plain sum reads.  The indices, the matrix elements and the aspheric
// coefficient enter as constants: the rows of the sum are plain numbers.
template <typename U>
NUVRIX_HD JDual dual_seidel(MeritOperandDesc const& op, DualSystem<U> const& sys,
                            double const* wavelengths, SystemConfig const* config,
                            MeritContext const& ctx) {
  int const n = sys.n;
  int a = 0, b = 0;
  resolve_surface_range(op.surface_first, op.surface_last, n, config->stop_surface, a, b);
  int shortest = 0, longest = 0;
  seidel_colour_rows(wavelengths, sys.wave_count, shortest, longest);
  int const count = n < kMaxSurfaces ? n : kMaxSurfaces;
  int const p = merit_primary_row(*config, sys.wave_count);
  double rows[3][kMaxSurfaces];
  double const* primary =
      plain_index_row(sys.index_table + static_cast<long>(p) * n, count, rows[0]);
  double const* rows_short =
      plain_index_row(sys.index_table + static_cast<long>(shortest) * n, count, rows[1]);
  double const* rows_long =
      plain_index_row(sys.index_table + static_cast<long>(longest) * n, count, rows[2]);
  return seidel_range_sum_t<JDual, double>(
      sys.curvatures, sys.thicknesses, primary, rows_short, rows_long, sys.surfaces, count,
      config->field_type, config->stop_surface, sys.pupil_radius, ctx.max_field_y,
      sys.entrance_pupil_position, static_cast<int>(op.type) - 80, a, b, sys.focal_lengths, nullptr,
      sys.conics);
}

}  // namespace detail

// The dual value of one operand that needs no real ray: codes 37 to 47, 50,
// 51, 57, 75 to 79, 80 to 86, 87, 88 to 98 and 101 to 103.  The value part
// follows the plain catalogue step for step; it equals the plain value to
// the last bit where no quotient of dual numbers is formed (a dual quotient
// multiplies by the reciprocal, which may differ by a rounding).  False for
// every other code and, as the plain catalogue, without an index row.
template <typename U>
NUVRIX_HD bool dual_paraxial_operand(MeritOperandDesc const& op, DualSystem<U> const& sys,
                                     double const* wavelengths, SystemConfig const* config,
                                     MeritContext const& ctx, JDual& value) {
  using namespace detail;
  value = JDual(0.0);
  unsigned const code = op.type;
  if (sys.wave_count < 1) return false;
  int const n = sys.n;
  DualSurfaces<U> const v{&sys, n};
  int const w = merit_wave_index(op.wave, *config, sys.wave_count);
  U const* row = sys.index_table + static_cast<long>(w) * n;
  U const* primary =
      sys.index_table + static_cast<long>(merit_primary_row(*config, sys.wave_count)) * n;
  if (code >= 37 && code <= 47) {
    value = boundary_extreme(op, v, config);
    return true;
  }
  if (code >= 88 && code <= 98) {
    value = boundary_total(op, v, config);
    return true;
  }
  if ((code >= 75 && code <= 78) || code == 87) {
    value = catalogue_matrix_operand(op, v, row);
    return true;
  }
  if (code >= 80 && code <= 86) {
    value = dual_seidel(op, sys, wavelengths, config, ctx);
    return true;
  }
  if (code >= 101 && code <= 103) {
    value = catalogue_glass_bound(op, v, config->stop_surface);
    return true;
  }
  switch (code) {
    case 50:
      value = catalogue_focal_length(v, row);
      return true;
    case 51:
      value = dual_back_focus(v, row);
      return true;
    case 57:
      value = catalogue_total_track(v, primary, config->stop_surface);
      return true;
    case 79:
      value = catalogue_surface_parameter(v, op.surface_first, op.surface_last);
      return true;
    default:
      return false;
  }
}

}  // namespace nuvrix
