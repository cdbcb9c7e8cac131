// Refraction (vector Snell's law) and reflection at a surface whose unit
// normal the ray carries.
#pragma once

#include "api/types.hpp"

namespace nuvrix {
namespace detail {

// Refracts the ray's direction from index n1 into index n2.  The normal used
// is turned to face the incoming ray; the stored normal stays as it is.
// Returns false on total internal reflection, leaving the direction as it was.
template <typename T, typename U>
NUVRIX_HD bool refract_t(RayStateT<T>& ray, U const& n1, U const& n2) {
  if (fabs(val(n1) - val(n2)) <= kTiny) return true;  // no index step: direction unchanged
  U const mu = n1 / n2;
  T const dot = dot3(ray.nx, ray.ny, ray.nz, ray.l, ray.m, ray.n);
  T c1, nx, ny, nz;
  if (val(dot) > 0.0) {
    c1 = dot;
    nx = -ray.nx;
    ny = -ray.ny;
    nz = -ray.nz;
  } else {
    c1 = -dot;
    nx = ray.nx;
    ny = ray.ny;
    nz = ray.nz;
  }
  T const s2 = val(dot) * val(dot) > 1.0 ? T(0.0) : T(1.0 - dot * dot);
  T const w = 1.0 - mu * mu * s2;
  if (val(w) < 0.0) return false;
  T const g = mu * c1 - sqrt(w);
  T l = mu * ray.l + g * nx;
  T m = mu * ray.m + g * ny;
  T n = mu * ray.n + g * nz;
  T const len = sqrt(dot3(l, m, n, l, m, n));
  if (val(len) > kTiny) {
    l = l / len;
    m = m / len;
    n = n / len;
  }
  ray.l = l;
  ray.m = m;
  ray.n = n;
  return true;
}

// Margin of a total internal reflection from n1 into n2 for the ray's
// direction and normal: max(0, sin^2 - (n2/n1)^2), or 0 for |cos| > 1.
NUVRIX_HD double tir_margin(RayStateT<double> const& ray, double n1, double n2) {
  double const dot = dot3(ray.nx, ray.ny, ray.nz, ray.l, ray.m, ray.n);
  if (fabs(dot) > 1.0) return 0.0;
  double const s2 = dot * dot > 1.0 ? 0.0 : 1.0 - dot * dot;
  double const ratio = n2 / n1;
  double const margin = s2 - ratio * ratio;
  return margin > 0.0 ? margin : 0.0;
}

// Mirror reflection d' = d - 2 (d . N) N; no renormalisation follows.
template <typename T>
NUVRIX_HD void reflect_t(RayStateT<T>& ray) {
  T const dot = dot3(ray.nx, ray.ny, ray.nz, ray.l, ray.m, ray.n);
  T const two_dot = 2.0 * dot;
  ray.l = ray.l - two_dot * ray.nx;
  ray.m = ray.m - two_dot * ray.ny;
  ray.n = ray.n - two_dot * ray.nz;
}

}  // namespace detail
}  // namespace nuvrix
