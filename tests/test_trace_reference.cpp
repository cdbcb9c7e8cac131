// The exported trace against a plain loop written from the trace's formulas:
// every field of every result and history record agrees bit for bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "api/nuvrix.h"
#include "tests/systems.hpp"

using nuvrix_test::System;

namespace {

struct Ray {
  double x, y, z, l, m, n, nx, ny, nz, sag, opl;
};

RayState state_of(Ray const& r, int status) {
  return RayState{r.x, r.y, r.z, r.l, r.m, r.n, r.nx, r.ny, r.nz, r.sag, status};
}

RayTraceResult result_of(Ray const& r, int status, int surface, double violation, int count) {
  RayTraceResult res;
  std::memset(&res, 0, sizeof res);
  res.x = r.x, res.y = r.y, res.z = r.z, res.l = r.l, res.m = r.m, res.n = r.n;
  res.nx = r.nx, res.ny = r.ny, res.nz = r.nz, res.sag_path = r.sag;
  res.status = status, res.failed_surface = surface, res.violation = violation;
  res.states_written = count;
  return res;
}

double medium(SurfaceData const* s, int count, double const* row, int i, double wl) {
  if (i < 0 || i >= count) return 1.0;
  if (s[i].model_glass != 0 && wl > 0.0) {
    double const nd = s[i].model_nd, vd = s[i].model_vd, dpgf = s[i].model_dpgf;
    if (std::fabs(vd) < 1e-12) return nd;
    double const v = 1.0 / (wl / 1000.0);
    double const P = 0.643640694 - 0.001680893 * vd + dpgf;
    double const c0 = 1.177526148 - 6.11873892 * P, c1 = -8.932045225 + 18.27315722 * P;
    double const c2 = 7.910159645 - 14.55275321 * P, c3 = -1.803211179 + 3.483851069 * P;
    double const d = std::fma(c3, v * v * v, std::fma(c2, v * v, std::fma(c1, v, c0)));
    return nd + ((nd - 1.0) / vd) * d;
  }
  return row[i];
}

double asphere_sag(double r2, SurfaceData const& s) {
  double const c = s.curvature;
  double sag = 0.0;
  if (std::fabs(c) > 1e-15) {
    double rad = 1.0 - (1.0 + s.conic) * c * c * r2;
    if (rad < 0.0) rad = 0.0;
    sag = r2 * c / (1.0 + std::sqrt(rad));
  }
  double p = r2;
  for (int k = 0; k < 8; ++k) {
    if (s.coefficients[k] != 0.0) sag = std::fma(s.coefficients[k], p, sag);
    p = p * r2;
  }
  return sag;
}

// Nearest root of the conic from (x, y, z) along (l, m, n).
bool conic_root(Ray const& r, double c, double k1, double& t) {
  double const F = c * std::fma(k1 * r.z, r.z, std::fma(r.y, r.y, r.x * r.x)) - 2.0 * r.z;
  double const B = r.n - c * std::fma(k1 * r.z, r.n, std::fma(r.y, r.m, r.x * r.l));
  double const D = B * B - c * F * std::fma(k1 * r.n, r.n, std::fma(r.m, r.m, r.l * r.l));
  if (D < 0.0) return false;
  double const s = std::sqrt(D);
  double const den = B >= 0.0 ? B + s : B - s;
  if (std::fabs(den) < 1e-15) return false;
  t = F / den;
  return true;
}

void normal_from_gradient(Ray& r, double gx, double gy) {
  double const norm = std::sqrt(std::fma(gy, gy, gx * gx) + 1.0);
  r.nx = gx / norm, r.ny = gy / norm, r.nz = -1.0 / norm;
}

double normal_root(double r2, double c, double k1) {
  double const rad = 1.0 - k1 * c * c * r2;
  if (rad < 0.0) return 1e-15;
  double const root = std::sqrt(rad);
  return root > 1e-15 ? root : 1e-15;
}

bool intersect(Ray& r, SurfaceData const& s) {
  double const c = s.curvature, k1 = 1.0 + s.conic;
  Ray h = r;
  if (s.type == 1) {
    double t = 0.0;
    bool started = std::fabs(c) >= 1e-15 && conic_root(h, c, k1, t);
    if (std::fabs(h.n) <= 1e-15) return false;
    if (!started) t = -h.z / h.n;
    h.x = std::fma(t, h.l, h.x), h.y = std::fma(t, h.m, h.y), h.z = std::fma(t, h.n, h.z);
    for (int it = 0; it < 1000; ++it) {
      double const e = asphere_sag(std::fma(h.y, h.y, h.x * h.x), s) - h.z;
      if (!std::isfinite(e)) return false;
      if (std::fabs(e) < 1e-12) break;
      double const step = std::fabs(h.n) > 0.8 ? e / h.n : e;
      h.x = std::fma(step, h.l, h.x), h.y = std::fma(step, h.m, h.y), h.z = std::fma(step, h.n, h.z);
    }
    if (!std::isfinite(h.x) || !std::isfinite(h.y) || !std::isfinite(h.z)) return false;
    double const dx = h.x - r.x, dy = h.y - r.y, dz = h.z - r.z;
    double d = std::sqrt(std::fma(dz, dz, std::fma(dy, dy, dx * dx)));
    if (std::fma(dz, h.n, std::fma(dy, h.m, dx * h.l)) < 0.0) d = -d;
    h.sag = h.sag + d;
    double const r2 = std::fma(h.y, h.y, h.x * h.x);
    double gx = 0.0, gy = 0.0;
    if (std::fabs(c) > 1e-15) {
      double const root = normal_root(r2, c, k1);
      gx = h.x * c / root, gy = h.y * c / root;
    }
    double p = 1.0;
    for (int k = 0; k < 8; ++k) {
      if (s.coefficients[k] != 0.0) {
        double const g = 2.0 * (k + 1) * s.coefficients[k] * p;
        gx = gx + g * h.x, gy = gy + g * h.y;
      }
      p = p * r2;
    }
    normal_from_gradient(h, gx, gy);
  } else if (std::fabs(c) < 1e-15) {
    if (std::fabs(h.n) < 1e-15) return false;
    double const t = -h.z / h.n;
    h.x = std::fma(t, h.l, h.x), h.y = std::fma(t, h.m, h.y), h.z = 0.0;
    h.nx = 0.0, h.ny = 0.0, h.nz = -1.0;
    h.sag = h.sag + t;
  } else {
    double t;
    if (!conic_root(h, c, k1, t)) return false;
    h.x = std::fma(t, h.l, h.x), h.y = std::fma(t, h.m, h.y), h.z = std::fma(t, h.n, h.z);
    h.sag = h.sag + t;
    double const root = normal_root(std::fma(h.y, h.y, h.x * h.x), c, k1);
    normal_from_gradient(h, h.x * c / root, h.y * c / root);
  }
  if (!std::isfinite(h.x) || !std::isfinite(h.y) || !std::isfinite(h.z)) return false;
  r = h;
  return true;
}

void direction_from_tangents(Ray& r, double tx, double ty) {
  double const len = std::sqrt(std::fma(ty, ty, tx * tx) + 1.0);
  r.l = tx / len, r.m = ty / len, r.n = 1.0 / len;
}

// Returns the path correction of an ideal thin lens (0 with `applies` false).
double thin_lens(Ray& r, double n1, double n2, double f, bool& applies) {
  applies = false;
  bool const usable = std::isfinite(f) && f != 0.0;
  double const r2 = std::fma(r.y, r.y, r.x * r.x);
  bool const blocked = std::fabs(r.n) < 1e-15 || std::fabs(n2) < 1e-15;
  double const tx = r.l / r.n, ty = r.m / r.n;
  if (!(r2 > 1e-20 && usable)) {
    if (usable && !blocked) {
      direction_from_tangents(r, (n1 * tx - r.x / f) / n2, (n1 * ty - r.y / f) / n2);
    }
    return 0.0;
  }
  double const rr = std::sqrt(r2);
  double const u = std::fma(r.y, ty, r.x * tx) / rr;
  double txp = tx, typ = ty;
  if (!blocked) {
    txp = (n1 * tx - r.x / f) / n2, typ = (n1 * ty - r.y / f) / n2;
    direction_from_tangents(r, txp, typ);
  }
  double const up = std::fma(r.y, typ, r.x * txp) / rr;
  double object_term = 0.0, image_term = 0.0;
  if (std::fabs(u) > 1e-12) {
    double const s = rr / u;
    object_term = -(s < 0.0 ? -1.0 : 1.0) * n1 * (std::sqrt(std::fma(s, s, r2)) - std::fabs(s));
  }
  if (std::fabs(up) > 1e-12) {
    double const s = -rr / up;
    image_term = -(s < 0.0 ? -1.0 : 1.0) * n2 * (std::sqrt(std::fma(s, s, r2)) - std::fabs(s));
  }
  applies = true;
  return object_term + image_term;
}

// False on total internal reflection, with its margin.
bool refract(Ray& r, double n1, double n2, double& margin) {
  if (std::fabs(n1 - n2) <= 1e-15) return true;
  double const mu = n1 / n2;
  double const dot = std::fma(r.nz, r.n, std::fma(r.ny, r.m, r.nx * r.l));
  double const sg = dot > 0.0 ? -1.0 : 1.0;
  double const c1 = dot > 0.0 ? dot : -dot;
  double const s2 = dot * dot > 1.0 ? 0.0 : 1.0 - dot * dot;
  double const w = 1.0 - mu * mu * s2;
  if (w < 0.0) {
    double const q = n2 / n1;
    margin = std::fabs(dot) > 1.0 ? 0.0 : std::fmax(0.0, s2 - q * q);
    return false;
  }
  double const g = mu * c1 - std::sqrt(w);
  double l = mu * r.l + g * (sg * r.nx), m = mu * r.m + g * (sg * r.ny);
  double n = mu * r.n + g * (sg * r.nz);
  double const len = std::sqrt(std::fma(n, n, std::fma(m, m, l * l)));
  if (len > 1e-15) l = l / len, m = m / len, n = n / len;
  r.l = l, r.m = m, r.n = n;
  return true;
}

RayTraceResult reference_trace(SurfaceData const* S, int count, double const* row, double x0,
                               double y0, double l0, double m0, double n0, RayState* states,
                               int start, int last_surface, double wl, int max_states) {
  Ray r = {x0, y0, 0.0, l0, m0, n0, 0.0, 0.0, 0.0, 0.0, 0.0};
  double phase = 0.0;
  int written = 0;
  if (states != nullptr) {
    if (max_states > 0) states[0] = state_of(r, 0);
    written = 1;
  }
  if (start < 1) return result_of(r, -2, start, 1.0, written);
  int last = last_surface < 1 ? count - 1 : last_surface;
  if (last > count - 1) last = count - 1;
  if (last < start) {
    RayTraceResult res = result_of(r, 0, -1, 0.0, written);
    res.valid = 1;
    return res;
  }
  for (int i = start; i <= last; ++i) {
    double const n1 = medium(S, count, row, i - 1, wl), n2 = medium(S, count, row, i, wl);
    double const t = S[i - 1].thickness;
    Ray const old = r;
    bool const infinite = !(std::fabs(t) < 1e10);
    if (!infinite && !(std::fabs(r.n) < 1e-15)) {
      double const d = (t - r.z) / r.n;
      r.x = std::fma(d, r.l, r.x), r.y = std::fma(d, r.m, r.y), r.z = 0.0;
    }
    if (!intersect(r, S[i])) return result_of(r, -2, i, 1.0, written);
    if (!infinite) {
      double const dx = r.x - old.x, dy = r.y - old.y, dz = r.z + t - old.z;
      double d = std::sqrt(std::fma(dz, dz, std::fma(dy, dy, dx * dx)));
      if (!(S[i - 1].is_mirror != 0 && t < 0.0) && dz * r.n < 0.0) d = -d;
      r.opl += d * n1;
      if (wl > 0.0) phase += d * 1000.0 * n1 / (wl / 1000.0);
    }
    SurfaceData const& s = S[i];
    if (i < count - 1) {
      double limit = 0.0;
      if (s.aperture_radius > 0.0) {
        limit = s.aperture_radius;
      } else if (s.aperture_radius_alt > 0.0) {
        limit = s.aperture_radius_alt;
      } else if (s.semi_diameter > 0.0 && !(s.aperture_override > 0.0) &&
                 (s.aperture_kind == 1 || (s.aperture_kind == 0 && s.aperture_percent < 100.0))) {
        limit = s.semi_diameter;
      }
      double const r2 = std::fma(r.y, r.y, r.x * r.x);
      if (limit > 0.0 && r2 > limit * limit * 1.01) {
        if (states != nullptr) {
          if (written < max_states) states[written] = state_of(r, -2);
          ++written;
        }
        return result_of(r, -2, i, std::sqrt(r2) / limit - 1.0, written);
      }
    }
    if (!(i >= count - 1 && i >= last)) {
      if (s.type == 2) {
        bool applies;
        double const extra = thin_lens(r, n1, n2, s.focal_length, applies);
        if (applies) {
          r.opl += extra;
          if (wl > 0.0) phase += extra * 1000.0 / (wl / 1000.0);
        }
      } else if (s.type == 4) {
        if (!(std::fabs(r.n) <= 1e-15)) {
          double const* e = s.coefficients;
          double const tx = r.l / r.n, ty = r.m / r.n, x = r.x, y = r.y;
          r.x = e[0] * x + e[1] * tx, r.y = e[0] * y + e[1] * ty;
          direction_from_tangents(r, e[2] * x + e[3] * tx, e[2] * y + e[3] * ty);
        }
      } else if (s.is_mirror != 0) {
        double const dot2 = 2.0 * std::fma(r.nz, r.n, std::fma(r.ny, r.m, r.nx * r.l));
        r.l = r.l - dot2 * r.nx, r.m = r.m - dot2 * r.ny, r.n = r.n - dot2 * r.nz;
      } else {
        double margin = 0.0;
        if (!refract(r, n1, n2, margin)) return result_of(r, -1, i, margin, written);
      }
    }
    if (states != nullptr) {
      if (written < max_states) states[written] = state_of(r, 0);
      ++written;
    }
  }
  RayTraceResult res = result_of(r, 0, -1, 0.0, written);
  res.opl = r.opl, res.phase_waves = phase, res.valid = 1;
  return res;
}

bool same(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool same_state(RayState const& a, RayState const& b) {
  double const da[] = {a.x, a.y, a.z, a.l, a.m, a.n, a.nx, a.ny, a.nz, a.sag_path};
  double const db[] = {b.x, b.y, b.z, b.l, b.m, b.n, b.nx, b.ny, b.nz, b.sag_path};
  for (int k = 0; k < 10; ++k) {
    if (!same(da[k], db[k])) return false;
  }
  return a.status == b.status;
}

bool same_result(RayTraceResult const& a, RayTraceResult const& b) {
  RayState const sa = {a.x, a.y, a.z, a.l, a.m, a.n, a.nx, a.ny, a.nz, a.sag_path, a.status};
  RayState const sb = {b.x, b.y, b.z, b.l, b.m, b.n, b.nx, b.ny, b.nz, b.sag_path, b.status};
  return same_state(sa, sb) && same(a.opl, b.opl) && same(a.phase_waves, b.phase_waves) &&
         same(a.violation, b.violation) && a.valid == b.valid &&
         a.states_written == b.states_written && a.failed_surface == b.failed_surface;
}

// Systems that between them take every branch of the trace.
std::vector<System> test_systems() {
  std::vector<System> out = {nuvrix_test::cooke_triplet(), nuvrix_test::eight_term_asphere(),
                             nuvrix_test::parabolic_mirror(100.0),
                             nuvrix_test::ideal_thin_lens(50.0), nuvrix_test::retrofocus(),
                             nuvrix_test::fisheye(), nuvrix_test::finite_relay()};
  // The triplet with apertures of every kind and a model glass.
  System clipped = nuvrix_test::cooke_triplet();
  SurfaceData* c = clipped.surfaces.data();
  c[1].semi_diameter = 6.0, c[1].aperture_kind = 0, c[1].aperture_percent = 90.0;
  c[2].semi_diameter = 6.0, c[2].aperture_kind = 1;
  c[4].aperture_radius = 4.0, c[6].aperture_radius_alt = 7.0;
  c[5].model_glass = 1, c[5].model_nd = 1.62, c[5].model_vd = 60.3, c[5].model_dpgf = 0.002;
  out.push_back(clipped);
  // A folded system: conic mirror, matrix, thin lens, then glass.
  System folded = nuvrix_test::make_system({0.0, -80.0, 0.0, 0.0, 25.0, 0.0},
                                           {30.0, -20.0, -10.0, -15.0, -5.0, 0.0},
                                           {1, 1, 1, 1, 1.5, 1.5});
  SurfaceData* f = folded.surfaces.data();
  f[1].is_mirror = 1, f[1].conic = -0.3;
  f[2].type = NUVRIX_SURFACE_MATRIX;
  double const abcd[4] = {1.2, -3.0, 0.02, 0.9};
  std::memcpy(f[2].coefficients, abcd, sizeof abcd);
  f[3].type = NUVRIX_SURFACE_PARAXIAL_LENS, f[3].focal_length = 25.0;
  out.push_back(folded);
  // A strong asphere into dense glass (total internal reflection at the
  // back) and a hyperbolic surface of unknown type.
  System dense = nuvrix_test::make_system({0.0, 10.0, 0.0, -30.0, 0.0}, {5.0, 4.0, 3.0, 20.0, 0.0},
                                          {1.0, 1.8, 1.0, 1.5, 1.5});
  SurfaceData* d = dense.surfaces.data();
  d[1].type = NUVRIX_SURFACE_EVEN_ASPHERE, d[1].conic = 0.5;
  d[1].coefficients[0] = 0.01, d[1].coefficients[3] = -1e-7;
  d[3].type = 3, d[3].conic = -2.0;
  out.push_back(dense);
  return out;
}

}  // namespace

TEST(TraceReference, ExportsMatchPlainLoopBitForBit) {
  // Whole traces with and without the history, and inner-to-inner traces.
  std::vector<System> const systems = test_systems();
  std::vector<RayState> got(256), want(256);
  int compared = 0, failures = 0, histories = 0;
  for (System const& sys : systems) {
    SurfaceData const* S = sys.surfaces.data();
    int const count = sys.count();
    double const* row = sys.row();
    for (int a = 0; a < 17; ++a) {
      double const angle = (a - 8) * 5.3 * 3.14159265358979323846 / 180.0;
      for (int p = 0; p < 29; ++p) {
        double const x = (p % 5 - 2) * 0.41, y = (p - 14) * 0.83;
        double const l = 0.03 * (a % 5 - 2), m = std::sin(angle);
        double const n = std::sqrt(std::fmax(0.0, 1.0 - l * l - m * m));
        for (double wl : {0.0, 587.5618, 486.1327}) {
          RayTraceResult const fast = nuvrix_trace_ray(S, count, row, 1, 0, x, y, l, m, n, wl);
          ASSERT_TRUE(same_result(fast, reference_trace(S, count, row, x, y, l, m, n, nullptr, 1,
                                                        0, wl, 0)))
              << "system " << (&sys - systems.data()) << " ray " << a << "," << p << " wl " << wl;
          ++compared;
          failures += fast.valid == 0;
          RayTraceResult const full =
              nuvrix_trace_ray_full(S, count, row, got.data(), 1, 0, x, y, l, m, n, wl);
          ASSERT_TRUE(same_result(full, reference_trace(S, count, row, x, y, l, m, n,
                                                        want.data(), 1, 0, wl, 256)));
          for (int k = 0; k < full.states_written; ++k, ++histories) {
            ASSERT_TRUE(same_state(got[k], want[k])) << k;
          }
          if (count > 3) {
            RayTraceResult const inner =
                nuvrix_trace_ray(S, count, row, 2, count - 2, x, y, l, m, n, wl);
            ASSERT_TRUE(same_result(inner, reference_trace(S, count, row, x, y, l, m, n, nullptr,
                                                           2, count - 2, wl, 0)));
          }
        }
      }
    }
  }
  // The set exercises failures as well as successes.
  EXPECT_GT(failures, compared / 20);
  EXPECT_LT(failures, compared - compared / 4);
  EXPECT_GT(histories, compared);
}
