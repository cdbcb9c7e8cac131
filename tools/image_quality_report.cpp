// The wavefront-based image-quality blocks of the nuvrix report: wavefront
// error and Strehl ratio per field, the diffraction MTF (one wavelength and
// all of them) with the geometric MTF beside it, and the first Zernike terms
// of each field's wavefront.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/quality_setup.hpp"
#include "tools/report.hpp"

namespace lensfile {
namespace {

constexpr int kZernikeTerms = 11;
constexpr double kFrequencyStep = 1.0;  // cycles/mm between the MTF points asked for
constexpr int kMostMtfPoints = 20000;   // a longer curve is cut off (dashes in the table)
constexpr double kRoundFrequencies[] = {0.0, 10.0, 20.0, 50.0, 100.0};
constexpr double kCutoffFractions[] = {0.10, 0.25, 0.50, 0.75};
constexpr int kGeometricSamples = 64;  // pupil samples across for the geometric MTF
constexpr int kBinGrid = 256;          // side of the geometric MTF's image array
constexpr int kGeometricPoints = 101;  // 0 .. 100 cycles/mm, the engine's whole curve

// Caller-owned arrays of the map-based exports: the map and its mask
// (grid^2 each) and the transform's work arrays ((2 grid)^2 each).
struct MapBuffers {
  std::vector<double> map, real, imag, psf;
  std::vector<int32_t> mask;
  explicit MapBuffers(int grid)
      : map(grid * grid),
        real(4 * grid * grid),
        imag(4 * grid * grid),
        psf(4 * grid * grid),
        mask(grid * grid) {}
};

// Arguments every map-based call of one lens shares.
struct MapCall {
  const Lens& lens;
  const QualitySetup& q;
  int32_t field_count() const { return static_cast<int32_t>(lens.fields.size()); }
  const double* primary() const { return lens.row(lens.config.primary_wavelength); }
};

// One row of the wavefront table: rms and P-V of the map, Strehl ratio and
// pixel pitch of the PSF.
void print_wavefront_row(const MapCall& c, int f, MapBuffers& b) {
  const Lens& lens = c.lens;
  std::printf("  %-28s", field_label(lens, f).c_str());
  WavefrontResult w = {};
  int32_t rc = nuvrix_compute_wavefront_map(lens.surfaces.data(), lens.count(), c.primary(),
                                            c.primary(), c.q.wavelength_um, &lens.config,
                                            lens.fields.data(), c.field_count(), f, kPupilGrid,
                                            c.q.reference_radius, b.map.data(), b.mask.data(), &w);
  if (rc != 0) return print_failed_call("nuvrix_compute_wavefront_map", rc, " ");
  std::printf(" %12.6f %12.6f", w.rms, w.peak_to_valley);
  FftPsfResult p = {};
  rc = nuvrix_compute_fft_psf(lens.surfaces.data(), lens.count(), c.primary(), c.primary(),
                              c.q.wavelength_um, &lens.config, lens.fields.data(), c.field_count(),
                              f, kPupilGrid, c.q.reference_radius, c.q.f_number, b.map.data(),
                              b.mask.data(), b.real.data(), b.imag.data(), b.psf.data(), &p);
  if (rc != 0) return print_failed_call("nuvrix_compute_fft_psf", rc, "   ");
  std::printf(" %10.6f %12.4f\n", p.strehl, p.pixel_pitch * 1000.0);
}

// Frequencies of the MTF table: round numbers and fractions of the cutoff
// (to the nearest point the engine is asked for), below the cutoff.
std::vector<double> table_frequencies(double cutoff) {
  std::vector<double> f;
  for (double v : kRoundFrequencies)
    if (v < cutoff) f.push_back(v);
  for (double p : kCutoffFractions)
    f.push_back(std::round(p * cutoff / kFrequencyStep) * kFrequencyStep);
  std::sort(f.begin(), f.end());
  f.erase(std::unique(f.begin(), f.end()), f.end());
  return f;
}

// Points a curve from 0 to the cutoff needs, at most kMostMtfPoints.
int curve_capacity(double cutoff) {
  return static_cast<int>(std::min(cutoff / kFrequencyStep + 2.0, double(kMostMtfPoints)));
}

// Points of one MTF curve at 0, 1, 2 ... cycles/mm; empty on a failed call
// (the status is printed).
std::vector<FftMtfPoint> mono_mtf(const MapCall& c, int f, MapBuffers& b) {
  const Lens& lens = c.lens;
  const int capacity = curve_capacity(c.q.cutoff);
  std::vector<FftMtfPoint> pts(capacity);
  FftMtfResult r = {};
  const int32_t rc = nuvrix_compute_fft_mtf(
      lens.surfaces.data(), lens.count(), c.primary(), c.primary(), c.q.wavelength_um, &lens.config,
      lens.fields.data(), c.field_count(), f, kPupilGrid, c.q.reference_radius, c.q.cutoff,
      c.q.cutoff, kFrequencyStep, b.map.data(), b.mask.data(), b.real.data(), b.imag.data(),
      pts.data(), capacity, &r);
  if (rc != 0) {
    print_failed_call("nuvrix_compute_fft_mtf", rc, "    ");
    return {};
  }
  pts.resize(std::min(std::max<int>(r.point_count, 0), capacity));
  return pts;
}

// The same over every wavelength of the lens with equal weights, the
// frequency scale that of the shortest wavelength.
std::vector<FftMtfPoint> poly_mtf(const MapCall& c, int f) {
  const Lens& lens = c.lens;
  const int32_t nw = static_cast<int32_t>(lens.wavelengths_um.size());
  const size_t map_area = static_cast<size_t>(kPupilGrid) * kPupilGrid;
  std::vector<double> maps(nw * map_area), real(4 * map_area), imag(4 * map_area),
      acc_real(4 * map_area), acc_imag(4 * map_area), weights(nw, 1.0);
  std::vector<int32_t> masks(nw * map_area);
  const int capacity = curve_capacity(c.q.cutoff_shortest);
  std::vector<FftMtfPoint> pts(capacity);
  FftMtfResult r = {};
  const int32_t rc = nuvrix_compute_fft_mtf_polychromatic(
      lens.surfaces.data(), lens.count(), lens.indices.data(), c.primary(),
      lens.wavelengths_um.data(), nw, weights.data(), &lens.config, lens.fields.data(),
      c.field_count(), f, kPupilGrid, c.q.reference_radius, c.q.cutoff_shortest,
      c.q.cutoff_shortest, c.q.f_number, kFrequencyStep, maps.data(), masks.data(), real.data(),
      imag.data(), acc_real.data(), acc_imag.data(), pts.data(), capacity, &r);
  if (rc != 0) {
    print_failed_call("nuvrix_compute_fft_mtf_polychromatic", rc, "    ");
    return {};
  }
  pts.resize(std::min(std::max<int>(r.point_count, 0), capacity));
  return pts;
}

// Geometric MTF of the ray hits at the primary wavelength, times the
// diffraction-limited curve of the cutoff, at 0, 1, 2 ... cycles/mm (the
// engine stops at 100); empty on a failed call (the status is printed).
std::vector<FftMtfPoint> geometric_mtf(const MapCall& c, int f) {
  const Lens& lens = c.lens;
  const size_t area = static_cast<size_t>(kBinGrid) * kBinGrid;
  std::vector<double> real(area), imag(area);
  std::vector<GeometricMtfPoint> pts(kGeometricPoints);
  GeometricMtfResult r = {};
  const int32_t rc = nuvrix_compute_geometric_mtf(
      lens.surfaces.data(), lens.count(), c.primary(), &lens.config, lens.fields.data(),
      c.field_count(), f, lens.config.primary_wavelength, kGeometricSamples, 1, c.q.cutoff,
      c.q.cutoff, real.data(), imag.data(), kBinGrid, pts.data(), kGeometricPoints, &r);
  if (rc != 0) {
    print_failed_call("nuvrix_compute_geometric_mtf", rc, "    ");
    return {};
  }
  const int n = std::min(std::max<int>(r.point_count, 0), kGeometricPoints);
  std::vector<FftMtfPoint> out(n);
  for (int k = 0; k < n; ++k) out[k] = {pts[k].frequency, pts[k].tangential, pts[k].sagittal};
  return out;
}

// "  0.8123  0.8011" for the point at frequency v, dashes where the curve
// has no such point.
void print_pair(const std::vector<FftMtfPoint>& pts, double v) {
  const size_t k = static_cast<size_t>(std::lround(v / kFrequencyStep));
  if (k < pts.size())
    std::printf(" %9.4f %9.4f", pts[k].tangential, pts[k].sagittal);
  else
    std::printf(" %9s %9s", "-", "-");
}

void print_mtf_field(const MapCall& c, int f, MapBuffers& b, bool poly) {
  std::printf("\n  Field %s\n", field_label(c.lens, f).c_str());
  const std::vector<FftMtfPoint> mono = mono_mtf(c, f, b);
  const std::vector<FftMtfPoint> all = poly ? poly_mtf(c, f) : std::vector<FftMtfPoint>();
  const std::vector<FftMtfPoint> geo = geometric_mtf(c, f);
  if (mono.empty() && all.empty() && geo.empty()) return;
  std::printf("    %12s %9s %9s %9s", "freq (c/mm)", "% cutoff", "T mono", "S mono");
  if (poly) std::printf(" %9s %9s", "T poly", "S poly");
  std::printf(" %9s %9s\n", "T geo", "S geo");
  for (double v : table_frequencies(c.q.cutoff)) {
    std::printf("    %12.1f %9.1f", v, 100.0 * v / c.q.cutoff);
    print_pair(mono, v);
    if (poly) print_pair(all, v);
    print_pair(geo, v);
    std::printf("\n");
  }
}

const char* const kZernikeNames[kZernikeTerms] = {
    "piston", "tilt x", "tilt y",    "defocus",   "astigmatism 45", "astigmatism 0",
    "coma y", "coma x", "trefoil y", "trefoil x", "spherical",
};

// The fit of one field; returns the export's status.
int32_t zernike_fit(const MapCall& c, int f, MapBuffers& b, ZernikeResult& z) {
  const Lens& lens = c.lens;
  return nuvrix_compute_zernike_standard(
      lens.surfaces.data(), lens.count(), c.primary(), c.primary(), c.q.wavelength_um, &lens.config,
      lens.fields.data(), c.field_count(), f, kPupilGrid, c.q.reference_radius, kZernikeTerms,
      b.map.data(), b.mask.data(), &z);
}

void print_cell(bool ok, double v) {
  if (ok)
    std::printf(" %13.6f", v);
  else
    std::printf(" %13s", "-");
}

void print_zernike_rows(const Lens& lens, const std::vector<ZernikeResult>& z,
                        const std::vector<int32_t>& status) {
  const size_t nf = lens.fields.size();
  std::printf("  %4s %-16s", "term", "name");
  for (size_t f = 0; f < nf; ++f) std::printf("      field %-2zu", f + 1);
  std::printf("\n");
  for (int t = 0; t < kZernikeTerms; ++t) {
    std::printf("  %4d %-16s", t + 1, kZernikeNames[t]);
    for (size_t f = 0; f < nf; ++f) print_cell(status[f] == 0, z[f].coefficients[t]);
    std::printf("\n");
  }
  std::printf("  %4s %-16s", "", "residual rms");
  for (size_t f = 0; f < nf; ++f) print_cell(status[f] == 0, z[f].residual_rms);
  std::printf("\n");
}

}  // namespace

void print_wavefront_quality(const Lens& lens) {
  char title[96];
  std::snprintf(title, sizeof title, "Wavefront error and Strehl ratio at %.4f nm",
                lens.primary_nm());
  print_heading(title);
  const QualitySetup q = quality_setup(lens);
  print_quality_setup(q);
  if (!q.usable) return;
  std::printf(
      "  wavefront of a %d x %d pupil grid against the reference sphere about the chief ray's\n"
      "  image point: rms about the mean and peak-to-valley in waves, tilt included; Strehl\n"
      "  ratio and PSF sample pitch from the FFT PSF (piston and tilt removed)\n\n",
      kPupilGrid, kPupilGrid);
  std::printf("  %-28s %12s %12s %10s %12s\n", "field", "rms (waves)", "P-V (waves)", "Strehl",
              "pitch (um)");
  MapBuffers b(kPupilGrid);
  const MapCall c{lens, q};
  for (size_t f = 0; f < lens.fields.size(); ++f) print_wavefront_row(c, static_cast<int>(f), b);
}

void print_diffraction_mtf(const Lens& lens) {
  print_heading("MTF: diffraction (FFT of the pupil function) and geometric");
  const QualitySetup q = quality_setup(lens);
  if (!q.usable) return print_quality_setup(q);
  const bool poly = lens.wavelengths_um.size() > 1;
  std::printf(
      "  modulation 0 .. 1 at spatial frequencies in cycles/mm on the image; T tangential\n"
      "  (pupil y), S sagittal (pupil x); mono at %.4f nm, cutoff %.2f cycles/mm\n",
      lens.primary_nm(), q.cutoff);
  if (poly)
    std::printf(
        "  poly: all %zu wavelengths with equal weights, cutoff %.2f cycles/mm (shortest)\n",
        lens.wavelengths_um.size(), q.cutoff_shortest);
  std::printf(
      "  geo: geometric MTF of the ray hits of a %d x %d pupil grid at %.4f nm, times the\n"
      "  diffraction-limited curve of the mono cutoff; the engine gives it up to 100 cycles/mm\n",
      kGeometricSamples, kGeometricSamples, lens.primary_nm());
  MapBuffers b(kPupilGrid);
  const MapCall c{lens, q};
  for (size_t f = 0; f < lens.fields.size(); ++f) print_mtf_field(c, static_cast<int>(f), b, poly);
}

void print_zernike(const Lens& lens) {
  char title[96];
  std::snprintf(title, sizeof title, "Zernike terms of the wavefront at %.4f nm",
                lens.primary_nm());
  print_heading(title);
  const QualitySetup q = quality_setup(lens);
  if (!q.usable) return print_quality_setup(q);
  std::printf(
      "  coefficients in waves, Noll's order, each term of unit rms over the pupil; fitted to\n"
      "  the %d x %d wavefront map (reference sphere as above); residual rms of the fit\n\n",
      kPupilGrid, kPupilGrid);
  MapBuffers b(kPupilGrid);
  const MapCall c{lens, q};
  const size_t nf = lens.fields.size();
  std::vector<ZernikeResult> z(nf);
  std::vector<int32_t> status(nf);
  for (size_t f = 0; f < nf; ++f) status[f] = zernike_fit(c, static_cast<int>(f), b, z[f]);
  print_zernike_rows(lens, z, status);
  for (size_t f = 0; f < nf; ++f) {
    if (status[f] == 0) continue;
    std::printf("  field %zu: ", f + 1);
    print_failed_call("nuvrix_compute_zernike_standard", status[f], "");
  }
}

}  // namespace lensfile
