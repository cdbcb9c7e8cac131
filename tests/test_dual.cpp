// Dual numbers: each derivative rule against the closed-form derivative,
// the square root's cut at 0, and the generic paraxial templates over dual
// numbers against central differences of their plain instances.
#include <gtest/gtest.h>

#include <cmath>

#include "first_order/paraxial.hpp"
#include "merit/dual.hpp"
#include "merit/wavefront_operands.hpp"
#include "tests/systems.hpp"

using D = nuvrix::Dual<10>;
using nuvrix::make_variable;

TEST(Dual, RulesFollowTheirDerivatives) {
  double const a = 0.7, b = -1.3;
  D const x = make_variable<10>(a, 0), y = make_variable<10>(b, 3);
  struct Case {
    D got;
    double value, dx, dy;
  } const cases[] = {
      {x + y, a + b, 1, 1},
      {x - y, a - b, 1, -1},
      {x * y, a * b, b, a},
      {x / y, a / b, 1 / b, -a / (b * b)},
      {2.0 / y, 2 / b, 0, -2 / (b * b)},
      {3.0 - x * 2.0, 3 - 2 * a, -2, 0},
      {fma(x, y, x), std::fma(a, b, a), b + 1, a},
      {fma(2.0, x, y), std::fma(2.0, a, b), 2, 1},
      {sqrt(x), std::sqrt(a), 0.5 / std::sqrt(a), 0},
      {exp(y), std::exp(b), 0, std::exp(b)},
      {log(x), std::log(a), 1 / a, 0},
      {sin(x) * cos(y), std::sin(a) * std::cos(b), std::cos(a) * std::cos(b),
       -std::sin(a) * std::sin(b)},
      {tan(x), std::tan(a), 1 / (std::cos(a) * std::cos(a)), 0},
      {acos(x), std::acos(a), -1 / std::sqrt(1 - a * a), 0},
      {atan2(y, x), std::atan2(b, a), -b / (a * a + b * b), a / (a * a + b * b)},
      {fabs(y), std::fabs(b), 0, -1},
      {pow(x, 3.0), a * a * a, 3 * a * a, 0},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    Case const& c = cases[i];
    EXPECT_NEAR(c.got.value, c.value, 1e-15) << i;
    EXPECT_NEAR(c.got.d[0], c.dx, 1e-14) << i;
    EXPECT_NEAR(c.got.d[3], c.dy, 1e-14) << i;
    for (int k : {1, 2, 4, 5, 6, 7, 8, 9}) EXPECT_EQ(c.got.d[k], 0.0) << i;
  }
  // The root of 0 has slope 0, not infinity; a constant has no slots.
  D const zero = sqrt(make_variable<10>(0.0, 2));
  EXPECT_EQ(zero.value, 0.0);
  EXPECT_EQ(zero.d[2], 0.0);
  EXPECT_EQ(D(4.0).d[0] + D(4.0).d[9], 0.0);
}

// The generic paraxial trace of the Cooke triplet over dual numbers: the
// slots of the EFL and the BFL by the curvature of surface 3 and the
// thickness of surface 4 against central differences of the plain template.
TEST(Dual, ParaxialTemplatesDifferentiateTheirPlainInstances) {
  nuvrix_test::System const sys = nuvrix_test::cooke_triplet();
  int const n = sys.count();
  double c[256], t[256];
  D cd[256], td[256];
  for (int i = 0; i < n; ++i) {
    c[i] = sys.surfaces[i].curvature, t[i] = sys.surfaces[i].thickness;
    cd[i] = D(c[i]), td[i] = D(t[i]);
  }
  cd[3] = make_variable<10>(c[3], 0);
  td[4] = make_variable<10>(t[4], 1);
  D const efl = nuvrix::calculate_efl_abcd_t<D, double>(cd, td, sys.row(), sys.surfaces.data(), n,
                                                        nullptr, nullptr);
  D const bfl = nuvrix::calculate_bfl_t<D, double>(cd, td, sys.row(), sys.surfaces.data(), n,
                                                   nullptr, nullptr);
  auto plain = [&](double* cc, double* tt, bool back) {
    return back ? nuvrix::calculate_bfl_t<double, double>(cc, tt, sys.row(), sys.surfaces.data(),
                                                          n, nullptr, nullptr)
                : nuvrix::calculate_efl_abcd_t<double, double>(cc, tt, sys.row(),
                                                               sys.surfaces.data(), n, nullptr,
                                                               nullptr);
  };
  for (bool back : {false, true}) {
    D const& got = back ? bfl : efl;
    // The value of every dual step is the plain step's, to the bit.
    EXPECT_EQ(got.value, plain(c, t, back));
    double const hc = 1e-7, ht = 1e-5;
    c[3] += hc;
    double const up_c = plain(c, t, back);
    c[3] -= 2 * hc;
    double const down_c = plain(c, t, back);
    c[3] += hc;
    t[4] += ht;
    double const up_t = plain(c, t, back);
    t[4] -= 2 * ht;
    double const down_t = plain(c, t, back);
    t[4] += ht;
    EXPECT_NEAR(got.d[0], (up_c - down_c) / (2 * hc), 1e-6 * std::fabs(got.d[0]));
    EXPECT_NEAR(got.d[1], (up_t - down_t) / (2 * ht), 1e-6 * std::fabs(got.d[1]) + 1e-9);
  }
}
