// The geometric image-quality block of the nuvrix report: spot radii and
// centroid of every field over all wavelengths, and the extremes of the
// transverse ray fans.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "tools/quality_setup.hpp"
#include "tools/report.hpp"

namespace lensfile {
namespace {

constexpr int kRings = 12;         // rings of the hexapolar spot grid
constexpr int kHexapolar = 1;      // pattern code of the hexapolar grid
constexpr int kFanIntervals = 20;  // fan samples -1 .. 1 in steps of 2 / kFanIntervals
constexpr double kMicrons = 1000.0;

// Smallest and largest valid value of one fan over all wavelengths.
struct FanRange {
  double lo = 0.0, hi = 0.0;
  bool any = false;
};

FanRange fan_range(const std::vector<RayFanPoint>& pts, int count) {
  FanRange r;
  for (int k = 0; k < count && k < static_cast<int>(pts.size()); ++k) {
    if (pts[k].valid != 1) continue;
    r.lo = r.any ? std::min(r.lo, pts[k].value) : pts[k].value;
    r.hi = r.any ? std::max(r.hi, pts[k].value) : pts[k].value;
    r.any = true;
  }
  return r;
}

void print_range(const FanRange& r) {
  if (r.any)
    std::printf(" %9.3f %9.3f", r.lo * kMicrons, r.hi * kMicrons);
  else
    std::printf(" %9s %9s", "-", "-");
}

// One row of the spot table.
void spot_row(const Lens& lens, int f) {
  const int32_t nw = static_cast<int32_t>(lens.wavelengths_um.size());
  const std::vector<double> weights(nw, 1.0);
  std::printf("  %-24s", field_label(lens, f).c_str());
  SpotDiagramResult s = {};
  const int32_t rc = nuvrix_compute_spot_diagram(
      lens.surfaces.data(), lens.count(), lens.indices.data(), weights.data(), nw, &lens.config,
      lens.fields.data(), static_cast<int32_t>(lens.fields.size()), f, kRings, kHexapolar, &s);
  if (rc != 0) return print_failed_call("nuvrix_compute_spot_diagram", rc, " ");
  std::printf(" %10.3f %10.3f %12.6f %12.6f %12.6f %12.6f %6d\n", s.rms_radius * kMicrons,
              s.geo_radius * kMicrons, s.chief_x, s.chief_y, s.centroid_x, s.centroid_y,
              s.ray_count);
}

// One row of the fan table: tangential and sagittal extremes of a field.
void fan_row(const Lens& lens, int f) {
  const int32_t nw = static_cast<int32_t>(lens.wavelengths_um.size());
  const size_t n = static_cast<size_t>(kFanIntervals + 1) * nw;
  std::printf("  %-24s", field_label(lens, f).c_str());
  std::vector<RayFanPoint> tan(n), sag(n);
  RayFanResultHeader h = {};
  const int32_t rc = nuvrix_compute_transverse_ray_fan(
      lens.surfaces.data(), lens.count(), lens.indices.data(), nw, &lens.config, lens.fields.data(),
      static_cast<int32_t>(lens.fields.size()), f, kFanIntervals, tan.data(), sag.data(), &h);
  if (rc != 0) return print_failed_call("nuvrix_compute_transverse_ray_fan", rc, " ");
  print_range(fan_range(tan, h.tangential_count));
  print_range(fan_range(sag, h.sagittal_count));
  std::printf(" %10.3f\n", h.max_abs_value * kMicrons);
}

}  // namespace

void print_spots(const Lens& lens) {
  print_heading("Spot diagrams and transverse ray fans (all wavelengths)");
  std::printf(
      "  rays are traced unaimed unless the lens's ray aiming is 1\n"
      "  spot: hexapolar grid of %d rings (%d rays a wavelength), wavelengths weighted\n"
      "  equally; rms and geometric (largest) radius from the chief ray at %.4f nm, in um;\n"
      "  that chief ray and the centroid (plain mean of all rays) on the image, in mm\n\n",
      kRings, 1 + 3 * kRings * (kRings + 1), lens.primary_nm());
  std::printf("  %-24s %10s %10s %12s %12s %12s %12s %6s\n", "field", "rms (um)", "geo (um)",
              "chief x", "chief y", "centroid x", "centroid y", "rays");
  for (size_t f = 0; f < lens.fields.size(); ++f) spot_row(lens, static_cast<int>(f));
  std::printf(
      "\n  fans: %d intervals across the pupil; image y (tangential, pupil y) or x (sagittal,\n"
      "  pupil x) minus the primary chief ray's, in um: smallest and largest over all\n"
      "  wavelengths, and the largest |value| of both fans\n\n",
      kFanIntervals);
  std::printf("  %-24s %9s %9s %9s %9s %10s\n", "field", "T min", "T max", "S min", "S max",
              "max |e|");
  for (size_t f = 0; f < lens.fields.size(); ++f) fan_row(lens, static_cast<int>(f));
}

}  // namespace lensfile
