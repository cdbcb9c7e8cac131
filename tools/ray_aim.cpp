// Chief rays, entrance pupil and aperture from real rays traced through the
// exported interface.  For an object at infinity the chief ray comes from the
// engine's aim (nuvrix_aim_to_stop); for a finite object, whose rays leave a
// fixed point, a Newton search on the launch slope finds it here.
#include "tools/ray_aim.hpp"

#include <algorithm>
#include <cmath>
#include <functional>

namespace lensfile {
namespace {

constexpr double kDegToRad = 3.14159265358979323846 / 180.0;
constexpr double kNearAxis = 1e-4;  // mm: height of the rays that stand in for paraxial ones
constexpr double kStopTolerance = 1e-12;

// Height where the ray meets surface `last`; false when the ray fails.
bool height_at(const Lens& lens, int last, const Launch& r, double wavelength, double& y) {
  const RayTraceResult res =
      nuvrix_trace_ray(lens.surfaces.data(), lens.count(), lens.row(lens.config.primary_wavelength),
                       1, last, r.x, r.y, r.l, r.m, r.n, wavelength);
  y = res.y;
  return res.valid == 1 && std::isfinite(res.y);
}

// Solves g(q) = 0 by Newton steps with a central-difference slope; a step
// that fails a ray or does not reduce |g| is halved.
bool newton_solve(const std::function<bool(double, double&)>& g, double q, double dq,
                  double& root) {
  double gq;
  if (!g(q, gq)) return false;
  for (int iter = 0; iter < 60 && std::fabs(gq) > kStopTolerance; ++iter) {
    double gp, gm;
    if (!g(q + dq, gp) || !g(q - dq, gm)) return false;
    const double slope = (gp - gm) / (2.0 * dq);
    if (!(std::fabs(slope) > 0.0) || !std::isfinite(slope)) return false;
    double step = -gq / slope, gn = gq;
    bool improved = false;
    for (int half = 0; half < 40 && !improved; ++half, step *= 0.5) {
      improved = g(q + step, gn) && std::fabs(gn) < std::fabs(gq);
      if (improved) q += step;
    }
    if (!improved) break;  // converged as far as rounding allows
    gq = gn;
  }
  root = q;
  return std::fabs(gq) < 1e-9;
}

// A ray from the object point (0, h) aimed at height q on a plane at z.
Launch launch_from_point(double h, double z, double q) {
  Launch r;
  r.y = h;
  const double dy = q - h, dz = z;
  const double s = (z < 0.0 ? -1.0 : 1.0) / std::sqrt(dy * dy + dz * dz);
  r.m = dy * s;
  r.n = dz * s;
  return r;
}

// Pupil coordinate, on a plane at z, of the ray from (0, h) through the
// centre of the stop.
bool chief_from_point(const Lens& lens, double wavelength, double h, double z, double& q) {
  auto g = [&](double p, double& y) {
    return height_at(lens, lens.config.stop_surface, launch_from_point(h, z, p), wavelength, y);
  };
  return newton_solve(g, 0.0, 1e-6 * std::max(1.0, std::fabs(h)), q);
}

// Entrance pupil of a finite-conjugate lens: where a near-axis ray through
// the stop centre crosses the axis in object space.
bool find_entrance_pupil(const Lens& lens, Aim& aim, std::string& error) {
  const double t0 = aim.object_distance;
  const double z = std::fabs(t0) > 1e-6 ? t0 : 1.0;
  double q;
  if (!chief_from_point(lens, aim.wavelength_nm, kNearAxis, z, q)) {
    error = "no ray from the object crosses the stop on the axis";
    return false;
  }
  if (std::fabs(q - kNearAxis) < 1e-12 * kNearAxis) {
    error = "the entrance pupil is at infinity (telecentric object space)";
    return false;
  }
  aim.pupil_z = -kNearAxis * z / (q - kNearAxis);
  return true;
}

// Focal length from a ray parallel to the axis at a small height:
// f = -y / (n' u'), with n' the image-space index signed by the reflections.
double near_axis_focal_length(const Lens& lens, double wavelength) {
  const int w = lens.config.primary_wavelength;
  const RayTraceResult res = nuvrix_trace_ray(lens.surfaces.data(), lens.count(), lens.row(w), 1, 0,
                                              0.0, kNearAxis, 0.0, 0.0, 1.0, wavelength);
  if (res.valid != 1 || std::fabs(res.n) < 1e-15) return 0.0;
  double n_image = lens.index(w, lens.count() - 2);
  for (int i = 1; i < lens.count() - 1; ++i)
    if (lens.surfaces[i].is_mirror) n_image = -n_image;
  const double u = res.m / res.n;
  if (std::fabs(u) < 1e-15) return 0.0;  // afocal
  return -kNearAxis / (n_image * u);
}

double object_height(const Lens& lens, const Aim& aim, double field) {
  if (lens.config.field_type != NUVRIX_FIELD_ANGLE) return field;
  return -aim.object_distance * std::tan(field * kDegToRad);
}

}  // namespace

bool set_up_aim(const Lens& lens, Aim& aim, std::string& error) {
  aim = Aim();
  aim.wavelength_nm = lens.primary_nm();
  aim.object_distance = lens.surfaces[0].thickness;
  aim.infinite_object = !(std::fabs(aim.object_distance) < 1e10);
  aim.focal_length = near_axis_focal_length(lens, aim.wavelength_nm);
  if (aim.infinite_object && lens.config.field_type != NUVRIX_FIELD_ANGLE) {
    error = "object heights need a finite object distance";
    return false;
  }
  if (!aim.infinite_object && !find_entrance_pupil(lens, aim, error)) return false;
  const double value = lens.config.aperture_value;
  switch (lens.config.aperture_type) {
    case 0:
      aim.epd = value;
      break;
    case 1:
      if (aim.focal_length == 0.0) {
        error = "an F-number needs a lens with power";
        return false;
      }
      aim.epd = std::fabs(aim.focal_length) / value;
      break;
    default: {
      const double n0 = lens.index(lens.config.primary_wavelength, 0);
      if (aim.infinite_object || !(value < n0)) {
        error = "a numerical aperture needs a finite object and NA below the object index";
        return false;
      }
      aim.epd = 2.0 * std::fabs(aim.pupil_z) * std::tan(std::asin(value / n0));
    }
  }
  return true;
}

Launch launch_ray(const Lens& lens, const Aim& aim, double field, double pupil) {
  if (!aim.infinite_object) {
    return launch_from_point(object_height(lens, aim, field), aim.pupil_z, pupil);
  }
  // Object at infinity: a plane wave at the field angle, starting on the
  // vertex plane of surface 1 (nothing is transferred across infinity).
  Launch r;
  r.y = pupil;
  r.m = std::sin(field * kDegToRad);
  r.n = std::cos(field * kDegToRad);
  return r;
}

bool find_chief(const Lens& lens, const Aim& aim, double field, double& pupil) {
  if (!aim.infinite_object) {
    return chief_from_point(lens, aim.wavelength_nm, object_height(lens, aim, field), aim.pupil_z,
                            pupil);
  }
  // Object at infinity: the engine's aim finds where the ray of this
  // direction crosses the vertex plane of surface 1 (the pupil coordinate).
  const Launch r = launch_ray(lens, aim, field, 0.0);
  const double* row = lens.row(lens.config.primary_wavelength);
  const double stop_radius =
      nuvrix_compute_stop_radius(lens.surfaces.data(), lens.count(), row, &lens.config);
  const AimToStopResult a =
      nuvrix_aim_to_stop(lens.surfaces.data(), lens.count(), row, lens.config.stop_surface, r.x,
                         r.y, r.l, r.m, r.n, 0.0, 0.0, stop_radius);
  pupil = a.y;
  return a.converged == 1;
}

}  // namespace lensfile
