// Zernike terms against Noll's order, quadrature orthonormality and closed
// forms; the fit against maps of known terms; the chain against defocus.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <set>
#include <utility>

#include "analysis/zernike.hpp"
#include "tests/opd_systems.hpp"

using nuvrix::eval_standard_zernike;
using nuvrix::NollNM;

namespace {

// Gauss-Legendre nodes and weights on [0, 1], by Newton's method on P_n.
void gauss_legendre_01(int n, double* node, double* weight) {
  for (int k = 0; k < n; ++k) {
    double t = std::cos(M_PI * (k + 0.75) / (n + 0.5)), dp = 1.0;
    for (int it = 0; it < 100; ++it) {
      double p0 = 1.0, p1 = t;
      for (int l = 2; l <= n; ++l)
        std::swap(p0, p1), p1 = ((2 * l - 1) * t * p0 - (l - 1) * p1) / l;
      dp = n * (t * p1 - p0) / (t * t - 1.0);
      t -= p1 / dp;
    }
    node[k] = 0.5 * (t + 1.0);
    weight[k] = 1.0 / ((1.0 - t * t) * dp * dp);
  }
}

// Closed forms of some terms in Cartesian pupil coordinates.
double closed_form(int j, double x, double y) {
  double const r2 = x * x + y * y, r4 = r2 * r2, r6 = r4 * r2;
  switch (j) {  // clang-format off
    case 1: return 1.0;
    case 2: return 2.0 * x;
    case 3: return 2.0 * y;
    case 4: return std::sqrt(3.0) * (2.0 * r2 - 1.0);                            // defocus
    case 5: return std::sqrt(6.0) * 2.0 * x * y;
    case 6: return std::sqrt(6.0) * (x * x - y * y);
    case 7: return std::sqrt(8.0) * (3.0 * r2 - 2.0) * y;                        // coma, sine
    case 8: return std::sqrt(8.0) * (3.0 * r2 - 2.0) * x;                        // coma, cosine
    case 9: return std::sqrt(8.0) * (3.0 * x * x * y - y * y * y);
    case 10: return std::sqrt(8.0) * (x * x * x - 3.0 * x * y * y);
    case 11: return std::sqrt(5.0) * (6.0 * r4 - 6.0 * r2 + 1.0);                // spherical
    case 12: return std::sqrt(10.0) * (4.0 * r2 - 3.0) * (x * x - y * y);
    case 16: return std::sqrt(12.0) * (10.0 * r4 - 12.0 * r2 + 3.0) * x;
    case 22: return std::sqrt(7.0) * (20.0 * r6 - 30.0 * r4 + 12.0 * r2 - 1.0);
    case 37: return 3.0 * (70.0 * r6 * r2 - 140.0 * r6 + 90.0 * r4 - 20.0 * r2 + 1.0);
  }  // clang-format on
  return NAN;
}
int const kClosed[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 16, 22, 37};

// A map of N x N samples at the cell centres, every mark 1.
struct Grid {
  int N;
  std::vector<double> w;
  std::vector<int> mask;
};
double cell(int k, int N) { return (2.0 * k + 1.0 - N) / N; }
Grid grid(int N, std::function<double(double, double)> const& f) {
  Grid g = {N, std::vector<double>(N * N), std::vector<int>(N * N, 1)};
  for (int k = 0; k < N * N; ++k) g.w[k] = f(cell(k % N, N), cell(k / N, N));
  return g;
}
bool on_disc(Grid const& g, int k) {
  return std::hypot(cell(k % g.N, g.N), cell(k / g.N, g.N)) <= 1.0;
}

struct Fit {
  int status;
  ZernikeResult r;
};
Fit fit(Grid const& g, int terms) {
  Fit f = {9, {}};
  f.r.field_index = -77;
  f.status = nuvrix::compute_zernike_standard(g.w.data(), g.mask.data(), g.N, terms, &f.r);
  return f;
}
// Count, standard deviation (two passes) and range of the samples that enter.
struct Stats {
  int n;
  double sd, pv;
};
Stats stats_on_disc(Grid const& g) {
  std::vector<double> v;
  for (int k = 0; k < g.N * g.N; ++k)
    if (g.mask[k] && on_disc(g, k)) v.push_back(g.w[k]);
  double mean = 0.0, var = 0.0, lo = 1e300, hi = -1e300;
  for (double w : v) mean += w / v.size(), lo = std::fmin(lo, w), hi = std::fmax(hi, w);
  for (double w : v) var += (w - mean) * (w - mean) / v.size();
  return {static_cast<int>(v.size()), std::sqrt(var), v.empty() ? 0.0 : hi - lo};
}

}  // namespace

// Noll: n, then |m| ascending; even j cosine, odd j sine (pairs 23-28 the
// other way round in this table); every (n, m) to n = 7 once, then (8, 0).
// 12 Gauss-Legendre nodes in rho x 40 steps in theta integrate Z_i Z_j exactly.
TEST(Zernike, TermsFollowNollsOrderAndAreOrthonormalOnTheDisc) {
  std::set<std::pair<int, int>> seen;
  for (int j = 1; j <= 37; ++j) {
    int const n = NollNM[j - 1][0], m = NollNM[j - 1][1];
    EXPECT_TRUE(std::abs(m) <= n && (n - std::abs(m)) % 2 == 0) << j;
    if (m != 0) { EXPECT_EQ(m > 0, (j % 2 == 0) != (j >= 23 && j <= 28)) << j; }
    if (j > 1) {
      int const pn = NollNM[j - 2][0], pa = std::abs(NollNM[j - 2][1]);
      EXPECT_TRUE(n > pn || (n == pn && std::abs(m) >= pa)) << j;
    }
    EXPECT_TRUE(seen.insert({n, m}).second) << j;
  }
  EXPECT_EQ(seen.size(), 37u);
  EXPECT_EQ(NollNM[36][0], 8);
  double node[12], weight[12];
  gauss_legendre_01(12, node, weight);
  for (int a = 1; a <= 37; ++a)
    for (int b = a; b <= 37; ++b) {
      double mean = 0.0;
      for (int q = 0; q < 12; ++q)
        for (int t = 0; t < 40; ++t) {
          double const th = 2.0 * M_PI * t / 40;
          mean += weight[q] * node[q] * eval_standard_zernike(a, node[q], th) *
                  eval_standard_zernike(b, node[q], th) * 2.0 / 40;
        }
      EXPECT_NEAR(mean, a == b ? 1.0 : 0.0, 1e-12) << a << " " << b;
    }
}

// Closed forms above, plus the pure harmonics 21 and 36.
TEST(Zernike, TermsMatchTheirClosedForms) {
  for (double rho : {0.0, 0.3, 0.71, 1.0})
    for (double th : {0.0, 0.4, 2.2, -1.3, M_PI}) {
      double const x = rho * std::cos(th), y = rho * std::sin(th);
      for (int j : kClosed)
        EXPECT_NEAR(eval_standard_zernike(j, rho, th), closed_form(j, x, y), 1e-13);
      EXPECT_NEAR(eval_standard_zernike(21, rho, th),
                  std::sqrt(12.0) * std::pow(rho, 5) * std::sin(5 * th), 1e-13);
      EXPECT_NEAR(eval_standard_zernike(36, rho, th), 4.0 * std::pow(rho, 7) * std::cos(7 * th),
                  1e-13);
    }
}

// A sum of closed forms; masked samples and those beyond the disc carry 1e3
// and must not enter.  Above 37 terms is cut to 37; 11 terms zero the rest.
TEST(ZernikeFit, RecoversKnownCoefficientsFromTheInscribedDisc) {
  double const c[] = {0.3,  -0.12, 0.07, 0.9,  -0.25, 0.4,   0.15, -0.33,
                      0.05, -0.08, 0.21, 0.06, 0.1,   -0.04, 0.02};
  Grid g = grid(48, [&](double x, double y) {
    if (std::hypot(x, y) > 1.0) return 1e3;
    double w = 0.0;
    for (int i = 0; i < 15; ++i) w += c[i] * closed_form(kClosed[i], x, y);
    return w;
  });
  for (int k = 0; k < 48 * 48; k += 7) g.mask[k] = 0, g.w[k] = on_disc(g, k) ? 1e3 : g.w[k];
  Stats const s = stats_on_disc(g);
  double want[37] = {};
  for (int i = 0; i < 15; ++i) want[kClosed[i] - 1] = c[i];
  for (int terms : {37, 50}) {
    Fit const f = fit(g, terms);
    ASSERT_EQ(f.status, 0);
    EXPECT_TRUE(f.r.term_count == 37 && f.r.field_index == -77);
    for (int k = 0; k < 37; ++k) EXPECT_NEAR(f.r.coefficients[k], want[k], 1e-10) << k;
    EXPECT_LT(f.r.residual_rms, 1e-10);
    EXPECT_NEAR(f.r.wavefront_rms, s.sd, 1e-12);
    EXPECT_NEAR(f.r.wavefront_pv, s.pv, 1e-12);
  }
  Grid const low = grid(48, [&](double x, double y) {
    return 0.9 * closed_form(4, x, y) - 0.33 * closed_form(8, x, y);
  });
  Fit const f = fit(low, 11);
  EXPECT_EQ(f.r.term_count, 11);
  EXPECT_NEAR(f.r.coefficients[3], 0.9, 1e-12);
  EXPECT_NEAR(f.r.coefficients[7], -0.33, 1e-12);
  for (int k = 11; k < 37; ++k) EXPECT_EQ(f.r.coefficients[k], 0.0);
}

// A constant is piston alone with flat statistics; for a wavefront outside
// every span each added term can only lower the residual (piston alone: sd).
TEST(ZernikeFit, PistonAndResidualFollowLeastSquares) {
  Fit const p = fit(grid(32, [](double, double) { return 0.5; }), 37);
  ASSERT_EQ(p.status, 0);
  EXPECT_NEAR(p.r.coefficients[0], 0.5, 1e-14);
  for (int k = 1; k < 37; ++k) EXPECT_NEAR(p.r.coefficients[k], 0.0, 1e-14) << k;
  EXPECT_LT(p.r.residual_rms, 1e-14);
  EXPECT_TRUE(p.r.wavefront_rms == 0.0 && p.r.wavefront_pv == 0.0);
  Grid const g = grid(40, [](double x, double y) {
    return std::exp(1.5 * x) * std::cos(3.0 * y) + std::pow(std::hypot(x, y), 9.5);
  });
  double last = fit(g, 1).r.residual_rms;
  EXPECT_NEAR(last, stats_on_disc(g).sd, 1e-12);
  for (int t = 2; t <= 37; ++t) {
    double const r = fit(g, t).r.residual_rms;
    EXPECT_LE(r, last + 1e-12) << t;
    last = r;
  }
  EXPECT_LT(last, 1e-2);
}

// Fewer samples than terms: -1 with statistics filled; as many is no error.
// Samples on the +x axis null every sine term: singular, status 0, zeros.
TEST(ZernikeFit, TooFewSamplesAndRankLoss) {
  Grid g = grid(16, [](double x, double y) { return 0.25 + x - 0.5 * y * y; });
  std::fill(g.mask.begin(), g.mask.end(), 0);
  Fit const empty = fit(g, 4);
  EXPECT_TRUE(empty.status == -1 && empty.r.wavefront_pv == 0.0 && empty.r.wavefront_rms == 0.0);
  for (int k = 130; k < 141; ++k) g.mask[k] = 1;  // 11 samples of a central row
  Fit const few = fit(g, 12);
  EXPECT_TRUE(few.status == -1 && few.r.term_count == 12 && few.r.field_index == -77);
  Stats const s = stats_on_disc(g);
  ASSERT_EQ(s.n, 11);
  EXPECT_NEAR(few.r.wavefront_rms, s.sd, 1e-14);
  EXPECT_NEAR(few.r.wavefront_pv, s.pv, 1e-14);
  for (double c : few.r.coefficients) EXPECT_EQ(c, 0.0);
  EXPECT_EQ(few.r.residual_rms, 0.0);
  EXPECT_EQ(fit(g, 11).status, 0);
  Grid line = grid(101, [](double x, double) { return 0.2 * x + 0.1; });
  for (int k = 0; k < 101 * 101; ++k) line.mask[k] = k / 101 == 50 && k % 101 >= 50;
  Fit const flat = fit(line, 37);
  EXPECT_TRUE(flat.status == 0 && flat.r.term_count == 37 && flat.r.residual_rms == 0.0);
  for (double c : flat.r.coefficients) EXPECT_EQ(c, 0.0);
  EXPECT_NEAR(flat.r.wavefront_rms, stats_on_disc(line).sd, 1e-14);
  EXPECT_GT(flat.r.wavefront_rms, 0.05);
}

namespace {
Fit fit_system(nuvrix_test::System const& sys, SystemConfig const& cfg, FieldData const* fields,
               int field_index, int wave_row, double lambda, int N, double R, int terms) {
  std::vector<double> map(N * N);
  std::vector<int> mask(N * N);
  Fit f = {9, {}};
  std::memset(&f.r, 0x5a, sizeof f.r);
  f.status = nuvrix_compute_zernike_standard(sys.surfaces.data(), sys.count(), sys.row(wave_row),
                                             sys.row(0), lambda, &cfg, fields, 2, field_index, N, R,
                                             terms, map.data(), mask.data(), &f.r);
  return f;
}
}  // namespace

// Ideal f = 100 lens, a = 2, image 5 mm past focus: W = W020 rho^2 with
// W020 = delta a^2 (1 + delta/R) / 2 f^2 (rho^4 term < 1e-3 W020).  The map
// samples px = (N x - 1)/(N - 1), py = (N y + 1)/(N - 1) at the cell centres,
// so with s = N/(N - 1), b = 1/(N - 1): c4 = s^2 W020 / 2 sqrt 3, c2 = -s b
// W020, c3 = s b W020, c1 = W020 (s^2/2 + 2 b^2).  A paraboloid is flat to
// its map's rounding, worst nearest the axis (h = 2 a / (N - 1)).
TEST(ZernikeFull, DefocusedLensIsDefocusAndParaboloidIsFlat) {
  double const f = 100.0, a = 2.0, delta = 5.0, R = 1e4, lambda = 0.5;
  int const N = 32;
  FieldData const axis[2] = {{0.0, 1.0, 0.0}, {0.0, 1.0, 0.0}};
  Fit const d = fit_system(opd_test::thin_lens(f, delta), opd_test::pupil_at_first_surface(a),
                           axis, 1, 0, lambda, N, R, 37);
  ASSERT_EQ(d.status, 0);
  EXPECT_TRUE(d.r.field_index == 1 && d.r.term_count == 37);
  double const w020 = delta * a * a * (1.0 + delta / R) / (2.0 * f * f) * 1000.0 / lambda;
  double const s = N / (N - 1.0), b = 1.0 / (N - 1.0), tol = 1e-3 * w020;
  double want[37] = {w020 * (s * s / 2.0 + 2.0 * b * b), -s * b * w020, s * b * w020,
                     s * s * w020 / (2.0 * std::sqrt(3.0))};
  for (int k = 0; k < 37; ++k) EXPECT_NEAR(d.r.coefficients[k], want[k], tol) << k;
  EXPECT_LT(d.r.residual_rms, tol);
  EXPECT_GT(d.r.wavefront_rms, 0.5 * want[3]);
  Fit const p = fit_system(opd_test::paraboloid(50.0, 0.0), opd_test::pupil_at_first_surface(10.0),
                           axis, 0, 0, 0.55, N, 40.0, 37);
  ASSERT_EQ(p.status, 0);
  double const flat = 2.0 * opd_test::mirror_tolerance(50.0, 10.0 * 2.0 / (N - 1), 40.0, 0.55);
  for (double c : p.r.coefficients) EXPECT_NEAR(c, 0.0, flat);
  EXPECT_TRUE(p.r.residual_rms < flat && p.r.wavefront_pv < flat);
}

// A failing map hands back its status, record untouched; a map too small for
// the terms is the fit's -1 with the field set.
TEST(ZernikeFull, StatusesOfTheMapAndOfTheFit) {
  FieldData const fields[2] = {{40.0, 1.0, 0.0}, {50.0, 1.0, 0.0}};
  SystemConfig const cfg = opd_test::pupil_at_first_surface(0.5);
  unsigned char untouched[sizeof(ZernikeResult)];
  std::memset(untouched, 0x5a, sizeof untouched);
  int const cases[][3] = {{2, 0, -1}, {-1, 0, -1}, {1, 0, -2}, {0, 1, -3}};
  for (auto const& c : cases) {
    Fit const r = fit_system(opd_test::clipped_block(), cfg, fields, c[0], c[1], 0.55, 6, 30.0, 11);
    EXPECT_EQ(r.status, c[2]) << c[0] << " " << c[1];
    EXPECT_EQ(std::memcmp(&r.r, untouched, sizeof untouched), 0) << c[0] << " " << c[1];
  }
  FieldData const axis[2] = {{0.0, 1.0, 0.0}, {0.0, 1.0, 0.0}};
  Fit const small =
      fit_system(opd_test::thin_lens(100.0, 1.0), opd_test::pupil_at_first_surface(2.0), axis, 1, 0,
                 0.5, 4, 100.0, 37);
  EXPECT_TRUE(small.status == -1 && small.r.term_count == 37 && small.r.field_index == 1);
  EXPECT_GT(small.r.wavefront_pv, 0.0);
}

