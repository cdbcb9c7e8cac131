// A C++ host of the installed engine: a real ray through a plane-parallel
// plate leaves parallel to itself, lower than through air by what Snell's
// law says.
#include <nuvrix.h>

#include <cmath>
#include <cstdio>
#include <vector>

int main() {
  std::vector<SurfaceData> s(4, SurfaceData{});
  std::vector<double> const index = {1.0, 1.5, 1.0, 1.0}, air = {1.0, 1.0, 1.0, 1.0};
  s[0].thickness = 10.0, s[1].thickness = 5.0, s[2].thickness = 10.0;
  double const m = std::sin(0.2), l = 0.0, n = std::cos(0.2);
  RayTraceResult const r =
      nuvrix_trace_ray(s.data(), 4, index.data(), 1, 3, 0.0, 0.0, l, m, n, 587.6);
  RayTraceResult const a =
      nuvrix_trace_ray(s.data(), 4, air.data(), 1, 3, 0.0, 0.0, l, m, n, 587.6);
  double const inside = std::asin(std::sin(0.2) / 1.5);
  double const want = 5.0 * (std::tan(0.2) - std::tan(inside));
  std::printf("C++ host: version %s, the plate lowers the ray by %.12f mm (Snell %.12f)\n",
              nuvrix_version(), a.y - r.y, want);
  return r.valid == 1 && a.valid == 1 && std::fabs(a.y - r.y - want) < 1e-9 &&
                 std::fabs(r.m - m) < 1e-12
             ? 0
             : 1;
}
