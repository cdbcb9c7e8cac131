// Spot diagrams: the pupil of one field point filled with rays on a
// hexapolar or a rectangular grid, at every wavelength, and the spread of
// their image points about the primary wavelength's chief ray.
#pragma once

#include "analysis/launch_set.hpp"
#include "api/nuvrix.h"

namespace nuvrix {

// The block shared by the threads of one grid pass (one wavelength).
struct SpotAccum {
  // In: what each ray of the pass is traced with and measured against.
  SurfaceData const* surfaces;
  int surface_count;
  double const* indices;  // index row of this wavelength
  SystemConfig const* config;
  LaunchSet launch;
  double chief_x, chief_y;  // primary chief ray on the image surface
  int grid_size;
  // Out: sums over the surviving rays of the pass; dx, dy from the chief ray.
  double max_r2;
  double sum_y, sum_x;
  double sum_dy2, sum_dx2, sum_r2;
  int count;
};

// One ray of an analysis: the general front end at the index row `indices`
// with the launch set, no phase and no model glass (wavelength 0), to the
// image surface, field x 0.
RayTraceResult trace_launch_ray(SurfaceData const* surfaces, int surface_count,
                                double const* indices, SystemConfig const* config,
                                LaunchSet const& launch, double px, double py);

// The rings 1 .. grid_size of a hexapolar grid (6 r points on ring r, at
// radius r / grid_size); the central ray is the caller's.  The body of a
// parallel region: rings go to the threads one at a time, each thread sums
// in locals and merges once into `acc`.
void trace_hexapolar_grid(SurfaceData const* surfaces, int surface_count, double const* indices,
                          SystemConfig const* config, LaunchSet const& launch, double chief_x,
                          double chief_y, int grid_size, SpotAccum& acc);

// The cell centres of a grid_size x grid_size grid over the pupil square,
// those outside the unit circle skipped untraced.  The body of a parallel
// region over the rows, merging as the hexapolar grid does.
void trace_rectangular_grid(SurfaceData const* surfaces, int surface_count,
                            double const* indices, SystemConfig const* config,
                            LaunchSet const& launch, double chief_x, double chief_y,
                            int grid_size, SpotAccum& acc);

// Spot statistics of field `field_index` over the wavelength_count rows of
// `indices`, radii weighted by `weights`, the centroid unweighted.
// pattern 1: hexapolar with grid_size rings; otherwise rectangular with
// grid_size samples across.  Returns 0, -1 (bad field index), -2 (chief ray
// lost) or -3 (no wavelength or no surviving ray); `result` is written on 0
// only.  One parallel region a wavelength; the last digits of the sums
// depend on the order in which the threads merge.
int compute_spot_diagram(SurfaceData const* surfaces, int surface_count, double const* indices,
                         double const* weights, int wavelength_count, SystemConfig const* config,
                         FieldData const* fields, int field_count, int field_index, int grid_size,
                         int pattern, SpotDiagramResult* result);

// The same statistics on the calling thread in a fixed order (bit for bit
// reproducible), storing each surviving ray in `hits` while fewer than
// `hit_capacity` are stored: wavelength by wavelength, the central ray
// first, then ring by ring (or row by row).
int compute_spot_diagram_with_rays(SurfaceData const* surfaces, int surface_count,
                                   double const* indices, double const* weights,
                                   int wavelength_count, SystemConfig const* config,
                                   FieldData const* fields, int field_count, int field_index,
                                   int grid_size, int pattern, SpotRayHit* hits,
                                   int hit_capacity, SpotDiagramResult* result);

}  // namespace nuvrix
