// The exported C frames.  Each is a thin forward to the engine function of
// its family, filling only the arguments that the exported form fixes.
#include "analysis/ray_fans.hpp"
#include "analysis/spot_diagram.hpp"
#include "api/nuvrix.h"
#include "analysis/opd_fan.hpp"
#include "analysis/fft_mtf.hpp"
#include "analysis/encircled_energy.hpp"
#include "analysis/fft_psf.hpp"
#include "analysis/geometric_mtf.hpp"
#include "analysis/wavefront_map.hpp"
#include "analysis/zernike.hpp"
#include "analysis/field_analyses.hpp"
#include "first_order/paraxial.hpp"
#include "first_order/paraxial_solve.hpp"
#include "first_order/chromatic_focal_shift.hpp"
#include "first_order/seidel.hpp"
#include "first_order/semi_diameter.hpp"
#include "merit/batched_eval.hpp"
#include "merit/merit_eval.hpp"
#include "merit/merit_function.hpp"
#include "merit/merit_jacobian.hpp"
#include "gpu/cuda_loader.hpp"
#include "gpu/gpu_de.hpp"
#include "gpu/gpu_merit_value.hpp"
#include "trace/front_ends.hpp"
#include "trace/trace_core.hpp"

namespace {

constexpr char kVersion[] = "0.1.0";

// The exported trace, with the whole core inlined into a copy of its own in
// which the history and aperture arguments are constants.  The call from
// the frame then neither goes through the exported (interposable) symbol of
// the inline core nor tests the history on every surface.
__attribute__((flatten)) RayTraceResult trace_no_history(SurfaceData const* surfaces,
                                                         int surface_count, double const* indices,
                                                         int start_surface, int last_surface,
                                                         double x, double y, double l, double m,
                                                         double n, double wavelength) {
  return nuvrix::detail::rt_trace_impl(surfaces, surface_count, indices, x, y, l, m, n, nullptr,
                                       start_surface, last_surface, wavelength, 0, false);
}

}  // namespace

extern "C" {

const char* nuvrix_version(void) { return kVersion; }

void nuvrix_merit_abi_info(int32_t* out) {
  if (out == nullptr) return;
  out[0] = 12;
  out[1] = 104;
  out[2] = 14;
  out[3] = 9;
  out[4] = static_cast<int32_t>(sizeof(MeritOperandDesc));
  out[5] = static_cast<int32_t>(sizeof(MeritVariableDesc));
  out[6] = static_cast<int32_t>(sizeof(SurfaceData));
  out[7] = static_cast<int32_t>(sizeof(SystemConfig));
  out[8] = static_cast<int32_t>(sizeof(FieldData));
  out[9] = static_cast<int32_t>(sizeof(MeritResult));
  out[10] = static_cast<int32_t>(sizeof(MeritPickupDesc));
  out[11] = static_cast<int32_t>(sizeof(MeritBatchedConfig));
}

RayTraceResult nuvrix_trace_ray(const SurfaceData* surfaces, int32_t surface_count,
                                const double* indices, int32_t start_surface,
                                int32_t last_surface, double x, double y, double l, double m,
                                double n, double wavelength) {
  return trace_no_history(surfaces, surface_count, indices, start_surface, last_surface, x, y, l,
                          m, n, wavelength);
}

int32_t nuvrix_trace_rays(const SurfaceData* surfaces, int32_t surface_count,
                          const double* indices, int32_t start_surface, int32_t last_surface,
                          const double* launches, int32_t count, double wavelength,
                          RayTraceResult* results) {
  if (count < 1) return 0;
  if (surfaces == nullptr || indices == nullptr || launches == nullptr || results == nullptr) {
    return -1;
  }
#pragma omp parallel for schedule(static)
  for (int32_t k = 0; k < count; ++k) {
    double const* u = launches + 5L * k;
    results[k] = trace_no_history(surfaces, surface_count, indices, start_surface, last_surface,
                                  u[0], u[1], u[2], u[3], u[4], wavelength);
  }
  return 0;
}

RayTraceResult nuvrix_trace_ray_full(const SurfaceData* surfaces, int32_t surface_count,
                                     const double* indices, RayState* states,
                                     int32_t start_surface, int32_t last_surface, double x,
                                     double y, double l, double m, double n, double wavelength) {
  return nuvrix::detail::rt_trace_impl(surfaces, surface_count, indices, x, y, l, m, n, states,
                                       start_surface, last_surface, wavelength,
                                       nuvrix::detail::kExportedHistory, false);
}

double nuvrix_focal_length(const SurfaceData* surfaces, int32_t n, const double* indices) {
  return nuvrix::focal_length(surfaces, n, indices);
}

double nuvrix_calculate_efl(const SurfaceData* surfaces, int32_t n, const double* indices) {
  return nuvrix::calculate_efl(surfaces, n, indices);
}

double nuvrix_calculate_bfl(const SurfaceData* surfaces, int32_t n, const double* indices) {
  return nuvrix::calculate_bfl(surfaces, n, indices);
}

ParaxialSolveResult nuvrix_paraxial_solve(const SurfaceData* surfaces, int32_t n,
                                          const double* indices, const SystemConfig* config,
                                          const FieldData* fields, int32_t field_count,
                                          ParaxialRayState* marginal_rows,
                                          ParaxialRayState* chief_rows) {
  return nuvrix::paraxial_solve(surfaces, n, indices, config, fields, field_count, marginal_rows,
                                chief_rows);
}

double nuvrix_entrance_pupil_position(const SurfaceData* surfaces, int32_t n,
                                      const double* indices, int32_t stop_surface) {
  return nuvrix::compute_entrance_pupil_position(surfaces, n, indices, stop_surface);
}

double nuvrix_compute_exit_pupil_position(const SurfaceData* surfaces, int32_t n,
                                          const double* indices, const SystemConfig* config,
                                          const FieldData* fields, int32_t field_count) {
  return nuvrix::compute_exit_pupil_position(surfaces, n, indices, config, fields, field_count);
}

int32_t nuvrix_compute_seidel(const SurfaceData* surfaces, int32_t n, const double* indices,
                              const double* indices_short, const double* indices_long,
                              const SystemConfig* config, const FieldData* fields,
                              int32_t field_count, SeidelSurfaceCoeffs* coefficients,
                              int32_t capacity, SeidelResult* result) {
  return nuvrix::compute_seidel_coefficients(surfaces, n, indices, indices_short, indices_long,
                                             config, fields, field_count, coefficients, capacity,
                                             result);
}

int32_t nuvrix_compute_chromatic_focal_shift(const SurfaceData* surfaces, int32_t n,
                                             const double* reference_indices,
                                             const double* wavelengths, const double* index_table,
                                             int32_t count, ChromaticShiftPoint* points,
                                             ChromaticFocalShiftResult* result) {
  return nuvrix::compute_chromatic_focal_shift(surfaces, n, reference_indices, wavelengths,
                                               index_table, count, points, result);
}

AimToStopResult nuvrix_aim_to_stop(const SurfaceData* surfaces, int32_t n, const double* indices,
                                   int32_t stop_surface, double x, double y, double l, double m,
                                   double n_dir, double px, double py, double stop_radius) {
  return nuvrix::aim_to_stop(surfaces, n, indices, x, y, l, m, n_dir, px, py, stop_radius,
                             stop_surface, 0);
}

RayTraceResult nuvrix_trace_arbitrary_ray(const SurfaceData* surfaces, int32_t surface_count,
                                          const double* indices, const SystemConfig* config,
                                          int32_t aim_flag, int32_t last_surface,
                                          double field_value, double pupil_radius, double px,
                                          double py, double wavelength,
                                          double entrance_pupil_position, double stop_radius) {
  return nuvrix::trace_arbitrary_ray(surfaces, surface_count, indices, config, field_value,
                                     pupil_radius, px, py, wavelength, entrance_pupil_position,
                                     aim_flag, stop_radius, last_surface, 0.0);
}

void nuvrix_solve_semi_diameters(SurfaceData* surfaces, int32_t n, const double* indices,
                                 const double* wavelengths, int32_t wavelength_count,
                                 const SystemConfig* config, const FieldData* fields,
                                 int32_t field_count) {
  nuvrix::solve_semi_diameters(surfaces, n, indices, wavelengths, wavelength_count, config,
                               fields, field_count);
}

double nuvrix_compute_pupil_radius(const SurfaceData* surfaces, int32_t n, const double* indices,
                                   const SystemConfig* config) {
  return nuvrix::compute_pupil_radius(surfaces, n, indices, config);
}

double nuvrix_compute_stop_radius(const SurfaceData* surfaces, int32_t n, const double* indices,
                                  const SystemConfig* config) {
  return nuvrix::compute_stop_radius(surfaces, n, indices, config);
}

// Spot diagrams and ray fans.

int32_t nuvrix_compute_spot_diagram(const SurfaceData* surfaces, int32_t surface_count,
                                    const double* indices, const double* weights,
                                    int32_t wavelength_count, const SystemConfig* config,
                                    const FieldData* fields, int32_t field_count,
                                    int32_t field_index, int32_t grid_size, int32_t pattern,
                                    SpotDiagramResult* result) {
  return nuvrix::compute_spot_diagram(surfaces, surface_count, indices, weights, wavelength_count,
                                      config, fields, field_count, field_index, grid_size, pattern,
                                      result);
}

int32_t nuvrix_compute_spot_diagram_with_rays(const SurfaceData* surfaces, int32_t surface_count,
                                              const double* indices, const double* weights,
                                              int32_t wavelength_count,
                                              const SystemConfig* config,
                                              const FieldData* fields, int32_t field_count,
                                              int32_t field_index, int32_t grid_size,
                                              int32_t pattern, SpotRayHit* hits,
                                              int32_t hit_capacity, SpotDiagramResult* result) {
  return nuvrix::compute_spot_diagram_with_rays(surfaces, surface_count, indices, weights,
                                                wavelength_count, config, fields, field_count,
                                                field_index, grid_size, pattern, hits,
                                                hit_capacity, result);
}

int32_t nuvrix_compute_transverse_ray_fan(const SurfaceData* surfaces, int32_t surface_count,
                                          const double* indices, int32_t wavelength_count,
                                          const SystemConfig* config, const FieldData* fields,
                                          int32_t field_count, int32_t field_index,
                                          int32_t point_count, RayFanPoint* tangential,
                                          RayFanPoint* sagittal, RayFanResultHeader* header) {
  return nuvrix::compute_transverse_ray_fan(surfaces, surface_count, indices, wavelength_count,
                                            config, fields, field_count, field_index,
                                            point_count, tangential, sagittal, header);
}

int32_t nuvrix_compute_pupil_aberration_fan(const SurfaceData* surfaces, int32_t surface_count,
                                            const double* indices, int32_t wavelength_count,
                                            const SystemConfig* config, const FieldData* fields,
                                            int32_t field_count, int32_t field_index,
                                            int32_t point_count, PupilAberrationPoint* tangential,
                                            PupilAberrationPoint* sagittal,
                                            PupilAberrationResultHeader* header) {
  return nuvrix::compute_pupil_aberration_fan(surfaces, surface_count, indices, wavelength_count,
                                              config, fields, field_count, field_index,
                                              point_count, tangential, sagittal, header);
}

// OPD fan and wavefront map.

int32_t nuvrix_compute_opd_fan(const SurfaceData* surfaces, int32_t surface_count,
                               const double* indices, const double* wavelengths,
                               int32_t wavelength_count, const SystemConfig* config,
                               const FieldData* fields, int32_t field_count,
                               int32_t field_index, int32_t point_count,
                               double reference_radius, OpdFanPoint* tangential,
                               OpdFanPoint* sagittal, OpdFanResultHeader* header) {
  return nuvrix::compute_opd_fan(surfaces, surface_count, indices, wavelengths, wavelength_count,
                                 config, fields, field_count, field_index, point_count,
                                 reference_radius, tangential, sagittal, header);
}

int32_t nuvrix_compute_wavefront_map(const SurfaceData* surfaces, int32_t surface_count,
                                     const double* wave_indices, const double* primary_indices,
                                     double wavelength, const SystemConfig* config,
                                     const FieldData* fields, int32_t field_count,
                                     int32_t field_index, int32_t grid_size,
                                     double reference_radius, double* map, int32_t* mask,
                                     WavefrontResult* result) {
  return nuvrix::compute_wavefront_map(surfaces, surface_count, wave_indices, primary_indices,
                                       wavelength, config, fields, field_count, field_index,
                                       grid_size, reference_radius, map, mask, result);
}

// FFT, PSF and FFT MTF.

int32_t nuvrix_compute_fft_psf(const SurfaceData* surfaces, int32_t surface_count,
                               const double* indices, const double* primary_indices,
                               double wavelength, const SystemConfig* config,
                               const FieldData* fields, int32_t field_count,
                               int32_t field_index, int32_t grid_size, double reference_radius,
                               double f_number, double* map, int32_t* mask, double* real,
                               double* imag, double* psf, FftPsfResult* result) {
  return nuvrix::compute_fft_psf_full(surfaces, surface_count, indices, primary_indices,
                                      wavelength, config, fields, field_count, field_index,
                                      grid_size, reference_radius, f_number, map, mask, real,
                                      imag, psf, result);
}

int32_t nuvrix_compute_fft_mtf(const SurfaceData* surfaces, int32_t surface_count,
                               const double* indices, const double* primary_indices,
                               double wavelength, const SystemConfig* config,
                               const FieldData* fields, int32_t field_count,
                               int32_t field_index, int32_t grid_size, double reference_radius,
                               double tangential_cutoff, double sagittal_cutoff,
                               double frequency_step, double* map, int32_t* mask, double* real,
                               double* imag, FftMtfPoint* points, int32_t capacity,
                               FftMtfResult* result) {
  return nuvrix::compute_fft_mtf(surfaces, surface_count, indices, primary_indices, wavelength,
                                 config, fields, field_count, field_index, grid_size,
                                 reference_radius, tangential_cutoff, sagittal_cutoff,
                                 frequency_step, map, mask, real, imag, points, capacity, result);
}

int32_t nuvrix_compute_fft_mtf_polychromatic(
    const SurfaceData* surfaces, int32_t surface_count, const double* indices,
    const double* primary_indices, const double* wavelengths, int32_t wavelength_count,
    const double* weights, const SystemConfig* config, const FieldData* fields,
    int32_t field_count, int32_t field_index, int32_t grid_size, double reference_radius,
    double tangential_cutoff, double sagittal_cutoff, double f_number, double frequency_step,
    double* maps, int32_t* masks, double* real, double* imag, double* accum_real,
    double* accum_imag, FftMtfPoint* points, int32_t capacity, FftMtfResult* result) {
  return nuvrix::compute_fft_mtf_polychromatic(
      surfaces, surface_count, indices, primary_indices, wavelengths, wavelength_count, weights,
      config, fields, field_count, field_index, grid_size, reference_radius, tangential_cutoff,
      sagittal_cutoff, f_number, frequency_step, maps, masks, real, imag, accum_real, accum_imag,
      points, capacity, result);
}

int32_t nuvrix_compute_fft_mtf_vs_field(
    const SurfaceData* surfaces, int32_t surface_count, const double* indices,
    const double* primary_indices, double wavelength, const SystemConfig* config,
    const FieldData* fields, int32_t unused_count, int32_t grid_size, double reference_radius,
    const double* frequencies, int32_t frequency_count, const double* field_fractions,
    int32_t field_count, double field_scale, double* map, int32_t* mask, double* real,
    double* imag, MtfVsFieldPoint* points, MtfVsFieldResult* result) {
  return nuvrix::compute_fft_mtf_vs_field(surfaces, surface_count, indices, primary_indices,
                                          wavelength, config, fields, unused_count, grid_size,
                                          reference_radius, frequencies, frequency_count,
                                          field_fractions, field_count, field_scale, map, mask,
                                          real, imag, points, result);
}
// Geometric MTF, encircled energy, line and edge spread.

int32_t nuvrix_compute_geometric_mtf(const SurfaceData* surfaces, int32_t surface_count,
                                     const double* indices, const SystemConfig* config,
                                     const FieldData* fields, int32_t field_count,
                                     int32_t field_index, int32_t wavelength_index,
                                     int32_t samples, int32_t apply_diffraction,
                                     double tangential_cutoff, double sagittal_cutoff,
                                     double* real, double* imag, int32_t grid_size,
                                     GeometricMtfPoint* points, int32_t capacity,
                                     GeometricMtfResult* result) {
  return nuvrix::compute_geometric_mtf(surfaces, surface_count, indices, config, fields,
                                       field_count, field_index, wavelength_index, samples,
                                       apply_diffraction, tangential_cutoff, sagittal_cutoff, real,
                                       imag, grid_size, points, capacity, result);
}

int32_t nuvrix_compute_geometric_mtf_polychromatic(
    const SurfaceData* surfaces, int32_t surface_count, const double* indices,
    const double* wavelengths, const double* weights, int32_t wavelength_count,
    const SystemConfig* config, const FieldData* fields, int32_t field_count,
    int32_t field_index, int32_t samples, int32_t apply_diffraction, double tangential_cutoff,
    double sagittal_cutoff, double* real, double* imag, int32_t grid_size,
    GeometricMtfPoint* points, int32_t capacity, GeometricMtfResult* result) {
  return nuvrix::compute_geometric_mtf_polychromatic(
      surfaces, surface_count, indices, wavelengths, weights, wavelength_count, config, fields,
      field_count, field_index, samples, apply_diffraction, tangential_cutoff, sagittal_cutoff,
      real, imag, grid_size, points, capacity, result);
}

int32_t nuvrix_compute_geometric_mtf_vs_field(
    const SurfaceData* surfaces, int32_t surface_count, const double* indices,
    const SystemConfig* config, const FieldData* fields, int32_t unused_count,
    int32_t wavelength_index, int32_t samples, int32_t apply_diffraction,
    const double* frequencies, int32_t frequency_count, const double* field_fractions,
    int32_t field_count, double field_scale, double* real, double* imag, int32_t grid_size,
    MtfVsFieldPoint* points, MtfVsFieldResult* result) {
  return nuvrix::compute_geometric_mtf_vs_field(
      surfaces, surface_count, indices, config, fields, unused_count, wavelength_index, samples,
      apply_diffraction, frequencies, frequency_count, field_fractions, field_count, field_scale,
      real, imag, grid_size, points, result);
}

int32_t nuvrix_compute_diffraction_encircled_energy(const double* psf, int32_t grid_size,
                                                    double pixel_pitch, double max_radius,
                                                    int32_t point_count,
                                                    EncircledEnergyPoint* points,
                                                    EncircledEnergyResultHeader* header) {
  return nuvrix::compute_diffraction_encircled_energy(psf, grid_size, pixel_pitch, max_radius,
                                                      point_count, points, header);
}

int32_t nuvrix_compute_geometric_encircled_energy(const SpotRayHit* hits, int32_t hit_count,
                                                  double center_x, double center_y,
                                                  double max_radius, int32_t point_count,
                                                  EncircledEnergyPoint* points,
                                                  EncircledEnergyResultHeader* header) {
  return nuvrix::compute_geometric_encircled_energy(hits, hit_count, center_x, center_y,
                                                    max_radius, point_count, points, header);
}

int32_t nuvrix_compute_geometric_line_edge_spread(const SpotRayHit* hits, int32_t hit_count,
                                                  double center_x, double center_y,
                                                  double half_width, int32_t point_count,
                                                  LineEdgeSpreadPoint* x_points,
                                                  LineEdgeSpreadPoint* y_points,
                                                  LineEdgeSpreadResultHeader* header) {
  return nuvrix::compute_geometric_line_edge_spread(hits, hit_count, center_x, center_y,
                                                    half_width, point_count, x_points, y_points,
                                                    header);
}

// Zernike decomposition.

int32_t nuvrix_compute_zernike_standard(const SurfaceData* surfaces, int32_t surface_count,
                                        const double* indices, const double* primary_indices,
                                        double wavelength, const SystemConfig* config,
                                        const FieldData* fields, int32_t field_count,
                                        int32_t field_index, int32_t grid_size,
                                        double reference_radius, int32_t term_count,
                                        double* map, int32_t* mask, ZernikeResult* result) {
  return nuvrix::compute_zernike_standard_full(surfaces, surface_count, indices, primary_indices,
                                               wavelength, config, fields, field_count,
                                               field_index, grid_size, reference_radius,
                                               term_count, map, mask, result);
}

// Field analyses.

int32_t nuvrix_compute_lateral_color(const SurfaceData* surfaces, int32_t surface_count,
                                     const double* indices, int32_t wavelength_count,
                                     const SystemConfig* config, const FieldData* fields,
                                     int32_t field_count, int32_t sample_count, double max_field,
                                     LateralColorPoint* points, int32_t capacity,
                                     LateralColorResult* result) {
  return nuvrix::compute_lateral_color(surfaces, surface_count, indices, wavelength_count, config,
                                       fields, field_count, sample_count, max_field, points,
                                       capacity, result);
}

int32_t nuvrix_compute_field_curvature_distortion(const SurfaceData* surfaces,
                                                  int32_t surface_count, const double* indices,
                                                  const SystemConfig* config,
                                                  const FieldData* fields, int32_t field_count,
                                                  int32_t point_count, double max_field,
                                                  FieldCurvatureDistortionPoint* points,
                                                  FieldCurvatureDistortionResult* result) {
  return nuvrix::compute_field_curvature_distortion(surfaces, surface_count, indices, config,
                                                    fields, field_count, point_count, max_field,
                                                    points, result);
}

int32_t nuvrix_compute_relative_illumination(const SurfaceData* surfaces, int32_t surface_count,
                                             const double* indices, const SystemConfig* config,
                                             int32_t point_count, double max_field,
                                             int32_t unused_count,
                                             RelativeIlluminationPoint* points,
                                             RelativeIlluminationResult* result) {
  return nuvrix::compute_relative_illumination(surfaces, surface_count, indices, config,
                                               point_count, max_field, unused_count, points,
                                               result);
}

}  // extern "C"

// Merit function ------------------------------------------------------------

int32_t nuvrix_evaluate_merit(const SurfaceData* surfaces, int32_t n, const double* index_table,
                              const double* wavelengths, int32_t wave_count,
                              const SystemConfig* config, const FieldData* fields,
                              int32_t field_count, const MeritOperandDesc* operands,
                              int32_t operand_count, MeritResult* results, double* residuals,
                              int32_t* residual_count, double* merit) {
  return nuvrix::evaluate_merit(surfaces, n, index_table, wavelengths, wave_count, config, fields,
                                field_count, operands, operand_count, results, residuals,
                                residual_count, merit, false, nullptr);
}

long nuvrix_batched_scratch_size(int32_t candidate_count, int32_t n, int32_t field_count,
                                 int32_t operand_count, int32_t variable_count, int32_t unused_a,
                                 int32_t unused_b) {
  return nuvrix::batched_scratch_size(candidate_count, n, field_count, operand_count,
                                      variable_count, unused_a, unused_b);
}

int32_t nuvrix_evaluate_merit_batched(
    const SurfaceData* surfaces, int32_t n, const double* index_table, const double* wavelengths,
    int32_t wave_count, const SystemConfig* config, const FieldData* fields, int32_t field_count,
    const MeritOperandDesc* operands, int32_t operand_count, const MeritVariableDesc* variables,
    int32_t variable_count, const MeritPickupDesc* pickups, int32_t pickup_count,
    int32_t candidate_count, const double* candidate_x, double* residuals, double* jacobians,
    MeritResult* results, double* merits, int32_t* residual_count, MeritBatchedConfig batch,
    void* scratch, long scratch_size, double* sd_scratch, int32_t* sd_rows,
    double* sd_scratch_a, double* sd_scratch_b, double* sd_scratch_c) {
  return nuvrix::evaluate_merit_batched(
      surfaces, n, index_table, wavelengths, wave_count, config, fields, field_count, operands,
      operand_count, variables, variable_count, pickups, pickup_count, candidate_count,
      candidate_x, residuals, jacobians, results, merits, residual_count, batch, scratch,
      scratch_size, sd_scratch, sd_rows, sd_scratch_a, sd_scratch_b, sd_scratch_c);
}

int32_t nuvrix_evaluate_merit_and_jacobian(
    const SurfaceData* surfaces, int32_t n, const double* index_table, const double* wavelengths,
    int32_t wave_count, const SystemConfig* config, const FieldData* fields, int32_t field_count,
    const MeritOperandDesc* operands, int32_t operand_count, const MeritVariableDesc* variables,
    int32_t variable_count, const MeritPickupDesc* pickups, int32_t pickup_count,
    int32_t jacobian_mode, int32_t parallel, int32_t thread_count, MeritResult* results,
    double* residuals, SurfaceData* work_surfaces, FieldData* work_fields,
    MeritResult* thread_results, double* thread_residuals, double* jacobian,
    int32_t* residual_count, double* merit, double* sd_scratch, int32_t* sd_rows,
    double* sd_scratch_a, double* sd_scratch_b, double* sd_scratch_c) {
  return nuvrix::evaluate_merit_and_jacobian(
      surfaces, n, index_table, wavelengths, wave_count, config, fields, field_count, operands,
      operand_count, variables, variable_count, pickups, pickup_count, jacobian_mode, parallel,
      thread_count, results, residuals, work_surfaces, work_fields, thread_results,
      thread_residuals, jacobian, residual_count, merit, sd_scratch, sd_rows, sd_scratch_a,
      sd_scratch_b, sd_scratch_c);
}

int32_t nuvrix_evaluate_merit_operands(const SurfaceData* surfaces, int32_t n,
                                       const double* index_table, const double* wavelengths,
                                       int32_t wave_count, const SystemConfig* config,
                                       const FieldData* fields, int32_t field_count,
                                       const MeritOperand* operands, int32_t operand_count,
                                       MeritResult* results) {
  return nuvrix::evaluate_merit_operands(surfaces, n, index_table, wavelengths, wave_count, config,
                                         fields, field_count, operands, operand_count, results);
}

int32_t nuvrix_evaluate_merit_operands_full(const SurfaceData* surfaces, int32_t n,
                                            const double* index_table, const double* wavelengths,
                                            int32_t wave_count, const SystemConfig* config,
                                            const FieldData* fields, int32_t field_count,
                                            const MeritOperand* operands, int32_t operand_count,
                                            MeritResult* results) {
  return nuvrix::evaluate_merit_operands_full(surfaces, n, index_table, wavelengths, wave_count,
                                              config, fields, field_count, operands,
                                              operand_count, results);
}

// GPU ------------------------------------------------------------------------

int32_t nuvrix_gpu_init(void) { return nuvrix::gpu::cuda_init(); }

GpuQueryResult nuvrix_gpu_query(void) {
  nuvrix::gpu::CudaCapabilities caps;
  GpuQueryResult r = {};
  if (nuvrix::gpu::cuda_query_capabilities(&caps) != 0) return r;
  r.available = 1;
  r.multiprocessor_count = caps.multiprocessor_count;
  r.max_threads_per_multiprocessor = caps.max_threads_per_multiprocessor;
  r.max_threads_per_block = caps.max_threads_per_block;
  r.warp_size = caps.warp_size;
  r.compute_major = caps.compute_major;
  r.compute_minor = caps.compute_minor;
  return r;
}

int32_t nuvrix_gpu_last_cuda_error(void) { return nuvrix::gpu::cuda_last_error(); }

int32_t nuvrix_gpu_alloc_device(long bytes, void** out) {
  return nuvrix::gpu::cuda_alloc_device(bytes, out);
}

int32_t nuvrix_gpu_free_device(void* device_ptr) {
  return nuvrix::gpu::cuda_free_device(device_ptr);
}

int32_t nuvrix_gpu_htod_device(void* device_dst, const void* host_src, long bytes) {
  return nuvrix::gpu::cuda_htod_device(device_dst, host_src, bytes);
}

int32_t nuvrix_gpu_dtoh_device(void* host_dst, const void* device_src, long bytes) {
  return nuvrix::gpu::cuda_dtoh_device(host_dst, device_src, bytes);
}

long nuvrix_gpu_glass_catalog_bytes(int32_t rows, int32_t columns) {
  return nuvrix::gpu::cuda_glass_catalog_bytes(rows, columns);
}

long nuvrix_gpu_merit_value_scratch_size(int32_t population, int32_t n, int32_t wave_count,
                                         int32_t field_count, int32_t operand_count) {
  return nuvrix::gpu::cuda_merit_value_scratch_size(population, n, wave_count, field_count,
                                                    operand_count);
}

long nuvrix_gpu_trace_grid_scratch_size(int32_t n, int32_t wave_count, int32_t field_count,
                                        int32_t ray_count) {
  return nuvrix::gpu::cuda_trace_grid_scratch_size(n, wave_count, field_count, ray_count);
}

long nuvrix_gpu_de_scratch_size(int32_t P, int32_t n, int32_t W, int32_t F, int32_t O) {
  return nuvrix::gpu::cuda_de_scratch_size(P, n, W, F, O);
}

int32_t nuvrix_gpu_run_de_eval_pop(const double* population_a, const double* population_b,
                                   const double* population_c,
                                   const int32_t* population_materials,
                                   double* population_merit, const SurfaceData* surfaces,
                                   const double* glass_catalog, const double* wavelengths,
                                   const SystemConfig* config, const FieldData* fields,
                                   const MeritOperandDesc* operands, void* scratch,
                                   long scratch_bytes, int32_t P, int32_t n, int32_t W,
                                   int32_t F, int32_t O) {
  return nuvrix::gpu::cuda_run_de_eval_pop(population_a, population_b, population_c,
                                           population_materials, population_merit, surfaces,
                                           glass_catalog, wavelengths, config, fields, operands,
                                           scratch, scratch_bytes, P, n, W, F, O);
}

int32_t nuvrix_gpu_run_de_generation(
    double* population_a, double* population_b, double* population_c,
    int32_t* population_materials, double* population_merit, double* trial_a, double* trial_b,
    double* trial_c, int32_t* trial_materials, double* trial_merit, const double* vary_table,
    int32_t vary_count, const int32_t* vary_table_b, const int32_t* vary_table_c,
    const int32_t* vary_table_d, int32_t vary_count_b, const SurfaceData* surfaces,
    const double* glass_catalog, const double* wavelengths, const SystemConfig* config,
    const FieldData* fields, const MeritOperandDesc* operands, void* scratch,
    long scratch_bytes, int32_t P, int32_t n, int32_t W, int32_t F, int32_t O,
    int32_t vary_int_a, int32_t vary_int_b, int32_t vary_int_c, double vary_real_a,
    double vary_real_b, double vary_real_c, int32_t vary_int_d, int32_t vary_int_e,
    DeConditionDesc condition) {
  return nuvrix::gpu::cuda_run_de_generation(
      population_a, population_b, population_c, population_materials, population_merit, trial_a,
      trial_b, trial_c, trial_materials, trial_merit, vary_table, vary_count, vary_table_b,
      vary_table_c, vary_table_d, vary_count_b, surfaces, glass_catalog, wavelengths, config,
      fields, operands, scratch, scratch_bytes, P, n, W, F, O, vary_int_a, vary_int_b,
      vary_int_c, vary_real_a, vary_real_b, vary_real_c, vary_int_d, vary_int_e, condition);
}

int32_t nuvrix_gpu_run_merit_value(const SurfaceData* surfaces, int32_t n,
                                   const double* glass_catalog, int32_t catalog_rows,
                                   int32_t wave_count, const int32_t* material_ids,
                                   const double* wavelengths, const SystemConfig* config,
                                   const FieldData* fields, int32_t field_count,
                                   const MeritOperandDesc* operands, int32_t operand_count,
                                   const double* curvatures, const double* thicknesses,
                                   const double* conics, double* merit_values,
                                   int32_t population, void* scratch, long scratch_bytes,
                                   int32_t reuse_uploads) {
  return nuvrix::gpu::cuda_run_merit_value(
      surfaces, n, glass_catalog, catalog_rows, wave_count, material_ids, wavelengths, config,
      fields, field_count, operands, operand_count, curvatures, thicknesses, conics,
      merit_values, population, scratch, scratch_bytes, nullptr, reuse_uploads, 0, 0);
}

int32_t nuvrix_gpu_run_merit_value_f32(const SurfaceData* surfaces, int32_t n,
                                       const double* glass_catalog, int32_t catalog_rows,
                                       int32_t wave_count, const int32_t* material_ids,
                                       const double* wavelengths, const SystemConfig* config,
                                       const FieldData* fields, int32_t field_count,
                                       const MeritOperandDesc* operands, int32_t operand_count,
                                       const double* curvatures, const double* thicknesses,
                                       const double* conics, double* merit_values,
                                       int32_t population, void* scratch, long scratch_bytes,
                                       int32_t reuse_uploads) {
  return nuvrix::gpu::cuda_run_merit_value(
      surfaces, n, glass_catalog, catalog_rows, wave_count, material_ids, wavelengths, config,
      fields, field_count, operands, operand_count, curvatures, thicknesses, conics,
      merit_values, population, scratch, scratch_bytes, nullptr, reuse_uploads, 1, 0);
}

int32_t nuvrix_gpu_run_trace_grid(const SurfaceData* surfaces, int32_t n,
                                  const double* index_table, int32_t wave_count,
                                  const double* wavelengths, const SystemConfig* config,
                                  const FieldData* fields, int32_t field_count,
                                  const int32_t* field_indices, const int32_t* wave_indices,
                                  const double* px_values, const double* py_values,
                                  const double* field_table, double pupil_radius,
                                  double entrance_pupil_position, double* x, double* y,
                                  double* optical_path, int32_t* valid, int32_t ray_count,
                                  void* scratch, long scratch_bytes, int32_t reuse_uploads) {
  return nuvrix::gpu::cuda_run_trace_grid(
      surfaces, n, index_table, wave_count, wavelengths, config, fields, field_count,
      field_indices, wave_indices, px_values, py_values, field_table, pupil_radius,
      entrance_pupil_position, x, y, optical_path, valid, ray_count, scratch, scratch_bytes,
      reuse_uploads, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr);
}

int32_t nuvrix_gpu_run_trace_grid_full(
    const SurfaceData* surfaces, int32_t n, const double* index_table, int32_t wave_count,
    const double* wavelengths, const SystemConfig* config, const FieldData* fields,
    int32_t field_count, const int32_t* field_indices, const int32_t* wave_indices,
    const double* px_values, const double* py_values, const double* field_table,
    double pupil_radius, double entrance_pupil_position, double* x, double* y,
    double* optical_path, int32_t* valid, int32_t ray_count, void* scratch, long scratch_bytes,
    int32_t reuse_uploads, const int32_t* ray_kinds, double* z, double* l, double* m,
    double* n_out, double* launch_x, double* launch_y, double* launch_z, double* launch_l,
    double* launch_m, double* launch_n, const int32_t* surface_indices, double* normal_x,
    double* normal_y, double* normal_z, int32_t aim, const double* stop_radii) {
  return nuvrix::gpu::cuda_run_trace_grid(
      surfaces, n, index_table, wave_count, wavelengths, config, fields, field_count,
      field_indices, wave_indices, px_values, py_values, field_table, pupil_radius,
      entrance_pupil_position, x, y, optical_path, valid, ray_count, scratch, scratch_bytes,
      reuse_uploads, ray_kinds, z, l, m, n_out, launch_x, launch_y, launch_z, launch_l, launch_m,
      launch_n, surface_indices, normal_x, normal_y, normal_z, aim, stop_radii);
}

int32_t nuvrix_gpu_run_trace_microbench(int32_t use_f64, int32_t ray_count,
                                        int32_t surface_count, int32_t pass_count,
                                        int32_t iterations, double* elapsed_ms,
                                        double* checksum) {
  return nuvrix::gpu::cuda_run_trace_microbench(use_f64, ray_count, surface_count, pass_count,
                                                iterations, elapsed_ms, checksum);
}

int32_t nuvrix_gpu_evaluate_merit_value(const SurfaceData* surfaces, int32_t n,
                                        const double* index_table, const double* wavelengths,
                                        int32_t wave_count, const SystemConfig* config,
                                        const FieldData* fields, int32_t field_count,
                                        const MeritOperandDesc* operands, int32_t operand_count,
                                        MeritResult* results, double* residuals,
                                        int32_t* residual_count, double* merit,
                                        GpuTraceScratch* scratch, int32_t reuse_uploads) {
  return nuvrix::gpu_evaluate_merit_value(surfaces, n, index_table, wavelengths, wave_count,
                                          config, fields, field_count, operands, operand_count,
                                          results, residuals, residual_count, merit, scratch,
                                          reuse_uploads);
}

int32_t nuvrix_gpu_merit_value_fill_count(void) {
  return nuvrix::gpu::cuda_merit_value_fill_count();
}
