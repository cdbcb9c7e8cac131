// The OPD fan: optical path difference along the tangential and sagittal
// diameters of the pupil, wavelength by wavelength, against the reference
// sphere, or against a plane with tilt removed when the image is at infinity.
#include "analysis/opd_fan.hpp"

#include "analysis/launch_set.hpp"
#include "analysis/opd_reference.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {
namespace {

constexpr double kFanAxisSnap = 1e-10;  // |p| below this is the axis ray itself
constexpr double kFitDeterminant = 1e-30;

// What every ray of one wavelength's passes shares.
struct FanPass {
  SurfaceData const* surfaces;
  int surface_count;
  double const* indices;  // row of this wavelength
  SystemConfig const* config;
  LaunchSet launch;
  double wavelength;     // micrometres
  double wavelength_nm;  // handed to the trace, so that it fills phase_waves
  double n_img;          // index of image space at this wavelength
  double reference_radius;
  OpdReference ref;
  double chief_path;  // O + s + o of this wavelength's chief ray
  bool afocal;        // plane reference instead of the sphere
  int point_count;
  int wavelength_index;
};

// Figures shared by all passes of one call.
struct FanTotals {
  double max_abs;         // raised at each valid sample
  double fitted_max_abs;  // over the valid records once tilt is out (afocal)
  int tangential_count;
  int sagittal_count;
};

RayTraceResult trace_fan_ray(SurfaceData const* surfaces, int surface_count, double const* indices,
                             SystemConfig const* config, LaunchSet const& s, double px, double py,
                             double wavelength_nm, RayState* history) {
  return trace_full(surfaces, surface_count, indices, config, s.field_value, s.pupil_radius, px, py,
                    wavelength_nm, s.entrance_pupil_position, s.aim_flag, s.stop_radius, history);
}

// Fan sampling: p = 2 i / N - 1 with both ends, the axis snapped to 0.
double fan_coordinate(int i, int point_count) {
  double p = 2.0 * i / point_count - 1.0;
  if (fabs(p) < kFanAxisSnap) p = 0.0;
  return p;
}

// The record of the ray through (0, p) or (p, 0).
OpdFanPoint fan_sample(FanPass const& pass, double p, bool tangential, RayState* history) {
  OpdFanPoint rec = {p, 0.0, pass.wavelength_index, 0};
  RayTraceResult const ray =
      trace_fan_ray(pass.surfaces, pass.surface_count, pass.indices, pass.config, pass.launch,
                    tangential ? 0.0 : p, tangential ? p : 0.0, pass.wavelength_nm, history);
  if (!ray.valid) return rec;
  OpdVec3 const r = opd_surface1_hit(ray, history, OpdVec3{0.0, 0.0, 0.0});
  OpdTerms const t = pass.afocal ? opd_plane_terms(pass.ref, ray, r, pass.n_img, pass.wavelength)
                                 : opd_sphere_terms(pass.ref, ray, r, pass.n_img,
                                                    pass.reference_radius, pass.wavelength);
  rec.value = opd_value(ray.phase_waves, t, pass.chief_path);
  rec.valid = 1;
  return rec;
}

void raise_max(double v, double& max_abs) {
#pragma omp critical(nuvrix_opd_fan_max)
  {
    if (v > max_abs) max_abs = v;
  }
}

// One fan of one wavelength, a parallel region of its own: dynamic over the
// point_count + 1 samples with chunk 1, a history array per thread, each
// record written by its sample, the visit counted atomically.
void run_fan_pass(FanPass const& pass, bool tangential, OpdFanPoint* records, double& max_abs,
                  int& count) {
#pragma omp parallel
  {
    RayState history[kMaxSurfaces];
#pragma omp for schedule(dynamic, 1)
    for (int i = 0; i <= pass.point_count; ++i) {
      OpdFanPoint const rec =
          fan_sample(pass, fan_coordinate(i, pass.point_count), tangential, history);
      records[i] = rec;
      if (rec.valid) raise_max(fabs(rec.value), max_abs);
#pragma omp atomic
      count += 1;
    }
  }
}

// Takes the least-squares line of value against pupil coordinate off the
// valid records of one fan of one wavelength.
void remove_tilt(OpdFanPoint* records, int samples) {
  double n = 0.0, sx = 0.0, sy = 0.0, sxx = 0.0, sxy = 0.0;
  for (int i = 0; i < samples; ++i) {
    if (!records[i].valid) continue;
    double const p = records[i].pupil_coordinate, v = records[i].value;
    n += 1.0;
    sx += p;
    sy += v;
    sxx += p * p;
    sxy += p * v;
  }
  double const det = n * sxx - sx * sx;
  if (!(n > 1.0 && fabs(det) > kFitDeterminant)) return;
  double const slope = (n * sxy - sx * sy) / det;
  double const intercept = (sy * sxx - sx * sxy) / det;
  for (int i = 0; i < samples; ++i) {
    if (records[i].valid) records[i].value -= slope * records[i].pupil_coordinate + intercept;
  }
}

double max_abs_valid(OpdFanPoint const* records, int samples, double start) {
  double m = start;
  for (int i = 0; i < samples; ++i) {
    if (records[i].valid && fabs(records[i].value) > m) m = fabs(records[i].value);
  }
  return m;
}

// Everything of one call that does not change with the wavelength.
struct FanSetup {
  SurfaceData const* surfaces;
  int surface_count;
  double const* indices;
  double const* wavelengths;
  SystemConfig const* config;
  LaunchSet launch;
  OpdReference ref;
  int point_count;
  double reference_radius;
};

// The chief ray of wavelength w sets the phase zero of its passes.  Under
// an afocal image its own plane term is taken as 0.  False when it fails.
bool wavelength_pass(FanSetup const& c, int w, RayState* history, FanPass& pass) {
  double const* row = c.indices + static_cast<long>(w) * c.surface_count;
  double const wavelength = c.wavelengths[w];
  double const wavelength_nm = 1000.0 * wavelength;
  RayTraceResult const chief = trace_fan_ray(c.surfaces, c.surface_count, row, c.config, c.launch,
                                             0.0, 0.0, wavelength_nm, history);
  if (!chief.valid) return false;
  double const n_img = row[c.surface_count - 1];
  bool const afocal = c.config->afocal_image != 0;
  OpdVec3 const r = opd_surface1_hit(chief, history, c.ref.r_ref);
  OpdTerms const t = afocal
                         ? opd_plane_chief_terms(c.ref, r, wavelength)
                         : opd_sphere_terms(c.ref, chief, r, n_img, c.reference_radius, wavelength);
  double const chief_path = opd_chief_path(chief.phase_waves, t);
  pass = {c.surfaces, c.surface_count,    row,   c.config,   c.launch, wavelength,    wavelength_nm,
          n_img,      c.reference_radius, c.ref, chief_path, afocal,   c.point_count, w};
  return true;
}

// Both fans of wavelength w, tangential then sagittal; a wavelength whose
// chief ray fails leaves its records untouched and uncounted.
void run_wavelength(FanSetup const& c, int w, OpdFanPoint* tangential, OpdFanPoint* sagittal,
                    FanTotals& totals) {
  RayState history[kMaxSurfaces];
  FanPass pass;
  if (!wavelength_pass(c, w, history, pass)) return;
  int const samples = c.point_count + 1;
  long const base = static_cast<long>(samples) * w;
  run_fan_pass(pass, true, tangential + base, totals.max_abs, totals.tangential_count);
  run_fan_pass(pass, false, sagittal + base, totals.max_abs, totals.sagittal_count);
  if (!pass.afocal) return;
  remove_tilt(tangential + base, samples);
  remove_tilt(sagittal + base, samples);
  totals.fitted_max_abs = max_abs_valid(tangential + base, samples, totals.fitted_max_abs);
  totals.fitted_max_abs = max_abs_valid(sagittal + base, samples, totals.fitted_max_abs);
}

void write_header(int field_index, double max_abs, int tangential_count, int sagittal_count,
                  OpdFanResultHeader* header) {
  header->field_index = field_index;
  header->max_abs_value = max_abs;
  header->tangential_count = tangential_count;
  header->sagittal_count = sagittal_count;
}

}  // namespace

int compute_opd_fan(SurfaceData const* surfaces, int surface_count, double const* indices,
                    double const* wavelengths, int wavelength_count, SystemConfig const* config,
                    FieldData const* fields, int field_count, int field_index, int point_count,
                    double reference_radius, OpdFanPoint* tangential, OpdFanPoint* sagittal,
                    OpdFanResultHeader* header) {
  if (field_index < 0 || field_index >= field_count) return -1;
  // Without a wavelength there is no row to trace: an empty fan.
  if (wavelength_count < 1) {
    write_header(field_index, 0.0, 0, 0, header);
    return 0;
  }
  int const primary =
      config->primary_wavelength >= 0 && config->primary_wavelength < wavelength_count
          ? config->primary_wavelength
          : 0;
  double const* primary_row = primary_index_row(indices, surface_count, wavelength_count, *config);
  FanSetup c = {surfaces,    surface_count,  indices,     wavelengths,     config,
                LaunchSet{}, OpdReference{}, point_count, reference_radius};
  c.launch = compute_launch_set(surfaces, surface_count, primary_row, *config, fields, field_index);

  // The primary chief ray fixes the reference point and the incoming wavefront.
  RayState history[kMaxSurfaces];
  RayTraceResult const chief = trace_fan_ray(surfaces, surface_count, primary_row, config, c.launch,
                                             0.0, 0.0, 1000.0 * wavelengths[primary], history);
  if (!chief.valid) return -2;
  c.ref = opd_reference(surfaces, chief, history);

  FanTotals totals = {0.0, 0.0, 0, 0};
  for (int w = 0; w < wavelength_count; ++w) run_wavelength(c, w, tangential, sagittal, totals);
  // Under an afocal image the maximum is that of the tilt-free records.
  double const max_abs = config->afocal_image != 0 ? totals.fitted_max_abs : totals.max_abs;
  write_header(field_index, max_abs, totals.tangential_count, totals.sagittal_count, header);
  return 0;
}

}  // namespace nuvrix
