// What the image-quality blocks of the nuvrix report share: the reference
// sphere, the working F-number and the diffraction cutoffs, the field labels
// and the words for an analysis status.
#pragma once

#include <string>

#include "tools/lens_file.hpp"

namespace lensfile {

constexpr int kPupilGrid = 64;  // pupil samples across for the wavefront-based analyses

// Reference sphere and aperture of the diffraction analyses, all taken at
// the primary wavelength.
struct QualitySetup {
  double reference_radius = 0.0;  // mm
  std::string reference_note;     // where the radius comes from
  double f_number = 0.0;          // working F-number 1 / (2 |n' u'|)
  std::string f_number_note;      // how it was formed
  double efl_over_epd = 0.0;      // |EFL| / EPD of the paraxial solve, for comparison
  double wavelength_um = 0.0;     // primary
  double cutoff = 0.0;            // 1 / (lambda F), cycles/mm, primary wavelength
  double shortest_um = 0.0;       // shortest wavelength of the lens
  double cutoff_shortest = 0.0;   // 1 / (lambda F) at the shortest wavelength
  bool usable = false;            // false: no F-number or reference could be formed
  std::string problem;            // why, when not usable
};

// Works out the setup from the paraxial solve and a near-axis real ray.
QualitySetup quality_setup(const Lens& lens);

// Prints the lines that say how the setup was formed.
void print_quality_setup(const QualitySetup& q);

// "1: 14.0000 deg", with " (y only)" when the field has an x component:
// the analyses take field_y alone.
std::string field_label(const Lens& lens, int f);

// Largest |field_y| of the lens's fields.
double largest_field(const Lens& lens);

// "deg" or "mm", as the lens's field type says.
const char* field_unit(const Lens& lens);

// Words for the status returned by an image-quality export.
std::string analysis_status_text(int status);

// Prints "  <export> returned <status> (<words>)" for a failed call.
void print_failed_call(const char* export_name, int status, const char* indent = "  ");

}  // namespace lensfile
