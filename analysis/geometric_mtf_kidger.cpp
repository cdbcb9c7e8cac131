// Ray-sum geometric MTF.  The OTF of a geometric spot is the mean of
// exp(-i 2 pi f d) over its hits, d the offset from the chief ray along the
// direction of the frequency; it is summed here directly over rings of
// equal area, with no image array and no transform.  Single-threaded.
#include <math.h>

#include "analysis/fft.hpp"
#include "analysis/geometric_mtf.hpp"
#include "analysis/launch_set.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {
namespace {

constexpr int kMaxHits = 20000;   // hits kept; tracing stops when they are full
constexpr int kFewestHits = 3;    // at most this many hits: nothing usable
constexpr double kOnAxis = 1e-10;  // |field_y| below it: an on-axis field
constexpr int kFewestSpokes = 6;  // rays per ring on axis, at least

// What every ray of the rings shares.
struct RingTrace {
  SurfaceData const* surfaces;
  int surface_count;
  double const* indices;
  SystemConfig const* config;
  LaunchSet launch;
  double wavelength_nm;
};

RayTraceResult trace_ring_ray(RingTrace const& t, double px, double py) {
  LaunchSet const& s = t.launch;
  return trace_arbitrary_ray(t.surfaces, t.surface_count, t.indices, t.config, s.field_value,
                             s.pupil_radius, px, py, t.wavelength_nm, s.entrance_pupil_position,
                             s.aim_flag, s.stop_radius, 0, 0.0);
}

// Rays on each ring: an on-axis spot is round, so max(6, rings / 2) do;
// off axis 2 rings.
int rays_per_ring(double field_y, int rings) {
  if (fabs(field_y) < kOnAxis) return rings / 2 > kFewestSpokes ? rings / 2 : kFewestSpokes;
  return 2 * rings;
}

// Traces ring r = 1 ... rings at rho = sqrt(r / rings), so that every ring
// stands for the same pupil area, ray j at theta = 2 pi j / rays; stores the
// offsets of the hits from (cx, cy) until 20000 are stored.  Returns their
// number.
int collect_hits(RingTrace const& t, double cx, double cy, int rings, double* dx, double* dy) {
  int const rays = rays_per_ring(t.launch.field_value, rings);
  int count = 0;
  for (int r = 1; r <= rings; ++r) {
    double const rho = sqrt(static_cast<double>(r) / rings);
    for (int j = 0; j < rays; ++j) {
      if (count >= kMaxHits) return count;
      double const theta = detail::kTwoPi * j / rays;
      RayTraceResult const ray = trace_ring_ray(t, rho * cos(theta), rho * sin(theta));
      if (!ray.valid) continue;
      dx[count] = ray.x - cx;
      dy[count] = ray.y - cy;
      ++count;
    }
  }
  return count;
}

// |sum over the hits of exp(i w d)| / count, every hit weighing the same.
double ray_sum_modulus(double const* d, int count, double w) {
  double sum_cos = 0.0, sum_sin = 0.0;
  for (int k = 0; k < count; ++k) {
    sum_cos += cos(w * d[k]);
    sum_sin += sin(w * d[k]);
  }
  return sqrt(sum_cos * sum_cos + sum_sin * sum_sin) / count;
}

// Clamps to 0 ... 1.  A value that is not a number reads 1: with
// frequency_steps 0 the one point's frequency is 0 times an infinite (or
// undefined) step, and only that frequency, not the modulus of the zero
// frequency, shows the division.
double clamp_unit(double v) {
  if (!(v <= 1.0)) return 1.0;
  return v < 0.0 ? 0.0 : v;
}

// Point k of the curve, at f = k step; max_frequency is the cutoff of the
// diffraction-limited factor.
void write_point(double const* dx, double const* dy, int count, int k, double step,
                 double max_frequency, int apply_diffraction, double* frequencies,
                 double* tangential, double* sagittal) {
  double const f = k * step;
  frequencies[k] = f;
  double const w = -detail::kTwoPi * f;
  double mx = ray_sum_modulus(dx, count, w);
  double my = ray_sum_modulus(dy, count, w);
  if (apply_diffraction != 0 && f > 0.0) {
    double const x = f / max_frequency;
    double const factor = x >= 1.0 ? 0.0 : detail::diffraction_limited_curve(x);
    mx = mx * factor;
    my = my * factor;
  }
  tangential[k] = clamp_unit(my);
  sagittal[k] = clamp_unit(mx);
}

}  // namespace

int compute_geometric_mtf_kidger(SurfaceData const* surfaces, int surface_count,
                                 double const* indices, SystemConfig const* config,
                                 FieldData const* fields, int field_count, int field_index,
                                 double wavelength, int rings, double max_frequency,
                                 int frequency_steps, int apply_diffraction, double* frequencies,
                                 double* tangential, double* sagittal) {
  if (field_index < 0 || field_index >= field_count) return -1;
  RingTrace t = {surfaces, surface_count, indices, config, LaunchSet{}, wavelength * 1000.0};
  t.launch = compute_launch_set(surfaces, surface_count, indices, *config, fields, field_index);
  RayTraceResult const chief = trace_ring_ray(t, 0.0, 0.0);
  if (!chief.valid) return -2;
  if (rings < 1) return -3;
  double dx[kMaxHits];
  double dy[kMaxHits];
  int const count = collect_hits(t, chief.x, chief.y, rings, dx, dy);
  if (count <= kFewestHits) return -3;
  double const step = max_frequency / frequency_steps;
  if (frequency_steps < 0) return 0;
  for (int k = 0; k <= frequency_steps; ++k) {
    write_point(dx, dy, count, k, step, max_frequency, apply_diffraction, frequencies, tangential,
                sagittal);
  }
  return 0;
}

}  // namespace nuvrix
