// Compiled by nvcc only: proves that the trace core and the merit function build as device code,
// so that the kernels can run the very same trace as the CPU.
#include "first_order/paraxial.hpp"
#include "first_order/paraxial_solve.hpp"
#include "first_order/seidel.hpp"
#include "trace/trace_core.hpp"
#include "trace/trace_generic.hpp"
#include "trace/front_ends.hpp"
#include "merit/merit_function.hpp"
#include "merit/variable_transform.hpp"
#include "merit/dual.hpp"
#include "merit/jacobian_operands.hpp"
#include "trace/robust_offset.hpp"

using nuvrix::RayStateT;

extern "C" __global__ void nuvrix_device_compile_probe(SurfaceData const* surfaces, int count,
                                                       double const* indices, double* out) {
  RayTraceResult const r = nuvrix::detail::rt_trace_impl(surfaces, count, indices, 0.0, 1.0, 0.0,
                                                         0.0, 1.0, nullptr, 1, 0, 550.0, 0, false);
  RayStateT<double> ray = {0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  double const k = surfaces[1].conic, c = surfaces[1].curvature;
  nuvrix::detail::intersect_conic_t<double>(ray, c, k);
  nuvrix::detail::conic_normal_t<double>(ray, c, k);
  nuvrix::detail::refract_t<double, double>(ray, indices[0], indices[1]);
  nuvrix::detail::reflect_t<double>(ray);
  nuvrix::detail::refract_paraxial_t<double, double>(ray, 1.0, 1.0, surfaces[1].focal_length);
  nuvrix::apply_abcd_generic(ray, surfaces[1].coefficients);
  nuvrix::intersect_even_asphere_t<double>(ray, c, k, surfaces[1].coefficients);
  double const n = nuvrix::model_index<double>(550.0, 1.5, 60.0, 0.0);
  out[0] = r.y + ray.y + n;

  // The Seidel sums, the launch of their rays and the matrix of a range of surfaces.
  int const m = count < 4 ? count : 4;
  double curvatures[4], thicknesses[4];
  for (int k = 0; k < m; ++k) {
    curvatures[k] = surfaces[k].curvature;
    thicknesses[k] = surfaces[k].thickness;
  }
  SystemConfig config = {};
  double x0, y0, l0, m0, n0;
  nuvrix::get_launch_conditions(surfaces, m, indices, &config, surfaces[0].thickness, 5.0,
                                10.0, 1.0, 20.0, x0, y0, l0, m0, n0);
  double const s1 = nuvrix::seidel_range_sum_t<double, double>(
      curvatures, thicknesses, indices, indices, indices, surfaces, m, 0, 1, 10.0, 5.0, 0.0, 0, 1,
      m - 1, nullptr, nullptr, nullptr);
  double ty, tu, A, B, C, D;
  nuvrix::subsystem_transfer_t<double, double>(curvatures, thicknesses, indices, surfaces, m, 1,
                                               m - 1, 1.0, 0.0, ty, tu, nullptr, nullptr);
  nuvrix::compute_subsystem_abcd_t<double, double>(curvatures, thicknesses, indices, surfaces, m,
                                                   1, m - 1, A, C, B, D, nullptr,
                                                   nullptr);
  out[1] = y0 + m0 + n0 + s1 + ty + tu + A * D - B * C;

  // The paraxial trace, the focal quantities, the pupils and the solve.
  ParaxialRayState rows[4];
  int const written = nuvrix::trace_paraxial_ray(surfaces, m, indices, 1.0, 0.0, rows);
  nuvrix::ParaxialEndState const end = nuvrix::trace_paraxial_end(surfaces, m, indices, 1.0, 0.0, 1);
  double yt[4], ut[4];
  nuvrix::trace_paraxial_ray_t<double, double>(curvatures, thicknesses, indices, surfaces, m, 1.0,
                                               0.0, yt, ut, nullptr, nullptr);
  double const focal = nuvrix::calculate_efl_abcd(surfaces, m, indices) +
                       nuvrix::calculate_efl(surfaces, m, indices) +
                       nuvrix::calculate_bfl(surfaces, m, indices) +
                       nuvrix::focal_length(surfaces, m, indices) +
                       nuvrix::calculate_efl_abcd_t<double, double>(
                           curvatures, thicknesses, indices, surfaces, m, nullptr, nullptr) +
                       nuvrix::calculate_bfl_t<double, double>(curvatures, thicknesses, indices,
                                                               surfaces, m, nullptr, nullptr);
  double const pupils =
      nuvrix::compute_entrance_pupil_position(surfaces, m, indices, 2) +
      nuvrix::compute_entrance_pupil_position_t<double, double>(curvatures, thicknesses, indices,
                                                                surfaces, m, 2) +
      nuvrix::compute_exit_pupil_position_t<double, double>(curvatures, thicknesses, indices,
                                                            surfaces, m, 2, nullptr);
  FieldData const field = {5.0, 1.0, 0.0};
  ParaxialRayState chief[4];
  ParaxialSolveResult const solve =
      nuvrix::paraxial_solve(surfaces, m, indices, &config, &field, 1, rows, chief);
  nuvrix::trace_chief_ray(surfaces, m, indices, &config, &field, 1, chief);
  out[2] = written + end.last.y + yt[0] + focal + pupils + solve.efl + chief[0].y +
           nuvrix::compute_exit_pupil_position(surfaces, m, indices, &config, &field, 1);

  // The robust trace from a point in free space, 500 mm back along the axis.
  RayState history[4];
  RayTraceResult const robust = nuvrix::trace_ray_robust_offset(
      surfaces, count, indices, 0.0, 1.0, -500.0, 0.0, 0.0, 1.0, 1, 0, 550.0, history, 4, true);
  out[4] = robust.y + history[0].n;

  // The aims and the front ends that choose among them.
  AimToStopResult const aimed = nuvrix::aim_to_stop(surfaces, count, indices, 0.0, 1.0, 0.0, 0.1,
                                                    0.995, 0.0, 1.0, 2.0, 2, 1);
  RayTraceResult const arbitrary = nuvrix::trace_arbitrary_ray(
      surfaces, count, indices, &config, 5.0, 5.0, 0.0, 1.0, 550.0, 10.0, 1, 2.0, 0, 0.0);
  RayState full_history[256];
  RayTraceResult const full = nuvrix::trace_full(surfaces, count, indices, &config, 5.0, 5.0, 0.0,
                                                 1.0, 550.0, 10.0, 1, 2.0, full_history);
  out[5] = aimed.y + arbitrary.y + full.y +
           nuvrix::aim_stop_radius(surfaces, count, indices, &config, 5.0);
}

// The merit function runs on the device as it does on the host: one
// evaluation per thread, on the system the thread was given.
extern "C" __global__ void device_compile_merit(SurfaceData const* surfaces, int count,
                                                double const* indices, double const* wavelengths,
                                                SystemConfig const* config,
                                                MeritOperandDesc const* ops, int op_count,
                                                MeritResult* results, double* residuals,
                                                double* merit) {
  FieldData const field = {5.0, 1.0, 0.0};
  int slots = 0;
  nuvrix::evaluate_merit(surfaces, count, indices, wavelengths, 1, config, &field, 1, ops,
                         op_count, results, residuals, &slots, merit, false, nullptr);
}

// The variables of an optimisation, applied to a thread's copy of a system.
extern "C" __global__ void device_compile_variables(SurfaceData* surfaces, int count,
                                                    MeritVariableDesc const* v,
                                                    MeritPickupDesc const* pickups, double x,
                                                    double* out) {
  double const p = nuvrix::transform_to_physical(x, v->has_lower, v->lower, v->has_upper, v->upper);
  nuvrix::apply_variable_value(*v, p, surfaces, count, nullptr, 0);
  nuvrix::apply_pickups(surfaces, count, pickups, 2);
  out[0] = nuvrix::fd_step(*v, x, surfaces, count) +
           nuvrix::transform_jacobian(x, v->has_lower, v->lower, v->has_upper, v->upper) +
           nuvrix::transform_to_unbounded(p, v->has_lower, v->lower, v->has_upper, v->upper) +
           nuvrix::read_variable_value(*v, surfaces, count, nullptr, 0);
}

// Dual numbers through a generic first-order step.
extern "C" __global__ void device_compile_dual(SurfaceData const* surfaces, int count,
                                               double const* indices, double* out) {
  using D = nuvrix::Dual<10>;
  D curvatures[8], thicknesses[8];
  for (int i = 0; i < count && i < 8; ++i) {
    curvatures[i] = D(surfaces[i].curvature);
    thicknesses[i] = D(surfaces[i].thickness);
  }
  curvatures[1] = nuvrix::make_variable<10>(surfaces[1].curvature, 0);
  D const efl = nuvrix::calculate_efl_abcd_t<D, double>(curvatures, thicknesses, indices, surfaces,
                                                        count < 8 ? count : 8, nullptr, nullptr);
  D const r = sqrt(efl * efl + exp(efl) / fma(efl, efl, 1.0));
  out[0] = r.value + r.d[0];
}

// The real trace over dual numbers, with constant and with dual indices.
extern "C" __global__ void device_compile_dual_trace(SurfaceData const* surfaces, int count,
                                                     double const* indices, double* out) {
  using D = nuvrix::Dual<10>;
  int const m = count < 8 ? count : 8;
  D curvatures[8], thicknesses[8], conics[8], focal[8], terms[8][8], rows[8];
  for (int i = 0; i < m; ++i) {
    curvatures[i] = D(surfaces[i].curvature);
    thicknesses[i] = D(surfaces[i].thickness);
    conics[i] = D(surfaces[i].conic);
    focal[i] = D(surfaces[i].focal_length);
    rows[i] = D(indices[i]);
    for (int k = 0; k < 8; ++k) terms[i][k] = D(surfaces[i].coefficients[k]);
  }
  curvatures[1] = nuvrix::make_variable<10>(surfaces[1].curvature, 0);
  RayStateT<D> const launch = {D(0.0), D(1.0), D(0.0), D(0.0), D(0.0), D(1.0),
                               D(0.0), D(0.0), D(0.0), D(0.0), D(0.0), 0};
  RayStateT<D> at_stop = launch;
  RayStateT<D> const a = nuvrix::trace_ray_t<D, D>(surfaces, m, curvatures, thicknesses, conics,
                                                   rows, launch, 1, 0, 550.0, 2, &at_stop,
                                                   nullptr, terms, -1, focal);
  RayStateT<D> const b = nuvrix::trace_ray_t<D, double>(surfaces, m, curvatures, thicknesses,
                                                        conics, indices, launch, 1, 0, 550.0, -1,
                                                        nullptr, nullptr, terms, -1, focal);
  out[0] = a.y.d[0] + b.y.d[0] + at_stop.y.value;
}

// The operands of the analytic Jacobian that need no real ray, with
// constant and with dual index rows.  p holds the dual parameters, one
// block of `count` a kind, then eight coefficients a surface.
template <typename U>
__device__ double device_dual_operand(SurfaceData const* surfaces, int count, U const* rows,
                                      nuvrix::JDual const* p, double const* wavelengths,
                                      SystemConfig const* config, MeritOperandDesc const* op) {
  using nuvrix::JDual;
  JDual const(*terms)[8] = reinterpret_cast<JDual const(*)[8]>(p + 8 * count);
  nuvrix::DualSystem<U> sys;
  sys.surfaces = surfaces;
  sys.n = count;
  sys.curvatures = p;
  sys.thicknesses = p + count;
  sys.conics = p + 2 * count;
  sys.focal_lengths = p + 3 * count;
  sys.coefficients = terms;
  sys.model_nd = p + 4 * count;
  sys.model_vd = p + 5 * count;
  sys.model_dpgf = p + 6 * count;
  sys.semi_diameters = p + 7 * count;
  sys.index_table = rows;
  sys.wave_count = 1;
  sys.pupil_radius = p[0];
  sys.entrance_pupil_position = p[1];
  nuvrix::MeritContext const ctx = {};
  JDual v;
  bool const ok = nuvrix::dual_paraxial_operand<U>(*op, sys, wavelengths, config, ctx, v);
  return ok ? v.value + v.d[0] : 0.0;
}

extern "C" __global__ void device_compile_dual_operands(
    SurfaceData const* surfaces, int count, double const* indices, nuvrix::JDual const* dual_rows,
    nuvrix::JDual const* parameters, double const* wavelengths, SystemConfig const* config,
    MeritOperandDesc const* op, double* out) {
  out[0] = device_dual_operand<double>(surfaces, count, indices, parameters, wavelengths, config,
                                       op) +
           device_dual_operand<nuvrix::JDual>(surfaces, count, dual_rows, parameters, wavelengths,
                                              config, op);
}
