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

NUVRIX_HD RayD trace_duals(RayJacobianArgs const& a, RayDuals const& s, double const* row,
                           RayD const& launch, int last) {
  return trace_ray_t<JDual, double>(a.surfaces, a.n, s.curvatures, s.thicknesses, s.conics, row,
                                    launch, 1, last, 0.0, -1, nullptr, nullptr, s.coefficients,
                                    -1, s.focal_lengths);
}

// One pass of candidate i's ray: the launch over dual numbers from the
// pupil and its position with their slots, aimed as the host aimed it and
// kept on the aim, then the trace.  False when the ray fails.
NUVRIX_HD bool ray_jacobian_pass(RayJacobianArgs const& a, int i, SystemConfig const& cfg,
                                 RayDuals const& s, JDual& value) {
  int const n = a.n;
  double const* frame = a.frames + 3L * i;
  double const* aim = a.aims + 3L * i;
  double const* row = a.index_table + static_cast<long>(a.wave_row) * n;
  double const* prow = a.index_table + static_cast<long>(a.primary_row) * n;
  bool const infinite = detail::is_infinite_distance(a.surfaces[0].thickness);
  bool const constant_ep = cfg.ray_aiming != 0 && (infinite || cfg.field_type != 0);
  JDual const ep = constant_ep ? JDual(frame[1])
                               : with_slots(frame[1], compute_entrance_pupil_position_t<JDual, double>(
                                                          s.curvatures, s.thicknesses, prow,
                                                          a.surfaces, n, cfg.stop_surface));
  JDual const R = dual_pupil_radius_t<double>(cfg, s.curvatures, s.thicknesses, prow, a.surfaces,
                                              n, s.focal_lengths, s.plain_coefficients, ep,
                                              frame[0]);
  RayD launch = dual_launch(cfg, s.thicknesses[0], a.field_y, a.field_x, R, a.px, a.py, ep);
  if (cfg.ray_aiming != 0 && frame[2] > 0.0) {
    if (aim[0] != aim[0]) return false;  // the host's aim failed
    RayD const marginal = trace_duals(
        a, s, row, make_launch(JDual(0.0), R, JDual(0.0), JDual(0.0), JDual(1.0)),
        cfg.stop_surface);
    JDual const stop_radius =
        marginal.status != 0 ? JDual(frame[2]) : with_slots(frame[2], fabs(marginal.y));
    seed_aimed_launch(launch, !infinite, aim[0], aim[1], aim[2]);
    RayD const at_stop = trace_duals(a, s, row, launch, cfg.stop_surface);
    if (at_stop.status != 0) return false;
    follow_aimed_launch(launch, !infinite, at_stop, stop_radius, a.px, a.py);
  }
  RayD const end = trace_duals(a, s, row, launch, a.last_surface);
  if (end.status != 0) return false;
  value = static_cast<int>(a.setup[5]) == 0 ? end.x : end.y;
  return true;
}

// Candidate i of a real-ray coordinate (codes 0 and 1, and 70 and 71
// before their centroid): the value and derivatives of what the CPU's dual
// ray gives; a failed ray gives NaN and a row of zeros.
NUVRIX_HD void ry_jacobian_body(int i, RayJacobianArgs const& a) {
  if (i >= a.count) return;
  int const n = a.n, V = a.variable_count;
  long const at = static_cast<long>(i) * V;
  double* row_out = a.rows + at;
  for (int v = 0; v < V; ++v) row_out[v] = 0.0;
  a.results[i] = 0.0 / 0.0;
  Candidate c;
  if (!load_candidate(c, a.surfaces, n, a.variable_surfaces, V, a.values + at)) return;
  SystemConfig cfg = {};
  cfg.field_type = static_cast<int>(a.setup[0]);
  cfg.aperture_type = static_cast<int>(a.setup[1]);
  cfg.aperture_value = a.aperture_value;
  cfg.ray_aiming = static_cast<int>(a.setup[2]);
  cfg.stop_surface = static_cast<int>(a.setup[3]);
  cfg.telecentric_object = static_cast<int>(a.setup[4]);
  RayDuals const s = ray_duals(static_cast<char*>(a.work) + ray_jacobian_work_bytes(n) * i, n);
  for (int k = 0; k < n; ++k) {
    SurfaceData const& sf = a.surfaces[k];
    s.thicknesses[k] = JDual(sf.thickness);
    s.conics[k] = JDual(sf.conic);
    s.focal_lengths[k] = JDual(sf.focal_length);
    for (int j = 0; j < 8; ++j) {
      s.coefficients[k][j] = JDual(sf.coefficients[j]);
      s.plain_coefficients[k][j] = sf.coefficients[j];
    }
  }
  CurvatureDuals const view = {a.surfaces, n, c.curvatures, c.slots};
  double const* factors = a.factors != nullptr ? a.factors + at : nullptr;
  for (int first = 0; first < V || first == 0; first += kPassVariables) {
    load_pass(c, n, a.variable_surfaces, V, first);
    for (int k = 0; k < n; ++k) s.curvatures[k] = view.curvature(k);
    JDual value;
    if (!ray_jacobian_pass(a, i, cfg, s, value)) {
      for (int v = 0; v < V; ++v) row_out[v] = 0.0;
      a.results[i] = 0.0 / 0.0;
      return;
    }
    if (first == 0) a.results[i] = value.value;
    store_slots(value, first, V, factors, row_out);
  }
}

}  // namespace kernels
}  // namespace nuvrix
