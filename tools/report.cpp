// The nuvrix report, block by block: identity, system data, real-ray table.
#include "tools/report.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/ray_aim.hpp"

namespace lensfile {
namespace {

constexpr int kHistory = 256;  // records the full trace may store

// A length that the engine reads as infinite prints as such.
std::string length_text(double v) {
  char buf[32];
  if (!(std::fabs(v) < 1e10)) return v < 0.0 ? "-Infinity" : "Infinity";
  std::snprintf(buf, sizeof buf, "%.6f", v);
  return buf;
}

const char* type_name(int type) {
  switch (type) {
    case NUVRIX_SURFACE_EVEN_ASPHERE:
      return "even_asphere";
    case NUVRIX_SURFACE_PARAXIAL_LENS:
      return "paraxial";
    case NUVRIX_SURFACE_MATRIX:
      return "matrix";
    default:
      return "standard";
  }
}

void print_ray_header() {
  std::printf("    %4s %12s %12s %12s %12s %12s %12s %14s\n", "surf", "x", "y", "z", "l", "m", "n",
              "optical path");
}

// What the summary of a field needs from one ray.
struct RayOutcome {
  bool valid = false;
  double y_image = 0.0;
  double path = 0.0;  // optical path from the object point or the incoming wavefront
};

// Optical path of a traced ray from its reference: the object point for a
// finite object; for an object at infinity, the plane wavefront through the
// vertex of surface 1, which adds the step from that wavefront to the launch
// point and the step from the vertex plane to surface 1 (the engine counts
// no path across an infinite distance; the second step is in sag_path).
double reference_path(const Lens& lens, const Aim& aim, const Launch& r, const RayTraceResult& res,
                      const RayState& at_first) {
  if (!aim.infinite_object) return res.opl;
  const double n0 = lens.index(lens.config.primary_wavelength, 0);
  return res.opl + n0 * (r.x * r.l + r.y * r.m + at_first.sag_path);
}

// Traces one ray through the whole system and prints its state at the
// launch and at each surface, with the engine's optical path up to there.
RayOutcome print_ray(const Lens& lens, const Aim& aim, const char* label, const Launch& r) {
  const int w = lens.config.primary_wavelength;
  const double wl = aim.wavelength_nm;
  std::printf("\n  %s: launch y = %.6f, direction m = %.6f, n = %.6f\n", label, r.y, r.m, r.n);
  RayState states[kHistory];
  const RayTraceResult res = nuvrix_trace_ray_full(lens.surfaces.data(), lens.count(), lens.row(w),
                                                   states, 1, 0, r.x, r.y, r.l, r.m, r.n, wl);
  RayOutcome out;
  if (res.valid != 1) {
    std::printf("    FAILED: status %d (%s) at surface %d, violation %.6e\n", res.status,
                status_text(res.status), res.failed_surface, res.violation);
    return out;
  }
  print_ray_header();
  const RayState& s0 = states[0];
  std::printf("    %4s %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %14.6f\n", "start", s0.x, s0.y,
              s0.z, s0.l, s0.m, s0.n, 0.0);
  for (int k = 1; k < lens.count() && k < res.states_written && k < kHistory; ++k) {
    const RayTraceResult upto = nuvrix_trace_ray(lens.surfaces.data(), lens.count(), lens.row(w), 1,
                                                 k, r.x, r.y, r.l, r.m, r.n, wl);
    const RayState& s = states[k];
    std::printf("    %4d %12.6f %12.6f %12.6f %12.6f %12.6f %12.6f %14.6f\n", k, s.x, s.y, s.z, s.l,
                s.m, s.n, upto.opl);
  }
  out.valid = true;
  out.y_image = res.y;
  out.path = reference_path(lens, aim, r, res, states[1]);
  return out;
}

void print_field(const Lens& lens, const Aim& aim, int f) {
  const double field = lens.fields[f].field_y;
  const bool angle = lens.config.field_type == NUVRIX_FIELD_ANGLE;
  std::printf("\nField %d: %.6f %s\n", f + 1, field, angle ? "deg" : "mm");
  double q;
  if (!find_chief(lens, aim, field, q)) {
    std::printf("  no ray of this field found that crosses the stop on the axis\n");
    return;
  }
  const double h = 0.5 * aim.epd;
  const RayOutcome chief = print_ray(lens, aim, "chief ray", launch_ray(lens, aim, field, q));
  const RayOutcome upper =
      print_ray(lens, aim, "upper marginal ray", launch_ray(lens, aim, field, q + h));
  const RayOutcome lower =
      print_ray(lens, aim, "lower marginal ray", launch_ray(lens, aim, field, q - h));
  if (!(chief.valid && upper.valid && lower.valid)) return;
  std::printf("\n  at the image       %16s %16s %16s\n", "chief", "upper", "lower");
  std::printf("    y                %16.9f %16.9f %16.9f\n", chief.y_image, upper.y_image,
              lower.y_image);
  std::printf("    y - y(chief)     %16s %16.6e %16.6e\n", "", upper.y_image - chief.y_image,
              lower.y_image - chief.y_image);
  std::printf("    optical path %s %16.9f %16.9f %16.9f\n", aim.infinite_object ? "(*)" : "   ",
              chief.path, upper.path, lower.path);
  std::printf("    path - chief's   %16s %16.6e %16.6e\n", "", upper.path - chief.path,
              lower.path - chief.path);
}

}  // namespace

void print_heading(const std::string& title) {
  std::printf("\n%s\n%s\n", title.c_str(), std::string(title.size(), '-').c_str());
}

const char* surface_role(const Lens& lens, int i) {
  if (i == 0) return "OBJ";
  if (i == lens.count() - 1) return "IMA";
  if (i == lens.config.stop_surface) return "STO";
  return "";
}

const char* status_text(int status) {
  if (status == NUVRIX_RAY_TIR) return "total internal reflection";
  if (status == NUVRIX_RAY_MISSED) return "missed or clipped";
  return "ok";
}

bool print_identity() {
  print_heading("Library");
  std::printf("  nuvrix_version       %s\n", nuvrix_version());
  std::printf("  nuvrix_build_anchor  %d\n", nuvrix_build_anchor());
  int32_t words[12];
  std::memset(words, 0, sizeof words);
  nuvrix_merit_abi_info(words);
  const struct {
    const char* label;
    int32_t host;
  } expected[12] = {
      {"words in this report", 12},
      {"merit operand codes", 104},
      {"variable kinds", 14},
      {"pickup kinds", 9},
      {"sizeof MeritOperandDesc", static_cast<int32_t>(sizeof(MeritOperandDesc))},
      {"sizeof MeritVariableDesc", static_cast<int32_t>(sizeof(MeritVariableDesc))},
      {"sizeof SurfaceData", static_cast<int32_t>(sizeof(SurfaceData))},
      {"sizeof SystemConfig", static_cast<int32_t>(sizeof(SystemConfig))},
      {"sizeof FieldData", static_cast<int32_t>(sizeof(FieldData))},
      {"sizeof MeritResult", static_cast<int32_t>(sizeof(MeritResult))},
      {"sizeof MeritPickupDesc", static_cast<int32_t>(sizeof(MeritPickupDesc))},
      {"sizeof MeritBatchedConfig", static_cast<int32_t>(sizeof(MeritBatchedConfig))},
  };
  std::printf("  layout (nuvrix_merit_abi_info)      engine   host\n");
  bool same = true;
  for (int k = 0; k < 12; ++k) {
    const bool ok = words[k] == expected[k].host;
    same = same && ok;
    std::printf("    [%2d] %-28s %6d %6d  %s\n", k, expected[k].label, words[k], expected[k].host,
                ok ? "ok" : "DIFFERS");
  }
  return same;
}

void print_system(const Lens& lens) {
  const SystemConfig& c = lens.config;
  print_heading("System: " + lens.name);
  std::printf("  wavelengths (um):");
  for (size_t w = 0; w < lens.wavelengths_um.size(); ++w)
    std::printf(" %.7f%s", lens.wavelengths_um[w],
                static_cast<int>(w) == c.primary_wavelength ? " (primary)" : "");
  std::printf("\n  fields (%s):", c.field_type == NUVRIX_FIELD_ANGLE ? "deg" : "mm");
  for (const FieldData& f : lens.fields) std::printf(" %.4f", f.field_y);
  static const char* const kAperture[] = {"entrance pupil diameter", "image-space F/#",
                                          "object-space NA"};
  std::printf("\n  aperture: %s %.6f, stop surface %d, ray aiming %d\n\n",
              kAperture[c.aperture_type < 0 || c.aperture_type > 2 ? 2 : c.aperture_type],
              c.aperture_value, c.stop_surface, c.ray_aiming);
  std::printf("  %4s %3s %-12s %14s %14s %10s %10s %10s  %s\n", "surf", "", "type", "radius",
              "thickness", "conic", "index", "semi-diam", "medium behind");
  for (int i = 0; i < lens.count(); ++i) {
    const SurfaceData& s = lens.surfaces[i];
    const double radius = std::fabs(s.curvature) < 1e-15 ? HUGE_VAL : 1.0 / s.curvature;
    std::printf("  %4d %3s %-12s %14s %14s %10.6f %10.6f %10.4f  %s\n", i, surface_role(lens, i),
                type_name(s.type), length_text(radius).c_str(), length_text(s.thickness).c_str(),
                s.conic, lens.index(c.primary_wavelength, i), s.semi_diameter,
                lens.media[i].c_str());
  }
}

void print_real_rays(const Lens& lens) {
  Aim aim;
  std::string error;
  char title[64];
  std::snprintf(title, sizeof title, "Real rays at %.4f nm", lens.primary_nm());
  print_heading(title);
  if (!set_up_aim(lens, aim, error)) {
    std::printf("  cannot launch rays: %s\n", error.c_str());
    return;
  }
  std::printf("  entrance pupil diameter %.6f mm", aim.epd);
  if (!aim.infinite_object) std::printf(", %.6f mm from the object plane", aim.pupil_z);
  std::printf("\n  focal length from a near-axis ray %.6f mm\n", aim.focal_length);
  std::printf("  x, y, z and l, m, n in the frame of each surface; optical path as the engine\n");
  if (aim.infinite_object) {
    std::printf(
        "  counts it from the launch point on the vertex plane of surface 1, where no path\n"
        "  is counted up to surface 1 itself (the step after an infinite distance);\n"
        "  (*) optical path from the incoming plane wavefront through that vertex\n");
  } else {
    std::printf("  counts it from the object point\n");
  }
  for (size_t f = 0; f < lens.fields.size(); ++f) print_field(lens, aim, static_cast<int>(f));
}

}  // namespace lensfile
