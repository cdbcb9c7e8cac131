// Reference geometry of the optical path difference: the reference point and
// the object-space wavefront plane taken from the primary chief ray, the
// reference sphere about that point, the plane of an afocal image space, and
// the object term that puts the rays of an infinite object on one incoming
// wavefront.  The OPD fan, the wavefront map and the scalar OPD operand
// share these pieces.
#pragma once

#include "api/types.hpp"

namespace nuvrix {

constexpr double kOpdVertexRay = 1e-30;  // S below this: the ray crosses the vertex itself
constexpr double kOpdMicronsPerMm = 1000.0;

struct OpdVec3 {
  double x, y, z;
};

// What the primary chief ray gives every ray of one OPD evaluation.
struct OpdReference {
  OpdVec3 point;            // P: its hit on the image surface
  OpdVec3 direction;        // its final direction: the normal of the afocal reference plane
  OpdVec3 d0;               // its direction leaving an infinite object, else (0, 0, 1)
  OpdVec3 r_ref;            // its hit on surface 1 for an infinite object, else (0, 0, 0)
  bool object_at_infinity;  // the first thickness is infinite or not a number
};

// Sphere (or plane) term s and object term o of one ray, in waves.
struct OpdTerms {
  double s, o;
};

// The OPD analyses count the object as infinite only when the first
// thickness is itself infinite or not a number: no 1e10 threshold here.
NUVRIX_HD bool opd_object_at_infinity(SurfaceData const* surfaces) {
  return !detail::is_finite(surfaces[0].thickness);
}

NUVRIX_HD OpdVec3 opd_position(RayState const& s) { return {s.x, s.y, s.z}; }

// A ray's hit on surface 1, from slot 1 of its history (slot 0 is the
// launch); `fallback` when the history holds fewer than 2 entries.
NUVRIX_HD OpdVec3 opd_surface1_hit(RayTraceResult const& ray, RayState const* states,
                                   OpdVec3 fallback) {
  return ray.states_written >= 2 ? opd_position(states[1]) : fallback;
}

// The reference geometry of a valid primary chief ray and its history.
NUVRIX_HD OpdReference opd_reference(SurfaceData const* surfaces, RayTraceResult const& chief,
                                     RayState const* states) {
  OpdReference ref;
  ref.point = {chief.x, chief.y, chief.z};
  ref.direction = {chief.l, chief.m, chief.n};
  ref.d0 = {0.0, 0.0, 1.0};
  ref.r_ref = {0.0, 0.0, 0.0};
  ref.object_at_infinity = opd_object_at_infinity(surfaces);
  if (ref.object_at_infinity && chief.states_written >= 2) {
    ref.d0 = {states[0].l, states[0].m, states[0].n};
    ref.r_ref = opd_position(states[1]);
  }
  return ref;
}

// Object term of a ray that met surface 1 at r:
//   o = -(d0 . r_ref - d0 . r) * 1000 / wavelength,
// the path from the incoming wavefront plane through the reference ray's
// entry point to the plane square to the axis on which the rays start.
NUVRIX_HD double opd_object_term(OpdReference const& ref, OpdVec3 const& r, double wavelength) {
  OpdVec3 const& d = ref.d0;
  double const at_ref = d.x * ref.r_ref.x + d.y * ref.r_ref.y + d.z * ref.r_ref.z;
  double const at_ray = d.x * r.x + d.y * r.y + d.z * r.z;
  return -(at_ref - at_ray) * kOpdMicronsPerMm / wavelength;
}

// Distance in mm from a ray's end to the sphere of radius R about P whose
// vertex lies at +R along z, or false when the ray misses the sphere.  The
// ray is first carried to the vertex plane, then back onto the sphere by the
// small root.  The z component takes dz off twice, once through a and once
// by itself; the two agree for rays that end in the plane of P.
NUVRIX_HD bool opd_sphere_distance(OpdVec3 const& p, RayTraceResult const& ray, double R,
                                   double& distance) {
  double const dx = ray.x - p.x, dy = ray.y - p.y, dz = ray.z - p.z;
  double const a = R - dz;
  double const t = a / ray.n;
  // Crossing of the vertex plane, relative to P.
  double const X = dx + ray.l * t;
  double const Y = dy + ray.m * t;
  double const S = X * X + Y * Y;
  double const B = -(R * ray.n) - ray.l * X - ray.m * Y;
  double const D = B * B - S;
  if (D < 0.0) return false;
  double const t2 = S < kOpdVertexRay ? 0.0 : S / (B - sqrt(D));
  double const gx = (X + ray.l * t2) - dx;
  double const gy = (Y + ray.m * t2) - dy;
  double const gz = (ray.n * t2 + a) - dz;
  distance = sqrt(gx * gx + gy * gy + gz * gz);
  return true;
}

// Terms of a ray against the reference sphere of radius |reference_radius|.
// A ray that misses the sphere keeps neither term: its OPD comes from its
// phase alone.  `r` is its hit on surface 1.
NUVRIX_HD OpdTerms opd_sphere_terms(OpdReference const& ref, RayTraceResult const& ray,
                                    OpdVec3 const& r, double n_img, double reference_radius,
                                    double wavelength) {
  OpdTerms terms = {0.0, 0.0};
  double distance = 0.0;
  if (!opd_sphere_distance(ref.point, ray, fabs(reference_radius), distance)) return terms;
  terms.s = distance * kOpdMicronsPerMm * n_img / wavelength;
  if (ref.object_at_infinity) terms.o = opd_object_term(ref, r, wavelength);
  return terms;
}

// Signed distance along the ray from its end to the plane through P square
// to the primary chief ray's final direction (a, b, c), as a path in waves:
//   t = -(dx a + dy b + dz c) / (l a + m b + n c).
NUVRIX_HD double opd_plane_term(OpdReference const& ref, RayTraceResult const& ray, double n_img,
                                double wavelength) {
  OpdVec3 const& p = ref.point;
  OpdVec3 const& c = ref.direction;
  double const dx = ray.x - p.x, dy = ray.y - p.y, dz = ray.z - p.z;
  double const t = -(dx * c.x + dy * c.y + dz * c.z) / (ray.l * c.x + ray.m * c.y + ray.n * c.z);
  return t * kOpdMicronsPerMm * n_img / wavelength;
}

// Terms of a ray against the plane of an afocal image space.
NUVRIX_HD OpdTerms opd_plane_terms(OpdReference const& ref, RayTraceResult const& ray,
                                   OpdVec3 const& r, double n_img, double wavelength) {
  OpdTerms terms = {opd_plane_term(ref, ray, n_img, wavelength), 0.0};
  if (ref.object_at_infinity) terms.o = opd_object_term(ref, r, wavelength);
  return terms;
}

// The chief ray of the analysed wavelength against the afocal plane: its own
// plane term is taken as 0, and only an infinite object adds its object term.
NUVRIX_HD OpdTerms opd_plane_chief_terms(OpdReference const& ref, OpdVec3 const& r,
                                         double wavelength) {
  OpdTerms terms = {0.0, 0.0};
  if (ref.object_at_infinity) terms.o = opd_object_term(ref, r, wavelength);
  return terms;
}

// Path of the analysed wavelength's chief ray to the reference, in waves:
// ref = O + s + o.
NUVRIX_HD double opd_chief_path(double phase_waves, OpdTerms const& t) {
  return phase_waves + t.s + t.o;
}

// OPD of a ray in waves, W = -(O + s + o - ref): positive for a ray whose
// path is shorter than the chief ray's.
NUVRIX_HD double opd_value(double phase_waves, OpdTerms const& t, double chief_path) {
  return -(phase_waves + t.s + t.o - chief_path);
}

}  // namespace nuvrix
