// The blocks of the nuvrix report, each printed from what the engine's
// exported interface returns.
#pragma once

#include <string>

#include "tools/lens_file.hpp"

namespace lensfile {

// A section title underlined with dashes.
void print_heading(const std::string& title);

// "OBJ", "STO", "IMA" or "" for surface i.
const char* surface_role(const Lens& lens, int i);

// Words for a RayTraceResult status code.
const char* status_text(int status);

// Version, build anchor and the layout words checked against this host's
// view of the records.  Returns false when the layouts differ.
bool print_identity();

// Wavelengths, fields, aperture and the surface table.
void print_system(const Lens& lens);

// Chief and meridional rim rays of every field, surface by surface.
void print_real_rays(const Lens& lens);

// Cardinal data from the paraxial solve and the single-quantity calls, then
// the paraxial marginal and chief rays surface by surface.
void print_first_order(const Lens& lens);

// Third-order surface sums with their totals, colour between the shortest
// and the longest wavelength of the system.
void print_seidel(const Lens& lens);

// Back focal distance at each wavelength relative to the primary one.
void print_focal_shift(const Lens& lens);

// Chief and four marginal rays of every field traced with the engine's ray
// aiming: where they cross the stop, how far from the aimed point, and where
// they land on the image.
void print_aimed_rays(const Lens& lens);

// Semi-diameters the engine solves from the edge rays of every field and
// wavelength, beside the lens file's own.
void print_solved_semi_diameters(const Lens& lens);

// Wavefront rms and peak-to-valley, Strehl ratio and PSF pitch of every
// field at the primary wavelength.
void print_wavefront_quality(const Lens& lens);

// Tangential and sagittal diffraction MTF of every field at a few
// frequencies up to the cutoff, at the primary wavelength and over all.
void print_diffraction_mtf(const Lens& lens);

// The first Zernike terms of every field's wavefront.
void print_zernike(const Lens& lens);

// Spot radii and centroid of every field over all wavelengths, and the
// extremes of its transverse ray fans.
void print_spots(const Lens& lens);

// Radii of 50 % and 80 % encircled energy of every field, from the spot
// diagram's ray hits and from the diffraction PSF.
void print_encircled_energy(const Lens& lens);

// Field curvature, distortion, relative illumination and lateral colour
// from the axis to the largest field.
void print_field_curves(const Lens& lens);

// The lens file's merit function, or the default one when the file has
// none, evaluated once: each operand's value, target or bounds, residual
// and status, then the unsupported count, the residual count and the merit.
void print_merit(const Lens& lens);

// A few hundred random perturbations of the lens in one batch: the spread
// of their merits, the time on one thread and on every core, with
// Jacobians, and through the mixed CPU and device run.
void print_batch(const Lens& lens);

// What the engine's GPU set-up found; with a device, the merit of a few
// thousand random perturbations of the lens in one launch, timed beside
// the CPU.
void print_device(const Lens& lens);

// The lens's glasses as a device catalogue: one row for each surface that
// is followed by glass (its indices at every wavelength; ids[k] its row),
// air (id -1) elsewhere; a lens without glass gets one row of air.
void glass_catalogue(const Lens& lens, std::vector<double>& catalog, std::vector<int>& ids);

}  // namespace lensfile
