// Third-order (Seidel) surface contributions, the launch of the two
// first-order rays they rest on, and the paraxial matrix of a range of
// surfaces.
//
// Two forms of the Seidel sums differ on purpose.  The analysis
// (compute_seidel_coefficients, seidel.cpp) walks a marginal and a chief ray
// launched as real rays, carrying their slopes as tangents of direction
// cosines, and treats every surface as a refraction.  The operand form
// (seidel_range_sum_t) sums one kind over a range from true paraxial traces,
// differentiably, and knows mirrors (by a sign on the indices behind each
// one) and the fourth-order terms of conics and even aspheres.
//
// Everything here is generic over the scalar: every decision looks at the
// plain value, so that a dual number follows the branch its value takes.
#pragma once

#include "api/types.hpp"
#include "first_order/paraxial.hpp"

namespace nuvrix {

constexpr double kAsphereTermFloor = 1e-30;  // |e| at or below: no fourth-order surface term

namespace detail {

// A field angle in degrees, in radians.
NUVRIX_HD double launch_angle_radians(double degrees) {
  return degrees * 3.14159265358979323846 / 180.0;
}

// |x| of a generic scalar, its sign read from the value; plain doubles by fabs.
NUVRIX_HD double magnitude_t(double x) { return fabs(x); }
template <typename S>
NUVRIX_HD S magnitude_t(S const& x) {
  return val(x) < 0.0 ? S(-x) : x;
}

// The refraction invariants of one surface and its five monochromatic sums.
template <typename T>
struct SeidelSurfaceTerms {
  T A;  // n (c y + u) of the marginal ray
  T q;  // B / A: the stop-shift factor of the chief ray
  T s1, s2, s3, s4, s5;
};

// The monochromatic sums of one surface from the marginal (y_m, u_m) and chief
// (y_c, u_c) rays at it, the slopes taken in front of it, the indices n_a in
// front and n_b behind, and d, the change of u / n across the surface.
template <typename T, typename N>
NUVRIX_HD SeidelSurfaceTerms<T> seidel_surface_terms(N const& n_a, N const& n_b, T const& c,
                                                     T const& y_m, T const& u_m, T const& y_c,
                                                     T const& u_c, T const& d) {
  SeidelSurfaceTerms<T> s;
  s.A = n_a * (c * y_m + u_m);
  T const B = n_a * (c * y_c + u_c);
  T const H = n_a * (u_m * y_c - u_c * y_m);  // Lagrange invariant
  s.q = fabs(val(s.A)) > kTiny ? T(B / s.A) : T(0.0);
  s.s1 = -s.A * s.A * y_m * d;
  s.s2 = -s.A * B * y_m * d;
  s.s3 = -B * B * y_m * d;
  s.s4 = -(H * H) * (1.0 / n_b - 1.0 / n_a) * c;
  s.s5 = (s.s3 + s.s4) * s.q;
  return s;
}

// The fourth-order surface terms of a conic or asphere with coefficient e
// (K c^3 + 8 a) across an index step dn: f = e dn y_m^2, and s1, s2, s3
// grow by f y_m^2, f y_m y_c, f y_c^2, s5 by e dn y_m y_c^3.
template <typename T, typename U>
NUVRIX_HD void add_fourth_order_terms_t(T const& e, U const& dn, T const& y_m, T const& y_c,
                                        SeidelSurfaceTerms<T>& t) {
  T const f = e * dn * (y_m * y_m);
  t.s1 = t.s1 + f * (y_m * y_m);
  t.s2 = t.s2 + f * y_m * y_c;
  t.s3 = t.s3 + f * (y_c * y_c);
  t.s5 = t.s5 + e * dn * y_m * (y_c * y_c * y_c);
}

// Launch of the operand form's two paraxial rays at surface 0, and the slopes
// that the sums take as incoming at surface 1.
template <typename T>
struct SeidelLaunch {
  T y_m, u_m;      // marginal ray launch (its slope is also the incoming one)
  T y_c, u_c;      // chief ray launch
  T u_c_in;        // chief slope taken as incoming at surface 1
  bool chief_set;  // the chief launch is final: no search for the stop centre
};

template <typename T>
NUVRIX_HD SeidelLaunch<T> seidel_launch_t(T const* thicknesses, SurfaceData const* surfaces,
                                          FieldType field_type, T pupil_radius, double field_value,
                                          T entrance_pupil_position) {
  SeidelLaunch<T> L;
  double const t0 = surfaces[0].thickness;
  double const tan_field = tan(launch_angle_radians(field_value));
  L.chief_set = false;
  L.y_m = pupil_radius;
  L.u_m = T(0.0);
  L.y_c = T(0.0);
  if (!is_infinite_distance(t0) && t0 > kTiny) {
    if (field_type == 1) {
      // Object heights at a finite distance: both rays start on the object.
      T const d = entrance_pupil_position + thicknesses[0];
      L.y_m = T(0.0);
      L.y_c = T(field_value);
      if (fabs(val(d)) > kTiny) {
        L.u_m = pupil_radius / d;
        L.u_c = T(-field_value) / d;
      } else {
        L.u_c = T(0.0);
      }
      L.u_c_in = L.u_c;
      L.chief_set = true;
      return L;
    }
    L.u_c = field_type == 0 ? T(tan_field) : T(-field_value / t0);
  } else {
    L.u_c = field_type == 0 ? T(tan_field) : T(0.0);
  }
  L.u_c_in = T(tan_field);
  return L;
}

// Traces the marginal and the chief ray of the operand form into the rows;
// the chief ray is sent through the centre of the stop when it is not final.
template <typename T, typename U>
NUVRIX_HD SeidelLaunch<T> seidel_rays_t(T const* curvatures, T const* thicknesses, U const* indices,
                                        SurfaceData const* surfaces, int n, FieldType field_type,
                                        int stop_surface, T pupil_radius, double field_value,
                                        T entrance_pupil_position, T const* focal_lengths,
                                        U const (*matrices)[8], T* y_m, T* u_m, T* y_c, T* u_c) {
  SeidelLaunch<T> L = seidel_launch_t<T>(thicknesses, surfaces, field_type, pupil_radius,
                                         field_value, entrance_pupil_position);
  trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, L.y_m, L.u_m, y_m, u_m,
                             focal_lengths, matrices);
  if (!L.chief_set && stop_surface >= 2 && stop_surface - 1 <= n - 2) {
    // The chief height is affine in the launch height: two trials give the
    // height that crosses the axis at the stop.
    int const row = stop_surface - 1;
    trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, T(0.0), L.u_c, y_c,
                               u_c, focal_lengths, matrices);
    T const h0 = y_c[row];
    trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, T(1.0), L.u_c, y_c,
                               u_c, focal_lengths, matrices);
    T const diff = y_c[row] - h0;
    if (!(fabs(val(diff)) < kTiny)) L.y_c = -h0 / diff;
  }
  trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, L.y_c, L.u_c, y_c, u_c,
                             focal_lengths, matrices);
  return L;
}

}  // namespace detail

// Start point (x, y) and direction cosines (l, m, n_out) of a meridional ray
// in front of surface 1 for the third-order analysis: from the object point
// of field_value towards pupil height py * pupil_radius in the entrance
// pupil.  `thickness` is that of surface 0; only an infinite or NaN one puts
// the object at infinity, where the ray starts in the plane of surface 1
// and, unless the pupil lies there, is moved back along itself to the pupil.
NUVRIX_HD void get_launch_conditions(SurfaceData const* surfaces, int n, double const* indices,
                                     SystemConfig const* config, double thickness,
                                     double field_value, double pupil_radius, double py,
                                     double entrance_pupil_position, double& x, double& y,
                                     double& l, double& m, double& n_out) {
  (void)surfaces;
  (void)n;
  (void)indices;
  bool const angles = config->field_type == 0;
  x = 0.0;
  l = 0.0;
  if (detail::is_finite(thickness)) {
    double const d = thickness + entrance_pupil_position;
    if (!angles) {
      double const a = field_value - py * pupil_radius;
      double const len = sqrt(a * a + d * d);
      y = field_value;
      m = -a / len;
      n_out = d / len;
    } else {
      double const t = tan(detail::launch_angle_radians(field_value));
      double const slope = t + py * pupil_radius / d;
      double const len = sqrt(slope * slope + 1.0);
      y = -t * d;
      m = slope / len;
      n_out = 1.0 / len;
    }
    return;
  }
  y = pupil_radius * py;
  m = 0.0;
  n_out = 1.0;
  if (angles) {
    double const theta = detail::launch_angle_radians(field_value);
    m = sin(theta);
    n_out = cos(theta);
  }
  double const p = entrance_pupil_position;
  if (p == 0.0 || (angles && fabs(n_out) <= kTiny)) return;
  x += -p * l / n_out;
  y += -p * m / n_out;
}

// One kind of Seidel sum over surfaces first .. last: 0 spherical, 1 coma,
// 2 astigmatism, 3 Petzval, 4 distortion, 5 axial colour, any other lateral
// colour.  Paraxial marginal and chief rays from the aperture and field;
// behind each mirror the indices change sign; conics and the r^4 term of an
// even asphere add their fourth-order terms.  0 when n < 3.
template <typename T, typename U>
NUVRIX_HD T seidel_range_sum_t(T const* curvatures, T const* thicknesses, U const* indices,
                               U const* indices_short, U const* indices_long,
                               SurfaceData const* surfaces, int n, FieldType field_type,
                               int stop_surface, T pupil_radius, double field_value,
                               T entrance_pupil_position, int kind, int first, int last,
                               T const* focal_lengths, U const (*coefficients)[8],
                               T const* conics) {
  if (n < 3) return T(0.0);
  T y_m[kMaxSurfaces], u_m[kMaxSurfaces], y_c[kMaxSurfaces], u_c[kMaxSurfaces];
  detail::SeidelLaunch<T> const L = detail::seidel_rays_t<T, U>(
      curvatures, thicknesses, indices, surfaces, n, field_type, stop_surface, pupil_radius,
      field_value, entrance_pupil_position, focal_lengths, coefficients, y_m, u_m, y_c, u_c);
  bool const colour = indices_short != nullptr && indices_long != nullptr;
  double g = 1.0;  // -1 behind an odd number of mirrors
  T sum = T(0.0);
  for (int i = 1; i <= n - 1; ++i) {
    SurfaceData const& s = surfaces[i];
    bool const mirror = s.is_mirror != 0;
    if (i >= first && i <= last) {
      U const n_a = g * indices[i - 1];
      U const n_b = mirror ? U(-n_a) : U(g * indices[i]);
      T const& c = curvatures[i];
      bool const dummy =
          !mirror && fabs(detail::val(n_b - n_a)) < kTiny && fabs(detail::val(c)) < kPlaneCurvature;
      if (!dummy) {
        T const& ym = y_m[i - 1];
        T const& yc = y_c[i - 1];
        T const um_in = i == 1 ? L.u_m : u_m[i - 2];
        T const uc_in = i == 1 ? L.u_c_in : u_c[i - 2];
        T const d = u_m[i - 1] / n_b - um_in / n_a;
        detail::SeidelSurfaceTerms<T> t =
            detail::seidel_surface_terms<T, U>(n_a, n_b, c, ym, um_in, yc, uc_in, d);

        // Fourth-order surface terms: K c^3 of the conic, plus 8 a of the first
        // coefficient of an even asphere.
        T e = (conics != nullptr ? conics[i] : T(s.conic)) * (c * c * c);
        if (s.type == NUVRIX_SURFACE_EVEN_ASPHERE) {
          U const a = coefficients != nullptr ? coefficients[i][0] : U(s.coefficients[0]);
          e = e + T(8.0 * a);
        }
        if (fabs(detail::val(e)) > kAsphereTermFloor) {
          detail::add_fourth_order_terms_t<T, U>(e, n_b - n_a, ym, yc, t);
        }

        // Colour of a refracting surface from the dispersions on its two sides.
        T c1 = T(0.0), c2 = T(0.0);
        if (!mirror && colour) {
          U const disp_b = detail::magnitude_t(indices_short[i] - indices_long[i]);
          U const disp_a = detail::magnitude_t(indices_short[i - 1] - indices_long[i - 1]);
          U const ratio = disp_b / detail::magnitude_t(n_b) - disp_a / detail::magnitude_t(n_a);
          c1 = ratio * (-t.A * ym);
          c2 = c1 * t.q;
        }
        T const by_kind[7] = {t.s1, t.s2, t.s3, t.s4, t.s5, c1, c2};
        sum = sum + by_kind[kind >= 0 && kind <= 5 ? kind : 6];
      }
    }
    if (mirror) g = -g;
  }
  return sum;
}

// Carries (y, u) through surfaces first .. last (first raised to 1, last
// lowered to n - 1) by the paraxial step: the power of each surface, then,
// when another surface of the range follows, the transfer by its thickness
// unless that is infinite (not finite or at least 1e10).  An empty range
// leaves the ray as it is.
template <typename T, typename U>
NUVRIX_HD void subsystem_transfer_t(T const* curvatures, T const* thicknesses, U const* indices,
                                    SurfaceData const* surfaces, int n, int first, int last, T y,
                                    T u, T& y_out, T& u_out, T const* focal_lengths,
                                    U const (*coefficients)[8]) {
  int const k_first = first > 1 ? first : 1;
  int const k_last = last < n ? last : n - 1;
  for (int k = k_first; k <= k_last; ++k) {
    detail::paraxial_power_step_t<T, U>(curvatures, indices, surfaces, k, focal_lengths,
                                        coefficients, y, u);
    if (k < k_last && !detail::is_infinite_distance(detail::val(thicknesses[k]))) {
      y = fma(thicknesses[k], u, y);
    }
  }
  y_out = y;
  u_out = u;
}

// The paraxial matrix [A B; C D] of surfaces first .. last, acting on (y, u):
// A and C are the exit height and slope of the ray (1, 0), B and D those of
// the ray (0, 1).  Its determinant is the index in front of the range over
// the index behind it.
template <typename T, typename U>
NUVRIX_HD void compute_subsystem_abcd_t(T const* curvatures, T const* thicknesses, U const* indices,
                                        SurfaceData const* surfaces, int n, int first, int last,
                                        T& A, T& C, T& B, T& D, T const* focal_lengths,
                                        U const (*coefficients)[8]) {
  subsystem_transfer_t<T, U>(curvatures, thicknesses, indices, surfaces, n, first, last, T(1.0),
                             T(0.0), A, C, focal_lengths, coefficients);
  subsystem_transfer_t<T, U>(curvatures, thicknesses, indices, surfaces, n, first, last, T(0.0),
                             T(1.0), B, D, focal_lengths, coefficients);
}

// The third-order analysis: one record per contributing surface, at most
// `capacity`, and the totals over the records written.  The colour sums
// need both indices_short and indices_long.  Returns 0.
int compute_seidel_coefficients(SurfaceData const* surfaces, int n, double const* indices,
                                double const* indices_short, double const* indices_long,
                                SystemConfig const* config, FieldData const* fields,
                                int field_count, SeidelSurfaceCoeffs* coefficients, int capacity,
                                SeidelResult* result);

}  // namespace nuvrix
