// The bodies of the Jacobian kernels, one item a thread, written once for
// the device and the host (the stand-in driver of the tests runs them
// too).  The device differentiates with respect to curvatures only: a
// candidate is the base surfaces with its own values of the curvature
// variables, and each item carries the variables in passes of eight slots
// of Dual<10>, as the CPU's analytic Jacobian does, through the same
// templates, so that its values and rows are the CPU's.
#pragma once

#include "merit/dual_launch.hpp"
#include "merit/dual_system.hpp"
#include "trace/trace_generic.hpp"
#include "merit/operand_catalogue.hpp"
#include "merit/wavefront_operands.hpp"

namespace nuvrix {
namespace kernels {

constexpr int kMaxJacobianSurfaces = 256;

// A candidate's surfaces as the dual templates read them: the plain
// records, its own curvatures, and on every curvature that variables of
// the pass address the slots of those variables (a mask of the eight).
struct CurvatureDuals {
  using Scalar = JDual;
  SurfaceData const* surfaces;
  int n;
  double const* curvatures;    // the candidate's, n of them
  unsigned char const* slots;  // bit s: the variable of slot s moves this curvature
  NUVRIX_HD SurfaceData const& record(int k) const { return surfaces[k]; }
  NUVRIX_HD JDual curvature(int k) const {
    JDual c(curvatures[k]);
    for (int s = 0; s < kPassVariables; ++s) {
      if ((slots[k] >> s) & 1) c.d[s] += 1.0;
    }
    return c;
  }
  NUVRIX_HD JDual thickness(int k) const { return JDual(surfaces[k].thickness); }
  NUVRIX_HD JDual conic(int k) const { return JDual(surfaces[k].conic); }
  NUVRIX_HD JDual coefficient(int k, int j) const { return JDual(surfaces[k].coefficients[j]); }
  NUVRIX_HD JDual focal_length(int k) const { return JDual(surfaces[k].focal_length); }
};

// The variables of one candidate: its curvatures, and the slot masks of
// the pass that starts at variable `first`.  False when n is out of range.
struct Candidate {
  double curvatures[kMaxJacobianSurfaces];
  unsigned char slots[kMaxJacobianSurfaces];
};

NUVRIX_HD bool load_candidate(Candidate& c, SurfaceData const* surfaces, int n,
                              int const* variable_surfaces, int variable_count,
                              double const* values) {
  if (n < 1 || n > kMaxJacobianSurfaces) return false;
  for (int k = 0; k < n; ++k) c.curvatures[k] = surfaces[k].curvature;
  for (int v = 0; v < variable_count; ++v) c.curvatures[variable_surfaces[v]] = values[v];
  return true;
}

NUVRIX_HD void load_pass(Candidate& c, int n, int const* variable_surfaces, int variable_count,
                         int first) {
  for (int k = 0; k < n; ++k) c.slots[k] = 0;
  for (int v = first; v < variable_count && v < first + kPassVariables; ++v) {
    c.slots[variable_surfaces[v]] |= static_cast<unsigned char>(1u << (v - first));
  }
}

// The row of an item: the slots of each pass, times the factor of each
// variable when factors are given.
NUVRIX_HD void store_slots(JDual const& value, int first, int variable_count,
                           double const* factors, double* row) {
  for (int v = first; v < variable_count && v < first + kPassVariables; ++v) {
    double const d = value.d[v - first];
    row[v] = factors != nullptr ? d * factors[v] : d;
  }
}

// Candidate i of the focal-length operand: the value and the derivatives
// of what the CPU's dual catalogue forms for code 50 on the index row.
NUVRIX_HD void efl_jacobian_body(int i, SurfaceData const* surfaces, int n, double const* row,
                                 int const* variable_surfaces, int variable_count,
                                 double const* values, double const* factors, double* results,
                                 double* rows, int count) {
  if (i >= count) return;
  long const at = static_cast<long>(i) * variable_count;
  Candidate c;
  if (!load_candidate(c, surfaces, n, variable_surfaces, variable_count, values + at)) {
    results[i] = 0.0;
    for (int v = 0; v < variable_count; ++v) rows[at + v] = 0.0;
    return;
  }
  CurvatureDuals const view = {surfaces, n, c.curvatures, c.slots};
  for (int first = 0; first < variable_count || first == 0; first += kPassVariables) {
    load_pass(c, n, variable_surfaces, variable_count, first);
    JDual const f = detail::catalogue_focal_length(view, row);
    if (first == 0) results[i] = f.value;
    store_slots(f, first, variable_count, factors != nullptr ? factors + at : nullptr,
                rows + at);
  }
}

// The arguments of the ray Jacobian kernel.  frames holds each
// candidate's plain first order as the host found it (pupil radius,
// entrance pupil position, and the stop radius of the ray's row, 0 without
// aiming); aims the plain aim of the ray (aim_plain_launch's three numbers,
// NaN first when the aim failed); setup the configuration's numbers in
// the order field type, aperture type, ray aiming, stop surface,
// telecentric object, and the coordinate wanted (0 x, 1 y).
struct RayJacobianArgs {
  SurfaceData const* surfaces;
  int n;
  double const* index_table;  // rows of n
  int const* variable_surfaces;
  int variable_count;
  double field_y, field_x;  // scaled as the merit scales hy and hx
  double const* values;
  double px, py, aperture_value;
  int wave_row, primary_row;
  double const* factors;
  double const* frames;
  double const* aims;
  double const* setup;
  double* results;
  double* rows;
  int count;
  int last_surface;  // 0: the image
  void* work;        // ray_jacobian_work_bytes(n) a candidate
};

// The device memory a candidate's dual system takes: curvatures,
// thicknesses, conics, focal lengths and eight coefficients of dual
// numbers, and the plain coefficient rows.
NUVRIX_HD long ray_jacobian_work_bytes(int n) {
  return static_cast<long>(n) * (12 * static_cast<long>(sizeof(JDual)) + 8 * 8);
}

struct RayDuals {
  JDual *curvatures, *thicknesses, *conics, *focal_lengths;
  JDual (*coefficients)[8];
  double (*plain_coefficients)[8];
};

NUVRIX_HD RayDuals ray_duals(void* work, int n) {
  JDual* d = static_cast<JDual*>(work);
  RayDuals r;
  r.curvatures = d, r.thicknesses = d + n, r.conics = d + 2 * n, r.focal_lengths = d + 3 * n;
  r.coefficients = reinterpret_cast<JDual(*)[8]>(d + 4 * n);
  r.plain_coefficients = reinterpret_cast<double(*)[8]>(d + 12 * n);
  return r;
}

// What one pass of a differentiated ray needs besides the dual system: the
// plain records, the index table, the configuration, and the ray itself
// with the plain first order and aim the host found for its candidate.
struct RayPassInput {
  SurfaceData const* surfaces;
  int n;
  double const* index_table;
  int primary_row;  // the row of the pupil and its position
  SystemConfig cfg;
  double field_y, field_x, px, py;
  int row, last_surface;
  double pupil_radius, pupil_position, stop_radius;  // plain; stop radius 0: no aim
  double const* aim;                                 // three numbers, NaN first: failed
  bool solve_frame;  // the frame of the semi-diameter solve rather than the merit's
  int capture;       // the surface whose state is kept (-1: none)
};

NUVRIX_HD RayD trace_duals(RayPassInput const& r, RayDuals const& s, double const* row,
                           RayD const& launch, int last, int capture = -1,
                           RayD* at_capture = nullptr) {
  return trace_ray_t<JDual, double>(r.surfaces, r.n, s.curvatures, s.thicknesses, s.conics, row,
                                    launch, 1, last, 0.0, capture, at_capture, nullptr,
                                    s.coefficients, -1, s.focal_lengths);
}

// One pass of a ray: the launch over dual numbers from the pupil and its
// position with their slots, aimed as the host aimed it and kept on the
// aim, then the trace, with the state at r.capture into at_capture (its
// status -1 when the ray did not get there).  False when the ray fails.
// The merit's frame takes the pupil's position as a constant under aiming
// with an object at infinity or a height field; the solve's frame takes 0
// with the stop on surface 1 or in front of it.
NUVRIX_HD bool ray_pass(RayPassInput const& r, RayDuals const& s, RayD& end,
                        RayD* at_capture = nullptr, RayD* launch_out = nullptr) {
  if (at_capture != nullptr) at_capture->status = -1;
  int const n = r.n;
  SystemConfig const& cfg = r.cfg;
  double const* row = r.index_table + static_cast<long>(r.row) * n;
  double const* prow = r.index_table + static_cast<long>(r.primary_row) * n;
  bool const infinite = detail::is_infinite_distance(r.surfaces[0].thickness);
  bool const constant_ep = r.solve_frame
                               ? cfg.stop_surface < 2
                               : cfg.ray_aiming != 0 && (infinite || cfg.field_type != 0);
  JDual const ep =
      constant_ep ? JDual(r.pupil_position)
                  : with_slots(r.pupil_position,
                               compute_entrance_pupil_position_t<JDual, double>(
                                   s.curvatures, s.thicknesses, prow, r.surfaces, n,
                                   cfg.stop_surface));
  JDual const R = dual_pupil_radius_t<double>(cfg, s.curvatures, s.thicknesses, prow, r.surfaces,
                                              n, s.focal_lengths, s.plain_coefficients, ep,
                                              r.pupil_radius);
  RayD launch = dual_launch(cfg, s.thicknesses[0], r.field_y, r.field_x, R, r.px, r.py, ep);
  if (cfg.ray_aiming != 0 && r.stop_radius > 0.0) {
    if (r.aim[0] != r.aim[0]) return false;  // the host's aim failed
    RayD const marginal = trace_duals(
        r, s, row, make_launch(JDual(0.0), R, JDual(0.0), JDual(0.0), JDual(1.0)),
        cfg.stop_surface);
    JDual const stop_radius =
        marginal.status != 0 ? JDual(r.stop_radius) : with_slots(r.stop_radius, fabs(marginal.y));
    seed_aimed_launch(launch, !infinite, r.aim[0], r.aim[1], r.aim[2]);
    RayD const at_stop = trace_duals(r, s, row, launch, cfg.stop_surface);
    if (at_stop.status != 0) return false;
    follow_aimed_launch(launch, !infinite, at_stop, stop_radius, r.px, r.py);
  }
  if (launch_out != nullptr) *launch_out = launch;
  end = trace_duals(r, s, row, launch, r.last_surface, r.capture, at_capture);
  return end.status == 0;
}

// The configuration of the ray kernels from its six numbers (field type,
// aperture type, ray aiming, stop surface, telecentric object, and one
// more that each kernel reads itself) and the aperture value.
NUVRIX_HD SystemConfig ray_config(double const* setup, double aperture_value) {
  SystemConfig cfg = {};
  cfg.field_type = static_cast<int>(setup[0]);
  cfg.aperture_type = static_cast<int>(setup[1]);
  cfg.aperture_value = aperture_value;
  cfg.ray_aiming = static_cast<int>(setup[2]);
  cfg.stop_surface = static_cast<int>(setup[3]);
  cfg.telecentric_object = static_cast<int>(setup[4]);
  return cfg;
}

// The constant part of a candidate's dual system.
NUVRIX_HD void fill_constant_duals(RayDuals const& s, SurfaceData const* surfaces, int n) {
  for (int k = 0; k < n; ++k) {
    SurfaceData const& sf = surfaces[k];
    s.thicknesses[k] = JDual(sf.thickness);
    s.conics[k] = JDual(sf.conic);
    s.focal_lengths[k] = JDual(sf.focal_length);
    for (int j = 0; j < 8; ++j) {
      s.coefficients[k][j] = JDual(sf.coefficients[j]);
      s.plain_coefficients[k][j] = sf.coefficients[j];
    }
  }
}

// The value and row of one item over its candidate's curvature variables:
// `measure` forms the item's dual value from the dual system of a pass
// (false: the item failed, NaN and a row of zeros).
template <typename Measure>
NUVRIX_HD void differentiate_item(SurfaceData const* surfaces, int n,
                                  int const* variable_surfaces, int V, double const* values,
                                  double const* factors, void* work, double& result,
                                  double* row_out, Measure const& measure) {
  for (int v = 0; v < V; ++v) row_out[v] = 0.0;
  result = 0.0 / 0.0;
  Candidate c;
  if (!load_candidate(c, surfaces, n, variable_surfaces, V, values)) return;
  RayDuals const s = ray_duals(work, n);
  fill_constant_duals(s, surfaces, n);
  CurvatureDuals const view = {surfaces, n, c.curvatures, c.slots};
  for (int first = 0; first < V || first == 0; first += kPassVariables) {
    load_pass(c, n, variable_surfaces, V, first);
    for (int k = 0; k < n; ++k) s.curvatures[k] = view.curvature(k);
    JDual value;
    if (!measure(s, value)) {
      for (int v = 0; v < V; ++v) row_out[v] = 0.0;
      result = 0.0 / 0.0;
      return;
    }
    if (first == 0) result = value.value;
    store_slots(value, first, V, factors, row_out);
  }
}

// Candidate i of a real-ray coordinate (codes 0 and 1, and 70 and 71
// before their centroid): the value and derivatives of what the CPU's dual
// ray gives; a failed ray gives NaN and a row of zeros.
NUVRIX_HD void ry_jacobian_body(int i, RayJacobianArgs const& a) {
  if (i >= a.count) return;
  long const at = static_cast<long>(i) * a.variable_count;
  double const* frame = a.frames + 3L * i;
  RayPassInput const r = {a.surfaces,  a.n,      a.index_table, a.primary_row,
                          ray_config(a.setup, a.aperture_value), a.field_y, a.field_x,
                          a.px,        a.py,     a.wave_row,    a.last_surface,
                          frame[0],    frame[1], frame[2],      a.aims + 3L * i,
                          false,       -1};
  bool const y = static_cast<int>(a.setup[5]) != 0;
  void* work = static_cast<char*>(a.work) + ray_jacobian_work_bytes(a.n) * i;
  differentiate_item(a.surfaces, a.n, a.variable_surfaces, a.variable_count, a.values + at,
                     a.factors != nullptr ? a.factors + at : nullptr, work, a.results[i],
                     a.rows + at, [&](RayDuals const& s, JDual& value) {
                       RayD end;
                       if (!ray_pass(r, s, end)) return false;
                       value = y ? end.y : end.x;
                       return true;
                     });
}

// The rays of several entries over many candidates: the spot kernel (each
// entry's ray less the chief ray of its field and row, codes 72 and 73)
// and the batched ray kernel (plain coordinates, codes 0, 1, 70, 71).
// Entry e is the field (field_y[e], field_x[e], scaled as the merit scales
// them), the pupil point (px[e], py[e]), index row rows[e] and coordinate
// coordinates[e] (0 x, 1 y); candidate i brings its pupil radius and
// position, the stop radius of each row (stop_stride a candidate; a stride
// of 1 holds one radius for every row; 0 without aiming), and for each entry the host's plain aims of the ray and
// of the chief ray (three numbers each, entry_count a candidate).
struct RayEntries {
  SurfaceData const* surfaces;
  int n;
  double const* index_table;
  int const* variable_surfaces;
  int variable_count;
  double const* values;
  double const* factors;
  SystemConfig cfg;
  int primary_row, last_surface;
  double const* field_y;
  double const* field_x;
  double const* px;
  double const* py;
  int const* rows;
  int const* coordinates;
  int entry_count;
  double const* pupil_radii;
  double const* pupil_positions;
  double const* stop_radii;
  int stop_stride;
  double const* ray_aims;
  double const* chief_aims;  // null: the plain coordinate
  // The OPD (codes 67 to 69) when ref_aims is given: the host's aims of the
  // reference ray (the chief ray at the primary row), each candidate's
  // plain reference radius, the wavelengths (micrometres) and whether the
  // image is afocal.
  double const* ref_aims;
  double const* reference_radii;
  double const* wavelengths;
  int afocal;
  double* results;           // count rows of entry_count
  double* jacobian;          // count rows of entry_count x variable_count
  int count;
  void* work;                // ray_jacobian_work_bytes(n) an item
};

// One OPD ray's end for the closure onto the reference sphere, and its
// optical path; the reference ray also gives the launch direction onto
// which every ray's point on surface 1 is projected for an infinite object.
NUVRIX_HD bool opd_end(RayPassInput r, RayDuals const& s, bool infinite, JDual reference[3],
                       detail::ExitPupilRay<JDual>& out, JDual& opl) {
  r.capture = 1;
  RayD end, at_one, launch;
  if (!ray_pass(r, s, end, &at_one, &launch)) return false;
  if (reference[0].value != reference[0].value) {  // the reference ray itself
    reference[0] = launch.l, reference[1] = launch.m, reference[2] = launch.n;
  }
  JDual const start =
      infinite ? detail::dot3(reference[0], reference[1], reference[2], at_one.x, at_one.y,
                              at_one.z)
               : JDual(0.0);
  out = detail::ExitPupilRay<JDual>{end.x, end.y, end.z, end.l, end.m, end.n, start};
  opl = end.opl;
  return true;
}

// The OPD in waves of the entry's row: the chief ray's path and closure
// less the ray's, both closed onto the reference sphere of the primary row
// about the reference ray's end, as the CPU's dual OPD forms it.
NUVRIX_HD bool opd_measure(RayEntries const& a, int i, int row, RayPassInput const& reference,
                           RayPassInput const& chief, RayPassInput const& ray,
                           RayDuals const& s, JDual& value) {
  int const n = a.n;
  bool const infinite = detail::is_infinite_distance(a.surfaces[0].thickness);
  JDual dir[3] = {JDual(0.0 / 0.0), JDual(0.0 / 0.0), JDual(0.0 / 0.0)};
  detail::ExitPupilRay<JDual> ref_end, chief_end, ray_end;
  JDual ref_opl, chief_opl, ray_opl;
  if (!opd_end(reference, s, infinite, dir, ref_end, ref_opl) ||
      !opd_end(chief, s, infinite, dir, chief_end, chief_opl) ||
      !opd_end(ray, s, infinite, dir, ray_end, ray_opl)) {
    return false;
  }
  double const* prow = a.index_table + static_cast<long>(a.primary_row) * n;
  JDual const exit = compute_exit_pupil_position_t<JDual, double>(
      s.curvatures, s.thicknesses, prow, a.surfaces, n, a.cfg.stop_surface, s.focal_lengths);
  JDual const R = with_slots(a.reference_radii[i], fabs(exit));
  JDual const C = R.value == 0.0 ? JDual(0.0) : -1.0 / R;
  double const* wrow = a.index_table + static_cast<long>(row) * n;
  double const g = n <= 1 ? 1.0 : wrow[n - 2];
  double const lambda = a.wavelengths[row];
  JDual k_chief, k_ray;
  if (!compute_exit_pupil_waves_t<JDual>(ref_end, chief_end, R, C, a.afocal != 0, infinite,
                                          infinite, g, lambda, k_chief) ||
      !compute_exit_pupil_waves_t<JDual>(ref_end, ray_end, R, C, a.afocal != 0, infinite,
                                          infinite, g, lambda, k_ray)) {
    return false;
  }
  double const to_waves = 1000.0 / lambda;
  value = (chief_opl * to_waves + k_chief) - (ray_opl * to_waves + k_ray);
  return true;
}

// Entry e of candidate i.
NUVRIX_HD void ray_entry_body(int i, int e, RayEntries const& a) {
  if (i >= a.count || e >= a.entry_count) return;
  long const item = static_cast<long>(i) * a.entry_count + e;
  long const at = static_cast<long>(i) * a.variable_count;
  int const row = a.rows[e];
  RayPassInput ray = {a.surfaces,    a.n,        a.index_table,          a.primary_row,
                      a.cfg,         a.field_y[e], a.field_x[e],         a.px[e],
                      a.py[e],       row,        a.last_surface,         a.pupil_radii[i],
                      a.pupil_positions[i],
                      a.stop_radii[static_cast<long>(i) * a.stop_stride + (a.stop_stride > 1 ? row : 0)],
                      a.ray_aims + 3 * item, false, -1};
  RayPassInput chief = ray;
  chief.px = chief.py = 0.0;
  chief.aim = a.chief_aims != nullptr ? a.chief_aims + 3 * item : nullptr;
  bool const y = a.coordinates[e] != 0;
  void* work = static_cast<char*>(a.work) + ray_jacobian_work_bytes(a.n) * item;
  double const* values = a.values + at;
  double const* factors = a.factors != nullptr ? a.factors + at : nullptr;
  double* row_out = a.jacobian + item * a.variable_count;
  if (a.ref_aims != nullptr) {
    RayPassInput reference = chief;
    reference.row = a.primary_row;
    reference.stop_radius =
        a.stop_radii[static_cast<long>(i) * a.stop_stride + (a.stop_stride > 1 ? a.primary_row : 0)];
    reference.aim = a.ref_aims + 3 * item;
    differentiate_item(a.surfaces, a.n, a.variable_surfaces, a.variable_count, values, factors,
                       work, a.results[item], row_out, [&](RayDuals const& s, JDual& value) {
                         return opd_measure(a, i, row, reference, chief, ray, s, value);
                       });
    return;
  }
  differentiate_item(
      a.surfaces, a.n, a.variable_surfaces, a.variable_count, values, factors, work,
      a.results[item], row_out, [&](RayDuals const& s, JDual& value) {
        RayD c, end;
        if (chief.aim != nullptr && !ray_pass(chief, s, c)) return false;
        if (!ray_pass(ray, s, end)) return false;
        value = y ? end.y : end.x;
        if (chief.aim != nullptr) value = value - (y ? c.y : c.x);
        return true;
      });
}

// The sample rays of the semi-diameter solve over many candidates.  Entry
// e is surface surfaces_of[e], index row rows[e], field field_y[e] and the
// solve's pupil sample (px[e], py[e]), scaled by scales[e] (the surface's
// aperture percentage over 100); candidate i brings the solve's plain
// frame of each row (wave_count a candidate: the paraxial marginal height,
// the entrance pupil position, the stop radius, 0 without aiming) and the
// host's plain aim of each entry.  The value is the ray's height at the
// surface times the scale, as the CPU's analytic Jacobian forms the
// derivative of an automatic semi-diameter; a ray that fails behind the
// surface still counts.
struct SdEntries {
  SurfaceData const* surfaces;
  int n;
  double const* index_table;
  int const* variable_surfaces;
  int variable_count;
  double const* values;
  double const* factors;
  SystemConfig cfg;
  int const* surfaces_of;
  int const* rows;
  double const* field_y;
  double const* px;
  double const* py;
  double const* scales;
  int entry_count, wave_count;
  double const* pupil_radii;
  double const* pupil_positions;
  double const* stop_radii;
  double const* aims;
  double* results;
  double* jacobian;
  int count;
  void* work;
};

NUVRIX_HD void sd_entry_body(long t, SdEntries const& a) {
  if (a.entry_count < 1 || t >= static_cast<long>(a.count) * a.entry_count) return;
  int const i = static_cast<int>(t / a.entry_count), e = static_cast<int>(t % a.entry_count);
  long const at = static_cast<long>(i) * a.variable_count;
  long const frame = static_cast<long>(i) * a.wave_count + a.rows[e];
  int const surface = a.surfaces_of[e];
  RayPassInput const ray = {a.surfaces,          a.n,        a.index_table, a.rows[e],
                            a.cfg,               a.field_y[e], 0.0,        a.px[e],
                            a.py[e],             a.rows[e],  a.n - 1,      a.pupil_radii[frame],
                            a.pupil_positions[frame], a.stop_radii[frame], a.aims + 3 * t,
                            true,                surface};
  double const scale = a.scales[e];
  void* work = static_cast<char*>(a.work) + ray_jacobian_work_bytes(a.n) * t;
  differentiate_item(a.surfaces, a.n, a.variable_surfaces, a.variable_count, a.values + at,
                     a.factors != nullptr ? a.factors + at : nullptr, work, a.results[t],
                     a.jacobian + t * a.variable_count, [&](RayDuals const& s, JDual& value) {
                       RayD end, here;
                       if (!ray_pass(ray, s, end, &here) && here.status != 0) return false;
                       value = sqrt(detail::sum_sq2(here.x, here.y)) * scale;
                       return true;
                     });
}

}  // namespace kernels
}  // namespace nuvrix
