// The setup of the image-quality blocks: the reference sphere from the
// paraxial exit pupil, the working F-number from a near-axis real ray, the
// diffraction cutoffs that follow, and small helpers for labels and status.
#include "tools/quality_setup.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "tools/ray_aim.hpp"

namespace lensfile {
namespace {

// Height, as a fraction of the pupil radius, of the real ray that stands in
// for the paraxial marginal ray.
constexpr double kNearAxisFraction = 1e-4;
constexpr double kFar = 1e10;  // distances at or beyond: no usable value

bool usable_distance(double d) {
  return std::isfinite(d) && std::fabs(d) > 1e-9 && std::fabs(d) < kFar;
}

// Image-space slope of the paraxial marginal ray, from a real ray at a small
// fraction of the entrance pupil radius scaled back up; false when it fails.
bool marginal_slope(const Lens& lens, double& slope) {
  Aim aim;
  std::string error;
  if (!set_up_aim(lens, aim, error) || !(aim.epd > 0.0)) return false;
  const Launch r = launch_ray(lens, aim, 0.0, kNearAxisFraction * 0.5 * aim.epd);
  const int w = lens.config.primary_wavelength;
  const RayTraceResult res = nuvrix_trace_ray(lens.surfaces.data(), lens.count(), lens.row(w), 1, 0,
                                              r.x, r.y, r.l, r.m, r.n, aim.wavelength_nm);
  if (res.valid != 1 || !(std::fabs(res.n) > 1e-15)) return false;
  slope = (res.m / res.n) / kNearAxisFraction;
  return std::isfinite(slope) && std::fabs(slope) > 1e-15;
}

void set_reference(const ParaxialSolveResult& p, QualitySetup& q) {
  if (usable_distance(p.exit_pupil_position)) {
    q.reference_radius = std::fabs(p.exit_pupil_position);
    q.reference_note = "|exit pupil position| of the paraxial solve (pupil to image)";
  } else if (usable_distance(p.efl)) {
    q.reference_radius = std::fabs(p.efl);
    q.reference_note = "|EFL| (the paraxial solve gives no exit pupil distance)";
  }
}

void set_f_number(const Lens& lens, QualitySetup& q) {
  double slope = 0.0;
  const double n_image = std::fabs(lens.index(lens.config.primary_wavelength, lens.count() - 2));
  if (marginal_slope(lens, slope) && n_image > 0.0) {
    q.f_number = 1.0 / (2.0 * n_image * std::fabs(slope));
    q.f_number_note = "1 / (2 |n' u'|) of the paraxial marginal ray";
  } else if (q.efl_over_epd > 0.0) {
    q.f_number = q.efl_over_epd;
    q.f_number_note = "|EFL| / EPD (no near-axis ray reached the image)";
  }
}

}  // namespace

QualitySetup quality_setup(const Lens& lens) {
  QualitySetup q;
  const int w = lens.config.primary_wavelength;
  const ParaxialSolveResult p = nuvrix_paraxial_solve(
      lens.surfaces.data(), lens.count(), lens.row(w), &lens.config, lens.fields.data(),
      static_cast<int32_t>(lens.fields.size()), nullptr, nullptr);
  if (usable_distance(p.efl) && p.entrance_pupil_diameter > 0.0)
    q.efl_over_epd = std::fabs(p.efl) / p.entrance_pupil_diameter;
  set_reference(p, q);
  set_f_number(lens, q);
  q.wavelength_um = lens.wavelengths_um[w];
  q.shortest_um = *std::min_element(lens.wavelengths_um.begin(), lens.wavelengths_um.end());
  if (!(q.reference_radius > 0.0)) q.problem = "no exit pupil distance or focal length";
  if (!(q.f_number > 0.0 && std::isfinite(q.f_number))) q.problem = "no working F-number";
  q.usable = q.problem.empty();
  if (!q.usable) return q;
  q.cutoff = 1.0 / (q.wavelength_um * 1e-3 * q.f_number);
  q.cutoff_shortest = 1.0 / (q.shortest_um * 1e-3 * q.f_number);
  return q;
}

void print_quality_setup(const QualitySetup& q) {
  if (!q.usable) {
    std::printf("  cannot set up the diffraction analyses: %s\n", q.problem.c_str());
    return;
  }
  std::printf("  reference sphere radius %12.6f mm    %s\n", q.reference_radius,
              q.reference_note.c_str());
  std::printf("  working F-number        %12.6f       %s", q.f_number, q.f_number_note.c_str());
  if (q.efl_over_epd > 0.0) std::printf(" (|EFL| / EPD %.6f)", q.efl_over_epd);
  std::printf("\n  diffraction cutoff      %12.6f c/mm  1 / (lambda F) at %.4f nm", q.cutoff,
              q.wavelength_um * 1000.0);
  if (q.shortest_um < q.wavelength_um)
    std::printf("; %.2f c/mm at %.4f nm", q.cutoff_shortest, q.shortest_um * 1000.0);
  std::printf("\n");
}

std::string field_label(const Lens& lens, int f) {
  char buf[96];
  const FieldData& d = lens.fields[f];
  std::snprintf(buf, sizeof buf, "%d: %.4f %s", f + 1, d.field_y, field_unit(lens));
  std::string s = buf;
  if (d.field_x != 0.0) s += " (y only)";
  return s;
}

double largest_field(const Lens& lens) {
  double m = 0.0;
  for (const FieldData& f : lens.fields) m = std::max(m, std::fabs(f.field_y));
  return m;
}

const char* field_unit(const Lens& lens) {
  return lens.config.field_type == NUVRIX_FIELD_ANGLE ? "deg" : "mm";
}

std::string analysis_status_text(int status) {
  switch (status) {
    case -1:
      return "field out of range or nothing to compute";
    case -2:
      return "the chief ray at the primary wavelength failed";
    case -3:
      return "the chief ray at this wavelength failed, or no ray survived";
    default:
      return "unexpected status";
  }
}

void print_failed_call(const char* export_name, int status, const char* indent) {
  std::printf("%s%s returned %d (%s)\n", indent, export_name, status,
              analysis_status_text(status).c_str());
}

}  // namespace lensfile
