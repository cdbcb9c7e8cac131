// The wavefront map: optical path difference against the reference sphere
// over a square grid of pupil samples, with its peak-to-valley and rms.
#include "analysis/wavefront_map.hpp"

#include "analysis/launch_set.hpp"
#include "analysis/opd_reference.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {
namespace {

constexpr double kMapExtremeStart = 1e30;  // min_W starts here, max_W at its negative

// What every ray of one map shares.
struct MapPass {
  SurfaceData const* surfaces;
  int surface_count;
  double const* indices;  // row of the analysed wavelength
  SystemConfig const* config;
  LaunchSet launch;
  double wavelength;     // micrometres
  double wavelength_nm;  // handed to the trace, so that it fills phase_waves
  double n_img;          // index of image space at this wavelength
  double reference_radius;
  OpdReference ref;
  double chief_path;  // O + s + o of this wavelength's chief ray
  int grid_size;
  double h;  // (N - 1) / 2: pupil coordinates per sample step, inverted
};

// Running figures of the map: the sums merge once per thread, the extremes
// at each valid sample.
struct MapSums {
  int count;
  double sum_w, sum_w2;
  double min_w, max_w;
};

RayTraceResult trace_map_ray(SurfaceData const* surfaces, int surface_count, double const* indices,
                             SystemConfig const* config, LaunchSet const& s, double px, double py,
                             double wavelength_nm, RayState* history) {
  return trace_full(surfaces, surface_count, indices, config, s.field_value, s.pupil_radius, px, py,
                    wavelength_nm, s.entrance_pupil_position, s.aim_flag, s.stop_radius, history);
}

// OPD of the sample (px, py) in w; false when its ray failed.
bool map_sample(MapPass const& pass, double px, double py, RayState* history, double& w) {
  RayTraceResult const ray =
      trace_map_ray(pass.surfaces, pass.surface_count, pass.indices, pass.config, pass.launch, px,
                    py, pass.wavelength_nm, history);
  if (!ray.valid) return false;
  OpdVec3 const r = opd_surface1_hit(ray, history, OpdVec3{0.0, 0.0, 0.0});
  OpdTerms const t =
      opd_sphere_terms(pass.ref, ray, r, pass.n_img, pass.reference_radius, pass.wavelength);
  w = opd_value(ray.phase_waves, t, pass.chief_path);
  return true;
}

void raise_extremes(double w, MapSums& shared) {
#pragma omp critical(nuvrix_wavefront_map_extremes)
  {
    if (w < shared.min_w) shared.min_w = w;
    if (w > shared.max_w) shared.max_w = w;
  }
}

// Row i of the map.  Columns sit at px = (j - N/2) / h and the row at
// py = (i - N/2 + 1) / h, one step apart on purpose: for an even N the
// column centre is j = N/2 and the row centre i = N/2 - 1, so the py values
// are the px values negated.  Samples outside the unit circle are not traced.
void fill_map_row(MapPass const& pass, int i, RayState* history, double* map, int* mask,
                  MapSums& local, MapSums& shared) {
  int const N = pass.grid_size;
  double const py = (i - N / 2 + 1) / pass.h;
  for (int j = 0; j < N; ++j) {
    double const px = (j - N / 2) / pass.h;
    long const k = static_cast<long>(i) * N + j;
    double w = 0.0;
    bool const valid = !(px * px + py * py > 1.0) && map_sample(pass, px, py, history, w);
    map[k] = valid ? w : 0.0;
    mask[k] = valid ? 1 : 0;
    if (!valid) continue;
    local.count += 1;
    local.sum_w += w;
    local.sum_w2 += w * w;
    raise_extremes(w, shared);
  }
}

// All rows, one parallel region: dynamic over rows with chunk 1, a history
// array and local sums per thread, merged once in an atomic section.
void fill_map(MapPass const& pass, double* map, int* mask, MapSums& sums) {
#pragma omp parallel
  {
    RayState history[kMaxSurfaces];
    MapSums local = {0, 0.0, 0.0, 0.0, 0.0};
#pragma omp for schedule(dynamic, 1)
    for (int i = 0; i < pass.grid_size; ++i) {
      fill_map_row(pass, i, history, map, mask, local, sums);
    }
#pragma omp atomic
    sums.count += local.count;
#pragma omp atomic
    sums.sum_w += local.sum_w;
#pragma omp atomic
    sums.sum_w2 += local.sum_w2;
  }
}

void write_result(MapSums const& sums, int grid_size, int field_index, WavefrontResult* result) {
  result->grid_size = grid_size;
  result->field_index = field_index;
  result->wavelength_index = -1;
  if (sums.count < 1) {
    result->peak_to_valley = 0.0;
    result->rms = 0.0;
    return;
  }
  double const n = static_cast<double>(sums.count);
  double const mean = sums.sum_w / n;
  result->peak_to_valley = sums.max_w - sums.min_w;
  // A rounding-negative variance is left to give a not-a-number.
  result->rms = sqrt(sums.sum_w2 / n - mean * mean);
}

}  // namespace

int compute_wavefront_map(SurfaceData const* surfaces, int surface_count,
                          double const* wave_indices, double const* primary_indices,
                          double wavelength, SystemConfig const* config, FieldData const* fields,
                          int field_count, int field_index, int grid_size, double reference_radius,
                          double* map, int* mask, WavefrontResult* result) {
  if (field_index < 0 || field_index >= field_count) return -1;
  LaunchSet const launch =
      compute_launch_set(surfaces, surface_count, primary_indices, *config, fields, field_index);
  double const wavelength_nm = 1000.0 * wavelength;
  RayState history[kMaxSurfaces];

  // The primary chief ray fixes the reference point and the incoming
  // wavefront.  The map knows only the analysed wavelength, so that is the
  // wavelength this ray is traced at, with the primary indices.
  RayTraceResult const primary = trace_map_ray(surfaces, surface_count, primary_indices, config,
                                               launch, 0.0, 0.0, wavelength_nm, history);
  if (!primary.valid) return -2;
  OpdReference const ref = opd_reference(surfaces, primary, history);

  // The chief ray of the analysed wavelength sets the phase zero.
  RayTraceResult const chief = trace_map_ray(surfaces, surface_count, wave_indices, config, launch,
                                             0.0, 0.0, wavelength_nm, history);
  if (!chief.valid) return -3;
  double const n_img = wave_indices[surface_count - 1];
  OpdTerms const chief_terms = opd_sphere_terms(
      ref, chief, opd_surface1_hit(chief, history, ref.r_ref), n_img, reference_radius, wavelength);

  double const chief_path = opd_chief_path(chief.phase_waves, chief_terms);
  double const h = static_cast<double>(grid_size - 1) / 2.0;
  MapPass const pass = {
      surfaces, surface_count,    wave_indices, config,     launch,    wavelength, wavelength_nm,
      n_img,    reference_radius, ref,          chief_path, grid_size, h};
  MapSums sums = {0, 0.0, 0.0, kMapExtremeStart, -kMapExtremeStart};
  fill_map(pass, map, mask, sums);
  write_result(sums, grid_size, field_index, result);
  return 0;
}

}  // namespace nuvrix
