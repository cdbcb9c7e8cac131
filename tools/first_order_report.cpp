// The first-order blocks of the nuvrix report: cardinal data and paraxial
// rays, third-order surface sums, and the focal shift with wavelength.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/report.hpp"

namespace lensfile {
namespace {

constexpr int kRows = 256;  // rows the paraxial solve and the Seidel sums may write

// The engine returns 1e15 for a distance it cannot reach (a ray leaving
// parallel); such a value prints as infinite.
std::string distance_text(double v) {
  char buf[32];
  if (!(std::fabs(v) < 1e10)) return v < 0.0 ? "-Infinity" : "Infinity";
  std::snprintf(buf, sizeof buf, "%.6f", v);
  return buf;
}

void value_line(const char* label, const std::string& value, const char* note = "") {
  std::printf("    %-52s %16s mm%s\n", label, value.c_str(), note);
}

void print_rows(const Lens& lens, const char* title, const ParaxialRayState* rows) {
  std::printf("\n  %s\n    %4s %16s %16s %16s\n", title, "surf", "y", "u", "nu");
  for (int i = 0; i + 1 < lens.count() && i < kRows; ++i)
    std::printf("    %4d %16.9f %16.9f %16.9f\n", i + 1, rows[i].y, rows[i].u, rows[i].nu);
}

// Rows of the index table at the shortest and the longest wavelength.
void extreme_rows(const Lens& lens, int& shortest, int& longest) {
  const auto& w = lens.wavelengths_um;
  shortest = static_cast<int>(std::min_element(w.begin(), w.end()) - w.begin());
  longest = static_cast<int>(std::max_element(w.begin(), w.end()) - w.begin());
}

}  // namespace

void print_first_order(const Lens& lens) {
  const int w = lens.config.primary_wavelength;
  char title[64];
  std::snprintf(title, sizeof title, "First-order data at %.4f nm", lens.primary_nm());
  print_heading(title);
  std::vector<ParaxialRayState> marginal(kRows), chief(kRows);
  const ParaxialSolveResult r = nuvrix_paraxial_solve(
      lens.surfaces.data(), lens.count(), lens.row(w), &lens.config, lens.fields.data(),
      static_cast<int32_t>(lens.fields.size()), marginal.data(), chief.data());
  const double efl = nuvrix_calculate_efl(lens.surfaces.data(), lens.count(), lens.row(w));
  const double bfl = nuvrix_calculate_bfl(lens.surfaces.data(), lens.count(), lens.row(w));
  const double plain = nuvrix_focal_length(lens.surfaces.data(), lens.count(), lens.row(w));
  const double enp = nuvrix_entrance_pupil_position(lens.surfaces.data(), lens.count(),
                                                    lens.row(w), lens.config.stop_surface);
  std::printf("  from the paraxial solve\n");
  value_line("effective focal length", distance_text(r.efl));
  value_line("back focal distance", distance_text(r.bfl));
  value_line("image distance", distance_text(r.image_distance));
  value_line("entrance pupil position (from surface 1)", distance_text(r.entrance_pupil_position));
  value_line("entrance pupil diameter", distance_text(r.entrance_pupil_diameter));
  value_line("exit pupil position (from the last surface)", distance_text(r.exit_pupil_position));
  value_line("exit pupil diameter", distance_text(r.exit_pupil_diameter));
  value_line("total length", distance_text(r.total_length));
  std::printf("  from the single-quantity calls\n");
  char agree[64];
  if (efl == r.efl)
    std::snprintf(agree, sizeof agree, "  (same as the solve)");
  else
    std::snprintf(agree, sizeof agree, "  (solve's minus this: %.3e mm)", r.efl - efl);
  value_line("effective focal length", distance_text(efl), agree);
  value_line("back focal distance", distance_text(bfl));
  value_line("plain focal length (last surface to axis crossing)", distance_text(plain));
  value_line("entrance pupil position (from surface 1)", distance_text(enp));
  std::printf("\n  paraxial rays: the row of a surface is the ray just after it\n");
  print_rows(lens, "marginal ray", marginal.data());
  print_rows(lens, "chief ray (full field)", chief.data());
}

void print_seidel(const Lens& lens) {
  const int w = lens.config.primary_wavelength;
  int shortest, longest;
  extreme_rows(lens, shortest, longest);
  print_heading("Third-order (Seidel) sums");
  std::printf("  primary %.4f nm; colour between %.4f nm and %.4f nm\n", lens.primary_nm(),
              lens.wavelengths_um[shortest] * 1000.0, lens.wavelengths_um[longest] * 1000.0);
  std::vector<SeidelSurfaceCoeffs> rows(kRows);
  SeidelResult total = {};
  const int32_t rc = nuvrix_compute_seidel(
      lens.surfaces.data(), lens.count(), lens.row(w), lens.row(shortest), lens.row(longest),
      &lens.config, lens.fields.data(), static_cast<int32_t>(lens.fields.size()), rows.data(),
      kRows, &total);
  if (rc != 0) std::printf("  nuvrix_compute_seidel returned %d\n", rc);
  std::printf("  %5s %13s %13s %13s %13s %13s %13s %13s\n", "surf", "S1 spherical", "S2 coma",
              "S3 astig", "S4 Petzval", "S5 distortion", "C1 axial col", "C2 lat col");
  const int written = std::min<int>(std::max<int>(total.count, 0), kRows);
  for (int k = 0; k < written; ++k) {
    const SeidelSurfaceCoeffs& s = rows[k];
    std::printf("  %5d %13.6e %13.6e %13.6e %13.6e %13.6e %13.6e %13.6e\n", s.surface, s.s1, s.s2,
                s.s3, s.s4, s.s5, s.c1, s.c2);
  }
  std::printf("  %5s %13.6e %13.6e %13.6e %13.6e %13.6e %13.6e %13.6e\n", "total", total.s1,
              total.s2, total.s3, total.s4, total.s5, total.c1, total.c2);
}

void print_focal_shift(const Lens& lens) {
  const int w = lens.config.primary_wavelength;
  const int count = static_cast<int>(lens.wavelengths_um.size());
  char title[80];
  std::snprintf(title, sizeof title, "Chromatic focal shift (from the focus at %.4f nm)",
                lens.primary_nm());
  print_heading(title);
  std::vector<ChromaticShiftPoint> points(count);
  ChromaticFocalShiftResult result = {};
  const int32_t rc = nuvrix_compute_chromatic_focal_shift(
      lens.surfaces.data(), lens.count(), lens.row(w), lens.wavelengths_um.data(),
      lens.indices.data(), count, points.data(), &result);
  if (rc != 0) std::printf("  nuvrix_compute_chromatic_focal_shift returned %d\n", rc);
  std::printf("  %16s %16s\n", "wavelength (um)", "shift (mm)");
  const int written = std::min(std::max<int>(result.count, 0), count);
  for (int k = 0; k < written; ++k)
    std::printf("  %16.7f %16.9f\n", points[k].wavelength, points[k].shift);
  std::printf("  max shift %.9f mm\n", result.max_shift);
}

}  // namespace lensfile
