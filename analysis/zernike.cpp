// Zernike decomposition of a wavefront map: Noll-ordered terms of unit mean
// square on the disc, fitted by normal equations and Gaussian elimination
// with partial pivoting.  Single-threaded; every work array is a fixed
// array on the stack, and the terms are evaluated afresh in each pass.
#include "analysis/zernike.hpp"

#include "analysis/wavefront_map.hpp"
#include "api/types.hpp"

namespace nuvrix {
namespace {

constexpr int kT = kZernikeMaxTerms;
constexpr double kFitExtremeStart = 1e30;  // min W starts here, max W at its negative
constexpr double kSingularPivot = 1e-15;   // a pivot below this: singular normal equations

// k! by plain multiplication.
double factorial(int k) {
  double f = 1.0;
  for (int i = 2; i <= k; ++i) f *= i;
  return f;
}

// Radial polynomial R_n^a(rho), a = |m|; 0 when n - a is odd.
double radial_polynomial(int n, int a, double rho) {
  if ((n - a) % 2 != 0) return 0.0;
  double r = 0.0;
  for (int s = 0; s <= (n - a) / 2; ++s) {
    double const sign = s % 2 == 0 ? 1.0 : -1.0;
    r += sign * factorial(n - s) /
         (factorial(s) * factorial((n + a) / 2 - s) * factorial((n - a) / 2 - s)) *
         ::pow(rho, n - 2 * s);
  }
  return r;
}

// Cell-centred coordinate of column (or row) k of an N-sample side.  These
// are not the map's own pupil coordinates, deliberately: the fit lives on
// the disc inscribed in the array, and a sample of the map's outermost ring
// that lands beyond rho = 1 here stays out of it.
double cell_coordinate(int k, int N) { return 2.0 * (k + 0.5) / N - 1.0; }

// Calls visit(W, z) for every sample that enters the fit: marked valid and
// on the unit disc, z holding its first T terms.
template <typename Visit>
void for_each_fit_sample(double const* map, int const* mask, int N, int T, Visit visit) {
  double z[kT];
  for (int i = 0; i < N; ++i) {
    double const y = cell_coordinate(i, N);
    for (int j = 0; j < N; ++j) {
      int const k = i * N + j;
      double const x = cell_coordinate(j, N);
      double const rho = sqrt(x * x + y * y);
      if (mask[k] == 0 || !(rho <= 1.0)) continue;
      double const theta = atan2(y, x);
      for (int t = 0; t < T; ++t) z[t] = eval_standard_zernike(t + 1, rho, theta);
      visit(map[k], z);
    }
  }
}

// Normal equations and map statistics over the fitted samples.
struct FitSums {
  double normal[kT][kT];
  double rhs[kT];
  int count;
  double sum_w, sum_w2;
  double min_w, max_w;
};

void clear_sums(FitSums& s) {
  for (int a = 0; a < kT; ++a) {
    s.rhs[a] = 0.0;
    for (int b = 0; b < kT; ++b) s.normal[a][b] = 0.0;
  }
  s.count = 0;
  s.sum_w = 0.0;
  s.sum_w2 = 0.0;
  s.min_w = kFitExtremeStart;
  s.max_w = -kFitExtremeStart;
}

// Adds z z^T to the normal matrix and W z to the right-hand side.
void add_sample(FitSums& s, int T, double w, double const* z) {
  for (int a = 0; a < T; ++a) {
    for (int b = 0; b < T; ++b) s.normal[a][b] += z[a] * z[b];
    s.rhs[a] += w * z[a];
  }
  s.count += 1;
  s.sum_w += w;
  s.sum_w2 += w * w;
  if (w < s.min_w) s.min_w = w;
  if (w > s.max_w) s.max_w = w;
}

// Peak-to-valley and standard deviation of the fitted samples; 0 without any.
void set_map_statistics(FitSums const& s, ZernikeResult* result) {
  if (s.count > 0) {
    double const c = s.count;
    double const mean = s.sum_w / c;
    result->wavefront_pv = s.max_w - s.min_w;
    result->wavefront_rms = sqrt(s.sum_w2 / c - mean * mean);
  } else {
    result->wavefront_pv = 0.0;
    result->wavefront_rms = 0.0;
  }
}

// Row of the largest |aug[r][k]| for r >= k; a later row wins only when
// strictly larger, so ties keep the upper row.
int pivot_row(double const (*aug)[kT + 1], int T, int k) {
  int p = k;
  double best = fabs(aug[k][k]);
  for (int r = k + 1; r < T; ++r) {
    double const v = fabs(aug[r][k]);
    if (v > best) {
      best = v;
      p = r;
    }
  }
  return p;
}

void swap_rows(double (*aug)[kT + 1], int T, int a, int b) {
  for (int c = 0; c <= T; ++c) {
    double const t = aug[a][c];
    aug[a][c] = aug[b][c];
    aug[b][c] = t;
  }
}

// Takes row k's multiple out of every row below it, columns k to T.
void eliminate_below(double (*aug)[kT + 1], int T, int k) {
  for (int r = k + 1; r < T; ++r) {
    double const f = aug[r][k] / aug[k][k];
    for (int c = k; c <= T; ++c) aug[r][c] -= f * aug[k][c];
  }
}

// Solves the T x T normal equations by Gaussian elimination with partial
// pivoting on an augmented copy.  False when a pivot falls below 1e-15.
bool solve_normal_equations(FitSums const& s, int T, double* coef) {
  if (T < 1) return true;  // no term asked for: nothing to solve
  double aug[kT][kT + 1];
  for (int r = 0; r < T; ++r) {
    for (int c = 0; c < T; ++c) aug[r][c] = s.normal[r][c];
    aug[r][T] = s.rhs[r];
  }
  for (int k = 0; k < T; ++k) {
    int const p = pivot_row(aug, T, k);
    if (fabs(aug[p][k]) < kSingularPivot) return false;
    if (p != k) swap_rows(aug, T, k, p);
    eliminate_below(aug, T, k);
  }
  for (int i = T - 1; i >= 0; --i) {
    double v = aug[i][T];
    for (int c = i + 1; c < T; ++c) v -= aug[i][c] * coef[c];
    coef[i] = v / aug[i][i];
  }
  return true;
}

// Root mean square of W - sum c_k z_k over the fitted samples, the terms
// evaluated again; no mean is removed.  0 without any sample.
double fit_residual_rms(double const* map, int const* mask, int N, int T, double const* coef) {
  int count = 0;
  double sum_r2 = 0.0;
  for_each_fit_sample(map, mask, N, T, [&](double w, double const* z) {
    double fit = 0.0;
    for (int t = 0; t < T; ++t) fit += coef[t] * z[t];
    double const r = w - fit;
    sum_r2 += r * r;
    count += 1;
  });
  return count > 0 ? sqrt(sum_r2 / count) : 0.0;
}

// Coefficients 0 to T - 1 from coef (when given), the rest of the 37 zero.
void store_coefficients(ZernikeResult* result, int T, double const* coef) {
  for (int k = 0; k < kT; ++k) {
    result->coefficients[k] = (coef != nullptr && k < T) ? coef[k] : 0.0;
  }
}

}  // namespace

double eval_standard_zernike(int j, double rho, double theta) {
  if (j < 1 || j > kZernikeMaxTerms) return 0.0;
  int const n = NollNM[j - 1][0];
  int const m = NollNM[j - 1][1];
  int const a = m < 0 ? -m : m;
  double const r = radial_polynomial(n, a, rho);
  if (m == 0) return sqrt(static_cast<double>(n + 1)) * r;
  double const norm = sqrt(static_cast<double>(2 * (n + 1)));
  if (m > 0) return norm * r * cos(m * theta);
  return norm * r * sin(a * theta);
}

int compute_zernike_standard(double const* map, int const* mask, int grid_size, int term_count,
                             ZernikeResult* result) {
  int const T = term_count < kZernikeMaxTerms ? term_count : kZernikeMaxTerms;
  int const N = grid_size;
  FitSums sums;
  clear_sums(sums);
  for_each_fit_sample(map, mask, N, T,
                      [&](double w, double const* z) { add_sample(sums, T, w, z); });

  result->term_count = T;
  set_map_statistics(sums, result);
  result->residual_rms = 0.0;
  if (sums.count < T) {
    store_coefficients(result, T, nullptr);
    return -1;
  }
  double coef[kT];
  if (!solve_normal_equations(sums, T, coef)) {
    store_coefficients(result, T, nullptr);
    return 0;
  }
  store_coefficients(result, T, coef);
  result->residual_rms = fit_residual_rms(map, mask, N, T, coef);
  return 0;
}

int compute_zernike_standard_full(SurfaceData const* surfaces, int surface_count,
                                  double const* indices, double const* primary_indices,
                                  double wavelength, SystemConfig const* config,
                                  FieldData const* fields, int field_count, int field_index,
                                  int grid_size, double reference_radius, int term_count,
                                  double* map, int* mask, ZernikeResult* result) {
  WavefrontResult discarded;
  int const status = compute_wavefront_map(surfaces, surface_count, indices, primary_indices,
                                           wavelength, config, fields, field_count, field_index,
                                           grid_size, reference_radius, map, mask, &discarded);
  if (status != 0) return status;
  int const fit = compute_zernike_standard(map, mask, grid_size, term_count, result);
  result->field_index = field_index;
  return fit;
}

}  // namespace nuvrix
