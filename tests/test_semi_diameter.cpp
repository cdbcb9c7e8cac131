// Semi-diameter solve against an independent scan of the eight edge rays
// (the exported front end traced to every surface in turn), and the pupil
// and stop radii against thin-lens first-order optics.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "first_order/semi_diameter.hpp"
#include "tests/systems.hpp"

using nuvrix::SdArgmax;
using nuvrix_test::System;

namespace {

double const kPx[8] = {0, 0, 1, -1, 0.707, -0.707, 0.707, -0.707};
double const kPy[8] = {1, -1, 0, 0, 0.707, 0.707, -0.707, -0.707};

SystemConfig config(int field_type, int stop, int aiming, double epd, int aperture_type = 0) {
  SystemConfig c = {};
  c.field_type = field_type;
  c.aperture_type = aperture_type;
  c.aperture_value = epd;
  c.stop_surface = stop;
  c.ray_aiming = aiming;
  return c;
}
std::vector<FieldData> fields_of(std::vector<double> const& ys) {
  std::vector<FieldData> f;
  for (double y : ys) f.push_back(FieldData{y, 1.0, 0.0});
  return f;
}

// The largest ray height at each surface 1 .. n-1 and the first (row, field,
// sample) that reached it; aimed scans aim at the real marginal ray's height.
struct Scan {
  std::vector<double> r;
  std::vector<int> w, f, k;
};
Scan edge_scan(System const& s, SystemConfig const& c, std::vector<FieldData> const& fields,
               int rows) {
  int const n = s.count(), stop = c.stop_surface;
  double const R = c.aperture_value / 2.0;
  Scan out{std::vector<double>(n, 0.0), std::vector<int>(n, -1), std::vector<int>(n, -1),
           std::vector<int>(n, -1)};
  for (int w = 0; w < rows; ++w) {
    double const* row = s.row(w);
    double const ep =
        stop < 2 ? 0.0 : nuvrix_entrance_pupil_position(s.surfaces.data(), n, row, stop);
    double stop_r = 0.0;
    if (c.ray_aiming != 0) {
      RayTraceResult const m =
          nuvrix_trace_ray(s.surfaces.data(), n, row, 1, stop, 0, R, 0, 0, 1, 0);
      EXPECT_EQ(m.valid, 1);
      stop_r = std::fabs(m.y);
    }
    for (int f = 0; f < static_cast<int>(fields.size()); ++f)
      for (int k = 0; k < 8; ++k)
        for (int i = 1; i < n; ++i) {
          RayTraceResult const r =
              nuvrix_trace_arbitrary_ray(s.surfaces.data(), n, row, &c, c.ray_aiming, i,
                                         fields[f].field_y, R, kPx[k], kPy[k], 0.0, ep, stop_r);
          EXPECT_EQ(r.valid, 1);
          double const h = std::sqrt(r.x * r.x + r.y * r.y);
          if (h > out.r[i]) out.r[i] = h, out.w[i] = w, out.f[i] = f, out.k[i] = k;
        }
  }
  return out;
}

std::vector<SdArgmax> solve(System& s, SystemConfig const& c, std::vector<FieldData> const& f,
                            int rows) {
  std::vector<SdArgmax> a(s.count());
  nuvrix::solve_semi_diameters_impl(s.surfaces.data(), s.count(), s.indices.data(), nullptr, rows,
                                    &c, f.data(), static_cast<int>(f.size()), a.data());
  return a;
}

// Cooke triplet with the glass flagged, and a second, more dispersed row.
System flagged_cooke() {
  System s = nuvrix_test::cooke_triplet();
  for (int i : {1, 3, 5}) s.surfaces[i].is_glass = 1;
  std::vector<double> blue = s.indices;
  for (int i : {1, 3, 5}) blue[i] += 0.008;
  s.indices.insert(s.indices.end(), blue.begin(), blue.end());
  return s;
}

// A thin lens of 100 mm in air with a plane stop 50 mm behind it: the axial
// pencil fills the stop to half the entrance pupil radius.
System lens_then_stop() {
  System s = nuvrix_test::make_system({0, 0, 0, 0}, {INFINITY, 50.0, 50.0, 0.0}, {1, 1, 1, 1});
  s.surfaces[1].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  s.surfaces[1].focal_length = 100.0;
  return s;
}

}  // namespace

// Every solved value and argmax record equals the scan's, unaimed and aimed,
// over two rows and three fields; the export agrees with the implementation.
// The object surface takes the launch points on surface 1's tangent plane,
// moved back from the pupil along each ray of the 20-degree (pi / 9) field,
// or for a finite object the largest field height, first reached by sample 0.
TEST(SemiDiameter, SolvedValuesAreTheLargestEdgeRayHeights) {
  for (int aiming : {0, 1}) {
    System sys = flagged_cooke();
    SystemConfig const c = config(0, nuvrix_test::kCookeStop, aiming, 10.0);
    std::vector<FieldData> const fields = fields_of({0.0, 10.0, -20.0});
    Scan const scan = edge_scan(sys, c, fields, 2);
    System by_export = sys;
    nuvrix_solve_semi_diameters(by_export.surfaces.data(), sys.count(), sys.indices.data(), nullptr,
                                2, &c, fields.data(), 3);
    std::vector<SdArgmax> const a = solve(sys, c, fields, 2);
    for (int i = 1; i < sys.count(); ++i) {
      EXPECT_NEAR(sys.surfaces[i].semi_diameter, scan.r[i], 1e-12 * scan.r[i]) << aiming << i;
      EXPECT_EQ(by_export.surfaces[i].semi_diameter, sys.surfaces[i].semi_diameter);
      EXPECT_TRUE(a[i].has_ray && a[i].wavelength == scan.w[i] && a[i].field == scan.f[i] &&
                  a[i].sample == scan.k[i]) << aiming << " " << i;
    }
    if (aiming != 0) continue;
    double best = 0.0;
    for (int w = 0; w < 2; ++w) {
      double const ep = nuvrix_entrance_pupil_position(sys.surfaces.data(), sys.count(), sys.row(w),
                                                       nuvrix_test::kCookeStop);
      for (int k = 0; k < 8; ++k)
        best = std::fmax(best, std::hypot(5.0 * kPx[k], 5.0 * kPy[k] + ep * std::tan(M_PI / 9)));
    }
    EXPECT_NEAR(sys.surfaces[0].semi_diameter, best, 1e-12);
    EXPECT_EQ(a[0].field, 2);
  }
  System relay = nuvrix_test::finite_relay();
  relay.surfaces[1].is_glass = 1;
  SystemConfig const c = config(1, nuvrix_test::kFiniteRelayStop, 1, 8.0);
  std::vector<FieldData> const fields = fields_of({0.0, 4.0, -6.0});
  Scan const scan = edge_scan(relay, c, fields, 1);
  std::vector<SdArgmax> const a = solve(relay, c, fields, 1);
  for (int i = 1; i < relay.count(); ++i) {
    EXPECT_NEAR(relay.surfaces[i].semi_diameter, scan.r[i], 1e-12 * scan.r[i]) << i;
    EXPECT_EQ(a[i].field * 8 + a[i].sample, scan.f[i] * 8 + scan.k[i]) << i;
  }
  EXPECT_TRUE(relay.surfaces[0].semi_diameter == 6.0 && a[0].field == 2 && a[0].sample == 0);
}

// Percent scales a solved value (0 or negative: neutral); a fixed surface
// (kind 1, clipping, wide here) or a kept one (kind 2) holds its value and
// scale-free diameter, yet still records its ray.
TEST(SemiDiameter, AperturePercentAndFixedKinds) {
  std::vector<FieldData> const fields = fields_of({0.0, 14.0});
  SystemConfig const c = config(0, nuvrix_test::kCookeStop, 0, 10.0);
  System base = flagged_cooke(), sys = flagged_cooke();
  solve(base, c, fields, 1);
  double const pct[8] = {100.0, 50.0, 50.0, 0.0, 100.0, -10.0, 150.0, 100.0};
  double const scale[8] = {1.0, 0.5, 0.5, 1.0, 1.0, 1.0, 1.5, 1.0};
  for (int i = 0; i < 8; ++i) sys.surfaces[i].aperture_percent = pct[i];
  sys.surfaces[1].aperture_kind = 1;
  sys.surfaces[1].semi_diameter = 40.0;
  sys.surfaces[7].aperture_kind = 2;
  sys.surfaces[7].semi_diameter = 0.5;
  std::vector<SdArgmax> const a = solve(sys, c, fields, 1);
  for (int i = 2; i < 6; ++i)  // halving and 1 are exact
    EXPECT_EQ(sys.surfaces[i].semi_diameter, scale[i] * base.surfaces[i].semi_diameter) << i;
  EXPECT_DOUBLE_EQ(sys.surfaces[6].semi_diameter, 1.5 * base.surfaces[6].semi_diameter);
  EXPECT_TRUE(sys.surfaces[1].semi_diameter == 40.0 && sys.surfaces[7].semi_diameter == 0.5);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(a[i].scale, scale[i]) << i;
    EXPECT_EQ(a[i].is_fixed, i == 1 || i == 7) << i;
  }
  EXPECT_TRUE(a[7].has_ray);
}

// No fields or no rows: surfaces byte for byte unchanged, records reset to
// "none"; no surfaces: the records are not touched.
TEST(SemiDiameter, NothingToTraceLeavesSurfacesUnchanged) {
  System sys = flagged_cooke();
  for (auto& s : sys.surfaces) s.semi_diameter = 3.0;
  sys.surfaces[2].aperture_kind = 1;
  sys.surfaces[2].aperture_percent = 50.0;
  System const before = sys;
  SystemConfig const c = config(0, nuvrix_test::kCookeStop, 0, 10.0);
  std::vector<FieldData> const fields = fields_of({0.0, 14.0});
  SdArgmax const junk = {7, 7, 7, 9.0, true, true};
  for (int rows : {1, 0}) {
    std::vector<SdArgmax> a(sys.count(), junk);
    nuvrix::solve_semi_diameters_impl(sys.surfaces.data(), sys.count(), sys.indices.data(), nullptr,
                                      rows, &c, fields.data(), rows == 0 ? 2 : 0, a.data());
    EXPECT_EQ(std::memcmp(sys.surfaces.data(), before.surfaces.data(),
                          sys.surfaces.size() * sizeof(SurfaceData)), 0);
    for (SdArgmax const& r : a)
      EXPECT_TRUE(r.wavelength == -1 && r.field == -1 && r.sample == -1 && r.scale == 1.0 &&
                  !r.has_ray && !r.is_fixed);
  }
  SdArgmax a = junk;
  nuvrix::solve_semi_diameters_impl(sys.surfaces.data(), 0, sys.indices.data(), nullptr, 1, &c,
                                    fields.data(), 2, &a);
  EXPECT_EQ(a.sample, 7);
}

// With only air in front of the stop and a pupil-diameter aperture the stop
// opens to the pupil radius without a ray; glass in front or an F-number
// (F/10 at 100 mm: the same 5 mm) lets the rays decide (2.5).  A stop on
// surface 1 that every ray misses is set by the rule alone (the glass flags
// of surfaces 0 and 1 unread); unreached surfaces keep their values.
TEST(SemiDiameter, EntrancePupilRule) {
  std::vector<FieldData> const axis = fields_of({0.0});
  struct Case {
    bool glass;
    int aperture_type;
    double value, stop_sd;
    bool stop_ray;
  };
  for (Case const& k : {Case{false, 0, 10.0, 5.0, false}, Case{true, 0, 10.0, 2.5, true},
                        Case{false, 1, 10.0, 2.5, true}}) {
    System sys = lens_then_stop();
    sys.surfaces[1].is_glass = k.glass;
    std::vector<SdArgmax> const a = solve(sys, config(0, 2, 0, k.value, k.aperture_type), axis, 1);
    EXPECT_NEAR(sys.surfaces[1].semi_diameter, 5.0, 1e-12) << k.glass << k.aperture_type;
    EXPECT_NEAR(sys.surfaces[2].semi_diameter, k.stop_sd, k.stop_ray ? 1e-12 : 0.0);
    EXPECT_TRUE(a[1].has_ray && a[2].has_ray == k.stop_ray) << k.glass << k.aperture_type;
  }
  System bead = nuvrix_test::make_system({0, 1.0, 0, 0}, {INFINITY, 5.0, 5.0, 0.0}, {1, 1.5, 1, 1});
  bead.surfaces[0].is_glass = bead.surfaces[1].is_glass = 1;
  bead.surfaces[2].semi_diameter = bead.surfaces[3].semi_diameter = 7.0;
  bead.surfaces[2].aperture_percent = 50.0;
  std::vector<SdArgmax> const a = solve(bead, config(0, 1, 0, 10.0), axis, 1);
  EXPECT_TRUE(bead.surfaces[1].semi_diameter == 5.0 && !a[1].has_ray);
  EXPECT_TRUE(bead.surfaces[0].semi_diameter == 5.0 && a[0].has_ray);  // the launch points
  EXPECT_TRUE(bead.surfaces[2].semi_diameter == 7.0 && bead.surfaces[3].semi_diameter == 7.0);
}

// Pupil radius from the diameter, F-number (EFL / 2F) or object NA; stop
// radius the paraxial height at the stop, or when the stop is no row half the
// pupil diameter (5 mm for an F-number).
TEST(SemiDiameter, PupilAndStopRadii) {
  System const lens = lens_then_stop(), ck = nuvrix_test::cooke_triplet();
  System const relay = nuvrix_test::finite_relay();
  auto pupil = [](System const& s, int n, SystemConfig const& c) {
    return nuvrix_compute_pupil_radius(s.surfaces.data(), n, s.row(), &c);
  };
  auto stop_r = [](System const& s, int n, SystemConfig const& c) {
    return nuvrix_compute_stop_radius(s.surfaces.data(), n, s.row(), &c);
  };
  EXPECT_EQ(pupil(lens, 4, config(0, 2, 0, 12.0)), 6.0);
  EXPECT_NEAR(stop_r(lens, 4, config(0, 2, 0, 12.0)), 3.0, 1e-12);  // halfway to the focus
  EXPECT_NEAR(pupil(lens, 4, config(0, 2, 0, 4.0, 1)), 12.5, 1e-12);
  EXPECT_NEAR(stop_r(lens, 4, config(0, 2, 0, 4.0, 1)), 6.25, 1e-12);
  // {stop, surface count}: a stop that is no row of the system.
  for (auto [stop, n] : {std::pair{0, 4}, {4, 4}, {-1, 4}, {2, 1}}) {
    EXPECT_EQ(stop_r(lens, n, config(0, stop, 0, 12.0)), 6.0) << stop << " " << n;
    EXPECT_EQ(stop_r(lens, n, config(0, stop, 0, 4.0, 1)), 5.0) << stop << " " << n;
  }
  double const efl = nuvrix_calculate_efl(ck.surfaces.data(), ck.count(), ck.row());
  EXPECT_NEAR(pupil(ck, ck.count(), config(0, 2, 0, 4.0, 1)), std::fabs(efl) / 8.0, 1e-12);
  EXPECT_NEAR(pupil(relay, relay.count(), config(0, 1, 0, 0.1, 2)), 60.0 * 0.1 / std::sqrt(0.99),
              1e-12);
}
