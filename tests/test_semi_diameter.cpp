// Semi-diameter solve and the pupil and stop radii: the solved values are
// checked against an independent scan of the eight edge rays, each traced
// with the exported front end up to every surface in turn, and the radii
// against thin-lens first-order optics.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "first_order/semi_diameter.hpp"
#include "tests/systems.hpp"

using nuvrix::SdArgmax;
using nuvrix_test::System;

namespace {

double const kDeg = M_PI / 180.0;
double const kPx[8] = {0, 0, 1, -1, 0.707, -0.707, 0.707, -0.707};
double const kPy[8] = {1, -1, 0, 0, 0.707, 0.707, -0.707, -0.707};

SystemConfig config(int field_type, int stop, int aiming, double epd) {
  SystemConfig c = {};
  c.field_type = field_type;
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

// The largest ray height at each surface 1 .. n-1, and the first (row,
// field, sample) that reached it, for an entrance pupil diameter.
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
    if (c.ray_aiming != 0) {  // the real marginal ray's height at the stop
      RayTraceResult const m = nuvrix_trace_ray(s.surfaces.data(), n, row, 1, stop, 0, R, 0, 0, 1, 0);
      EXPECT_EQ(m.valid, 1);
      stop_r = std::fabs(m.y);
    }
    for (int f = 0; f < static_cast<int>(fields.size()); ++f) {
      for (int k = 0; k < 8; ++k) {
        for (int i = 1; i < n; ++i) {
          RayTraceResult const r =
              nuvrix_trace_arbitrary_ray(s.surfaces.data(), n, row, &c, c.ray_aiming, i,
                                         fields[f].field_y, R, kPx[k], kPy[k], 0.0, ep, stop_r);
          EXPECT_EQ(r.valid, 1);
          double const h = std::sqrt(r.x * r.x + r.y * r.y);
          if (h > out.r[i]) out.r[i] = h, out.w[i] = w, out.f[i] = f, out.k[i] = k;
        }
      }
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
      EXPECT_NEAR(sys.surfaces[i].semi_diameter, scan.r[i], 1e-12 * scan.r[i]) << aiming << " " << i;
      EXPECT_EQ(by_export.surfaces[i].semi_diameter, sys.surfaces[i].semi_diameter);
      EXPECT_TRUE(a[i].has_ray);
      EXPECT_EQ(a[i].wavelength, scan.w[i]) << aiming << " " << i;
      EXPECT_EQ(a[i].field, scan.f[i]) << aiming << " " << i;
      EXPECT_EQ(a[i].sample, scan.k[i]) << aiming << " " << i;
    }
    if (aiming != 0) continue;
    // The object surface gets the launch points on the tangent plane of
    // surface 1, moved back from the entrance pupil along each ray.
    double best = 0.0;
    for (int w = 0; w < 2; ++w) {
      double const ep = nuvrix_entrance_pupil_position(sys.surfaces.data(), sys.count(), sys.row(w),
                                                       nuvrix_test::kCookeStop);
      for (int k = 0; k < 8; ++k) {
        double const y = 5.0 * kPy[k] + ep * std::tan(20.0 * kDeg);
        best = std::fmax(best, std::hypot(5.0 * kPx[k], y));
      }
    }
    EXPECT_NEAR(sys.surfaces[0].semi_diameter, best, 1e-12);
    EXPECT_EQ(a[0].field, 2);
  }
  // Finite object, aimed: the object surface takes the largest field height,
  // first reached by sample 0 of that field.
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
  EXPECT_EQ(relay.surfaces[0].semi_diameter, 6.0);
  EXPECT_EQ(a[0].field, 2);
  EXPECT_EQ(a[0].sample, 0);
}

TEST(SemiDiameter, AperturePercentAndFixedKinds) {
  std::vector<FieldData> const fields = fields_of({0.0, 14.0});
  SystemConfig const c = config(0, nuvrix_test::kCookeStop, 0, 10.0);
  System base = flagged_cooke();
  solve(base, c, fields, 1);
  System sys = flagged_cooke();
  sys.surfaces[2].aperture_percent = 50.0;
  sys.surfaces[3].aperture_percent = 0.0;
  sys.surfaces[5].aperture_percent = -10.0;
  sys.surfaces[6].aperture_percent = 150.0;
  sys.surfaces[1].aperture_kind = 1;  // fixed and clipping, but wide
  sys.surfaces[1].semi_diameter = 40.0;
  sys.surfaces[1].aperture_percent = 50.0;
  sys.surfaces[7].aperture_kind = 2;  // kept, never clips
  sys.surfaces[7].semi_diameter = 0.5;
  std::vector<SdArgmax> const a = solve(sys, c, fields, 1);
  EXPECT_EQ(sys.surfaces[2].semi_diameter, 0.5 * base.surfaces[2].semi_diameter);
  EXPECT_EQ(sys.surfaces[3].semi_diameter, base.surfaces[3].semi_diameter);
  EXPECT_EQ(sys.surfaces[5].semi_diameter, base.surfaces[5].semi_diameter);
  EXPECT_DOUBLE_EQ(sys.surfaces[6].semi_diameter, 1.5 * base.surfaces[6].semi_diameter);
  EXPECT_EQ(sys.surfaces[1].semi_diameter, 40.0);
  EXPECT_EQ(sys.surfaces[7].semi_diameter, 0.5);
  double const scale[8] = {1.0, 0.5, 0.5, 1.0, 1.0, 1.0, 1.5, 1.0};
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(a[i].scale, scale[i]) << i;
    EXPECT_EQ(a[i].is_fixed, i == 1 || i == 7) << i;
  }
  EXPECT_TRUE(a[7].has_ray);  // a fixed surface still records its ray
}

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
                          sys.surfaces.size() * sizeof(SurfaceData)),
              0);
    for (SdArgmax const& r : a) {
      EXPECT_TRUE(r.wavelength == -1 && r.field == -1 && r.sample == -1 && r.scale == 1.0);
      EXPECT_TRUE(!r.has_ray && !r.is_fixed);
    }
  }
  // No surfaces: the records are not touched.
  SdArgmax a = junk;
  nuvrix::solve_semi_diameters_impl(sys.surfaces.data(), 0, sys.indices.data(), nullptr, 1, &c,
                                    fields.data(), 2, &a);
  EXPECT_EQ(a.sample, 7);
}

TEST(SemiDiameter, EntrancePupilRule) {
  std::vector<FieldData> const axis = fields_of({0.0});
  // All air in front of the stop: the stop opens to the pupil radius.
  System sys = lens_then_stop();
  std::vector<SdArgmax> a = solve(sys, config(0, 2, 0, 10.0), axis, 1);
  EXPECT_EQ(sys.surfaces[2].semi_diameter, 5.0);
  EXPECT_FALSE(a[2].has_ray);
  EXPECT_NEAR(sys.surfaces[1].semi_diameter, 5.0, 1e-12);
  EXPECT_TRUE(a[1].has_ray);
  // Glass in front of the stop, or an F-number aperture: the rays decide.
  sys = lens_then_stop();
  sys.surfaces[1].is_glass = 1;
  a = solve(sys, config(0, 2, 0, 10.0), axis, 1);
  EXPECT_NEAR(sys.surfaces[2].semi_diameter, 2.5, 1e-12);
  EXPECT_TRUE(a[2].has_ray);
  SystemConfig f10 = config(0, 2, 0, 10.0);
  f10.aperture_type = 1;  // F/10 at 100 mm: the same 5 mm pupil radius
  sys = lens_then_stop();
  a = solve(sys, f10, axis, 1);
  EXPECT_NEAR(sys.surfaces[1].semi_diameter, 5.0, 1e-12);
  EXPECT_NEAR(sys.surfaces[2].semi_diameter, 2.5, 1e-12);
  EXPECT_TRUE(a[2].has_ray);
  // Stop on surface 1, a bead of radius 1 that every edge ray misses: only
  // the rule sets it; the glass flags of surfaces 0 and 1 are not looked at.
  // Unreached surfaces keep their values, scaled or not.
  System bead = nuvrix_test::make_system({0, 1.0, 0, 0}, {INFINITY, 5.0, 5.0, 0.0}, {1, 1.5, 1, 1});
  bead.surfaces[0].is_glass = bead.surfaces[1].is_glass = 1;
  bead.surfaces[2].semi_diameter = bead.surfaces[3].semi_diameter = 7.0;
  bead.surfaces[2].aperture_percent = 50.0;
  a = solve(bead, config(0, 1, 0, 10.0), axis, 1);
  EXPECT_EQ(bead.surfaces[1].semi_diameter, 5.0);
  EXPECT_FALSE(a[1].has_ray);
  EXPECT_EQ(bead.surfaces[0].semi_diameter, 5.0);  // the launch points
  EXPECT_TRUE(a[0].has_ray);
  EXPECT_EQ(bead.surfaces[2].semi_diameter, 7.0);
  EXPECT_EQ(bead.surfaces[3].semi_diameter, 7.0);
}

TEST(SemiDiameter, PupilAndStopRadii) {
  System const lens = lens_then_stop();
  SystemConfig c = config(0, 2, 0, 12.0);
  EXPECT_EQ(nuvrix_compute_pupil_radius(lens.surfaces.data(), 4, lens.row(), &c), 6.0);
  // Paraxial height at the stop halfway to the focus, and the fallbacks of
  // a stop that is no row: half the pupil diameter, or 5 mm.
  EXPECT_NEAR(nuvrix_compute_stop_radius(lens.surfaces.data(), 4, lens.row(), &c), 3.0, 1e-12);
  for (int stop : {0, 4, -1}) {
    c.stop_surface = stop;
    EXPECT_EQ(nuvrix_compute_stop_radius(lens.surfaces.data(), 4, lens.row(), &c), 6.0) << stop;
  }
  EXPECT_EQ(nuvrix_compute_stop_radius(lens.surfaces.data(), 1, lens.row(), &c), 6.0);
  c.aperture_type = 1;  // F/4 at 100 mm
  c.aperture_value = 4.0;
  EXPECT_EQ(nuvrix_compute_stop_radius(lens.surfaces.data(), 4, lens.row(), &c), 5.0);
  EXPECT_EQ(nuvrix_compute_stop_radius(lens.surfaces.data(), 1, lens.row(), &c), 5.0);
  EXPECT_NEAR(nuvrix_compute_pupil_radius(lens.surfaces.data(), 4, lens.row(), &c), 12.5, 1e-12);
  c.stop_surface = 2;
  EXPECT_NEAR(nuvrix_compute_stop_radius(lens.surfaces.data(), 4, lens.row(), &c), 6.25, 1e-12);
  System const ck = nuvrix_test::cooke_triplet();
  double const efl = nuvrix_calculate_efl(ck.surfaces.data(), ck.count(), ck.row());
  EXPECT_NEAR(nuvrix_compute_pupil_radius(ck.surfaces.data(), ck.count(), ck.row(), &c),
              std::fabs(efl) / 8.0, 1e-12);
  // Object-space numerical aperture with the stop on the first surface.
  System const relay = nuvrix_test::finite_relay();
  c.aperture_type = 2;
  c.aperture_value = 0.1;
  c.stop_surface = 1;
  EXPECT_NEAR(nuvrix_compute_pupil_radius(relay.surfaces.data(), relay.count(), relay.row(), &c),
              60.0 * 0.1 / std::sqrt(0.99), 1e-12);
}
