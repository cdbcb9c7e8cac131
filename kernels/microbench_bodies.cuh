// The body of the trace microbenchmarks, one ray a thread, in float or in
// double: what a real trace spends per surface (a transfer, the
// intersection with a sphere, the normal and a refraction), on a fixed
// meridional system, so that the two precisions of the device can be timed
// against each other.  It is a measure of arithmetic throughput, not the
// engine's trace: that one is always in double.
#pragma once

#include "api/types.hpp"

namespace nuvrix {
namespace kernels {

// The synthetic system: surface k of radius +-50 mm alternately, 5 mm
// apart, glass of index 1.5 behind the even surfaces and air behind the odd.
template <typename T>
NUVRIX_HD T microbench_ray(int i, int ray_count, int surface_count, int pass_count) {
  T const one = T(1), two = T(2);
  T const span = T(ray_count > 1 ? ray_count - 1 : 1);
  T const height = -one + two * T(i) / span;  // -1 .. 1 mm across the rays
  T sum = T(0);
  for (int pass = 0; pass < pass_count; ++pass) {
    T y = height * (one + T(pass) * T(1e-3)), z = T(0), m = T(0), n = one;
    T index = one;
    for (int k = 0; k < surface_count; ++k) {
      T const c = (k % 2 == 0 ? one : -one) / T(50);
      T const behind = k % 2 == 0 ? T(1.5) : one;
      z -= T(5);  // into the frame of surface k
      T const F = c * (y * y + z * z) - two * z;
      T const B = n - c * (m * y + n * z);
      T const D = B * B - c * F;
      T const t = F / (B + sqrt(D > T(0) ? D : T(0)));
      y += m * t;
      z += n * t;
      T const ny = -c * y, nz = one - c * z;  // unit normal of the sphere
      T const mu = index / behind;
      T const cos_i = m * ny + n * nz;
      T const root = one - mu * mu * (one - cos_i * cos_i);
      T const g = sqrt(root > T(0) ? root : T(0)) - mu * cos_i;
      m = mu * m + g * ny;
      n = mu * n + g * nz;
      index = behind;
    }
    sum += y;
  }
  return sum;
}

template <typename T>
NUVRIX_HD void microbench_body(int i, T* out, int ray_count, int surface_count, int pass_count) {
  if (i < ray_count) out[i] = microbench_ray<T>(i, ray_count, surface_count, pass_count);
}

}  // namespace kernels
}  // namespace nuvrix
