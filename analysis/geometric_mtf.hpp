// Geometric MTF: the modulation transfer function of the ray hits alone,
// with no diffraction in the spot.  The binned method drops the hits of a
// rectangular pupil grid into an image array and transforms it; the
// ray-sum method evaluates the transform of the hits directly.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

// Binned geometric MTF of field `field_index` at the wavelength of the index
// row `indices` (also the chief ray's).  `samples` pupil samples across, on
// the cell-centred rectangular grid inside the unit circle.  Hits are
// measured from the chief ray and binned at a pitch that makes the spot's
// larger extent span 128 / 1.5 pixels; real and imag hold grid_size^2
// doubles (a power of two, for the radix-2 transform).  Frequencies 0, 1,
// 2 ... cycles/mm up to the larger cutoff, at most 101 and at most
// `capacity` points; beyond its own cutoff a direction reads 0.  A non-zero
// apply_diffraction multiplies each direction by the diffraction-limited
// curve of its cutoff.  `wavelength_index` is only copied into the result.
// Returns 0, -1 (field_index out of range or grid_size < 1), -2 (chief ray failed) or -3 (at
// most 3 rays survived); the result is untouched on a non-zero status.
int compute_geometric_mtf(SurfaceData const* surfaces, int surface_count, double const* indices,
                          SystemConfig const* config, FieldData const* fields, int field_count,
                          int field_index, int wavelength_index, int samples,
                          int apply_diffraction, double tangential_cutoff,
                          double sagittal_cutoff, double* real, double* imag, int grid_size,
                          GeometricMtfPoint* points, int capacity, GeometricMtfResult* result);

// The same over every wavelength of the index table `indices` (one row of
// surface_count indices per wavelength), the launch set and the chief ray at
// the primary wavelength.  Every ray of every wavelength counts once:
// `wavelengths` and `weights` are not read.  wavelength_index is -1 in the
// result.  Returns as the single-wavelength form, with -3 also for
// wavelength_count below 1.
int compute_geometric_mtf_polychromatic(SurfaceData const* surfaces, int surface_count,
                                        double const* indices, double const* wavelengths,
                                        double const* weights, int wavelength_count,
                                        SystemConfig const* config, FieldData const* fields,
                                        int field_count, int field_index, int samples,
                                        int apply_diffraction, double tangential_cutoff,
                                        double sagittal_cutoff, double* real, double* imag,
                                        int grid_size, GeometricMtfPoint* points, int capacity,
                                        GeometricMtfResult* result);

// The MTF of a binned spot in `real` (grid_size^2 hit counts, origin at
// (N/2, N/2), `pitch` mm per pixel): quadrant shift, transform, shift back,
// moduli over the zero-frequency one, read at the nearest pixel of each
// integer frequency.  imag is scratch; both arrays are overwritten.  Sets
// point_count and max_frequency of the result.
void build_mtf_from_psf(double* real, double* imag, int grid_size, int apply_diffraction,
                        double pitch, GeometricMtfPoint* points, int capacity,
                        double tangential_cutoff, double sagittal_cutoff,
                        GeometricMtfResult* result);

// Binned geometric MTF over normalised fields (field_y = field_fractions[f]
// * field_scale) at the requested frequencies: each field's curve at cutoffs
// of 500 cycles/mm (so 0 to 100 cycles/mm), each frequency reading the
// nearest point.  Record q * field_count + f holds frequency q of field f; a
// failed field reads 0.  `fields` and `unused_count` are not read.  Returns
// 0.
int compute_geometric_mtf_vs_field(SurfaceData const* surfaces, int surface_count,
                                   double const* indices, SystemConfig const* config,
                                   FieldData const* fields, int unused_count, int wavelength_index,
                                   int samples, int apply_diffraction, double const* frequencies,
                                   int frequency_count, double const* field_fractions,
                                   int field_count, double field_scale, double* real, double* imag,
                                   int grid_size, MtfVsFieldPoint* points,
                                   MtfVsFieldResult* result);

// Ray-sum geometric MTF: `rings` equal-area rings of rays (no central ray),
// traced at `wavelength` micrometres, at most 20000 hits, measured from the
// chief ray; at f = k max_frequency / frequency_steps, k = 0 ...
// frequency_steps, the modulus of the mean of exp(-i 2 pi f d) over the hit
// offsets d along y (tangential) and x (sagittal).  A non-zero
// apply_diffraction multiplies by the diffraction-limited curve with
// max_frequency as the cutoff.  The three output arrays hold
// frequency_steps + 1 doubles.  Returns 0, -1 (field_index out of range),
// -2 (chief ray failed) or -3 (rings below 1, or at most 3 hits); a negative
// frequency_steps returns 0 with nothing written.
int compute_geometric_mtf_kidger(SurfaceData const* surfaces, int surface_count,
                                 double const* indices, SystemConfig const* config,
                                 FieldData const* fields, int field_count, int field_index,
                                 double wavelength, int rings, double max_frequency,
                                 int frequency_steps, int apply_diffraction, double* frequencies,
                                 double* tangential, double* sagittal);

namespace detail {

// Diffraction-limited MTF of a uniformly filled circular pupil at the
// normalised frequency x = f / cutoff, 0 <= x < 1:
// (acos x - x sqrt(1 - x^2)) 2 / pi.
double diffraction_limited_curve(double x);

}  // namespace detail
}  // namespace nuvrix
