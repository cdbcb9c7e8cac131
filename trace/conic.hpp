// Plane and conic surfaces: intersection and normal, over a generic scalar.
//
// A conic of vertex curvature c and constant K (k1 = 1 + K) is the set
//   c (x^2 + y^2 + k1 z^2) - 2 z = 0.
// Substituting the ray p + t d gives  a t^2 - 2 B t + F = 0  with
//   F = c (x^2 + y^2 + k1 z^2) - 2 z,  B = n - c (x l + y m + k1 z n),
//   a = c (l^2 + m^2 + k1 n^2),
// whose root nearest the vertex is t = F / (B + sign(B) sqrt(B^2 - a F)).
// Adding like signs in the denominator keeps the root exact when c -> 0.
#pragma once

#include "api/types.hpp"

namespace nuvrix {
namespace detail {

// The terms of the ray-conic quadratic at (x, y, z) along (l, m, n): F, B
// and the discriminant D = B^2 - a F, whose roots are t = F / (B +- sqrt(D)).
template <typename T>
NUVRIX_HD void conic_quadratic_t(T const& x, T const& y, T const& z, T const& l, T const& m,
                                 T const& n, T const& c, T const& k1, T& F, T& B, T& D) {
  F = c * fma(k1 * z, z, sum_sq2(x, y)) - 2.0 * z;
  B = n - c * dot3(x, y, k1 * z, l, m, n);
  D = B * B - c * F * fma(k1 * n, n, sum_sq2(l, m));
}

// Distance along the ray from (x, y, z) to the conic; false when the
// discriminant is negative or the denominator is below 1e-15.
template <typename T>
NUVRIX_HD bool conic_distance_t(T const& x, T const& y, T const& z, T const& l, T const& m,
                                T const& n, T const& c, T const& k1, T& t) {
  T F, B, D;
  conic_quadratic_t(x, y, z, l, m, n, c, k1, F, B, D);
  if (val(D) < 0.0) return false;
  T const s = sqrt(D);
  T const den = val(B) >= 0.0 ? B + s : B - s;
  if (fabs(val(den)) < kTiny) return false;
  t = F / den;
  return true;
}

// Moves the ray onto a plane (|c| < 1e-15) or a conic and adds the distance
// to sag_path.  The plane step also sets the normal (0, 0, -1).  Returns
// false when the ray misses; the ray is then left where it was.
// A plane whose curvature carries a derivative takes the conic step: its
// root is exact at c = 0 and gives the same point, and only the conic step
// knows how the point and the normal move as the surface bends.
template <typename T>
NUVRIX_HD bool intersect_conic_t(RayStateT<T>& ray, T const& c, T const& k) {
  if (fabs(val(c)) < kPlaneCurvature && !has_slots(c)) {
    // Intersect the vertex plane.
    if (fabs(val(ray.n)) < kTiny) return false;
    T const t = -ray.z / ray.n;
    ray.x = fma(t, ray.l, ray.x);
    ray.y = fma(t, ray.m, ray.y);
    ray.z = T(0.0);
    ray.nx = T(0.0);
    ray.ny = T(0.0);
    ray.nz = T(-1.0);
    ray.sag_path = ray.sag_path + t;
    return true;
  }
  T t;
  if (!conic_distance_t(ray.x, ray.y, ray.z, ray.l, ray.m, ray.n, c, T(1.0 + k), t)) return false;
  ray.x = fma(t, ray.l, ray.x);
  ray.y = fma(t, ray.m, ray.y);
  ray.z = fma(t, ray.n, ray.z);
  ray.sag_path = ray.sag_path + t;
  return true;
}

// The root of the conic slope term, sqrt(1 - k1 c^2 r^2), held at 1e-15 when
// the radicand is negative or the root vanishes: a point beyond the rim of
// the conic still gets a (steep) normal and is no failure.
template <typename T>
NUVRIX_HD T conic_normal_root_t(T const& r2, T const& c, T const& k1) {
  T const radicand = 1.0 - k1 * c * c * r2;
  if (val(radicand) < 0.0) return T(kTiny);
  T const root = sqrt(radicand);
  if (!(val(root) > kTiny)) return T(kTiny);
  return root;
}

// Stores in the ray the unit normal (gx, gy, -1) / |(gx, gy, -1)| for a
// surface gradient (gx, gy).
template <typename T>
NUVRIX_HD void set_normal_from_gradient_t(RayStateT<T>& ray, T const& gx, T const& gy) {
  T const norm = sqrt(sum_sq2(gx, gy) + 1.0);
  ray.nx = gx / norm;
  ray.ny = gy / norm;
  ray.nz = -1.0 / norm;
}

// Unit normal of the conic at the ray's point, pointing against +z.
template <typename T>
NUVRIX_HD void conic_normal_t(RayStateT<T>& ray, T const& c, T const& k) {
  T const root = conic_normal_root_t(sum_sq2(ray.x, ray.y), c, T(1.0 + k));
  set_normal_from_gradient_t(ray, T(ray.x * c / root), T(ray.y * c / root));
}

}  // namespace detail
}  // namespace nuvrix
