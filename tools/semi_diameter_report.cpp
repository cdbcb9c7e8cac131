// The semi-diameter block of the nuvrix report: the engine solves the clear
// semi-diameter of every automatic surface from the edge rays of all fields
// and wavelengths (nuvrix_solve_semi_diameters).
#include <cstdio>
#include <string>
#include <vector>

#include "tools/report.hpp"

namespace lensfile {
namespace {

// The lens's surfaces after the solve.  A surface whose lens file sets no
// aperture_kind is automatic (0) already and gets solved; one the file fixes
// keeps its value.
std::vector<SurfaceData> solved_surfaces(const Lens& lens) {
  std::vector<SurfaceData> s = lens.surfaces;
  std::vector<double> nm;
  for (double um : lens.wavelengths_um) nm.push_back(um * 1000.0);
  nuvrix_solve_semi_diameters(s.data(), lens.count(), lens.indices.data(), nm.data(),
                              static_cast<int32_t>(nm.size()), &lens.config, lens.fields.data(),
                              static_cast<int32_t>(lens.fields.size()));
  return s;
}

// The lens file's own value, or a dash where it gives none.
std::string file_value_text(double v) {
  if (!(v > 0.0)) return "-";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.6f", v);
  return buf;
}

const char* note_text(const SurfaceData& before, const SurfaceData& after) {
  if (after.aperture_kind != 0) return "fixed by the lens file, kept";
  if (after.semi_diameter == before.semi_diameter) return "not solved (unchanged)";
  return "";
}

}  // namespace

void print_solved_semi_diameters(const Lens& lens) {
  print_heading("Solved semi-diameters (mm)");
  std::printf(
      "  nuvrix_solve_semi_diameters over %zu wavelength(s) and %zu field(s), ray aiming "
      "%d as the lens says\n",
      lens.wavelengths_um.size(), lens.fields.size(), lens.config.ray_aiming);
  const std::vector<SurfaceData> solved = solved_surfaces(lens);
  std::printf("  %4s %3s %16s %16s  %s\n", "surf", "", "solved (mm)", "lens file (mm)", "note");
  for (int i = 0; i < lens.count(); ++i) {
    std::printf("  %4d %3s %16.6f %16s", i, surface_role(lens, i), solved[i].semi_diameter,
                file_value_text(lens.surfaces[i].semi_diameter).c_str());
    const char* note = note_text(lens.surfaces[i], solved[i]);
    std::printf(*note ? "  %s\n" : "%s\n", note);
  }
}

}  // namespace lensfile
