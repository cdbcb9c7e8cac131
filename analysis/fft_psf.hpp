// Diffraction point spread function of one field point at one wavelength,
// from a wavefront map, by the FFT of the padded pupil function.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

// PSF of a wavefront map (grid_size^2 values in waves and validity marks)
// at `wavelength` (micrometres) for a beam of working F-number `f_number`.
// The pupil of N = grid_size samples, piston and tilt removed, sits in the
// middle of a zero-padded array of side P = 2 N; real and imag (scratch)
// and psf (output) hold P^2 doubles each.  psf is the squared modulus of
// the transform, quadrant-shifted so that the unaberrated peak stands at
// (P/2, P/2) and normalised to a maximum of 1.  The transform is radix 2:
// only a power of two for grid_size gives a true PSF.  Returns 0.
int compute_fft_psf(double const* map, int const* mask, int grid_size, double wavelength,
                    double f_number, double* real, double* imag, double* psf, FftPsfResult* result);

// The wavefront map of field `field_index` (compute_wavefront_map with these
// arguments) and its PSF.  A non-zero map status is returned unchanged with
// nothing transformed and `result` untouched.
int compute_fft_psf_full(SurfaceData const* surfaces, int surface_count, double const* indices,
                         double const* primary_indices, double wavelength,
                         SystemConfig const* config, FieldData const* fields, int field_count,
                         int field_index, int grid_size, double reference_radius, double f_number,
                         double* map, int* mask, double* real, double* imag, double* psf,
                         FftPsfResult* result);

}  // namespace nuvrix
