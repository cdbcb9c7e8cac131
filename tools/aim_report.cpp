// The aimed-ray block of the nuvrix report: the chief ray and the four
// marginal rays of every field, each traced by the engine with its own ray
// aiming at the stop (nuvrix_trace_arbitrary_ray, aim flag set).
#include <cmath>
#include <cstdio>
#include <string>

#include "tools/report.hpp"

namespace lensfile {
namespace {

// What every aimed trace of the lens is given.
struct AimedSetup {
  SystemConfig config = {};     // the lens's, aiming switched on
  double pupil_radius = 0.0;    // entrance pupil radius, mm
  double pupil_position = 0.0;  // entrance pupil from surface 1, mm
  double stop_radius = 0.0;     // paraxial marginal height at the stop, mm
  double wavelength_nm = 0.0;
};

// A pupil point of the block and its label.
struct PupilPoint {
  const char* label;
  double px, py;
};

constexpr PupilPoint kPupilPoints[] = {
    {"chief", 0.0, 0.0},   {"marg +y", 0.0, 1.0},  {"marg -y", 0.0, -1.0},
    {"marg +x", 1.0, 0.0}, {"marg -x", -1.0, 0.0},
};

AimedSetup aimed_setup(const Lens& lens) {
  const SurfaceData* s = lens.surfaces.data();
  const double* row = lens.row(lens.config.primary_wavelength);
  AimedSetup a;
  a.config = lens.config;
  if (a.config.ray_aiming == 0) a.config.ray_aiming = 1;
  a.pupil_radius = nuvrix_compute_pupil_radius(s, lens.count(), row, &lens.config);
  a.pupil_position = nuvrix_entrance_pupil_position(s, lens.count(), row, lens.config.stop_surface);
  a.stop_radius = nuvrix_compute_stop_radius(s, lens.count(), row, &lens.config);
  a.wavelength_nm = lens.primary_nm();
  return a;
}

// One aimed trace up to surface `last` (0: the image).
RayTraceResult aimed_trace(const Lens& lens, const AimedSetup& a, double field, const PupilPoint& p,
                           int last) {
  return nuvrix_trace_arbitrary_ray(
      lens.surfaces.data(), lens.count(), lens.row(lens.config.primary_wavelength), &a.config, 1,
      last, field, a.pupil_radius, p.px, p.py, a.wavelength_nm, a.pupil_position, a.stop_radius);
}

// Why a trace did not reach its last surface, in a few words.
std::string failure_text(const RayTraceResult& r) {
  char buf[128];
  if (r.failed_surface == -2) {
    std::snprintf(buf, sizeof buf, "aim did not converge (failed surface -2)");
  } else if (r.status == NUVRIX_RAY_OK) {
    std::snprintf(buf, sizeof buf, "aim found no ray (empty result, failed surface %d)",
                  r.failed_surface);
  } else {
    std::snprintf(buf, sizeof buf, "status %d, %s at surface %d", r.status, status_text(r.status),
                  r.failed_surface);
  }
  return buf;
}

void print_table_header() {
  std::printf("    %-8s %5s %5s  %14s %14s %10s  %14s %14s\n", "ray", "px", "py", "stop x (mm)",
              "stop y (mm)", "miss (mm)", "image x (mm)", "image y (mm)");
}

// One row: the crossing of the stop and the miss, then the image point.
void print_aimed_ray(const Lens& lens, const AimedSetup& a, double field, const PupilPoint& p) {
  std::printf("    %-8s %5.2f %5.2f  ", p.label, p.px, p.py);
  const RayTraceResult stop = aimed_trace(lens, a, field, p, lens.config.stop_surface);
  if (stop.valid != 1) {
    std::printf("FAILED to the stop: %s\n", failure_text(stop).c_str());
    return;
  }
  const double miss = std::hypot(stop.x - p.px * a.stop_radius, stop.y - p.py * a.stop_radius);
  std::printf("%14.9f %14.9f %10.3e  ", stop.x, stop.y, miss);
  const RayTraceResult image = aimed_trace(lens, a, field, p, 0);
  if (image.valid != 1) {
    std::printf("FAILED to the image: %s\n", failure_text(image).c_str());
    return;
  }
  std::printf("%14.9f %14.9f\n", image.x, image.y);
}

void print_aimed_field(const Lens& lens, const AimedSetup& a, int f) {
  const double field = lens.fields[f].field_y;
  const bool angle = lens.config.field_type == NUVRIX_FIELD_ANGLE;
  std::printf("\n  Field %d: %.6f %s\n", f + 1, field, angle ? "deg" : "mm");
  if (lens.fields[f].field_x != 0.0)
    std::printf("  (its x component is left out: the aimed trace takes a y field only)\n");
  print_table_header();
  for (const PupilPoint& p : kPupilPoints) print_aimed_ray(lens, a, field, p);
}

void print_aimed_inputs(const Lens& lens, const AimedSetup& a) {
  if (lens.config.ray_aiming == 0)
    std::printf("  aiming mode 1 (the lens has ray aiming off; aimed here all the same)\n");
  else
    std::printf("  aiming mode %d, as the lens says\n", a.config.ray_aiming);
  std::printf("  entrance pupil radius     %14.9f mm  nuvrix_compute_pupil_radius\n",
              a.pupil_radius);
  std::printf(
      "  entrance pupil position   %14.9f mm  from surface 1, nuvrix_entrance_pupil_position\n",
      a.pupil_position);
  std::printf(
      "  stop radius (paraxial)    %14.9f mm  marginal height at the stop, "
      "nuvrix_compute_stop_radius\n",
      a.stop_radius);
  std::printf(
      "  target on the stop: (px, py) * stop radius; miss: distance of the crossing from\n"
      "  it; stop and image points in the frame of that surface\n");
}

}  // namespace

void print_aimed_rays(const Lens& lens) {
  const AimedSetup a = aimed_setup(lens);
  char title[96];
  std::snprintf(title, sizeof title, "Aimed real rays at %.4f nm (stop radius paraxial)",
                a.wavelength_nm);
  print_heading(title);
  print_aimed_inputs(lens, a);
  for (size_t f = 0; f < lens.fields.size(); ++f) print_aimed_field(lens, a, static_cast<int>(f));
}

}  // namespace lensfile
