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
constexpr int kMaxKernelEntries = 512;  // entries of one spot or OPD launch
constexpr int kNoClass = -1;            // an operand of weight 0
constexpr int kSamples = 8;             // pupil samples of the semi-diameter solve
constexpr int kMaxSdSurfaces = 2 * kMixedMaxBoundEntries;
constexpr int kSlots = 8;  // variables a pass of the group corrections

using GroupDual = Dual<10>;  // the dual number of the CPU's analytic rows
using EdgeDual = Dual<4>;

// The run's plan, made once from the operand list.  The device entries
// stand in `entries` in four consecutive runs: focal lengths, rays, spots,
// OPDs; the bound operands have their own list, and the surfaces whose
// automatic semi-diameters they read theirs.
struct Plan {
  signed char classes[kMixedMaxOperands];
  int entry_of[kMixedMaxOperands];  // the operand's place among the entries, or -1
  int entries[kMixedMaxOperands];
  int focal_lengths, rays, spots, opds;
  int bound_ops[kMixedMaxBoundEntries], bounds_on_device;
  int sd_surfaces[kMaxSdSurfaces], sd_count;
  int bounds, any_device_class;
  double field_hy[kMixedMaxFieldValues], field_hx[kMixedMaxFieldValues];
  double pupil_px[kMixedMaxPupilPoints], pupil_py[kMixedMaxPupilPoints];
  int field_values, pupil_points, last_opd_field;
  int first_spot() const { return focal_lengths + rays; }
  int first_opd() const { return focal_lengths + rays + spots; }
  int device_entries() const { return focal_lengths + rays + spots + opds; }
  bool any_work() const { return device_entries() > 0 || bounds_on_device > 0; }
};

bool in(unsigned c, unsigned lo, unsigned hi) { return c >= lo && c <= hi; }
bool is_bound_class(int c) { return c >= kClassSemiDiameter && c <= kClassAspect; }

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
  p.bounds = p.any_device_class = p.field_values = p.pupil_points = 0;
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
    if (is_bound_class(c) && ++p.bounds > kMixedMaxBoundEntries) return false;
  }
  return true;
}

// Operands whose corrected values depend on one another: a centroid group
// of TRANSVERSE_X or _Y (code, field, centroid tag), a piston group of
// OPD_PISTON_FREE (field, wavelength) and a tilt group of OPD_TILT_FREE
// (field).
bool same_group(MeritOperandDesc const& a, MeritOperandDesc const& b) {
  if (a.type != b.type || a.hy != b.hy) return false;
  if (a.type == 70 || a.type == 71) return a.centroid_tag == b.centroid_tag;
  if (a.type == 68) return a.wave == b.wave;
  return a.type == 67;
}

// A group goes to the device only as a whole, so that its corrections can
// be formed from the device's rows.
bool whole_group_on_device(MeritOperandDesc const* ops, int count, Plan const& p, int i) {
  for (int j = 0; j < count; ++j) {
    if (ops[j].weight != 0.0 && same_group(ops[i], ops[j]) && p.classes[j] != p.classes[i]) {
      return false;
    }
  }
  return true;
}

// The entries of the classes in [lo, hi], at most `limit` of them: those
// beyond, and groups not wholly on the device, keep the CPU's rows.
int list_class(MeritOperandDesc const* ops, int count, Plan& p, int lo, int hi, int limit,
               int& e) {
  int listed = 0;
  for (int i = 0; i < count && listed < limit; ++i) {
    if (p.classes[i] < lo || p.classes[i] > hi || !whole_group_on_device(ops, count, p, i)) {
      continue;
    }
    p.entry_of[i] = e, p.entries[e++] = i, ++listed;
  }
  return listed;
}

void add_sd_surface(Plan& p, int k) {
  for (int j = 0; j < p.sd_count; ++j) {
    if (p.sd_surfaces[j] == k) return;
  }
  p.sd_surfaces[p.sd_count++] = k;
}

void list_entries(MeritOperandDesc const* ops, int count, Plan& p) {
  for (int i = 0; i < count; ++i) p.entry_of[i] = -1;
  int e = 0;
  p.focal_lengths = list_class(ops, count, p, kClassFocalLength, kClassFocalLength, count, e);
  p.rays = list_class(ops, count, p, kClassRayY, kClassRayX, kMixedMaxRayEntries, e);
  p.spots = list_class(ops, count, p, kClassSpotX, kClassSpotY, kMaxKernelEntries, e);
  p.opds = list_class(ops, count, p, kClassOpdRaw, kClassOpdPistonFree, kMaxKernelEntries, e);
  p.bounds_on_device = p.sd_count = 0;
  for (int i = 0; i < count; ++i) {
    if (!is_bound_class(p.classes[i])) continue;
    p.bound_ops[p.bounds_on_device++] = i;
    add_sd_surface(p, ops[i].surface_first);
    if (p.classes[i] >= kClassEdge && p.classes[i] <= kClassEdgeGlass) {
      add_sd_surface(p, ops[i].surface_first + 1);
    }
  }
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

// The working arrays in the caller's workspace (doubles; C candidates, V
// variables, W index rows, E device entries, S semi-diameter samples);
// every per-candidate array is candidate-major.
struct Arrays {
  double* values;      // C x V physical curvatures
  double* factors;     // C x V transform derivatives
  double* pupils;      // C x 3: pupil radius, pupil position, reference radius
  double* stops;       // C x W: stop radius of each row (0 without aiming)
  double* ray_aims;    // C x rays x 3
  double* spot_aims;   // C x spots x 3, then the chief rays' C x spots x 3
  double* opd_aims;    // C x OPDs x 3, then the chief rays', then the references'
  double* store;       // C x E x (1 + V): the device's value and row of each entry
  double* sd_frames;   // 3 x C x W: marginal height, pupil position, stop radius
  double* sd_aims;     // C x S x 3
  double* sd_choice;   // C x surfaces x 3: the sample that set the semi-diameter (-1:
                       // none), its scale, the semi-diameter
  double* sd_store;    // C x surfaces x (1 + V): usable (1, NaN when not) and the row
  double* sd_entries;  // S x 4: the samples' field, pupil point and scale
  int* sd_entry_ints;  // S x 2: the samples' surface and row
  double* frames;      // C x 6: one ray's frame and aim for a single call
  double* out;         // a run's values and rows
  MeritResult* results;  // C x operands, where the caller keeps none
  long doubles;
};

int sd_samples(Plan const& p, int W) { return p.sd_count * kSamples * W; }

Arrays lay_out(void* workspace, int C, int V, int W, int operands, Plan const& p,
               bool own_results) {
  long const c = C, E = p.device_entries(), S = sd_samples(p, W);
  long widest = E > S ? E : S;  // the largest single run
  if (widest < kBatchedRayEntries) widest = kBatchedRayEntries;
  double* at = static_cast<double*>(workspace);
  Arrays a = {};
  auto take = [&](long count) {
    double* here = at;
    at += count;
    return here;
  };
  a.values = take(c * V);
  a.factors = take(c * V);
  a.pupils = take(3 * c);
  a.stops = take(c * W);
  a.ray_aims = take(3 * c * p.rays);
  a.spot_aims = take(6 * c * p.spots);
  a.opd_aims = take(9 * c * p.opds);
  a.store = take(c * E * (V + 1));
  a.sd_frames = take(3 * c * W);
  a.sd_aims = take(3 * c * S);
  a.sd_choice = take(3 * c * p.sd_count);
  a.sd_store = take(c * p.sd_count * (V + 1));
  a.sd_entries = take(4 * S);
  a.sd_entry_ints = reinterpret_cast<int*>(take(S));
  a.frames = take(6 * c);
  a.out = take(c * widest * (V + 1));
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
  double const* candidate_x;
  MeritResult* results;
  double* residuals;
  double* jacobians;
  double* merits;
  int* residual_count;
  detail::AnalyticBuffers analytic;
  // The CPU's share of the Jacobian: the list with the device's operands
  // taken out (null: the CPU differentiates the whole list).
  MeritOperandDesc const* cpu_ops;
  long row;  // residual slots a candidate
};

// The host's plain aim of one ray on row w, NaN first where it fails;
// zeros without aiming, which the kernels do not read.
void aim_ray(detail::BatchSystem const& s, SurfaceData const* system, int w, double stop_radius,
             double field_y, double field_x, double pupil_radius, double ep, double px,
             double py, double* u) {
  u[0] = u[1] = u[2] = 0.0;
  if (s.config->ray_aiming == 0) return;
  if (!aim_plain_launch(system, s.n, s.index_table + static_cast<long>(w) * s.n, *s.config,
                        field_y, field_x, pupil_radius, ep, stop_radius, px, py, u)) {
    u[0] = NAN;
  }
}

// The aims of candidate c's device rays: a ray each ray entry, the ray and
// its chief ray each spot, and the ray, its chief ray and the chief ray on
// the primary row (the reference) each OPD.
void aim_entries(Run const& run, long c, SurfaceData const* solved, MeritContext const& ctx) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  Arrays const& a = run.arrays;
  long const C = run.candidates;
  double const* stops = a.stops + c * s.wave_count;
  int const primary = detail::merit_primary_row(*s.config, s.wave_count);
  double const R = ctx.pupil_radius, ep = ctx.entrance_pupil_position;
  for (int e = p.focal_lengths; e < p.device_entries(); ++e) {
    MeritOperandDesc const& op = s.ops[p.entries[e]];
    int const w = detail::merit_wave_index(op.wave, *s.config, s.wave_count);
    double const fy = op.hy * ctx.max_field_y, fx = op.hx * ctx.max_field_x;
    auto aim = [&](double* u, int row, double px, double py) {
      aim_ray(s, solved, row, stops[row], fy, fx, R, ep, px, py, u);
    };
    if (e < p.first_spot()) {
      aim(a.ray_aims + 3 * (c * p.rays + e - p.focal_lengths), w, op.px, op.py);
    } else if (e < p.first_opd()) {
      long const k = 3 * (c * p.spots + e - p.first_spot());
      aim(a.spot_aims + k, w, op.px, op.py);
      aim(a.spot_aims + 3 * C * p.spots + k, w, 0.0, 0.0);
    } else {
      long const k = 3 * (c * p.opds + e - p.first_opd()), block = 3 * C * p.opds;
      aim(a.opd_aims + k, w, op.px, op.py);
      aim(a.opd_aims + block + k, w, 0.0, 0.0);
      aim(a.opd_aims + 2 * block + k, primary, 0.0, 0.0);
    }
  }
}

// The semi-diameter solve's frame of every row, the aims of its samples,
// and which sample set each semi-diameter that a bound reads.
void frame_solve(Run const& run, long c, SurfaceData const* candidate, SurfaceData const* solved,
                 SdArgmax const* argmax) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  Arrays const& a = run.arrays;
  SystemConfig const& cfg = *s.config;
  long const W = s.wave_count, C = run.candidates, S = sd_samples(p, s.wave_count);
  for (int w = 0; w < W; ++w) {
    double const* row = s.index_table + w * s.n;
    double const R = paraxial_marginal_height(candidate, s.n, row, cfg);
    double const ep = cfg.stop_surface < 2 ? 0.0
                                           : compute_entrance_pupil_position(candidate, s.n, row,
                                                                             cfg.stop_surface);
    double const stop = cfg.ray_aiming != 0 ? aim_stop_radius(candidate, s.n, row, &cfg, R) : 0.0;
    a.sd_frames[c * W + w] = R, a.sd_frames[(C + c) * W + w] = ep;
    a.sd_frames[(2 * C + c) * W + w] = stop;
    for (int j = 0; j < p.sd_count; ++j) {
      for (int k = 0; k < kSamples; ++k) {
        double* u = a.sd_aims + 3 * (c * S + (j * W + w) * kSamples + k);
        aim_ray(s, candidate, w, stop, s.fields[0].field_y, 0.0, R, ep, sd_px_vals[k],
                sd_py_vals[k], u);
      }
    }
  }
  for (int j = 0; j < p.sd_count; ++j) {
    int const k = p.sd_surfaces[j];
    SdArgmax const& m = argmax[k];
    double* choice = a.sd_choice + 3 * (c * p.sd_count + j);
    bool const traced = m.has_ray && !m.is_fixed && m.sample >= 0 && m.wavelength >= 0;
    choice[0] = traced ? static_cast<double>((j * W + m.wavelength) * kSamples + m.sample) : -1.0;
    choice[1] = m.scale;
    choice[2] = solved[k].semi_diameter;
  }
}

// A candidate's variables (values and transform derivatives), and on its
// system with the automatic semi-diameters solved, as the CPU's merit sees
// it, the first order and the host's aims of its device rays.
void frame_candidate(Run const& run, long c, SurfaceData const* candidate, SurfaceData* solved,
                     FieldData const* fields) {
  detail::BatchSystem const& s = run.sys;
  Arrays const& a = run.arrays;
  Plan const& p = *run.plan;
  int const V = s.variable_count;
  for (int v = 0; v < V; ++v) {
    MeritVariableDesc const& var = s.variables[v];
    double const value = read_variable_value(var, candidate, s.n, fields, s.field_count);
    double const x =
        transform_to_unbounded(value, var.has_lower, var.lower, var.has_upper, var.upper);
    bool const bounded = var.has_lower != 0 || var.has_upper != 0;
    a.values[c * V + v] = value;
    a.factors[c * V + v] =
        bounded ? transform_jacobian(x, var.has_lower, var.lower, var.has_upper, var.upper) : 1.0;
  }
  if (p.device_entries() == p.focal_lengths && p.bounds_on_device == 0) return;
  SdArgmax argmax[kMixedMaxSurfaces];
  for (int i = 0; i < s.n; ++i) solved[i] = candidate[i];
  solve_semi_diameters_impl(solved, s.n, s.index_table, s.wavelengths, s.wave_count, s.config,
                            fields, s.field_count, argmax);
  MeritContext const ctx = build_context(solved, s.n, s.index_table, s.wave_count, s.config,
                                         fields, s.field_count);
  a.pupils[3 * c] = ctx.pupil_radius, a.pupils[3 * c + 1] = ctx.entrance_pupil_position;
  a.pupils[3 * c + 2] = ctx.reference_radius;
  for (int w = 0; w < s.wave_count; ++w) {
    a.stops[c * s.wave_count + w] = detail::merit_aim_radius(
        solved, s.n, s.index_table + static_cast<long>(w) * s.n, s.config, ctx);
  }
  aim_entries(run, c, solved, ctx);
  if (p.bounds_on_device > 0) frame_solve(run, c, candidate, solved, argmax);
}

// Moves the rows of the CPU's share (its operands' slots, then the ray
// groups' slots) to the slots they have in the whole list, last first, and
// clears the rows of the device's operands, which the merge fills.
void spread_rows(Run const& run, long c, int cpu_count) {
  detail::BatchSystem const& s = run.sys;
  int const V = s.variable_count;
  MeritResult const* results = run.results + c * s.operand_count;
  double* const jacobian = run.jacobians + run.row * V * c;
  int cpu_slot_of[kMixedMaxOperands];  // the whole list's slot of each row of the share
  int cpu_slots = 0, slots = 0;
  for (int i = 0; i < s.operand_count; ++i) {
    if (s.ops[i].weight == 0.0 || results[i].status == 0) continue;
    if (run.cpu_ops[i].weight != 0.0) cpu_slot_of[cpu_slots++] = slots;
    ++slots;
  }
  for (int r = cpu_count - 1; r >= 0; --r) {
    int const to = r < cpu_slots ? cpu_slot_of[r] : slots + (r - cpu_slots);
    for (int v = 0; v < V && to != r; ++v) {
      jacobian[static_cast<long>(to) * V + v] = jacobian[static_cast<long>(r) * V + v];
    }
  }
  int k = 0;
  for (int to = 0; to < slots; ++to) {
    if (k < cpu_slots && cpu_slot_of[k] == to) {
      ++k;
      continue;
    }
    for (int v = 0; v < V; ++v) jacobian[static_cast<long>(to) * V + v] = 0.0;
  }
}

// The CPU's part of one candidate, on copies on this worker's stack: its
// merit and rows (of its share of the list, or of all of it with `whole`),
// and then what the device needs of it.  A candidate whose evaluation
// fails keeps rows of zeros.
[[gnu::noinline]] int cpu_candidate(Run const& run, int c, bool want_jacobian, bool whole) {
  SurfaceData surfaces[kMixedMaxSurfaces], work[kMixedMaxSurfaces];
  FieldData fields[kMixedMaxFields], work_fields[kMixedMaxFields];
  detail::BatchSystem const& s = run.sys;
  long const ops = s.operand_count, V = s.variable_count;
  int unused_count = 0, share_count = 0;
  double* const jacobian = run.jacobians != nullptr ? run.jacobians + run.row * V * c : nullptr;
  int* const count = c == 0 && run.residual_count != nullptr ? run.residual_count : &unused_count;
  detail::CandidateSlot slot = {surfaces, work, fields, work_fields, run.results + ops * c,
                                run.residuals + run.row * c, jacobian, run.merits + c, count};
  double const* x = run.candidate_x + V * c;
  int const mode = run.batch.jacobian_mode;
  bool const share = want_jacobian && !whole && run.cpu_ops != nullptr;
  int status = 0;
  if (share) {
    // The share's rows first; then the whole list's values over its outputs.
    detail::BatchSystem cpu = s;
    cpu.ops = run.cpu_ops;
    slot.residual_count = &share_count;
    status = detail::evaluate_candidate(cpu, x, slot, true, mode, run.analytic);
    slot.residual_count = count;
    int const values = detail::evaluate_candidate(s, x, slot, false, mode, run.analytic);
    if (status == 0) status = values;
  } else {
    status = detail::evaluate_candidate(s, x, slot, want_jacobian, mode, run.analytic);
  }
  if (!want_jacobian) return status;
  if (status != 0) {
    for (long k = 0; k < run.row * V; ++k) jacobian[k] = 0.0;
    return status;
  }
  if (share) spread_rows(run, c, share_count);
  if (!whole && run.plan->any_work()) frame_candidate(run, c, surfaces, work, fields);
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

// The configuration as the ray kernels read it; the last number is the
// aperture value, or the coordinate of the single ray kernel.
void setup_of(SystemConfig const& cfg, double last, double* setup) {
  setup[0] = static_cast<double>(cfg.field_type);
  setup[1] = static_cast<double>(cfg.aperture_type);
  setup[2] = static_cast<double>(cfg.ray_aiming);
  setup[3] = static_cast<double>(cfg.stop_surface);
  setup[4] = static_cast<double>(cfg.telecentric_object);
  setup[5] = last;
}

int entry_row(Run const& run, int e) {
  return detail::merit_wave_index(run.sys.ops[run.plan->entries[e]].wave, *run.sys.config,
                                  run.sys.wave_count);
}

int primary_row(Run const& run) {
  return detail::merit_primary_row(*run.sys.config, run.sys.wave_count);
}

int run_focal_lengths(Run const& run) {
  detail::BatchSystem const& s = run.sys;
  Arrays const& a = run.arrays;
  for (int e = 0; e < run.plan->focal_lengths; ++e) {
    int const rc = gpu::cuda_run_efl_jacobian(
        s.surfaces, s.n, s.index_table + static_cast<long>(entry_row(run, e)) * s.n,
        run.variable_surfaces, s.variable_count, a.values, a.factors, a.out,
        a.out + run.candidates, run.candidates);
    if (rc != 0) return -2;
    keep(run, e, 1, a.out);
  }
  return 0;
}

// The ray an entry traces to: RAY_X and RAY_Y to their surface, the
// transverse operands to the image.
int last_surface(MeritOperandDesc const& op) { return op.type <= 1 ? op.surface : 0; }

// Exactly five ray entries, all to the image, go to the batched kernel.
bool batched_rays(Run const& run) {
  Plan const& p = *run.plan;
  if (p.rays != kBatchedRayEntries) return false;
  for (int e = 0; e < p.rays; ++e) {
    if (last_surface(run.sys.ops[p.entries[p.focal_lengths + e]]) != 0) return false;
  }
  return true;
}

// The five entries of the batched kernel must share one index row.
bool rows_differ(Run const& run) {
  Plan const& p = *run.plan;
  for (int e = 1; e < p.rays; ++e) {
    if (entry_row(run, p.focal_lengths + e) != entry_row(run, p.focal_lengths)) return true;
  }
  return false;
}

// Each candidate's pupil radius and position (and reference radius) as
// three arrays of C in the frame buffer.
void pupil_arrays(Run const& run) {
  Arrays const& a = run.arrays;
  long const C = run.candidates;
  for (long c = 0; c < C; ++c) {
    a.frames[c] = a.pupils[3 * c], a.frames[C + c] = a.pupils[3 * c + 1];
    a.frames[2 * C + c] = a.pupils[3 * c + 2];
  }
}

int run_rays_batched(Run const& run, MeritContext const& ctx) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  Arrays const& a = run.arrays;
  long const C = run.candidates;
  double fields[2 * kBatchedRayEntries], px[kBatchedRayEntries], py[kBatchedRayEntries];
  int is_x[kBatchedRayEntries];
  int const row = entry_row(run, p.focal_lengths);
  for (int e = 0; e < kBatchedRayEntries; ++e) {
    int const i = p.entries[p.focal_lengths + e];
    MeritOperandDesc const& op = s.ops[i];
    fields[2 * e] = op.hy * ctx.max_field_y, fields[2 * e + 1] = op.hx * ctx.max_field_x;
    px[e] = op.px, py[e] = op.py;
    is_x[e] = p.classes[i] == kClassRayX ? 1 : 0;
  }
  pupil_arrays(run);
  for (long c = 0; c < C; ++c) a.frames[2 * C + c] = a.stops[c * s.wave_count + row];
  double setup[6];
  setup_of(*s.config, s.config->aperture_value, setup);
  int const rc = gpu::cuda_run_ry_batched_jacobian(
      s.surfaces, s.n, s.index_table, run.variable_surfaces, s.variable_count, a.values, setup,
      fields, kBatchedRayEntries, px, py, a.factors, primary_row(run), row, a.frames,
      a.frames + C, a.frames + 2 * C, a.ray_aims, a.out, a.out + C * kBatchedRayEntries,
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
    int const row = entry_row(run, p.focal_lengths + e);
    for (long c = 0; c < C; ++c) {
      a.frames[3 * c] = a.pupils[3 * c], a.frames[3 * c + 1] = a.pupils[3 * c + 1];
      a.frames[3 * c + 2] = a.stops[c * s.wave_count + row];
      double const* u = a.ray_aims + 3 * (c * p.rays + e);
      for (int k = 0; k < 3; ++k) a.frames[3 * C + 3 * c + k] = u[k];
    }
    double setup[6];
    setup_of(cfg, p.classes[i] == kClassRayX ? 0.0 : 1.0, setup);
    int const rc = gpu::cuda_run_ry_jacobian(
        s.surfaces, s.n, s.index_table, run.variable_surfaces, s.variable_count,
        op.hy * ctx.max_field_y, op.hx * ctx.max_field_x, a.values, op.px, op.py,
        cfg.aperture_value, row, primary_row(run), a.factors, a.frames, a.frames + 3 * C, setup,
        a.out, a.out + C, run.candidates, last_surface(op));
    if (rc != 0) return -2;
    keep(run, p.focal_lengths + e, 1, a.out);
  }
  return 0;
}

// The entries of the spot or OPD kernel from `first`, `count` of them: the
// index of each one's field in the table of distinct fields, its pupil
// point, row and coordinate; the configuration, and each candidate's
// pupil in the frame buffer.
struct KernelEntries {
  int fields[kMaxKernelEntries], rows[kMaxKernelEntries], coordinates[kMaxKernelEntries];
  double px[kMaxKernelEntries], py[kMaxKernelEntries];
  double field_y[kMixedMaxFieldValues], field_x[kMixedMaxFieldValues];
  double setup[6];
};

void kernel_entries(Run const& run, MeritContext const& ctx, int first, int count,
                    KernelEntries& k) {
  Plan const& p = *run.plan;
  for (int f = 0; f < p.field_values; ++f) {
    k.field_y[f] = p.field_hy[f] * ctx.max_field_y, k.field_x[f] = p.field_hx[f] * ctx.max_field_x;
  }
  for (int e = 0; e < count; ++e) {
    MeritOperandDesc const& op = run.sys.ops[p.entries[first + e]];
    k.fields[e] = 0;
    for (int f = 0; f < p.field_values; ++f) {
      if (p.field_hy[f] == op.hy && p.field_hx[f] == op.hx) k.fields[e] = f;
    }
    k.px[e] = op.px, k.py[e] = op.py;
    k.rows[e] = entry_row(run, first + e);
    k.coordinates[e] = op.type == 72 ? 0 : 1;
  }
  setup_of(*run.sys.config, run.sys.config->aperture_value, k.setup);
  pupil_arrays(run);
}

int run_spots(Run const& run, MeritContext const& ctx) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  Arrays const& a = run.arrays;
  long const C = run.candidates;
  if (p.spots == 0) return 0;
  KernelEntries k;
  kernel_entries(run, ctx, p.first_spot(), p.spots, k);
  int const rc = gpu::cuda_run_spot_jacobian(
      s.surfaces, s.n, s.index_table, s.wave_count, run.variable_surfaces, s.variable_count,
      a.values, k.setup, k.field_y, k.field_x, k.fields, p.spots, p.field_values, k.px, k.py,
      k.rows, k.coordinates, primary_row(run), 0, a.factors, a.frames, a.frames + C, a.stops,
      a.spot_aims, a.spot_aims + 3 * C * p.spots, a.out, a.out + C * p.spots, run.candidates, 1);
  if (rc != 0) return -2;
  keep(run, p.first_spot(), p.spots, a.out);
  return 0;
}

int run_opds(Run const& run, MeritContext const& ctx) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  Arrays const& a = run.arrays;
  long const C = run.candidates, block = 3 * C * p.opds;
  if (p.opds == 0) return 0;
  KernelEntries k;
  kernel_entries(run, ctx, p.first_opd(), p.opds, k);
  int const rc = gpu::cuda_run_opd_jacobian(
      s.surfaces, s.n, s.index_table, s.wave_count, run.variable_surfaces, s.variable_count,
      a.values, k.setup, k.field_y, k.field_x, k.fields, p.opds, p.field_values, k.px, k.py,
      k.rows, s.wavelengths, primary_row(run), s.config->afocal_image != 0 ? 1 : 0, a.factors,
      a.frames, a.frames + C, a.stops, a.opd_aims, a.opd_aims + block, a.opd_aims + 2 * block,
      a.frames + 2 * C, a.out, a.out + C * p.opds, run.candidates);
  if (rc != 0) return -2;
  keep(run, p.first_opd(), p.opds, a.out);
  return 0;
}

// The samples of the semi-diameter solve on every surface that a bound
// reads, in one launch; then each candidate keeps the row of the sample
// that set each semi-diameter, times the aperture percentage's scale.
int run_semi_diameters(Run const& run) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  Arrays const& a = run.arrays;
  if (p.bounds_on_device == 0) return 0;
  int const W = s.wave_count, V = s.variable_count, S = sd_samples(p, W);
  long const C = run.candidates;
  double* const field_y = a.sd_entries;
  double* const px = a.sd_entries + S;
  double* const py = a.sd_entries + 2 * S;
  double* const scales = a.sd_entries + 3 * S;
  int* const surfaces = a.sd_entry_ints;
  int* const rows = a.sd_entry_ints + S;
  for (int j = 0; j < p.sd_count; ++j) {
    for (int w = 0; w < W; ++w) {
      for (int k = 0; k < kSamples; ++k) {
        int const e = (j * W + w) * kSamples + k;
        surfaces[e] = p.sd_surfaces[j], rows[e] = w, field_y[e] = s.fields[0].field_y;
        px[e] = sd_px_vals[k], py[e] = sd_py_vals[k], scales[e] = 1.0;
      }
    }
  }
  double setup[6];
  setup_of(*s.config, s.config->aperture_value, setup);
  int const rc = gpu::cuda_run_sd_jacobian(
      s.surfaces, s.n, s.index_table, W, run.variable_surfaces, V, a.values, a.factors, setup,
      surfaces, rows, field_y, px, py, scales, S, a.sd_frames, a.sd_frames + C * W,
      a.sd_frames + 2 * C * W, a.sd_aims, a.out, a.out + C * S, run.candidates);
  if (rc != 0) return -2;
  for (long c = 0; c < C; ++c) {
    for (int j = 0; j < p.sd_count; ++j) {
      double const* choice = a.sd_choice + 3 * (c * p.sd_count + j);
      double* to = a.sd_store + (c * p.sd_count + j) * (V + 1);
      int const e = static_cast<int>(choice[0]);
      to[0] = 1.0;
      for (int v = 0; v < V; ++v) to[1 + v] = 0.0;
      if (e < 0) continue;  // a fixed semi-diameter, or one no ray set: no derivative
      if (!isfinite(a.out[c * S + e])) to[0] = NAN;
      double const* row = a.out + C * S + (c * S + e) * V;
      for (int v = 0; v < V; ++v) to[1 + v] = row[v] * choice[1];
    }
  }
  return 0;
}

// The factor of an operand's row as the CPU's analytic row forms it: none
// for a bound operand inside its bounds, the sign of an absolute value, the
// root of the weight.
double row_scale(MeritOperandDesc const& op, double value) {
  double const t = detail::merit_transform(op.transform, value);
  bool const bounded = op.has_lower != 0 || op.has_upper != 0;
  bool const broken = (op.has_lower != 0 && op.lower > t) || (op.has_upper != 0 && t > op.upper);
  if (op.type <= 87 && bounded && !broken) return 0.0;
  double const sign = op.transform == 8 && value < 0.0 ? -1.0 : 1.0;
  return sign * sqrt(op.weight);
}

struct GroupResult {
  GroupDual value;
  int status;
};

// Whether candidate c's device values agree with the CPU's on which rays
// failed; where they do not, the candidate keeps the CPU's rows.
bool device_agrees(Run const& run, long c) {
  Plan const& p = *run.plan;
  int const V = run.sys.variable_count;
  MeritResult const* results = run.results + c * run.sys.operand_count;
  for (int e = 0; e < p.device_entries(); ++e) {
    double const value = run.arrays.store[(c * p.device_entries() + e) * (V + 1)];
    if (results[p.entries[e]].status == 1 && !isfinite(value)) return false;
  }
  for (int j = 0; j < p.sd_count; ++j) {
    if (!isfinite(run.arrays.sd_store[(c * p.sd_count + j) * (V + 1)])) return false;
  }
  return true;
}

// The rows of the device's operand entries of candidate c, eight
// variables a pass: the device's slots, the centroid, piston and tilt
// corrections of their groups over dual numbers as the CPU forms them,
// then each row's factor.
[[gnu::noinline]] void merge_entries(Run const& run, long c, int const* slot_of) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  int const V = s.variable_count, M = s.operand_count;
  long const E = p.device_entries();
  MeritResult const* results = run.results + c * M;
  double* const jacobian = run.jacobians + run.row * V * c;
  GroupResult group[kMixedMaxOperands];
  for (int first = 0; first < V; first += kSlots) {
    int const live = V - first < kSlots ? V - first : kSlots;
    for (int i = 0; i < M; ++i) {
      group[i].value = GroupDual(0.0);
      group[i].status = results[i].status;
      if (p.entry_of[i] < 0) continue;
      double const* row = run.arrays.store + (c * E + p.entry_of[i]) * (V + 1) + 1 + first;
      for (int k = 0; k < live; ++k) group[i].value.d[k] = row[k];
    }
    detail::merit_remove_centroids(s.ops, M, group);
    detail::merit_remove_piston(s.ops, M, group);
    detail::merit_remove_tilt(s.ops, M, group);
    for (int e = 0; e < E; ++e) {
      int const i = p.entries[e];
      if (results[i].status != 1) continue;
      double const scale = row_scale(s.ops[i], results[i].value);
      double* to = jacobian + static_cast<long>(slot_of[i]) * V + first;
      for (int k = 0; k < live; ++k) to[k] = scale * group[i].value.d[k];
    }
  }
}

// The semi-diameter of surface k of candidate c as a dual number over the
// variables from `first`, or false when no bound reads it.
bool sd_dual(Run const& run, long c, int k, int first, EdgeDual& out) {
  Plan const& p = *run.plan;
  int const V = run.sys.variable_count;
  for (int j = 0; j < p.sd_count; ++j) {
    if (p.sd_surfaces[j] != k) continue;
    double const* row = run.arrays.sd_store + (c * p.sd_count + j) * (V + 1) + 1;
    out = EdgeDual(run.arrays.sd_choice[3 * (c * p.sd_count + j) + 2]);
    for (int q = 0; q < 4 && first + q < V; ++q) out.d[q] = row[first + q];
    return true;
  }
  return false;
}

// The curvature of surface k of candidate c with its slots: the chain
// rule's factor where a variable of the pass moves it.
EdgeDual curvature_dual(Run const& run, long c, int k, int first) {
  int const V = run.sys.variable_count;
  EdgeDual r(run.sys.surfaces[k].curvature);
  for (int v = 0; v < V; ++v) {
    if (run.variable_surfaces[v] != k) continue;
    r.value = run.arrays.values[c * V + v];
    if (v >= first && v < first + 4) r.d[v - first] = run.arrays.factors[c * V + v];
  }
  return r;
}

// A bound operand's quantity on its one surface, over dual numbers, as the
// CPU's boundary operands form it: the semi-diameter, the aspect ratio of
// a glass, or the thickness at the edge at the larger semi-diameter of the
// two surfaces, through the dispatch's own sag.
EdgeDual bound_quantity(Run const& run, long c, int i, int first) {
  MeritOperandDesc const& op = run.sys.ops[i];
  int const k = op.surface_first, cls = run.plan->classes[i];
  SurfaceData const& here = run.sys.surfaces[k];
  double const t = here.thickness;
  EdgeDual a(0.0), b(0.0);
  sd_dual(run, c, k, first, a);
  if (cls == kClassSemiDiameter) return a;
  if (cls == kClassAspect) {
    if (here.is_glass == 0 || !isfinite(t) || !(fabs(t) >= 1e-12)) return EdgeDual(0.0);
    return 2.0 * a / fabs(t);
  }
  if ((cls == kClassEdgeAir && here.is_glass != 0) || (cls == kClassEdgeGlass && here.is_glass == 0) ||
      !isfinite(t)) {
    return EdgeDual(0.0);
  }
  sd_dual(run, c, k + 1, first, b);
  EdgeDual const h = a.value > b.value ? a : b;
  SurfaceData const& next = run.sys.surfaces[k + 1];
  EdgeDual const sag_here =
      compute_sag_t(curvature_dual(run, c, k, first), h, here.coefficients, EdgeDual(here.conic));
  EdgeDual const sag_next = compute_sag_t(curvature_dual(run, c, k + 1, first), h,
                                          next.coefficients, EdgeDual(next.conic));
  return t - sag_here + sag_next;
}

void merge_bounds(Run const& run, long c, int const* slot_of) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  int const V = s.variable_count;
  MeritResult const* results = run.results + c * s.operand_count;
  double* const jacobian = run.jacobians + run.row * V * c;
  for (int b = 0; b < p.bounds_on_device; ++b) {
    int const i = p.bound_ops[b];
    if (results[i].status != 1) continue;
    double const scale = row_scale(s.ops[i], results[i].value);
    for (int first = 0; first < V; first += 4) {
      EdgeDual const q = bound_quantity(run, c, i, first);
      double* to = jacobian + static_cast<long>(slot_of[i]) * V + first;
      for (int k = 0; k < 4 && first + k < V; ++k) to[k] = scale * q.d[k];
    }
  }
}

// The device's rows into candidate c's block, at the residual slots of
// their operands.
void merge_candidate(Run const& run, long c) {
  detail::BatchSystem const& s = run.sys;
  MeritResult const* results = run.results + c * s.operand_count;
  if (!device_agrees(run, c)) {
    // Where the device's rays failed and the CPU's did not, the CPU forms
    // this candidate's rows of the whole list.
    if (run.cpu_ops != nullptr) cpu_candidate(run, static_cast<int>(c), true, true);
    return;
  }
  int slot_of[kMixedMaxOperands];
  int slot = 0;
  for (int i = 0; i < s.operand_count; ++i) {
    slot_of[i] = -1;
    if (s.ops[i].weight == 0.0 || results[i].status == 0) continue;
    slot_of[i] = slot++;
  }
  if (run.plan->device_entries() > 0) merge_entries(run, c, slot_of);
  merge_bounds(run, c, slot_of);
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

// An operand code without an evaluator: in the CPU's share of the list it
// stands for a device operand at weight 0, so that it costs nothing.
constexpr unsigned kTakenOut = 255;

bool any_composite(MeritOperandDesc const* ops, int count) {
  for (int i = 0; i < count; ++i) {
    if (ops[i].weight != 0.0 && detail::is_composite(ops[i].type)) return true;
  }
  return false;
}

// Whether the analytic method would judge the share as it judges the
// whole list: the aim and field rules hold for the whole list, and no
// device operand carries an absolute value that it refuses.
bool share_judged_alike(Run const& run, int mode) {
  if (mode != kJacobianAnalytic) return true;
  SystemConfig const& cfg = *run.sys.config;
  double largest = 0.0;
  for (int f = 0; f < run.sys.field_count; ++f) {
    largest = fmax(largest, fabs(run.sys.fields[f].field_y));
  }
  if (cfg.ray_aiming == 2 && (cfg.field_type != 0 || largest > 70.0)) return false;
  if (detail::is_infinite_distance(run.sys.surfaces[0].thickness) && cfg.field_type != 0) {
    return false;
  }
  for (int i = 0; i < run.sys.operand_count; ++i) {
    unsigned const code = run.sys.ops[i].type;
    bool const absolute_refused = run.sys.ops[i].transform == 8 && code != 50 && !in(code, 43, 47);
    if (run.plan->classes[i] != kClassCpu && run.plan->classes[i] != kNoClass &&
        absolute_refused) {
      return false;
    }
  }
  return true;
}

// The CPU's share of the list: every operand that a device row replaces
// taken out, unless a composite may read it or it belongs to a ray group
// of its own (group_id at 0 or above), whose slot follows all its members.
bool cpu_share(Run const& run, int mode, MeritOperandDesc* share) {
  detail::BatchSystem const& s = run.sys;
  Plan const& p = *run.plan;
  if (!p.any_work() || any_composite(s.ops, s.operand_count) || !share_judged_alike(run, mode)) {
    return false;
  }
  for (int i = 0; i < s.operand_count; ++i) {
    share[i] = s.ops[i];
    bool const replaced = p.entry_of[i] >= 0 || is_bound_class(p.classes[i]);
    if (!replaced || detail::is_ray_group_member(s.ops[i])) continue;
    share[i].type = kTakenOut;
    share[i].weight = 0.0;
  }
  return true;
}

// The device runs, one after the other on the calling thread.
int run_device(Run const& run, MeritContext const& ctx) {
  if (run_focal_lengths(run) != 0) return -2;
  if (run.plan->rays > 0) {
    int const rc = batched_rays(run) ? run_rays_batched(run, ctx) : run_rays_single(run, ctx);
    if (rc != 0) return -2;
  }
  if (run_spots(run, ctx) != 0 || run_opds(run, ctx) != 0) return -2;
  return run_semi_diameters(run);
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
  list_entries(ops, operand_count, plan);
  if (!want_jacobian) {  // nothing for the device to do
    plan.focal_lengths = plan.rays = plan.spots = plan.opds = 0;
    plan.bounds_on_device = plan.sd_count = 0;
  }

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
  if (plan.any_work() && gpu::detail::enter_device() != 0) return -2;
  int variable_surfaces[kMixedMaxVariables];
  for (int v = 0; v < variable_count; ++v) variable_surfaces[v] = variables[v].surface;
  run.variable_surfaces = variable_surfaces;

  run.candidate_x = candidate_x;
  run.merits = merits;
  run.residual_count = residual_count;
  run.analytic = {sd_scratch, sd_rows, sd_scratch_a, sd_scratch_b, nullptr};
  MeritOperandDesc cpu_ops[kMixedMaxOperands];
  if (want_jacobian && cpu_share(run, batch.jacobian_mode, cpu_ops)) run.cpu_ops = cpu_ops;
  int const team = batch.thread_count > 0 ? batch.thread_count : omp_get_max_threads();
  int shared = 0;
#pragma omp parallel for num_threads(team) schedule(dynamic, 1)
  for (int c = 0; c < candidate_count; ++c) {
    detail::merge_batch_status(shared, cpu_candidate(run, c, want_jacobian, false));
  }
  if (shared != 0 || !plan.any_work()) return shared;
  MeritContext const ctx =
      build_context(surfaces, n, index_table, wave_count, config, fields, field_count);
  if (run_device(run, ctx) != 0) return -2;
#pragma omp parallel for num_threads(team) schedule(static)
  for (int c = 0; c < candidate_count; ++c) merge_candidate(run, c);
  return 0;
}

}  // namespace gpu_dispatch
}  // namespace nuvrix
