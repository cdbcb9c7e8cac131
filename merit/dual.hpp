// Forward-mode dual numbers: a value and N derivative slots, carried
// through the same template steps as the plain doubles.  Every comparison
// and branch looks at the value alone (detail::val); the slots follow the
// branch the value took.  Written once for the host and the device; the
// slot loops are plain loops of fixed length that the host compiler turns
// into vector code and nvcc compiles unchanged.
#pragma once

#include "api/types.hpp"

namespace nuvrix {

constexpr double kDualRootCut = 1e-300;  // below this root the derivative of sqrt is 0

// Tag of the constructor that leaves the slots for the caller to write.
struct DualSlotsFollow {};

template <int N>
struct Dual {
  double value;
  double d[N];

  // Left unset, as a double declared without a value is; Dual() (value
  // initialisation) is 0 with every slot 0.  Large work arrays of duals thus
  // cost nothing until they are written.
  Dual() = default;
  // A constant: the value with every slot 0.
  NUVRIX_HD Dual(double v) : value(v) {  // NOLINT: constants convert implicitly
    for (int k = 0; k < N; ++k) d[k] = 0.0;
  }
  // The value alone; every slot is written next by the rule that made it.
  NUVRIX_HD Dual(DualSlotsFollow, double v) : value(v) {}
};

// The variable of slot `slot`: the value with a unit derivative there.
template <int N>
NUVRIX_HD Dual<N> make_variable(double v, int slot) {
  Dual<N> r(v);
  if (slot >= 0 && slot < N) r.d[slot] = 1.0;
  return r;
}

namespace detail {

template <int N>
NUVRIX_HD double val(Dual<N> const& x) {
  return x.value;
}

template <int N>
NUVRIX_HD bool has_slots(Dual<N> const& x) {
  bool any = false;
  for (int k = 0; k < N; ++k) any = any || x.d[k] != 0.0;
  return any;
}

// r.d = a.d * s, slot by slot.
template <int N>
NUVRIX_HD Dual<N> scaled(double value, Dual<N> const& a, double s) {
  Dual<N> r(DualSlotsFollow{}, value);
  for (int k = 0; k < N; ++k) r.d[k] = a.d[k] * s;
  return r;
}

}  // namespace detail

// -(a + h) = -a - h
template <int N>
NUVRIX_HD Dual<N> operator-(Dual<N> const& a) {
  return detail::scaled(-a.value, a, -1.0);
}
template <int N>
NUVRIX_HD Dual<N> operator+(Dual<N> const& a) {
  return a;
}

// (a + h) + (b + k) = (a + b) + (h + k)
template <int N>
NUVRIX_HD Dual<N> operator+(Dual<N> const& a, Dual<N> const& b) {
  Dual<N> r(DualSlotsFollow{}, a.value + b.value);
  for (int k = 0; k < N; ++k) r.d[k] = a.d[k] + b.d[k];
  return r;
}
template <int N>
NUVRIX_HD Dual<N> operator+(Dual<N> const& a, double b) {
  Dual<N> r = a;
  r.value = a.value + b;
  return r;
}
template <int N>
NUVRIX_HD Dual<N> operator+(double a, Dual<N> const& b) {
  Dual<N> r = b;
  r.value = a + b.value;
  return r;
}

// (a + h) - (b + k) = (a - b) + (h - k)
template <int N>
NUVRIX_HD Dual<N> operator-(Dual<N> const& a, Dual<N> const& b) {
  Dual<N> r(DualSlotsFollow{}, a.value - b.value);
  for (int k = 0; k < N; ++k) r.d[k] = a.d[k] - b.d[k];
  return r;
}
template <int N>
NUVRIX_HD Dual<N> operator-(Dual<N> const& a, double b) {
  Dual<N> r = a;
  r.value = a.value - b;
  return r;
}
template <int N>
NUVRIX_HD Dual<N> operator-(double a, Dual<N> const& b) {
  return detail::scaled(a - b.value, b, -1.0);
}

// (a + h) (b + k) = ab + (a k + b h)
template <int N>
NUVRIX_HD Dual<N> operator*(Dual<N> const& a, Dual<N> const& b) {
  Dual<N> r(DualSlotsFollow{}, a.value * b.value);
  for (int k = 0; k < N; ++k) r.d[k] = fma(a.value, b.d[k], b.value * a.d[k]);
  return r;
}
template <int N>
NUVRIX_HD Dual<N> operator*(Dual<N> const& a, double b) {
  return detail::scaled(a.value * b, a, b);
}
template <int N>
NUVRIX_HD Dual<N> operator*(double a, Dual<N> const& b) {
  return detail::scaled(a * b.value, b, a);
}

// (a + h) / (b + k) = a/b + (h - (a/b) k) / b.  The slots go through one
// reciprocal of b; the value is the quotient itself, correctly rounded, so
// that it is the plain routine's value to the bit.
template <int N>
NUVRIX_HD Dual<N> operator/(Dual<N> const& a, Dual<N> const& b) {
  double const inv = 1.0 / b.value;
  double const q = a.value / b.value;
  Dual<N> r(DualSlotsFollow{}, q);
  for (int k = 0; k < N; ++k) r.d[k] = (a.d[k] - q * b.d[k]) * inv;
  return r;
}
template <int N>
NUVRIX_HD Dual<N> operator/(Dual<N> const& a, double b) {
  return detail::scaled(a.value / b, a, 1.0 / b);
}
// a / (b + k) = a/b - (a/b) k / b
template <int N>
NUVRIX_HD Dual<N> operator/(double a, Dual<N> const& b) {
  double const inv = 1.0 / b.value;
  double const q = a / b.value;
  return detail::scaled(q, b, -q * inv);
}

template <int N, typename B>
NUVRIX_HD Dual<N>& operator+=(Dual<N>& a, B const& b) {
  return a = a + b;
}
template <int N, typename B>
NUVRIX_HD Dual<N>& operator-=(Dual<N>& a, B const& b) {
  return a = a - b;
}
template <int N, typename B>
NUVRIX_HD Dual<N>& operator*=(Dual<N>& a, B const& b) {
  return a = a * b;
}
template <int N, typename B>
NUVRIX_HD Dual<N>& operator/=(Dual<N>& a, B const& b) {
  return a = a / b;
}

// Comparisons look at the values alone.
template <int N>
NUVRIX_HD bool operator<(Dual<N> const& a, Dual<N> const& b) { return a.value < b.value; }
template <int N>
NUVRIX_HD bool operator>(Dual<N> const& a, Dual<N> const& b) { return a.value > b.value; }
template <int N>
NUVRIX_HD bool operator<=(Dual<N> const& a, Dual<N> const& b) { return a.value <= b.value; }
template <int N>
NUVRIX_HD bool operator>=(Dual<N> const& a, Dual<N> const& b) { return a.value >= b.value; }
template <int N>
NUVRIX_HD bool operator<(Dual<N> const& a, double b) { return a.value < b; }
template <int N>
NUVRIX_HD bool operator>(Dual<N> const& a, double b) { return a.value > b; }
template <int N>
NUVRIX_HD bool operator<(double a, Dual<N> const& b) { return a < b.value; }
template <int N>
NUVRIX_HD bool operator>(double a, Dual<N> const& b) { return a > b.value; }

// fma(a + h, b + k, c + l) = fma(a, b, c) + (a k + b h + l), the value by
// one fused multiply-add as in the plain step.
template <int N>
NUVRIX_HD Dual<N> fma(Dual<N> const& a, Dual<N> const& b, Dual<N> const& c) {
  Dual<N> r(DualSlotsFollow{}, fma(a.value, b.value, c.value));
  for (int k = 0; k < N; ++k) r.d[k] = fma(a.value, b.d[k], fma(b.value, a.d[k], c.d[k]));
  return r;
}
template <int N>
NUVRIX_HD Dual<N> fma(double a, Dual<N> const& b, Dual<N> const& c) {
  Dual<N> r(DualSlotsFollow{}, fma(a, b.value, c.value));
  for (int k = 0; k < N; ++k) r.d[k] = fma(a, b.d[k], c.d[k]);
  return r;
}
template <int N>
NUVRIX_HD Dual<N> fma(Dual<N> const& a, double b, Dual<N> const& c) {
  return fma(b, a, c);
}
template <int N>
NUVRIX_HD Dual<N> fma(Dual<N> const& a, Dual<N> const& b, double c) {
  Dual<N> r(DualSlotsFollow{}, fma(a.value, b.value, c));
  for (int k = 0; k < N; ++k) r.d[k] = fma(a.value, b.d[k], b.value * a.d[k]);
  return r;
}
template <int N>
NUVRIX_HD Dual<N> fma(double a, Dual<N> const& b, double c) {
  return detail::scaled(fma(a, b.value, c), b, a);
}
template <int N>
NUVRIX_HD Dual<N> fma(Dual<N> const& a, double b, double c) {
  return detail::scaled(fma(a.value, b, c), a, b);
}

// sqrt(a + h) ~= sqrt(a) + h / (2 sqrt(a)); the slope is 0 where the root
// is at most 1e-300, so that the root of 0 has derivative 0, not infinity.
template <int N>
NUVRIX_HD Dual<N> sqrt(Dual<N> const& a) {
  double const r = sqrt(a.value);
  return detail::scaled(r, a, r > kDualRootCut ? 0.5 / r : 0.0);
}

// |a + h| = |a| + sign(a) h
template <int N>
NUVRIX_HD Dual<N> fabs(Dual<N> const& a) {
  return a.value < 0.0 ? -a : a;
}

// exp(a + h) ~= exp(a) + exp(a) h
template <int N>
NUVRIX_HD Dual<N> exp(Dual<N> const& a) {
  double const e = exp(a.value);
  return detail::scaled(e, a, e);
}

// log(a + h) ~= log(a) + h / a
template <int N>
NUVRIX_HD Dual<N> log(Dual<N> const& a) {
  return detail::scaled(log(a.value), a, 1.0 / a.value);
}

// sin(a + h) ~= sin(a) + cos(a) h
template <int N>
NUVRIX_HD Dual<N> sin(Dual<N> const& a) {
  return detail::scaled(sin(a.value), a, cos(a.value));
}

// cos(a + h) ~= cos(a) - sin(a) h
template <int N>
NUVRIX_HD Dual<N> cos(Dual<N> const& a) {
  return detail::scaled(cos(a.value), a, -sin(a.value));
}

// tan(a + h) ~= tan(a) + (1 + tan(a)^2) h
template <int N>
NUVRIX_HD Dual<N> tan(Dual<N> const& a) {
  double const t = tan(a.value);
  return detail::scaled(t, a, 1.0 + t * t);
}

// acos(a + h) ~= acos(a) - h / sqrt(1 - a^2)
template <int N>
NUVRIX_HD Dual<N> acos(Dual<N> const& a) {
  return detail::scaled(acos(a.value), a, -1.0 / sqrt(1.0 - a.value * a.value));
}

// atan2(a + h, b + k) ~= atan2(a, b) + (b h - a k) / (a^2 + b^2)
template <int N>
NUVRIX_HD Dual<N> atan2(Dual<N> const& a, Dual<N> const& b) {
  double const inv = 1.0 / (a.value * a.value + b.value * b.value);
  Dual<N> r(DualSlotsFollow{}, atan2(a.value, b.value));
  for (int k = 0; k < N; ++k) r.d[k] = (b.value * a.d[k] - a.value * b.d[k]) * inv;
  return r;
}

// pow(a + h, p) ~= a^p + p a^(p - 1) h for a plain exponent p
template <int N>
NUVRIX_HD Dual<N> pow(Dual<N> const& a, double p) {
  double const v = pow(a.value, p);
  return detail::scaled(v, a, p * pow(a.value, p - 1.0));
}

}  // namespace nuvrix
