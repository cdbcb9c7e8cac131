// Spot diagrams: grid sampling of the pupil, the per-wavelength passes (in
// parallel, or on one thread in a fixed order with the ray hits kept) and
// the weighted reduction to the spot radii.
#include "analysis/spot_diagram.hpp"

#include <math.h>

#include "trace/front_ends.hpp"

namespace nuvrix {

namespace {

constexpr double kTwoPi = 2.0 * 3.14159265358979323846;
constexpr int kHexapolar = 1;

struct PupilPoint {
  double px, py;
};

// Point j of ring r of a hexapolar grid of grid_size rings.
PupilPoint hexapolar_point(int r, int j, int grid_size) {
  double const theta = kTwoPi * j / (6 * r);
  double const rho = static_cast<double>(r) / grid_size;
  return {rho * cos(theta), rho * sin(theta)};
}

// Centre of cell i of grid_size cells across [-1, 1].
double cell_centre(int i, int grid_size) { return 2.0 * (i + 0.5) / grid_size - 1.0; }

bool outside_pupil(PupilPoint const& p) { return p.px * p.px + p.py * p.py > 1.0; }

// Sums of one thread (or of the whole pass on one thread).
struct SpotSums {
  double sum_x, sum_y, sum_dx2, sum_dy2, sum_r2;
  int count;
};

// Adds a surviving ray at (x, y); returns its squared distance from the chief ray.
double add_ray(SpotSums& s, double x, double y, double chief_x, double chief_y) {
  double const dx = x - chief_x, dy = y - chief_y;
  double const r2 = dx * dx + dy * dy;
  s.sum_x += x;
  s.sum_y += y;
  s.sum_dx2 += dx * dx;
  s.sum_dy2 += dy * dy;
  s.sum_r2 += r2;
  s.count += 1;
  return r2;
}

// The running maximum, compared and written by one thread at a time.
void raise_max_r2(SpotAccum& acc, double r2) {
#pragma omp critical(nuvrix_spot_max_r2)
  {
    if (r2 > acc.max_r2) acc.max_r2 = r2;
  }
}

void add_sums(SpotAccum& acc, SpotSums const& s) {
  acc.sum_x += s.sum_x;
  acc.sum_y += s.sum_y;
  acc.sum_dx2 += s.sum_dx2;
  acc.sum_dy2 += s.sum_dy2;
  acc.sum_r2 += s.sum_r2;
  acc.count += s.count;
}

// A thread's sums into the shared block, once, all fields in one critical section.
void merge_sums(SpotAccum& acc, SpotSums const& s) {
#pragma omp critical(nuvrix_spot_merge)
  add_sums(acc, s);
}

// A pass of wavelength row `row`, sums zero.
SpotAccum start_pass(SurfaceData const* surfaces, int surface_count, double const* row,
                     SystemConfig const* config, LaunchSet const& launch,
                     RayTraceResult const& chief, int grid_size) {
  SpotAccum acc = {};
  acc.surfaces = surfaces;
  acc.surface_count = surface_count;
  acc.indices = row;
  acc.config = config;
  acc.launch = launch;
  acc.chief_x = chief.x;
  acc.chief_y = chief.y;
  acc.grid_size = grid_size;
  return acc;
}

// Traces the central ray of the pass; a survivor seeds the sums and max_r2.
RayTraceResult seed_with_central_ray(SpotAccum& acc) {
  RayTraceResult const ray = trace_launch_ray(acc.surfaces, acc.surface_count, acc.indices,
                                              acc.config, acc.launch, 0.0, 0.0);
  if (ray.valid) {
    SpotSums s = {};
    acc.max_r2 = add_ray(s, ray.x, ray.y, acc.chief_x, acc.chief_y);
    add_sums(acc, s);
  }
  return ray;
}

// The totals over the wavelengths.
struct SpotTotals {
  double total_r2, total_dx2, total_dy2, total_weight;
  double total_x, total_y, total_max_r2;
  int ray_count;
};

void fold_pass(SpotTotals& t, SpotAccum const& acc, double W) {
  t.total_r2 += W * acc.sum_r2;
  t.total_dx2 += W * acc.sum_dx2;
  t.total_dy2 += W * acc.sum_dy2;
  t.total_weight += W * acc.count;
  t.total_x += acc.sum_x;
  t.total_y += acc.sum_y;
  t.total_max_r2 = t.total_max_r2 > acc.max_r2 ? t.total_max_r2 : acc.max_r2;
  t.ray_count += acc.count;
}

// Radii about the chief ray, weighted; centroid as a plain mean.
void write_result(SpotTotals const& t, RayTraceResult const& chief, int field_index,
                  SpotDiagramResult* result) {
  result->rms_radius = sqrt(t.total_r2 / t.total_weight);
  result->rms_x = sqrt(t.total_dx2 / t.total_weight);
  result->rms_y = sqrt(t.total_dy2 / t.total_weight);
  result->geo_radius = sqrt(t.total_max_r2);
  result->chief_x = chief.x;
  result->chief_y = chief.y;
  result->centroid_x = t.total_x / t.ray_count;
  result->centroid_y = t.total_y / t.ray_count;
  result->ray_count = t.ray_count;
  result->field_index = field_index;
}

// What both routines do before the first pass: the field check, the launch
// set and the primary chief ray.  Returns 0, -1, -3 (no index row to trace
// with, so no ray can survive) or -2.
int prepare(SurfaceData const* surfaces, int surface_count, double const* indices,
            int wavelength_count, SystemConfig const* config, FieldData const* fields,
            int field_count, int field_index, LaunchSet& launch, RayTraceResult& chief) {
  if (field_index < 0 || field_index >= field_count) return -1;
  if (wavelength_count <= 0) return -3;
  double const* primary = primary_index_row(indices, surface_count, wavelength_count, *config);
  launch = compute_launch_set(surfaces, surface_count, primary, *config, fields, field_index);
  chief = trace_launch_ray(surfaces, surface_count, primary, config, launch, 0.0, 0.0);
  return chief.valid ? 0 : -2;
}

double const* wavelength_row(double const* indices, int surface_count, int w) {
  return indices + static_cast<long>(w) * surface_count;
}

// One wavelength of the parallel routine: a team fills the pupil.
void parallel_pass(SpotAccum& acc, int pattern) {
  if (pattern == kHexapolar) {
    seed_with_central_ray(acc);
#pragma omp parallel
    trace_hexapolar_grid(acc.surfaces, acc.surface_count, acc.indices, acc.config, acc.launch,
                         acc.chief_x, acc.chief_y, acc.grid_size, acc);
  } else {
#pragma omp parallel
    trace_rectangular_grid(acc.surfaces, acc.surface_count, acc.indices, acc.config, acc.launch,
                           acc.chief_x, acc.chief_y, acc.grid_size, acc);
  }
}

// The hit array of the single-threaded routine.
struct HitStore {
  SpotRayHit* hits;
  int capacity;
  int stored;
};

// A surviving ray of the fixed-order pass: summed, and stored while room is left.
void take_ray(SpotAccum& acc, SpotSums& s, HitStore& store, RayTraceResult const& ray, int w) {
  double const r2 = add_ray(s, ray.x, ray.y, acc.chief_x, acc.chief_y);
  if (r2 > acc.max_r2) acc.max_r2 = r2;
  if (store.stored < store.capacity) {
    store.hits[store.stored] = SpotRayHit{ray.x, ray.y, w, 1};
    ++store.stored;
  }
}

void trace_and_take(SpotAccum& acc, SpotSums& s, HitStore& store, PupilPoint const& p, int w) {
  RayTraceResult const ray = trace_launch_ray(acc.surfaces, acc.surface_count, acc.indices,
                                              acc.config, acc.launch, p.px, p.py);
  if (ray.valid) take_ray(acc, s, store, ray, w);
}

// One wavelength in the fixed order: central ray, then ring by ring from
// j = 0, or row by row with columns ascending.
void ordered_pass(SpotAccum& acc, int pattern, HitStore& store, int w) {
  SpotSums s = {};
  int const n = acc.grid_size;
  if (pattern == kHexapolar) {
    trace_and_take(acc, s, store, PupilPoint{0.0, 0.0}, w);
    for (int r = 1; r <= n; ++r) {
      for (int j = 0; j < 6 * r; ++j) trace_and_take(acc, s, store, hexapolar_point(r, j, n), w);
    }
  } else {
    for (int i = 0; i < n; ++i) {
      for (int j = 0; j < n; ++j) {
        PupilPoint const p = {cell_centre(j, n), cell_centre(i, n)};
        if (!outside_pupil(p)) trace_and_take(acc, s, store, p, w);
      }
    }
  }
  add_sums(acc, s);
}

}  // namespace

// The whole front end and trace inlined into one copy with the constant
// arguments folded (no history, no phase, image surface).  Marked hot so that
// the compiler keeps every square root of that large body inline.
__attribute__((flatten, hot)) RayTraceResult trace_launch_ray(
    SurfaceData const* surfaces, int surface_count, double const* indices,
    SystemConfig const* config, LaunchSet const& launch, double px, double py) {
  return trace_arbitrary_ray(surfaces, surface_count, indices, config, launch.field_value,
                             launch.pupil_radius, px, py, 0.0, launch.entrance_pupil_position,
                             launch.aim_flag, launch.stop_radius, 0, 0.0);
}

void trace_hexapolar_grid(SurfaceData const* surfaces, int surface_count, double const* indices,
                          SystemConfig const* config, LaunchSet const& launch, double chief_x,
                          double chief_y, int grid_size, SpotAccum& acc) {
  SpotSums s = {};
#pragma omp for schedule(dynamic, 1) nowait
  for (int r = 1; r <= grid_size; ++r) {
    for (int j = 0; j < 6 * r; ++j) {
      PupilPoint const p = hexapolar_point(r, j, grid_size);
      RayTraceResult const ray =
          trace_launch_ray(surfaces, surface_count, indices, config, launch, p.px, p.py);
      if (!ray.valid) continue;
      raise_max_r2(acc, add_ray(s, ray.x, ray.y, chief_x, chief_y));
    }
  }
  merge_sums(acc, s);
}

void trace_rectangular_grid(SurfaceData const* surfaces, int surface_count,
                            double const* indices, SystemConfig const* config,
                            LaunchSet const& launch, double chief_x, double chief_y,
                            int grid_size, SpotAccum& acc) {
  SpotSums s = {};
#pragma omp for schedule(dynamic, 1) nowait
  for (int i = 0; i < grid_size; ++i) {
    double const py = cell_centre(i, grid_size);
    for (int j = 0; j < grid_size; ++j) {
      PupilPoint const p = {cell_centre(j, grid_size), py};
      if (outside_pupil(p)) continue;
      RayTraceResult const ray =
          trace_launch_ray(surfaces, surface_count, indices, config, launch, p.px, p.py);
      if (!ray.valid) continue;
      raise_max_r2(acc, add_ray(s, ray.x, ray.y, chief_x, chief_y));
    }
  }
  merge_sums(acc, s);
}

int compute_spot_diagram(SurfaceData const* surfaces, int surface_count, double const* indices,
                         double const* weights, int wavelength_count, SystemConfig const* config,
                         FieldData const* fields, int field_count, int field_index, int grid_size,
                         int pattern, SpotDiagramResult* result) {
  LaunchSet launch;
  RayTraceResult chief;
  int const status = prepare(surfaces, surface_count, indices, wavelength_count, config, fields,
                             field_count, field_index, launch, chief);
  if (status != 0) return status;
  SpotTotals totals = {};
  for (int w = 0; w < wavelength_count; ++w) {
    SpotAccum acc = start_pass(surfaces, surface_count, wavelength_row(indices, surface_count, w),
                               config, launch, chief, grid_size);
    parallel_pass(acc, pattern);
    fold_pass(totals, acc, weights[w]);
  }
  if (totals.ray_count == 0) return -3;
  write_result(totals, chief, field_index, result);
  return 0;
}

int compute_spot_diagram_with_rays(SurfaceData const* surfaces, int surface_count,
                                   double const* indices, double const* weights,
                                   int wavelength_count, SystemConfig const* config,
                                   FieldData const* fields, int field_count, int field_index,
                                   int grid_size, int pattern, SpotRayHit* hits,
                                   int hit_capacity, SpotDiagramResult* result) {
  LaunchSet launch;
  RayTraceResult chief;
  int const status = prepare(surfaces, surface_count, indices, wavelength_count, config, fields,
                             field_count, field_index, launch, chief);
  if (status != 0) return status;
  HitStore store = {hits, hit_capacity, 0};
  SpotTotals totals = {};
  for (int w = 0; w < wavelength_count; ++w) {
    SpotAccum acc = start_pass(surfaces, surface_count, wavelength_row(indices, surface_count, w),
                               config, launch, chief, grid_size);
    ordered_pass(acc, pattern, store, w);
    fold_pass(totals, acc, weights[w]);
  }
  if (totals.ray_count == 0) return -3;
  write_result(totals, chief, field_index, result);
  return 0;
}

}  // namespace nuvrix
