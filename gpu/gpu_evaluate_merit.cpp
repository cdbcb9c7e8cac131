// One merit evaluation with its rays traced on the device: the operands'
// rays are gathered into a list, traced in one launch of the grid kernel,
// and handed to evaluate_merit as rays traced in advance.  Whatever goes
// wrong on the way, the CPU traces the rays itself.
#include <math.h>

#include "gpu/gpu_merit_value.hpp"
#include "merit/merit_function.hpp"

namespace nuvrix {
namespace {

constexpr int kMaxAimedWaves = 64;      // rows of the local stop-radius table
constexpr double kOnField = 1e-6;       // how near a defined field a ray must lie
constexpr double kNoDistance = 1e30;

// The list of rays being gathered in the caller's workspace.
struct RayList {
  GpuTraceScratch* s;
  FieldData const* fields;
  int field_count;
  MeritContext const* ctx;
  int count;
  bool launch_wanted, normals_wanted;
};

// The field that the normalised hy stands for, or -1 when it lies on none.
// The operand's hx must match that field's x as well: the table of traced
// rays does not tell rays of different hx apart.
int field_of(RayList const& list, double hy, double hx) {
  double const max_y = list.ctx->max_field_y, max_x = list.ctx->max_field_x;
  int best = -1;
  double best_distance = kNoDistance;
  for (int f = 0; f < list.field_count; ++f) {
    double const d = max_y != 0.0 ? fabs(list.fields[f].field_y / max_y - hy) : fabs(hy);
    if (d < best_distance) best = f, best_distance = d;
    if (max_y == 0.0) break;  // the first field stands for all
  }
  if (best < 0 || !(best_distance < kOnField)) return -1;
  double const x = max_x != 0.0 ? list.fields[best].field_x / max_x : 0.0;
  return fabs(x - hx) < kOnField ? best : -1;
}

// The add rule: each ray once, while there is room, and only on a field.
void add_ray(RayList& list, double hy, double hx, int w, double px, double py, int kind,
             int surface, double stop_radius) {
  GpuTraceScratch& s = *list.s;
  for (int k = 0; k < list.count; ++k) {
    if (s.ray_kinds[k] == kind && s.surface_indices[k] == surface && s.wave_indices[k] == w &&
        s.hy_values[k] == hy && s.px_values[k] == px && s.py_values[k] == py) {
      return;
    }
  }
  if (list.count >= s.capacity) return;  // left to the CPU
  int const f = field_of(list, hy, hx);
  if (f < 0) return;
  int const k = list.count++;
  s.field_indices[k] = f, s.wave_indices[k] = w, s.ray_kinds[k] = kind;
  s.surface_indices[k] = surface, s.hy_values[k] = hy, s.px_values[k] = px;
  s.py_values[k] = py, s.stop_radii[k] = stop_radius;
}

// The rays of one operand, at index row w with the stop radius r of that row.
void add_operand_rays(RayList& list, MeritOperandDesc const& op, int w, int primary, double r,
                      double const* index_table, int n) {
  unsigned const code = op.type;
  if (code >= 70 && code <= 73) {
    add_ray(list, op.hy, op.hx, w, op.px, op.py, 0, 0, r);
    if (code >= 72) add_ray(list, op.hy, op.hx, w, 0.0, 0.0, 0, 0, r);
  } else if (code >= 67 && code <= 69) {
    double const stop = list.ctx->aim_stop_radius_value;
    add_ray(list, op.hy, op.hx, w, op.px, op.py, 1, 0, stop);
    add_ray(list, op.hy, op.hx, w, 0.0, 0.0, 1, 0, stop);
    add_ray(list, op.hy, op.hx, primary, 0.0, 0.0, 1, 0, stop);
    list.launch_wanted = true;
  } else if (code == 74 && op.surface >= 1 && op.surface < n) {
    double const* row = index_table + static_cast<long>(w) * n;
    double const before = row[op.surface - 1], after = row[op.surface];
    if (!(fabs(before - after) >= kTiny)) return;
    add_ray(list, op.hy, op.hx, w, op.px, op.py, 1, op.surface, r);
    if (after > before && op.surface != 1) {
      add_ray(list, op.hy, op.hx, w, op.px, op.py, 1, op.surface - 1, r);
    }
    list.normals_wanted = true;
  }
}

bool usable_workspace(GpuTraceScratch const* s) {
  return s != nullptr && s->device_scratch != nullptr && s->capacity >= 1;
}

bool has_thin_lens(SurfaceData const* surfaces, int n) {
  for (int k = 0; k < n; ++k) {
    if (surfaces[k].type == 2) return true;
  }
  return false;
}

}  // namespace

int gpu_evaluate_merit_value(SurfaceData const* surfaces, int n, double const* index_table,
                             double const* wavelengths, int wave_count,
                             SystemConfig const* config, FieldData const* fields,
                             int field_count, MeritOperandDesc const* ops, int count,
                             MeritResult* results, double* residuals, int* residual_count,
                             double* merit, GpuTraceScratch* scratch, int reuse_uploads) {
  auto on_cpu = [&](PreTracedRays const* table) {
    return evaluate_merit(surfaces, n, index_table, wavelengths, wave_count, config, fields,
                          field_count, ops, count, results, residuals, residual_count, merit,
                          false, table);
  };
  // Without a system, a row, a field or operands there is nothing to send.
  if (surfaces == nullptr || config == nullptr || index_table == nullptr ||
      wavelengths == nullptr || fields == nullptr || ops == nullptr || n < 1 ||
      wave_count < 1 || field_count < 1 || count < 1) {
    return on_cpu(nullptr);
  }
  if (has_thin_lens(surfaces, n) || !usable_workspace(scratch) || config->afocal_image != 0 ||
      (config->ray_aiming != 0 && wave_count > kMaxAimedWaves)) {
    return on_cpu(nullptr);
  }
  MeritContext const ctx =
      build_context(surfaces, n, index_table, wave_count, config, fields, field_count);
  bool const aiming = config->ray_aiming != 0;
  double stop_radius[kMaxAimedWaves] = {};
  for (int w = 0; aiming && w < wave_count; ++w) {
    stop_radius[w] = aim_stop_radius(surfaces, n, index_table + static_cast<long>(w) * n, config,
                                     ctx.pupil_radius);
  }
  int const primary = detail::merit_primary_row(*config, wave_count);
  RayList list = {scratch, fields, field_count, &ctx, 0, false, false};
  for (int i = 0; i < count; ++i) {
    int const wave = ops[i].wave;
    int const w = wave < 0 ? primary : (wave >= wave_count ? 0 : wave);
    add_operand_rays(list, ops[i], w, primary, aiming ? stop_radius[w] : 0.0, index_table, n);
  }
  if (list.count == 0) return on_cpu(nullptr);
  GpuTraceScratch& s = *scratch;
  bool const optional = list.launch_wanted || list.normals_wanted;
  bool const normals = list.normals_wanted;
  auto opt = [&](double* a) { return optional ? a : nullptr; };
  auto nrm = [&](double* a) { return normals ? a : nullptr; };
  int const traced = gpu::cuda_run_trace_grid(
      surfaces, n, index_table, wave_count, wavelengths, config, fields, field_count,
      s.field_indices, s.wave_indices, s.px_values, s.py_values, nullptr, ctx.pupil_radius,
      ctx.entrance_pupil_position, s.x, s.y, s.optical_path, s.valid_flags, list.count,
      s.device_scratch, s.device_scratch_bytes, reuse_uploads,
      optional ? s.ray_kinds : nullptr, opt(s.z), opt(s.l), opt(s.m), opt(s.n), opt(s.launch_x),
      opt(s.launch_y), opt(s.launch_z), opt(s.launch_l), opt(s.launch_m), opt(s.launch_n),
      normals ? s.surface_indices : nullptr, nrm(s.normal_x), nrm(s.normal_y), nrm(s.normal_z),
      aiming ? 1 : 0, aiming ? s.stop_radii : nullptr);
  if (traced != 0) return on_cpu(nullptr);
  PreTracedRays const table = {s.hy_values,  s.wave_indices, s.px_values,   s.py_values,
                               s.ray_kinds,  s.surface_indices, s.x,        s.y,
                               s.valid_flags, s.z,           s.l,           s.m,
                               s.n,          s.optical_path, s.launch_x,    s.launch_y,
                               s.launch_z,   s.launch_l,     s.launch_m,    s.launch_n,
                               s.normal_x,   s.normal_y,     s.normal_z,    list.count};
  return on_cpu(&table);
}

}  // namespace nuvrix
