// The JSON lens file and the filling of the engine records.
#include "tools/lens_file.hpp"

#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace lensfile {
namespace {

using nlohmann::json;

// An infinite distance goes to the engine as a true infinity: the trace reads
// 1e10 and beyond as infinite, but the wavefront analyses' launch counts only
// a thickness that is not finite as an object at infinity.
constexpr double kInfinity = HUGE_VAL;
constexpr int kMaxSurfaces = 255;   // the full trace keeps the launch and 255 surfaces

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

}  // namespace

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
    const Prescription p = read_prescription(json::parse(in));
    if (!build_lens(p, lens, error)) {
      error = path + ": " + error;
      return false;
    }
  } catch (const std::exception& e) {
    error = path + ": " + e.what();
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
