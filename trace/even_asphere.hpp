// Even aspheres: a conic base plus a polynomial in r^2,
//   z(r) = c r^2 / (1 + sqrt(1 - (1 + K) c^2 r^2)) + sum_k a_k r^(2k+2),  k = 0..7.
// No closed-form intersection exists; the ray walks along itself to the
// surface by fixed-point steps on the sag error.
#pragma once

#include "api/types.hpp"
#include "trace/conic.hpp"

namespace nuvrix {

constexpr int kAsphereTerms = 8;
constexpr int kAsphereMaxIterations = 1000;
constexpr double kAsphereTolerance = 1e-12;
constexpr double kAsphereDividedStep = 0.8;  // |n| above this: step e / n

// Sag at squared radius r2.  A negative radicand of the conic base counts as
// 0, so the base stays defined beyond its rim; zero terms are skipped exactly
// (adding 0 changes no value), unless a term or the curvature carries a
// derivative: a variable that stands at 0 still moves the surface.
template <typename T>
NUVRIX_HD T even_asphere_sag_t(T const& r2, T const& c, T const* coefficients, T const& k) {
  T sag = T(0.0);
  if (fabs(detail::val(c)) > kPlaneCurvature || detail::has_slots(c)) {
    T radicand = 1.0 - (1.0 + k) * c * c * r2;
    if (detail::val(radicand) < 0.0) radicand = T(0.0);
    sag = r2 * c / (1.0 + sqrt(radicand));
  }
  T power = r2;  // r2^(k+1)
  for (int i = 0; i < kAsphereTerms; ++i) {
    if (detail::val(coefficients[i]) != 0.0 || detail::has_slots(coefficients[i])) {
      sag = fma(coefficients[i], power, sag);
    }
    power = power * r2;
  }
  return sag;
}

// Unit normal of the even asphere at the ray's point (x, y).
template <typename T>
NUVRIX_HD void even_asphere_normal_t(RayStateT<T>& ray, T const& c, T const& k,
                                     T const* coefficients) {
  T const r2 = detail::sum_sq2(ray.x, ray.y);
  T gx = T(0.0), gy = T(0.0);
  if (fabs(detail::val(c)) > kPlaneCurvature || detail::has_slots(c)) {
    T const root = detail::conic_normal_root_t(r2, c, T(1.0 + k));
    gx = ray.x * c / root;
    gy = ray.y * c / root;
  }
  T power = T(1.0);  // r2^k
  for (int i = 0; i < kAsphereTerms; ++i) {
    if (detail::val(coefficients[i]) != 0.0 || detail::has_slots(coefficients[i])) {
      T const g = 2.0 * (i + 1) * coefficients[i] * power;
      gx = gx + g * ray.x;
      gy = gy + g * ray.y;
    }
    power = power * r2;
  }
  detail::set_normal_from_gradient_t(ray, gx, gy);
}

namespace detail {

// The walk of an even-asphere intersection on plain doubles.  (x, y, z) is
// the ray after the transfer and (l, m, n) its direction.  The start is the
// base conic when it is curved and met, else the vertex plane; then the ray
// steps by the sag error e (divided by n when |n| > 0.8) until |e| < 1e-12 or
// 1000 steps have passed, which is no failure.  A ray with |n| at most 1e-15
// misses whatever the start: walking along it would never change z, so the
// sag error could not be closed.  `total` receives the sum of the steps
// along the ray.  Returns false when the ray misses.
NUVRIX_HD bool asphere_walk(double& x, double& y, double& z, double l, double m, double n,
                            double c, double k, double const* coefficients, double& total) {
  // The walk runs on locals, so that its point stays in registers even where
  // the caller's coordinates live in memory; they are written back at the end.
  double px = x, py = y, pz = z, t = 0.0;
  bool started = false;
  if (fabs(c) >= kPlaneCurvature) {
    started = conic_distance_t<double>(px, py, pz, l, m, n, c, 1.0 + k, t);
  }
  if (fabs(n) <= kTiny) return false;
  if (!started) t = -pz / n;
  px = fma(t, l, px);
  py = fma(t, m, py);
  pz = fma(t, n, pz);
  double sum = t;
  bool hit = true;
  bool const divide = fabs(n) > kAsphereDividedStep;
  for (int it = 0; it < kAsphereMaxIterations; ++it) {
    double const e = even_asphere_sag_t<double>(sum_sq2(px, py), c, coefficients, k) - pz;
    if (!is_finite(e)) {
      hit = false;
      break;
    }
    if (fabs(e) < kAsphereTolerance) break;
    double const step = divide ? e / n : e;
    px = fma(step, l, px);
    py = fma(step, m, py);
    pz = fma(step, n, pz);
    sum += step;
  }
  x = px;
  y = py;
  z = pz;
  total = sum;
  return hit && is_finite(px) && is_finite(py) && is_finite(pz);
}

// d(sag)/d(r2) of the even asphere: c / (2 root) for the conic base (root
// held at 1e-15 as for the normal) plus sum (k+1) a_k r2^k.
template <typename T>
NUVRIX_HD T even_asphere_sag_slope_t(T const& r2, T const& c, T const* coefficients, T const& k) {
  T slope = T(0.0);
  if (fabs(val(c)) > kPlaneCurvature || has_slots(c)) {
    slope = c / (2.0 * conic_normal_root_t(r2, c, T(1.0 + k)));
  }
  T power = T(1.0);
  for (int i = 0; i < kAsphereTerms; ++i) {
    if (val(coefficients[i]) != 0.0 || has_slots(coefficients[i])) {
      slope = fma(T(double(i + 1)) * coefficients[i], power, slope);
    }
    power = power * r2;
  }
  return slope;
}

}  // namespace detail

// Moves the ray onto the even asphere and stores its normal; false when the
// ray misses.  The walk runs on the plain values; the position is then
// re-formed over the full scalar from the summed step, and one Newton
// correction at the converged point, zero in value to within the tolerance,
// makes the derivatives of the point follow the surface.
template <typename T>
NUVRIX_HD bool intersect_even_asphere_t(RayStateT<T>& ray, T const& c, T const& k,
                                        T const* coefficients) {
  double x = detail::val(ray.x), y = detail::val(ray.y), z = detail::val(ray.z);
  double plain[kAsphereTerms];
  for (int i = 0; i < kAsphereTerms; ++i) plain[i] = detail::val(coefficients[i]);
  double total = 0.0;
  if (!detail::asphere_walk(x, y, z, detail::val(ray.l), detail::val(ray.m),
                            detail::val(ray.n), detail::val(c), detail::val(k), plain, total)) {
    return false;
  }
  T const s = T(total);
  ray.x = fma(s, ray.l, ray.x);
  ray.y = fma(s, ray.m, ray.y);
  ray.z = fma(s, ray.n, ray.z);
  T step = T(0.0);
  T const r2 = detail::sum_sq2(ray.x, ray.y);
  T const e = even_asphere_sag_t(r2, c, coefficients, k) - ray.z;
  T const slope = detail::even_asphere_sag_slope_t(r2, c, coefficients, k);
  T const den = ray.n - 2.0 * slope * (ray.x * ray.l + ray.y * ray.m);
  if (fabs(detail::val(den)) > kTiny) step = e / den;
  ray.x = fma(step, ray.l, ray.x);
  ray.y = fma(step, ray.m, ray.y);
  ray.z = fma(step, ray.n, ray.z);
  ray.sag_path = ray.sag_path + s + step;
  even_asphere_normal_t(ray, c, k, coefficients);
  return true;
}

}  // namespace nuvrix
