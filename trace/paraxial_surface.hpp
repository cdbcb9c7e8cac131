// Ideal thin lenses and ABCD matrix surfaces inside the real trace.  Both
// act on the ray's tangents (l/n, m/n) and send it on as (tx, ty, 1)
// normalised, so the outgoing ray always travels towards +z.
#pragma once

#include "api/types.hpp"

namespace nuvrix {
namespace detail {

// A thin lens has power when its focal length is finite and not zero.
NUVRIX_HD bool focal_length_usable(double f) { return is_finite(f) && f != 0.0; }

// Sets the direction to (tx, ty, 1) normalised.
template <typename T>
NUVRIX_HD void set_direction_from_tangents_t(RayStateT<T>& ray, T const& tx, T const& ty) {
  T const len = sqrt(sum_sq2(tx, ty) + 1.0);
  ray.l = tx / len;
  ray.m = ty / len;
  ray.n = 1.0 / len;
}

// Thin-lens tangent: t' = (n1 t - h / f) / n2.
template <typename T, typename U>
NUVRIX_HD T thin_lens_tangent_t(U const& n1, T const& t, T const& h, T const& f, U const& n2) {
  return (n1 * t - h / f) / n2;
}

// Direction change of an ideal thin lens of focal length f between indices
// n1 and n2.  Nothing happens for an unusable f, or when the ray or the
// medium behind has |n| below 1e-15.
template <typename T, typename U>
NUVRIX_HD void refract_paraxial_t(RayStateT<T>& ray, U const& n1, U const& n2, T const& f) {
  if (!focal_length_usable(val(f))) return;
  if (fabs(val(ray.n)) < kTiny || fabs(val(n2)) < kTiny) return;
  T const tx = ray.l / ray.n;
  T const ty = ray.m / ray.n;
  T const txp = thin_lens_tangent_t(n1, tx, ray.x, f, n2);
  T const typ = thin_lens_tangent_t(n1, ty, ray.y, f, n2);
  set_direction_from_tangents_t(ray, txp, typ);
}

}  // namespace detail

// ABCD element acting on (height, tangent) in x and y:
//   h' = A h + B t,  t' = C h + D t.
// No index enters and no optical path is added.
template <typename State, typename T>
NUVRIX_HD void apply_abcd_generic(State& ray, T const* abcd) {
  if (fabs(detail::val(ray.n)) <= kTiny) return;
  T const tx = ray.l / ray.n;
  T const ty = ray.m / ray.n;
  T const x = ray.x, y = ray.y;
  ray.x = abcd[0] * x + abcd[1] * tx;
  ray.y = abcd[0] * y + abcd[1] * ty;
  T const txp = abcd[2] * x + abcd[3] * tx;
  T const typ = abcd[2] * y + abcd[3] * ty;
  detail::set_direction_from_tangents_t(ray, txp, typ);
}

}  // namespace nuvrix
