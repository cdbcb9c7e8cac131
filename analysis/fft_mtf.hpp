// Diffraction MTF from wavefront maps: the modulus of the optical transfer
// function, the autocorrelation of the pupil function computed as the
// transform of the PSF.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

// MTF of one wavefront map (grid_size^2 values in waves and validity marks).
// Piston and tilt are removed as for the PSF.  OTF pixel N = grid_size is
// the cutoff; tangential runs along the rows (pupil y), sagittal along the
// columns (pupil x).  Frequencies 0, frequency_step, ... up to the larger
// cutoff, at most `capacity` points.  real and imag: (2 grid_size)^2
// doubles of scratch; grid_size a power of two, as the radix-2 transform
// needs.  Sets point_count and max_frequency; returns 0, or -1 with nothing
// touched when grid_size < 1 (no sample, no transform).
int compute_fft_mtf_from_wavefront(double const* map, int const* mask, int grid_size,
                                   double tangential_cutoff, double sagittal_cutoff,
                                   double frequency_step, double* real, double* imag,
                                   FftMtfPoint* points, int capacity, FftMtfResult* result);

// The wavefront map of field `field_index` at `wavelength` (micrometres,
// index row `indices`) and its MTF.  A non-zero map status is returned
// unchanged with `result` untouched, and so is -1 for grid_size < 1.
int compute_fft_mtf(SurfaceData const* surfaces, int surface_count, double const* indices,
                    double const* primary_indices, double wavelength, SystemConfig const* config,
                    FieldData const* fields, int field_count, int field_index, int grid_size,
                    double reference_radius, double tangential_cutoff, double sagittal_cutoff,
                    double frequency_step, double* map, int* mask, double* real, double* imag,
                    FftMtfPoint* points, int capacity, FftMtfResult* result);

// Polychromatic MTF of `wavelength_count` wavefront maps already made (maps
// and masks: consecutive maps of grid_size^2 entries, wavelengths in
// micrometres, weights normalised here).  One tilt over all wavelengths, a
// piston per wavelength; the complex OTFs are rescaled to the shortest
// wavelength and summed.  real, imag, accum_real, accum_imag: (2 N)^2
// doubles each.  Sets point_count, max_frequency and wavelength_index -1.
// Returns -1 when wavelength_count < 1, grid_size < 1 or the weights sum
// below 1e-15 (result untouched), else 0.
int compute_fft_mtf_polychromatic_from_wavefronts(
    double const* maps, int const* masks, int grid_size, double const* wavelengths,
    int wavelength_count, double const* weights, double tangential_cutoff, double sagittal_cutoff,
    double f_number, double frequency_step, double* real, double* imag, double* accum_real,
    double* accum_imag, FftMtfPoint* points, int capacity, FftMtfResult* result);

// The wavefront map of every wavelength (row k of the index table
// `indices`) and their polychromatic MTF.  Returns -1 for no wavelength or
// weights summing below 1e-15, the first non-zero map status, -1 for
// grid_size < 1, or 0; result is untouched on a non-zero status.
int compute_fft_mtf_polychromatic(SurfaceData const* surfaces, int surface_count,
                                  double const* indices, double const* primary_indices,
                                  double const* wavelengths, int wavelength_count,
                                  double const* weights, SystemConfig const* config,
                                  FieldData const* fields, int field_count, int field_index,
                                  int grid_size, double reference_radius, double tangential_cutoff,
                                  double sagittal_cutoff, double f_number, double frequency_step,
                                  double* maps, int* masks, double* real, double* imag,
                                  double* accum_real, double* accum_imag, FftMtfPoint* points,
                                  int capacity, FftMtfResult* result);

// MTF over normalised fields (field_y = field_fractions[f] * field_scale)
// and requested frequencies, at the cutoff 1 / (F lambda) of the on-axis
// working F-number.  `fields` and `unused_count` are not read.  Record
// q * field_count + f holds frequency q of field f: the nearest point of a
// curve at 1 cycle/mm steps (200 points); a field whose map fails reads 0.
// Returns 0.
int compute_fft_mtf_vs_field(SurfaceData const* surfaces, int surface_count, double const* indices,
                             double const* primary_indices, double wavelength,
                             SystemConfig const* config, FieldData const* fields, int unused_count,
                             int grid_size, double reference_radius, double const* frequencies,
                             int frequency_count, double const* field_fractions, int field_count,
                             double field_scale, double* map, int* mask, double* real, double* imag,
                             MtfVsFieldPoint* points, MtfVsFieldResult* result);

namespace detail {

// A centred OTF: zero frequency at (centre, centre) of arrays of side
// `side`, `divisions` pixels to the cutoff, moduli divided by `dc`.
struct OtfGrid {
  double const* real;
  double const* imag;
  int side;
  int centre;
  double divisions;
  double dc;
};

// Tangential and sagittal MTF of a centred OTF at frequencies k *
// frequency_step up to the larger cutoff, at most `capacity` points,
// linear between OTF pixels.  Sets point_count and max_frequency.
void sample_mtf_curve(OtfGrid const& otf, double tangential_cutoff, double sagittal_cutoff,
                      double frequency_step, FftMtfPoint* points, int capacity,
                      FftMtfResult* result);

// real[k] = real[k]^2 + imag[k]^2 over `count` elements (static split).
void squared_modulus_in_place(double* real, double const* imag, long count);

}  // namespace detail
}  // namespace nuvrix
