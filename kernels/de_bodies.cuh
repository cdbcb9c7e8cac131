// The steps of a differential evolution that run on the device: the trial
// of each candidate by mutation, binomial crossover, glass substitution and
// the condition that a trial must meet, and the selection of the better of
// parent and trial.  Written once for the device and the host: the
// stand-in driver of the tests and the CPU search run the same code, so a
// seed gives the same trials everywhere.
#pragma once

#include <stdint.h>

#include "api/nuvrix.h"
#include "api/types.hpp"

namespace nuvrix {
namespace kernels {

// Philox4x32-10: a counter-based generator, so that the draws of candidate
// i in generation g depend on (seed, g, i) alone and not on the order in
// which threads run.
struct Philox {
  uint32_t key[2];
  uint32_t counter[4];
  uint32_t block[4];
  int used;  // words of block already taken
};

NUVRIX_HD void philox_block(uint32_t const counter[4], uint32_t const key_in[2], uint32_t out[4]) {
  uint32_t c0 = counter[0], c1 = counter[1], c2 = counter[2], c3 = counter[3];
  uint32_t k0 = key_in[0], k1 = key_in[1];
  for (int round = 0; round < 10; ++round) {
    uint64_t const p0 = static_cast<uint64_t>(0xD2511F53u) * c0;
    uint64_t const p1 = static_cast<uint64_t>(0xCD9E8D57u) * c2;
    uint32_t const hi0 = static_cast<uint32_t>(p0 >> 32), lo0 = static_cast<uint32_t>(p0);
    uint32_t const hi1 = static_cast<uint32_t>(p1 >> 32), lo1 = static_cast<uint32_t>(p1);
    c0 = hi1 ^ c1 ^ k0, c1 = lo1, c2 = hi0 ^ c3 ^ k1, c3 = lo0;
    k0 += 0x9E3779B9u, k1 += 0xBB67AE85u;
  }
  out[0] = c0, out[1] = c1, out[2] = c2, out[3] = c3;
}

// The stream of candidate `candidate` in generation `generation`.
NUVRIX_HD Philox de_stream(int seed, int generation, int candidate) {
  Philox s = {};
  s.key[0] = static_cast<uint32_t>(seed), s.key[1] = static_cast<uint32_t>(generation);
  s.counter[0] = static_cast<uint32_t>(candidate), s.counter[3] = 0x6465u;
  s.used = 4;
  return s;
}

NUVRIX_HD uint32_t de_word(Philox& s) {
  if (s.used == 4) {
    philox_block(s.counter, s.key, s.block);
    ++s.counter[1];
    s.used = 0;
  }
  return s.block[s.used++];
}

// A uniform double in [0, 1) with 53 random bits.
NUVRIX_HD double de_uniform(Philox& s) {
  uint32_t const a = de_word(s) >> 5, b = de_word(s) >> 6;
  return (a * 67108864.0 + b) * (1.0 / 9007199254740992.0);
}

// A uniform integer in [0, count).
NUVRIX_HD int de_index(Philox& s, int count) {
  int const k = static_cast<int>(de_uniform(s) * count);
  return k < count ? k : count - 1;
}

// The sag of a surface with the trial's curvature and conic at r2 = h^2,
// as the boundary operands form it.
NUVRIX_HD double de_sag(double c, double conic, double const* coefficients, double r2) {
  double sag = 0.0;
  if (fabs(c) > kTiny) {
    double radicand = 1.0 - (1.0 + conic) * c * c * r2;
    if (radicand < 0.0) radicand = 0.0;
    sag = c * r2 / (1.0 + sqrt(radicand));
  }
  double power = r2;
  for (int j = 0; j < 8; ++j) {
    if (coefficients[j] != 0.0) sag = fma(coefficients[j], power, sag);
    power *= r2;
  }
  return sag;
}

// The rows of the population (or of the trials) and the base system.
struct DeRows {
  double* a;  // curvature of each surface, n a candidate
  double* b;  // thickness
  double* c;  // conic
  int* materials;
};

// Whether trial i meets the condition: on each surface of its range, the
// thickness behind it on the axis and at the edge (at the larger of the
// base system's semi-diameters of the two surfaces) at least the minimum
// for glass or for air; a minimum of 0 or less is not checked.
NUVRIX_HD bool de_condition_met(DeRows const& t, long i, SurfaceData const* surfaces, int n,
                                DeConditionDesc const& cond) {
  int const first = cond.first_surface < 1 ? 1 : cond.first_surface;
  int const last = cond.last_surface > n - 2 ? n - 2 : cond.last_surface;
  for (int k = first; k <= last; ++k) {
    double const thickness = t.b[i * n + k];
    if (!(fabs(thickness) < kInfiniteDistance)) continue;
    bool const glass = surfaces[k].is_glass != 0;
    double const centre = glass ? cond.min_glass_center : cond.min_air_center;
    double const edge = glass ? cond.min_glass_edge : cond.min_air_edge;
    if (centre > 0.0 && !(thickness >= centre)) return false;
    if (!(edge > 0.0)) continue;
    double const ha = surfaces[k].semi_diameter, hb = surfaces[k + 1].semi_diameter;
    double const h = ha > hb ? ha : hb, r2 = h * h;
    double const at_edge =
        thickness - de_sag(t.a[i * n + k], t.c[i * n + k], surfaces[k].coefficients, r2) +
        de_sag(t.a[i * n + k + 1], t.c[i * n + k + 1], surfaces[k + 1].coefficients, r2);
    if (!(at_edge >= edge)) return false;
  }
  return true;
}

// The arguments of the vary kernel, as its parameters hand them.
struct DeVary {
  DeRows population, trial;
  double const* vary_table;  // rows of (surface, parameter 0 a / 1 b / 2 c, lower, upper)
  int vary_count, population_size, n;
  int const* glass_surfaces;  // vary_table_b: surfaces whose glass may change
  int const* glass_offsets;   // vary_table_c: vary_count_b + 1 offsets into the choices
  int const* glass_choices;   // vary_table_d: catalogue rows to choose from
  int glass_count;
  int seed, generation, tries;
  double scale, crossover, glass_rate;
  int best, strategy;
  SurfaceData const* surfaces;
  DeConditionDesc condition;
};

NUVRIX_HD double* de_parameter(DeRows const& r, int q) { return q == 0 ? r.a : (q == 1 ? r.b : r.c); }

// Trial i as a copy of its parent.
NUVRIX_HD void de_copy_parent(DeVary const& a, long i) {
  int const n = a.n;
  for (int k = 0; k < n; ++k) {
    a.trial.a[i * n + k] = a.population.a[i * n + k];
    a.trial.b[i * n + k] = a.population.b[i * n + k];
    a.trial.c[i * n + k] = a.population.c[i * n + k];
    a.trial.materials[i * n + k] = a.population.materials[i * n + k];
  }
}

// One draw of trial i: the parent's rows, each varied parameter from the
// mutant base + F (r2 - r3) with the crossover rate's probability (one of
// them for certain when the rate is above 0), a value beyond a bound drawn
// again between the parent and that bound, and each glass of the table
// replaced with the glass rate's probability.
NUVRIX_HD void de_draw(DeVary const& a, long i, int base, int r2, int r3, Philox& s) {
  int const n = a.n;
  de_copy_parent(a, i);
  int const forced = a.crossover > 0.0 && a.vary_count > 0 ? de_index(s, a.vary_count) : -1;
  for (int j = 0; j < a.vary_count; ++j) {
    double const* row = a.vary_table + 4 * j;
    int const k = static_cast<int>(row[0]), q = static_cast<int>(row[1]);
    double const lower = row[2], upper = row[3];
    double const u = de_uniform(s);
    if (k < 0 || k >= n || q < 0 || q > 2) continue;
    double const* from = de_parameter(a.population, q);
    double const parent = from[i * n + k];
    double v = parent;
    if (j == forced || u < a.crossover) {
      v = fma(a.scale, from[static_cast<long>(r2) * n + k] - from[static_cast<long>(r3) * n + k],
              from[static_cast<long>(base) * n + k]);
    }
    double const w = de_uniform(s);
    if (v < lower) v = parent > lower ? lower + w * (parent - lower) : lower;
    if (v > upper) v = parent < upper ? upper - w * (upper - parent) : upper;
    de_parameter(a.trial, q)[i * n + k] = v;
  }
  for (int g = 0; g < a.glass_count; ++g) {
    int const k = a.glass_surfaces[g];
    int const from = a.glass_offsets[g], count = a.glass_offsets[g + 1] - from;
    double const u = de_uniform(s);
    int const pick = count > 0 ? de_index(s, count) : 0;
    if (k < 0 || k >= n || count < 1 || !(u < a.glass_rate)) continue;
    a.trial.materials[i * n + k] = a.glass_choices[from + pick];
  }
}

// Trial i: up to `tries` draws until one meets the condition; the parent
// itself where none does, or where the population is too small for three
// other candidates.
NUVRIX_HD void de_vary_body(long i, DeVary const& a) {
  if (i >= a.population_size) return;
  Philox s = de_stream(a.seed, a.generation, static_cast<int>(i));
  int const P = a.population_size;
  int const tries = a.tries > 0 ? a.tries : 1;
  for (int t = 0; t < tries && P >= 4; ++t) {
    int r1 = de_index(s, P);
    while (r1 == i) r1 = de_index(s, P);
    int r2 = de_index(s, P);
    while (r2 == i || r2 == r1) r2 = de_index(s, P);
    int r3 = de_index(s, P);
    while (r3 == i || r3 == r1 || r3 == r2) r3 = de_index(s, P);
    int const base = a.strategy == 1 && a.best >= 0 && a.best < P ? a.best : r1;
    de_draw(a, i, base, r2, r3, s);
    if (de_condition_met(a.trial, i, a.surfaces, a.n, a.condition)) return;
  }
  de_copy_parent(a, i);
}

// Candidate i keeps the better of parent and trial: a trial replaces the
// parent only with a finite merit below the parent's (or where the
// parent's is not a number), so that no slot ever gets worse.
NUVRIX_HD void de_select_body(long i, DeRows const& population, double* population_merit,
                              DeRows const& trial, double const* trial_merit, int size, int n) {
  if (i >= size) return;
  double const t = trial_merit[i], p = population_merit[i];
  if (!(fabs(t) <= 1.7976931348623157e308) || !(t < p || p != p)) return;
  for (int k = 0; k < n; ++k) {
    population.a[i * n + k] = trial.a[i * n + k];
    population.b[i * n + k] = trial.b[i * n + k];
    population.c[i * n + k] = trial.c[i * n + k];
    population.materials[i * n + k] = trial.materials[i * n + k];
  }
  population_merit[i] = t;
}

}  // namespace kernels
}  // namespace nuvrix
