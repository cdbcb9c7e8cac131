// The real trace over a generic scalar against the plain double trace: the
// double instance bit for bit, the dual instances in value and in slots.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "merit/dual_system.hpp"
#include "tests/systems.hpp"
#include "trace/trace_generic.hpp"

namespace {

using nuvrix::JDual;
using nuvrix::RayStateT;
using nuvrix_test::System;

constexpr int kMax = 8;

// The T arrays of a system, with its index row: constants until seeded.
template <typename T>
struct Params {
  T c[kMax], t[kMax], k[kMax], f[kMax], a[kMax][8];
  std::vector<T> row;
  explicit Params(System const& sys) : row(sys.indices.begin(), sys.indices.end()) {
    for (int i = 0; i < sys.count(); ++i) {
      SurfaceData const& s = sys.surfaces[i];
      c[i] = T(s.curvature), t[i] = T(s.thickness), k[i] = T(s.conic), f[i] = T(s.focal_length);
      for (int j = 0; j < 8; ++j) a[i][j] = T(s.coefficients[j]);
    }
  }
};

// A skew ray launched at (0.4, y) with direction cosines (0.05, m).
constexpr double kX = 0.4, kL = 0.05;
double cosine_n(double m) { return std::sqrt(1.0 - kL * kL - m * m); }

template <typename T, typename U>
RayStateT<T> trace(System const& sys, Params<T> const& p, U const* row, double y, double m,
                   int cap = -1, RayStateT<T>* at_cap = nullptr) {
  RayStateT<T> const launch = {T(kX), T(y), T(0), T(kL), T(m), T(cosine_n(m)),
                               T(0),  T(0), T(0), T(0),  T(0), 0};
  return nuvrix::trace_ray_t<T, U>(sys.surfaces.data(), sys.count(), p.c, p.t, p.k, row, launch, 1,
                                   0, 0.0, cap, at_cap, nullptr, p.a, -1, p.f);
}

RayTraceResult plain(System const& sys, double y, double m, RayState* states = nullptr) {
  return nuvrix::detail::rt_trace_impl(sys.surfaces.data(), sys.count(), sys.row(), kX, y, kL, m,
                                       cosine_n(m), states, 1, 0, 0.0, kMax, false);
}

// A lens, then a matrix surface, then the image.
System lens_and_matrix() {
  System sys =
      nuvrix_test::make_system({0, 40, -60, 0, 0}, {1e10, 5, 10, 30, 0}, {1, 1.6, 1, 1, 1});
  sys.surfaces[3].type = NUVRIX_SURFACE_MATRIX;
  double const abcd[4] = {1.1, 4.0, -0.02, 0.9};
  for (int j = 0; j < 4; ++j) sys.surfaces[3].coefficients[j] = abcd[j];
  return sys;
}

// The systems of every test, the Cooke triplet with its stop clipping.
std::vector<System> systems() {
  System clipped = nuvrix_test::cooke_triplet();
  clipped.surfaces[nuvrix_test::kCookeStop].aperture_radius = 4.0;
  return {clipped, nuvrix_test::eight_term_asphere(), nuvrix_test::parabolic_mirror(100.0),
          nuvrix_test::ideal_thin_lens(50.0), lens_and_matrix()};
}

uint64_t bits(double v) {
  uint64_t b;
  std::memcpy(&b, &v, sizeof b);
  return b;
}

// x, y, z, l, m, n of any ray record, by number.
template <typename R>
auto field(R const& r, int q) {
  decltype(r.x) const v[] = {r.x, r.y, r.z, r.l, r.m, r.n};
  return v[q];
}

}  // namespace

TEST(TraceGeneric, DoubleInstanceMatchesPlainTraceBitForBit) {
  int passed = 0, failed = 0;
  for (System const& sys : systems()) {
    Params<double> const p(sys);
    for (double y : {-6.0, -1.5, 0.0, 3.0, 5.5}) {
      for (double m : {0.0, 0.12, 0.3}) {
        RayState states[kMax];
        RayTraceResult const want = plain(sys, y, m, states);
        int const cap = std::min(nuvrix_test::kCookeStop, sys.count() - 1);
        RayStateT<double> at = {};
        at.status = 99;
        RayStateT<double> const got = trace(sys, p, sys.row(), y, m, cap, &at);
        ASSERT_EQ(got.status, want.valid ? 0 : want.status);
        (want.valid ? passed : failed)++;
        for (int q = 0; q < 6; ++q) EXPECT_EQ(bits(field(got, q)), bits(field(want, q))) << q;
        EXPECT_EQ(bits(got.opl), bits(want.opl));
        // The capture is the history record of that surface, or untouched.
        if (want.states_written <= cap) {
          EXPECT_EQ(at.status, 99);
          continue;
        }
        EXPECT_EQ(at.status, states[cap].status);
        for (int q = 0; q < 6; ++q) EXPECT_EQ(bits(field(at, q)), bits(field(states[cap], q)));
      }
    }
  }
  EXPECT_GT(passed, 40);
  EXPECT_GT(failed, 3);  // clipped at the Cooke stop, status and capture included
}

TEST(TraceGeneric, DualInstancesAgreeAndFollowPlainValue) {
  // With constant indices the two index instances run the same arithmetic,
  // and a dual quotient's value is the plain quotient, so the value is the
  // plain trace's to the bit; only on the asphere does the landing's Newton
  // correction move it, within the walk's tolerance 1e-12.
  std::vector<System> const all = systems();
  for (size_t c = 0; c < all.size(); ++c) {
    Params<JDual> p(all[c]);
    JDual* const seeds[] = {&p.c[1], &p.t[1], &p.k[1], &p.a[1][1], &p.f[1]};
    for (int j = 0; j < 5; ++j) seeds[j]->d[j] = 1.0;
    double const tol = 1e-11;
    for (double y : {-3.0, 0.5, 2.5}) {
      RayTraceResult const want = plain(all[c], y, 0.1);
      RayStateT<JDual> const a = trace(all[c], p, all[c].row(), y, 0.1);
      RayStateT<JDual> const b = trace(all[c], p, p.row.data(), y, 0.1);
      ASSERT_TRUE(a.status == 0 && b.status == 0);
      for (int q = 0; q < 7; ++q) {
        JDual const u = q < 6 ? field(a, q) : a.opl, v = q < 6 ? field(b, q) : b.opl;
        double const w = q < 6 ? field(want, q) : want.opl;
        EXPECT_EQ(bits(u.value), bits(v.value)) << c << " " << q;
        for (int s = 0; s < 10; ++s) EXPECT_EQ(u.d[s], v.d[s]) << c << " " << q << " " << s;
        if (c == 1) {
          EXPECT_NEAR(u.value, w, tol * std::fmax(1.0, std::fabs(w))) << c << " " << q;
        } else {
          EXPECT_EQ(bits(u.value), bits(w)) << c << " " << q;
        }
      }
    }
  }
}

TEST(TraceGeneric, SlotsMatchCentralDifferencesOfPlainTrace) {
  // One seeded parameter a slot, all in one <D, D> pass per system.  The
  // floor is ten times the plain trace's own noise over the step 2h: its
  // rounding, about 1e-15 of the quantity, and on the asphere the walk's
  // stop anywhere below a sag error of 1e-12.
  enum Kind { kCurv, kThick, kConic, kTerm, kFocal, kIndex };
  struct Var {
    Kind kind;
    int surface, term;
    double h;
  };
  struct Case {
    int system;
    std::vector<Var> vars;
  };
  Case const cases[] = {
      {0, {{kCurv, 2, 0, 1e-7}, {kThick, 3, 0, 1e-5}, {kIndex, 3, 0, 1e-6}, {kConic, 5, 0, 1e-3}}},
      {1, {{kTerm, 1, 1, 1e-8}, {kConic, 1, 0, 1e-4}, {kCurv, 2, 0, 1e-7}, {kThick, 1, 0, 1e-5}}},
      {2, {{kCurv, 1, 0, 1e-8}, {kConic, 1, 0, 1e-4}, {kThick, 1, 0, 1e-5}}},
      {3, {{kFocal, 1, 0, 1e-4}, {kThick, 1, 0, 1e-5}}},
      {4, {{kTerm, 3, 1, 1e-5}, {kTerm, 3, 2, 1e-6}, {kCurv, 1, 0, 1e-7}, {kIndex, 1, 0, 1e-6}}}};
  std::vector<System> const all = systems();
  double const y = 2.5, m = 0.08;
  for (Case const& c : cases) {
    System const& sys = all[c.system];
    Params<JDual> p(sys);
    auto param = [&](System& s, Var const& v) -> double& {
      SurfaceData& r = s.surfaces[v.surface];
      double* const params[] = {&r.curvature,    &r.thickness,
                                &r.conic,        &r.coefficients[v.term],
                                &r.focal_length, &s.indices[v.surface]};
      return *params[v.kind];
    };
    for (size_t j = 0; j < c.vars.size(); ++j) {
      Var const& v = c.vars[j];
      JDual* seeded[] = {p.c + v.surface,         p.t + v.surface, p.k + v.surface,
                         p.a[v.surface] + v.term, p.f + v.surface, &p.row[v.surface]};
      seeded[v.kind]->d[j] = 1.0;
    }
    RayStateT<JDual> const got = trace(sys, p, p.row.data(), y, m);
    ASSERT_EQ(got.status, 0) << c.system;
    for (size_t j = 0; j < c.vars.size(); ++j) {
      Var const& v = c.vars[j];
      System lo = sys, hi = sys;
      param(lo, v) -= v.h;
      param(hi, v) += v.h;
      RayTraceResult const a = plain(lo, y, m), b = plain(hi, y, m);
      ASSERT_TRUE(a.valid && b.valid);
      for (int q = 0; q <= 6; ++q) {
        double const fd =
            q < 6 ? (field(b, q) - field(a, q)) / (2.0 * v.h) : (b.opl - a.opl) / (2.0 * v.h);
        JDual const& out = q < 6 ? field(got, q) : got.opl;
        double const noise = 1e-15 * (1.0 + std::fabs(out.value)) + (c.system == 1 ? 1e-12 : 0.0);
        double const floor = 10.0 * noise / (2.0 * v.h);
        double const slot = out.d[j];
        EXPECT_NEAR(slot, fd, 1e-6 * std::fabs(fd) + floor) << c.system << " " << j << " " << q;
      }
    }
  }
}

TEST(TraceGeneric, MatrixElementBGivesHeightSlotOfSlope) {
  // h' = A h + B t: d h' / dB is the tangent t of the ray arriving at the
  // matrix, read from the plain trace's record of the surface before.  The
  // outgoing tangent does not depend on B, so the image height moves alike.
  System const sys = lens_and_matrix();
  Params<JDual> p(sys);
  p.a[3][1] = nuvrix::make_variable<10>(sys.surfaces[3].coefficients[1], 0);
  for (double y : {-4.0, 1.0, 3.5}) {
    RayState states[kMax];
    plain(sys, y, 0.05, states);
    RayStateT<JDual> at = {};
    RayStateT<JDual> const end = trace(sys, p, sys.row(), y, 0.05, 3, &at);
    ASSERT_EQ(end.status, 0);
    double const tx = states[2].l / states[2].n, ty = states[2].m / states[2].n;
    EXPECT_NEAR(at.x.d[0], tx, 1e-14);
    EXPECT_NEAR(at.y.d[0], ty, 1e-14);
    EXPECT_EQ(at.l.d[0], 0.0);
    EXPECT_EQ(at.m.d[0], 0.0);
    EXPECT_NEAR(end.y.d[0], ty, 1e-14);
  }
}
