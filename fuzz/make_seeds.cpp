// Writes the seed corpus of every harness: for each selector, one input per
// standard lens (Cooke triplet, parabolic mirror, ideal thin lens, eight-term
// asphere singlet, finite-conjugate relay) with arguments a host would use.
//
//   make_seeds OUTDIR     writes OUTDIR/fuzz_<harness>/seed_<selector>_<lens>
#include <sys/stat.h>

#include <cmath>
#include <climits>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_args.hpp"
#include "tests/systems.hpp"

using namespace nuvrix_fuzz;

namespace {

struct Lens {
  std::string name;
  SystemRecords records;
  int32_t stop;
  double max_field;  // degrees, or mm for object heights
  double epd;
  double back_focus;  // a reference radius for the OPD
};

// The F, d and C lines in micrometres, and the index of each medium at them:
// a glass of index n_d gets a dispersion of an Abbe number near 60.
double const kWavelengths[3] = {0.4861327, 0.5875618, 0.6562725};

std::vector<std::vector<double>> dispersed(std::vector<double> const& nd) {
  std::vector<std::vector<double>> rows(3, nd);
  for (size_t i = 0; i < nd.size(); ++i) {
    if (nd[i] <= 1.0001) continue;
    double const dn = (nd[i] - 1.0) / 60.0;
    rows[0][i] = nd[i] + 0.6 * dn;
    rows[2][i] = nd[i] - 0.4 * dn;
  }
  return rows;
}

Lens make_lens(std::string name, nuvrix_test::System const& sys, int32_t stop, double max_field,
               double epd, double back_focus, FieldType field_type = NUVRIX_FIELD_ANGLE,
               int32_t aperture_type = 0, double aperture_value = 0.0) {
  Lens lens{std::move(name), {}, stop, max_field, epd, back_focus};
  SystemRecords& s = lens.records;
  s.surfaces = sys.surfaces;
  s.rows = dispersed(sys.indices);
  s.config.field_type = field_type;
  s.config.aperture_type = aperture_type;
  s.config.aperture_value = aperture_type == 0 ? epd : aperture_value;
  s.config.ray_aiming = 0;
  s.config.stop_surface = stop;
  s.config.primary_wavelength = 1;
  for (double f : {0.0, 0.7, 1.0}) {
    FieldData fd{};
    fd.field_y = f * max_field;
    s.fields.push_back(fd);
  }
  s.wavelengths.assign(kWavelengths, kWavelengths + 3);
  s.weights = {1.0, 2.0, 1.0};
  return lens;
}

std::vector<Lens> lenses() {
  std::vector<Lens> out;
  out.push_back(
      make_lens("cooke", nuvrix_test::cooke_triplet(), nuvrix_test::kCookeStop, 20.0, 10.0, 42.2));
  out.push_back(make_lens("parabola", nuvrix_test::parabolic_mirror(100.0), 1, 1.0, 20.0, 100.0));
  out.push_back(make_lens("thin_lens", nuvrix_test::ideal_thin_lens(50.0), 1, 10.0, 10.0, 50.0));
  out.push_back(make_lens("asphere", nuvrix_test::eight_term_asphere(), 1, 5.0, 10.0, 45.0));
  // The relay: object heights in mm, object-space numerical aperture.
  out.push_back(make_lens("relay", nuvrix_test::finite_relay(), nuvrix_test::kFiniteRelayStop, 5.0,
                          10.0, 60.0, NUVRIX_FIELD_HEIGHT, 2, 0.08));
  // The Cooke triplet aimed at the stop.
  Lens aimed = make_lens("cooke_aimed", nuvrix_test::cooke_triplet(), nuvrix_test::kCookeStop, 20.0,
                         10.0, 42.2);
  aimed.records.config.ray_aiming = 1;
  out.push_back(aimed);
  return out;
}

std::string g_root;

void save(std::string const& harness, int op, std::string const& lens, Writer const& w) {
  std::string const dir = g_root + "/" + harness;
  mkdir(dir.c_str(), 0755);
  std::string const path = dir + "/seed_" + std::to_string(op) + "_" + lens;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) {
    std::perror(path.c_str());
    std::exit(1);
  }
  std::fwrite(w.data().data(), 1, w.data().size(), f);
  std::fclose(f);
}

// Deterministic ray hits around the origin: a round spot of about 20 um.
void write_hits(Writer& w, int count) {
  bool synthesise = false;
  w.flag(synthesise);
  uint32_t state = 12345;
  for (int i = 0; i < count; ++i) {
    state = state * 1664525u + 1013904223u;
    double const r = 0.02 * std::sqrt((state >> 8) / 16777216.0);
    state = state * 1664525u + 1013904223u;
    double const t = 6.283185307179586 * ((state >> 8) / 16777216.0);
    SpotRayHit h{};
    h.x = r * std::cos(t);
    h.y = r * std::sin(t);
    h.wavelength_index = i % 3;
    h.valid = 1;
    w.raw(h);
  }
}

template <class Args>
void emit(std::string const& harness, int op, Lens const& lens, Args args) {
  Writer w;
  w.u8(static_cast<uint8_t>(op));
  args.visit(w);
  write_system(w, lens.records);
  save(harness, op, lens.name, w);
}

void trace_seeds(Lens const& lens) {
  for (int op : {kVersion, kAbiInfo, kBuildAnchor}) emit("fuzz_trace", op, lens, AbiArgs{});
  TraceRayArgs ray;  // a marginal ray parallel to the axis, d line
  ray.y = lens.epd / 2 * 0.9;
  ray.row = 1;
  emit("fuzz_trace", kTraceRay, lens, ray);
  emit("fuzz_trace", kTraceRayFull, lens, ray);
  ArbitraryRayArgs arb;  // an aimed ray of the full field through the pupil's top
  arb.aim_flag = 1;
  arb.field_value = lens.max_field;
  arb.pupil_radius = lens.epd / 2;
  arb.stop_radius = lens.epd / 2;
  arb.row = 1;
  emit("fuzz_trace", kTraceArbitraryRay, lens, arb);
  AimArgs aim;
  aim.stop_surface = lens.stop;
  aim.stop_radius = lens.epd / 2;
  aim.m = std::sin(lens.max_field * 3.141592653589793 / 180.0) * 0.5;
  aim.n_dir = std::sqrt(1.0 - aim.m * aim.m);
  aim.row = 1;
  emit("fuzz_trace", kAimToStop, lens, aim);
}

void first_order_seeds(Lens const& lens) {
  FirstOrderArgs a;
  a.row = 1;
  a.stop_surface = lens.stop;
  a.capacity = 16;
  for (int op = 0; op < kFirstOrderOpCount; ++op) emit("fuzz_first_order", op, lens, a);
}

void spot_fan_seeds(Lens const& lens) {
  SpotArgs spot;
  emit("fuzz_spot_fans", kSpotDiagram, lens, spot);
  spot.pattern = 0;  // rectangular grid, hits kept
  spot.grid_size = 12;
  emit("fuzz_spot_fans", kSpotDiagramWithRays, lens, spot);
  FanArgs fan;
  fan.field_index = 2;
  fan.reference_radius = lens.back_focus;
  for (int op : {kTransverseRayFan, kPupilAberrationFan, kOpdFan})
    emit("fuzz_spot_fans", op, lens, fan);
}

void wavefront_seeds(Lens const& lens) {
  WavefrontArgs a;
  a.field_index = 1;
  a.reference_radius = lens.back_focus;
  a.field_scale = lens.max_field;
  for (int op : {kWavefrontMap, kFftPsf, kFftMtf, kZernike}) emit("fuzz_wavefront", op, lens, a);
  WavefrontArgs poly = a;
  poly.grid_size = 8;
  emit("fuzz_wavefront", kFftMtfPolychromatic, lens, poly);
  {
    Writer w;  // the scan over field: frequencies and field fractions follow the system
    w.u8(kFftMtfVsField);
    poly.visit(w);
    write_system(w, lens.records);
    for (double f : {0.0, 10.0, 50.0, 100.0}) w.f64(f);
    for (double f : {0.0, 0.7, 1.0}) w.f64(f);
    save("fuzz_wavefront", kFftMtfVsField, lens.name, w);
  }
  {
    // An Airy-like PSF of 32 x 32 pixels of 1 um: a Gaussian core.
    WavefrontArgs ee = a;
    ee.grid_size = 32;
    ee.pixel_pitch = 1e-3;
    ee.max_radius = 20;
    Writer w;
    w.u8(kDiffractionEncircledEnergy);
    ee.visit(w);
    write_system(w, lens.records);
    for (int i = 0; i < 32; ++i)
      for (int j = 0; j < 32; ++j) {
        double const r2 = (i - 16.0) * (i - 16.0) + (j - 16.0) * (j - 16.0);
        w.f64(std::exp(-r2 / 8.0));
      }
    save("fuzz_wavefront", kDiffractionEncircledEnergy, lens.name, w);
  }
}

void geometric_seeds(Lens const& lens) {
  GeometricArgs a;
  a.field_index = 1;
  a.field_scale = lens.max_field;
  a.hit_count = 200;
  for (int op = 0; op < kGeometricOpCount; ++op) {
    Writer w;
    w.u8(static_cast<uint8_t>(op));
    a.visit(w);
    write_system(w, lens.records);
    if (op == kGeometricMtfVsField) {
      for (double f : {0.0, 10.0, 50.0, 100.0}) w.f64(f);
      for (double f : {0.0, 0.7, 1.0}) w.f64(f);
    } else if (op == kGeometricEncircledEnergy || op == kLineEdgeSpread) {
      write_hits(w, a.hit_count);
    }
    save("fuzz_geometric", op, lens.name, w);
  }
}

void field_seeds(Lens const& lens) {
  FieldArgs a;
  a.max_field = lens.max_field;
  for (int op = 0; op < kFieldOpCount; ++op) emit("fuzz_field", op, lens, a);
}

// ---------------------------------------------------------------- merit --

MeritOperandDesc operand(uint32_t code, double weight = 1.0) {
  MeritOperandDesc d{};
  d.type = code;
  d.group_id = -1;  // no ray group
  d.wave = -1;      // the primary wavelength
  d.weight = weight;
  d.scale = 1.0;
  return d;
}

// A merit function a designer would set up: transverse aberrations about
// the centroid at each field, a lateral-colour pair in a ray group, the
// focal length, thickness and edge bounds, composites, an OPD group,
// relative illumination, distortion and the total track.
std::vector<MeritOperandDesc> merit_function(Lens const& lens) {
  std::vector<MeritOperandDesc> ops;
  double const fields[3] = {0.0, 0.7, 1.0};
  double const pupil[3][2] = {{0.0, 0.7}, {0.0, -0.7}, {0.7, 0.0}};
  for (int f = 0; f < 3; ++f) {
    for (auto const& p : pupil) {
      for (uint32_t code : {70u, 71u}) {
        MeritOperandDesc d = operand(code);
        d.hy = fields[f];
        d.px = p[0], d.py = p[1];
        d.centroid_tag = f;
        ops.push_back(d);
      }
    }
  }
  int const first_transverse = 0, last_transverse = static_cast<int>(ops.size()) - 1;
  // Colour at the rim of the full field against the chief ray, as one group.
  for (int w : {0, 2}) {
    for (uint32_t code : {72u, 73u}) {
      MeritOperandDesc d = operand(code, 0.5);
      d.hy = 1.0;
      d.py = w == 0 ? 1.0 : -1.0;
      d.wave = w;
      d.group_id = 1;
      d.scale = 2.0;
      ops.push_back(d);
    }
  }
  int const efl = static_cast<int>(ops.size());
  MeritOperandDesc e = operand(50, 10.0);
  // The Cooke triplet is a 50 mm lens; the others are held at the focus
  // they were built for.
  e.target = lens.name.compare(0, 5, "cooke") == 0 ? 50.0 : lens.back_focus;
  ops.push_back(e);
  MeritOperandDesc bfl = operand(51, 0.0);  // watched, not weighted
  ops.push_back(bfl);
  // Glass centre thickness 2 .. 8 mm, air 0.5 mm at least, edges 1 and 0.1 mm.
  MeritOperandDesc t = operand(42);
  t.surface_first = 1, t.surface_last = -1;  // surface 1 to the last in front of the image
  t.has_lower = 1, t.lower = 2.0, t.has_upper = 1, t.upper = 8.0;
  ops.push_back(t);
  t.type = 41, t.has_upper = 0, t.lower = 0.5;
  ops.push_back(t);
  MeritOperandDesc edge = operand(45);
  edge.surface_first = -5, edge.surface_last = -1;
  edge.has_lower = 1, edge.lower = 1.0;
  ops.push_back(edge);
  edge.type = 44, edge.lower = 0.1;
  ops.push_back(edge);
  // Composites: the focal length scaled, its ratio to the back focus, the
  // spread and the root sum of squares of the transverse values.
  MeritOperandDesc c = operand(29, 0.0);
  c.operand_a = efl, c.scale = 0.5;
  ops.push_back(c);
  c = operand(32, 0.0);
  c.operand_a = efl, c.operand_b = efl + 1;
  ops.push_back(c);
  c = operand(34, 1.0);
  c.operand_a = first_transverse, c.operand_b = last_transverse, c.target = 0.01;
  ops.push_back(c);
  c = operand(35, 0.0);
  c.operand_a = first_transverse, c.operand_b = last_transverse;
  ops.push_back(c);
  // OPD about the primary reference sphere, tilt and piston removed: four
  // pupil points on the axis (the mirror rule adds their images), three
  // with piston only at the full field.
  double const opd_pupil[4][2] = {{0.0, 1.0}, {0.0, 0.5}, {0.5, 0.0}, {0.7, 0.7}};
  for (auto const& p : opd_pupil) {
    MeritOperandDesc d = operand(67);
    d.px = p[0], d.py = p[1];
    d.group_id = 2;
    ops.push_back(d);
  }
  for (auto const& p : {std::make_pair(0.0, 1.0), std::make_pair(0.0, -1.0),
                        std::make_pair(1.0, 0.0)}) {
    MeritOperandDesc d = operand(68);
    d.hy = 1.0;
    d.px = p.first, d.py = p.second;
    d.wave = 1;
    ops.push_back(d);
  }
  // Relative illumination at the full field, 8 azimuths, at least 0.5.
  MeritOperandDesc ri = operand(59);
  ri.hy = 1.0;
  ri.sample_count = 8;
  ri.has_lower = 1, ri.lower = 0.5;
  ops.push_back(ri);
  MeritOperandDesc dist = operand(63);  // distortion at the full field, under 2 %
  dist.hy = 1.0;
  dist.transform = 8;
  dist.has_upper = 1, dist.upper = 2.0;
  ops.push_back(dist);
  MeritOperandDesc track = operand(57);
  track.has_upper = 1, track.upper = 1.5 * lens.back_focus;
  ops.push_back(track);
  MeritOperandDesc colour = operand(64, 0.1);
  colour.hy = 1.0;
  ops.push_back(colour);
  MeritOperandDesc seidel = operand(80, 0.1);  // spherical aberration over all surfaces
  seidel.surface_first = -5, seidel.surface_last = -1;
  ops.push_back(seidel);
  MeritOperandDesc glass = operand(92);  // total edge violation in glass
  glass.surface_first = -5, glass.surface_last = -1;
  glass.has_lower = 1, glass.lower = 1.0;
  ops.push_back(glass);
  return ops;
}

// The lens with what a merit function's bounds read: semi-diameters of the
// marginal beam's size and the glass flags of the media.
SystemRecords merit_records(Lens const& lens) {
  SystemRecords s = lens.records;
  for (size_t i = 0; i + 1 < s.surfaces.size(); ++i) {
    SurfaceData& sd = s.surfaces[i];
    if (i > 0) sd.semi_diameter = 0.6 * lens.epd;
    sd.is_glass = s.rows[1][i] > 1.0001 ? 1 : 0;
  }
  return s;
}

void emit_merit(Lens const& lens, std::string const& name, MeritArgs a,
                std::vector<MeritOperandDesc> const& ops) {
  if (ops.size() > static_cast<size_t>(kMaxMeritOperands)) {
    std::fprintf(stderr, "%s: %zu operands, more than the harness reads\n", name.c_str(),
                 ops.size());
    std::exit(1);
  }
  a.operand_count = static_cast<int32_t>(ops.size());
  Writer w;
  w.u8(kEvaluateMerit);
  a.visit(w);
  write_system(w, merit_records(lens));
  for (MeritOperandDesc const& d : ops) {
    MeritOperandInput in;
    in.record = d;
    in.visit(w);
  }
  save("fuzz_merit", kEvaluateMerit, name, w);
}

// The Jacobian of a merit function over a few curvatures and a thickness,
// one of them bounded, with a pickup.
void emit_jacobian(Lens const& lens, std::string const& name, JacobianArgs j,
                   std::vector<MeritOperandDesc> const& ops, BatchArgs const* batch = nullptr) {
  std::vector<MeritVariableDesc> vars;
  int const n = static_cast<int>(lens.records.surfaces.size());
  for (int s = 1; s < n - 1 && vars.size() < 4; ++s) {
    MeritVariableDesc v{};
    v.kind = vars.size() == 3 ? 1 : 0;
    v.surface = s;
    if (vars.empty()) v.has_lower = 1, v.lower = -1.0, v.has_upper = 1, v.upper = 1.0;
    vars.push_back(v);
  }
  std::vector<MeritPickupDesc> pickups;
  if (n > 3) pickups.push_back(MeritPickupDesc{2, 1, 1, 1.0, 0.5});
  MeritArgs a;
  a.operand_count = static_cast<int32_t>(ops.size());
  j.variable_count = static_cast<int32_t>(vars.size());
  j.pickup_count = static_cast<int32_t>(pickups.size());
  Writer w;
  w.u8(batch != nullptr ? kEvaluateMeritBatched : kEvaluateMeritAndJacobian);
  a.visit(w);
  write_system(w, merit_records(lens));
  j.visit(w);
  BatchArgs b = batch != nullptr ? *batch : BatchArgs{};
  if (batch != nullptr) b.visit(w);
  for (MeritOperandDesc const& d : ops) {
    MeritOperandInput in;
    in.record = d;
    in.visit(w);
  }
  for (MeritVariableDesc const& d : vars) {
    OperandInput<MeritVariableDesc> in;
    in.record = d;
    in.visit(w);
  }
  for (MeritPickupDesc const& d : pickups) {
    OperandInput<MeritPickupDesc> in;
    in.record = d;
    in.visit(w);
  }
  // The candidates: the lens's own values a little apart, in x.
  for (int c = 0; batch != nullptr && c < b.candidate_count; ++c) {
    for (MeritVariableDesc const& v : vars) {
      SurfaceData const& s = lens.records.surfaces[v.surface];
      double const p = (v.kind == 0 ? s.curvature : s.thickness) * (1.0 + 0.01 * c);
      double const x = v.has_lower != 0 ? std::log((p - v.lower) / (v.upper - p)) : p;
      w.f64(x);
    }
  }
  if (batch != nullptr) w.f64(0.0);  // the spare value after the rows
  save("fuzz_merit", batch != nullptr ? kEvaluateMeritBatched : kEvaluateMeritAndJacobian, name,
       w);
}

// The legacy list, codes 0 to 12, at 0.7 of the field.
std::vector<MeritOperand> legacy_list() {
  std::vector<MeritOperand> ops;
  for (int code = 0; code <= 12; ++code) {
    MeritOperand o{};
    o.type = code;
    o.wave = code % 4 == 3 ? 9 : code % 3;  // 9: beyond the table, the primary row
    o.field = code == 10 ? 1.0 : 0.7;
    o.py = code == 2 ? 0.5 : 1.0;
    o.px = code == 1 || code == 5 ? 0.7 : 0.0;
    o.surface = code == 7 ? 2 : 3;
    ops.push_back(o);
  }
  return ops;
}

void merit_seeds(Lens const& lens) {
  std::vector<MeritOperandDesc> const ops = merit_function(lens);
  emit_merit(lens, lens.name, MeritArgs{}, ops);
  for (int mode : {0, 1}) {
    JacobianArgs j;
    j.mode = mode;
    j.parallel = mode == 0;
    j.thread_count = 2;
    emit_jacobian(lens, lens.name + (mode == 0 ? "_fd" : "_analytic"), j, ops);
    for (int want : {0, 1}) {
      BatchArgs b;
      b.candidate_count = 3, b.want_jacobian = want, b.use_gpu = want == 1 && mode == 1;
      emit_jacobian(lens, lens.name + "_batch" + std::to_string(mode) + std::to_string(want), j,
                    ops, &b);
    }
  }
  if (lens.name == "cooke") {
    MeritArgs bare;  // no outputs but the count of unsupported operands
    bare.null_results = bare.null_residuals = bare.null_residual_count = bare.null_merit = true;
    emit_merit(lens, lens.name + "_no_outputs", bare, ops);
    MeritArgs values;  // results only
    values.null_residuals = values.null_residual_count = values.null_merit = true;
    emit_merit(lens, lens.name + "_results_only", values, ops);
  }
  std::vector<MeritOperand> const legacy = legacy_list();
  for (int op : {kEvaluateMeritOperands, kEvaluateMeritOperandsFull}) {
    MeritArgs a;
    a.operand_count = static_cast<int32_t>(legacy.size());
    Writer w;
    w.u8(static_cast<uint8_t>(op));
    a.visit(w);
    write_system(w, lens.records);
    for (MeritOperand const& o : legacy) {
      LegacyOperandInput in;
      in.record = o;
      in.visit(w);
    }
    save("fuzz_merit", op, lens.name, w);
  }
}

}  // namespace

// The GPU family: a catalogue of 3 x 4, the scratch of 16 candidates of an
// 8-surface system (3 wavelengths, 3 fields, 5 operands), a buffer of 64
// bytes; and counts at the edges of a long.
void gpu_seeds() {
  int32_t const cases[2][8] = {{3, 4, 16, 8, 3, 3, 5, 64},
                               {INT_MAX, INT_MAX, INT_MAX, INT_MAX, 1, 1, 1, 0}};
  for (int k = 0; k < 2; ++k) {
    Writer w;
    for (int32_t v : cases[k]) w.i32(v);
    save("fuzz_gpu", 0, k == 0 ? "small" : "edges", w);
  }
}

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s OUTDIR\n", argv[0]);
    return 2;
  }
  g_root = argv[1];
  mkdir(g_root.c_str(), 0755);
  for (Lens const& lens : lenses()) {
    trace_seeds(lens);
    first_order_seeds(lens);
    spot_fan_seeds(lens);
    wavefront_seeds(lens);
    geometric_seeds(lens);
    field_seeds(lens);
    merit_seeds(lens);
  }
  gpu_seeds();
  return 0;
}
