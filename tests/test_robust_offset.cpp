// Robust offset trace against closed-form ray-sphere intersections (both
// roots) and the ordinary trace: launches, root choice, overshoot, history
// on arrival, surface actions, and failures told by status alone.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <tuple>

#include "tests/systems.hpp"
#include "trace/robust_offset.hpp"

using nuvrix_test::System;

namespace {

struct V3 {
  double x, y, z;
};
V3 operator+(V3 a, V3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
V3 operator-(V3 a, V3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
V3 operator*(double s, V3 a) { return {s * a.x, s * a.y, s * a.z}; }
double dot(V3 a, V3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
V3 cross(V3 a, V3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
V3 unit(V3 a) { return (1.0 / std::sqrt(dot(a, a))) * a; }
double dist(V3 a, V3 b) { return std::sqrt(dot(a - b, a - b)); }
V3 pos(RayTraceResult const& r) { return {r.x, r.y, r.z}; }
V3 dir(RayTraceResult const& r) { return {r.l, r.m, r.n}; }
V3 const kZ{0.0, 0.0, 1.0};

// Distances along unit d from p to the sphere of radius R with its vertex at
// the origin: {smaller, larger}.
struct Roots {
  double lo, hi;
};
Roots sphere_roots(V3 p, V3 d, double R) {
  V3 const oc = p - R * kZ;
  double const b = dot(oc, d), s = std::sqrt(b * b - (dot(oc, oc) - R * R));
  return {-b - s, -b + s};
}
double sag(double R, double r) { return R - std::sqrt(R * R - r * r); }

// A sphere of radius R into glass, the image plane 30 mm behind.
System sphere(double R, double n_glass, double t0 = 1e10) {
  return nuvrix_test::make_system({0.0, R, 0.0}, {t0, 30.0, 0.0}, {1.0, n_glass, n_glass});
}
RayTraceResult robust(System const& s, V3 p, V3 d, int start = 1, int last = 0,
                      RayState* states = nullptr, int cap = 0, bool ignore = false) {
  return nuvrix::trace_ray_robust_offset(s.surfaces.data(), s.count(), s.row(), p.x, p.y, p.z,
                                         d.x, d.y, d.z, start, last, 550.0, states, cap, ignore);
}
RayTraceResult ordinary(System const& s, V3 p, V3 d, int last = 0) {
  return nuvrix_trace_ray(s.surfaces.data(), s.count(), s.row(), 1, last, p.x, p.y, d.x, d.y,
                          d.z, 550.0);
}
bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

}  // namespace

// From the tangent plane with image media equal to those in front (or an
// inner last surface) both traces act alike, bit for bit; a start 1e-10 off
// the plane still crosses the object space, 1.5e-10 stands in surface 1's frame.
TEST(RobustOffset, TangentPlaneLaunchIsTheOrdinaryTrace) {
  V3 const d = unit(V3{0.02, 0.07, 1.0}), p0{0.3, -4.0, 0.0};
  for (auto const& [sys, last] : {std::pair{nuvrix_test::cooke_triplet(), 0},
                                  std::pair{nuvrix_test::cooke_triplet(), 5},
                                  std::pair{nuvrix_test::parabolic_mirror(100.0), 0},
                                  std::pair{nuvrix_test::ideal_thin_lens(50.0), 0},
                                  std::pair{nuvrix_test::eight_term_asphere(), 1}}) {
    RayTraceResult const a = robust(sys, p0, d, 1, last), b = ordinary(sys, p0, d, last);
    ASSERT_EQ(b.valid, 1);
    for (auto f : {&RayTraceResult::x, &RayTraceResult::y, &RayTraceResult::z, &RayTraceResult::l,
                   &RayTraceResult::m, &RayTraceResult::n, &RayTraceResult::nz,
                   &RayTraceResult::sag_path, &RayTraceResult::opl, &RayTraceResult::phase_waves})
      EXPECT_TRUE(same_bits(a.*f, b.*f));
    EXPECT_TRUE(a.valid == 1 && a.failed_surface == 0);  // never -1 here
  }
  System const s = sphere(25.0, 1.5, 20.0);
  V3 const e = unit(V3{0.0, 0.05, 1.0}), p{0.0, 3.0, -1.5e-10};
  RayTraceResult const plain = ordinary(s, V3{0.0, 3.0, 0.0}, e, 1);
  for (double z : {1e-10, -1e-10})
    EXPECT_LT(dist(pos(robust(s, {0.0, 3.0, z}, e, 1, 1)), pos(plain)), 1e-9) << z;
  double const t = sphere_roots(p, e, 25.0).lo;
  RayTraceResult const r = robust(s, p, e, 1, 1);
  EXPECT_LT(dist(pos(r), p + t * e), 1e-12);
  EXPECT_NEAR(r.opl, t, 1e-12);  // the step from the start counts
}

// Near root on the ray's own side (Snell about (p - C) / R); heights of 1 or
// less keep it; across the axis the far root; from behind the normal turns to
// the ray; roots nearer than 0.01 are passed over; from inside the far root
// unless across the axis (a miss); an asphere is met as its bare conic.
TEST(RobustOffset, RootChoiceFromFreeSpace) {
  double const R = 10.0;
  System const s = sphere(R, 1.5);
  V3 const p{0.5, 5.0, -500.0}, aim{0.2, 3.0, sag(R, std::hypot(0.2, 3.0))}, d = unit(aim - p);
  RayTraceResult r = robust(s, p, d, 1, 1);
  ASSERT_EQ(r.valid, 1);
  EXPECT_LT(dist(pos(r), aim), 1e-9);
  EXPECT_NEAR(r.sag_path, sphere_roots(p, d, R).lo, 1e-9);
  V3 const N = (1.0 / R) * (aim - R * kZ);
  EXPECT_LT(dist(V3{r.nx, r.ny, r.nz}, N), 1e-10);
  EXPECT_LT(dist(cross(d, N), 1.5 * cross(dir(r), N)), 1e-10);
  // {start height, target height, far root?}: 5 -> -3 crosses the axis.
  for (auto [y0, y1, far] : {std::tuple{0.5, -3.0, false}, {5.0, -0.8, false}, {5.0, -3.0, true}}) {
    V3 const q{0.0, y0, -500.0}, e = unit(V3{0.0, y1, sag(R, std::fabs(y1))} - q);
    Roots const t = sphere_roots(q, e, R);
    r = robust(s, q, e, 1, 1);
    EXPECT_LT(dist(pos(r), q + (far ? t.hi : t.lo) * e), 1e-9) << y0 << " " << y1;
    if (far) { EXPECT_GT(r.z, R); }
  }
  r = robust(s, V3{0.0, 3.0, 500.0}, -1.0 * kZ, 1, 1);
  EXPECT_NEAR(r.z, R + std::sqrt(R * R - 9.0), 1e-10);
  EXPECT_LT(dist(V3{r.nx, r.ny, r.nz}, unit(V3{0.0, -3.0 / std::sqrt(R * R - 9.0), 1.0})), 1e-12);
  EXPECT_NEAR(robust(s, V3{0.0, 0.0, -0.005}, kZ, 1, 1).z, 2.0 * R, 1e-10);
  EXPECT_NEAR(robust(s, V3{0.0, 0.0, -0.02}, kZ, 1, 1).z, 0.0, 1e-12);
  double const c = std::sqrt(0.5);
  EXPECT_LT(dist(pos(robust(s, V3{0.0, 5.0, 5.0}, V3{0.0, c, c}, 1, 1)), V3{0, 10, 10}), 1e-9);
  r = robust(s, V3{0.0, 5.0, 5.0}, V3{0.0, -c, c}, 1, 1);
  EXPECT_EQ(r.status, NUVRIX_RAY_MISSED);
  EXPECT_LT(dist(pos(r), V3{0.0, 5.0, 5.0}), 1e-15);  // the point before the intersection
  System const asph = nuvrix_test::eight_term_asphere();  // c (r^2 + (1+K) z^2) = 2 z
  double const ca = asph.surfaces[1].curvature, k1 = 1.0 + asph.surfaces[1].conic;
  V3 const q{0.0, 5.0, -500.0};
  r = robust(asph, q, unit(V3{0.0, 6.0, 0.0} - q), 1, 1);
  EXPECT_NEAR(ca * (r.x * r.x + r.y * r.y + k1 * r.z * r.z) - 2.0 * r.z, 0.0, 1e-12);
}

// Record k is surface k as reached, with the direction leaving k - 1; the
// capacity bounds the writes; the image surface refracts (the ordinary trace
// does not); a matrix surface refracts as a plane without shifting the height.
TEST(RobustOffset, HistoryOnArrivalAndActionsOfEverySurface) {
  System const cooke = nuvrix_test::cooke_triplet();
  V3 const p{0.3, 4.0, -2.0}, d = unit(V3{0.01, -0.05, 1.0});
  RayState st[16];
  std::memset(st, 0x7f, sizeof st);
  EXPECT_EQ(robust(cooke, p, d, 1, 0, st, 6).states_written, cooke.count());
  EXPECT_TRUE(st[0].x == 0.0 && st[0].y == 0.0 && st[0].z == 0.0 && st[0].sag_path == 0.0);
  EXPECT_TRUE(st[0].l == d.x && st[0].m == d.y && st[0].n == d.z && st[0].nz == 0.0);
  for (int k = 1; k < 6; ++k) {
    V3 const in = k == 1 ? d : dir(robust(cooke, p, d, 1, k - 1));
    EXPECT_TRUE(st[k].y == robust(cooke, p, d, 1, k).y && st[k].m == in.y && st[k].status == 0);
  }
  EXPECT_EQ(reinterpret_cast<unsigned char const*>(&st[6])[0], 0x7f);
  System img = nuvrix_test::make_system({0.0, 0.0, 0.0}, {1e10, 10.0, 0.0}, {1.0, 1.0, 1.6});
  V3 const e = unit(V3{0.1, 0.3, 1.0});
  EXPECT_NEAR(robust(img, V3{0.0, 1.0, 0.0}, e).m, e.y / 1.6, 1e-15);
  EXPECT_EQ(ordinary(img, V3{0.0, 1.0, 0.0}, e).m, e.y);
  img.surfaces[1].type = NUVRIX_SURFACE_MATRIX;
  img.surfaces[1].coefficients[1] = 5.0;
  img.indices[1] = 1.5;
  RayTraceResult const mx = robust(img, V3{0.0, 1.0, 0.0}, e, 1, 1);
  EXPECT_EQ(mx.y, 1.0);
  EXPECT_NEAR(mx.m, e.y / 1.5, 1e-15);
}

// R1 = 10, gap t1, R2 = 20 in air; a ray near 8.4 leaves surface 1 some 4.6
// deep.  Thin gap: sphere 2's front lies behind the ray's point, so its far
// root is met (the ordinary trace goes back to the front).  Either side of
// |z| = t1 + 1 the front is met, but only the overshooting ray steps from
// surface 1 rather than from the vertex plane.
TEST(RobustOffset, OvershootMeetsNextSurfaceFromTheRaysPoint) {
  auto sys = [](double t1) {
    return nuvrix_test::make_system({0.0, 10.0, 20.0, 0.0}, {10.0, t1, 50.0, 0.0}, {1, 1, 1, 1});
  };
  V3 const start{0.0, 8.0, 0.0}, d = unit(V3{0.0, 0.03, 1.0});
  double const s1 = sphere_roots(start - 10.0 * kZ, d, 10.0).lo;
  V3 const hit1 = start - 10.0 * kZ + s1 * d, p2 = hit1 - 0.5 * kZ;
  Roots const s2 = sphere_roots(p2, d, 20.0);
  ASSERT_LT(s2.lo, 0.0);
  RayTraceResult const r = robust(sys(0.5), start, d, 1, 2);
  EXPECT_LT(dist(pos(r), p2 + s2.hi * d), 1e-10);
  EXPECT_NEAR(r.opl, s1 + s2.hi, 1e-10);
  EXPECT_LT(dist(pos(ordinary(sys(0.5), start, d, 2)), p2 + s2.lo * d), 1e-10);
  double const over = hit1.z - 1.1, plain = hit1.z - 0.9, sag1 = s1 - 10.0 / d.z;
  double const step_over = sphere_roots(hit1 - over * kZ, d, 20.0).lo;
  V3 const q = hit1 + ((plain - hit1.z) / d.z) * d - plain * kZ;
  EXPECT_NEAR(robust(sys(over), start, d, 1, 2).sag_path, sag1 + step_over, 1e-10);
  double const step_plane = sphere_roots(q, d, 20.0).lo;
  EXPECT_NEAR(robust(sys(plain), start, d, 1, 2).sag_path, sag1 + step_plane, 1e-10);
}

// Miss (point on the vertex plane, incoming direction), overflowing asphere
// walk (state left at the start), aperture clip (point on the surface, record
// status 0, ignored on request), TIR, and the guards on start, last, arrays.
TEST(RobustOffset, FailuresReportStatusOnly) {
  RayState st[4];
  auto check = [&](RayTraceResult const& r, int status, int written) {
    EXPECT_TRUE(r.valid == 0 && r.status == status && r.states_written == written);
    EXPECT_TRUE(r.failed_surface == 0 && r.violation == 0 && r.opl == 0 && r.phase_waves == 0);
  };
  V3 const d = unit(V3{0.0, 0.1, 1.0});
  RayTraceResult r = robust(sphere(10.0, 1.5, 5.0), V3{0.0, 11.0, 0.0}, d, 1, 0, st, 4);
  check(r, NUVRIX_RAY_MISSED, 1);
  EXPECT_LT(dist(pos(r), V3{0.0, 11.5, 0.0}), 1e-13);
  EXPECT_EQ(r.m, d.y);
  System wild = sphere(0.0, 1.0);
  wild.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
  wild.surfaces[1].coefficients[7] = 1e300;
  EXPECT_EQ(robust(wild, V3{0.0, 10.0, -5.0}, kZ, 1, 1).z, -5.0);
  System clip = sphere(10.0, 1.5);
  clip.surfaces[1].aperture_radius = 2.0;
  V3 const p{0.0, 5.0, -500.0}, aim{0.0, 3.0, sag(10.0, 3.0)};
  r = robust(clip, p, unit(aim - p), 1, 0, st, 4);
  check(r, NUVRIX_RAY_MISSED, 2);
  EXPECT_LT(dist(pos(r), aim), 1e-9);
  EXPECT_EQ(st[1].status, 0);
  EXPECT_EQ(robust(clip, p, unit(aim - p), 1, 0, nullptr, 0, true).valid, 1);
  System const block = nuvrix_test::make_system({0.0, 0.0, 0.0}, {5.0, 5.0, 0.0}, {1.5, 1.0, 1.0});
  double const c = std::sqrt(0.5);  // 45 degrees from glass into air
  r = robust(block, V3{0.0, 0.0, 0.0}, V3{0.0, c, c}, 1, 0, st, 4);
  check(r, NUVRIX_RAY_TIR, 2);
  EXPECT_TRUE(std::fabs(r.y - 5.0) < 1e-14 && r.m == c);
  check(robust(block, V3{0.0, 0.0, 0.0}, kZ, 0, 0, st, 4), NUVRIX_RAY_MISSED, 1);  // no frame at 0
  EXPECT_EQ(robust(block, V3{0.0, 0.2, 0.0}, kZ, 1, 9).y, 0.2);  // last beyond the image
  r = robust(block, V3{0.0, 0.2, -3.0}, kZ, 2, 1);  // last before the start
  EXPECT_TRUE(r.valid == 1 && r.z == -3.0 && r.failed_surface == 0);
  r = nuvrix::trace_ray_robust_offset(nullptr, 3, block.row(), 0, 0, 0, 0, 0, 1, 1, 0, 0, nullptr, 0,
                                      false);
  EXPECT_EQ(r.status, NUVRIX_RAY_MISSED);
}
