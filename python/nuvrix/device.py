"""The engine's CUDA device from Python: whether there is one, the merit of
a lens with its rays traced there, the merits of a population of candidate
lenses in one launch, and a differential evolution that runs whole
generations on the device.  Every call raises NuvrixError with the set-up's
status when the machine has no usable device; the batched evaluation with
use_gpu=True (calls.evaluate_batched) falls back to the CPU by itself."""

import ctypes

import numpy as np

from . import _native as native
from .calls import _index

__all__ = ["gpu_status", "gpu_info", "catalogue", "gpu_evaluate_merit", "gpu_population_merit",
           "differential_evolution", "DeCondition"]

_SETUP = {1: "no CUDA driver, or a driver without a device", 2: "no CUDA device",
          3: "no context on the device",
          4: "no side file nuvrix_kernel.fatbin beside the engine, an unreadable one, or one "
             "without a required kernel"}
_RUN = {-1: "the device is not set up", -2: "no context", -3: "a null array or a short scratch",
        -4: "a copy failed", -5: "a launch failed", -6: "the synchronisation failed",
        -8: "a count below 1, or an index out of range", -9: "the side file lacks the kernel",
        -10: "the side file lacks the kernel"}

_P, _I, _D, _L = ctypes.c_void_p, ctypes.c_int32, ctypes.c_double, ctypes.c_long


class GpuQuery(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int32) for name in
                ("available", "multiprocessor_count", "max_threads_per_multiprocessor",
                 "max_threads_per_block", "warp_size", "compute_major", "compute_minor")]


class DeCondition(ctypes.Structure):
    """What every trial of the evolution must keep: the least centre and edge
    thickness of glass and of air (mm) between first_surface and
    last_surface."""
    _fields_ = [("min_glass_center", ctypes.c_double), ("min_glass_edge", ctypes.c_double),
                ("min_air_center", ctypes.c_double), ("min_air_edge", ctypes.c_double),
                ("first_surface", ctypes.c_int32), ("last_surface", ctypes.c_int32),
                ("reserved", ctypes.c_int32 * 2)]


_GPU_TRACE_ARRAYS = [("field_indices", "i4"), ("wave_indices", "i4"), ("ray_kinds", "i4"),
                     ("surface_indices", "i4"), ("hy_values", "f8"), ("px_values", "f8"),
                     ("py_values", "f8"), ("x", "f8"), ("y", "f8"), ("valid_flags", "i4"),
                     ("z", "f8"), ("l", "f8"), ("m", "f8"), ("n", "f8"), ("optical_path", "f8"),
                     ("launch_x", "f8"), ("launch_y", "f8"), ("launch_z", "f8"),
                     ("launch_l", "f8"), ("launch_m", "f8"), ("launch_n", "f8"),
                     ("normal_x", "f8"), ("normal_y", "f8"), ("normal_z", "f8"),
                     ("stop_radii", "f8")]


class GpuTraceScratch(ctypes.Structure):
    _fields_ = [(name, _P) for name, _ in _GPU_TRACE_ARRAYS] + [
        ("capacity", ctypes.c_int32), ("device_scratch", _P), ("device_scratch_bytes", _L)]


_PROTOTYPES = [
    ("nuvrix_gpu_init", _I, []),
    ("nuvrix_gpu_last_cuda_error", _I, []),
    ("nuvrix_gpu_alloc_device", _I, [_L, ctypes.POINTER(_P)]),
    ("nuvrix_gpu_free_device", _I, [_P]),
    ("nuvrix_gpu_htod_device", _I, [_P, _P, _L]),
    ("nuvrix_gpu_dtoh_device", _I, [_P, _P, _L]),
    ("nuvrix_gpu_merit_value_scratch_size", _L, [_I] * 5),
    ("nuvrix_gpu_trace_grid_scratch_size", _L, [_I] * 4),
    ("nuvrix_gpu_run_merit_value", _I, [_P, _I, _P, _I, _I, _P, _P, _P, _P, _I, _P, _I, _P, _P,
                                        _P, _P, _I, _P, _L, _I]),
    ("nuvrix_gpu_run_merit_value_f32", _I, [_P, _I, _P, _I, _I, _P, _P, _P, _P, _I, _P, _I, _P,
                                            _P, _P, _P, _I, _P, _L, _I]),
    ("nuvrix_gpu_evaluate_merit_value", _I, [_P, _I, _P, _P, _I, _P, _P, _I, _P, _I, _P, _P, _P,
                                             _P, ctypes.POINTER(GpuTraceScratch), _I]),
    ("nuvrix_gpu_de_scratch_size", _L, [_I] * 5),
    ("nuvrix_gpu_run_de_eval_pop", _I, [_P] * 12 + [_L] + [_I] * 5),
    ("nuvrix_gpu_run_de_generation", _I, [_P] * 11 + [_I, _P, _P, _P, _I] + [_P] * 7 + [_L] +
     [_I] * 8 + [_D] * 3 + [_I] * 2 + [DeCondition]),
]
_bound = None


def _lib():
    global _bound
    lib = native.library()
    if _bound is not lib:
        for name, result, args in _PROTOTYPES:
            fn = getattr(lib, name)
            fn.restype, fn.argtypes = result, args
        lib.nuvrix_gpu_query.restype, lib.nuvrix_gpu_query.argtypes = GpuQuery, []
        _bound = lib
    return lib


def gpu_status():
    """The device's set-up status: 0 ready, else the reason (see gpu_info)."""
    return int(_lib().nuvrix_gpu_init())


def gpu_info():
    """The device's figures as a dict (available 0 and zeros without one),
    with its set-up status and what that status means."""
    status = gpu_status()
    q = _lib().nuvrix_gpu_query()
    info = {name: int(getattr(q, name)) for name, _ in GpuQuery._fields_}
    info["status"] = status
    info["meaning"] = "ready" if status == 0 else _SETUP.get(status, "unknown")
    return info


def _require():
    status = gpu_status()
    if status != 0:
        raise native.NuvrixError(_SETUP.get(status, "the device could not be set up"), status)
    return _lib()


def _check_run(status, what):
    if status != 0:
        code = _lib().nuvrix_gpu_last_cuda_error()
        raise native.NuvrixError(f"{what}: {_RUN.get(status, 'the device failed')} "
                                 f"(driver error {code})", status)


class _Blocks:
    """Device blocks of one call, freed when it ends."""

    def __init__(self):
        self.held = []

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        for d in self.held:
            _lib().nuvrix_gpu_free_device(d)

    def put(self, array=None, nbytes=None):
        nbytes = max(int(array.nbytes if nbytes is None else nbytes), 1)
        d = _P()
        _check_run(_lib().nuvrix_gpu_alloc_device(nbytes, ctypes.byref(d)), "device memory")
        self.held.append(d.value)
        if array is not None:
            _check_run(_lib().nuvrix_gpu_htod_device(d.value, native.pointer(array), array.nbytes),
                       "copy to the device")
        return d.value

    @staticmethod
    def get(array, device):
        _check_run(_lib().nuvrix_gpu_dtoh_device(native.pointer(array), device, array.nbytes),
                   "copy from the device")
        return array


def catalogue(lens):
    """The lens's glasses as a device catalogue: (rows of the indices of each
    surface followed by glass, one a row at every wavelength; the material
    id of each surface, -1 for air, index 1 at every wavelength)."""
    lens.check()
    glass = ~np.all(lens.indices == 1.0, axis=0)
    ids = np.full(lens.surface_count, -1, dtype=np.int32)
    ids[glass] = np.arange(int(glass.sum()), dtype=np.int32)
    rows = np.ascontiguousarray(lens.indices[:, glass].T)
    return (rows if len(rows) else np.ones((1, lens.wave_count))), ids


def _operands(lens):
    if len(lens.operands) < 1:
        raise native.NuvrixError("the lens has no merit operands")
    return lens.operands


def gpu_evaluate_merit(lens, capacity=4096):
    """evaluate_merit with the merit's rays traced on the device (up to
    capacity of them; the CPU traces the rest): (merit, residuals, results),
    equal to evaluate_merit's apart from rounding."""
    lib = _require()
    lens.check()
    ops = _operands(lens)
    capacity = int(capacity)
    if capacity < 1:
        raise native.NuvrixError("capacity must be at least 1")
    host = {name: np.zeros(capacity, dtype=kind) for name, kind in _GPU_TRACE_ARRAYS}
    results = np.zeros(len(ops), dtype=native.RESULT)
    residuals = np.zeros(2 * len(ops))
    count, merit = np.zeros(1, dtype=np.int32), np.zeros(1)
    nbytes = lib.nuvrix_gpu_trace_grid_scratch_size(lens.surface_count, lens.wave_count,
                                                    len(lens.fields), capacity)
    with _Blocks() as blocks:
        scratch = GpuTraceScratch(**{name: native.pointer(a) for name, a in host.items()},
                                  capacity=capacity, device_scratch=blocks.put(nbytes=nbytes),
                                  device_scratch_bytes=nbytes)
        status = lib.nuvrix_gpu_evaluate_merit_value(
            native.pointer(lens.surfaces), lens.surface_count, native.pointer(lens.indices),
            native.pointer(lens.wavelengths_um), lens.wave_count, native.pointer(lens.config),
            native.pointer(lens.fields), len(lens.fields), native.pointer(ops), len(ops),
            native.pointer(results), native.pointer(residuals), native.pointer(count),
            native.pointer(merit), ctypes.byref(scratch), 0)
    if status != 0:
        raise native.NuvrixError("operands the engine does not support", status)
    return float(merit[0]), residuals[:int(count[0])].copy(), results


def _rows(values, shape, name, dtype=np.float64):
    a = np.ascontiguousarray(values, dtype=dtype)
    if a.shape != shape:
        raise native.NuvrixError(f"{name} must have the shape {shape}")
    return a


def gpu_population_merit(lens, curvatures, thicknesses, conics, materials=None, catalog=None,
                         single_precision_rows=False):
    """The merit of every candidate of a population in one launch: candidate
    i is the lens with row i of curvatures, thicknesses and conics (arrays
    (P, surfaces)) and the glasses of row i of materials (rows of the
    catalogue, -1 air; by default the lens's own, catalogue(lens)).  With
    single_precision_rows the rows travel as floats."""
    lib = _require()
    lens.check()
    ops = _operands(lens)
    curvatures = np.asarray(curvatures, dtype=np.float64)
    if curvatures.ndim != 2 or curvatures.shape[1] != lens.surface_count:
        raise native.NuvrixError("curvatures must have the shape (population, surfaces)")
    shape = curvatures.shape
    P = shape[0]
    rows = [_rows(curvatures, shape, "curvatures"), _rows(thicknesses, shape, "thicknesses"),
            _rows(conics, shape, "conics")]
    own_catalog, own_ids = catalogue(lens)
    catalog = own_catalog if catalog is None else np.asarray(catalog, dtype=np.float64)
    catalog = _rows(catalog, (len(catalog), lens.wave_count), "catalog")
    materials = np.tile(own_ids, (P, 1)) if materials is None else materials
    materials = _rows(materials, shape, "materials", np.int32)
    if len(catalog) < 1 or materials.max(initial=-1) >= len(catalog):
        raise native.NuvrixError("every material must be -1 or a row of the catalogue")
    merits = np.zeros(P)
    nbytes = lib.nuvrix_gpu_merit_value_scratch_size(P, lens.surface_count, lens.wave_count,
                                                     len(lens.fields), len(ops))
    run = lib.nuvrix_gpu_run_merit_value_f32 if single_precision_rows else \
        lib.nuvrix_gpu_run_merit_value
    with _Blocks() as blocks:
        status = run(native.pointer(lens.surfaces), lens.surface_count, native.pointer(catalog),
                     len(catalog), lens.wave_count, native.pointer(materials),
                     native.pointer(lens.wavelengths_um), native.pointer(lens.config),
                     native.pointer(lens.fields), len(lens.fields), native.pointer(ops), len(ops),
                     *[native.pointer(r) for r in rows], native.pointer(merits), P,
                     blocks.put(nbytes=nbytes), nbytes, 0)
    _check_run(status, "the population merit")
    return merits


def _vary_table(lens):
    """The lens's variables as rows (surface, parameter, lower, upper): the
    evolution varies curvatures, thicknesses and conics within bounds."""
    table = []
    for v in lens.variables:
        kind, surface = int(v["kind"]), int(v["surface"])
        if kind > 2 or not 1 <= surface < lens.surface_count:
            raise native.NuvrixError("the evolution varies curvatures, thicknesses and conics")
        if not (v["has_lower"] and v["has_upper"] and v["lower"] < v["upper"]):
            raise native.NuvrixError("every variable of the evolution needs a lower and an "
                                     "upper bound")
        table.append((surface, kind, float(v["lower"]), float(v["upper"])))
    if not table:
        raise native.NuvrixError("the lens has no variables")
    if len(lens.pickups):
        raise native.NuvrixError("the evolution takes no pickups")
    return np.array(table, dtype=np.float64)


def differential_evolution(lens, population=64, generations=100, scale=0.5, crossover=0.9,
                           seed=1, best_base=False, tries=8, condition=None):
    """Differential evolution of the lens's variables on the device, every
    generation there (DE/rand/1/bin, or DE/best/1/bin with best_base).  The
    start is the lens (candidate 0, held inside its bounds) and candidates
    drawn uniformly within the bounds from seed; each trial must keep
    condition (DeCondition; by default 0.5 mm of glass at the centre and
    the edge and 0.5 mm of air at the centre between surface 1 and the last
    before the image), drawn again up to tries times.  Returns (the best
    candidate as a Lens, the population's merits, its rows of curvatures,
    thicknesses and conics)."""
    lib = _require()
    lens.check()
    ops = _operands(lens)
    table = _vary_table(lens)
    P, generations, tries = int(population), int(generations), int(tries)
    if P < 4 or generations < 0 or tries < 1:
        raise native.NuvrixError("the evolution needs a population of 4, generations >= 0 "
                                 "and tries >= 1")
    n, W, F, O = lens.surface_count, lens.wave_count, len(lens.fields), len(ops)
    work = lens.copy()
    work.solve_semi_diameters()  # the condition reads the edges, and the merit the apertures
    if condition is None:
        condition = DeCondition(0.5, 0.5, 0.5, 0.0, 1, n - 2)
    rows = [np.tile(work.surfaces[name], (P, 1)) for name in ("curvature", "thickness", "conic")]
    rng = np.random.default_rng(seed)
    for surface, kind, lower, upper in table:
        column = rows[int(kind)][:, int(surface)]
        column[0] = min(max(column[0], lower), upper)
        column[1:] = rng.uniform(lower, upper, P - 1)
    catalog, ids = catalogue(work)
    materials = np.tile(ids, (P, 1))
    merits = np.zeros(P)
    nbytes = lib.nuvrix_gpu_de_scratch_size(P, n, W, F, O)
    with _Blocks() as d:
        pop = [d.put(r) for r in rows]
        pmat, pmerit = d.put(materials), d.put(merits)
        trials = [d.put(nbytes=r.nbytes) for r in rows]
        tmat, tmerit = d.put(nbytes=materials.nbytes), d.put(nbytes=merits.nbytes)
        none = d.put(nbytes=4)
        common = [d.put(work.surfaces), d.put(catalog), d.put(work.wavelengths_um),
                  d.put(work.config), d.put(work.fields), d.put(ops)]
        scratch = d.put(nbytes=nbytes)
        _check_run(lib.nuvrix_gpu_run_de_eval_pop(*pop, pmat, pmerit, *common, scratch, nbytes,
                                                  P, n, W, F, O), "the start population")
        vary = d.put(table)
        for g in range(generations):
            best = 0
            if best_base:
                best = int(np.nanargmin(d.get(merits, pmerit)))
            _check_run(lib.nuvrix_gpu_run_de_generation(
                *pop, pmat, pmerit, *trials, tmat, tmerit, vary, len(table), none, none, none, 0,
                *common, scratch, nbytes, P, n, W, F, O, int(seed), g, tries, float(scale),
                float(crossover), 0.0, best, int(bool(best_base)), condition),
                f"generation {g}")
        d.get(merits, pmerit)
        for r, p in zip(rows, pop):
            d.get(r, p)
    best = int(np.nanargmin(merits))
    result = work
    for name, r in zip(("curvature", "thickness", "conic"), rows):
        result.surfaces[name] = r[best]
    return result, merits, rows
