// The merit evaluation driver: raw values, composites, the centroid, piston
// and tilt corrections, weighted residuals with their penalties, the ray
// group slots, and one number, the weighted root mean square.  One system,
// one thread, nothing kept between calls; the device runs this same code.
#pragma once

#include "api/types.hpp"
#include "merit/merit_context.hpp"
#include "merit/operand_catalogue.hpp"

namespace nuvrix {

constexpr double kFailurePenalty = 1e6;      // residual scale of a failed ray
constexpr double kPenaltyOffAxis = 1e-9;     // |hy| from which a failure may go unpenalised
constexpr double kCompositeDivGuard = 1e-30;  // code 32: a denominator at most this
constexpr double kCompositeDivLarge = 1e10;   // ... gives this
constexpr double kTiltFitGuard = 1e-30;       // determinant of the tilt fit
constexpr double kTiltAxisLimit = 1e-10;      // |hx| and |px| of the mirror rule

namespace detail {

NUVRIX_HD bool is_composite(unsigned code) { return code >= 29 && code <= 36; }

// Step 2: the raw value and status of operand i.
NUVRIX_HD_CALL void merit_raw_value(MeritOperandDesc const& op, SurfaceData const* surfaces, int n,
                               double const* index_table, double const* wavelengths,
                               int wave_count, SystemConfig const* config,
                               MeritContext const& ctx, PreTracedRays const* table,
                               MeritResult& r) {
  if (is_composite(op.type)) {
    r.value = 0.0;
    r.status = 1;
    return;
  }
  double v = 0.0;
  bool failed = false;
  bool const supported = evaluate_operand_value(op, surfaces, n, index_table, wave_count,
                                                wavelengths, config, ctx, v, failed, table);
  r.value = v;
  if (!supported) {
    r.status = 0;
  } else if (failed) {
    r.status = -1;
  } else {
    r.status = fabs(v) <= DBL_MAX ? 1 : -1;
  }
}

// Step 3: the value of composite i from the results before and after it
// as they stand.  References are checked for range only.
// R is a result record with `value` and `status`: MeritResult, or its dual
// form in the analytic Jacobian, where the same steps carry the slots.
template <typename R>
NUVRIX_HD auto merit_composite(MeritOperandDesc const& op, R const* results, int count)
    -> decltype(results[0].value) {
  using S = decltype(results[0].value);
  int const a = op.operand_a, b = op.operand_b;
  bool const a_in = a >= 0 && a < count, b_in = b >= 0 && b < count;
  int const lo = a < 0 ? 0 : a, hi = b > count - 1 ? count - 1 : b;
  switch (op.type) {
    case 29: return a_in ? S(results[a].value * op.scale) : S(0.0);
    case 31: return a_in && b_in ? S(results[a].value + results[b].value) : S(0.0);
    case 32:
      if (!(a_in && b_in)) return S(0.0);
      if (fabs(val(results[b].value)) <= kCompositeDivGuard) return S(kCompositeDivLarge);
      return results[a].value / results[b].value;
    case 33: return a_in && b_in ? S(results[a].value * results[b].value) : S(0.0);
    case 36: return a_in && b_in ? S(results[a].value - results[b].value) : S(0.0);
    default: break;
  }
  if (lo > hi) return S(0.0);
  S sum = S(0.0);
  for (int k = lo; k <= hi; ++k) {
    S const v = results[k].value;
    sum += op.type == 35 ? S(v * v) : v;
  }
  if (op.type == 30) return sum;
  if (op.type == 35) return sqrt(sum);
  // 34: target plus the absolute deviations from the mean above target;
  // the target itself carries no derivative.
  S const mean = sum / double(hi - lo + 1);
  S spread = S(0.0);
  for (int k = lo; k <= hi; ++k) {
    S const dev = fabs(results[k].value - mean);
    if (val(dev) > op.target) spread += dev;
  }
  return op.target + spread;
}

// True when operand i is the first member, in operand order, of its group
// under `same`.  The scan runs backwards: members of a group usually stand
// close together, so a later member finds an earlier one at once, and only
// a first member pays for the whole scan.
template <typename Same>
NUVRIX_HD bool first_of_group(int i, Same const& same) {
  for (int j = i - 1; j >= 0; --j) {
    if (same(j)) return false;
  }
  return true;
}

// Step 4: the weighted centroid of each group of code 70 or 71 (equal hy
// and centroid tag) is taken out; for code 70 each product is added and at
// once taken away again, so that x stays in place and only y is shifted.
template <typename R>
NUVRIX_HD void merit_remove_centroids(MeritOperandDesc const* ops, int count, R* results) {
  using S = decltype(results[0].value);
  for (int i = 0; i < count; ++i) {
    unsigned const code = ops[i].type;
    if (code != 70 && code != 71) continue;
    auto same = [&](int j) {
      return ops[j].type == code && ops[j].hy == ops[i].hy &&
             ops[j].centroid_tag == ops[i].centroid_tag;
    };
    if (!first_of_group(i, same)) continue;
    S weighted = S(0.0);
    double weights = 0.0;
    for (int j = i; j < count; ++j) {
      if (!same(j) || ops[j].weight == 0.0 || results[j].status == -1) continue;
      S const product = ops[j].weight * results[j].value;
      weighted += product;
      if (code == 70) weighted -= product;
      weights += ops[j].weight;
    }
    if (!(weights > 0.0)) continue;
    S const mean = weighted / weights;
    for (int j = i; j < count; ++j) {
      if (same(j) && results[j].status != -1) results[j].value -= mean;
    }
  }
}

// Weighted mean of the usable members of a group, and their weight sum.
template <typename R, typename Member>
NUVRIX_HD auto group_mean(MeritOperandDesc const* ops, R const* results, int from, int count,
                          Member const& member, double& weights) -> decltype(results[0].value) {
  using S = decltype(results[0].value);
  S weighted = S(0.0);
  weights = 0.0;
  for (int j = from; j < count; ++j) {
    if (!member(j)) continue;
    weighted += ops[j].weight * results[j].value;
    weights += ops[j].weight;
  }
  return weights > 0.0 ? S(weighted / weights) : S(0.0);
}

// Step 5: piston of code 68 per field (hy) and wavelength.
template <typename R>
NUVRIX_HD void merit_remove_piston(MeritOperandDesc const* ops, int count, R* results) {
  using S = decltype(results[0].value);
  for (int i = 0; i < count; ++i) {
    if (ops[i].type != 68 || results[i].status == -1) continue;
    auto member = [&](int j) {
      return ops[j].type == 68 && results[j].status != -1 && ops[j].hy == ops[i].hy &&
             ops[j].wave == ops[i].wave;
    };
    if (!first_of_group(i, member)) continue;
    double weights = 0.0;
    S const mean = group_mean(ops, results, i, count, member, weights);
    if (!(weights > 0.0)) continue;
    for (int j = i; j < count; ++j) {
      if (member(j)) results[j].value -= mean;
    }
  }
}

// Sums of the plane fit v = a px + b py + c over the pupil points.
// The point sums are plain; only the sums over the values carry slots.
template <typename S>
struct TiltSums {
  double n, x, y;
  S v;
  double xx, yy, xy;
  S xv, yv;
};

template <typename S>
NUVRIX_HD void add_tilt_point(TiltSums<S>& s, double px, double py, S const& v) {
  s.n += 1.0;
  s.x += px, s.y += py, s.v += v;
  s.xx += px * px, s.yy += py * py, s.xy += px * py;
  s.xv += px * v, s.yv += py * v;
}

// Step 6: tilt of each field group of code 67 (more than two members),
// fitted to the mean of every pupil point over all wavelengths, with the
// mirror image of each off-axis point added on an axial field; then the
// piston of each wavelength.
template <typename R>
NUVRIX_HD void merit_remove_tilt(MeritOperandDesc const* ops, int count, R* results) {
  using S = decltype(results[0].value);
  for (int i = 0; i < count; ++i) {
    if (ops[i].type != 67 || results[i].status == -1) continue;
    auto member = [&](int j) {
      return ops[j].type == 67 && results[j].status != -1 && ops[j].hy == ops[i].hy;
    };
    if (!first_of_group(i, member)) continue;
    int members = 0;
    for (int j = i; j < count; ++j) members += member(j) ? 1 : 0;
    if (members <= 2) continue;

    double const A = fabs(ops[i].hx);
    TiltSums<S> s = {0.0, 0.0, 0.0, S(0.0), 0.0, 0.0, 0.0, S(0.0), S(0.0)};
    for (int j = i; j < count; ++j) {
      if (!member(j)) continue;
      double const px = ops[j].px, py = ops[j].py;
      auto at_point = [&](int k) { return member(k) && ops[k].px == px && ops[k].py == py; };
      if (!first_of_group(j, at_point)) continue;
      double weights = 0.0;
      S const v = group_mean(ops, results, j, count, at_point, weights);
      if (!(weights > 0.0)) continue;
      add_tilt_point(s, px, py, v);
      if (A < kTiltAxisLimit && fabs(px) > kTiltAxisLimit) add_tilt_point(s, -px, py, v);
    }
    if (s.n <= 1.0) continue;
    double const cxx = s.xx - s.x * s.x / s.n, cyy = s.yy - s.y * s.y / s.n;
    double const cxy = s.xy - s.x * s.y / s.n;
    S const cxv = s.xv - s.x * s.v / s.n, cyv = s.yv - s.y * s.v / s.n;
    double const D = cxx * cyy - cxy * cxy;
    S a = S(0.0), b = S(0.0);
    if (fabs(D) > kTiltFitGuard) {
      a = (cyy * cxv - cxy * cyv) / D;
      b = (cxx * cyv - cxy * cxv) / D;
    }
    for (int j = i; j < count; ++j) {
      if (member(j)) results[j].value -= a * ops[j].px + b * ops[j].py;
    }
    for (int j = i; j < count; ++j) {
      if (!member(j)) continue;
      int const wave = ops[j].wave;
      auto same_wave = [&](int k) { return member(k) && ops[k].wave == wave; };
      if (!first_of_group(j, same_wave)) continue;
      double weights = 0.0;
      S const mean = group_mean(ops, results, j, count, same_wave, weights);
      if (!(weights > 0.0)) continue;
      for (int k = j; k < count; ++k) {
        if (same_wave(k)) results[k].value -= mean;
      }
    }
  }
}

// The transform of an operand's value before its residual; arc functions
// clamp their argument to [-1, 1]; above 8 nothing.
NUVRIX_HD double merit_transform(unsigned transform, double v) {
  double const c = v < -1.0 ? -1.0 : (v > 1.0 ? 1.0 : v);
  switch (transform) {
    case 1: return sin(v);
    case 2: return cos(v);
    case 3: return acos(c);
    case 4: return asin(c);
    case 5: return tan(v);
    case 6: return atan(v);
    case 7: return v < 0.0 ? -sqrt(-v) : sqrt(v);
    case 8: return fabs(v);
    default: return v;
  }
}

// The residual of a usable operand, times the root s of its weight: the
// value itself for codes above 87, else against the target, or against the
// bound that the value breaks (0 inside the bounds).
NUVRIX_HD double merit_residual(MeritOperandDesc const& op, double value, double s) {
  double const v = merit_transform(op.transform, value);
  if (op.type > 87) return v * s;
  if (op.has_lower == 0 && op.has_upper == 0) return (v - op.target) * s;
  if (op.has_lower != 0 && op.lower > v) return (v - op.lower) * s;
  if (op.has_upper != 0 && v > op.upper) return (v - op.upper) * s;
  return 0.0;
}

// Step 8: the penalty of a failed operand, scaled by the root s of its
// weight.  The ray is traced once more to see how far it came: one that
// dies earlier, or misses by more, costs more.  An off-axis failure costs
// nothing unless the configuration asks for it.
NUVRIX_HD_CALL double merit_penalty(MeritOperandDesc const& op, SurfaceData const* surfaces, int n,
                               double const* index_table, double const* wavelengths,
                               int wave_count, SystemConfig const* config,
                               MeritContext const& ctx, double s) {
  if (config->penalize_failed_rays == 0 && fabs(op.hy) >= kPenaltyOffAxis) return 0.0;
  double P = kFailurePenalty;
  if (wave_count >= 1) {
    int const w = merit_wave_index(op.wave, *config, wave_count);
    double const* row = index_table + static_cast<long>(w) * n;
    RayState states[2];
    RayTraceResult const r =
        merit_ray(surfaces, n, row, config, ctx, merit_aim_radius(surfaces, n, row, config, ctx),
                  op.hy * ctx.max_field_y, op.hx * ctx.max_field_x, op.px, op.py,
                  wavelengths[w] * 1000.0, states, 2);
    if (!r.valid) {
      double const behind = n - 1 - r.failed_surface;
      double const left = behind > 0.0 ? behind : 0.0;
      double const miss = r.violation > 0.0 ? r.violation : 0.0;
      P = kFailurePenalty * (1.0 + left * miss);
    }
  }
  return s * P;
}

NUVRIX_HD bool is_ray_group_member(MeritOperandDesc const& op) {
  return op.group_id >= 0 && op.type >= 67 && op.type <= 73;
}

}  // namespace detail

// Evaluates the operands of one system.  results (one an operand),
// residuals (room for twice the operand count), residual_count and merit
// may each be null.  With values_prefilled the raw values and statuses are
// taken from results as they stand; table, when given, holds rays traced in
// advance.  Returns the number of operands of non-zero weight that stayed
// unsupported.
NUVRIX_HD_CALL int evaluate_merit(SurfaceData const* surfaces, int n, double const* index_table,
                             double const* wavelengths, int wave_count, SystemConfig const* config,
                             FieldData const* fields, int field_count, MeritOperandDesc const* ops,
                             int count, MeritResult* results, double* residuals,
                             int* residual_count, double* merit, bool values_prefilled,
                             PreTracedRays const* table) {
  using namespace detail;
  // 1. Context (no index row, no context to build).
  MeritContext const ctx =
      wave_count >= 1
          ? build_context(surfaces, n, index_table, wave_count, config, fields, field_count)
          : MeritContext{};
  // 2. Raw values.
  if (!values_prefilled) {
    for (int i = 0; i < count; ++i) {
      MeritResult r = {0.0, 0};
      merit_raw_value(ops[i], surfaces, n, index_table, wavelengths, wave_count, config, ctx,
                      table, r);
      if (results != nullptr) results[i] = r;
    }
  }
  if (results != nullptr) {
    // 3. Composites, in order: each sees the earlier ones already formed.
    for (int i = 0; i < count; ++i) {
      if (!is_composite(ops[i].type)) continue;
      results[i].value = merit_composite(ops[i], results, count);
      results[i].status = 1;
    }
    // 4.-6. Corrections of the ray groups.
    merit_remove_centroids(ops, count, results);
    merit_remove_piston(ops, count, results);
    merit_remove_tilt(ops, count, results);
  }
  // 7.-8. Residuals.
  int unsupported = 0, slots = 0;
  double sum_sq = 0.0, weight_total = 0.0;
  for (int i = 0; i < count; ++i) {
    MeritOperandDesc const& op = ops[i];
    double const w = op.weight;
    if (w == 0.0) continue;
    if (results == nullptr || results[i].status == 0) {
      ++unsupported;
      continue;
    }
    double const s = sqrt(w);
    double const r =
        results[i].status == 1
            ? merit_residual(op, results[i].value, s)
            : merit_penalty(op, surfaces, n, index_table, wavelengths, wave_count, config, ctx, s);
    if (residuals != nullptr) residuals[slots] = r;
    ++slots;
    sum_sq += r * r;
    weight_total += w;
  }
  // 9. One slot for each ray group, whatever its rays did.
  if (results != nullptr) {
    for (int i = 0; i < count; ++i) {
      if (!is_ray_group_member(ops[i])) continue;
      auto same = [&](int j) {
        return is_ray_group_member(ops[j]) && ops[j].group_id == ops[i].group_id &&
               ops[j].hy == ops[i].hy && ops[j].centroid_tag == ops[i].centroid_tag;
      };
      if (!first_of_group(i, same)) continue;
      bool any_weight = false, all_failed = true;
      for (int j = i; j < count; ++j) {
        if (!same(j)) continue;
        any_weight = any_weight || ops[j].weight != 0.0;
        all_failed = all_failed && results[j].status == -1;
      }
      if (!any_weight) continue;
      double r = 0.0;
      if (all_failed) {
        r = kFailurePenalty * sqrt(ops[i].scale);
        sum_sq += r * r;
        weight_total += ops[i].scale;
      }
      if (residuals != nullptr) residuals[slots] = r;
      ++slots;
    }
  }
  // 10. Count and merit.
  if (residual_count != nullptr) *residual_count = slots;
  if (merit != nullptr) *merit = weight_total > 0.0 ? sqrt(sum_sq / weight_total) : 0.0;
  return unsupported;
}

}  // namespace nuvrix
