// Code names of the operand catalogue and the default merit function.
#include "tools/merit_function.hpp"

#include <cmath>
#include <cstdlib>

namespace lensfile {
namespace {

// Names by code; the gaps stay empty.  Codes 14 to 18 compute one and the
// same paraxial height: the first carries the name.
const char* const kCodeNames[104] = {
    "RAY_X", "RAY_Y", "RAY_Z", "RAY_L", "RAY_M", "RAY_N", "RAY_ANGLE_IN_BOUND",
    "RAY_ANGLE_OUT_BOUND", nullptr, nullptr, nullptr, nullptr, nullptr, "PARAXIAL_SLOPE",
    "PARAXIAL_HEIGHT", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, "COMPOSITE_SCALE", "COMPOSITE_SUM",
    "COMPOSITE_ADD", "COMPOSITE_DIV", "COMPOSITE_MUL", "COMPOSITE_SPREAD", "COMPOSITE_RSS",
    "COMPOSITE_SUB", "BOUND_CURVATURE", "BOUND_CURVATURE_AIR", "BOUND_CURVATURE_GLASS",
    "BOUND_THICKNESS", "BOUND_THICKNESS_AIR", "BOUND_THICKNESS_GLASS", "BOUND_EDGE",
    "BOUND_EDGE_AIR", "BOUND_EDGE_GLASS", "BOUND_SEMI_DIAMETER", "BOUND_ASPECT", "CLEAR_DIAMETER",
    "REAL_MAGNIFICATION", "EFFECTIVE_FOCAL_LENGTH", "BACK_FOCAL_LENGTH", nullptr,
    "EXIT_PUPIL_POSITION", "ENTRANCE_PUPIL_POSITION", "ENTRANCE_PUPIL_DIAMETER",
    "EXIT_PUPIL_DIAMETER", "TOTAL_TRACK", nullptr, "RELATIVE_ILLUMINATION", "DISTORTION_MAX_TAN",
    "DISTORTION_MAX_THETA", "DISTORTION_TAN", "DISTORTION_THETA", "LATERAL_COLOUR",
    "FIELD_CURVATURE", "ASTIGMATISM", "OPD_TILT_FREE", "OPD_PISTON_FREE", "OPD_RAW",
    "TRANSVERSE_X", "TRANSVERSE_Y", "TRANSVERSE_X_CHIEF", "TRANSVERSE_Y_CHIEF", "INCIDENCE_LOAD",
    "MATRIX_A", "MATRIX_B", "MATRIX_C", "MATRIX_D", "SURFACE_PARAMETER", "SEIDEL_S1",
    "SEIDEL_S2", "SEIDEL_S3", "SEIDEL_S4", "SEIDEL_S5", "SEIDEL_C1", "SEIDEL_C2",
    "MATRIX_DETERMINANT", "TOTAL_THICKNESS", "TOTAL_THICKNESS_AIR", "TOTAL_THICKNESS_GLASS",
    "TOTAL_EDGE", "TOTAL_EDGE_AIR", "TOTAL_EDGE_GLASS", "TOTAL_CURVATURE", "TOTAL_CURVATURE_AIR",
    "TOTAL_CURVATURE_GLASS", "TOTAL_SEMI_DIAMETER", "TOTAL_ASPECT", "TOTAL_RAY_ANGLE_IN",
    "TOTAL_RAY_ANGLE_OUT", "GLASS_BOUND_ND", "GLASS_BOUND_VD", "GLASS_BOUND_DPGF",
};

constexpr unsigned kTransverseX = 70, kTransverseY = 71, kEffectiveFocalLength = 50;
constexpr unsigned kThicknessAir = 41, kThicknessGlass = 42, kEdgeAir = 44, kEdgeGlass = 45;

MeritOperandDesc lower_bound(unsigned code, int first, int last, double lower) {
  MeritOperandDesc op = blank_operand(code);
  op.surface_first = first;
  op.surface_last = last;
  op.has_lower = 1;
  op.lower = lower;
  return op;
}

}  // namespace

const char* operand_code_name(unsigned code) { return code < 104 ? kCodeNames[code] : nullptr; }

bool operand_code_from_name(const std::string& name, unsigned& code) {
  for (unsigned c = 0; c < 104; ++c) {
    if (kCodeNames[c] != nullptr && name == kCodeNames[c]) {
      code = c;
      return true;
    }
  }
  char* end = nullptr;
  long const value = std::strtol(name.c_str(), &end, 10);
  if (name.empty() || *end != '\0' || value < 0 || value > 0xffffffffL) return false;
  code = static_cast<unsigned>(value);
  return true;
}

MeritOperandDesc blank_operand(unsigned code) {
  MeritOperandDesc op = {};
  op.type = code;
  op.group_id = -1;
  op.wave = -1;
  op.weight = 1.0;
  return op;
}

std::vector<MeritOperandDesc> default_merit_function(const Lens& lens, int rings) {
  std::vector<MeritOperandDesc> ops;
  double max_y = 0.0, max_x = 0.0;
  for (const FieldData& f : lens.fields) {
    max_y = std::fmax(max_y, std::fabs(f.field_y));
    max_x = std::fmax(max_x, std::fabs(f.field_x));
  }
  const int waves = static_cast<int>(lens.wavelengths_um.size());
  for (size_t f = 0; f < lens.fields.size(); ++f) {
    const double hy = max_y > 0.0 ? lens.fields[f].field_y / max_y : 0.0;
    const double hx = max_x > 0.0 ? lens.fields[f].field_x / max_x : 0.0;
    for (int w = 0; w < waves; ++w) {
      for (int r = 0; r <= rings; ++r) {
        const int points = r == 0 ? 1 : 6 * r;
        for (int j = 0; j < points; ++j) {
          const double theta = 2.0 * M_PI * j / points, rho = static_cast<double>(r) / rings;
          for (unsigned code : {kTransverseX, kTransverseY}) {
            MeritOperandDesc op = blank_operand(code);
            op.wave = w;
            op.hx = hx;
            op.hy = hy;
            op.px = rho * std::cos(theta);
            op.py = rho * std::sin(theta);
            op.centroid_tag = static_cast<int>(f);
            ops.push_back(op);
          }
        }
      }
    }
  }
  MeritOperandDesc efl = blank_operand(kEffectiveFocalLength);
  efl.target = nuvrix_calculate_efl(lens.surfaces.data(), lens.count(),
                                    lens.row(lens.config.primary_wavelength));
  efl.weight = 10.0;
  ops.push_back(efl);
  // Bounds only over ranges that hold surfaces of their medium: an empty
  // range reads 0 and would seem broken.  Air spaces are bounded between
  // the elements (the image distance is free), and not at all behind a
  // mirror, where the light runs back and the spacing is negative.
  const int last = lens.count() - 2;  // the surface in front of the image
  bool glass = false, air = false, mirror = false;
  for (int i = 1; i <= last; ++i) {
    const SurfaceData& s = lens.surfaces[i];
    mirror = mirror || s.is_mirror != 0;
    if (s.is_glass != 0) glass = true;
    if (s.is_glass == 0 && i < last) air = true;
  }
  if (glass) {
    ops.push_back(lower_bound(kThicknessGlass, 1, last, 1.0));
    ops.push_back(lower_bound(kEdgeGlass, 1, last, 1.0));
  }
  if (air && !mirror) {
    ops.push_back(lower_bound(kThicknessAir, 1, last - 1, 0.1));
    ops.push_back(lower_bound(kEdgeAir, 1, last - 1, 0.0));
  }
  return ops;
}

}  // namespace lensfile
