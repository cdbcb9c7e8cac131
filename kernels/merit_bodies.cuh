// The body of the population merit kernel, one candidate a thread, written
// once for the device and the host (the stand-in driver of the tests runs
// it too).  Each candidate is the base system with its own curvature,
// thickness and conic on every surface and its own glass behind every
// surface; the body writes the candidate's surfaces and index rows into
// its sections of the scratch and runs evaluate_merit on them, so the
// device computes what the CPU computes.
#pragma once

#include "kernels/value_bodies.cuh"
#include "merit/merit_function.hpp"

namespace nuvrix {
namespace kernels {

// How the population rows reach the kernel.  The plain kernel reads
// doubles and material ids candidate by candidate (row i of n); the _f32
// kernel reads the three parameter rows as floats, uploaded at half the
// bytes; the _soa kernel reads all four surface-major (surface k of
// candidate i at k * population + i), so that the threads of a warp read
// neighbouring words.  Plain and _soa see the same numbers.
enum RowLayout { kRowsPlain = 0, kRowsFloat = 1, kRowsSurfaceMajor = 2 };

NUVRIX_HD long row_at(int layout, int i, int k, int n, int population) {
  return layout == kRowsSurfaceMajor ? static_cast<long>(k) * population + i
                                     : static_cast<long>(i) * n + k;
}

NUVRIX_HD double row_value(void const* rows, int layout, long at) {
  return layout == kRowsFloat ? static_cast<double>(static_cast<float const*>(rows)[at])
                              : static_cast<double const*>(rows)[at];
}

// The population's arrays, as the kernel's parameters hand them.
struct MeritPopulation {
  SurfaceData const* surfaces;
  int n;
  double const* catalog;
  int const* material_ids;
  int wave_count;
  double const* wavelengths;
  SystemConfig const* config;
  FieldData const* fields;
  int field_count;
  MeritOperandDesc const* operands;
  int operand_count;
  void const* curvatures;
  void const* thicknesses;
  void const* conics;
  SurfaceData* own_surfaces;  // n a candidate
  double* own_rows;           // wave_count rows of n a candidate
  MeritResult* results;       // operand_count a candidate
  double* work;               // field_count + 2 operand_count + 8 a candidate
  double* merit_values;
  int population;
};

// Candidate i: its system into its sections, then its merit.  The
// residuals go to the candidate's working space.
NUVRIX_HD void merit_value_body(int i, int layout, MeritPopulation const& p) {
  if (i >= p.population) return;
  int const n = p.n, W = p.wave_count;
  long const at = static_cast<long>(i);
  SurfaceData* own = p.own_surfaces + at * n;
  double* rows = p.own_rows + at * W * n;
  for (int k = 0; k < n; ++k) {
    long const j = row_at(layout, i, k, n, p.population);
    own[k] = p.surfaces[k];
    own[k].curvature = row_value(p.curvatures, layout, j);
    own[k].thickness = row_value(p.thicknesses, layout, j);
    own[k].conic = row_value(p.conics, layout, j);
    int const g = p.material_ids[layout == kRowsSurfaceMajor ? j : at * n + k];
    for (int w = 0; w < W; ++w) {
      rows[static_cast<long>(w) * n + k] =
          g >= 0 ? p.catalog[static_cast<long>(g) * W + w] : 1.0;
    }
  }
  long const work_stride = p.field_count + 2L * p.operand_count + 8;
  int slots = 0;
  double merit = 0.0;
  evaluate_merit(own, n, rows, p.wavelengths, W, p.config, p.fields, p.field_count, p.operands,
                 p.operand_count, p.results + at * p.operand_count, p.work + at * work_stride,
                 &slots, &merit, false, nullptr);
  p.merit_values[i] = merit;
}

}  // namespace kernels
}  // namespace nuvrix
