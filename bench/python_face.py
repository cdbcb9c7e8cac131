"""The Python face's overhead, in one run: the same spot diagram and the
same million real rays from Python and from a C host of the same library
(a loop of single traces, and the one call of many that Python makes).

The C host is compiled here (cc, against api/nuvrix.h and the build's
library) and reads the Cooke triplet's records that this script writes, so
both sides make the same calls on the same bytes.  Medians of the repeats.

    PYTHONPATH=python /usr/bin/python3 bench/python_face.py [build folder]
"""

import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(ROOT / "python"))
import nuvrix  # noqa: E402

REPEATS = 15
RAYS = 1_000_000

C_HOST = r"""
#include <nuvrix.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

static int cmp(const void* a, const void* b) {
  double x = *(const double*)a, y = *(const double*)b;
  return (x > y) - (x < y);
}

int main(int argc, char** argv) {
  FILE* f = fopen(argv[1], "rb");
  int32_t n, w, nf, repeats = atoi(argv[2]), rays = atoi(argv[3]);
  if (!f || fread(&n, 4, 1, f) != 1 || fread(&w, 4, 1, f) != 1 || fread(&nf, 4, 1, f) != 1) return 1;
  SurfaceData* s = malloc(sizeof *s * n);
  double* idx = malloc(8 * n * w);
  double* weights = malloc(8 * w);
  FieldData* fields = malloc(sizeof *fields * nf);
  SystemConfig c;
  double* launches = malloc(8 * 5 * (size_t)rays);
  if (fread(s, sizeof *s, n, f) != (size_t)n || fread(idx, 8, n * w, f) != (size_t)(n * w) ||
      fread(weights, 8, w, f) != (size_t)w || fread(fields, sizeof *fields, nf, f) != (size_t)nf ||
      fread(&c, sizeof c, 1, f) != 1 || fread(launches, 8, 5 * (size_t)rays, f) != 5 * (size_t)rays)
    return 1;
  SpotRayHit* hits = malloc(sizeof *hits * 4000);
  SpotDiagramResult r;
  double* t = malloc(8 * repeats);
  for (int k = 0; k < repeats; ++k) {
    double t0 = now();
    nuvrix_compute_spot_diagram_with_rays(s, n, idx, weights, w, &c, fields, nf, 2, 20, 1, hits,
                                          4000, &r);
    t[k] = now() - t0;
  }
  qsort(t, repeats, 8, cmp);
  printf("%.9f ", t[repeats / 2]);
  double sum = 0.0;
  for (int k = 0; k < 3; ++k) {
    double t0 = now();
    for (int i = 0; i < rays; ++i) {
      const double* u = launches + 5 * (size_t)i;
      RayTraceResult q = nuvrix_trace_ray(s, n, idx + n, 1, 0, u[0], u[1], u[2], u[3], u[4], 587.6);
      sum += q.y;
    }
    t[k] = now() - t0;
  }
  qsort(t, 3, 8, cmp);
  printf("%.9f ", t[1]);
  RayTraceResult* out = malloc(sizeof *out * (size_t)rays);
  for (int k = 0; k < 3; ++k) {
    double t0 = now();
    nuvrix_trace_rays(s, n, idx + n, 1, 0, launches, rays, 587.6, out);
    t[k] = now() - t0;
  }
  qsort(t, 3, 8, cmp);
  printf("%.9f %.3f\n", t[1], sum + out[rays - 1].y);
  return 0;
}
"""


def median_seconds(call, repeats):
    times = []
    for _ in range(repeats):
        t0 = time.perf_counter()
        call()
        times.append(time.perf_counter() - t0)
    return statistics.median(times)


def main():
    build = pathlib.Path(sys.argv[1]) if len(sys.argv) > 1 else ROOT / "build"
    nuvrix.load(build / "libnuvrix_native.so.0")
    lens = nuvrix.Lens.cooke_triplet()
    k = np.arange(RAYS)
    m = 0.2 * np.sin(0.001 * k)
    launches = np.ascontiguousarray(np.stack(
        [0 * m, 4.0 * np.cos(0.0007 * k), 0 * m, m, np.sqrt(1 - m * m)], axis=1))
    with tempfile.TemporaryDirectory() as work:
        work = pathlib.Path(work)
        (work / "host.c").write_text(C_HOST)
        subprocess.run(["cc", "-O2", "-o", str(work / "host"), str(work / "host.c"),
                        f"-I{ROOT / 'api'}", f"-L{build}", "-lnuvrix_native",
                        f"-Wl,-rpath,{build}"], check=True)
        with open(work / "records.bin", "wb") as f:
            f.write(np.array([lens.surface_count, lens.wave_count, len(lens.fields)],
                             dtype=np.int32).tobytes())
            for a in (lens.surfaces, lens.indices, np.ones(lens.wave_count), lens.fields,
                      lens.config, launches):
                f.write(np.ascontiguousarray(a).tobytes())
        out = subprocess.run([str(work / "host"), str(work / "records.bin"), str(REPEATS),
                              str(RAYS)], check=True, capture_output=True, text=True).stdout
    c_spot, c_rays, c_batch, _ = (float(v) for v in out.split())
    py_spot = median_seconds(lambda: nuvrix.spot_diagram(lens, 2, grid_size=20), REPEATS)
    py_rays = median_seconds(lambda: nuvrix.trace_rays(lens, launches, wave=1), 3)
    out = np.empty(RAYS, dtype=nuvrix.RAY_RESULT)
    py_kept = median_seconds(lambda: nuvrix.trace_rays(lens, launches, wave=1, out=out), 3)
    print(f"spot diagram, field index 2 (20 deg), 20 rings x 3 wavelengths: Python {py_spot * 1e3:.3f} ms, "
          f"C {c_spot * 1e3:.3f} ms, ratio {py_spot / c_spot:.3f}")
    print(f"{RAYS} real rays: Python (nuvrix_trace_rays) {py_rays:.3f} s, C loop of "
          f"nuvrix_trace_ray {c_rays:.3f} s, ratio {py_rays / c_rays:.3f}; C call of "
          f"nuvrix_trace_rays {c_batch:.3f} s, ratio {py_rays / c_batch:.3f}; Python into a "
          f"kept array {py_kept:.3f} s, ratio {py_kept / c_batch:.3f}")


if __name__ == "__main__":
    main()
