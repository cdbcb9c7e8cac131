// The real-ray trace: one ray in double precision through a range of
// surfaces.  Everything that needs a real ray ends here.
#pragma once

#include "api/types.hpp"
#include "trace/conic.hpp"
#include "trace/even_asphere.hpp"
#include "trace/material.hpp"
#include "trace/paraxial_surface.hpp"
#include "trace/refract.hpp"

namespace nuvrix {
namespace detail {

constexpr double kOnAxisR2 = 1e-20;       // thin lens: r^2 at or below is the axis
constexpr double kFlatSlope = 1e-12;      // thin lens: |slope| at or below is parallel
constexpr int kExportedHistory = 256;     // history capacity of the exported full trace

NUVRIX_HD RayState rt_to_state(RayStateT<double> const& r, int status) {
  RayState s;
  s.x = r.x;
  s.y = r.y;
  s.z = r.z;
  s.l = r.l;
  s.m = r.m;
  s.n = r.n;
  s.nx = r.nx;
  s.ny = r.ny;
  s.nz = r.nz;
  s.sag_path = r.sag_path;
  s.status = status;
  return s;
}

// Copies the ray's state into the leading fields of a result.
NUVRIX_HD void rt_put_state(RayTraceResult& res, RayStateT<double> const& r, int status) {
  res.x = r.x;
  res.y = r.y;
  res.z = r.z;
  res.l = r.l;
  res.m = r.m;
  res.n = r.n;
  res.nx = r.nx;
  res.ny = r.ny;
  res.nz = r.nz;
  res.sag_path = r.sag_path;
  res.status = status;
}

// The result of a failed trace.  The state comes by value: the loop's own
// ray never has its address taken and so stays in registers.
NUVRIX_HD_COLD RayTraceResult rt_failure(RayStateT<double> r, int status, int surface,
                                         double violation, int states_written) {
  RayTraceResult res = {};
  rt_put_state(res, r, status);
  res.valid = 0;
  res.failed_surface = surface;
  res.violation = violation;
  res.states_written = states_written;
  return res;
}

// Hard limit on the ray height at a surface, or 0 for none: the aperture
// radius first, then its alternative, then a semi-diameter that is fixed, or
// automatic and scaled below 100 percent, unless overridden.
NUVRIX_HD double rt_aperture_limit(SurfaceData const& s) {
  if (s.aperture_radius > 0.0) return s.aperture_radius;
  if (s.aperture_radius_alt > 0.0) return s.aperture_radius_alt;
  if (s.semi_diameter > 0.0 && !(s.aperture_override > 0.0) &&
      (s.aperture_kind == 1 || (s.aperture_kind == 0 && s.aperture_percent < 100.0))) {
    return s.semi_diameter;
  }
  return 0.0;
}

// Optical path of an ideal thin lens for a ray off its axis: the lens images
// the point where the incoming ray crosses the axis (s = r / u) onto the
// point where the outgoing ray crosses it (s' = -r / u'), and removes the
// excess of the oblique paths over the axial ones so that the two points are
// joined by equal optical paths, as a perfect lens requires.  Over any
// scalar: the plain trace and trace_ray_t share it.
template <typename T, typename U>
NUVRIX_HD T thin_lens_path_t(T const& r, T const& r2, T const& u, T const& up, U const& n1,
                             U const& n2) {
  T object_term = T(0.0), image_term = T(0.0);
  if (fabs(val(u)) > kFlatSlope) {
    T const s = r / u;
    double const sign = val(s) < 0.0 ? -1.0 : 1.0;
    object_term = -sign * n1 * (sqrt(fma(s, s, r2)) - fabs(s));
  }
  if (fabs(val(up)) > kFlatSlope) {
    T const sp = -r / up;
    double const sign = val(sp) < 0.0 ? -1.0 : 1.0;
    image_term = -sign * n2 * (sqrt(fma(sp, sp, r2)) - fabs(sp));
  }
  return object_term + image_term;
}

// The paraxial lens of the real trace: the direction change and, off the
// axis, the ideal lens's path correction in `extra`.  Returns true when the
// correction applies.
NUVRIX_HD_RARE bool rt_paraxial_lens(RayStateT<double>& ray, double n1, double n2, double f,
                                     double& extra) {
  bool const usable = focal_length_usable(f);
  double const r2 = sum_sq2(ray.x, ray.y);
  bool const blocked = fabs(ray.n) < kTiny || fabs(n2) < kTiny;
  if (!(r2 > kOnAxisR2 && usable)) {
    if (usable && !blocked) refract_paraxial_t<double, double>(ray, n1, n2, f);
    return false;
  }
  double const r = sqrt(r2);
  double const tx = ray.l / ray.n, ty = ray.m / ray.n;
  double const u = fma(ray.y, ty, ray.x * tx) / r;
  double txp = tx, typ = ty;
  if (!blocked) {
    txp = thin_lens_tangent_t(n1, tx, ray.x, f, n2);
    typ = thin_lens_tangent_t(n1, ty, ray.y, f, n2);
    set_direction_from_tangents_t(ray, txp, typ);
  }
  double const up = fma(ray.y, typ, ray.x * txp) / r;
  extra = thin_lens_path_t<double, double>(r, r2, u, up, n1, n2);
  return true;
}

// The matrix surface of the real trace.
NUVRIX_HD_RARE void rt_matrix(RayStateT<double>& ray, double const* abcd) {
  apply_abcd_generic(ray, abcd);
}

// Carries the ray across a finite space of thickness t, from its point in
// the frame of the surface before to the vertex plane of the next surface.
// A ray with |n| below 1e-15 never reaches that plane and stays where it is.
NUVRIX_HD void rt_transfer(RayStateT<double>& ray, double t) {
  if (fabs(ray.n) < kTiny) return;
  double const d = (t - ray.z) / ray.n;
  ray.x = fma(d, ray.l, ray.x);
  ray.y = fma(d, ray.m, ray.y);
  ray.z = 0.0;
}

// Moves the ray from where it stands onto the even asphere s and stores the
// normal there.  False on a miss; the ray is then left as it was.
NUVRIX_HD_RARE bool rt_intersect_asphere(RayStateT<double>& ray, SurfaceData const& s) {
  double x = ray.x, y = ray.y, z = ray.z, total = 0.0;
  if (!asphere_walk(x, y, z, ray.l, ray.m, ray.n, s.curvature, s.conic, s.coefficients, total)) {
    return false;
  }
  // sag_path takes the signed length of the whole walk.
  double const dx = x - ray.x, dy = y - ray.y, dz = z - ray.z;
  double d = sqrt(dot3(dx, dy, dz, dx, dy, dz));
  if (dot3(dx, dy, dz, ray.l, ray.m, ray.n) < 0.0) d = -d;
  ray.x = x;
  ray.y = y;
  ray.z = z;
  ray.sag_path = ray.sag_path + d;
  even_asphere_normal_t<double>(ray, s.curvature, s.conic, s.coefficients);
  return true;
}

// Moves the ray from where it stands onto surface s and stores the normal
// there: the even-asphere walk for type 1, the plane or nearest conic root
// for every other type.  False on a miss or a point that is not finite; the
// ray is then left as it was, on the vertex plane after the transfer.
NUVRIX_HD bool rt_intersect_surface(RayStateT<double>& ray, SurfaceData const& s) {
  if (s.type == NUVRIX_SURFACE_EVEN_ASPHERE) {
    // Out of line, on a copy, so that the loop's ray keeps no address.
    RayStateT<double> walked = ray;
    if (!rt_intersect_asphere(walked, s)) return false;
    ray = walked;
    return true;
  }
  double const c = s.curvature;
  double x = ray.x, y = ray.y, z = ray.z, step;
  bool const plane = fabs(c) < kPlaneCurvature;
  if (plane) {
    // The vertex plane.
    if (fabs(ray.n) < kTiny) return false;
    step = -z / ray.n;
    x = fma(step, ray.l, x);
    y = fma(step, ray.m, y);
    z = 0.0;
  } else {
    // The root of the conic nearest the vertex.
    if (!conic_distance_t<double>(x, y, z, ray.l, ray.m, ray.n, c, 1.0 + s.conic, step)) {
      return false;
    }
    x = fma(step, ray.l, x);
    y = fma(step, ray.m, y);
    z = fma(step, ray.n, z);
  }
  if (!all_finite3(x, y, z)) return false;
  ray.x = x;
  ray.y = y;
  ray.z = z;
  ray.sag_path = ray.sag_path + step;
  if (plane) {
    ray.nx = 0.0;
    ray.ny = 0.0;
    ray.nz = -1.0;
  } else {
    conic_normal_t<double>(ray, c, s.conic);
  }
  return true;
}

// Optical path of one step, from (xo, yo, zo) in the frame of the surface
// before to the ray's point in the frame of the surface it reached, t apart.
// The length is signed by the direction of travel along z, except in the
// space behind a mirror that turned the light back.
// wave_um is the traced wavelength in micrometres, wavelength / 1000; phase
// grows only for a positive wavelength.
NUVRIX_HD void rt_path_step(RayStateT<double>& ray, double& phase, double xo, double yo,
                            double zo, double t, bool behind_mirror, double n1,
                            bool with_phase, double wave_um) {
  double const dx = ray.x - xo, dy = ray.y - yo, dz = ray.z + t - zo;
  double d = sqrt(dot3(dx, dy, dz, dx, dy, dz));
  if (!(behind_mirror && t < 0.0) && dz * ray.n < 0.0) d = -d;
  ray.opl += d * n1;
  if (with_phase) phase += d * 1000.0 * n1 / wave_um;
}

// The result of a ray that reached its last surface; failed_surface is -1
// for the ordinary trace and stays 0 for the robust offset trace.
NUVRIX_HD RayTraceResult rt_success(RayStateT<double> const& ray, double phase,
                                    int states_written, int failed_surface) {
  RayTraceResult res = {};
  rt_put_state(res, ray, 0);
  res.opl = ray.opl;
  res.phase_waves = phase;
  res.valid = 1;
  res.states_written = states_written;
  res.failed_surface = failed_surface;
  return res;
}

// Traces one ray from (x, y, 0) with direction (l, m, n), given in the frame
// of surface start_surface - 1, through surfaces start_surface ..
// last_surface (below 1: the image surface).  With `states`, slot 0 gets the
// launch and each surface reached one record, up to max_states; the count
// goes on past the capacity.  Apertures are tested unless ignore_apertures.
NUVRIX_HD_CALL RayTraceResult rt_trace_impl(SurfaceData const* surfaces, int surface_count,
                                       double const* indices, double x, double y, double l,
                                       double m, double n, RayState* states, int start_surface,
                                       int last_surface, double wavelength, int max_states,
                                       bool ignore_apertures) {
  RayStateT<double> ray = {x, y, 0.0, l, m, n, 0.0, 0.0, 0.0, 0.0, 0.0, 0};
  double phase = 0.0;
  int count = 0;
  if (states != nullptr) {
    if (max_states > 0) states[0] = rt_to_state(ray, 0);
    count = 1;
  }
  // A trace that starts before surface 1 has no frame to start in.
  if (start_surface < 1) return rt_failure(ray, NUVRIX_RAY_MISSED, start_surface, 1.0, count);
  int last = last_surface < 1 ? surface_count - 1 : last_surface;
  if (last > surface_count - 1) last = surface_count - 1;  // nothing lies beyond the image
  if (last < start_surface) {
    RayTraceResult res = {};
    rt_put_state(res, ray, 0);
    res.valid = 1;
    res.failed_surface = -1;
    res.states_written = count;
    return res;
  }
  if (surfaces == nullptr || indices == nullptr) {
    return rt_failure(ray, NUVRIX_RAY_MISSED, start_surface, 1.0, count);
  }

  // The phase steps divide by the wavelength in micrometres, the same value
  // at every surface.
  bool const with_phase = wavelength > 0.0;
  double const wave_um = wavelength / 1000.0;
  // The medium behind surface i is the one in front of surface i + 1, so
  // each index is looked up once.
  double n1 = rt_medium_index(surfaces, surface_count, indices, start_surface - 1, wavelength);

  for (int i = start_surface; i <= last; ++i) {
    double const n2 = rt_medium_index(surfaces, surface_count, indices, i, wavelength);
    SurfaceData const& prev = surfaces[i - 1];
    SurfaceData const& s = surfaces[i];

    // Transfer to the vertex plane of surface i.
    double const t = prev.thickness;
    double const xo = ray.x, yo = ray.y, zo = ray.z;
    bool const infinite = is_infinite_distance(t);
    if (!infinite) rt_transfer(ray, t);

    // Intersect the surface; a miss leaves the ray on the vertex plane.
    if (!rt_intersect_surface(ray, s)) {
      return rt_failure(ray, NUVRIX_RAY_MISSED, i, 1.0, count);
    }

    // Optical path of the step, signed by the direction of travel.
    if (!infinite) {
      rt_path_step(ray, phase, xo, yo, zo, t, prev.is_mirror != 0, n1, with_phase, wave_um);
    }

    // Aperture, on every surface but the image.
    if (i < surface_count - 1 && !ignore_apertures) {
      double const limit = rt_aperture_limit(s);
      double const r2 = sum_sq2(ray.x, ray.y);
      if (limit > 0.0 && r2 > limit * limit * kApertureMargin) {
        if (states != nullptr) {
          if (count < max_states) states[count] = rt_to_state(ray, NUVRIX_RAY_MISSED);
          ++count;
        }
        return rt_failure(ray, NUVRIX_RAY_MISSED, i, sqrt(r2) / limit - 1.0, count);
      }
    }

    // Act on the ray; the image surface never does.
    if (!(i >= surface_count - 1 && i >= last)) {
      // The rare surface types act out of line on a copy of the ray.
      if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS) {
        RayStateT<double> lens = ray;
        double extra = 0.0;
        if (rt_paraxial_lens(lens, n1, n2, s.focal_length, extra)) {
          lens.opl += extra;
          if (with_phase) phase += extra * 1000.0 / wave_um;
        }
        ray = lens;
      } else if (s.type == NUVRIX_SURFACE_MATRIX) {
        RayStateT<double> matrix = ray;
        rt_matrix(matrix, s.coefficients);
        ray = matrix;
      } else if (s.is_mirror != 0) {
        reflect_t<double>(ray);
      } else if (!refract_t<double, double>(ray, n1, n2)) {
        return rt_failure(ray, NUVRIX_RAY_TIR, i, tir_margin(ray, n1, n2), count);
      }
    }

    if (states != nullptr) {
      if (count < max_states) states[count] = rt_to_state(ray, 0);
      ++count;
    }
    n1 = n2;
  }

  return rt_success(ray, phase, count, -1);
}

}  // namespace detail
}  // namespace nuvrix
