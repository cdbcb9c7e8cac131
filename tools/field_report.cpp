// The field-curve blocks of the nuvrix report: field curvature, distortion
// and relative illumination, and lateral colour, each scanned by the engine
// from the axis to the largest field of the lens.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "tools/quality_setup.hpp"
#include "tools/report.hpp"

namespace lensfile {
namespace {

constexpr int kIntervals = 10;  // field steps from the axis to the largest field

// The engine leaves every value of a field at 0 when its chief ray fails.
bool chief_failed(const FieldCurvatureDistortionPoint& p) {
  return p.field != 0.0 && p.real_height == 0.0 && p.paraxial_height == 0.0 &&
         p.tangential_focus == 0.0 && p.sagittal_focus == 0.0;
}

// Field curvature and distortion, and relative illumination, over the same
// fields; each export's status beside its records.
struct FieldScan {
  std::vector<FieldCurvatureDistortionPoint> curves =
      std::vector<FieldCurvatureDistortionPoint>(kIntervals + 1);
  std::vector<RelativeIlluminationPoint> light =
      std::vector<RelativeIlluminationPoint>(kIntervals + 1);
  FieldCurvatureDistortionResult curves_result = {};
  RelativeIlluminationResult light_result = {};
  int32_t curves_status = 0, light_status = 0;
};

FieldScan scan_fields(const Lens& lens, double max_field) {
  const double* row = lens.row(lens.config.primary_wavelength);
  const int32_t nf = static_cast<int32_t>(lens.fields.size());
  FieldScan s;
  s.curves_status = nuvrix_compute_field_curvature_distortion(
      lens.surfaces.data(), lens.count(), row, &lens.config, lens.fields.data(), nf, kIntervals,
      max_field, s.curves.data(), &s.curves_result);
  s.light_status = nuvrix_compute_relative_illumination(lens.surfaces.data(), lens.count(), row,
                                                        &lens.config, kIntervals, max_field, nf,
                                                        s.light.data(), &s.light_result);
  return s;
}

// Row k: the field, the curvature and distortion columns, the illumination;
// dashes where a call failed or the chief ray of the field did.
void print_scan_row(const FieldScan& s, int k) {
  const FieldCurvatureDistortionPoint& p = s.curves[k];
  const bool curves = s.curves_status == 0 && k < s.curves_result.point_count;
  const bool light = s.light_status == 0 && k < s.light_result.point_count;
  const bool failed = curves && chief_failed(p);
  std::printf("  %12.4f", curves ? p.field : s.light[k].field);
  if (curves && !failed)
    std::printf(" %14.6f %14.6f %12.6f %14.6f %14.6f", p.tangential_focus, p.sagittal_focus,
                p.distortion_percent, p.real_height, p.paraxial_height);
  else
    std::printf(" %14s %14s %12s %14s %14s", "-", "-", "-", "-", "-");
  if (light && !(failed && s.light[k].illumination == 0.0))
    std::printf(" %10.6f\n", s.light[k].illumination);
  else
    std::printf(" %10s\n", "-");
}

void print_curvature_distortion(const Lens& lens, double max_field) {
  const FieldScan s = scan_fields(lens, max_field);
  if (s.curves_status != 0)
    print_failed_call("nuvrix_compute_field_curvature_distortion", s.curves_status);
  if (s.light_status != 0)
    print_failed_call("nuvrix_compute_relative_illumination", s.light_status);
  if (s.curves_status != 0 && s.light_status != 0) return;
  const int n = std::max(s.curves_status == 0 ? s.curves_result.point_count : 0,
                         s.light_status == 0 ? s.light_result.point_count : 0);
  std::printf("  %12s %14s %14s %12s %14s %14s %10s\n", field_unit(lens), "T focus (mm)",
              "S focus (mm)", "dist. (%)", "real y (mm)", "paraxial y (mm)", "rel. illum");
  for (int k = 0; k < std::min(n, kIntervals + 1); ++k) print_scan_row(s, k);
}

// The record of wavelength w at field v among the lateral-colour records,
// or null.
const LateralColorPoint* find_shift(const std::vector<LateralColorPoint>& pts, int count, double v,
                                    int w, double tolerance) {
  for (int k = 0; k < count; ++k)
    if (pts[k].wavelength_index == w && std::fabs(pts[k].field - v) <= tolerance) return &pts[k];
  return nullptr;
}

void print_lateral_color_rows(const Lens& lens, double max_field,
                              const std::vector<LateralColorPoint>& pts, int count) {
  const int nw = static_cast<int>(lens.wavelengths_um.size());
  const int primary = lens.config.primary_wavelength;
  std::printf("  %12s", field_unit(lens));
  for (int w = 0; w < nw; ++w)
    if (w != primary) std::printf("   %7.2f nm (um)", lens.wavelengths_um[w] * 1000.0);
  std::printf("\n");
  for (int i = 1; i <= kIntervals; ++i) {
    const double v = i * max_field / kIntervals;
    std::printf("  %12.4f", v);
    for (int w = 0; w < nw; ++w) {
      if (w == primary) continue;
      const LateralColorPoint* p = find_shift(pts, count, v, w, 1e-9 * max_field);
      if (p)
        std::printf(" %18.4f", p->shift * 1000.0);
      else
        std::printf(" %18s", "-");
    }
    std::printf("\n");
  }
}

void print_lateral_color(const Lens& lens, double max_field) {
  const int nw = static_cast<int>(lens.wavelengths_um.size());
  if (nw < 2) {
    std::printf("  one wavelength: no lateral colour\n");
    return;
  }
  const int capacity = kIntervals * (nw - 1);
  std::vector<LateralColorPoint> pts(capacity);
  LateralColorResult r = {};
  const int32_t rc = nuvrix_compute_lateral_color(
      lens.surfaces.data(), lens.count(), lens.indices.data(), nw, &lens.config, lens.fields.data(),
      static_cast<int32_t>(lens.fields.size()), kIntervals, max_field, pts.data(), capacity, &r);
  if (rc != 0) return print_failed_call("nuvrix_compute_lateral_color", rc);
  print_lateral_color_rows(lens, max_field, pts,
                           std::min(std::max<int>(r.point_count, 0), capacity));
  std::printf("  largest |shift| %.4f um\n", r.max_abs_shift * 1000.0);
}

}  // namespace

void print_field_curves(const Lens& lens) {
  const double max_field = largest_field(lens);
  char title[96];
  std::snprintf(title, sizeof title, "Field curves from the axis to %.4f %s", max_field,
                field_unit(lens));
  print_heading(title);
  if (!(max_field > 0.0)) {
    std::printf("  the lens has no off-axis field\n");
    return;
  }
  std::printf(
      "  at %.4f nm: tangential and sagittal focus along the chief ray from the image\n"
      "  surface; distortion of the chief ray's height against the paraxial height\n"
      "  EFL tan(field); illumination relative to the axis, (F0 / F)^2 of the working\n"
      "  F-number of the real pupil; \"-\": the chief ray failed (the engine wrote zeros)\n",
      lens.primary_nm());
  print_curvature_distortion(lens, max_field);
  std::printf(
      "\n  lateral colour: chief-ray height on the image at each wavelength minus that at\n"
      "  %.4f nm, in micrometres (\"-\": a chief ray failed; the axis is no sample)\n",
      lens.primary_nm());
  print_lateral_color(lens, max_field);
}

}  // namespace lensfile
