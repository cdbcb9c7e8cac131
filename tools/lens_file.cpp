// The JSON lens file and the filling of the engine records.
#include "tools/lens_file.hpp"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tools/merit_function.hpp"

namespace lensfile {
namespace {

using nlohmann::json;

// An infinite distance goes to the engine as a true infinity: the trace reads
// 1e10 and beyond as infinite, but the wavefront analyses' launch counts only
// a thickness that is not finite as an object at infinity.
constexpr double kInfinity = HUGE_VAL;
constexpr int kMaxSurfaces = 255;   // the full trace keeps the launch and 255 surfaces
constexpr unsigned kEffectiveFocalLengthCode = 50;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what); }

// A length that may be written "inf" / "infinity" (either sign).
double read_length(const json& v, const char* what) {
  if (v.is_number()) return v.get<double>();
  if (v.is_string()) {
    std::string s = v.get<std::string>();
    double sign = 1.0;
    if (!s.empty() && (s[0] == '-' || s[0] == '+')) {
      if (s[0] == '-') sign = -1.0;
      s = s.substr(1);
    }
    if (s == "inf" || s == "infinity" || s == "Infinity") return sign * HUGE_VAL;
  }
  fail(std::string(what) + " must be a number or \"inf\"");
}

double read_curvature(const json& j) {
  if (j.contains("curvature")) return j["curvature"].get<double>();
  if (!j.contains("radius")) return 0.0;
  const double r = read_length(j["radius"], "radius");
  return (r == 0.0 || std::isinf(r)) ? 0.0 : 1.0 / r;
}

int read_type(const json& j) {
  const std::string t = j.value("type", std::string("standard"));
  if (t == "standard") return NUVRIX_SURFACE_STANDARD;
  if (t == "even_asphere") return NUVRIX_SURFACE_EVEN_ASPHERE;
  if (t == "paraxial") return NUVRIX_SURFACE_PARAXIAL_LENS;
  if (t == "matrix") return NUVRIX_SURFACE_MATRIX;
  fail("unknown surface type \"" + t + "\"");
}

// "air", "mirror", a bare index, {"nd", "vd"[, "dpgf"]} or {"index": [...]}.
void read_glass(const json& g, SurfaceRow& row) {
  if (g.is_string()) {
    const std::string s = g.get<std::string>();
    if (s == "air")
      row.medium = Medium::kAir;
    else if (s == "mirror")
      row.medium = Medium::kMirror;
    else
      fail("unknown glass \"" + s + "\"");
  } else if (g.is_number()) {
    row.medium = Medium::kModelGlass;
    row.nd = g.get<double>();
  } else if (g.contains("index")) {
    row.medium = Medium::kIndexTable;
    row.index = g["index"].get<std::vector<double>>();
  } else {
    row.medium = Medium::kModelGlass;
    row.nd = g.at("nd").get<double>();
    row.vd = g.value("vd", 0.0);
    row.dpgf = g.value("dpgf", 0.0);
  }
}

SurfaceRow read_surface(const json& j) {
  SurfaceRow row;
  row.type = read_type(j);
  row.curvature = read_curvature(j);
  const double t = read_length(j.value("thickness", json(0.0)), "thickness");
  row.thickness = t;
  row.conic = j.value("conic", 0.0);
  if (j.contains("glass")) read_glass(j["glass"], row);
  if (j.contains("coefficients")) row.coefficients = j["coefficients"].get<std::vector<double>>();
  if (row.coefficients.size() > 8) fail("at most 8 coefficients per surface");
  row.focal_length = j.value("focal_length", 0.0);
  row.semi_diameter = j.value("semi_diameter", 0.0);
  row.aperture_kind = j.value("aperture_kind", 0);
  return row;
}

FieldData read_field(const json& f) {
  FieldData d = {};
  if (f.is_number()) {
    d.field_y = f.get<double>();
  } else {
    d.field_y = f.value("y", 0.0);
    d.field_x = f.value("x", 0.0);
  }
  return d;
}

void read_aperture(const json& a, Prescription& p) {
  const std::string t = a.at("type").get<std::string>();
  if (t == "epd")
    p.aperture_type = 0;
  else if (t == "fnum")
    p.aperture_type = 1;
  else if (t == "na")
    p.aperture_type = 2;
  else
    fail("unknown aperture type \"" + t + "\"");
  p.aperture_value = a.at("value").get<double>();
}

Prescription read_prescription(const json& j) {
  Prescription p;
  p.name = j.value("name", std::string("unnamed"));
  p.wavelengths_um = j.at("wavelengths_um").get<std::vector<double>>();
  p.primary = j.value("primary_wavelength", 0);
  const std::string ft = j.value("field_type", std::string("angle"));
  if (ft != "angle" && ft != "height") fail("field_type must be \"angle\" or \"height\"");
  p.field_type = ft == "angle" ? NUVRIX_FIELD_ANGLE : NUVRIX_FIELD_HEIGHT;
  for (const json& f : j.at("fields")) p.fields.push_back(read_field(f));
  read_aperture(j.at("aperture"), p);
  p.ray_aiming = j.value("ray_aiming", 0);
  p.stop_surface = j.at("stop_surface").get<int>();
  for (const json& s : j.at("surfaces")) p.rows.push_back(read_surface(s));
  return p;
}

std::string describe_medium(const SurfaceRow& r) {
  char buf[64];
  switch (r.medium) {
    case Medium::kAir:
      return "air";
    case Medium::kMirror:
      return "mirror";
    case Medium::kIndexTable:
      return "index table";
    case Medium::kModelGlass:
      std::snprintf(buf, sizeof buf, "glass %.6f/%.2f", r.nd, r.vd);
      return buf;
  }
  return "";
}

std::string check(const Prescription& p) {
  const size_t n = p.rows.size();
  if (n < 3) return "a system needs an object, at least one surface and an image";
  if (n > static_cast<size_t>(kMaxSurfaces)) return "too many surfaces (at most 255)";
  if (p.wavelengths_um.empty()) return "no wavelengths";
  for (double w : p.wavelengths_um)
    if (!(w > 0.0)) return "wavelengths must be positive";
  if (p.primary < 0 || p.primary >= static_cast<int>(p.wavelengths_um.size()))
    return "primary_wavelength is not a row of wavelengths_um";
  if (p.fields.empty()) return "no fields";
  if (p.stop_surface < 1 || p.stop_surface > static_cast<int>(n) - 2)
    return "stop_surface must lie between the object and the image";
  if (!(p.aperture_value > 0.0)) return "aperture value must be positive";
  if (p.rows[0].medium == Medium::kMirror) return "the object surface cannot be a mirror";
  for (const SurfaceRow& r : p.rows)
    if (r.medium == Medium::kIndexTable && r.index.size() != p.wavelengths_um.size())
      return "an index table needs one index per wavelength";
  return "";
}

// The engine record of one surface, medium aside.
SurfaceData surface_record(const SurfaceRow& r) {
  SurfaceData s = {};
  s.type = r.type;
  s.curvature = r.curvature;
  s.thickness = r.thickness;
  s.conic = r.conic;
  s.semi_diameter = r.semi_diameter;
  s.aperture_kind = r.aperture_kind;
  for (size_t k = 0; k < r.coefficients.size(); ++k) s.coefficients[k] = r.coefficients[k];
  s.is_mirror = r.medium == Medium::kMirror ? 1 : 0;
  s.aperture_percent = 100.0;
  s.focal_length = r.focal_length;
  return s;
}

// Medium behind surface i: its index in every row of the table and the
// model-glass fields.  A mirror keeps the medium in front of it.
void fill_medium(const Prescription& p, size_t i, Lens& lens) {
  const SurfaceRow& r = p.rows[i];
  SurfaceData& s = lens.surfaces[i];
  const size_t n = p.rows.size();
  for (size_t w = 0; w < p.wavelengths_um.size(); ++w) {
    double& idx = lens.indices[w * n + i];
    switch (r.medium) {
      case Medium::kAir:
        idx = 1.0;
        break;
      case Medium::kIndexTable:
        idx = r.index[w];
        break;
      case Medium::kMirror:
        idx = lens.indices[w * n + i - 1];
        break;
      case Medium::kModelGlass:
        idx = model_glass_index(p.wavelengths_um[w] * 1000.0, r.nd, r.vd, r.dpgf);
        break;
    }
    if (std::fabs(idx - 1.0) > 1e-12) s.is_glass = 1;
  }
  if (r.medium == Medium::kModelGlass) {
    s.model_glass = 1;
    s.model_nd = r.nd;
    s.model_vd = r.vd;
    s.model_dpgf = r.dpgf;
  } else if (r.medium == Medium::kMirror) {
    const SurfaceData& front = lens.surfaces[i - 1];
    s.model_glass = front.model_glass;
    s.model_nd = front.model_nd;
    s.model_vd = front.model_vd;
    s.model_dpgf = front.model_dpgf;
  }
}

// ---- The merit block -------------------------------------------------------

// An integer, written as a JSON integer or as a number with no fraction.
int read_int(const json& v, const std::string& what) {
  if (v.is_number_integer()) return v.get<int>();
  if (v.is_number_float()) {
    const double d = v.get<double>();
    if (d == std::floor(d) && std::fabs(d) < 2147483648.0) return static_cast<int>(d);
  }
  fail(what + " must be an integer");
}

double read_number(const json& v, const std::string& what) {
  if (!v.is_number()) fail(what + " must be a number");
  return v.get<double>();
}

// Two integers [a, b]; a single integer stands for [a, a].
void read_pair(const json& v, const std::string& what, int32_t& a, int32_t& b) {
  if (v.is_array() && v.size() == 2) {
    a = read_int(v[0], what);
    b = read_int(v[1], what);
  } else if (v.is_number()) {
    a = b = read_int(v, what);
  } else {
    fail(what + " must be [first, last]");
  }
}

unsigned read_operand_code(const json& v, const std::string& what) {
  unsigned code = 0;
  if (v.is_string()) {
    const std::string name = v.get<std::string>();
    if (!operand_code_from_name(name, code)) fail(what + ": unknown operand \"" + name + "\"");
  } else {
    const int c = read_int(v, what + ": operand");
    if (c < 0) fail(what + ": operand code must not be negative");
    code = static_cast<unsigned>(c);
  }
  if (code > 103) fail(what + ": operand code " + std::to_string(code) + " is above 103");
  return code;
}

unsigned read_transform(const json& v, const std::string& what) {
  static const char* const kNames[] = {"none", "sin",  "cos",  "acos", "asin",
                                       "tan",  "atan", "sqrt", "abs"};
  if (v.is_string()) {
    const std::string t = v.get<std::string>();
    for (unsigned k = 0; k < 9; ++k)
      if (t == kNames[k]) return k;
    fail(what + ": unknown transform \"" + t + "\"");
  }
  const int k = read_int(v, what + ": transform");
  if (k < 0) fail(what + ": transform must not be negative");
  return static_cast<unsigned>(k);
}

// One operand of the merit block.  `index` is its place in the list,
// `count` the length of the list.
MeritOperandDesc read_operand(const json& j, size_t index, size_t count, const Lens& lens) {
  const std::string what = "merit operand " + std::to_string(index);
  if (!j.is_object()) fail(what + " must be an object");
  static const char* const kKeys[] = {
      "operand",  "surface", "wave",         "hx",    "hy",     "field",     "px",
      "py",       "target",  "lower",        "upper", "weight", "transform", "surfaces",
      "operands", "scale",   "centroid_tag", "group", "samples"};
  for (auto it = j.begin(); it != j.end(); ++it) {
    bool known = false;
    for (const char* k : kKeys) known = known || it.key() == k;
    if (!known) fail(what + ": unknown key \"" + it.key() + "\"");
  }
  if (!j.contains("operand")) fail(what + ": no \"operand\"");
  MeritOperandDesc op = blank_operand(read_operand_code(j["operand"], what));
  const auto key = [&](const char* k) { return what + ": " + k; };
  if (j.contains("surface")) op.surface = read_int(j["surface"], key("surface"));
  if (j.contains("wave")) {
    op.wave = read_int(j["wave"], key("wave"));
    const int waves = static_cast<int>(lens.wavelengths_um.size());
    if (op.wave < -1 || op.wave >= waves)
      fail(what + ": wave must be -1 (primary) or a row of wavelengths_um (0 .. " +
           std::to_string(waves - 1) + ")");
  }
  if (j.contains("field")) {
    if (j.contains("hx") || j.contains("hy"))
      fail(what + ": give \"field\" or \"hx\"/\"hy\", not both");
    const int k = read_int(j["field"], key("field"));
    const int fields = static_cast<int>(lens.fields.size());
    if (k < 1 || k > fields)
      fail(what + ": field must be 1 .. " + std::to_string(fields) + " (the fields of the file)");
    double max_y = 0.0, max_x = 0.0;
    for (const FieldData& f : lens.fields) {
      max_y = std::fmax(max_y, std::fabs(f.field_y));
      max_x = std::fmax(max_x, std::fabs(f.field_x));
    }
    const FieldData& f = lens.fields[k - 1];
    op.hy = max_y > 0.0 ? f.field_y / max_y : 0.0;
    op.hx = max_x > 0.0 ? f.field_x / max_x : 0.0;
  }
  if (j.contains("hx")) op.hx = read_number(j["hx"], key("hx"));
  if (j.contains("hy")) op.hy = read_number(j["hy"], key("hy"));
  if (j.contains("px")) op.px = read_number(j["px"], key("px"));
  if (j.contains("py")) op.py = read_number(j["py"], key("py"));
  if (j.contains("target")) op.target = read_number(j["target"], key("target"));
  if (j.contains("lower")) {
    op.has_lower = 1;
    op.lower = read_number(j["lower"], key("lower"));
  }
  if (j.contains("upper")) {
    op.has_upper = 1;
    op.upper = read_number(j["upper"], key("upper"));
  }
  if (j.contains("weight")) {
    op.weight = read_number(j["weight"], key("weight"));
    if (!(op.weight >= 0.0)) fail(what + ": weight must not be negative");
  }
  if (j.contains("transform")) op.transform = read_transform(j["transform"], what);
  if (j.contains("surfaces"))
    read_pair(j["surfaces"], key("surfaces"), op.surface_first, op.surface_last);
  if (j.contains("operands")) {
    read_pair(j["operands"], key("operands"), op.operand_a, op.operand_b);
    const int last = static_cast<int>(count) - 1;
    if (op.operand_a < 0 || op.operand_a > last || op.operand_b < 0 || op.operand_b > last)
      fail(what + ": operands must index the merit list (0 .. " + std::to_string(last) + ")");
  }
  if (j.contains("scale")) op.scale = read_number(j["scale"], key("scale"));
  if (j.contains("centroid_tag"))
    op.centroid_tag = read_int(j["centroid_tag"], key("centroid_tag"));
  if (j.contains("group")) op.group_id = read_int(j["group"], key("group"));
  if (j.contains("samples")) op.sample_count = read_int(j["samples"], key("samples"));
  return op;
}

// The default merit function of the report, as "default" or as
// {"default": {"rings": .., "focal_length": ..}}: the focal length is held
// at the given value instead of the lens's present one.
std::vector<MeritOperandDesc> read_default_merit(const json& d, const Lens& lens) {
  if (d.is_string() && d.get<std::string>() == "default") return default_merit_function(lens);
  const json& o = d.at("default");
  if (!o.is_object()) fail("merit: \"default\" takes an object of \"rings\" and \"focal_length\"");
  for (auto it = o.begin(); it != o.end(); ++it)
    if (it.key() != "rings" && it.key() != "focal_length")
      fail("merit: default: unknown key \"" + it.key() + "\"");
  const int rings = o.contains("rings") ? read_int(o["rings"], "merit: default: rings") : 2;
  if (rings < 1 || rings > 20) fail("merit: default: rings must be 1 .. 20");
  std::vector<MeritOperandDesc> ops = default_merit_function(lens, rings);
  if (o.contains("focal_length")) {
    const double f = read_number(o["focal_length"], "merit: default: focal_length");
    for (MeritOperandDesc& op : ops)
      if (op.type == kEffectiveFocalLengthCode) op.target = f;
  }
  return ops;
}

std::vector<MeritOperandDesc> read_merit(const json& m, const Lens& lens) {
  const bool named_default = m.is_string() && m.get<std::string>() == "default";
  if (named_default || (m.is_object() && m.size() == 1 && m.contains("default")))
    return read_default_merit(m, lens);
  if (!m.is_array()) fail("merit must be an array of operands or \"default\"");
  if (m.empty()) fail("merit must list at least one operand");
  std::vector<MeritOperandDesc> ops;
  for (size_t k = 0; k < m.size(); ++k) ops.push_back(read_operand(m[k], k, m.size(), lens));
  return ops;
}

// ---- The variables and pickups blocks -------------------------------------

const char* const kVariableKindNames[14] = {"curvature",
                                            "thickness",
                                            "conic",
                                            "coefficient",
                                            "field_y",
                                            nullptr,
                                            nullptr,
                                            "semi_diameter",
                                            "aperture_percent",
                                            "model_nd",
                                            "model_vd",
                                            "model_dpgf",
                                            "focal_length",
                                            "coefficient_relative_step"};

const char* const kPickupKindNames[9] = {"curvature",     "thickness", nullptr,
                                         "semi_diameter", "conic",     nullptr,
                                         "model_nd",      "model_vd",  "model_dpgf"};

// A kind by its name or its number; only kinds with a name are accepted.
unsigned read_kind(const json& v, const std::string& what, const char* const* names,
                   unsigned count) {
  if (v.is_string()) {
    const std::string name = v.get<std::string>();
    for (unsigned k = 0; k < count; ++k)
      if (names[k] != nullptr && name == names[k]) return k;
    fail(what + ": unknown kind \"" + name + "\"");
  }
  const int k = read_int(v, what + ": kind");
  if (k < 0 || k >= static_cast<int>(count) || names[k] == nullptr)
    fail(what + ": kind " + std::to_string(k) + " names no parameter");
  return static_cast<unsigned>(k);
}

void check_keys(const json& j, const std::string& what, std::initializer_list<const char*> keys) {
  if (!j.is_object()) fail(what + " must be an object");
  for (auto it = j.begin(); it != j.end(); ++it) {
    bool known = false;
    for (const char* k : keys) known = known || it.key() == k;
    if (!known) fail(what + ": unknown key \"" + it.key() + "\"");
  }
}

int read_surface_index(const json& j, const char* key, const std::string& what, const Lens& lens) {
  if (!j.contains(key)) fail(what + ": no \"" + key + "\"");
  const int s = read_int(j[key], what + ": " + key);
  if (s < 0 || s >= lens.count())
    fail(what + ": " + key + " must be a surface 0 .. " + std::to_string(lens.count() - 1));
  return s;
}

bool is_coefficient_kind(unsigned kind) { return kind == 3 || kind == 13; }

// Two variables that move one and the same parameter.
bool same_parameter(const MeritVariableDesc& a, const MeritVariableDesc& b) {
  if (is_coefficient_kind(a.kind) && is_coefficient_kind(b.kind))
    return a.surface == b.surface && a.coefficient == b.coefficient;
  if (a.kind != b.kind) return false;
  return a.kind == 4 ? a.field == b.field : a.surface == b.surface;
}

// One variable: {"kind": .., "surface": .. | "field": .., "coefficient": ..,
// "lower": .., "upper": ..}.  The field is counted from 1 as in the merit
// block; the present value must lie within the bounds.
MeritVariableDesc read_variable(const json& j, size_t index, const Lens& lens) {
  const std::string what = "variable " + std::to_string(index);
  check_keys(j, what, {"kind", "surface", "field", "coefficient", "lower", "upper"});
  if (!j.contains("kind")) fail(what + ": no \"kind\"");
  MeritVariableDesc v = {};
  v.kind = read_kind(j["kind"], what, kVariableKindNames, 14);
  if (v.kind == 4) {
    if (j.contains("surface")) fail(what + ": field_y takes \"field\", not \"surface\"");
    if (!j.contains("field")) fail(what + ": no \"field\"");
    const int f = read_int(j["field"], what + ": field");
    const int fields = static_cast<int>(lens.fields.size());
    if (f < 1 || f > fields)
      fail(what + ": field must be 1 .. " + std::to_string(fields) + " (the fields of the file)");
    v.field = f - 1;
  } else {
    if (j.contains("field")) fail(what + ": only field_y takes \"field\"");
    v.surface = read_surface_index(j, "surface", what, lens);
  }
  if (is_coefficient_kind(v.kind)) {
    if (!j.contains("coefficient")) fail(what + ": no \"coefficient\"");
    v.coefficient = read_int(j["coefficient"], what + ": coefficient");
    if (v.coefficient < 0 || v.coefficient > 7) fail(what + ": coefficient must be 0 .. 7");
  } else if (j.contains("coefficient")) {
    fail(what + ": only the coefficient kinds take \"coefficient\"");
  }
  if (j.contains("lower")) {
    v.has_lower = 1;
    v.lower = read_number(j["lower"], what + ": lower");
  }
  if (j.contains("upper")) {
    v.has_upper = 1;
    v.upper = read_number(j["upper"], what + ": upper");
  }
  if (v.has_lower && v.has_upper && !(v.lower < v.upper))
    fail(what + ": lower must be below upper");
  const double p = variable_value(v, lens.surfaces, lens.fields);
  if (!std::isfinite(p)) fail(what + ": its present value is not finite");
  if ((v.has_lower && p < v.lower) || (v.has_upper && p > v.upper))
    fail(what + ": its present value " + std::to_string(p) + " lies outside its bounds");
  return v;
}

std::vector<MeritVariableDesc> read_variables(const json& a, const Lens& lens) {
  if (!a.is_array()) fail("variables must be an array");
  std::vector<MeritVariableDesc> vars;
  for (size_t k = 0; k < a.size(); ++k) {
    const MeritVariableDesc v = read_variable(a[k], k, lens);
    for (size_t m = 0; m < vars.size(); ++m)
      if (same_parameter(vars[m], v))
        fail("variables " + std::to_string(m) + " and " + std::to_string(k) +
             " move the same parameter");
    vars.push_back(v);
  }
  return vars;
}

// One pickup: {"kind": .., "target": .., "source": .., "factor": .., "offset": ..}.
MeritPickupDesc read_pickup(const json& j, size_t index, const Lens& lens) {
  const std::string what = "pickup " + std::to_string(index);
  check_keys(j, what, {"kind", "target", "source", "factor", "offset"});
  if (!j.contains("kind")) fail(what + ": no \"kind\"");
  MeritPickupDesc p = {};
  p.kind = read_kind(j["kind"], what, kPickupKindNames, 9);
  p.target_surface = read_surface_index(j, "target", what, lens);
  p.source_surface = read_surface_index(j, "source", what, lens);
  if (p.target_surface == p.source_surface) fail(what + ": target and source must differ");
  p.factor = j.contains("factor") ? read_number(j["factor"], what + ": factor") : 1.0;
  p.offset = j.contains("offset") ? read_number(j["offset"], what + ": offset") : 0.0;
  return p;
}

std::vector<MeritPickupDesc> read_pickups(const json& a, const Lens& lens) {
  if (!a.is_array()) fail("pickups must be an array");
  std::vector<MeritPickupDesc> pickups;
  for (size_t k = 0; k < a.size(); ++k) pickups.push_back(read_pickup(a[k], k, lens));
  return pickups;
}

// The parameter of a surface that a variable kind names, or null; S is
// SurfaceData, const or not.
template <class S>
auto surface_slot(unsigned kind, int coefficient, S& s) -> decltype(&s.curvature) {
  switch (kind) {
    case 0:
      return &s.curvature;
    case 1:
      return &s.thickness;
    case 2:
      return &s.conic;
    case 3:
    case 13:
      return coefficient >= 0 && coefficient < 8 ? &s.coefficients[coefficient] : nullptr;
    case 7:
      return &s.semi_diameter;
    case 8:
      return &s.aperture_percent;
    case 9:
      return &s.model_nd;
    case 10:
      return &s.model_vd;
    case 11:
      return &s.model_dpgf;
    case 12:
      return &s.focal_length;
    default:
      return nullptr;
  }
}

// The merit, variables and pickups blocks that j holds, read for the lens's
// records.
void read_block_keys(const json& j, Lens& lens) {
  if (j.contains("merit")) {
    lens.merit = read_merit(j["merit"], lens);
    const json& m = j["merit"];
    lens.merit_is_default = m.is_string() || (m.is_object() && m.contains("default"));
  }
  if (j.contains("variables")) lens.variables = read_variables(j["variables"], lens);
  if (j.contains("pickups")) lens.pickups = read_pickups(j["pickups"], lens);
}

}  // namespace

const char* variable_kind_name(unsigned kind) {
  return kind < 14 ? kVariableKindNames[kind] : nullptr;
}

const char* pickup_kind_name(unsigned kind) { return kind < 9 ? kPickupKindNames[kind] : nullptr; }

double variable_value(const MeritVariableDesc& v, const std::vector<SurfaceData>& surfaces,
                      const std::vector<FieldData>& fields) {
  if (v.kind == 4)
    return v.field >= 0 && v.field < static_cast<int>(fields.size()) ? fields[v.field].field_y
                                                                     : 0.0;
  if (v.surface < 0 || v.surface >= static_cast<int>(surfaces.size())) return 0.0;
  const double* slot = surface_slot(v.kind, v.coefficient, surfaces[v.surface]);
  return slot != nullptr ? *slot : 0.0;
}

bool set_variable_value(const MeritVariableDesc& v, double value,
                        std::vector<SurfaceData>& surfaces, std::vector<FieldData>& fields) {
  if (v.kind == 4) {
    if (v.field < 0 || v.field >= static_cast<int>(fields.size())) return false;
    fields[v.field].field_y = value;
    return true;
  }
  if (v.surface < 0 || v.surface >= static_cast<int>(surfaces.size())) return false;
  double* slot = surface_slot(v.kind, v.coefficient, surfaces[v.surface]);
  if (slot == nullptr) return false;
  *slot = value;
  return true;
}

double model_glass_index(double wavelength_nm, double nd, double vd, double dpgf) {
  if (std::fabs(vd) < 1e-12) return nd;
  const double v = 1.0 / (wavelength_nm / 1000.0);
  const double P = 0.643640694 - 0.001680893 * vd + dpgf;
  const double c0 = 1.177526148 - 6.11873892 * P;
  const double c1 = -8.932045225 + 18.27315722 * P;
  const double c2 = 7.910159645 - 14.55275321 * P;
  const double c3 = -1.803211179 + 3.483851069 * P;
  const double d = c0 + c1 * v + c2 * v * v + c3 * v * v * v;
  return nd + ((nd - 1.0) / vd) * d;
}

bool build_lens(const Prescription& p, Lens& lens, std::string& error) {
  error = check(p);
  if (!error.empty()) return false;
  const size_t n = p.rows.size();
  lens = Lens();
  lens.name = p.name;
  lens.wavelengths_um = p.wavelengths_um;
  lens.fields = p.fields;
  lens.indices.assign(n * p.wavelengths_um.size(), 1.0);
  for (size_t i = 0; i < n; ++i) {
    lens.surfaces.push_back(surface_record(p.rows[i]));
    fill_medium(p, i, lens);
    lens.media.push_back(describe_medium(p.rows[i]));
  }
  SystemConfig& c = lens.config;
  c.field_type = p.field_type;
  c.aperture_type = p.aperture_type;
  c.aperture_value = p.aperture_value;
  c.ray_aiming = p.ray_aiming;
  c.stop_surface = p.stop_surface;
  c.primary_wavelength = p.primary;
  return true;
}

bool load_lens_file(const std::string& path, Lens& lens, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = path + ": cannot open";
    return false;
  }
  try {
    const json j = json::parse(in);
    const Prescription p = read_prescription(j);
    if (!build_lens(p, lens, error)) {
      error = path + ": " + error;
      return false;
    }
    read_block_keys(j, lens);
  } catch (const std::exception& e) {
    error = path + ": " + e.what();
    return false;
  }
  return true;
}

bool read_blocks(const std::string& text, Lens& lens, std::string& error) {
  try {
    const json j = json::parse(text);
    check_keys(j, "blocks", {"merit", "variables", "pickups"});
    read_block_keys(j, lens);
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
  return true;
}

Prescription cooke_triplet() {
  Prescription p;
  p.name = "Cooke triplet (built in)";
  p.wavelengths_um = {0.4861327, 0.5875618, 0.6562725};
  p.primary = 1;
  p.field_type = NUVRIX_FIELD_ANGLE;
  for (double a : {0.0, 14.0, 20.0}) p.fields.push_back(FieldData{a, 0.0, 0.0});
  p.aperture_type = 0;
  p.aperture_value = 10.0;
  p.stop_surface = 4;
  // radius (0: plane), thickness behind, glass nd/vd behind (nd 0: air)
  const double table[8][4] = {
      {0.0, kInfinity, 0.0, 0.0},      {22.01359, 3.25896, 1.620410, 60.32},
      {-435.76044, 6.00755, 0.0, 0.0}, {-22.21328, 0.99997, 1.620040, 36.37},
      {20.29192, 4.75041, 0.0, 0.0},   {79.68360, 2.95208, 1.620410, 60.32},
      {-18.39533, 42.20778, 0.0, 0.0}, {0.0, 0.0, 0.0, 0.0}};
  for (const auto& t : table) {
    SurfaceRow r;
    r.curvature = t[0] == 0.0 ? 0.0 : 1.0 / t[0];
    r.thickness = t[1];
    if (t[2] > 0.0) {
      r.medium = Medium::kModelGlass;
      r.nd = t[2];
      r.vd = t[3];
    }
    p.rows.push_back(r);
  }
  return p;
}

}  // namespace lensfile
