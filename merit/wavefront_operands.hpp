// The image-quality operands that need more than one ray: optical path
// difference against the primary reference sphere (codes 67 to 69), the
// effective F-number of the vignetted cone (code 59), the field ray of the
// transverse operands and the sagittal and tangential foci.
#pragma once

#include "api/types.hpp"
#include "first_order/aim_robust.hpp"
#include "merit/merit_context.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {

constexpr double kArcminPerRadian = 3437.7467707849396;
constexpr double kFocusProbe = 0.05;            // pupil offset of the focus rays
constexpr double kTwoPiMerit = 6.283185307179586;

namespace detail {

// One ray of the OPD operand: where it ends, its phase, and the two points
// of its start that put an infinite object's wavefront in place.
struct OpdRay {
  double x, y, z, l, m, n;
  double phase;
  double entry_x, entry_y, entry_z;     // point on surface 1
  double launch_l, launch_m, launch_n;  // direction at launch
  bool has_history;
};

// The ray of (hy, px, py) at wavelength row w: from the pre-traced table
// when it holds it (kind 1, last surface), else traced with a history of
// two records.  False when the ray failed.
NUVRIX_HD bool opd_ray(SurfaceData const* surfaces, int n, double const* index_table, int w,
                       double const* wavelengths, SystemConfig const* config,
                       MeritContext const& ctx, double hy, double hx, double px, double py,
                       PreTracedRays const* table, OpdRay& r) {
  r = OpdRay{0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 1.0, false};
  int const k = table != nullptr ? pretraced_find(*table, hy, w, px, py, 1, 0) : -1;
  if (k >= 0) {
    if (table->valid_flags[k] == 0) return false;
    r = OpdRay{table->x[k],       table->y[k],       table->z[k],       table->l[k],
               table->m[k],       table->n[k],       table->phase_waves[k],
               table->entry_x[k], table->entry_y[k], table->entry_z[k], table->launch_l[k],
               table->launch_m[k], table->launch_n[k], true};
    if (!ctx.object_at_infinity) {
      r.entry_x = r.entry_y = r.entry_z = r.launch_l = r.launch_m = 0.0;
      r.launch_n = 1.0;
      r.has_history = false;
    }
    return true;
  }
  double const* row = index_table + static_cast<long>(w) * n;
  RayState states[2];
  RayTraceResult const t =
      merit_ray(surfaces, n, row, config, ctx, merit_aim_radius(surfaces, n, row, config, ctx),
                hy * ctx.max_field_y, hx * ctx.max_field_x, px, py, wavelengths[w] * 1000.0,
                states, 2);
  if (!t.valid) return false;
  r.x = t.x, r.y = t.y, r.z = t.z, r.l = t.l, r.m = t.m, r.n = t.n, r.phase = t.phase_waves;
  if (ctx.object_at_infinity && t.states_written >= 2) {
    r.launch_l = states[0].l, r.launch_m = states[0].m, r.launch_n = states[0].n;
    r.entry_x = states[1].x, r.entry_y = states[1].y, r.entry_z = states[1].z;
    r.has_history = true;
  }
  return true;
}

// One ray's end for the closure onto the reference surface: its point and
// direction at the image, and for an infinite object the projection of its
// entry point on the reference ray's launch direction.
template <typename T>
struct ExitPupilRay {
  T x, y, z, l, m, n;
  T start;  // (l0, m0, n0) . E, used only with an object at infinity and a history
};

}  // namespace detail

// The path from a ray's end to the reference surface about the reference
// ray's image point P0 = (x0, y0, z0), in waves of lambda (micrometres) in
// a medium of index g: along the ray to the plane normal to the reference
// direction (afocal image space) or to the reference sphere of radius R and
// curvature C; and for an infinite object the shift that puts the ray's
// start onto the wavefront through the reference ray's entry point.  False
// when the ray misses the sphere.  T is double or a dual number; the steps
// are the same.
template <typename T>
NUVRIX_HD bool compute_exit_pupil_waves_t(detail::ExitPupilRay<T> const& ref,
                                          detail::ExitPupilRay<T> const& r, T const& R,
                                          T const& C, bool afocal, bool infinite_object,
                                          bool has_history, double g, double lambda_um, T& K) {
  using detail::dot3;
  T const dx = r.x - ref.x, dy = r.y - ref.y, dz = r.z - ref.z;
  double const to_waves = 1000.0 * g / lambda_um;
  K = T(0.0);
  if (afocal) {
    T const s = dot3(r.l, r.m, r.n, ref.l, ref.m, ref.n);
    if (fabs(detail::val(s)) > 1e-30) K = -dot3(dx, dy, dz, ref.l, ref.m, ref.n) / s * to_waves;
  } else {
    T const q = R - dz, t = q / r.n;
    T const a = dx + r.l * t, b = dy + r.m * t;
    T const A = detail::sum_sq2(a, b);
    T const B = r.n / C - r.l * a - r.m * b;
    T const D = B * B - A;
    if (detail::val(D) < 0.0) return false;
    T e = T(0.0);
    if (!(detail::val(A) < 1e-30)) e = detail::val(C) > 0.0 ? A / (B + sqrt(D)) : A / (B - sqrt(D));
    T const vx = r.l * e + a - dx, vy = r.m * e + b - dy, vz = r.n * e + q - dz;
    K = sqrt(dot3(vx, vy, vz, vx, vy, vz)) * to_waves;
  }
  if (infinite_object && has_history) K += -(ref.start - r.start) * 1000.0 / lambda_um;
  return true;
}

namespace detail {

// The closure of one OPD ray: its end, and the projection of its entry
// point on the reference ray's launch direction.
NUVRIX_HD bool exit_pupil_waves(OpdRay const& ref, OpdRay const& r, MeritContext const& ctx,
                                bool afocal, double image_index, double lambda_um, double& K) {
  auto closure = [&](OpdRay const& o) {
    return ExitPupilRay<double>{o.x, o.y, o.z, o.l, o.m, o.n,
                                dot3(ref.launch_l, ref.launch_m, ref.launch_n, o.entry_x,
                                     o.entry_y, o.entry_z)};
  };
  return compute_exit_pupil_waves_t<double>(closure(ref), closure(r), ctx.reference_radius,
                                            ctx.reference_curvature, afocal,
                                            ctx.object_at_infinity, r.has_history, image_index,
                                            lambda_um, K);
}

// Foci of the y fan (T) and of the x fan (S) at field h on one row, from
// rays at +-0.05 of the pupil; 0 where a ray failed or the rays are
// parallel to within 1e-15.
NUVRIX_HD void sag_tan_focus(SurfaceData const* surfaces, int n, double const* row,
                             SystemConfig const* config, MeritContext const& ctx, double h,
                             double& tangential, double& sagittal) {
  double const ep = compute_entrance_pupil_position(surfaces, n, row, config->stop_surface);
  double const aim = merit_aim_radius(surfaces, n, row, config, ctx);
  int const flag = ctx.aim_flag ? 1 : 0;
  double const pr = ctx.pupil_radius;
  RayTraceResult const r1 =
      trace_arbitrary_ray(surfaces, n, row, config, h, pr, 0.0, kFocusProbe, 0.0, ep, flag, aim, 0, 0.0);
  RayTraceResult const r2 = trace_arbitrary_ray(surfaces, n, row, config, h, pr, 0.0, -kFocusProbe,
                                                0.0, ep, flag, aim, 0, 0.0);
  RayTraceResult const r3 =
      trace_arbitrary_ray(surfaces, n, row, config, h, pr, kFocusProbe, 0.0, 0.0, ep, flag, aim, 0, 0.0);
  RayTraceResult const r4 = trace_arbitrary_ray(surfaces, n, row, config, h, pr, -kFocusProbe, 0.0,
                                                0.0, ep, flag, aim, 0, 0.0);
  double const dm = r1.m - r2.m, dl = r3.l - r4.l;
  tangential = (r1.valid && r2.valid && fabs(dm) > kTiny) ? -(r1.y - r2.y) / dm : 0.0;
  sagittal = (r3.valid && r4.valid && fabs(dl) > kTiny) ? -(r3.x - r4.x) / dl : 0.0;
}

}  // namespace detail

// The ray of the transverse and magnification operands: the general front
// end with the context's pupil, aimed at the radius that a real marginal
// ray fills at the stop on this row.  hy and hx are scaled field values.
NUVRIX_HD RayTraceResult trace_field_ray(SurfaceData const* surfaces, int n, double const* row,
                                         SystemConfig const* config, MeritContext const& ctx,
                                         double hy, double px, double py, double hx) {
  double const aim = detail::merit_aim_radius(surfaces, n, row, config, ctx);
  return trace_arbitrary_ray(surfaces, n, row, config, hy, ctx.pupil_radius, px, py, 0.0,
                             ctx.entrance_pupil_position, ctx.aim_flag ? 1 : 0, aim, 0, hx);
}

// Focus of the y fan in `first` and of the x fan in `second`, measured
// along the axis from the image surface.
NUVRIX_HD_CALL void compute_sag_tan_focus(SurfaceData const* surfaces, int n, double const* row,
                                     SystemConfig const* config, MeritContext const& ctx,
                                     double field_y, double& first, double& second) {
  detail::sag_tan_focus(surfaces, n, row, config, ctx, field_y, first, second);
}

// Working F-number from the area of the vignetted cone in direction-cosine
// space: on each of `samples` azimuths (8 to 256) the rim is found by 16
// bisections of the pupil radius, and the polygon of the rim directions,
// relative to the chief ray, gives the solid angle.  -1 when the chief ray
// fails; 1e15 when the cone has no area.
NUVRIX_HD_CALL double compute_effective_fnumber(SurfaceData const* surfaces, int n, double const* row,
                                           SystemConfig const* config, MeritContext const& ctx,
                                           double field_y, int samples) {
  double const aim = detail::merit_aim_radius(surfaces, n, row, config, ctx);
  int const flag = ctx.aim_flag ? 1 : 0;
  double const pr = ctx.pupil_radius, ep = ctx.entrance_pupil_position;
  RayTraceResult const chief =
      trace_arbitrary_ray(surfaces, n, row, config, field_y, pr, 0.0, 0.0, 0.0, ep, flag, aim, 0, 0.0);
  if (!chief.valid) return -1.0;
  int const N = samples < 8 ? 8 : (samples > 256 ? 256 : samples);
  double sum = 0.0, first_l = 0.0, first_m = 0.0, prev_l = 0.0, prev_m = 0.0;
  for (int i = 0; i < N; ++i) {
    double const a = kTwoPiMerit * i / N;
    double const ca = cos(a), sa = sin(a);
    double lo = 0.0, hi = 1.0, dl = 0.0, dm = 0.0;
    for (int step = 0; step < 16; ++step) {
      double const mid = (lo + hi) / 2.0;
      RayTraceResult const r = trace_arbitrary_ray(surfaces, n, row, config, field_y, pr,
                                                   mid * ca, mid * sa, 0.0, ep, flag, aim, 0, 0.0);
      if (r.valid) {
        lo = mid;
        dl = r.l - chief.l;
        dm = r.m - chief.m;
      } else {
        hi = mid;
      }
    }
    if (i == 0) {
      first_l = dl, first_m = dm;
    } else {
      sum += prev_l * dm - dl * prev_m;
    }
    prev_l = dl, prev_m = dm;
  }
  sum += prev_l * first_m - first_l * prev_m;  // close the polygon
  double const area = fabs(sum) / 2.0;
  double const na = sqrt(area / 3.14159265358979323846);
  if (na < kTiny) return kNoPowerFocal;
  return 1.0 / (2.0 * na);
}

// Codes 67 to 69: the optical path difference, in waves of the operand's
// wavelength, between the operand's own chief ray and the ray of (px, py),
// each closed onto the reference sphere about the primary chief ray's image
// point.  Positive when the operand ray's path is the shorter.  Always
// true; ray_failed for a failed ray or one that misses the sphere.
NUVRIX_HD_CALL bool evaluate_opd(MeritOperandDesc const& op, SurfaceData const* surfaces, int n,
                            double const* index_table, int wave_count, double const* wavelengths,
                            SystemConfig const* config, MeritContext const& ctx, double& value,
                            bool& ray_failed, PreTracedRays const* table) {
  value = 0.0;
  ray_failed = false;
  int const w = detail::merit_wave_index(op.wave, *config, wave_count);
  int const p = detail::merit_primary_row(*config, wave_count);
  double const lambda = wavelengths[w];
  double const g = n <= 1 ? 1.0 : index_table[static_cast<long>(w) * n + n - 2];
  detail::OpdRay ref, chief, ray;
  if (!detail::opd_ray(surfaces, n, index_table, p, wavelengths, config, ctx, op.hy, op.hx, 0.0,
                       0.0, table, ref) ||
      !detail::opd_ray(surfaces, n, index_table, w, wavelengths, config, ctx, op.hy, op.hx, 0.0,
                       0.0, table, chief) ||
      !detail::opd_ray(surfaces, n, index_table, w, wavelengths, config, ctx, op.hy, op.hx, op.px,
                       op.py, table, ray)) {
    ray_failed = true;
    return true;
  }
  bool const afocal = config->afocal_image != 0;
  double k_chief = 0.0, k_ray = 0.0;
  if (!detail::exit_pupil_waves(ref, chief, ctx, afocal, g, lambda, k_chief) ||
      !detail::exit_pupil_waves(ref, ray, ctx, afocal, g, lambda, k_ray)) {
    ray_failed = true;
    return true;
  }
  value = (chief.phase + k_chief) - (ray.phase + k_ray);
  return true;
}

}  // namespace nuvrix
