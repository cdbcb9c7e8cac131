// The legacy operand evaluator: a short list of image-quality operands with
// their own numbers, without weights or residuals, through the legacy front
// end; and the anchor of the evaluation templates.
#include "merit/merit_eval.hpp"

#include <math.h>

#include "analysis/field_analyses.hpp"
#include "merit/merit_function.hpp"

namespace nuvrix {
namespace {

constexpr double kLegacyUsable = 1e9;  // a value at or above this is not usable

// What every legacy operand shares: the launch of the system at its
// primary wavelength.
struct LegacySetup {
  SurfaceData const* surfaces;
  int n;
  SystemConfig const* config;
  double pupil_radius;
  double entrance_pupil_position;
  int aim_flag;
  double stop_radius;
  double max_field;
};

// A ray of the legacy front end with its history.
RayTraceResult legacy_ray(LegacySetup const& s, double const* row, double wavelength_nm,
                          double field, double px, double py, RayState* states) {
  return legacy::trace_full(s.surfaces, s.n, row, s.config, field, s.pupil_radius, px, py,
                            wavelength_nm, s.entrance_pupil_position, s.aim_flag, s.stop_radius,
                            states);
}

MeritResult result_of(double value, bool usable) { return MeritResult{value, usable ? 1 : 0}; }

// Codes 0 to 6: path difference to the chief ray, or transverse offset.
MeritResult legacy_ray_difference(LegacySetup const& s, MeritOperand const& op, double const* row,
                                  double wavelength_nm, double field) {
  RayState states[kMaxSurfaces];
  RayTraceResult const chief = legacy_ray(s, row, wavelength_nm, field, 0.0, 0.0, states);
  if (!chief.valid) return MeritResult{kMeritRayFailed, 0};
  RayTraceResult const ray = legacy_ray(s, row, wavelength_nm, field, op.px, op.py, states);
  if (!ray.valid) return MeritResult{kMeritRayFailed, 0};
  if (op.type <= 2) {
    double const v = chief.phase_waves - ray.phase_waves;
    return result_of(v, fabs(v) < kLegacyUsable);
  }
  double const v = (op.type == 3 || op.type == 5) ? ray.x - chief.x : ray.y - chief.y;
  return result_of(v, v < kLegacyUsable);
}

// Code 7: the incidence load at `surface`.
MeritResult legacy_incidence_load(LegacySetup const& s, MeritOperand const& op,
                                  double const* row, double wavelength_nm, double field) {
  int const k = op.surface;
  if (k <= 0 || k >= s.n) return MeritResult{0.0, 1};
  double const a = row[k - 1], b = row[k], d = fabs(a - b);
  if (d < kTiny) return MeritResult{0.0, 1};
  RayState states[kMaxSurfaces];
  RayTraceResult const ray = legacy_ray(s, row, wavelength_nm, field, op.px, op.py, states);
  if (!ray.valid || ray.states_written <= k) return MeritResult{kMeritRayFailed, 0};
  RayState const& at = states[k];
  RayState const& dir = b > a ? states[k - 1] : at;
  double const c = detail::dot3(dir.l, dir.m, dir.n, -at.nx, -at.ny, -at.nz);
  double const v = (1.0 - c) * d / 6.0;
  return result_of(v, v < kLegacyUsable);
}

// Codes 8 and 9: the angle of the ray with the normal at `surface`, with
// the direction in front of the surface (8) or behind it (9).
MeritResult legacy_angle(LegacySetup const& s, MeritOperand const& op, double const* row,
                         double wavelength_nm, double field) {
  RayState states[kMaxSurfaces];
  RayTraceResult const ray = legacy_ray(s, row, wavelength_nm, field, op.px, op.py, states);
  int const stored = ray.states_written < kMaxSurfaces ? ray.states_written : kMaxSurfaces;
  int const k = op.surface;
  if (k >= stored || k < (op.type == 8 ? 1 : 0)) return MeritResult{0.0, 0};
  int const from = op.type == 8 ? k - 1 : k;
  RayState const& at = states[k];
  double const c = fabs(detail::dot3(states[from].l, states[from].m, states[from].n, at.nx, at.ny,
                                     at.nz));
  return MeritResult{acos(c < 1.0 ? c : 1.0) * detail::kDegPerRad, 1};
}

// Codes 11 and 12: distortion of the chief ray against the paraxial height.
bool legacy_distortion_at(LegacySetup const& s, double const* primary, double scale, double h,
                          double& percent) {
  double const ideal = s.config->field_type == 1
                           ? h * scale
                           : tan(h * 3.14159265358979323846 / 180.0) * scale;
  RayState states[kMaxSurfaces];
  RayTraceResult const chief = legacy_ray(s, primary, 0.0, h, 0.0, 0.0, states);
  if (!chief.valid || fabs(ideal) < 1e-10) return false;
  percent = (chief.y - ideal) / ideal * 100.0;
  return true;
}

MeritResult legacy_distortion(LegacySetup const& s, MeritOperand const& op,
                              double const* primary, double field) {
  double const scale = detail::distortion_scale(s.surfaces, s.n, primary, s.config);
  double percent = 0.0;
  if (op.type == 11) {
    bool const ok = legacy_distortion_at(s, primary, scale, field, percent);
    return MeritResult{ok ? percent : 0.0, ok ? 1 : 0};
  }
  bool any = false;
  double worst = 0.0;
  for (int i = 1; i <= kDistortionScanPoints; ++i) {
    double const h = i * s.max_field / kDistortionScanPoints;
    if (!legacy_distortion_at(s, primary, scale, h, percent)) continue;
    if (!any || fabs(percent) > fabs(worst)) worst = percent;
    any = true;
  }
  return MeritResult{worst, any ? 1 : 0};
}

}  // namespace

int evaluate_impl(SurfaceData const* surfaces, int n, double const* index_table,
                  double const* wavelengths, int wave_count, SystemConfig const* config,
                  FieldData const* fields, int field_count, MeritOperand const* operands,
                  int operand_count, MeritResult* results, bool full) {
  for (int i = 0; i < operand_count; ++i) results[i] = MeritResult{0.0, 0};
  if (wave_count < 1) return 0;  // no index row: nothing to trace
  int const p = detail::merit_primary_row(*config, wave_count);
  double const* primary = index_table + static_cast<long>(p) * n;
  ParaxialSolveResult const solve =
      paraxial_solve(surfaces, n, primary, config, fields, field_count, nullptr, nullptr);
  LegacySetup s = {surfaces, n, config, 0.0, solve.entrance_pupil_position, 0, 0.0, 0.0};
  s.pupil_radius = detail::merit_pupil_radius(surfaces, n, primary, *config,
                                              solve.entrance_pupil_position);
  s.aim_flag = config->ray_aiming != 0 ? 1 : 0;
  if (s.aim_flag != 0) s.stop_radius = aim_stop_radius(surfaces, n, primary, config, s.pupil_radius);
  for (int f = 0; f < field_count; ++f) {
    if (fabs(fields[f].field_y) > s.max_field) s.max_field = fabs(fields[f].field_y);
  }
  for (int i = 0; i < operand_count; ++i) {
    MeritOperand const& op = operands[i];
    if (!full && op.type == 7) continue;
    int const w = (op.wave < 0 || op.wave >= wave_count) ? p : op.wave;
    double const* row = index_table + static_cast<long>(w) * n;
    double const wavelength_nm = wavelengths[w] * 1000.0;
    double const field = s.max_field > 0.0 ? op.field * s.max_field : op.field;
    switch (op.type) {
      case 0: case 1: case 2: case 3: case 4: case 5: case 6:
        results[i] = legacy_ray_difference(s, op, row, wavelength_nm, field);
        break;
      case 7: results[i] = legacy_incidence_load(s, op, row, wavelength_nm, field); break;
      case 8:
      case 9: results[i] = legacy_angle(s, op, row, wavelength_nm, field); break;
      case 10: {
        double const f0 = compute_effective_fnum_at_field(surfaces, n, row, config, 0.0,
                                                          s.pupil_radius,
                                                          s.entrance_pupil_position, s.aim_flag,
                                                          s.stop_radius);
        double const f1 = compute_effective_fnum_at_field(surfaces, n, row, config, field,
                                                          s.pupil_radius,
                                                          s.entrance_pupil_position, s.aim_flag,
                                                          s.stop_radius);
        results[i] = MeritResult{(f0 > 0.0 && f1 > 0.0) ? (f0 * f0) / (f1 * f1) : 0.0, 1};
        break;
      }
      case 11:
      case 12: results[i] = legacy_distortion(s, op, primary, field); break;
      default: break;
    }
  }
  return 0;
}

int evaluate_merit_operands(SurfaceData const* surfaces, int n, double const* index_table,
                            double const* wavelengths, int wave_count, SystemConfig const* config,
                            FieldData const* fields, int field_count,
                            MeritOperand const* operands, int operand_count,
                            MeritResult* results) {
  return evaluate_impl(surfaces, n, index_table, wavelengths, wave_count, config, fields,
                       field_count, operands, operand_count, results, false);
}

int evaluate_merit_operands_full(SurfaceData const* surfaces, int n, double const* index_table,
                                 double const* wavelengths, int wave_count,
                                 SystemConfig const* config, FieldData const* fields,
                                 int field_count, MeritOperand const* operands, int operand_count,
                                 MeritResult* results) {
  return evaluate_impl(surfaces, n, index_table, wavelengths, wave_count, config, fields,
                       field_count, operands, operand_count, results, true);
}

void const* nuvrix_force_emit_eval_helpers_() {
  return reinterpret_cast<void const*>(&evaluate_merit);
}

}  // namespace nuvrix
