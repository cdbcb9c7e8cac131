// Diffraction MTF, one wavelength and a weighted sum of wavelengths.  The
// OTF is the autocorrelation of the pupil function; it is computed as the
// transform of the PSF, both transforms on the padded array of side 2 N, so
// that the autocorrelation's support (N pixels from the centre) fits and
// OTF pixel N stands for the cutoff frequency.
#include "analysis/fft_mtf.hpp"

#include <math.h>

#include "analysis/fft.hpp"
#include "analysis/wavefront_map.hpp"

namespace nuvrix {
namespace detail {
namespace {

constexpr double kSmallModulus = 1e-15;  // below it the zero-frequency OTF is no divisor

// Modulus of the OTF at `offset` pixels from zero frequency, along the
// rows (tangential) or the columns (sagittal), over dc; 0 off the array.
double otf_modulus(OtfGrid const& otf, int offset, bool tangential) {
  if (offset >= otf.side) return 0.0;
  long const k = tangential ? static_cast<long>(offset) * otf.side + otf.centre
                            : static_cast<long>(otf.centre) * otf.side + offset;
  return sqrt(otf.real[k] * otf.real[k] + otf.imag[k] * otf.imag[k]) / otf.dc;
}

// MTF at frequency f in one direction: linear between the two OTF pixels
// around f / (cutoff / divisions), at most 1; 0 beyond the cutoff.
double mtf_along(OtfGrid const& otf, double f, double cutoff, bool tangential) {
  double const pixel = cutoff / otf.divisions;
  if (!(f <= cutoff && pixel > 0.0)) return 0.0;
  double const pos = f / pixel;
  int const i = static_cast<int>(pos);
  double const t = pos - i;
  int const r = otf.centre + i;
  double const a = otf_modulus(otf, r, tangential);
  double const b = otf_modulus(otf, r + 1, tangential);
  double const value = (1.0 - t) * a + t * b;
  return value > 1.0 ? 1.0 : value;
}

// min(capacity, trunc(max_frequency / frequency_step) + 1), taken in
// floating point so that a huge or undefined quotient leaves the capacity.
int point_budget(double max_frequency, double frequency_step, int capacity) {
  double const span = trunc(max_frequency / frequency_step) + 1.0;
  if (!(span < capacity)) return capacity;
  return span > 0.0 ? static_cast<int>(span) : 0;
}

}  // namespace

void sample_mtf_curve(OtfGrid const& otf, double tangential_cutoff, double sagittal_cutoff,
                      double frequency_step, FftMtfPoint* points, int capacity,
                      FftMtfResult* result) {
  double const max_frequency =
      tangential_cutoff < sagittal_cutoff ? sagittal_cutoff : tangential_cutoff;
  int const count = point_budget(max_frequency, frequency_step, capacity);
  int written = 0;
  for (int k = 0; k < count; ++k) {
    double const f = k * frequency_step;
    if (f > max_frequency) break;
    points[k].frequency = f;
    points[k].tangential = mtf_along(otf, f, tangential_cutoff, true);
    points[k].sagittal = mtf_along(otf, f, sagittal_cutoff, false);
    ++written;
  }
  result->point_count = written;
  result->max_frequency = max_frequency;
}

void squared_modulus_in_place(double* real, double const* imag, long count) {
#pragma omp parallel
  {
    StaticRange const share = team_range(count);
    for (long k = share.begin; k < share.end; ++k) {
      real[k] = real[k] * real[k] + imag[k] * imag[k];
    }
  }
}

}  // namespace detail

int compute_fft_mtf_from_wavefront(double const* map, int const* mask, int grid_size,
                                   double tangential_cutoff, double sagittal_cutoff,
                                   double frequency_step, double* real, double* imag,
                                   FftMtfPoint* points, int capacity, FftMtfResult* result) {
  // A grid of no samples has no transform and no zero frequency to read.
  if (grid_size < 1) return -1;
  int const n = grid_size;
  int const side = 2 * n;
  long const area = static_cast<long>(side) * side;
  set_padded_pupil(map, mask, n, real, imag);
  // PSF (unshifted), centred, then transformed back to the OTF.
  fft_2d(real, imag, side, false);
  detail::squared_modulus_in_place(real, imag, area);
  fft_shift_2d(real, side);
  zero_array(imag, area);
  fft_2d(real, imag, side, false);
  fft_shift_2d(real, side);
  fft_shift_2d(imag, side);
  // Zero frequency now at (N, N).
  long const centre = static_cast<long>(n) * side + n;
  double dc = sqrt(real[centre] * real[centre] + imag[centre] * imag[centre]);
  if (dc < detail::kSmallModulus) dc = 1.0;
  detail::OtfGrid const otf = {real, imag, side, n, static_cast<double>(n), dc};
  detail::sample_mtf_curve(otf, tangential_cutoff, sagittal_cutoff, frequency_step, points,
                           capacity, result);
  return 0;
}

int compute_fft_mtf(SurfaceData const* surfaces, int surface_count, double const* indices,
                    double const* primary_indices, double wavelength, SystemConfig const* config,
                    FieldData const* fields, int field_count, int field_index, int grid_size,
                    double reference_radius, double tangential_cutoff, double sagittal_cutoff,
                    double frequency_step, double* map, int* mask, double* real, double* imag,
                    FftMtfPoint* points, int capacity, FftMtfResult* result) {
  WavefrontResult wavefront;
  int const status = compute_wavefront_map(surfaces, surface_count, indices, primary_indices,
                                           wavelength, config, fields, field_count, field_index,
                                           grid_size, reference_radius, map, mask, &wavefront);
  if (status != 0) return status;
  int const mtf_status =
      compute_fft_mtf_from_wavefront(map, mask, grid_size, tangential_cutoff, sagittal_cutoff,
                                     frequency_step, real, imag, points, capacity, result);
  if (mtf_status != 0) return mtf_status;
  result->field_index = field_index;
  result->wavelength_index = -1;
  return 0;
}

namespace {

constexpr double kSmallWeight = 1e-15;  // a weight sum below it is no divisor

// Sum of the weights in list order.
double weight_total(double const* weights, int count) {
  double total = 0.0;
  for (int k = 0; k < count; ++k) total += weights[k];
  return total;
}

// Cell-centred pupil coordinate of sample k of n: 2 (k + 0.5) / n - 1.
double cell_centre(int k, int n) { return 2.0 * (k + 0.5) / n - 1.0; }

bool valid_at_every_wavelength(int const* masks, long map_area, int count, long sample) {
  for (int k = 0; k < count; ++k) {
    if (masks[k * map_area + sample] == 0) return false;
  }
  return true;
}

// The tilt common to all wavelengths: the plane of the weighted mean
// wavefront over the samples valid at every wavelength, in cell-centred
// coordinates.  Keeping one tilt leaves lateral colour in the sum as phase.
PistonTiltPlane shared_tilt(double const* maps, int const* masks, int n, double const* weights,
                            double total, int count) {
  detail::PlaneSums s = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0};
  long const map_area = static_cast<long>(n) * n;
  for (int i = 0; i < n; ++i) {
    double const y = cell_centre(i, n);
    for (int j = 0; j < n; ++j) {
      long const sample = static_cast<long>(i) * n + j;
      if (!valid_at_every_wavelength(masks, map_area, count, sample)) continue;
      double weight_sum = 0.0, weighted = 0.0;
      for (int k = 0; k < count; ++k) {
        double const w = weights[k] / total;
        weighted += w * maps[k * map_area + sample];
        weight_sum += w;
      }
      if (weight_sum < kSmallWeight) continue;
      detail::add_plane_sample(s, cell_centre(j, n), y, weighted / weight_sum);
    }
  }
  return detail::plane_from_sums(s);
}

// Piston of one wavelength: the mean of W - bx x - by y over its own valid
// samples, 0 if it has none.
double wavelength_piston(double const* map, int const* mask, int n, double bx, double by) {
  double sum = 0.0;
  int count = 0;
  for (int i = 0; i < n; ++i) {
    double const y = cell_centre(i, n);
    for (int j = 0; j < n; ++j) {
      if (mask[i * n + j] == 0) continue;
      sum += map[i * n + j] - bx * cell_centre(j, n) - by * y;
      ++count;
    }
  }
  return count > 0 ? sum / count : 0.0;
}

// exp(i 2 pi (W - bx x - by y - b0)) of every valid sample of map row i,
// at padded row i + N/2, column j + N/2, in cell-centred coordinates.
void fill_phase_row_cell_centred(double const* map, int const* mask, int n, int i,
                                 PistonTiltPlane const& plane, double* real, double* imag) {
  int const half = n / 2;
  double const y = cell_centre(i, n);
  long const row = static_cast<long>(i + half) * (2 * n);
  for (int j = 0; j < n; ++j) {
    if (mask[i * n + j] == 0) continue;
    double const phi =
        detail::kTwoPi * (map[i * n + j] - plane.bx * cell_centre(j, n) - plane.by * y - plane.b0);
    real[row + j + half] = cos(phi);
    imag[row + j + half] = sin(phi);
  }
}

void fill_pupil_phase_cell_centred(double const* map, int const* mask, int n,
                                   PistonTiltPlane const& plane, double* real, double* imag) {
#pragma omp parallel
  {
    detail::StaticRange const rows = detail::team_range(n);
    for (long i = rows.begin; i < rows.end; ++i) {
      fill_phase_row_cell_centred(map, mask, n, static_cast<int>(i), plane, real, imag);
    }
  }
}

// real[k] /= divisor and imag[k] /= divisor over `count` elements.
void divide_arrays(double* real, double* imag, long count, double divisor) {
#pragma omp parallel
  {
    detail::StaticRange const share = detail::team_range(count);
    for (long k = share.begin; k < share.end; ++k) {
      real[k] = real[k] / divisor;
      imag[k] = imag[k] / divisor;
    }
  }
}

// The complex OTF of one wavelength, zero frequency at element 0 (no
// shift), divided by its value there unless that is below 1e-15.
void wavelength_otf(double const* map, int const* mask, int n, PistonTiltPlane const& tilt,
                    double* real, double* imag) {
  int const side = 2 * n;
  long const area = static_cast<long>(side) * side;
  PistonTiltPlane plane = tilt;
  plane.b0 = wavelength_piston(map, mask, n, tilt.bx, tilt.by);
  zero_array(real, area);
  zero_array(imag, area);
  fill_pupil_phase_cell_centred(map, mask, n, plane, real, imag);
  fft_2d(real, imag, side, false);
  detail::squared_modulus_in_place(real, imag, area);
  zero_array(imag, area);
  fft_2d(real, imag, side, false);
  double const m0 = sqrt(real[0] * real[0] + imag[0] * imag[0]);
  if (m0 > detail::kSmallModulus) divide_arrays(real, imag, area, m0);
}

// Wraps an OTF coordinate into 0 .. side.
double wrap_coordinate(double a, int side) {
  if (a < 0.0) return a + side;
  if (a >= side) return a - side;
  return a;
}

// Bilinear sample of an unshifted complex array at the wrapped point (a, b)
// (row, column), neighbours taken modulo the side.
void sample_bilinear(double const* real, double const* imag, int side, double a, double b,
                     double& re, double& im) {
  int const r0 = static_cast<int>(floor(a)), c0 = static_cast<int>(floor(b));
  double const ta = a - r0, tb = b - c0;
  long const ra = static_cast<long>(r0 % side) * side,
             rb = static_cast<long>((r0 + 1) % side) * side;
  int const ca = c0 % side, cb = (c0 + 1) % side;
  re = (1.0 - ta) * ((1.0 - tb) * real[ra + ca] + tb * real[ra + cb]) +
       ta * ((1.0 - tb) * real[rb + ca] + tb * real[rb + cb]);
  im = (1.0 - ta) * ((1.0 - tb) * imag[ra + ca] + tb * imag[ra + cb]) +
       ta * ((1.0 - tb) * imag[rb + ca] + tb * imag[rb + cb]);
}

// Signed frequency index of pixel i of an unshifted array of side 2 n.
int signed_pixel(int i, int n) { return i <= n ? i : i - 2 * n; }

// Adds w times the OTF of one wavelength, read at `ratio` times each common
// pixel's frequency index, to the accumulators.  Common pixels beyond Ne of
// the wavelength's own grid receive nothing.  Each thread owns its rows.
void accumulate_rescaled(double const* real, double const* imag, int n, double ratio, double w,
                         double* accum_real, double* accum_imag) {
  int const side = 2 * n;
  int const ne = n - n % 2;
#pragma omp parallel
  {
    detail::StaticRange const rows = detail::team_range(side);
    for (long i = rows.begin; i < rows.end; ++i) {
      double const a = signed_pixel(static_cast<int>(i), n) * ratio;
      for (int j = 0; j < side; ++j) {
        double const b = signed_pixel(j, n) * ratio;
        if (!(fabs(a) <= ne && fabs(b) <= ne)) continue;
        double re = 0.0, im = 0.0;
        sample_bilinear(real, imag, side, wrap_coordinate(a, side), wrap_coordinate(b, side), re,
                        im);
        accum_real[i * side + j] += w * re;
        accum_imag[i * side + j] += w * im;
      }
    }
  }
}

// The shortest wavelength, in mm.
double shortest_wavelength_mm(double const* wavelengths, int count) {
  double lambda_min = 0.001 * wavelengths[0];
  for (int k = 1; k < count; ++k) {
    double const lambda = 0.001 * wavelengths[k];
    if (lambda < lambda_min) lambda_min = lambda;
  }
  return lambda_min;
}

}  // namespace

int compute_fft_mtf_polychromatic_from_wavefronts(
    double const* maps, int const* masks, int grid_size, double const* wavelengths,
    int wavelength_count, double const* weights, double tangential_cutoff, double sagittal_cutoff,
    double f_number, double frequency_step, double* real, double* imag, double* accum_real,
    double* accum_imag, FftMtfPoint* points, int capacity, FftMtfResult* result) {
  if (wavelength_count < 1 || grid_size < 1) return -1;
  double const total = weight_total(weights, wavelength_count);
  if (total < kSmallWeight) return -1;
  int const n = grid_size;
  int const side = 2 * n;
  int const ne = n - n % 2;
  long const area = static_cast<long>(side) * side;
  long const map_area = static_cast<long>(n) * n;
  PistonTiltPlane const tilt = shared_tilt(maps, masks, n, weights, total, wavelength_count);
  double const lambda_min = shortest_wavelength_mm(wavelengths, wavelength_count);
  zero_array(accum_real, area);
  zero_array(accum_imag, area);
  for (int k = 0; k < wavelength_count; ++k) {
    wavelength_otf(maps + k * map_area, masks + k * map_area, n, tilt, real, imag);
    // A common pixel is one frequency scaled to lambda_min; this wavelength
    // reaches it at lambda_k / lambda_min times the pixel index.
    double const lambda_k = 0.001 * wavelengths[k];
    double const ratio = (f_number / ne) / ((lambda_min * f_number / lambda_k) / ne);
    accumulate_rescaled(real, imag, n, ratio, weights[k] / total, accum_real, accum_imag);
  }
  fft_shift_2d(accum_real, side);
  fft_shift_2d(accum_imag, side);
  detail::OtfGrid const otf = {accum_real, accum_imag, side, n, static_cast<double>(ne), 1.0};
  detail::sample_mtf_curve(otf, tangential_cutoff, sagittal_cutoff, frequency_step, points,
                           capacity, result);
  result->wavelength_index = -1;
  return 0;
}

int compute_fft_mtf_polychromatic(SurfaceData const* surfaces, int surface_count,
                                  double const* indices, double const* primary_indices,
                                  double const* wavelengths, int wavelength_count,
                                  double const* weights, SystemConfig const* config,
                                  FieldData const* fields, int field_count, int field_index,
                                  int grid_size, double reference_radius, double tangential_cutoff,
                                  double sagittal_cutoff, double f_number, double frequency_step,
                                  double* maps, int* masks, double* real, double* imag,
                                  double* accum_real, double* accum_imag, FftMtfPoint* points,
                                  int capacity, FftMtfResult* result) {
  if (wavelength_count < 1 || weight_total(weights, wavelength_count) < kSmallWeight) return -1;
  long const map_area = static_cast<long>(grid_size) * grid_size;
  for (int k = 0; k < wavelength_count; ++k) {
    WavefrontResult wavefront;
    int const status = compute_wavefront_map(
        surfaces, surface_count, indices + static_cast<long>(k) * surface_count, primary_indices,
        wavelengths[k], config, fields, field_count, field_index, grid_size, reference_radius,
        maps + k * map_area, masks + k * map_area, &wavefront);
    if (status != 0) return status;
  }
  int const status = compute_fft_mtf_polychromatic_from_wavefronts(
      maps, masks, grid_size, wavelengths, wavelength_count, weights, tangential_cutoff,
      sagittal_cutoff, f_number, frequency_step, real, imag, accum_real, accum_imag, points,
      capacity, result);
  if (status == 0) result->field_index = field_index;
  return status;
}

}  // namespace nuvrix
