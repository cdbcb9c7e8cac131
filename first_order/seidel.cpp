// The third-order analysis: per-surface Seidel sums for display.
//
// A marginal ray (from the axial object point to the rim of the entrance
// pupil) and a chief ray (from the largest field to the pupil centre) are
// launched as real rays and walked surface by surface.  Each keeps its height
// and its direction cosines; the slope it refracts with is their tangent
// m / n, and each refraction returns a tangent that is turned back into
// direction cosines.  Every surface is a refraction here: mirrors and matrix
// surfaces have no step of their own, and an ideal thin lens bends the rays
// but reports no aberration.
#include "first_order/seidel.hpp"

#include "first_order/paraxial_solve.hpp"

namespace nuvrix {
namespace {

// A meridional ray of the analysis: height and direction cosines (m, n).
struct CosineRay {
  double y, m, n;
};

// The tangent that the ray refracts with.
double slope(CosineRay const& r) { return r.m / r.n; }

// A new tangent w as direction cosines: n = 1 / sqrt(1 + w^2), m = w n.
void set_tangent(CosineRay& r, double w) {
  r.n = 1.0 / sqrt(1.0 + w * w);
  r.m = w * r.n;
}

CosineRay launch(SurfaceData const* surfaces, int n, double const* indices,
                 SystemConfig const* config, double field, double pupil_radius, double py,
                 double pupil_position) {
  CosineRay r;
  double x, l;
  get_launch_conditions(surfaces, n, indices, config, surfaces[0].thickness, field, pupil_radius,
                        py, pupil_position, x, r.y, l, r.m, r.n);
  return r;
}

// The largest field magnitude; 0 without fields.
double largest_field(FieldData const* fields, int field_count) {
  double best = 0.0;
  for (int f = 0; f < field_count; ++f) {
    if (fabs(fields[f].field_y) > best) best = fabs(fields[f].field_y);
  }
  return best;
}

void add_to_totals(SeidelResult& totals, SeidelSurfaceCoeffs const& r) {
  totals.s1 += r.s1;
  totals.s2 += r.s2;
  totals.s3 += r.s3;
  totals.s4 += r.s4;
  totals.s5 += r.s5;
  totals.c1 += r.c1;
  totals.c2 += r.c2;
  ++totals.count;
}

}  // namespace

int compute_seidel_coefficients(SurfaceData const* surfaces, int n, double const* indices,
                                double const* indices_short, double const* indices_long,
                                SystemConfig const* config, FieldData const* fields,
                                int field_count, SeidelSurfaceCoeffs* coefficients, int capacity,
                                SeidelResult* result) {
  SeidelResult totals = {};
  if (capacity < 1 || n - 1 < 2) {
    *result = totals;
    return 0;
  }
  double const pupil_radius = paraxial_marginal_height(surfaces, n, indices, *config);
  double const p = compute_entrance_pupil_position(surfaces, n, indices, config->stop_surface);
  double const field_max = largest_field(fields, field_count);
  CosineRay mr = launch(surfaces, n, indices, config, 0.0, pupil_radius, 1.0, p);
  CosineRay cr = launch(surfaces, n, indices, config, field_max, pupil_radius, 0.0, p);
  bool const colour = indices_short != nullptr && indices_long != nullptr;

  for (int i = 1; i <= n - 2 && totals.count < capacity; ++i) {
    // Transfer from surface i - 1; only a non-finite spacing is skipped.
    double const u_m = slope(mr), u_c = slope(cr);
    double t = surfaces[i - 1].thickness;
    if (!detail::is_finite(t)) t = 0.0;
    mr.y += t * u_m;
    cr.y += t * u_c;

    // Power; a plane between equal indices is a dummy and reports nothing.
    SurfaceData const& s = surfaces[i];
    double const n_a = indices[i - 1], n_b = indices[i], c = s.curvature;
    bool const thin_lens = s.type == NUVRIX_SURFACE_PARAXIAL_LENS;
    double power;
    if (thin_lens) {
      power = detail::thin_lens_power_finite(s.focal_length);
    } else {
      if (fabs(n_a - n_b) < kTiny && fabs(c) < kPlaneCurvature) continue;
      power = (n_b - n_a) * c;
    }
    double const w_m = (n_a * u_m - power * mr.y) / n_b;
    double const w_c = (n_a * u_c - power * cr.y) / n_b;
    set_tangent(mr, w_m);
    set_tangent(cr, w_c);

    SeidelSurfaceCoeffs rec = {};
    rec.surface = i;
    if (!thin_lens) {
      double const d = w_m / n_b - u_m / n_a;
      detail::SeidelSurfaceTerms<double> const t3 =
          detail::seidel_surface_terms<double, double>(n_a, n_b, c, mr.y, u_m, cr.y, u_c, d);
      rec.s1 = t3.s1;
      rec.s2 = t3.s2;
      rec.s3 = t3.s3;
      rec.s4 = t3.s4;
      rec.s5 = t3.s5;
      if (colour) {
        double const dn = fabs(indices_long[i] - indices_short[i]);
        double const dn0 = fabs(indices_long[i - 1] - indices_short[i - 1]);
        rec.c1 = (dn / n_b - dn0 / n_a) * (-t3.A) * mr.y;
        rec.c2 = rec.c1 * t3.q;
      }
    }
    coefficients[totals.count] = rec;
    add_to_totals(totals, rec);
  }
  *result = totals;
  return 0;
}

}  // namespace nuvrix
