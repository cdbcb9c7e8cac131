// Robust offset trace: launches in free space, the choice between the two
// conic roots, overshoot past the next vertex plane, the history taken on
// arrival, surface actions and failures told by status alone, checked
// against closed-form ray-sphere intersections and the ordinary trace.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

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
V3 pos(RayTraceResult const& r) { return {r.x, r.y, r.z}; }
V3 dir(RayTraceResult const& r) { return {r.l, r.m, r.n}; }
V3 nrm(RayTraceResult const& r) { return {r.nx, r.ny, r.nz}; }
#define EXPECT_NEAR3(a, b, tol)  \
  do {                           \
    V3 const e_ = (a) - (b);     \
    EXPECT_LT(std::sqrt(dot(e_, e_)), tol); \
  } while (0)

// Distances along unit d from p to the sphere of radius R with its vertex
// at the origin: {smaller, larger}.
struct Roots {
  double lo, hi;
};
Roots sphere_roots(V3 p, V3 d, double R) {
  V3 const oc = p - V3{0.0, 0.0, R};
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

TEST(RobustOffset, TangentPlaneLaunchIsTheOrdinaryTrace) {
  // Image media equal those in front, or an inner last surface: both
  // traces then act alike on every surface, bit for bit.
  V3 const d = unit(V3{0.02, 0.07, 1.0});
  for (auto const& [sys, last] : {std::pair{nuvrix_test::cooke_triplet(), 0},
                                  std::pair{nuvrix_test::cooke_triplet(), 5},
                                  std::pair{nuvrix_test::parabolic_mirror(100.0), 0},
                                  std::pair{nuvrix_test::ideal_thin_lens(50.0), 0},
                                  std::pair{nuvrix_test::eight_term_asphere(), 1}}) {
    RayTraceResult const a = robust(sys, V3{0.3, -4.0, 0.0}, d, 1, last);
    RayTraceResult const b = ordinary(sys, V3{0.3, -4.0, 0.0}, d, last);
    ASSERT_EQ(b.valid, 1);
    for (auto f : {&RayTraceResult::x, &RayTraceResult::y, &RayTraceResult::z, &RayTraceResult::l,
                   &RayTraceResult::m, &RayTraceResult::n, &RayTraceResult::nz,
                   &RayTraceResult::sag_path, &RayTraceResult::opl, &RayTraceResult::phase_waves}) {
      EXPECT_TRUE(same_bits(a.*f, b.*f));
    }
    EXPECT_EQ(a.valid, 1);
    EXPECT_EQ(a.failed_surface, 0);  // never -1 here
  }
  // Up to 1e-10 the launch crosses the 20 mm object space; beyond, it already
  // stands in the frame of surface 1 and meets it from there.
  System const s = sphere(25.0, 1.5, 20.0);
  V3 const e = unit(V3{0.0, 0.05, 1.0});
  RayTraceResult const plain = ordinary(s, V3{0.0, 3.0, 0.0}, e, 1);
  for (double z : {1e-10, -1e-10}) EXPECT_NEAR3(pos(robust(s, V3{0.0, 3.0, z}, e, 1, 1)), pos(plain), 1e-9);
  V3 const p{0.0, 3.0, -1.5e-10};
  double const t = sphere_roots(p, e, 25.0).lo;
  RayTraceResult const r = robust(s, p, e, 1, 1);
  EXPECT_NEAR3(pos(r), p + t * e, 1e-12);
  EXPECT_NEAR(r.opl, t, 1e-12);  // the step from the start counts
}

TEST(RobustOffset, RootChoiceFromFreeSpace) {
  double const R = 10.0;
  System const s = sphere(R, 1.5);
  // Near root on the ray's own side: the front, with Snell about (p - C) / R.
  V3 const p{0.5, 5.0, -500.0}, aim{0.2, 3.0, sag(R, std::hypot(0.2, 3.0))};
  V3 const d = unit(aim - p);
  RayTraceResult r = robust(s, p, d, 1, 1);
  ASSERT_EQ(r.valid, 1);
  EXPECT_NEAR3(pos(r), aim, 1e-9);
  EXPECT_NEAR(r.sag_path, sphere_roots(p, d, R).lo, 1e-9);
  V3 const N = (1.0 / R) * (aim - V3{0.0, 0.0, R});
  EXPECT_NEAR3(nrm(r), N, 1e-10);
  EXPECT_NEAR3(cross(d, N), 1.5 * cross(dir(r), N), 1e-10);
  // Heights of 1 or less on either end keep the near root.
  for (double y0 : {0.5, 5.0}) {
    V3 const q{0.0, y0, -500.0}, a{0.0, y0 < 1.0 ? -3.0 : -0.8, 0.0};
    V3 const e = unit(a + V3{0.0, 0.0, sag(R, std::fabs(a.y))} - q);
    EXPECT_NEAR3(pos(robust(s, q, e, 1, 1)), q + sphere_roots(q, e, R).lo * e, 1e-9);
  }
  // Near root across the axis (5 -> -3): the far root, on the back.
  V3 const q{0.0, 5.0, -500.0};
  V3 const e = unit(V3{0.0, -3.0, sag(R, 3.0)} - q);
  r = robust(s, q, e, 1, 1);
  EXPECT_NEAR3(pos(r), q + sphere_roots(q, e, R).hi * e, 1e-9);
  EXPECT_GT(r.z, R);
  // From behind, travelling back: the gradient normal is turned to the ray.
  r = robust(s, V3{0.0, 3.0, 500.0}, V3{0.0, 0.0, -1.0}, 1, 1);
  EXPECT_NEAR(r.z, R + std::sqrt(R * R - 9.0), 1e-10);
  EXPECT_NEAR3(nrm(r), unit(V3{0.0, -3.0 / std::sqrt(R * R - 9.0), 1.0}), 1e-12);
  // A root nearer than 0.01 is passed over; 0.02 is not.
  EXPECT_NEAR(robust(s, V3{0.0, 0.0, -0.005}, V3{0.0, 0.0, 1.0}, 1, 1).z, 2.0 * R, 1e-10);
  EXPECT_NEAR(robust(s, V3{0.0, 0.0, -0.02}, V3{0.0, 0.0, 1.0}, 1, 1).z, 0.0, 1e-12);
  // From inside: the far root, unless it lies across the axis.
  double const c = std::sqrt(0.5);
  EXPECT_NEAR3(pos(robust(s, V3{0.0, 5.0, 5.0}, V3{0.0, c, c}, 1, 1)), (V3{0.0, 10.0, 10.0}), 1e-9);
  r = robust(s, V3{0.0, 5.0, 5.0}, V3{0.0, -c, c}, 1, 1);
  EXPECT_EQ(r.status, NUVRIX_RAY_MISSED);
  EXPECT_NEAR3(pos(r), (V3{0.0, 5.0, 5.0}), 1e-15);  // the point before the intersection
  // A curved asphere is met as its bare conic: c (r^2 + (1+K) z^2) = 2 z.
  System const asph = nuvrix_test::eight_term_asphere();
  double const ca = asph.surfaces[1].curvature, k1 = 1.0 + asph.surfaces[1].conic;
  r = robust(asph, q, unit(V3{0.0, 6.0, 0.0} - q), 1, 1);
  EXPECT_NEAR(ca * (r.x * r.x + r.y * r.y + k1 * r.z * r.z) - 2.0 * r.z, 0.0, 1e-12);
}

TEST(RobustOffset, HistoryOnArrivalAndActionsOfEverySurface) {
  System const cooke = nuvrix_test::cooke_triplet();
  V3 const p{0.3, 4.0, -2.0}, d = unit(V3{0.01, -0.05, 1.0});
  RayState st[16];
  std::memset(st, 0x7f, sizeof st);
  RayTraceResult const r = robust(cooke, p, d, 1, 0, st, 6);
  EXPECT_EQ(r.states_written, cooke.count());
  EXPECT_TRUE(st[0].x == 0.0 && st[0].y == 0.0 && st[0].z == 0.0 && st[0].sag_path == 0.0);
  EXPECT_TRUE(st[0].l == d.x && st[0].m == d.y && st[0].n == d.z && st[0].nz == 0.0);
  for (int k = 1; k < 6; ++k) {  // surface k as reached, with the direction leaving k - 1
    V3 const in = k == 1 ? d : dir(robust(cooke, p, d, 1, k - 1));
    EXPECT_TRUE(st[k].y == robust(cooke, p, d, 1, k).y && st[k].m == in.y && st[k].status == 0);
  }
  EXPECT_EQ(reinterpret_cast<unsigned char const*>(&st[6])[0], 0x7f);  // capacity kept
  // The image surface refracts (tangential components scale by n1 / n2).
  System img = nuvrix_test::make_system({0.0, 0.0, 0.0}, {1e10, 10.0, 0.0}, {1.0, 1.0, 1.6});
  V3 const e = unit(V3{0.1, 0.3, 1.0});
  EXPECT_NEAR(robust(img, V3{0.0, 1.0, 0.0}, e).m, e.y / 1.6, 1e-15);
  EXPECT_EQ(ordinary(img, V3{0.0, 1.0, 0.0}, e).m, e.y);
  // A matrix surface refracts as a plane, with no shift of the height.
  img.surfaces[1].type = NUVRIX_SURFACE_MATRIX;
  img.surfaces[1].coefficients[1] = 5.0;
  img.indices[1] = 1.5;
  RayTraceResult const mx = robust(img, V3{0.0, 1.0, 0.0}, e, 1, 1);
  EXPECT_EQ(mx.y, 1.0);
  EXPECT_NEAR(mx.m, e.y / 1.5, 1e-15);
}

TEST(RobustOffset, OvershootMeetsNextSurfaceFromTheRaysPoint) {
  // R1 = 10, then a gap t1 to R2 = 20, all in air.  At a height near 8.4
  // the ray leaves surface 1 about 4.6 deep, past t1 + 1 for a thin gap.
  auto sys = [](double t1) {
    return nuvrix_test::make_system({0.0, 10.0, 20.0, 0.0}, {10.0, t1, 50.0, 0.0}, {1, 1, 1, 1});
  };
  V3 const start{0.0, 8.0, 0.0}, d = unit(V3{0.0, 0.03, 1.0});
  double const s1 = sphere_roots(start - V3{0.0, 0.0, 10.0}, d, 10.0).lo;
  V3 const hit1 = start - V3{0.0, 0.0, 10.0} + s1 * d;
  // Thin gap: the front of sphere 2 is behind the ray's point, so its far
  // root is met, where the ordinary trace goes back and meets the front.
  V3 const p2 = hit1 - V3{0.0, 0.0, 0.5};
  Roots const s2 = sphere_roots(p2, d, 20.0);
  ASSERT_LT(s2.lo, 0.0);
  RayTraceResult const r = robust(sys(0.5), start, d, 1, 2);
  EXPECT_NEAR3(pos(r), p2 + s2.hi * d, 1e-10);
  EXPECT_NEAR(r.opl, s1 + s2.hi, 1e-10);
  EXPECT_NEAR3(pos(ordinary(sys(0.5), start, d, 2)), p2 + s2.lo * d, 1e-10);
  // Either side of |z| = t1 + 1 the front is met, but only an overshooting
  // ray takes its step (sag_path) from surface 1 instead of the plane.
  double const over = hit1.z - 1.1, plain = hit1.z - 0.9, sag1 = s1 - 10.0 / d.z;
  double const step_over = sphere_roots(hit1 - V3{0.0, 0.0, over}, d, 20.0).lo;
  V3 const q = hit1 + ((plain - hit1.z) / d.z) * d - V3{0.0, 0.0, plain};
  double const step_plane = sphere_roots(q, d, 20.0).lo;
  EXPECT_NEAR(robust(sys(over), start, d, 1, 2).sag_path, sag1 + step_over, 1e-10);
  EXPECT_NEAR(robust(sys(plain), start, d, 1, 2).sag_path, sag1 + step_plane, 1e-10);
}

TEST(RobustOffset, FailuresReportStatusOnly) {
  RayState st[4];
  auto check = [&](RayTraceResult const& r, int status, int written) {
    EXPECT_TRUE(r.valid == 0 && r.status == status && r.states_written == written);
    EXPECT_TRUE(r.failed_surface == 0 && r.violation == 0.0 && r.opl == 0.0 && r.phase_waves == 0.0);
  };
  // Miss: the point on the vertex plane, the incoming direction, no record.
  V3 const d = unit(V3{0.0, 0.1, 1.0});
  RayTraceResult r = robust(sphere(10.0, 1.5, 5.0), V3{0.0, 11.0, 0.0}, d, 1, 0, st, 4);
  check(r, NUVRIX_RAY_MISSED, 1);
  EXPECT_NEAR3(pos(r), (V3{0.0, 11.5, 0.0}), 1e-13);
  EXPECT_EQ(r.m, d.y);
  // An asphere walk that overflows leaves the state at its start.
  System wild = sphere(0.0, 1.0);
  wild.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
  wild.surfaces[1].coefficients[7] = 1e300;
  EXPECT_EQ(robust(wild, V3{0.0, 10.0, -5.0}, V3{0.0, 0.0, 1.0}, 1, 1).z, -5.0);
  // Aperture: the point on the surface; its record keeps status 0.
  System clip = sphere(10.0, 1.5);
  clip.surfaces[1].aperture_radius = 2.0;
  V3 const p{0.0, 5.0, -500.0}, aim{0.0, 3.0, sag(10.0, 3.0)};
  r = robust(clip, p, unit(aim - p), 1, 0, st, 4);
  check(r, NUVRIX_RAY_MISSED, 2);
  EXPECT_NEAR3(pos(r), aim, 1e-9);
  EXPECT_EQ(st[1].status, 0);
  EXPECT_EQ(robust(clip, p, unit(aim - p), 1, 0, nullptr, 0, true).valid, 1);
  // Total internal reflection at 45 degrees from glass into air.
  System const block = nuvrix_test::make_system({0.0, 0.0, 0.0}, {5.0, 5.0, 0.0}, {1.5, 1.0, 1.0});
  double const c = std::sqrt(0.5);
  r = robust(block, V3{0.0, 0.0, 0.0}, V3{0.0, c, c}, 1, 0, st, 4);
  check(r, NUVRIX_RAY_TIR, 2);
  EXPECT_TRUE(std::fabs(r.y - 5.0) < 1e-14 && r.m == c);
  // Guards: no frame before surface 1, a last surface beyond the image, a
  // last surface before the start, and missing arrays.
  check(robust(block, V3{0.0, 0.0, 0.0}, V3{0.0, 0.0, 1.0}, 0, 0, st, 4), NUVRIX_RAY_MISSED, 1);
  EXPECT_EQ(robust(block, V3{0.0, 0.2, 0.0}, V3{0.0, 0.0, 1.0}, 1, 9).y, 0.2);
  r = robust(block, V3{0.0, 0.2, -3.0}, V3{0.0, 0.0, 1.0}, 2, 1);
  EXPECT_TRUE(r.valid == 1 && r.z == -3.0 && r.failed_surface == 0);
  r = nuvrix::trace_ray_robust_offset(nullptr, 3, block.row(), 0, 0, 0, 0, 0, 1, 1, 0, 0, nullptr, 0,
                                      false);
  EXPECT_EQ(r.status, NUVRIX_RAY_MISSED);
}
