// The merit block of the nuvrix report: the lens file's merit function, or
// the default one, evaluated once by the engine, operand by operand, with
// the residual vector and the merit value.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/merit_function.hpp"
#include "tools/quality_setup.hpp"
#include "tools/report.hpp"

namespace lensfile {
namespace {

constexpr int kDefaultRings = 2;  // hexapolar rings of the default function's pupil
constexpr unsigned kTransverseX = 70, kTransverseY = 71;

// What an operand reads of its record, for the columns of its row.
struct Reads {
  bool surface = false;    // `surface`
  bool range = false;      // `surface_first` .. `surface_last`
  bool first = false;      // `surface_first` alone
  bool parameter = false;  // `surface_first` and the parameter number in `surface_last`
  bool operands = false;   // `operand_a`, `operand_b`
  bool span = false;       // operands a .. b rather than a and b
  bool wave = false;
  bool field = false;  // `hy` (and `hx`)
  bool pupil = false;  // `px`, `py`
};

Reads reads_of(unsigned code) {
  Reads r;
  if (code <= 5) {
    r.surface = r.wave = r.field = r.pupil = true;
  } else if (code == 6 || code == 7 || code == 99 || code == 100) {
    r.range = r.wave = r.field = r.pupil = true;
  } else if (code >= 13 && code <= 18) {
    r.surface = r.wave = true;
  } else if (code >= 29 && code <= 36) {
    r.operands = true;
    r.span = code == 30 || code == 34 || code == 35;
  } else if ((code >= 37 && code <= 47) || (code >= 80 && code <= 86) || code >= 88) {
    r.range = true;
  } else if (code == 48) {
    r.first = true;
  } else if (code == 50 || code == 51) {
    r.wave = true;
  } else if (code == 59 || (code >= 62 && code <= 64)) {
    r.field = true;
  } else if (code == 65 || code == 66) {
    r.field = r.wave = true;
  } else if (code >= 67 && code <= 73) {
    r.wave = r.field = r.pupil = true;
  } else if (code == 74) {
    r.surface = r.wave = r.field = r.pupil = true;
  } else if ((code >= 75 && code <= 78) || code == 87) {
    r.range = r.wave = true;
  } else if (code == 79) {
    r.parameter = true;
  }
  return r;
}

// The surface that a symbolic end of a range stands for: -5 the first
// surface, -4 the stop, -3 the one behind it, -2 the one in front of the
// image, -1 the one in front of that, 0 the other end.
int resolve_ref(int ref, int n, int stop, int other) {
  if (ref > 0) return ref;
  switch (ref) {
    case -5:
      return 1;
    case -4:
      return stop;
    case -3:
      return stop + 1;
    case -2:
      return n - 1;
    case -1:
      return n - 2;
    case 0:
      return other;
    default:
      return 0;
  }
}

std::string range_text(const Lens& lens, const MeritOperandDesc& op) {
  const int n = lens.count(), stop = lens.config.stop_surface;
  int first = op.surface_first, last = op.surface_last;
  if (first > 0 || last > 0) {
    first = resolve_ref(op.surface_first, n, stop, op.surface_last);
    last = resolve_ref(op.surface_last, n, stop, first);
  } else {
    first = resolve_ref(op.surface_first, n, stop, 0);
    last = resolve_ref(op.surface_last, n, stop, 0);
  }
  return std::to_string(first) + ".." + std::to_string(last);
}

std::string refs_text(const Lens& lens, const MeritOperandDesc& op, const Reads& r) {
  if (r.surface) return "s" + std::to_string(op.surface);
  if (r.range) return range_text(lens, op);
  if (r.first) return "s" + std::to_string(op.surface_first);
  if (r.parameter)
    return "s" + std::to_string(op.surface_first) + " p" + std::to_string(op.surface_last);
  if (r.operands)
    return "#" + std::to_string(op.operand_a) + (r.span ? "..#" : ",#") +
           std::to_string(op.operand_b);
  return "-";
}

std::string number_text(const char* format, double v) {
  char buf[48];
  std::snprintf(buf, sizeof buf, format, v);
  return buf;
}

std::string wave_text(const Lens& lens, const MeritOperandDesc& op) {
  const int w = op.wave < 0 ? lens.config.primary_wavelength : op.wave;
  return std::to_string(w) + (op.wave < 0 ? "*" : "");
}

std::string target_text(const MeritOperandDesc& op) {
  if (op.has_lower && op.has_upper)
    return number_text("%.4g", op.lower) + " .. " + number_text("%.4g", op.upper);
  if (op.has_lower) return ">= " + number_text("%.6g", op.lower);
  if (op.has_upper) return "<= " + number_text("%.6g", op.upper);
  if (op.type > 87) return "-";  // the value itself is the residual
  return number_text("%.6g", op.target);
}

// The transform applied before the residual, as the lens file names it.
const char* transform_name(unsigned t) {
  static const char* const kNames[] = {"",    "sin",  "cos",  "acos", "asin",
                                       "tan", "atan", "sqrt", "abs"};
  return t < 9 ? kNames[t] : "";
}

const char* result_status_text(int status) {
  if (status == 1) return "ok";
  if (status == 0) return "unsupported";
  return "failed";
}

void print_row_header() {
  std::printf("  %4s %-24s %-9s %4s %7s %6s %6s %13s %17s %13s  %s\n", "#", "operand", "refs",
              "wave", "hy", "px", "py", "value", "target/bounds", "residual", "status");
}

void print_row(const Lens& lens, int k, const MeritOperandDesc& op, const MeritResult& res,
               int slot, const std::vector<double>& residuals) {
  const Reads r = reads_of(op.type);
  const char* name = operand_code_name(op.type);
  std::string label = name ? name : "code " + std::to_string(op.type);
  if (*transform_name(op.transform)) label += std::string(" ") + transform_name(op.transform);
  std::printf("  %4d %-24s %-9s %4s %7s %6s %6s %13.6g %17s %13s  %s\n", k, label.c_str(),
              refs_text(lens, op, r).c_str(), r.wave ? wave_text(lens, op).c_str() : "-",
              r.field ? number_text("%.4f", op.hy).c_str() : "-",
              r.pupil ? number_text("%.3f", op.px).c_str() : "-",
              r.pupil ? number_text("%.3f", op.py).c_str() : "-", res.value,
              target_text(op).c_str(),
              slot >= 0 ? number_text("%.6g", residuals[slot]).c_str() : "-",
              result_status_text(res.status));
}

// One ray group of the engine: operands of codes 67 to 73 with the same
// group, field and centroid tag; it takes one slot after the operands'
// unless all its weights are 0.
struct RayGroup {
  std::vector<int> members;
  bool all_failed = true;
  bool has_slot = false;
};

std::vector<RayGroup> ray_groups(const std::vector<MeritOperandDesc>& ops,
                                 const std::vector<MeritResult>& res) {
  std::vector<RayGroup> groups;
  std::vector<bool> taken(ops.size(), false);
  const auto in_group = [](const MeritOperandDesc& o) {
    return o.group_id >= 0 && o.type >= 67 && o.type <= 73;
  };
  for (size_t k = 0; k < ops.size(); ++k) {
    if (taken[k] || !in_group(ops[k])) continue;
    RayGroup g;
    bool weighted = false;
    for (size_t m = k; m < ops.size(); ++m) {
      const MeritOperandDesc& o = ops[m];
      if (taken[m] || !in_group(o) || o.group_id != ops[k].group_id || o.hy != ops[k].hy ||
          o.centroid_tag != ops[k].centroid_tag)
        continue;
      taken[m] = true;
      g.members.push_back(static_cast<int>(m));
      weighted = weighted || o.weight != 0.0;
      g.all_failed = g.all_failed && res[m].status == -1;
    }
    g.has_slot = weighted;
    groups.push_back(g);
  }
  return groups;
}

// Transverse operands of one field of the default function, summarised.
struct FieldSummary {
  double hx = 0.0, hy = 0.0;
  int count = 0, failed = 0, slots_x = 0, slots_y = 0;
  double sum_x = 0.0, sum_y = 0.0;  // squared residuals
};

std::string field_of(const Lens& lens, double hx, double hy) {
  double max_y = 0.0, max_x = 0.0;
  for (const FieldData& f : lens.fields) {
    max_y = std::fmax(max_y, std::fabs(f.field_y));
    max_x = std::fmax(max_x, std::fabs(f.field_x));
  }
  for (size_t f = 0; f < lens.fields.size(); ++f) {
    const double y = max_y > 0.0 ? lens.fields[f].field_y / max_y : 0.0;
    const double x = max_x > 0.0 ? lens.fields[f].field_x / max_x : 0.0;
    if (x == hx && y == hy) return field_label(lens, static_cast<int>(f));
  }
  return "hy " + number_text("%.4f", hy);
}

void print_transverse_summary(const Lens& lens, const std::vector<MeritOperandDesc>& ops,
                              const std::vector<MeritResult>& res, const std::vector<int>& slot,
                              const std::vector<double>& residuals) {
  std::vector<FieldSummary> fields;
  for (size_t k = 0; k < ops.size(); ++k) {
    const MeritOperandDesc& o = ops[k];
    if (o.type != kTransverseX && o.type != kTransverseY) continue;
    size_t f = 0;
    while (f < fields.size() && !(fields[f].hx == o.hx && fields[f].hy == o.hy)) ++f;
    if (f == fields.size()) {
      fields.push_back(FieldSummary());
      fields.back().hx = o.hx;
      fields.back().hy = o.hy;
    }
    FieldSummary& s = fields[f];
    ++s.count;
    if (res[k].status == -1) ++s.failed;
    if (slot[k] < 0) continue;
    const double r = residuals[slot[k]];
    if (o.type == kTransverseX) {
      ++s.slots_x;
      s.sum_x += r * r;
    } else {
      ++s.slots_y;
      s.sum_y += r * r;
    }
  }
  if (fields.empty()) return;
  std::printf(
      "\n  transverse operands by field: rms of their residuals, in um (weight 1, target 0:\n"
      "  x is the image x, y the image y less the centroid of its field)\n\n");
  std::printf("  %-24s %8s %7s %12s %12s %12s\n", "field", "operands", "failed", "rms x (um)",
              "rms y (um)", "rms (um)");
  const auto rms = [](double sum, int n) { return n > 0 ? 1000.0 * std::sqrt(sum / n) : 0.0; };
  for (const FieldSummary& s : fields)
    std::printf("  %-24s %8d %7d %12.4f %12.4f %12.4f\n", field_of(lens, s.hx, s.hy).c_str(),
                s.count, s.failed, rms(s.sum_x, s.slots_x), rms(s.sum_y, s.slots_y),
                rms(s.sum_x + s.sum_y, s.slots_x + s.slots_y));
}

}  // namespace

void print_merit(const Lens& lens) {
  print_heading("Merit function");
  // A file that names the default merit function is reported as the default.
  const bool from_file = !lens.merit.empty() && !lens.merit_is_default;
  const std::vector<MeritOperandDesc> ops =
      !lens.merit.empty() ? lens.merit : default_merit_function(lens, kDefaultRings);
  const int count = static_cast<int>(ops.size());
  if (from_file) {
    std::printf("  the lens file's merit function, %d operands\n", count);
  } else {
    std::printf(
        "  the default merit function, %d operands:\n"
        "  transverse x and y on a hexapolar pupil of %d rings at every field and\n"
        "  wavelength (centroid per field), the focal length held at its present value\n"
        "  (weight 10), lower bounds on centre and edge thickness of glass (1 mm) and\n"
        "  of the air between elements (0.1 mm centre, 0 edge), where the lens has them\n",
        count, kDefaultRings);
  }
  std::printf(
      "  one call of nuvrix_evaluate_merit, ray aiming %d; values as the engine leaves\n"
      "  them (TRANSVERSE_Y less its centroid, OPD less piston or tilt, composites\n"
      "  formed); refs: surface sN, surface range a..b (symbolic ends resolved), parameter\n"
      "  pN, or operands #a,#b / #a..#b; wave: row of the index table, * the primary;\n"
      "  residual: the operand's slot of the residual vector, \"-\" where it has none\n"
      "  (weight 0 or unsupported); a transform after the name acts on the value before\n"
      "  the residual is formed\n\n",
      lens.config.ray_aiming);

  std::vector<MeritResult> res(ops.size());
  std::vector<double> residuals(2 * ops.size() + 1, 0.0);
  int32_t residual_count = 0;
  double merit = 0.0;
  const int32_t unsupported = nuvrix_evaluate_merit(
      lens.surfaces.data(), lens.count(), lens.indices.data(), lens.wavelengths_um.data(),
      static_cast<int32_t>(lens.wavelengths_um.size()), &lens.config, lens.fields.data(),
      static_cast<int32_t>(lens.fields.size()), ops.data(), count, res.data(), residuals.data(),
      &residual_count, &merit);

  // Slots of the operands, in operand order, then of the ray groups.
  std::vector<int> slot(ops.size(), -1);
  int next = 0;
  double weight_total = 0.0;
  for (int k = 0; k < count; ++k) {
    if (ops[k].weight == 0.0 || res[k].status == 0) continue;
    slot[k] = next++;
    weight_total += ops[k].weight;
  }
  const int operand_slots = next;
  const std::vector<RayGroup> groups = ray_groups(ops, res);

  print_row_header();
  for (int k = 0; k < count; ++k) {
    if (!from_file && (ops[k].type == kTransverseX || ops[k].type == kTransverseY)) continue;
    print_row(lens, k, ops[k], res[k], slot[k] < residual_count ? slot[k] : -1, residuals);
  }
  if (!from_file) print_transverse_summary(lens, ops, res, slot, residuals);

  int group_slots = 0;
  for (size_t g = 0; g < groups.size(); ++g) {
    const RayGroup& grp = groups[g];
    const MeritOperandDesc& first = ops[grp.members[0]];
    if (g == 0) std::printf("\n  ray groups (codes 67 to 73 with a group)\n");
    std::printf("    group %d, hy %.4f, centroid tag %d: %zu operands from #%d, ", first.group_id,
                first.hy, first.centroid_tag, grp.members.size(), grp.members[0]);
    if (!grp.has_slot) {
      std::printf("all weights 0, no slot\n");
      continue;
    }
    const int s = operand_slots + group_slots++;
    if (s < residual_count)
      std::printf("%s, slot %d residual %.6g\n", grp.all_failed ? "every ray failed" : "rays pass",
                  s, residuals[s]);
    else
      std::printf("no slot written\n");
    if (grp.all_failed) weight_total += first.scale;
  }

  double sum = 0.0;
  for (int s = 0; s < residual_count; ++s) sum += residuals[s] * residuals[s];
  const double recomputed = weight_total > 0.0 ? std::sqrt(sum / weight_total) : 0.0;
  const int expected = operand_slots + group_slots;
  std::printf("\n  unsupported operands (non-zero weight) %d\n", unsupported);
  std::printf("  residual slots                         %d (%d operand, %d ray group)%s\n",
              residual_count, operand_slots, group_slots,
              residual_count == expected ? "" : "  DIFFERS from the host's count");
  std::printf("  merit (weighted rms of the residuals)  %.9g\n", merit);
  const bool same = std::fabs(recomputed - merit) <= 1e-9 * std::fmax(1.0, std::fabs(merit));
  std::printf("  the same from the residuals and the weights  %.9g%s\n", recomputed,
              same ? "" : "  DIFFERS");
}

}  // namespace lensfile
