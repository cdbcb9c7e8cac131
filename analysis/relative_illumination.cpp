// Relative illumination from the working F-number at each field.
//
// The F-number at a field point comes from the image-space pupil: along 24
// directions of the entrance pupil a bisection with aimed real rays finds
// the last ray that gets through, and the change of its direction cosines
// from the chief ray's is one vertex of a polygon.  The polygon's area gives
// the radius s of a circle of equal area in direction-cosine space, and
// F = 1 / (2 s).  Vignetting and the shape of the pupil thus act on F, and
// the illumination is (F_0 / F)^2 with no cosine factors.
#include "analysis/field_analyses.hpp"

namespace nuvrix {

namespace {

constexpr int kPupilDirections = 24;
constexpr int kEdgeBisectionSteps = 16;
constexpr double kPi = 3.14159265358979323846;
constexpr double kFailedChiefFnum = -1.0;     // F-number of a field whose chief ray fails
constexpr double kDefaultReferenceF2 = 25.0;  // F_0^2 when the axis gives no F-number

// Direction-cosine offset from the chief ray of one vertex of the pupil.
struct PupilVertex {
  double dl, dm;
};

// Bisects for the pupil edge along (ca, sa) and returns the offset of the
// last surviving probe, not of the exact edge; (0, 0) when none survived.
PupilVertex pupil_edge(FieldScan const& scan, double const* row, double ca, double sa,
                       RayTraceResult const& chief) {
  PupilVertex d = {0.0, 0.0};
  double lo = 0.0, hi = 1.0;
  for (int step = 0; step < kEdgeBisectionSteps; ++step) {
    double const mid = (lo + hi) / 2.0;
    RayTraceResult const r = trace_scan_ray(scan, row, scan.launch.field_value, mid * ca, mid * sa);
    if (r.valid) {
      lo = mid;
      d = {r.l - chief.l, r.m - chief.m};
    } else {
      hi = mid;
    }
  }
  return d;
}

// Area of the closed polygon by the shoelace sum, vertex 24 being vertex 0.
double polygon_area(PupilVertex const* d) {
  double sum = 0.0;
  for (int k = 0; k < kPupilDirections; ++k) {
    PupilVertex const& a = d[k];
    PupilVertex const& b = d[(k + 1) % kPupilDirections];
    sum += a.dl * b.dm - a.dm * b.dl;
  }
  return 0.5 * fabs(sum);
}

// F-number of the circle of area A: 1 / (2 s) with s = sqrt(A / pi).
double fnum_of_area(double area) {
  double const s = sqrt(area / kPi);
  if (s < kTiny) return kNoPowerFocal;
  return 1.0 / (2.0 * s);
}

// Illumination of a field of F-number F against the reference F_0^2.
double illumination_of(double ref, double F) {
  if (!(F > 0.0)) return 0.0;
  return fmin(1.0, ref / (F * F));
}

}  // namespace

double compute_effective_fnum_at_field(SurfaceData const* surfaces, int surface_count,
                                       double const* indices, SystemConfig const* config,
                                       double field_value, double pupil_radius,
                                       double entrance_pupil_position, int aim_flag,
                                       double stop_radius) {
  FieldScan const scan = {
      surfaces,
      surface_count,
      config,
      {field_value, pupil_radius, entrance_pupil_position, aim_flag, stop_radius}};
  RayTraceResult const chief = trace_scan_ray(scan, indices, field_value, 0.0, 0.0);
  if (!chief.valid) return kFailedChiefFnum;
  PupilVertex d[kPupilDirections];
  for (int k = 0; k < kPupilDirections; ++k) {
    double const a = 2.0 * kPi * k / kPupilDirections;  // k = 0 is the +x direction
    d[k] = pupil_edge(scan, indices, cos(a), sin(a), chief);
  }
  return fnum_of_area(polygon_area(d));
}

int compute_relative_illumination(SurfaceData const* surfaces, int surface_count,
                                  double const* indices, SystemConfig const* config,
                                  int point_count, double max_field, int /*unused_count*/,
                                  RelativeIlluminationPoint* points,
                                  RelativeIlluminationResult* result) {
  LaunchSet const s = compute_launch_set(surfaces, surface_count, indices, *config);
  auto fnum_at = [&](double field) {
    return compute_effective_fnum_at_field(surfaces, surface_count, indices, config, field,
                                           s.pupil_radius, s.entrance_pupil_position, s.aim_flag,
                                           s.stop_radius);
  };
  double const f0 = fnum_at(0.0);
  double const ref = f0 > 0.0 ? f0 * f0 : kDefaultReferenceF2;
  for (int i = 0; i <= point_count; ++i) {
    double const field = static_cast<double>(i) / point_count * max_field;
    points[i] = {field, illumination_of(ref, fnum_at(field))};
  }
  result->point_count = point_count + 1;
  return 0;
}

}  // namespace nuvrix
