// Diffraction PSF: the squared modulus of the Fourier transform of the
// pupil function exp(i 2 pi W), the pupil padded to twice its side.
#include "analysis/fft_psf.hpp"

#include "analysis/fft.hpp"
#include "analysis/wavefront_map.hpp"

namespace nuvrix {
namespace {

// psf[k] = |F[k]|^2 over `count` elements; returns the largest value.  The
// running maximum is raised under a critical section at every element.
double squared_modulus_with_peak(double const* real, double const* imag, double* psf, long count) {
  double peak = 0.0;
#pragma omp parallel
  {
    detail::StaticRange const share = detail::team_range(count);
    for (long k = share.begin; k < share.end; ++k) {
      double const v = real[k] * real[k] + imag[k] * imag[k];
      psf[k] = v;
#pragma omp critical(nuvrix_fft_psf_peak)
      {
        if (v > peak) peak = v;
      }
    }
  }
  return peak;
}

// data[k] *= factor over `count` elements.
void scale_array(double* data, long count, double factor) {
#pragma omp parallel
  {
    detail::StaticRange const share = detail::team_range(count);
    for (long k = share.begin; k < share.end; ++k) data[k] *= factor;
  }
}

}  // namespace

int compute_fft_psf(double const* map, int const* mask, int grid_size, double wavelength,
                    double f_number, double* real, double* imag, double* psf,
                    FftPsfResult* result) {
  int const n = grid_size;
  int const side = 2 * n;
  long const area = static_cast<long>(side) * side;
  // Pupil function in the middle of the padded array, piston and tilt
  // removed so that the PSF stays centred.
  PistonTiltPlane const plane = set_padded_pupil(map, mask, n, real, imag);
  fft_2d(real, imag, side, false);
  double const peak = squared_modulus_with_peak(real, imag, psf, area);
  fft_shift_2d(psf, side);
  if (peak > 0.0) scale_array(psf, area, 1.0 / peak);
  // An unaberrated pupil of c samples transforms to c at zero frequency.
  double const c2 = static_cast<double>(plane.count) * plane.count;
  result->grid_size = side;
  result->peak = peak;
  result->strehl = c2 > 0.0 ? peak / c2 : 0.0;
  result->pixel_pitch = 0.001 * wavelength * f_number * n / side;
  result->field_index = 0;
  result->reserved = 0;
  return 0;
}

int compute_fft_psf_full(SurfaceData const* surfaces, int surface_count, double const* indices,
                         double const* primary_indices, double wavelength,
                         SystemConfig const* config, FieldData const* fields, int field_count,
                         int field_index, int grid_size, double reference_radius, double f_number,
                         double* map, int* mask, double* real, double* imag, double* psf,
                         FftPsfResult* result) {
  WavefrontResult wavefront;
  int const status = compute_wavefront_map(surfaces, surface_count, indices, primary_indices,
                                           wavelength, config, fields, field_count, field_index,
                                           grid_size, reference_radius, map, mask, &wavefront);
  if (status != 0) return status;
  compute_fft_psf(map, mask, grid_size, wavelength, f_number, real, imag, psf, result);
  result->field_index = field_index;
  result->reserved = 0;
  return 0;
}

}  // namespace nuvrix
