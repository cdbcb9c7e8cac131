// Decoding of a fuzz input into well-formed calls of the exported interface,
// and the matching encoder that the seed generator uses.
//
// An input is read from the front: a selector byte (which export), the
// scalar arguments of that export, the optical system (surfaces, index
// table, configuration, fields, wavelengths, weights), and last any
// variable-length data the export takes (hits, a PSF, frequency lists).
// When the input runs out every further read yields zeros, so any prefix of
// an input is itself a valid input.
//
// Every array handed to the engine is a heap allocation of exactly the
// length the interface asks for, including zero-length ones (a distinct,
// non-null allocation), so that AddressSanitizer flags any access past it.
#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "api/nuvrix.h"

namespace nuvrix_fuzz {

// The largest system the engine accepts; callers never pass more.
constexpr int kMaxSurfaces = 256;

// ---------------------------------------------------------------------------
// Exact-size heap arrays
// ---------------------------------------------------------------------------

// An array of exactly n elements on the heap (n <= 0 gives a distinct
// zero-length allocation, never null), zero-filled.
template <typename T>
class Buf {
  static_assert(std::is_trivially_copyable<T>::value, "records only");

 public:
  Buf() : Buf(0) {}
  explicit Buf(long long n) : n_(n > 0 ? static_cast<size_t>(n) : 0), p_(new T[n_]) {
    if (n_) std::memset(static_cast<void*>(p_.get()), 0, n_ * sizeof(T));
  }
  T* data() { return p_.get(); }
  T const* data() const { return p_.get(); }
  size_t size() const { return n_; }
  T& operator[](size_t i) { return p_[i]; }
  T const& operator[](size_t i) const { return p_[i]; }

 private:
  size_t n_;
  std::unique_ptr<T[]> p_;
};

// Element count of an array sized by a possibly negative count product.
inline long long product(long long a, long long b) { return (a > 0 && b > 0) ? a * b : 0; }

// grid_size^2, whatever the sign of grid_size.
inline long long squared(int g) { return static_cast<long long>(g) * g; }

// ---------------------------------------------------------------------------
// Reader and writer
// ---------------------------------------------------------------------------

// Consumes the input from the front; past the end every byte reads as 0.
// The argument records of the harnesses are decoded through the visiting
// methods (taking a reference), which Writer mirrors one for one, so that
// one description of a record serves both directions.
class Reader {
 public:
  static constexpr bool kReading = true;
  Reader(uint8_t const* data, size_t size) : p_(data), n_(size) {}

  void bytes(void* dst, size_t len) {
    size_t const k = std::min(len, n_);
    if (k) std::memcpy(dst, p_, k);
    if (len > k) std::memset(static_cast<uint8_t*>(dst) + k, 0, len - k);
    p_ += k;
    n_ -= k;
  }
  template <typename T>
  T raw() {
    static_assert(std::is_trivially_copyable<T>::value, "records only");
    T v;
    bytes(&v, sizeof v);
    return v;
  }
  template <typename T>
  void raw(T& v) {
    v = raw<T>();
  }
  uint8_t u8() { return raw<uint8_t>(); }
  uint16_t u16() { return raw<uint16_t>(); }
  int32_t i32() { return raw<int32_t>(); }
  double f64() { return raw<double>(); }
  size_t left() const { return n_; }

  void u8(uint8_t& v) { v = u8(); }
  void f64(double& v) { v = f64(); }
  void flag(bool& v) { v = (u8() & 1) != 0; }
  // An index argument of any 32-bit value (INT_MIN, INT_MAX, 100000 ...).
  void any_int(int32_t& v) { v = i32(); }
  // A count that sizes arrays: any 32-bit value folded into [-limit, limit]
  // (the identity there), so that negatives and zero occur but one call
  // stays cheap.
  void count(int32_t& v, int32_t limit) {
    long long x = i32();
    long long const m = static_cast<long long>(limit) + 1;
    if (x > limit) x %= m;
    if (x < -limit) x = -((-x) % m);
    v = static_cast<int32_t>(x);
  }
  // A count that must be positive: 1 .. limit.
  void positive(int32_t& v, int32_t limit) {
    uint32_t const x = static_cast<uint32_t>(i32());
    v = static_cast<int32_t>(1 + x % static_cast<uint32_t>(limit));
  }
  // A positive int of any size (start_surface): 1 .. INT_MAX.
  void positive_any(int32_t& v) {
    uint32_t const x = static_cast<uint32_t>(i32());
    v = static_cast<int32_t>(1 + x % static_cast<uint32_t>(INT_MAX));
  }
  // 0 or a power of two up to 2^max_log2: byte 0 reads as 0, k as
  // 2^((k - 1) mod (max_log2 + 1)).
  void grid_or_zero(int32_t& v, int max_log2) {
    uint8_t const k = u8();
    v = k == 0 ? 0 : 1 << ((k - 1) % (max_log2 + 1));
  }
  // A power of two up to 2^max_log2: byte k reads as 2^(k mod (max_log2 + 1)).
  void grid_pow2(int32_t& v, int max_log2) { v = 1 << (u8() % (max_log2 + 1)); }
  // A double that must not be 0 (0 reads as 1).
  void nonzero(double& v) {
    v = f64();
    if (v == 0.0) v = 1.0;
  }

 private:
  uint8_t const* p_;
  size_t n_;
};

// The inverse of Reader: what the seed generator writes, Reader reads back.
class Writer {
 public:
  static constexpr bool kReading = false;
  void bytes(void const* src, size_t len) {
    auto const* b = static_cast<uint8_t const*>(src);
    out_.insert(out_.end(), b, b + len);
  }
  template <typename T>
  void raw(T const& v) {
    bytes(&v, sizeof v);
  }
  void u8(uint8_t v) { raw(v); }
  void u16(uint16_t v) { raw(v); }
  void i32(int32_t v) { raw(v); }
  void f64(double v) { raw(v); }

  void flag(bool& v) { u8(v ? 1 : 0); }
  void any_int(int32_t& v) { i32(v); }
  void count(int32_t& v, int32_t) { i32(v); }  // the identity within the limit
  void positive(int32_t& v, int32_t) { i32(v - 1); }
  void positive_any(int32_t& v) { i32(v - 1); }
  void grid_or_zero(int32_t& g, int) { u8(g == 0 ? 0 : static_cast<uint8_t>(1 + log2_of(g))); }
  void grid_pow2(int32_t& g, int) { u8(static_cast<uint8_t>(log2_of(g))); }
  void nonzero(double& v) { f64(v); }
  std::vector<uint8_t> const& data() const { return out_; }

 private:
  static int log2_of(int32_t g) {
    int k = 0;
    while ((1 << k) < g) ++k;
    return k;
  }
  std::vector<uint8_t> out_;
};

// ---------------------------------------------------------------------------
// The optical system
// ---------------------------------------------------------------------------

// Bounds that keep one execution in the milliseconds.
constexpr int kMaxWavelengths = 8;
constexpr int kMaxFields = 8;

// Surface count: one byte below 200 reads as 0 .. 32 (the common case);
// 200 and above takes a 16-bit value folded into 0 .. 256.
inline int32_t read_surface_count(Reader& in) {
  uint8_t const b = in.u8();
  if (b < 200) return b % 33;
  return in.u16() % (kMaxSurfaces + 1);
}
inline void write_surface_count(Writer& out, int32_t n) {
  if (n <= 32) {
    out.u8(static_cast<uint8_t>(n));
  } else {
    out.u8(200);
    out.u16(static_cast<uint16_t>(n));
  }
}

// Everything a host fills for one system.  The record fields are raw bytes
// of the input, so non-finite doubles and odd integers occur everywhere.
struct System {
  int32_t surface_count = 0;
  int32_t wavelength_count = 0;  // any small value, also 0 and negative
  int32_t field_count = 0;
  Buf<SurfaceData> surfaces;
  std::vector<double> rows;  // max(wavelength_count, 1) rows as decoded
  Buf<double> table;         // wavelength_count rows x surface_count
  SystemConfig config{};
  Buf<FieldData> fields;
  Buf<double> wavelengths;  // wavelength_count entries, micrometres
  Buf<double> weights;      // wavelength_count entries

  int row_count() const { return std::max(wavelength_count, 1); }
  // A fresh exact-size copy of index row k (of the decoded rows).
  Buf<double> row(int k) const {
    Buf<double> r(surface_count);
    int const kk = (k >= 0 && k < row_count()) ? k : 0;
    if (surface_count > 0) {
      std::memcpy(r.data(), rows.data() + static_cast<size_t>(kk) * surface_count,
                  sizeof(double) * surface_count);
    }
    return r;
  }
  // A fresh exact-size copy of the surfaces (for the export that writes them).
  Buf<SurfaceData> surfaces_copy() const {
    Buf<SurfaceData> s(surface_count);
    if (surface_count > 0)
      std::memcpy(s.data(), surfaces.data(), sizeof(SurfaceData) * surface_count);
    return s;
  }
};

inline System read_system(Reader& in) {
  System sys;
  sys.surface_count = read_surface_count(in);
  in.count(sys.wavelength_count, kMaxWavelengths);
  in.count(sys.field_count, kMaxFields);

  sys.surfaces = Buf<SurfaceData>(sys.surface_count);
  for (int i = 0; i < sys.surface_count; ++i) in.bytes(&sys.surfaces[i], sizeof(SurfaceData));

  sys.rows.assign(static_cast<size_t>(sys.row_count()) * sys.surface_count, 0.0);
  for (double& v : sys.rows) v = in.f64();
  sys.table = Buf<double>(product(sys.wavelength_count, sys.surface_count));
  if (sys.table.size())
    std::memcpy(sys.table.data(), sys.rows.data(), sizeof(double) * sys.table.size());

  sys.config = in.raw<SystemConfig>();
  sys.fields = Buf<FieldData>(sys.field_count);
  for (size_t i = 0; i < sys.fields.size(); ++i) sys.fields[i] = in.raw<FieldData>();
  sys.wavelengths = Buf<double>(sys.wavelength_count);
  for (size_t i = 0; i < sys.wavelengths.size(); ++i) sys.wavelengths[i] = in.f64();
  sys.weights = Buf<double>(sys.wavelength_count);
  for (size_t i = 0; i < sys.weights.size(); ++i) sys.weights[i] = in.f64();
  return sys;
}

// The host's view of a system, as the seed generator fills it.
struct SystemRecords {
  std::vector<SurfaceData> surfaces;
  std::vector<std::vector<double>> rows;  // one index row per wavelength
  SystemConfig config{};
  std::vector<FieldData> fields;
  std::vector<double> wavelengths;
  std::vector<double> weights;
};

inline void write_system(Writer& out, SystemRecords const& s) {
  int32_t const n = static_cast<int32_t>(s.surfaces.size());
  int32_t const wc = static_cast<int32_t>(s.rows.size());
  write_surface_count(out, n);
  out.i32(wc);
  out.i32(static_cast<int32_t>(s.fields.size()));
  for (SurfaceData const& sd : s.surfaces) out.raw(sd);
  for (auto const& r : s.rows)
    for (int i = 0; i < n; ++i) out.f64(i < static_cast<int>(r.size()) ? r[i] : 1.0);
  out.raw(s.config);
  for (FieldData const& f : s.fields) out.raw(f);
  for (int w = 0; w < wc; ++w)
    out.f64(w < static_cast<int>(s.wavelengths.size()) ? s.wavelengths[w] : 0.5876);
  for (int w = 0; w < wc; ++w) out.f64(w < static_cast<int>(s.weights.size()) ? s.weights[w] : 1.0);
}

// ---------------------------------------------------------------------------
// Variable-length data at the end of an input
// ---------------------------------------------------------------------------

// A double array of exactly n entries read from the input.
inline Buf<double> read_doubles(Reader& in, long long n) {
  Buf<double> a(n);
  for (size_t i = 0; i < a.size(); ++i) a[i] = in.f64();
  return a;
}

// Ray hits: a mode byte, then raw records.  With mode bit 0 set, hits that
// lie beyond the end of the input are synthesised as valid points on a
// small spiral, so that hit counts far beyond the input size are exercised
// with valid hits too.
inline Buf<SpotRayHit> read_hits(Reader& in, int32_t hit_count) {
  bool synthesise = false;
  in.flag(synthesise);
  Buf<SpotRayHit> hits(hit_count);
  for (size_t i = 0; i < hits.size(); ++i) {
    if (synthesise && in.left() < sizeof(SpotRayHit)) {
      hits[i].x = 1e-4 * (static_cast<double>(i % 97) - 48.0);
      hits[i].y = 1e-4 * (static_cast<double>(i % 89) - 44.0);
      hits[i].wavelength_index = static_cast<int32_t>(i % 3);
      hits[i].valid = 1;
    } else {
      hits[i] = in.raw<SpotRayHit>();
    }
  }
  return hits;
}

// Marks the end of a harness's decoding: a real use of a value so that the
// compiler keeps every call.
template <typename T>
inline void keep(T const& v) {
  asm volatile("" : : "g"(&v) : "memory");
}

}  // namespace nuvrix_fuzz
