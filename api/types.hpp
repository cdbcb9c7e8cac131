// Internal C++ types and helpers shared by the library and the device kernels.
//
// Everything here is compiled both by the host compiler and by nvcc: no
// exceptions, no heap, no std:: containers, maths through the plain overloads
// that both compilers provide.
#pragma once

#include <cfloat>
#include <math.h>

#include "api/nuvrix.h"

#if defined(__CUDACC__)
#define NUVRIX_HD __host__ __device__ inline
#else
#define NUVRIX_HD inline
#endif

// A routine of the core that a hot loop reaches only rarely (an uncommon
// surface type, a failure).  The host compiler keeps it out of line, so that
// the register allocation of the loop serves the common path, and so does
// the device compiler.  NUVRIX_HD_COLD also marks the calls as unlikely.
#if defined(__CUDACC__)
#define NUVRIX_HD_RARE __host__ __device__ __noinline__ inline
#define NUVRIX_HD_COLD __host__ __device__ __noinline__ inline
#else
#define NUVRIX_HD_RARE __attribute__((noinline)) inline
#define NUVRIX_HD_COLD __attribute__((noinline, cold)) inline
#endif

// A large routine that many places call: a trace front end, an aim, an
// operand family.  The device compiler keeps one body of it and calls it,
// where inlining every call would make a kernel that runs the whole merit
// function too large for the assembler to finish in reasonable time; the
// host compiler decides as for any inline function.
#if defined(__CUDACC__)
#define NUVRIX_HD_CALL __host__ __device__ __noinline__ inline
#else
#define NUVRIX_HD_CALL inline
#endif

// A routine over dual numbers whose steps the host compiler should see as
// one body: the slots of every intermediate then stay in vector registers
// instead of passing through memory at each call.
#if defined(__CUDACC__)
#define NUVRIX_HD_FLAT NUVRIX_HD
#else
#define NUVRIX_HD_FLAT __attribute__((flatten)) inline
#endif

namespace nuvrix {

// The plain double maths, pulled into the namespace so that an unqualified
// call serves double here and, by argument-dependent lookup, the dual numbers.
using ::acos;
using ::asin;
using ::atan;
using ::atan2;
using ::cos;
using ::exp;
using ::fabs;
using ::fma;
using ::log;
using ::pow;
using ::sin;
using ::sqrt;
using ::tan;

// Largest number of surfaces of a system; fixed work arrays are sized for it.
constexpr int kMaxSurfaces = 256;

// Recurring constants.
constexpr double kInfiniteDistance = 1e10;  // |t| at or above this is infinite
constexpr double kPlaneCurvature = 1e-15;   // |c| below this is a plane
constexpr double kTiny = 1e-15;             // denominators and direction limits
constexpr double kNoPowerFocal = 1e15;      // focal length of a system without power
constexpr double kApertureMargin = 1.01;    // clip when r^2 > limit^2 * 1.01
constexpr double kDegToRad = 3.14159265358979323846 / 180.0;

// A ray's state over a generic scalar: the ten fields of RayState, then the
// optical path so that it can carry derivatives, then the integer status.
template <typename T>
struct RayStateT {
  T x, y, z;
  T l, m, n;
  T nx, ny, nz;
  T sag_path;
  T opl;
  int status;
};

// The dual number of forward differentiation (merit/dual.hpp).
template <int N>
struct Dual;

namespace detail {

// The plain value of a scalar: every comparison and branch looks at it only.
// The dual form is declared here, so that the generic steps, which call
// detail::val by its qualified name, see it wherever they are defined.
NUVRIX_HD double val(double v) { return v; }
template <int N>
NUVRIX_HD double val(Dual<N> const& x);

// True when a scalar carries a derivative: never for a double.
NUVRIX_HD bool has_slots(double) { return false; }
template <int N>
NUVRIX_HD bool has_slots(Dual<N> const& x);

// True for a finite double (false for infinities and NaN).
NUVRIX_HD bool is_finite(double v) { return fabs(v) <= DBL_MAX; }

// True when x, y and z are all finite: v - v is 0 for a finite v and NaN for
// an infinity or a NaN, so one comparison tests the three.
NUVRIX_HD bool all_finite3(double x, double y, double z) {
  return (x - x) + (y - y) + (z - z) == 0.0;
}

// True for +-infinity only (NaN is not).
NUVRIX_HD bool is_inf(double v) { return fabs(v) > DBL_MAX; }

// A distance is infinite when it is not finite or at least 1e10 in magnitude.
NUVRIX_HD bool is_infinite_distance(double t) { return !(fabs(t) < kInfiniteDistance); }

// Dot product of two 3-vectors, accumulated left to right by fused
// multiply-add: fma(a3, b3, fma(a2, b2, a1 * b1)).
template <typename T>
NUVRIX_HD T dot3(T const& a1, T const& a2, T const& a3, T const& b1, T const& b2, T const& b3) {
  return fma(a3, b3, fma(a2, b2, a1 * b1));
}

// a^2 + b^2 as a fused dot product.
template <typename T>
NUVRIX_HD T sum_sq2(T const& a, T const& b) {
  return fma(b, b, a * a);
}

}  // namespace detail
}  // namespace nuvrix
