// The encircled-energy block of the nuvrix report: the radii that hold 50 %
// and 80 % of the energy, from the ray hits of the spot diagram and from
// the diffraction PSF of every field.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "tools/quality_setup.hpp"
#include "tools/report.hpp"

namespace lensfile {
namespace {

constexpr int kRings = 12;     // rings of the hexapolar spot grid
constexpr int kHexapolar = 1;  // pattern code of the hexapolar grid
constexpr int kRadii = 400;    // intervals of each encircled-energy curve
constexpr double kLevels[] = {0.5, 0.8};
constexpr double kMargin = 1.02;     // the geometric curve runs a little past the farthest hit
constexpr double kPointSpot = 1e-3;  // um: the range of a curve of a spot with no extent

// Radius (um) where the curve first reaches `level`, linear between the
// two points around the crossing; negative when it never does.
double crossing_radius(const std::vector<EncircledEnergyPoint>& pts, int count, double level) {
  for (int k = 0; k < count; ++k) {
    if (!(pts[k].energy >= level)) continue;
    if (k == 0) return pts[0].radius;
    const EncircledEnergyPoint& a = pts[k - 1];
    const EncircledEnergyPoint& b = pts[k];
    const double t = (level - a.energy) / (b.energy - a.energy);
    return a.radius + t * (b.radius - a.radius);
  }
  return -1.0;
}

void print_crossings(const std::vector<EncircledEnergyPoint>& pts, int count) {
  for (double level : kLevels) {
    const double r = crossing_radius(pts, count, level);
    if (r >= 0.0)
      std::printf(" %10.3f", r);
    else
      std::printf(" %10s", "-");
  }
}

void print_dashes() { std::printf(" %10s %10s", "-", "-"); }

// Geometric curve of one field over all wavelengths, about the centroid of
// the hits: prints its two radii (dashes on a failed call) and returns the
// spot diagram's status.
int32_t geometric_curve(const Lens& lens, int f) {
  const int32_t nw = static_cast<int32_t>(lens.wavelengths_um.size());
  const int32_t capacity = nw * (1 + 3 * kRings * (kRings + 1));
  const std::vector<double> weights(nw, 1.0);
  std::vector<SpotRayHit> hits(capacity);
  SpotDiagramResult s = {};
  const int32_t rc = nuvrix_compute_spot_diagram_with_rays(
      lens.surfaces.data(), lens.count(), lens.indices.data(), weights.data(), nw, &lens.config,
      lens.fields.data(), static_cast<int32_t>(lens.fields.size()), f, kRings, kHexapolar,
      hits.data(), capacity, &s);
  if (rc != 0) {
    print_dashes();
    return rc;
  }
  // Every hit lies within the geometric radius of the chief ray, so within
  // that plus the centroid's offset of the centroid.
  const double offset = std::hypot(s.centroid_x - s.chief_x, s.centroid_y - s.chief_y);
  const double reach = std::max(kMargin * 1000.0 * (s.geo_radius + offset), kPointSpot);
  std::vector<EncircledEnergyPoint> pts(kRadii + 1);
  EncircledEnergyResultHeader h = {};
  nuvrix_compute_geometric_encircled_energy(hits.data(), std::min(s.ray_count, capacity),
                                            s.centroid_x, s.centroid_y, reach, kRadii, pts.data(),
                                            &h);
  print_crossings(pts, std::min(std::max<int>(h.point_count, 0), kRadii + 1));
  return 0;
}

// Diffraction curve of one field at the primary wavelength, about the
// centroid of its FFT PSF, out to the circle inscribed in the PSF array:
// prints its two radii (dashes on a failed call) and returns the PSF's
// status.
int32_t diffraction_curve(const Lens& lens, const QualitySetup& q, int f) {
  const int side = 2 * kPupilGrid;
  const size_t area = static_cast<size_t>(side) * side;
  std::vector<double> map(kPupilGrid * kPupilGrid), real(area), imag(area), psf(area);
  std::vector<int32_t> mask(kPupilGrid * kPupilGrid);
  const double* row = lens.row(lens.config.primary_wavelength);
  FftPsfResult p = {};
  const int32_t rc = nuvrix_compute_fft_psf(lens.surfaces.data(), lens.count(), row, row,
                                            q.wavelength_um, &lens.config, lens.fields.data(),
                                            static_cast<int32_t>(lens.fields.size()), f, kPupilGrid,
                                            q.reference_radius, q.f_number, map.data(), mask.data(),
                                            real.data(), imag.data(), psf.data(), &p);
  if (rc != 0) {
    print_dashes();
    return rc;
  }
  std::vector<EncircledEnergyPoint> pts(kRadii + 1);
  EncircledEnergyResultHeader h = {};
  const double reach = 0.5 * p.grid_size * p.pixel_pitch * 1000.0;
  nuvrix_compute_diffraction_encircled_energy(psf.data(), p.grid_size, p.pixel_pitch, reach, kRadii,
                                              pts.data(), &h);
  print_crossings(pts, std::min(std::max<int>(h.point_count, 0), kRadii + 1));
  return 0;
}

}  // namespace

void print_encircled_energy(const Lens& lens) {
  print_heading("Encircled energy: radii holding 50 % and 80 % of the energy (um)");
  const QualitySetup q = quality_setup(lens);
  std::printf(
      "  geometric: hits of the spot diagram (%d hexapolar rings, all wavelengths, each ray\n"
      "  counting the same) in circles about their centroid\n"
      "  diffraction: FFT PSF at %.4f nm (%d x %d pupil grid) in circles about its centroid\n"
      "  radii read linearly between the %d points of each curve; \"-\": not reached\n\n",
      kRings, lens.primary_nm(), kPupilGrid, kPupilGrid, kRadii);
  std::printf("  %-24s %10s %10s %10s %10s\n", "field", "geo 50%", "geo 80%", "diff 50%",
              "diff 80%");
  for (size_t f = 0; f < lens.fields.size(); ++f) {
    const int fi = static_cast<int>(f);
    std::printf("  %-24s", field_label(lens, fi).c_str());
    const int32_t geo = geometric_curve(lens, fi);
    const int32_t diff = q.usable ? diffraction_curve(lens, q, fi) : 0;
    if (!q.usable) print_dashes();
    std::printf("\n");
    if (geo != 0) print_failed_call("nuvrix_compute_spot_diagram_with_rays", geo, "    ");
    if (diff != 0) print_failed_call("nuvrix_compute_fft_psf", diff, "    ");
  }
  if (!q.usable) print_quality_setup(q);
}

}  // namespace lensfile
