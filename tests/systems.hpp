// Standard optical systems for the tests, filled as a host would fill them.
#pragma once

#include <cmath>
#include <cstring>
#include <vector>

#include "api/nuvrix.h"

namespace nuvrix_test {

// A system: surfaces and one index row per wavelength.
struct System {
  std::vector<SurfaceData> surfaces;
  std::vector<double> indices;  // rows of surfaces.size() entries
  int count() const { return static_cast<int>(surfaces.size()); }
  double const* row(int w = 0) const { return indices.data() + w * surfaces.size(); }
};

inline SurfaceData plain_surface(double curvature, double thickness) {
  SurfaceData s;
  std::memset(&s, 0, sizeof s);
  s.curvature = curvature;
  s.thickness = thickness;
  s.aperture_percent = 100.0;
  return s;
}

inline double curvature_of_radius(double r) { return r == 0.0 ? 0.0 : 1.0 / r; }

// Builds a system from radii (0: plane), thicknesses and the index behind
// each surface, all for one wavelength.
inline System make_system(std::vector<double> const& radii, std::vector<double> const& thick,
                          std::vector<double> const& index) {
  System sys;
  for (size_t i = 0; i < radii.size(); ++i) {
    sys.surfaces.push_back(plain_surface(curvature_of_radius(radii[i]), thick[i]));
  }
  sys.indices = index;
  return sys;
}

// The classic Cooke triplet (EFL about 50 mm, stop on surface 4), object at
// infinity, at the d line: SK16, F2, SK16.
inline System cooke_triplet() {
  double const sk16 = 1.620410, f2 = 1.620040;
  return make_system({0.0, 22.01359, -435.76044, -22.21328, 20.29192, 79.68360, -18.39533, 0.0},
                     {1e10, 3.25896, 6.00755, 0.99997, 4.75041, 2.95208, 42.20778, 0.0},
                     {1.0, sk16, 1.0, f2, 1.0, sk16, 1.0, 1.0});
}
constexpr int kCookeStop = 4;

// A concave paraboloidal mirror of vertex radius -2f, object at infinity,
// image surface at its focus, f in front of the vertex.
inline System parabolic_mirror(double f) {
  System sys = make_system({0.0, -2.0 * f, 0.0}, {1e10, -f, 0.0}, {1.0, 1.0, 1.0});
  sys.surfaces[1].conic = -1.0;
  sys.surfaces[1].is_mirror = 1;
  return sys;
}

// An ideal thin lens of focal length f (surface type 2) in air with the
// image surface at its focus.
inline System ideal_thin_lens(double f) {
  System sys = make_system({0.0, 0.0, 0.0}, {1e10, f, 0.0}, {1.0, 1.0, 1.0});
  sys.surfaces[1].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  sys.surfaces[1].focal_length = f;
  return sys;
}

// A glass singlet with an even-asphere front face carrying all eight terms.
inline System eight_term_asphere() {
  System sys = make_system({0.0, 30.0, -120.0, 0.0}, {1e10, 6.0, 45.0, 0.0},
                           {1.0, 1.5168, 1.0, 1.0});
  SurfaceData& a = sys.surfaces[1];
  a.type = NUVRIX_SURFACE_EVEN_ASPHERE;
  a.conic = -0.8;
  double const terms[8] = {1e-4, -2e-6, 3e-8, -1e-10, 2e-13, -1e-15, 3e-18, -2e-21};
  for (int k = 0; k < 8; ++k) a.coefficients[k] = terms[k];
  return sys;
}

// A retrofocus-like lens whose strong negative front element images the stop
// with much pupil aberration: an unaimed ray misses the stop centre visibly.
inline System retrofocus() {
  return make_system({0.0, 40.0, 12.0, 0.0, 35.0, -35.0, 0.0},
                     {1e10, 2.5, 18.0, 6.0, 5.0, 45.0, 0.0}, {1.0, 1.62, 1.0, 1.0, 1.62, 1.0, 1.0});
}
constexpr int kRetrofocusStop = 3;

// A fisheye-like front: a deep meniscus that accepts rays from beyond 90
// degrees of field, then the stop and a positive group.
inline System fisheye() {
  return make_system({0.0, 30.0, 9.0, 0.0, 20.0, -20.0, 0.0},
                     {1e10, 3.0, 14.0, 4.0, 5.0, 25.0, 0.0}, {1.0, 1.7, 1.0, 1.0, 1.6, 1.0, 1.0});
}
constexpr int kFisheyeStop = 3;

// A finite-conjugate relay: object 60 mm in front of a biconvex singlet with
// the stop just behind it.
inline System finite_relay() {
  return make_system({0.0, 40.0, -40.0, 0.0, 0.0}, {60.0, 5.0, 2.0, 60.0, 0.0},
                     {1.0, 1.5168, 1.0, 1.0, 1.0});
}
constexpr int kFiniteRelayStop = 3;

}  // namespace nuvrix_test
