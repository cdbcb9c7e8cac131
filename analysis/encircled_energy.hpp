// Encircled energy and line and edge spread: reductions of an image (a
// diffraction PSF or a set of ray hits) to curves.  Nothing is traced here.
// Radii and positions of the curves are in micrometres; hits, pixel pitch
// and centres in mm.  Single-threaded, work arrays on the caller's stack.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

// Encircled energy of a grid_size x grid_size PSF (pixel_pitch mm) in
// circles about its centroid, at radii i max_radius / point_count, i = 0 ...
// point_count (micrometres): a radial histogram of ten bins a pixel (at most
// 10240), interpolated linearly.  The header receives point_count + 1 and
// the centroid's offset from the array centre, in mm; its field and
// wavelength indices are left to the caller.  Returns 0.
int compute_diffraction_encircled_energy(double const* psf, int grid_size, double pixel_pitch,
                                         double max_radius, int point_count,
                                         EncircledEnergyPoint* points,
                                         EncircledEnergyResultHeader* header);

// Encircled energy of the valid hits (at most the first 65536 of them) in
// circles about (center_x, center_y), at radii i max_radius / point_count:
// the fraction of hits at most that far, every hit counting the same.  No
// hit at all gives radii and energies 0; hits of which none is valid give
// not-a-number energies.  The header receives point_count + 1, the centre,
// field index 0 and wavelength index -1.  Returns 0.
int compute_geometric_encircled_energy(SpotRayHit const* hits, int hit_count, double center_x,
                                       double center_y, double max_radius, int point_count,
                                       EncircledEnergyPoint* points,
                                       EncircledEnergyResultHeader* header);

// Line spread (histogram over its largest bin) and edge spread (running
// fraction) of the valid hits along x (x_points) and y (y_points), in
// point_count + 1 bins of 2 half_width / point_count micrometres centred at
// i bin - half_width; at most 2048 records are written, the header's count
// (point_count + 1) is not limited.  Returns 0.
int compute_geometric_line_edge_spread(SpotRayHit const* hits, int hit_count, double center_x,
                                       double center_y, double half_width, int point_count,
                                       LineEdgeSpreadPoint* x_points, LineEdgeSpreadPoint* y_points,
                                       LineEdgeSpreadResultHeader* header);

}  // namespace nuvrix
