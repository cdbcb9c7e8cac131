// Keeps the inline core of the engine in the library as exported weak
// symbols: taking the address of each inline routine and template instance
// makes the compiler emit it, and default visibility exports it under its
// mangled name, so that hosts and tools can link to the same code the
// analyses inline.
#include "api/nuvrix.h"
#include "first_order/paraxial.hpp"
#include "first_order/paraxial_solve.hpp"
#include "first_order/aim.hpp"
#include "first_order/aim_robust.hpp"
#include "first_order/seidel.hpp"
#include "trace/front_ends.hpp"
#include "trace/robust_offset.hpp"
#include "trace/trace_core.hpp"
#include "trace/trace_generic.hpp"
#include "merit/merit_function.hpp"
#include "merit/variable_transform.hpp"
#include "merit/dual.hpp"
#include "merit/wavefront_operands.hpp"
#include "merit/jacobian_operands.hpp"

namespace {

using nuvrix::RayStateT;
using D = double;
using DD = nuvrix::Dual<10>;  // the dual number of the analytic Jacobian

// One table of addresses; `used` keeps it, and so every entry, in the binary.
__attribute__((used)) void const* const kAnchors[] = {
    reinterpret_cast<void const*>(&nuvrix::detail::rt_trace_impl),
    reinterpret_cast<void const*>(&nuvrix::detail::rt_medium_index),
    reinterpret_cast<void const*>(&nuvrix::detail::rt_aperture_limit),
    reinterpret_cast<void const*>(&nuvrix::detail::rt_paraxial_lens),
    reinterpret_cast<void const*>(&nuvrix::detail::asphere_walk),
    reinterpret_cast<void const*>(&nuvrix::detail::intersect_conic_t<D>),
    reinterpret_cast<void const*>(&nuvrix::detail::conic_normal_t<D>),
    reinterpret_cast<void const*>(&nuvrix::detail::refract_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::detail::reflect_t<D>),
    reinterpret_cast<void const*>(&nuvrix::detail::refract_paraxial_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::apply_abcd_generic<RayStateT<D>, D>),
    reinterpret_cast<void const*>(&nuvrix::even_asphere_sag_t<D>),
    reinterpret_cast<void const*>(&nuvrix::intersect_even_asphere_t<D>),
    reinterpret_cast<void const*>(&nuvrix::even_asphere_normal_t<D>),
    reinterpret_cast<void const*>(&nuvrix::model_index<D>),
    reinterpret_cast<void const*>(&nuvrix::trace_paraxial_ray),
    reinterpret_cast<void const*>(&nuvrix::trace_paraxial_end),
    reinterpret_cast<void const*>(&nuvrix::calculate_efl_abcd),
    reinterpret_cast<void const*>(&nuvrix::calculate_efl),
    reinterpret_cast<void const*>(&nuvrix::calculate_bfl),
    reinterpret_cast<void const*>(&nuvrix::focal_length),
    reinterpret_cast<void const*>(&nuvrix::trace_paraxial_ray_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::calculate_efl_abcd_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::calculate_bfl_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::compute_entrance_pupil_position),
    reinterpret_cast<void const*>(&nuvrix::compute_entrance_pupil_position_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::compute_exit_pupil_position_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::compute_exit_pupil_position),
    reinterpret_cast<void const*>(&nuvrix::paraxial_marginal_height),
    reinterpret_cast<void const*>(&nuvrix::trace_chief_ray),
    reinterpret_cast<void const*>(&nuvrix::paraxial_solve),
    reinterpret_cast<void const*>(&nuvrix::get_launch_conditions),
    reinterpret_cast<void const*>(&nuvrix::seidel_range_sum_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::subsystem_transfer_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::compute_subsystem_abcd_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::detail::ra_run_secant),
    reinterpret_cast<void const*>(&nuvrix::detail::ra_find_chief_ray_robust),
    reinterpret_cast<void const*>(&nuvrix::aim_to_stop),
    reinterpret_cast<void const*>(&nuvrix::aim_to_stop_robust),
    reinterpret_cast<void const*>(&nuvrix::aim_to_stop_finite),
    reinterpret_cast<void const*>(&nuvrix::aim_stop_radius),
    reinterpret_cast<void const*>(&nuvrix::trace_ray_robust_offset),
    reinterpret_cast<void const*>(&nuvrix::trace_arbitrary_ray),
    reinterpret_cast<void const*>(&nuvrix::trace_arbitrary_ray_full),
    reinterpret_cast<void const*>(&nuvrix::trace_full),
    reinterpret_cast<void const*>(&nuvrix::legacy::trace_full),
    reinterpret_cast<void const*>(&nuvrix::build_context),
    reinterpret_cast<void const*>(&nuvrix::resolve_surface_ref),
    reinterpret_cast<void const*>(&nuvrix::pretraced_find),
    reinterpret_cast<void const*>(&nuvrix::evaluate_boundary),
    reinterpret_cast<void const*>(&nuvrix::evaluate_boundary_total),
    reinterpret_cast<void const*>(&nuvrix::evaluate_angle_boundary),
    reinterpret_cast<void const*>(&nuvrix::evaluate_angle_boundary_total),
    reinterpret_cast<void const*>(&nuvrix::evaluate_opd),
    reinterpret_cast<void const*>(&nuvrix::compute_effective_fnumber),
    reinterpret_cast<void const*>(&nuvrix::trace_field_ray),
    reinterpret_cast<void const*>(&nuvrix::compute_sag_tan_focus),
    reinterpret_cast<void const*>(&nuvrix::evaluate_operand_value),
    reinterpret_cast<void const*>(&nuvrix::evaluate_merit),
    reinterpret_cast<void const*>(&nuvrix::transform_to_physical),
    reinterpret_cast<void const*>(&nuvrix::transform_to_unbounded),
    reinterpret_cast<void const*>(&nuvrix::transform_jacobian),
    reinterpret_cast<void const*>(&nuvrix::read_variable_value),
    reinterpret_cast<void const*>(&nuvrix::apply_variable_value),
    reinterpret_cast<void const*>(&nuvrix::apply_pickups),
    reinterpret_cast<void const*>(&nuvrix::fd_step),
    // The generic steps over dual numbers: the indices constant (double)
    // or depending on model-glass variables (dual).
    reinterpret_cast<void const*>(&nuvrix::detail::intersect_conic_t<DD>),
    reinterpret_cast<void const*>(&nuvrix::detail::conic_normal_t<DD>),
    reinterpret_cast<void const*>(&nuvrix::intersect_even_asphere_t<DD>),
    reinterpret_cast<void const*>(&nuvrix::even_asphere_normal_t<DD>),
    reinterpret_cast<void const*>(&nuvrix::even_asphere_sag_t<DD>),
    reinterpret_cast<void const*>(&nuvrix::detail::refract_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::detail::refract_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::detail::reflect_t<DD>),
    reinterpret_cast<void const*>(&nuvrix::detail::refract_paraxial_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::detail::refract_paraxial_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::apply_abcd_generic<RayStateT<DD>, DD>),
    reinterpret_cast<void const*>(&nuvrix::model_index<DD>),
    reinterpret_cast<void const*>(&nuvrix::trace_paraxial_ray_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::trace_paraxial_ray_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::compute_entrance_pupil_position_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::compute_entrance_pupil_position_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::compute_exit_pupil_position_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::compute_exit_pupil_position_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::calculate_efl_abcd_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::calculate_efl_abcd_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::calculate_bfl_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::calculate_bfl_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::subsystem_transfer_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::subsystem_transfer_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::compute_subsystem_abcd_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::compute_subsystem_abcd_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::seidel_range_sum_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::compute_exit_pupil_waves_t<DD>),
    reinterpret_cast<void const*>(&nuvrix::trace_ray_t<DD, DD>),
    reinterpret_cast<void const*>(&nuvrix::trace_ray_t<DD, D>),
    reinterpret_cast<void const*>(&nuvrix::trace_ray_t<D, D>),
    reinterpret_cast<void const*>(&nuvrix::dual_paraxial_operand<D>),
    reinterpret_cast<void const*>(&nuvrix::dual_paraxial_operand<DD>),
};

}  // namespace

extern "C" int32_t nuvrix_build_anchor(void) { return 0; }
