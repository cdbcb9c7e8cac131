// The analytic merit Jacobian: forward-mode dual numbers carry eight
// variables at a pass through the same first-order steps, traces and
// operand formulas as the plain evaluation.  Every branch looks at the
// plain value; the slots follow it.  An aimed ray stays on its aimed
// solution as the variables move: the launch is corrected by the implicit
// function theorem on the aiming condition, so no iteration is
// differentiated.  Everything runs on the calling thread, on the stack.
#include <cfloat>
#include <type_traits>

#include "first_order/semi_diameter.hpp"
#include "merit/dual_launch.hpp"
#include "merit/dual_system.hpp"
#include "merit/jacobian_operands.hpp"
#include "merit/merit_function.hpp"
#include "merit/merit_jacobian.hpp"
#include "merit/variable_transform.hpp"
#include "trace/trace_generic.hpp"

namespace nuvrix {
namespace {

using detail::val;

constexpr int kAnalyticMaxOperands = 2048;  // dual results held on the stack
constexpr int kDualIndexEntries = 2048;     // dual index rows: eight rows of 256 surfaces
constexpr double kAimFieldLimit = 70.0;  // degrees: the largest field of the robust aim

// ---------------------------------------------------------------------------
// Acceptance

bool in(unsigned c, unsigned lo, unsigned hi) { return c >= lo && c <= hi; }

bool code_accepted(unsigned c, SystemConfig const& cfg, bool infinite) {
  if (in(c, 0, 7) || in(c, 37, 47) || c == 50 || c == 57 || in(c, 67, 79) || c == 87 ||
      in(c, 88, 98) || in(c, 101, 103)) {
    return true;
  }
  if (c == 51) return infinite;
  if (in(c, 80, 86)) return cfg.aperture_type == 0 && (infinite || cfg.field_type != 1);
  return false;
}

// What a composite may reach.
bool composite_reference_accepted(unsigned c, bool infinite) {
  return c == 50 || (c == 51 && infinite) || c == 75 || c == 76 || in(c, 0, 5) ||
         in(c, 29, 36) || in(c, 43, 47) || in(c, 77, 79) || c == 87;
}

bool composite_accepted(MeritOperandDesc const& op, MeritOperandDesc const* ops, int count,
                        bool infinite) {
  int const a = op.operand_a, b = op.operand_b;
  if (op.type == 30 || op.type == 34 || op.type == 35) {
    int const lo = a < 0 ? 0 : a, hi = b > count - 1 ? count - 1 : b;
    for (int k = lo; k <= hi; ++k) {
      if (!composite_reference_accepted(ops[k].type, infinite)) return false;
    }
    return true;
  }
  bool const a_ok = a < 0 || a >= count || composite_reference_accepted(ops[a].type, infinite);
  bool const b_ok = b < 0 || b >= count || composite_reference_accepted(ops[b].type, infinite);
  return a_ok && b_ok;
}

bool transform_accepted(MeritOperandDesc const& op) {
  if (op.transform == 0) return true;
  unsigned const c = op.type;
  return op.transform == 8 &&
         (c == 6 || c == 7 || in(c, 29, 47) || c == 50 || c == 51 || c == 57 || c == 74 ||
          in(c, 75, 79) || c == 87);
}

// Operands whose presence brings the rules on aiming, variables and fields.
bool needs_ray_rules(unsigned c) {
  return in(c, 0, 5) || in(c, 43, 47) || in(c, 67, 73) || in(c, 91, 93) || c == 97 || c == 98;
}

bool variable_accepted(unsigned kind, bool seidel) {
  if (seidel) return kind == 0 || kind == 1 || kind == 3 || kind == 12 || kind == 13;
  return kind <= 3 || (kind >= 9 && kind <= 13);
}

bool accepted(MeritOperandDesc const* ops, int count, MeritVariableDesc const* variables,
              int variable_count, SystemConfig const& cfg, FieldData const* fields,
              int field_count, bool infinite) {
  bool rules = false, seidel = false;
  for (int i = 0; i < count; ++i) {
    MeritOperandDesc const& op = ops[i];
    if (op.weight == 0.0) continue;
    bool const ok = detail::is_composite(op.type) ? composite_accepted(op, ops, count, infinite)
                                                  : code_accepted(op.type, cfg, infinite);
    if (!ok || !transform_accepted(op)) return false;
    rules = rules || needs_ray_rules(op.type);
    seidel = seidel || in(op.type, 80, 86);
  }
  if (!rules) return true;
  if (cfg.aperture_type > 2 || cfg.ray_aiming > 2) return false;
  if (cfg.ray_aiming == 2) {
    if (cfg.field_type != 0) return false;
    for (int f = 0; f < field_count; ++f) {
      if (fabs(fields[f].field_y) > kAimFieldLimit) return false;
    }
  }
  for (int v = 0; v < variable_count; ++v) {
    if (!variable_accepted(variables[v].kind, seidel)) return false;
  }
  if (infinite) return cfg.field_type == 0;
  return cfg.field_type == 0 || cfg.field_type == 1;
}

// ---------------------------------------------------------------------------
// The dual system of one pass

struct DualArrays {
  JDual curvatures[kMaxSurfaces], thicknesses[kMaxSurfaces], conics[kMaxSurfaces];
  JDual focal_lengths[kMaxSurfaces], coefficients[kMaxSurfaces][8];
  JDual nd[kMaxSurfaces], vd[kMaxSurfaces], dpgf[kMaxSurfaces];
  JDual semi_diameters[kMaxSurfaces];
  JDual rows[kDualIndexEntries];  // the index rows with model glass, when there is any
  double plain_coefficients[kMaxSurfaces][8];
};

// Seeds slot k of the parameter that variable v addresses.
void seed(DualArrays& a, MeritVariableDesc const& v, int n, int k) {
  int const s = v.surface;
  if (s < 0 || s >= n) return;
  switch (v.kind) {
    case 0: a.curvatures[s].d[k] = 1.0; break;
    case 1: a.thicknesses[s].d[k] = 1.0; break;
    case 2: a.conics[s].d[k] = 1.0; break;
    case 3:
    case 13:
      if (v.coefficient >= 0 && v.coefficient < 8) a.coefficients[s][v.coefficient].d[k] = 1.0;
      break;
    case 9: a.nd[s].d[k] = 1.0; break;
    case 10: a.vd[s].d[k] = 1.0; break;
    case 11: a.dpgf[s].d[k] = 1.0; break;
    case 12: a.focal_lengths[s].d[k] = 1.0; break;
    default: break;
  }
}

JDual* pickup_target(DualArrays& a, unsigned kind, int s) {
  switch (kind) {
    case 0: return &a.curvatures[s];
    case 1: return &a.thicknesses[s];
    case 4: return &a.conics[s];
    case 6: return &a.nd[s];
    case 7: return &a.vd[s];
    case 8: return &a.dpgf[s];
    case 9: return &a.focal_lengths[s];  // the focal length of an ideal lens
    default: return nullptr;
  }
}

void fill_pass(DualArrays& a, SurfaceData const* s, int n, MeritVariableDesc const* variables,
               int first, int live, MeritPickupDesc const* pickups, int pickup_count) {
  for (int i = 0; i < n; ++i) {
    a.curvatures[i] = JDual(s[i].curvature);
    a.thicknesses[i] = JDual(s[i].thickness);
    a.conics[i] = JDual(s[i].conic);
    a.focal_lengths[i] = JDual(s[i].focal_length);
    for (int j = 0; j < 8; ++j) {
      a.coefficients[i][j] = JDual(s[i].coefficients[j]);
      a.plain_coefficients[i][j] = s[i].coefficients[j];
    }
    a.nd[i] = JDual(s[i].model_nd);
    a.vd[i] = JDual(s[i].model_vd);
    a.dpgf[i] = JDual(s[i].model_dpgf);
    a.semi_diameters[i] = JDual(s[i].semi_diameter);
  }
  for (int k = 0; k < live; ++k) seed(a, variables[first + k], n, k);
  // Pickups in order, on the duals: a chain resolves as the list runs.
  for (int p = 0; p < pickup_count; ++p) {
    MeritPickupDesc const& pk = pickups[p];
    int const t = pk.target_surface, src = pk.source_surface;
    if (t < 0 || t >= n || src < 0 || src >= n || t == src) continue;
    JDual* target = pickup_target(a, pk.kind, t);
    JDual* source = pickup_target(a, pk.kind, src);
    if (target == nullptr) continue;
    *target = fma(pk.factor, *source, JDual(pk.offset));
  }
}

// ---------------------------------------------------------------------------
// Dual rays

// The first-order inputs of a ray: the pupil, its position, the aim.
struct RayFrame {
  JDual pupil_radius, ep, stop_radius;
  double plain_pupil_radius, plain_ep, plain_stop_radius;
  int aim_flag;
  int kind;  // 0 the merit rays, 1 the rays of the semi-diameter solve
};

// The last few dual rays of a pass: neighbouring operands often ask for the
// same ray (x and y of one pupil point, the chief ray of a field).
struct RayKey {
  int kind, w, last, capture_a, capture_b;
  double field_y, field_x, px, py, wavelength;
};

NUVRIX_HD bool same_key(RayKey const& a, RayKey const& b) {
  return a.kind == b.kind && a.w == b.w && a.last == b.last && a.capture_a == b.capture_a &&
         a.capture_b == b.capture_b && a.field_y == b.field_y && a.field_x == b.field_x &&
         a.px == b.px && a.py == b.py && a.wavelength == b.wavelength;
}

constexpr int kRayCache = 4;
constexpr int kFrameCache = 16;  // wavelength rows whose merit frame is kept

struct RayEntry {
  RayKey key;
  bool used, ok;
  RayD end, at_a, at_b, launch;
};

// Everything one pass shares.
template <typename U>
struct Pass {
  DualSystem<U> sys;
  DualArrays* a;
  SurfaceData const* surfaces;  // working copy
  int n;
  double const* index_table;  // plain rows
  double const* wavelengths;
  int wave_count;
  SystemConfig const* config;
  MeritContext const* ctx;
  SdArgmax const* argmax;
  FieldData const* fields;
  int field_count;
  bool follow_aim;  // correct aimed launches (off only to show what it does)
  RayEntry rays[kRayCache];
  int next_ray;
  RayFrame frames[kFrameCache];
  bool frame_ready[kFrameCache];
  JDual reference_radius;  // of the OPD reference sphere, primary row
};

template <typename U>
U const* index_row(Pass<U>& p, int w);

template <>
double const* index_row<double>(Pass<double>& p, int w) {
  return p.index_table + static_cast<long>(w) * p.n;
}

// With model glass the rows are built from (nd, vd, dPgF) with their slots.
template <>
JDual const* index_row<JDual>(Pass<JDual>& p, int w) {
  return p.a->rows + static_cast<long>(w) * p.n;
}

void build_dual_rows(DualArrays& a, SurfaceData const* surfaces, int n, double const* table,
                     double const* wavelengths, int wave_count) {
  for (int w = 0; w < wave_count; ++w) {
    double const nm = wavelengths[w] * 1000.0;
    for (int i = 0; i < n; ++i) {
      a.rows[w * n + i] = surfaces[i].model_glass != 0 && nm > 0.0
                              ? model_index<JDual>(nm, a.nd[i], a.vd[i], a.dpgf[i])
                              : JDual(table[w * n + i]);
    }
  }
}

template <typename U>
RayD trace_dual(Pass<U>& p, U const* row, RayD launch, int last, double wavelength,
                int capture_a, RayD* at_a, RayD* at_b, int capture_b) {
  DualArrays const& a = *p.a;
  return trace_ray_t<JDual, U>(p.surfaces, p.n, a.curvatures, a.thicknesses, a.conics, row,
                               launch, 1, last, wavelength, capture_a, at_a, at_b,
                               a.coefficients, capture_b, a.focal_lengths);
}

// The radius that the real marginal ray fills at the stop, with slots
// where that ray passes; the plain fallbacks carry none.
template <typename U>
JDual dual_stop_radius(Pass<U>& p, U const* row, JDual const& pupil_radius, double plain) {
  RayD const launch = make_launch(JDual(0.0), pupil_radius, JDual(0.0), JDual(0.0), JDual(1.0));
  RayD const r = trace_dual(p, row, launch, p.config->stop_surface, 0.0, -1, nullptr, nullptr, -1);
  if (r.status != 0) return JDual(plain);
  return with_slots(plain, fabs(r.y));
}

// The launch of the ray of (field, pupil point) on `row`, aimed as the
// plain front end aims it, with slots.  False when the plain aim fails.
template <typename U>
bool aimed_launch(Pass<U>& p, U const* row, double const* plain_row, RayFrame const& f,
                  double field_y, double field_x, double px, double py, RayD& launch) {
  SystemConfig const& cfg = *p.config;
  JDual const& t0 = p.a->thicknesses[0];
  launch = dual_launch(cfg, t0, field_y, field_x, f.pupil_radius, px, py, f.ep);
  if (!(f.aim_flag != 0 && f.plain_stop_radius > 0.0)) return true;
  double u[3];
  if (!aim_plain_launch(p.surfaces, p.n, plain_row, cfg, field_y, field_x, f.plain_pupil_radius,
                        f.plain_ep, f.plain_stop_radius, px, py, u)) {
    return false;
  }
  bool const finite = !detail::is_infinite_distance(p.surfaces[0].thickness);
  seed_aimed_launch(launch, finite, u[0], u[1], u[2]);
  int const stop = cfg.stop_surface;
  RayD const at_stop = trace_dual(p, row, launch, stop, 0.0, -1, nullptr, nullptr, -1);
  if (at_stop.status != 0) return false;
  if (!p.follow_aim) {
    // The launch as the aim left it, as if it were fixed.
    JDual* coords[4] = {&launch.x, &launch.y, &launch.l, &launch.m};
    for (JDual* c : coords) c->d[kAimSlotX] = c->d[kAimSlotY] = 0.0;
    launch.n = JDual(val(launch.n));
    return true;
  }
  follow_aimed_launch(launch, finite, at_stop, f.stop_radius, px, py);
  return true;
}

// The frame of the merit rays on row w: the context's pupil and its
// position, and the stop radius of that row when aiming.
template <typename U>
RayFrame merit_frame(Pass<U>& p, int w) {
  if (w < kFrameCache && p.frame_ready[w]) return p.frames[w];
  MeritContext const& ctx = *p.ctx;
  RayFrame f;
  f.kind = 0;
  f.pupil_radius = p.sys.pupil_radius;
  f.ep = p.sys.entrance_pupil_position;
  f.plain_pupil_radius = ctx.pupil_radius;
  f.plain_ep = ctx.entrance_pupil_position;
  f.aim_flag = ctx.aim_flag ? 1 : 0;
  f.plain_stop_radius = 0.0;
  f.stop_radius = JDual(0.0);
  if (ctx.aim_enabled) {
    double const* plain_row = p.index_table + static_cast<long>(w) * p.n;
    f.plain_stop_radius = aim_stop_radius(p.surfaces, p.n, plain_row, p.config, ctx.pupil_radius);
    f.stop_radius = dual_stop_radius(p, index_row(p, w), f.pupil_radius, f.plain_stop_radius);
  }
  if (w < kFrameCache) p.frames[w] = f, p.frame_ready[w] = true;
  return f;
}

// One dual ray of the merit function to `last` (0: the image), with the
// states at two named surfaces and its launch, from the pass's cache.  The
// entry stays valid until the next call; `ok` is false when the ray failed.
template <typename U>
RayEntry const& merit_ray_dual(Pass<U>& p, RayFrame const& f, int w, double field_y,
                               double field_x, double px, double py, double wavelength, int last,
                               int capture_a, int capture_b) {
  RayKey const key = {f.kind, w, last, capture_a, capture_b, field_y, field_x, px, py, wavelength};
  for (RayEntry const& e : p.rays) {
    if (e.used && same_key(e.key, key)) return e;
  }
  RayEntry& e = p.rays[p.next_ray];
  p.next_ray = (p.next_ray + 1) % kRayCache;
  e.key = key;
  e.used = true;
  e.at_a.status = e.at_b.status = -1;
  U const* row = index_row(p, w);
  double const* plain_row = p.index_table + static_cast<long>(w) * p.n;
  e.ok = aimed_launch(p, row, plain_row, f, field_y, field_x, px, py, e.launch);
  if (e.ok) {
    e.end = trace_dual(p, row, e.launch, last, wavelength, capture_a, &e.at_a, &e.at_b, capture_b);
    e.ok = e.end.status == 0;
  } else {
    e.end.status = -1;
  }
  return e;
}

// ---------------------------------------------------------------------------
// First order under dual numbers

template <typename U>
JDual dual_entrance_pupil(Pass<U>& p, U const* row) {
  DualArrays const& a = *p.a;
  return compute_entrance_pupil_position_t<JDual, U>(a.curvatures, a.thicknesses, row,
                                                      p.surfaces, p.n, p.config->stop_surface);
}

// The paraxial marginal launch height of the aperture on `row`, with `ep`
// the entrance pupil position; `plain` is its value.
template <typename U>
JDual dual_pupil_radius(Pass<U>& p, U const* row, JDual const& ep, double plain) {
  DualArrays const& a = *p.a;
  U const (*matrices)[8] = nullptr;
  if constexpr (std::is_same<U, double>::value) {
    matrices = a.plain_coefficients;
  } else {
    matrices = a.coefficients;
  }
  return dual_pupil_radius_t<U>(*p.config, a.curvatures, a.thicknesses, row, p.surfaces, p.n,
                                a.focal_lengths, matrices, ep, plain);
}

// The frame of the ray that set a semi-diameter: the solve's own pupil,
// pupil position and aim on its row.
template <typename U>
RayFrame sd_frame(Pass<U>& p, int w) {
  SystemConfig const& cfg = *p.config;
  double const* plain_row = p.index_table + static_cast<long>(w) * p.n;
  U const* row = index_row(p, w);
  RayFrame f;
  f.kind = 1;
  f.plain_pupil_radius = paraxial_marginal_height(p.surfaces, p.n, plain_row, cfg);
  bool const at_front = cfg.stop_surface < 2;
  f.plain_ep = at_front ? 0.0
                        : compute_entrance_pupil_position(p.surfaces, p.n, plain_row,
                                                          cfg.stop_surface);
  f.ep = at_front ? JDual(0.0) : with_slots(f.plain_ep, dual_entrance_pupil(p, row));
  f.pupil_radius = dual_pupil_radius(p, row, f.ep, f.plain_pupil_radius);
  f.aim_flag = cfg.ray_aiming;
  f.plain_stop_radius = 0.0;
  f.stop_radius = JDual(0.0);
  if (cfg.ray_aiming != 0) {
    f.plain_stop_radius =
        aim_stop_radius(p.surfaces, p.n, plain_row, &cfg, f.plain_pupil_radius);
    f.stop_radius = dual_stop_radius(p, index_row(p, w), f.pupil_radius, f.plain_stop_radius);
  }
  return f;
}

// Semi-diameters with the derivative of the solve: the ray that set each
// automatic one is traced once more in dual numbers.
template <typename U>
void dual_semi_diameters(Pass<U>& p) {
  for (int i = 0; i < p.n; ++i) {
    SdArgmax const& m = p.argmax[i];
    if (m.is_fixed || !m.has_ray || m.wavelength < 0 || m.field < 0 || m.sample < 0 ||
        m.field >= p.field_count || m.wavelength >= p.wave_count) {
      continue;
    }
    RayFrame const f = sd_frame(p, m.wavelength);
    RayEntry const& e = merit_ray_dual(p, f, m.wavelength, p.fields[m.field].field_y, 0.0,
                                       sd_px_vals[m.sample], sd_py_vals[m.sample], 0.0, p.n - 1,
                                       i, -1);
    // A ray that fails behind surface i still reached it.
    if (!e.ok && e.at_a.status != 0) continue;
    JDual const radius = sqrt(detail::sum_sq2(e.at_a.x, e.at_a.y));
    p.a->semi_diameters[i] = with_slots(p.surfaces[i].semi_diameter, radius * m.scale);
  }
}

// ---------------------------------------------------------------------------
// Operands that need real rays

// Codes 0 to 5.
template <typename U>
JDual ray_coordinate(Pass<U>& p, MeritOperandDesc const& op, int w) {
  MeritContext const& ctx = *p.ctx;
  RayFrame const f = merit_frame(p, w);
  RayEntry const& e = merit_ray_dual(p, f, w, op.hy * ctx.max_field_y, op.hx * ctx.max_field_x,
                                     op.px, op.py, 0.0, op.surface, -1, -1);
  if (!e.ok) return JDual(kMeritRayFailed);
  RayD const& end = e.end;
  JDual const fields[6] = {end.x, end.y, end.z, end.l, end.m, end.n};
  return fields[op.type];
}

// The angle in degrees between a direction and a normal.
JDual angle_between(JDual const& l, JDual const& m, JDual const& nn, RayD const& at) {
  JDual const c = fabs(detail::dot3(l, m, nn, at.nx, at.ny, at.nz));
  if (!(val(c) < 1.0)) return JDual(0.0);
  return acos(c) * detail::kDegPerRad;
}

// Codes 6 and 7: the plain scan picks the surface; the dual ray gives the
// angle there.
template <typename U>
JDual angle_operand(Pass<U>& p, MeritOperandDesc const& op, int w) {
  MeritContext const& ctx = *p.ctx;
  SystemConfig const& cfg = *p.config;
  bool const incidence = op.type == 6;
  int first = 0, last = 0;
  resolve_surface_range(op.surface_first, op.surface_last, p.n, cfg.stop_surface, first, last);
  if (first < 1) first = 1;
  if (last < first) last = first;
  double const* plain_row = p.index_table + static_cast<long>(w) * p.n;
  RayState states[kMaxSurfaces];
  RayTraceResult const ray = detail::merit_ray(
      p.surfaces, p.n, plain_row, &cfg, ctx,
      detail::merit_aim_radius(p.surfaces, p.n, plain_row, &cfg, ctx), op.hy * ctx.max_field_y,
      0.0, op.px, op.py, 0.0, states, kMaxSurfaces);
  if (!ray.valid) return JDual(kMeritRayFailed);
  double mn = detail::kAngleMinStart, mx = 0.0;
  int k_min = -1, k_max = -1;
  for (int k = first; k <= last && k < p.n && k < ray.states_written; ++k) {
    RayState const& at = states[k];
    RayState const& dir = incidence ? states[k - 1] : at;
    double const c = fabs(detail::dot3(dir.l, dir.m, dir.n, at.nx, at.ny, at.nz));
    double const angle = acos(c < 1.0 ? c : 1.0) * detail::kDegPerRad;
    if (angle > mx) mx = angle, k_max = k;
    if (angle < mn) mn = angle, k_min = k;
  }
  // The side that the plain value takes: the maximum unless only the lower
  // bound is broken, or both are and the lower one by at least as much.
  bool take_max = true;
  if (op.has_lower != 0) {
    bool const low = op.lower > mn, high = mx > op.upper;
    if (op.has_upper == 0) {
      take_max = false;
    } else if (low && high) {
      take_max = !(mx - op.upper <= op.lower - mn);
    } else {
      take_max = !low;
    }
  }
  int const k = take_max ? k_max : k_min;
  double const plain = take_max ? mx : mn;
  if (k < 0) return JDual(plain);
  RayFrame const f = merit_frame(p, w);
  RayEntry const& e =
      merit_ray_dual(p, f, w, op.hy * ctx.max_field_y, 0.0, op.px, op.py, 0.0, 0, k - 1, k);
  if (!e.ok) return JDual(plain);
  RayD const& at = e.at_b;
  RayD const& dir = incidence ? (k == 1 ? e.launch : e.at_a) : at;
  return with_slots(plain, angle_between(dir.l, dir.m, dir.n, at));
}

// The end of a transverse ray: its point, or for an afocal image its
// direction angles in minutes of arc.
template <typename U>
bool transverse_point_dual(Pass<U>& p, MeritOperandDesc const& op, int w, RayFrame const& f,
                           double px, double py, JDual& x, JDual& y) {
  MeritContext const& ctx = *p.ctx;
  RayEntry const& e = merit_ray_dual(p, f, w, op.hy * ctx.max_field_y,
                                     op.hx * ctx.max_field_x, px, py, 0.0, 0, -1, -1);
  if (!e.ok) return false;
  RayD const& end = e.end;
  x = end.x;
  y = end.y;
  if (p.config->afocal_image != 0) {
    x = atan2(end.l, end.n) * kArcminPerRadian;
    y = atan2(end.m, end.n) * kArcminPerRadian;
  }
  return true;
}

// Codes 70 to 73.
template <typename U>
bool transverse_operand(Pass<U>& p, MeritOperandDesc const& op, int w, JDual& value) {
  RayFrame const f = merit_frame(p, w);
  JDual cx(0.0), cy(0.0), x, y;
  if (op.type >= 72 && !transverse_point_dual(p, op, w, f, 0.0, 0.0, cx, cy)) return false;
  if (!transverse_point_dual(p, op, w, f, op.px, op.py, x, y)) return false;
  JDual const values[4] = {x, y, x - cx, y - cy};
  value = values[op.type - 70];
  return true;
}

// Code 74: the incidence load at one surface.
template <typename U>
bool incidence_operand(Pass<U>& p, MeritOperandDesc const& op, int w, JDual& value) {
  int const k = op.surface;
  value = JDual(0.0);
  if (k <= 0 || k >= p.n) return true;
  U const* row = index_row(p, w);
  U const a = row[k - 1], b = row[k];
  if (fabs(val(a) - val(b)) < kTiny) return true;
  U const d = val(a) - val(b) < 0.0 ? U(b - a) : U(a - b);
  MeritContext const& ctx = *p.ctx;
  RayFrame const f = merit_frame(p, w);
  RayEntry const& e = merit_ray_dual(p, f, w, op.hy * ctx.max_field_y, op.hx * ctx.max_field_x,
                                     op.px, op.py, 0.0, k, k - 1, k);
  if (!e.ok) return false;
  bool const front = val(b) > val(a);
  RayD const& at = e.at_b;
  RayD const& dir = front ? (k == 1 ? e.launch : e.at_a) : at;
  JDual const c = detail::dot3(dir.l, dir.m, dir.n, -at.nx, -at.ny, -at.nz);
  value = (1.0 - c) * d / 6.0;
  return true;
}

// One OPD ray's end for the closure and its optical path.  `reference`
// is the launch direction of the reference ray, onto which each ray's entry
// point is projected for an object at infinity; the reference ray gives its
// own.
struct OpdDual {
  detail::ExitPupilRay<JDual> end;
  JDual opl;
};

template <typename U>
bool opd_ray_dual(Pass<U>& p, MeritOperandDesc const& op, int w, double px, double py,
                  JDual* reference, OpdDual& out) {
  MeritContext const& ctx = *p.ctx;
  RayFrame const f = merit_frame(p, w);
  RayEntry const& e = merit_ray_dual(p, f, w, op.hy * ctx.max_field_y, op.hx * ctx.max_field_x,
                                     px, py, p.wavelengths[w] * 1000.0, 0, 1, -1);
  if (!e.ok) return false;
  if (reference[0].value != reference[0].value) {  // the reference ray itself
    reference[0] = e.launch.l, reference[1] = e.launch.m, reference[2] = e.launch.n;
  }
  RayD const& o = e.end;
  JDual const start = ctx.object_at_infinity
                          ? detail::dot3(reference[0], reference[1], reference[2], e.at_a.x,
                                         e.at_a.y, e.at_a.z)
                          : JDual(0.0);
  out.end = detail::ExitPupilRay<JDual>{o.x, o.y, o.z, o.l, o.m, o.n, start};
  out.opl = o.opl;
  return true;
}

// Codes 67 to 69: the optical path difference in waves.  The phase of a
// ray is its optical path over the wavelength.
template <typename U>
bool opd_operand(Pass<U>& p, MeritOperandDesc const& op, int w, JDual& value) {
  MeritContext const& ctx = *p.ctx;
  int const pr = detail::merit_primary_row(*p.config, p.wave_count);
  double const lambda = p.wavelengths[w];
  JDual reference[3] = {JDual(NAN), JDual(NAN), JDual(NAN)};
  OpdDual ref, chief, ray;
  if (!opd_ray_dual(p, op, pr, 0.0, 0.0, reference, ref) ||
      !opd_ray_dual(p, op, w, 0.0, 0.0, reference, chief) ||
      !opd_ray_dual(p, op, w, op.px, op.py, reference, ray)) {
    return false;
  }
  U const* row = index_row(p, w);
  double const g = p.n <= 1 ? 1.0 : val(row[p.n - 2]);
  bool const history = ctx.object_at_infinity;
  JDual const& R = p.reference_radius;
  JDual const C = val(R) == 0.0 ? JDual(0.0) : -1.0 / R;
  bool const afocal = p.config->afocal_image != 0;
  JDual k_chief, k_ray;
  if (!compute_exit_pupil_waves_t<JDual>(ref.end, chief.end, R, C, afocal, ctx.object_at_infinity,
                                          history, g, lambda, k_chief) ||
      !compute_exit_pupil_waves_t<JDual>(ref.end, ray.end, R, C, afocal, ctx.object_at_infinity,
                                          history, g, lambda, k_ray)) {
    return false;
  }
  double const to_waves = 1000.0 / lambda;
  value = (chief.opl * to_waves + k_chief) - (ray.opl * to_waves + k_ray);
  return true;
}

// ---------------------------------------------------------------------------
// One pass

struct DualResult {
  JDual value;
  int status;
};

// Operands that the dual evaluation computes: the accepted codes, and what
// a composite may reach.  The rest keep their plain value without slots.
bool has_dual_formula(unsigned c) {
  return in(c, 0, 7) || in(c, 37, 51) || c == 57 || in(c, 67, 98) || in(c, 101, 103);
}

template <typename U>
void dual_operand(Pass<U>& p, MeritOperandDesc const& op, MeritResult const& plain,
                  DualResult& r) {
  r.value = JDual(plain.value);
  r.status = plain.status;
  if (plain.status != 1 || !has_dual_formula(op.type)) return;
  int const w = detail::merit_wave_index(op.wave, *p.config, p.wave_count);
  unsigned const c = op.type;
  bool ok = true;
  JDual v = JDual(plain.value);
  if (c <= 5) {
    v = ray_coordinate(p, op, w);
  } else if (c <= 7) {
    v = angle_operand(p, op, w);
  } else if (in(c, 67, 69)) {
    ok = opd_operand(p, op, w, v);
  } else if (in(c, 70, 73)) {
    ok = transverse_operand(p, op, w, v);
  } else if (c == 74) {
    ok = incidence_operand(p, op, w, v);
  } else {
    ok = dual_paraxial_operand(op, p.sys, p.wavelengths, p.config, *p.ctx, v);
  }
  // A ray that fails here although the plain one passed gives no slots.
  r.value = ok ? v : JDual(plain.value);
}

// The rays whose dual value is the plain value to the bit, when the pass
// meets no surface whose dual step differs in value (see exact_values):
// their plain traces are then left out of the base evaluation.
bool takes_dual_value(unsigned c) { return c <= 5 || in(c, 70, 73); }

// The raw value and status of a ray operand from its dual ray, by the rule
// of the plain driver.
template <typename U>
void dual_raw_value(Pass<U>& p, MeritOperandDesc const& op, MeritResult& plain, DualResult& r) {
  int const w = detail::merit_wave_index(op.wave, *p.config, p.wave_count);
  JDual v(0.0);
  bool failed = false;
  if (op.type <= 5) {
    v = ray_coordinate(p, op, w);
  } else {
    failed = !transverse_operand(p, op, w, v);
  }
  if (failed) v = JDual(0.0);
  plain.value = val(v);
  plain.status = failed ? -1 : (fabs(val(v)) <= DBL_MAX ? 1 : -1);
  r.value = v;
  r.status = plain.status;
}

bool reads_semi_diameter(unsigned c) {
  return in(c, 43, 47) || in(c, 91, 93) || c == 97 || c == 98;
}

// The slot of the transformed value that a residual row takes, or false
// when the row stays 0: a bound operand inside its bounds, or a failure.
// Above code 87 the residual is the value itself (the bounds act inside the
// operand, on each surface), so its row always follows the value.
bool row_slots(MeritOperandDesc const& op, MeritResult const& plain, DualResult const& r,
               JDual& t) {
  if (plain.status != 1) return false;
  t = op.transform == 8 ? fabs(r.value) : r.value;
  double const v = detail::merit_transform(op.transform, plain.value);
  if (op.type <= 87 && (op.has_lower != 0 || op.has_upper != 0)) {
    bool const broken = (op.has_lower != 0 && op.lower > v) || (op.has_upper != 0 && v > op.upper);
    if (!broken) return false;
  }
  return true;
}

struct PassInputs {
  SurfaceData const* surfaces;  // working copy, pickups and semi-diameters applied
  int n;
  double const* index_table;
  double const* wavelengths;
  int wave_count;
  SystemConfig const* config;
  FieldData const* fields;
  int field_count;
  MeritOperandDesc const* ops;
  int count;
  MeritResult const* results;
  MeritVariableDesc const* variables;
  int variable_count;
  MeritPickupDesc const* pickups;
  int pickup_count;
  MeritContext const* ctx;
  SdArgmax const* argmax;
};

// The base evaluation when a pass forms it: the rays of the ray operands
// come from the pass's dual rays, the rest as the plain driver forms them.
struct BaseOutputs {
  MeritResult* results;
  double* residuals;
  int* count;
  double* merit;
};

template <typename U>
void run_pass(PassInputs const& in, DualArrays& a, DualResult* dual, int first, int live,
              double* jacobian, bool follow_aim, BaseOutputs const* base) {
  fill_pass(a, in.surfaces, in.n, in.variables, first, live, in.pickups, in.pickup_count);
  if constexpr (!std::is_same<U, double>::value) {
    build_dual_rows(a, in.surfaces, in.n, in.index_table, in.wavelengths, in.wave_count);
  }
  MeritContext const& ctx = *in.ctx;
  SystemConfig const& cfg = *in.config;
  Pass<U> p;
  p.a = &a;
  p.surfaces = in.surfaces;
  p.n = in.n;
  p.index_table = in.index_table;
  p.wavelengths = in.wavelengths;
  p.wave_count = in.wave_count;
  p.config = in.config;
  p.ctx = in.ctx;
  p.argmax = in.argmax;
  p.fields = in.fields;
  p.field_count = in.field_count;
  p.follow_aim = follow_aim;
  p.next_ray = 0;
  for (RayEntry& e : p.rays) e.used = false;
  for (bool& ready : p.frame_ready) ready = false;
  int const primary = detail::merit_primary_row(cfg, in.wave_count);
  // First order: the pupil and its position.  With aiming on and an object
  // at infinity or a height field, the aim places the rays and the pupil
  // position enters as a constant.
  U const* prow = index_row(p, primary);
  bool const constant_ep = cfg.ray_aiming != 0 && (ctx.object_at_infinity || cfg.field_type != 0);
  JDual const ep = constant_ep ? JDual(ctx.entrance_pupil_position)
                               : with_slots(ctx.entrance_pupil_position, dual_entrance_pupil(p, prow));
  JDual const pupil = dual_pupil_radius(p, prow, ep, ctx.pupil_radius);
  JDual const exit = compute_exit_pupil_position_t<JDual, U>(
      a.curvatures, a.thicknesses, prow, in.surfaces, in.n, cfg.stop_surface, a.focal_lengths);
  p.reference_radius = with_slots(ctx.reference_radius, fabs(exit));
  p.sys = DualSystem<U>{in.surfaces,     in.n,     a.curvatures, a.thicknesses, a.conics,
                        a.focal_lengths, a.coefficients, a.nd,   a.vd,          a.dpgf,
                        a.semi_diameters, nullptr, in.wave_count, pupil,        ep};
  if constexpr (std::is_same<U, double>::value) {
    p.sys.index_table = in.index_table;
  } else {
    p.sys.index_table = a.rows;
  }
  // Semi-diameters, when an operand reads them.
  for (int i = 0; i < in.count; ++i) {
    if (in.ops[i].weight != 0.0 && reads_semi_diameter(in.ops[i].type)) {
      dual_semi_diameters(p);
      break;
    }
  }
  // Operands, then composites and the ray-group corrections on the slots.
  for (int i = 0; i < in.count; ++i) {
    MeritOperandDesc const& op = in.ops[i];
    if (detail::is_composite(op.type)) {
      dual[i].value = JDual(0.0);
      dual[i].status = 1;
      if (base != nullptr) base->results[i] = MeritResult{0.0, 1};
      continue;
    }
    if (base != nullptr && takes_dual_value(op.type)) {
      dual_raw_value(p, op, base->results[i], dual[i]);
      continue;
    }
    if (base != nullptr) {
      base->results[i] = MeritResult{0.0, 0};
      detail::merit_raw_value(op, in.surfaces, in.n, in.index_table, in.wavelengths,
                              in.wave_count, in.config, ctx, nullptr, base->results[i]);
    }
    dual_operand(p, op, in.results[i], dual[i]);
  }
  if (base != nullptr) {
    // The driver on the raw values: composites, corrections, residuals.
    evaluate_merit(in.surfaces, in.n, in.index_table, in.wavelengths, in.wave_count, in.config,
                   in.fields, in.field_count, in.ops, in.count, base->results, base->residuals,
                   base->count, base->merit, true, nullptr);
    long const cells = static_cast<long>(*base->count) * in.variable_count;
    for (long e = 0; e < cells; ++e) jacobian[e] = 0.0;
  }
  for (int i = 0; i < in.count; ++i) {
    if (!detail::is_composite(in.ops[i].type)) continue;
    dual[i].value = detail::merit_composite(in.ops[i], dual, in.count);
    dual[i].status = 1;
  }
  detail::merit_remove_centroids(in.ops, in.count, dual);
  detail::merit_remove_piston(in.ops, in.count, dual);
  detail::merit_remove_tilt(in.ops, in.count, dual);
  // Rows: the root of the weight times the slots, in residual order.
  long const stride = in.variable_count;
  int slot = 0;
  for (int i = 0; i < in.count; ++i) {
    MeritOperandDesc const& op = in.ops[i];
    if (op.weight == 0.0 || in.results[i].status == 0) continue;
    JDual t;
    if (row_slots(op, in.results[i], dual[i], t)) {
      double const s = sqrt(op.weight);
      for (int k = 0; k < live; ++k) jacobian[slot * stride + first + k] = s * t.d[k];
    }
    ++slot;
  }
}

// For the index rows: the dual instance when any surface has model glass.
bool any_model_glass(SurfaceData const* s, int n) {
  for (int i = 0; i < n; ++i) {
    if (s[i].model_glass != 0) return true;
  }
  return false;
}

// Variables of kinds 9 to 11 and pickups of kinds 6 to 8 move the model glass.
bool moves_glass(MeritVariableDesc const* variables, int count) {
  for (int v = 0; v < count; ++v) {
    if (variables[v].kind >= 9 && variables[v].kind <= 11) return true;
  }
  return false;
}

bool moves_glass(MeritPickupDesc const* pickups, int count) {
  for (int k = 0; k < count; ++k) {
    if (pickups[k].kind >= 6 && pickups[k].kind <= 8) return true;
  }
  return false;
}

// The unsupported count that the plain driver will report: weighted
// operands without an evaluator, or every weighted one without an index row.
int unsupported_count(MeritOperandDesc const* ops, int count, int wave_count) {
  int unsupported = 0;
  for (int i = 0; i < count; ++i) {
    unsigned const c = ops[i].type;
    if (ops[i].weight == 0.0 || detail::is_composite(c)) continue;
    if (!detail::catalogue_has_evaluator(c) || wave_count < 1) ++unsupported;
  }
  return unsupported;
}

// True when the dual rays of a pass give the plain ray values to the bit:
// constant index rows, no even asphere (its landing adds a Newton step), no
// plane whose curvature carries slots (it is met by the conic step), and no
// robust aim (which the dual launch does not follow).
bool exact_values(SurfaceData const* s, int n, SystemConfig const& cfg,
                  MeritVariableDesc const* variables, int live, MeritPickupDesc const* pickups,
                  int pickup_count) {
  if (cfg.ray_aiming == 2) return false;
  auto plane = [&](int k) { return k >= 0 && k < n && fabs(s[k].curvature) < kPlaneCurvature; };
  for (int i = 0; i < n; ++i) {
    if (s[i].type == NUVRIX_SURFACE_EVEN_ASPHERE) return false;
  }
  for (int v = 0; v < live; ++v) {
    if (variables[v].kind == 0 && plane(variables[v].surface)) return false;
  }
  for (int k = 0; k < pickup_count; ++k) {
    if (pickups[k].kind == 0 && plane(pickups[k].target_surface)) return false;
  }
  return true;
}

}  // namespace

namespace detail {

int analytic_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                      double const* wavelengths, int wave_count, SystemConfig const* config,
                      FieldData const* fields, int field_count, MeritOperandDesc const* ops,
                      int operand_count, MeritVariableDesc const* variables, int variable_count,
                      MeritPickupDesc const* pickups, int pickup_count, MeritResult* results,
                      double* residuals, SurfaceData* work_surfaces, FieldData* work_fields,
                      double* jacobian, int* residual_count, double* merit, bool follow_aim) {
  // The system of the base evaluation, with the rays that set the
  // semi-diameters kept.
  if (n > kMaxSurfaces) return -2;  // the dual arrays hold 256 surfaces
  for (int i = 0; i < n; ++i) work_surfaces[i] = surfaces[i];
  for (int f = 0; f < field_count; ++f) work_fields[f] = fields[f];
  apply_pickups(work_surfaces, n, pickups, pickup_count);
  SdArgmax argmax[kMaxSurfaces];
  solve_semi_diameters_impl(work_surfaces, n, index_table, wavelengths, wave_count, config,
                            work_fields, field_count, argmax);
  bool const infinite = n > 0 && detail::is_infinite_distance(work_surfaces[0].thickness);
  // The index rows carry slots only where a pass moves the model glass:
  // with model glass but no such variable or pickup their slots would all
  // be 0, and the constant rows give the same derivatives at less cost.
  bool const glass = any_model_glass(work_surfaces, n);
  bool const glass_pickups = moves_glass(pickups, pickup_count);
  auto dual_rows = [&](int first, int live) {
    return glass && (glass_pickups || moves_glass(variables + first, live));
  };
  int const first_live = variable_count < kPassVariables ? variable_count : kPassVariables;
  bool const usable = unsupported_count(ops, operand_count, wave_count) == 0 &&
                      accepted(ops, operand_count, variables, variable_count, *config,
                               work_fields, field_count, infinite) &&
                      operand_count <= kAnalyticMaxOperands && wave_count >= 1 &&
                      !(glass && static_cast<long>(wave_count) * n > kDualIndexEntries);
  // The base evaluation: by the plain driver, or, where the first pass's
  // dual rays give the plain values to the bit, by that pass itself.
  bool const from_pass = usable && variable_count >= 1 && !dual_rows(0, first_live) &&
                         exact_values(work_surfaces, n, *config, variables, first_live, pickups,
                                      pickup_count);
  int base_count = 0;
  if (!from_pass) {
    int const status = evaluate_merit(work_surfaces, n, index_table, wavelengths, wave_count,
                                      config, work_fields, field_count, ops, operand_count,
                                      results, residuals, &base_count, merit, false, nullptr);
    if (residual_count != nullptr) *residual_count = base_count;
    if (status != 0) return status;
    if (!accepted(ops, operand_count, variables, variable_count, *config, work_fields,
                  field_count, infinite)) {
      return -2;
    }
    if (variable_count < 1) return 0;
    if (!usable) return -2;
    for (long e = 0; e < static_cast<long>(base_count) * variable_count; ++e) jacobian[e] = 0.0;
  }
  MeritContext const ctx =
      build_context(work_surfaces, n, index_table, wave_count, config, work_fields, field_count);
  PassInputs const in = {work_surfaces, n,         index_table,   wavelengths, wave_count,
                         config,        work_fields, field_count, ops,         operand_count,
                         results,       variables, variable_count, pickups,    pickup_count,
                         &ctx,          argmax};
  BaseOutputs const base = {results, residuals, &base_count, merit};
  DualArrays arrays_storage;
  DualResult dual_storage[kAnalyticMaxOperands];
  for (int first = 0; first < variable_count; first += kPassVariables) {
    int const live = variable_count - first < kPassVariables ? variable_count - first
                                                              : kPassVariables;
    BaseOutputs const* forms_base = from_pass && first == 0 ? &base : nullptr;
    if (dual_rows(first, live)) {
      run_pass<JDual>(in, arrays_storage, dual_storage, first, live, jacobian, follow_aim,
                      forms_base);
    } else {
      run_pass<double>(in, arrays_storage, dual_storage, first, live, jacobian, follow_aim,
                       forms_base);
    }
  }
  if (from_pass && residual_count != nullptr) *residual_count = base_count;
  // The chain rule onto the host's unbounded x.
  for (int v = 0; v < variable_count; ++v) {
    MeritVariableDesc const& var = variables[v];
    if (var.has_lower == 0 && var.has_upper == 0) continue;
    double const p = read_variable_value(var, surfaces, n, fields, field_count);
    double const x = transform_to_unbounded(p, var.has_lower, var.lower, var.has_upper, var.upper);
    double const J = transform_jacobian(x, var.has_lower, var.lower, var.has_upper, var.upper);
    if (J == 1.0) continue;
    for (int r = 0; r < base_count; ++r) jacobian[static_cast<long>(r) * variable_count + v] *= J;
  }
  return 0;
}

}  // namespace detail

int evaluate_merit_jacobian_analytic(
    SurfaceData const* surfaces, int n, double const* index_table, double const* wavelengths,
    int wave_count, SystemConfig const* config, FieldData const* fields, int field_count,
    MeritOperandDesc const* ops, int operand_count, MeritVariableDesc const* variables,
    int variable_count, MeritPickupDesc const* pickups, int pickup_count, MeritResult* results,
    double* residuals, SurfaceData* work_surfaces, FieldData* work_fields, double* jacobian,
    int* residual_count, double* merit) {
  return detail::analytic_jacobian(surfaces, n, index_table, wavelengths, wave_count, config,
                                   fields, field_count, ops, operand_count, variables,
                                   variable_count, pickups, pickup_count, results, residuals,
                                   work_surfaces, work_fields, jacobian, residual_count, merit,
                                   true);
}

}  // namespace nuvrix
