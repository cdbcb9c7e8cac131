// The mixed batch: the entry conditions, the operand classes and their
// tables, the CPU loop over the candidates (their merit, their rows, and
// the first order and aims of the device's rays), the device runs in their
// order, and the merge of the device's rows into the batch's outputs.
#include "gpu/cuda_dispatch.hpp"

#include <math.h>
#include <omp.h>

#include "first_order/semi_diameter.hpp"
#include "gpu/cuda_loader.hpp"
#include "gpu/gpu_jacobian.hpp"
#include "merit/batched_eval.hpp"
#include "merit/dual_launch.hpp"
#include "merit/merit_function.hpp"
#include "merit/merit_jacobian.hpp"
#include "merit/variable_transform.hpp"

namespace nuvrix {
namespace gpu_dispatch {
namespace {

constexpr int kBatchedRayEntries = 5;  // the batched ray kernel takes exactly five
constexpr int kNoClass = -1;           // an operand of weight 0

// The run's plan, made once from the operand list.
struct Plan {
  signed char classes[kMixedMaxOperands];
  int entry_of[kMixedMaxOperands];  // the operand's place among the device entries, or -1
  int entries[kMixedMaxOperands];   // device entries: focal lengths first, then rays
  int focal_lengths, rays;
  int bounds, any_device_class;
  double field_hy[kMixedMaxFieldValues], field_hx[kMixedMaxFieldValues];
  double pupil_px[kMixedMaxPupilPoints], pupil_py[kMixedMaxPupilPoints];
  int field_values, pupil_points, last_opd_field;
  int device_entries() const { return focal_lengths + rays; }
};

bool in(unsigned c, unsigned lo, unsigned hi) { return c >= lo && c <= hi; }

// The place of (a, b) in a table of distinct pairs, added when new; -1
// when the table is full.
int pair_index(double* as, double* bs, int& count, int capacity, double a, double b) {
  for (int k = 0; k < count; ++k) {
    if (as[k] == a && bs[k] == b) return k;
  }
  if (count >= capacity) return -1;
  as[count] = a, bs[count] = b;
  return count++;
}

// Walks the operands of non-zero weight: classes, the tables of distinct
// fields and pupil points, the count of ray and bound entries, and the
// order of the OPD entries.  False where a table overflows or the OPD
// entries step back.
bool classify(MeritOperandDesc const* ops, int count, int n, Plan& p) {
  p.rays = p.bounds = p.any_device_class = p.field_values = p.pupil_points = 0;
  p.last_opd_field = -1;
  int ray_entries = 0;
  for (int i = 0; i < count; ++i) {
    p.classes[i] = kNoClass;
    if (ops[i].weight == 0.0) continue;
    int const c = operand_class(ops[i], n);
    p.classes[i] = static_cast<signed char>(c);
    if (c == kClassCpu) continue;
    p.any_device_class = 1;
    if (c >= kClassRayY && c <= kClassOpdPistonFree) {
      int const f = pair_index(p.field_hy, p.field_hx, p.field_values, kMixedMaxFieldValues,
                               ops[i].hy, ops[i].hx);
      int const q = pair_index(p.pupil_px, p.pupil_py, p.pupil_points, kMixedMaxPupilPoints,
                               ops[i].px, ops[i].py);
      if (f < 0 || q < 0) return false;
      if (c >= kClassOpdRaw) {
        if (f < p.last_opd_field) return false;
        p.last_opd_field = f;
      }
    }
    if ((c == kClassRayY || c == kClassRayX) && ++ray_entries > kMixedMaxRayEntries) return false;
    if (c >= kClassSemiDiameter && c <= kClassAspect && ++p.bounds > kMixedMaxBoundEntries) {
      return false;
    }
  }
  return true;
}

// A centroid group of TRANSVERSE_X or _Y whose members all go to the ray
// kernels: the rows of the group's mean can then be formed from theirs.
bool whole_group_on_device(MeritOperandDesc const* ops, int count, Plan const& p, int i) {
  unsigned const code = ops[i].type;
  if (code != 70 && code != 71) return true;
  for (int j = 0; j < count; ++j) {
    bool const same = ops[j].type == code && ops[j].hy == ops[i].hy &&
                      ops[j].centroid_tag == ops[i].centroid_tag;
    if (same && ops[j].weight != 0.0 && p.classes[j] != p.classes[i]) return false;
  }
  return true;
}

// The device entries: every focal length, then the ray entries.  The other
// device classes keep the rows that the CPU forms for them.
void list_entries(MeritOperandDesc const* ops, int count, Plan& p) {
  int e = 0;
  for (int i = 0; i < count; ++i) {
    p.entry_of[i] = -1;
    if (p.classes[i] == kClassFocalLength) p.entry_of[i] = e, p.entries[e++] = i;
  }
  p.focal_lengths = e;
  for (int i = 0; i < count; ++i) {
    bool const ray = p.classes[i] == kClassRayY || p.classes[i] == kClassRayX;
    if (ray && whole_group_on_device(ops, count, p, i)) p.entry_of[i] = e, p.entries[e++] = i;
  }
  p.rays = e - p.focal_lengths;
}

bool any_thin_lens(SurfaceData const* surfaces, int n) {
  for (int k = 0; k < n; ++k) {
    if (surfaces[k].type == 2) return true;
  }
  return false;
}

bool curvatures_only(MeritVariableDesc const* variables, int count, int n) {
  for (int v = 0; v < count; ++v) {
    if (variables[v].kind != 0 || variables[v].surface < 1 || variables[v].surface > n - 1) {
      return false;
    }
  }
  return true;
}

bool some_weight(MeritOperandDesc const* ops, int count) {
  for (int i = 0; i < count; ++i) {
    if (ops[i].weight != 0.0) return true;
  }
  return false;
}

// The working arrays in the caller's workspace, in doubles.
struct Arrays {
  double* values;    // C x V physical curvatures
  double* factors;   // C x V transform derivatives
  double* pupils;    // C x 2: pupil radius and position
  double* stops;     // C x W: stop radius of each row (0 without aiming)
  double* aims;      // C x rays x 3
  double* store;     // C x entries x (1 + V): the device's value and row
  double* frames;    // C x 3, one ray's frame for a single call
  double* one_aims;  // C x 3
  double* out;       // C x 5 x (1 + V): a run's values and rows
  MeritResult* results;  // C x operands, where the caller keeps none
  long doubles;
};

Arrays lay_out(void* workspace, int C, int V, int W, int operands, Plan const& p,
               bool own_results) {
  long const c = C;
  long const E = p.device_entries();
  double* at = static_cast<double*>(workspace);
  Arrays a = {};
  auto take = [&](long count) {
    double* here = at;
    at += count;
    return here;
  };
  a.values = take(c * V);
  a.factors = take(c * V);
  a.pupils = take(2 * c);
  a.stops = take(c * W);
  a.aims = take(3 * c * p.rays);
  a.store = take(c * E * (V + 1));
  a.frames = take(3 * c);
  a.one_aims = take(3 * c);
  a.out = take(c * kBatchedRayEntries * (V + 1));
  a.results = own_results ? reinterpret_cast<MeritResult*>(take(2 * c * operands)) : nullptr;
  a.doubles = at - static_cast<double*>(workspace);
  return a;
}

struct Run {
  detail::BatchSystem sys;
  MeritBatchedConfig batch;
  Plan const* plan;
  Arrays arrays;
  int const* variable_surfaces;
  int candidates;
  MeritResult* results;
  double* residuals;
  double* jacobians;
  long row;  // residual slots a candidate
};

// A candidate's first order and the host's aims of its device rays, on
// its system with the automatic semi-diameters solved, as the CPU's merit
// sees it.
void frame_candidate(Run const& run, int c, SurfaceData const* candidate, SurfaceData* solved,
                     FieldData const* fields) {
  detail::BatchSystem const& s = run.sys;
  Arrays const& a = run.arrays;
  int const V = s.variable_count;
  for (int v = 0; v < V; ++v) {
    MeritVariableDesc const& var = s.variables[v];
    double const p = read_variable_value(var, candidate, s.n, fields, s.field_count);
    double const x = transform_to_unbounded(p, var.has_lower, var.lower, var.has_upper, var.upper);
    bool const bounded = var.has_lower != 0 || var.has_upper != 0;
    a.values[static_cast<long>(c) * V + v] = p;
    a.factors[static_cast<long>(c) * V + v] =
        bounded ? transform_jacobian(x, var.has_lower, var.lower, var.has_upper, var.upper) : 1.0;
  }
  Plan const& plan = *run.plan;
  if (plan.rays == 0) return;
  for (int i = 0; i < s.n; ++i) solved[i] = candidate[i];
  solve_semi_diameters(solved, s.n, s.index_table, s.wavelengths, s.wave_count, s.config, fields,
                       s.field_count);
  MeritContext const ctx = build_context(solved, s.n, s.index_table, s.wave_count, s.config,
                                         fields, s.field_count);
  double* const stops = a.stops + static_cast<long>(c) * s.wave_count;
  a.pupils[2 * c] = ctx.pupil_radius, a.pupils[2 * c + 1] = ctx.entrance_pupil_position;
  for (int w = 0; w < s.wave_count; ++w) {
    stops[w] = detail::merit_aim_radius(solved, s.n, s.index_table + static_cast<long>(w) * s.n,
                                s.config, ctx);
  }
  if (!ctx.aim_flag) return;
  for (int e = 0; e < plan.rays; ++e) {
    MeritOperandDesc const& op = s.ops[plan.entries[plan.focal_lengths + e]];
    int const w = detail::merit_wave_index(op.wave, *s.config, s.wave_count);
    double* u = a.aims + (static_cast<long>(c) * plan.rays + e) * 3;
    if (!aim_plain_launch(solved, s.n, s.index_table + static_cast<long>(w) * s.n, *s.config,
                          op.hy * ctx.max_field_y, op.hx * ctx.max_field_x, ctx.pupil_radius,
                          ctx.entrance_pupil_position, stops[w], op.px, op.py, u)) {
      u[0] = NAN;
    }
  }
}

// The CPU's part of one candidate, on copies on this worker's stack: its
// merit and rows, and then what the device needs of it.  A candidate whose
// evaluation fails keeps rows of zeros.
[[gnu::noinline]] int cpu_candidate(Run const& run, double const* candidate_x, double* merits,
                                    int c, int* residual_count,
                                    detail::AnalyticBuffers const& analytic, bool want_jacobian) {
  SurfaceData surfaces[kMixedMaxSurfaces], work[kMixedMaxSurfaces];
  FieldData fields[kMixedMaxFields], work_fields[kMixedMaxFields];
  detail::BatchSystem const& s = run.sys;
  long const ops = s.operand_count, V = s.variable_count;
  int unused_count = 0;
  double* const jacobian = run.jacobians != nullptr ? run.jacobians + run.row * V * c : nullptr;
  detail::CandidateSlot const slot = {
      surfaces, work, fields, work_fields, run.results + ops * c, run.residuals + run.row * c,
      jacobian, merits + c, c == 0 && residual_count != nullptr ? residual_count : &unused_count};
  int const status = detail::evaluate_candidate(s, candidate_x + V * c, slot, want_jacobian,
                                                run.batch.jacobian_mode, analytic);
  if (!want_jacobian) return status;
  if (status != 0) {
    for (long k = 0; k < run.row * V; ++k) jacobian[k] = 0.0;
    return status;
  }
  if (run.plan->device_entries() > 0) frame_candidate(run, c, surfaces, work, fields);
  return status;
}

// Copies a run's values and rows (count x entries, entry-major within a
// candidate) into the store at the entries from `first`.
void keep(Run const& run, int first, int entries, double const* out) {
  int const V = run.sys.variable_count;
  long const E = run.plan->device_entries(), C = run.candidates;
  double const* rows = out + C * entries;
  for (long c = 0; c < C; ++c) {
    for (int e = 0; e < entries; ++e) {
      double* to = run.arrays.store + (c * E + first + e) * (V + 1);
      to[0] = out[c * entries + e];
      for (int v = 0; v < V; ++v) to[1 + v] = rows[(c * entries + e) * V + v];
    }
  }
}

int run_focal_lengths(Run const& run) {
  detail::BatchSystem const& s = run.sys;
  Arrays const& a = run.arrays;
  for (int e = 0; e < run.plan->focal_lengths; ++e) {
    MeritOperandDesc const& op = s.ops[run.plan->entries[e]];
    int const w = detail::merit_wave_index(op.wave, *s.config, s.wave_count);
    int const rc = gpu::cuda_run_efl_jacobian(
        s.surfaces, s.n, s.index_table + static_cast<long>(w) * s.n, run.variable_surfaces,
        s.variable_count, a.values, a.factors, a.out, a.out + run.candidates, run.candidates);
    if (rc != 0) return -2;
    keep(run, e, 1, a.out);
  }
  return 0;
}

// The ray an entry traces to: RAY_X and RAY_Y to their surface, the
// transverse operands to the image.
int last_surface(MeritOperandDesc const& op) { return op.type <= 1 ? op.surface : 0; }

// Five ray entries of one row to the image go to the batched kernel.
bool batched_rays(Run const& run) {
  Plan const& p = *run.plan;
  if (p.rays != kBatchedRayEntries) return false;
  for (int e = 0; e < p.rays; ++e) {
    if (last_surface(run.sys.ops[p.entries[p.focal_lengths + e]]) != 0) return false;
  }
  return true;
}

int run_rays_batched(Run const& run, MeritContext const& ctx) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  Arrays const& a = run.arrays;
  SystemConfig const& cfg = *s.config;
  long const C = run.candidates;
  double fields[2 * kBatchedRayEntries], px[kBatchedRayEntries], py[kBatchedRayEntries];
  int is_x[kBatchedRayEntries];
  int const row = detail::merit_wave_index(s.ops[p.entries[p.focal_lengths]].wave, cfg,
                                           s.wave_count);
  for (int e = 0; e < kBatchedRayEntries; ++e) {
    int const i = p.entries[p.focal_lengths + e];
    MeritOperandDesc const& op = s.ops[i];
    fields[2 * e] = op.hy * ctx.max_field_y, fields[2 * e + 1] = op.hx * ctx.max_field_x;
    px[e] = op.px, py[e] = op.py;
    is_x[e] = p.classes[i] == kClassRayX ? 1 : 0;
  }
  double* const radii = a.frames;
  double* const positions = a.frames + C;
  double* const stops = a.frames + 2 * C;
  for (long c = 0; c < C; ++c) {
    radii[c] = a.pupils[2 * c], positions[c] = a.pupils[2 * c + 1];
    stops[c] = a.stops[c * s.wave_count + row];
  }
  double const setup[6] = {static_cast<double>(cfg.field_type),
                           static_cast<double>(cfg.aperture_type),
                           static_cast<double>(cfg.ray_aiming),
                           static_cast<double>(cfg.stop_surface),
                           static_cast<double>(cfg.telecentric_object), cfg.aperture_value};
  int const rc = gpu::cuda_run_ry_batched_jacobian(
      s.surfaces, s.n, s.index_table, run.variable_surfaces, s.variable_count, a.values, setup,
      fields, kBatchedRayEntries, px, py, a.factors, detail::merit_primary_row(cfg, s.wave_count),
      row, radii, positions, stops, a.aims, a.out, a.out + C * kBatchedRayEntries,
      run.candidates, is_x);
  if (rc != 0) return -2;
  keep(run, p.focal_lengths, kBatchedRayEntries, a.out);
  return 0;
}

int run_rays_single(Run const& run, MeritContext const& ctx) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  Arrays const& a = run.arrays;
  SystemConfig const& cfg = *s.config;
  long const C = run.candidates;
  for (int e = 0; e < p.rays; ++e) {
    int const i = p.entries[p.focal_lengths + e];
    MeritOperandDesc const& op = s.ops[i];
    int const row = detail::merit_wave_index(op.wave, cfg, s.wave_count);
    for (long c = 0; c < C; ++c) {
      a.frames[3 * c] = a.pupils[2 * c], a.frames[3 * c + 1] = a.pupils[2 * c + 1];
      a.frames[3 * c + 2] = a.stops[c * s.wave_count + row];
      for (int k = 0; k < 3; ++k) a.one_aims[3 * c + k] = a.aims[(c * p.rays + e) * 3 + k];
    }
    double const setup[6] = {static_cast<double>(cfg.field_type),
                             static_cast<double>(cfg.aperture_type),
                             static_cast<double>(cfg.ray_aiming),
                             static_cast<double>(cfg.stop_surface),
                             static_cast<double>(cfg.telecentric_object),
                             p.classes[i] == kClassRayX ? 0.0 : 1.0};
    int const rc = gpu::cuda_run_ry_jacobian(
        s.surfaces, s.n, s.index_table, run.variable_surfaces, s.variable_count,
        op.hy * ctx.max_field_y, op.hx * ctx.max_field_x, a.values, op.px, op.py,
        cfg.aperture_value, row, detail::merit_primary_row(cfg, s.wave_count), a.factors,
        a.frames, a.one_aims, setup, a.out, a.out + C, run.candidates, last_surface(op));
    if (rc != 0) return -2;
    keep(run, p.focal_lengths + e, 1, a.out);
  }
  return 0;
}

// The device row of operand i of candidate c, as the CPU's analytic row
// forms it: the centroid of a TRANSVERSE_Y group taken out, the sign of an
// absolute value, the bounds, the root of the weight.  False where the
// CPU's row stays: a failed operand, or a ray that failed on the device.
bool device_row(Run const& run, long c, int i, double* row) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  int const V = s.variable_count;
  long const E = p.device_entries();
  MeritResult const* results = run.results + c * s.operand_count;
  MeritOperandDesc const& op = s.ops[i];
  auto stored = [&](int j) { return run.arrays.store + (c * E + p.entry_of[j]) * (V + 1); };
  if (results[i].status != 1 || !isfinite(stored(i)[0])) return false;
  for (int v = 0; v < V; ++v) row[v] = stored(i)[1 + v];
  if (op.type == 71) {
    double weights = 0.0, mean[kMixedMaxVariables] = {};
    for (int j = 0; j < s.operand_count; ++j) {
      MeritOperandDesc const& m = s.ops[j];
      bool const same = m.type == 71 && m.hy == op.hy && m.centroid_tag == op.centroid_tag;
      if (!same || m.weight == 0.0 || results[j].status == -1) continue;
      if (!isfinite(stored(j)[0])) return false;
      for (int v = 0; v < V; ++v) mean[v] += m.weight * stored(j)[1 + v];
      weights += m.weight;
    }
    if (weights > 0.0) {
      for (int v = 0; v < V; ++v) row[v] -= mean[v] / weights;
    }
  }
  double const value = results[i].value;
  double const sign = op.transform == 8 && value < 0.0 ? -1.0 : 1.0;
  double const t = detail::merit_transform(op.transform, value);
  bool const bounded = op.has_lower != 0 || op.has_upper != 0;
  bool const broken = (op.has_lower != 0 && op.lower > t) || (op.has_upper != 0 && t > op.upper);
  double const scale = bounded && !broken ? 0.0 : sign * sqrt(op.weight);
  for (int v = 0; v < V; ++v) row[v] *= scale;
  return true;
}

// The device's rows into candidate c's block, at the residual slots of
// their operands.
void merge_candidate(Run const& run, long c) {
  detail::BatchSystem const& s = run.sys;
  MeritResult const* results = run.results + c * s.operand_count;
  int const V = s.variable_count;
  double* const jacobian = run.jacobians + run.row * V * c;
  double row[kMixedMaxVariables];
  int slot = 0;
  for (int i = 0; i < s.operand_count; ++i) {
    if (s.ops[i].weight == 0.0 || results[i].status == 0) continue;
    int const here = slot++;
    if (run.plan->entry_of[i] < 0 || !device_row(run, c, i, row)) continue;
    for (int v = 0; v < V; ++v) jacobian[static_cast<long>(here) * V + v] = row[v];
  }
}

// The refusals that need nothing but the arguments.
bool outside_entry_conditions(SurfaceData const* surfaces, int n, double const* index_table,
                              int wave_count, SystemConfig const* config, int field_count,
                              MeritOperandDesc const* ops, int operand_count,
                              MeritVariableDesc const* variables, int variable_count,
                              int pickup_count) {
  if (variable_count < 1 || variable_count > kMixedMaxVariables) return true;
  if (n < 2 || n > kMixedMaxSurfaces) return true;
  if (pickup_count != 0) return true;
  if (index_table == nullptr || config == nullptr || wave_count < 1 || field_count < 1 ||
      field_count > kMixedMaxFields) {
    return true;
  }
  if (any_thin_lens(surfaces, n)) return true;
  if (!curvatures_only(variables, variable_count, n)) return true;
  return operand_count > kMixedMaxOperands || !some_weight(ops, operand_count);
}

// Five entries for the batched kernel must share one index row.
bool rows_differ(Run const& run) {
  Plan const& p = *run.plan;
  SystemConfig const& cfg = *run.sys.config;
  int const first = detail::merit_wave_index(run.sys.ops[p.entries[p.focal_lengths]].wave, cfg,
                                             run.sys.wave_count);
  for (int e = 1; e < p.rays; ++e) {
    int const w = detail::merit_wave_index(run.sys.ops[p.entries[p.focal_lengths + e]].wave, cfg,
                                           run.sys.wave_count);
    if (w != first) return true;
  }
  return false;
}

}  // namespace

int operand_class(MeritOperandDesc const& op, int n) {
  if (op.transform != 0 && op.transform != 8) return kClassCpu;
  unsigned const code = op.type;
  switch (code) {
    case 50: return kClassFocalLength;
    case 1:
    case 71: return kClassRayY;
    case 0:
    case 70: return kClassRayX;
    case 72: return kClassSpotX;
    case 73: return kClassSpotY;
    case 69: return kClassOpdRaw;
    case 67: return kClassOpdTiltFree;
    case 68: return kClassOpdPistonFree;
    default: break;
  }
  if (!in(code, 43, 47)) return kClassCpu;
  // A bound entry reads one surface, and the edges also the one behind it.
  int const s = op.surface_first;
  bool const edge = in(code, 43, 45);
  if (s != op.surface_last || s < 1 || s >= n || (edge && s + 1 >= n)) return kClassCpu;
  if (code == 46) return kClassSemiDiameter;
  if (code == 47) return kClassAspect;
  return kClassEdge + static_cast<int>(code - 43);
}

int evaluate_mixed(SurfaceData const* surfaces, int n, double const* index_table,
                   double const* wavelengths, int wave_count, SystemConfig const* config,
                   FieldData const* fields, int field_count, MeritOperandDesc const* ops,
                   int operand_count, MeritVariableDesc const* variables, int variable_count,
                   MeritPickupDesc const* pickups, int pickup_count, int candidate_count,
                   double const* candidate_x, double* residuals, double* jacobians,
                   MeritResult* results, double* merits, int* residual_count, bool want_jacobian,
                   void* workspace, long workspace_size, double* sd_scratch, int* sd_rows,
                   double* sd_scratch_a, double* sd_scratch_b, MeritBatchedConfig batch) {
  if (outside_entry_conditions(surfaces, n, index_table, wave_count, config, field_count, ops,
                               operand_count, variables, variable_count, pickup_count)) {
    return -2;
  }
  Plan plan;
  if (!classify(ops, operand_count, n, plan)) return -2;
  if (plan.any_device_class &&
      (config->aperture_type > 2 || config->ray_aiming > 2 || config->field_type > 1)) {
    return -2;
  }
  if (plan.bounds > 0 && field_count != 1) return -2;
  if (want_jacobian && jacobians == nullptr) return -2;
  if (!want_jacobian) plan.focal_lengths = plan.rays = 0;  // nothing for the device to do
  else list_entries(ops, operand_count, plan);

  Run run = {};
  run.sys = {surfaces, n, index_table, wavelengths, wave_count, config, fields, field_count,
             ops, operand_count, variables, variable_count, pickups, pickup_count};
  run.batch = batch;
  run.plan = &plan;
  run.candidates = candidate_count;
  run.residuals = residuals;
  run.jacobians = jacobians;
  run.row = detail::batch_residual_stride(operand_count);
  run.arrays = lay_out(workspace, candidate_count, variable_count, wave_count, operand_count, plan,
                       results == nullptr);
  if (run.arrays.doubles * static_cast<long>(sizeof(double)) > workspace_size) return -2;
  run.results = results != nullptr ? results : run.arrays.results;
  if (batched_rays(run) && rows_differ(run)) return -2;
  // Without a device the run would end at its first launch: end it now.
  if (plan.device_entries() > 0 && gpu::detail::enter_device() != 0) return -2;
  int variable_surfaces[kMixedMaxVariables];
  for (int v = 0; v < variable_count; ++v) variable_surfaces[v] = variables[v].surface;
  run.variable_surfaces = variable_surfaces;

  detail::AnalyticBuffers const analytic = {sd_scratch, sd_rows, sd_scratch_a, sd_scratch_b,
                                            nullptr};
  int const team = batch.thread_count > 0 ? batch.thread_count : omp_get_max_threads();
  int shared = 0;
#pragma omp parallel for num_threads(team) schedule(dynamic, 1)
  for (int c = 0; c < candidate_count; ++c) {
    detail::merge_batch_status(shared, cpu_candidate(run, candidate_x, merits, c, residual_count,
                                                     analytic, want_jacobian));
  }
  if (shared != 0 || plan.device_entries() == 0) return shared;

  // The device runs, one after the other on this thread.
  MeritContext const ctx =
      build_context(surfaces, n, index_table, wave_count, config, fields, field_count);
  if (run_focal_lengths(run) != 0) return -2;
  if (plan.rays > 0) {
    int const rc = batched_rays(run) ? run_rays_batched(run, ctx) : run_rays_single(run, ctx);
    if (rc != 0) return -2;
  }
#pragma omp parallel for num_threads(team) schedule(static)
  for (int c = 0; c < candidate_count; ++c) merge_candidate(run, c);
  return 0;
}

}  // namespace gpu_dispatch
}  // namespace nuvrix
