// Binned geometric MTF.  The hits of a rectangular pupil grid, measured
// from the chief ray, are counted into an image array whose pitch follows
// the spot's extent; the modulus of the array's transform, normalised at
// zero frequency, is the MTF of the geometric spot.
#include "analysis/geometric_mtf.hpp"

#include <math.h>

#include "analysis/fft.hpp"
#include "analysis/launch_set.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {
namespace {

constexpr double kExtentStart = 1e30;         // min starts here, max at its negative
constexpr int kFewestRays = 3;                // at most this many hits: nothing usable
constexpr double kPointSpot = 1e-6;           // mm: a smaller spot takes the fixed pitch
constexpr double kPointPitch = 1.171875e-08;  // mm, the pitch of such a spot
constexpr double kSpreadMargin = 1.5;         // the spread spans 128 / 1.5 pixels ...
constexpr double kSpreadScale = 0.0078125;    // ... of 1/128 of it, whatever the grid size
constexpr double kSmallDc = 1e-10;            // below it the zero-frequency modulus is no divisor
constexpr double kCurveEnd = 100.0;           // cycles/mm: the curve stops here
constexpr int kCurvePoints = 101;             // frequencies 0 ... 100
constexpr double kScanCutoff = 500.0;         // cutoffs of the field scan, cycles/mm
constexpr int kScanPoints = 200;              // local curve of the field scan
constexpr double kFarFrequency = 1e30;        // start of the nearest-frequency search
constexpr double kTwoOverPi = 0.6366197723675814;

// What every ray of one grid pass shares.
struct GridPass {
  SurfaceData const* surfaces;
  int surface_count;
  double const* indices;  // row of the wavelength traced
  SystemConfig const* config;
  LaunchSet launch;
  double cx, cy;  // the chief ray on the image surface: the origin of the hits
  int samples;    // pupil samples across
};

// Extents of the hits about the chief ray and their number, running over
// all wavelengths of a call.
struct SpotExtents {
  double min_x, max_x, min_y, max_y;
  int count;
};

// Cell-centred pupil coordinate of sample k of `samples`: 2 (k + 0.5) / N - 1.
double grid_coordinate(int k, int samples) { return 2.0 * (k + 0.5) / samples - 1.0; }

// A ray of the launch set at (px, py): no wavelength (no model glass, no
// phase), to the image surface, no field along x.
RayTraceResult trace_grid_ray(GridPass const& pass, double px, double py) {
  LaunchSet const& s = pass.launch;
  return trace_arbitrary_ray(pass.surfaces, pass.surface_count, pass.indices, pass.config,
                             s.field_value, s.pupil_radius, px, py, 0.0,
                             s.entrance_pupil_position, s.aim_flag, s.stop_radius, 0, 0.0);
}

// Checks the field, the grid and the wavelengths, computes the launch set
// from `primary_row` and traces the chief ray with it.  Returns 0, -1, -3 or -2.
int prepare_pass(SurfaceData const* surfaces, int surface_count, double const* primary_row,
                 SystemConfig const* config, FieldData const* fields, int field_count,
                 int field_index, int samples, int grid_size, int wavelength_count,
                 GridPass& pass) {
  if (field_index < 0 || field_index >= field_count) return -1;
  // A grid of no bins has nowhere to put a hit: a bad argument.
  if (grid_size < 1) return -1;
  // Without an index row no ray can be traced, let alone survive.
  if (wavelength_count < 1) return -3;
  pass.surfaces = surfaces;
  pass.surface_count = surface_count;
  pass.indices = primary_row;
  pass.config = config;
  pass.launch =
      compute_launch_set(surfaces, surface_count, primary_row, *config, fields, field_index);
  pass.samples = samples;
  RayTraceResult const chief = trace_grid_ray(pass, 0.0, 0.0);
  if (!chief.valid) return -2;
  pass.cx = chief.x;
  pass.cy = chief.y;
  return 0;
}

SpotExtents fresh_extents() {
  return SpotExtents{kExtentStart, -kExtentStart, kExtentStart, -kExtentStart, 0};
}

void widen_extents(double dx, double dy, SpotExtents& shared) {
#pragma omp critical(nuvrix_geometric_mtf_extents)
  {
    if (dx < shared.min_x) shared.min_x = dx;
    if (dx > shared.max_x) shared.max_x = dx;
    if (dy < shared.min_y) shared.min_y = dy;
    if (dy > shared.max_y) shared.max_y = dy;
  }
}

// Pupil row i of the first pass: widens the shared extents at each hit and
// returns the number of hits.
int extent_row(GridPass const& pass, int i, SpotExtents& shared) {
  double const py = grid_coordinate(i, pass.samples);
  int hits = 0;
  for (int j = 0; j < pass.samples; ++j) {
    double const px = grid_coordinate(j, pass.samples);
    if (px * px + py * py > 1.0) continue;
    RayTraceResult const ray = trace_grid_ray(pass, px, py);
    if (!ray.valid) continue;
    widen_extents(ray.x - pass.cx, ray.y - pass.cy, shared);
    ++hits;
  }
  return hits;
}

// First pass over one wavelength: dynamic over pupil rows, chunk 1, a ray
// count per thread added once at the end.
void extent_pass(GridPass const& pass, SpotExtents& shared) {
#pragma omp parallel
  {
    int local = 0;
#pragma omp for schedule(dynamic, 1)
    for (int i = 0; i < pass.samples; ++i) local += extent_row(pass, i, shared);
#pragma omp atomic
    shared.count += local;
  }
}

// Pixel size of the image array.  The larger extent of the spot spans
// 128 / 1.5 pixels; a spot below 1e-6 mm takes the fixed pitch.
double bin_pitch(SpotExtents const& e) {
  double const sx = e.max_x - e.min_x, sy = e.max_y - e.min_y;
  double const spread = sx < sy ? sy : sx;
  if (spread < kPointSpot) return kPointPitch;
  return spread * kSpreadMargin * kSpreadScale;
}

// Column (or row) of an offset d from the chief ray: round(d / pitch) +
// N / 2, clamped to the array so that an outlier piles up on its edge.
// Taken in floating point, so that no value overflows the conversion.
int bin_index(double d, double pitch, int grid_size) {
  double const k = round(d / pitch) + grid_size / 2;
  if (!(k > 0.0)) return 0;
  if (k > grid_size - 1) return grid_size - 1;
  return static_cast<int>(k);
}

// target += value by compare-and-swap on the bit pattern of the double,
// retried until no other thread wrote the bin in between.
void atomic_add(double* target, double value) {
  double expected;
  __atomic_load(target, &expected, __ATOMIC_RELAXED);
  double desired = expected + value;
  while (!__atomic_compare_exchange(target, &expected, &desired, false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED)) {
    desired = expected + value;
  }
}

// Pupil row i of the second pass: each hit adds 1 to its bin.
void bin_row(GridPass const& pass, int i, double pitch, double* real, int grid_size) {
  double const py = grid_coordinate(i, pass.samples);
  for (int j = 0; j < pass.samples; ++j) {
    double const px = grid_coordinate(j, pass.samples);
    if (px * px + py * py > 1.0) continue;
    RayTraceResult const ray = trace_grid_ray(pass, px, py);
    if (!ray.valid) continue;
    int const col = bin_index(ray.x - pass.cx, pitch, grid_size);
    int const row = bin_index(ray.y - pass.cy, pitch, grid_size);
    atomic_add(&real[static_cast<long>(row) * grid_size + col], 1.0);
  }
}

// Second pass over one wavelength: dynamic over pupil rows, chunk 1.
void bin_pass(GridPass const& pass, double pitch, double* real, int grid_size) {
#pragma omp parallel for schedule(dynamic, 1)
  for (int i = 0; i < pass.samples; ++i) bin_row(pass, i, pitch, real, grid_size);
}

// The centred transform of the binned spot and what is read from it.
struct SpotOtf {
  double const* real;
  double const* imag;
  int side;
  int centre;  // N / 2: zero frequency at (centre, centre)
  double dc;   // modulus there, or 1 when below 1e-10
  double df;   // cycles/mm per pixel, 1 / (N pitch)
};

double modulus_at(SpotOtf const& otf, int row, int col) {
  long const k = static_cast<long>(row) * otf.side + col;
  return sqrt(otf.real[k] * otf.real[k] + otf.imag[k] * otf.imag[k]);
}

// Number of points: the integers 0, 1, ... up to the larger cutoff, at most
// 101 (the curve stops at 100 cycles/mm) and at most `capacity`; never
// negative.  In floating point, so that a huge cutoff doesn't overflow.
int curve_count(double max_frequency, int capacity) {
  // A cutoff that is not a number stops the curve at 100 like any high one.
  double const wanted = !(max_frequency <= kCurveEnd) ? kCurvePoints : trunc(max_frequency + 1.0);
  double const count = wanted < capacity ? wanted : capacity;
  return count > 0.0 ? static_cast<int>(count) : 0;
}

// Factor of the diffraction-limited curve of cutoff c at frequency f.
double diffraction_factor(double f, double c) {
  if (c <= 0.0 || f >= c) return 0.0;
  if (f == 0.0) return 1.0;
  return detail::diffraction_limited_curve(f / c);
}

double clamp_unit(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }

// Point of frequency f: the nearest pixel round(f / df) from zero frequency
// along the rows (tangential) and the columns (sagittal), no interpolation;
// 0 beyond a direction's cutoff or off the half array.
GeometricMtfPoint curve_point(SpotOtf const& otf, double f, double tangential_cutoff,
                              double sagittal_cutoff, int apply_diffraction) {
  GeometricMtfPoint p = {f, 0.0, 0.0};
  double const i = round(f / otf.df);
  if (i < otf.centre) {
    int const k = static_cast<int>(i);
    int const h = otf.centre;
    if (f <= tangential_cutoff) p.tangential = modulus_at(otf, h + k, h) / otf.dc;
    if (f <= sagittal_cutoff) p.sagittal = modulus_at(otf, h, h + k) / otf.dc;
  }
  if (apply_diffraction != 0) {
    p.tangential = p.tangential * diffraction_factor(f, tangential_cutoff);
    p.sagittal = p.sagittal * diffraction_factor(f, sagittal_cutoff);
  }
  p.tangential = clamp_unit(p.tangential);
  p.sagittal = clamp_unit(p.sagittal);
  return p;
}

// Index of the curve point nearest to `frequency`, strictly nearer than
// any before it (the first on ties), searching from a distance of 1e30.
int nearest_point(GeometricMtfPoint const* curve, int count, double frequency) {
  int best = 0;
  double best_distance = kFarFrequency;
  for (int k = 0; k < count; ++k) {
    double const d = fabs(curve[k].frequency - frequency);
    if (d < best_distance) {
      best = k;
      best_distance = d;
    }
  }
  return best;
}

// Writes the records of field f of the scan: the nearest curve points, or
// 0 for a failed field.
void store_field(GeometricMtfPoint const* curve, int point_count, int status, double field,
                 double const* frequencies, int frequency_count, int f, int field_count,
                 MtfVsFieldPoint* points) {
  for (int q = 0; q < frequency_count; ++q) {
    MtfVsFieldPoint& p = points[static_cast<long>(q) * field_count + f];
    p.field = field;
    p.tangential = 0.0;
    p.sagittal = 0.0;
    if (status != 0) continue;
    GeometricMtfPoint const& c = curve[nearest_point(curve, point_count, frequencies[q])];
    p.tangential = c.tangential;
    p.sagittal = c.sagittal;
  }
}

}  // namespace

namespace detail {

double diffraction_limited_curve(double x) {
  return (acos(x) - x * sqrt(1.0 - x * x)) * kTwoOverPi;
}

}  // namespace detail

void build_mtf_from_psf(double* real, double* imag, int grid_size, int apply_diffraction,
                        double pitch, GeometricMtfPoint* points, int capacity,
                        double tangential_cutoff, double sagittal_cutoff,
                        GeometricMtfResult* result) {
  int const n = grid_size, h = n / 2;
  zero_array(imag, static_cast<long>(n) * n);
  // Origin to element 0, transform, zero frequency back to (h, h).
  fft_shift_2d(real, n);
  fft_2d(real, imag, n, false);
  fft_shift_2d(real, n);
  fft_shift_2d(imag, n);
  SpotOtf otf = {real, imag, n, h, 1.0, 1.0 / (n * pitch)};
  otf.dc = modulus_at(otf, h, h);
  if (otf.dc < kSmallDc) otf.dc = 1.0;
  double const max_frequency =
      tangential_cutoff < sagittal_cutoff ? sagittal_cutoff : tangential_cutoff;
  int const count = curve_count(max_frequency, capacity);
  for (int f = 0; f < count; ++f) {
    points[f] = curve_point(otf, f, tangential_cutoff, sagittal_cutoff, apply_diffraction);
  }
  result->point_count = count;
  result->max_frequency = max_frequency;
}

int compute_geometric_mtf(SurfaceData const* surfaces, int surface_count, double const* indices,
                          SystemConfig const* config, FieldData const* fields, int field_count,
                          int field_index, int wavelength_index, int samples,
                          int apply_diffraction, double tangential_cutoff,
                          double sagittal_cutoff, double* real, double* imag, int grid_size,
                          GeometricMtfPoint* points, int capacity, GeometricMtfResult* result) {
  GridPass pass;
  int const status = prepare_pass(surfaces, surface_count, indices, config, fields, field_count,
                                  field_index, samples, grid_size, 1, pass);
  if (status != 0) return status;
  SpotExtents extents = fresh_extents();
  extent_pass(pass, extents);
  if (extents.count <= kFewestRays) return -3;
  double const pitch = bin_pitch(extents);
  zero_array(real, static_cast<long>(grid_size) * grid_size);
  bin_pass(pass, pitch, real, grid_size);
  build_mtf_from_psf(real, imag, grid_size, apply_diffraction, pitch, points, capacity,
                     tangential_cutoff, sagittal_cutoff, result);
  result->field_index = field_index;
  result->wavelength_index = wavelength_index;
  return 0;
}

int compute_geometric_mtf_polychromatic(SurfaceData const* surfaces, int surface_count,
                                        double const* indices, double const* /*wavelengths*/,
                                        double const* /*weights*/, int wavelength_count,
                                        SystemConfig const* config, FieldData const* fields,
                                        int field_count, int field_index, int samples,
                                        int apply_diffraction, double tangential_cutoff,
                                        double sagittal_cutoff, double* real, double* imag,
                                        int grid_size, GeometricMtfPoint* points, int capacity,
                                        GeometricMtfResult* result) {
  double const* primary = primary_index_row(indices, surface_count, wavelength_count, *config);
  GridPass pass;
  int const status = prepare_pass(surfaces, surface_count, primary, config, fields, field_count,
                                  field_index, samples, grid_size, wavelength_count, pass);
  if (status != 0) return status;
  // All wavelengths for the extents, then all for the bins; every ray
  // counts the same.
  SpotExtents extents = fresh_extents();
  for (int w = 0; w < wavelength_count; ++w) {
    pass.indices = indices + static_cast<long>(w) * surface_count;
    extent_pass(pass, extents);
  }
  if (extents.count <= kFewestRays) return -3;
  double const pitch = bin_pitch(extents);
  zero_array(real, static_cast<long>(grid_size) * grid_size);
  for (int w = 0; w < wavelength_count; ++w) {
    pass.indices = indices + static_cast<long>(w) * surface_count;
    bin_pass(pass, pitch, real, grid_size);
  }
  build_mtf_from_psf(real, imag, grid_size, apply_diffraction, pitch, points, capacity,
                     tangential_cutoff, sagittal_cutoff, result);
  result->field_index = field_index;
  result->wavelength_index = -1;
  return 0;
}

int compute_geometric_mtf_vs_field(SurfaceData const* surfaces, int surface_count,
                                   double const* indices, SystemConfig const* config,
                                   FieldData const* /*fields*/, int /*unused_count*/,
                                   int wavelength_index, int samples, int apply_diffraction,
                                   double const* frequencies, int frequency_count,
                                   double const* field_fractions, int field_count,
                                   double field_scale, double* real, double* imag, int grid_size,
                                   MtfVsFieldPoint* points, MtfVsFieldResult* result) {
  for (int f = 0; f < field_count; ++f) {
    SystemConfig field_config = *config;
    field_config.config_reserved = 1;
    FieldData const field = {field_fractions[f] * field_scale, 1.0, 0.0};
    zero_array(real, static_cast<long>(grid_size) * grid_size);
    GeometricMtfPoint curve[kScanPoints];
    GeometricMtfResult curve_result = {0, wavelength_index, 0, 0.0};
    int const status = compute_geometric_mtf(
        surfaces, surface_count, indices, &field_config, &field, 1, 0, wavelength_index, samples,
        apply_diffraction, kScanCutoff, kScanCutoff, real, imag, grid_size, curve, kScanPoints,
        &curve_result);
    store_field(curve, curve_result.point_count, status, field_fractions[f], frequencies,
                frequency_count, f, field_count, points);
  }
  result->field_count = field_count;
  result->frequency_count = frequency_count;
  return 0;
}

}  // namespace nuvrix
