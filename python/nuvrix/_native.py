"""The engine's shared library through ctypes, and its records as NumPy dtypes.

ctypes, from Python's own library, needs no compiler and no build step, so
the package is plain Python next to the engine; cffi would add a
dependency that Debian's python3-numpy and python3-matplotlib do not bring.
"""

import ctypes
import os
import pathlib

import numpy as np

__all__ = ["NuvrixError", "load", "library", "lensfile", "SURFACE", "CONFIG", "FIELD", "OPERAND",
           "VARIABLE", "RESULT", "PICKUP", "BATCHED", "RAY_RESULT", "SPOT_RESULT", "SPOT_HIT", "FAN_POINT",
           "FAN_HEADER", "WAVEFRONT_RESULT", "PSF_RESULT", "MTF_POINT", "MTF_RESULT",
           "FIELD_CURVE_POINT", "EE_POINT", "EE_HEADER", "RAY_STATE",
           "FIRST_ORDER", "SEIDEL_SURFACE", "SEIDEL_RESULT"]


class NuvrixError(Exception):
    """A call the engine refused, or arguments that would leave its contract.

    status is the engine's return code (None where Python refused the call
    before it reached the engine); the message says what it means."""

    def __init__(self, message, status=None):
        super().__init__(message if status is None else f"{message} (status {status})")
        self.status = status


def _dtype(fields):
    return np.dtype(fields, align=True)


SURFACE = _dtype([("surface_reserved_head", "i4"), ("type", "i4"), ("curvature", "f8"),
                  ("thickness", "f8"), ("conic", "f8"), ("semi_diameter", "f8"),
                  ("aperture_kind", "i4"), ("coefficients", "f8", (8,)),
                  ("surface_reserved_mid", "i4"), ("is_mirror", "i4"),
                  ("aperture_radius", "f8"), ("aperture_radius_alt", "f8"),
                  ("aperture_override", "f8"), ("is_glass", "i4"), ("aperture_percent", "f8"),
                  ("model_glass", "i4"), ("model_nd", "f8"), ("model_vd", "f8"),
                  ("model_dpgf", "f8"), ("focal_length", "f8")])
CONFIG = _dtype([("field_type", "i4"), ("aperture_type", "i4"), ("aperture_value", "f8"),
                 ("ray_aiming", "i4"), ("stop_surface", "i4"), ("config_reserved", "i4"),
                 ("config_reserved_tail", "i4"), ("primary_wavelength", "i4"),
                 ("afocal_image", "i4"), ("penalize_failed_rays", "i4"),
                 ("telecentric_object", "i4")])
FIELD = _dtype([("field_y", "f8"), ("field_reserved", "f8"), ("field_x", "f8")])
OPERAND = _dtype([("type", "u4"), ("transform", "u4"), ("centroid_tag", "i4"),
                  ("group_id", "i4"), ("surface", "i4"), ("wave", "i4"), ("operand_a", "i4"),
                  ("operand_b", "i4"), ("surface_first", "i4"), ("surface_last", "i4"),
                  ("has_lower", "i4"), ("has_upper", "i4"), ("hx", "f8"), ("hy", "f8"),
                  ("px", "f8"), ("py", "f8"), ("target", "f8"), ("lower", "f8"),
                  ("upper", "f8"), ("weight", "f8"), ("scale", "f8"), ("reserved_int", "i4"),
                  ("sample_count", "i4"), ("reserved_double", "f8")])
VARIABLE = _dtype([("kind", "u4"), ("surface", "i4"), ("field", "i4"), ("reserved_a", "i4"),
                   ("reserved_b", "i4"), ("coefficient", "i4"), ("has_lower", "i4"),
                   ("has_upper", "i4"), ("lower", "f8"), ("upper", "f8")])
RESULT = _dtype([("value", "f8"), ("status", "i4")])
PICKUP = _dtype([("target_surface", "i4"), ("source_surface", "i4"), ("kind", "u4"),
                 ("factor", "f8"), ("offset", "f8")])
BATCHED = _dtype([("use_gpu", "i4"), ("jacobian_mode", "i4"), ("thread_count", "i4"),
                  ("want_jacobian", "i4"), ("reserved", "i4", (4,))])
RAY_RESULT = _dtype([("x", "f8"), ("y", "f8"), ("z", "f8"), ("l", "f8"), ("m", "f8"),
                     ("n", "f8"), ("nx", "f8"), ("ny", "f8"), ("nz", "f8"), ("sag_path", "f8"),
                     ("status", "i4"), ("opl", "f8"), ("phase_waves", "f8"), ("valid", "i4"),
                     ("states_written", "i4"), ("failed_surface", "i4"), ("violation", "f8")])
SPOT_RESULT = _dtype([("rms_radius", "f8"), ("rms_x", "f8"), ("rms_y", "f8"),
                      ("geo_radius", "f8"), ("chief_x", "f8"), ("chief_y", "f8"),
                      ("centroid_x", "f8"), ("centroid_y", "f8"), ("ray_count", "i4"),
                      ("field_index", "i4")])

FAN_POINT = _dtype([("pupil_coordinate", "f8"), ("value", "f8"), ("wavelength_index", "i4"),
                   ("valid", "i4")])
FAN_HEADER = _dtype([("field_index", "i4"), ("max_abs_value", "f8"), ("tangential_count", "i4"),
                     ("sagittal_count", "i4")])
WAVEFRONT_RESULT = _dtype([("grid_size", "i4"), ("peak_to_valley", "f8"), ("rms", "f8"),
                          ("field_index", "i4"), ("wavelength_index", "i4")])
PSF_RESULT = _dtype([("grid_size", "i4"), ("peak", "f8"), ("strehl", "f8"), ("pixel_pitch", "f8"),
                    ("field_index", "i4"), ("reserved", "i4")])
MTF_POINT = _dtype([("frequency", "f8"), ("tangential", "f8"), ("sagittal", "f8")])
MTF_RESULT = _dtype([("field_index", "i4"), ("wavelength_index", "i4"), ("point_count", "i4"),
                    ("max_frequency", "f8")])
FIELD_CURVE_POINT = _dtype([("field", "f8"), ("tangential_focus", "f8"), ("sagittal_focus", "f8"),
                           ("distortion_percent", "f8"), ("real_height", "f8"),
                           ("paraxial_height", "f8")])
EE_POINT = _dtype([("radius", "f8"), ("energy", "f8")])
EE_HEADER = _dtype([("point_count", "i4"), ("field_index", "i4"), ("wavelength_index", "i4"),
                    ("center_x", "f8"), ("center_y", "f8")])
RAY_STATE = _dtype([("x", "f8"), ("y", "f8"), ("z", "f8"), ("l", "f8"), ("m", "f8"), ("n", "f8"),
                    ("nx", "f8"), ("ny", "f8"), ("nz", "f8"), ("sag_path", "f8"),
                    ("status", "i4")])
FIRST_ORDER = _dtype([("efl", "f8"), ("bfl", "f8"), ("reserved", "f8"),
                      ("entrance_pupil_position", "f8"), ("exit_pupil_position", "f8"),
                      ("entrance_pupil_diameter", "f8"), ("exit_pupil_diameter", "f8"),
                      ("total_length", "f8"), ("image_distance", "f8")])
SEIDEL_SURFACE = _dtype([("surface", "i4"), ("s1", "f8"), ("s2", "f8"), ("s3", "f8"), ("s4", "f8"),
                         ("s5", "f8"), ("c1", "f8"), ("c2", "f8")])
SEIDEL_RESULT = _dtype([("count", "i4"), ("s1", "f8"), ("s2", "f8"), ("s3", "f8"), ("s4", "f8"),
                        ("s5", "f8"), ("c1", "f8"), ("c2", "f8")])
SPOT_HIT = _dtype([("x", "f8"), ("y", "f8"), ("wavelength_index", "i4"), ("valid", "i4")])

# The sizes that the engine reports, in the order of its layout report.
_REPORTED = [OPERAND, VARIABLE, SURFACE, CONFIG, FIELD, RESULT, PICKUP, BATCHED]

_P = ctypes.c_void_p
_I = ctypes.c_int32
_D = ctypes.c_double
_L = ctypes.c_long


class BatchedConfig(ctypes.Structure):
    """MeritBatchedConfig, passed by value."""
    _fields_ = [("use_gpu", ctypes.c_int32), ("jacobian_mode", ctypes.c_int32),
                ("thread_count", ctypes.c_int32), ("want_jacobian", ctypes.c_int32),
                ("reserved", ctypes.c_int32 * 4)]



# The prototypes the package calls: name, result, arguments.
_PROTOTYPES = [
    ("nuvrix_version", ctypes.c_char_p, []),
    ("nuvrix_merit_abi_info", None, [_P]),
    ("nuvrix_trace_ray", None, [_P, _I, _P, _I, _I, _D, _D, _D, _D, _D, _D]),
    ("nuvrix_trace_rays", _I, [_P, _I, _P, _I, _I, _P, _I, _D, _P]),
    ("nuvrix_compute_spot_diagram_with_rays", _I,
     [_P, _I, _P, _P, _I, _P, _P, _I, _I, _I, _I, _P, _I, _P]),
    ("nuvrix_compute_transverse_ray_fan", _I, [_P, _I, _P, _I, _P, _P, _I, _I, _I, _P, _P, _P]),
    ("nuvrix_compute_opd_fan", _I, [_P, _I, _P, _P, _I, _P, _P, _I, _I, _I, _D, _P, _P, _P]),
    ("nuvrix_compute_wavefront_map", _I, [_P, _I, _P, _P, _D, _P, _P, _I, _I, _I, _D, _P, _P, _P]),
    ("nuvrix_compute_fft_psf", _I,
     [_P, _I, _P, _P, _D, _P, _P, _I, _I, _I, _D, _D, _P, _P, _P, _P, _P, _P]),
    ("nuvrix_compute_fft_mtf", _I,
     [_P, _I, _P, _P, _D, _P, _P, _I, _I, _I, _D, _D, _D, _D, _P, _P, _P, _P, _P, _I, _P]),
    ("nuvrix_compute_geometric_mtf", _I,
     [_P, _I, _P, _P, _P, _I, _I, _I, _I, _I, _D, _D, _P, _P, _I, _P, _I, _P]),
    ("nuvrix_compute_geometric_mtf_polychromatic", _I,
     [_P, _I, _P, _P, _P, _I, _P, _P, _I, _I, _I, _I, _D, _D, _P, _P, _I, _P, _I, _P]),
    ("nuvrix_compute_field_curvature_distortion", _I, [_P, _I, _P, _P, _P, _I, _I, _D, _P, _P]),
    ("nuvrix_compute_diffraction_encircled_energy", _I, [_P, _I, _D, _D, _I, _P, _P]),
    ("nuvrix_compute_geometric_encircled_energy", _I, [_P, _I, _D, _D, _D, _I, _P, _P]),
    ("nuvrix_entrance_pupil_position", _D, [_P, _I, _P, _I]),
    ("nuvrix_compute_pupil_radius", _D, [_P, _I, _P, _P]),
    ("nuvrix_solve_semi_diameters", None, [_P, _I, _P, _P, _I, _P, _P, _I]),
    ("nuvrix_compute_seidel", _I, [_P, _I, _P, _P, _P, _P, _P, _I, _P, _I, _P]),
    ("nuvrix_evaluate_merit_and_jacobian", _I, [_P, _I, _P, _P, _I, _P, _P, _I, _P, _I, _P, _I,
                                                _P, _I, _I, _I, _I, _P, _P, _P, _P, _P, _P, _P,
                                                _P, _P, _P, _P, _P, _P, _P]),
    ("nuvrix_batched_scratch_size", _L, [_I, _I, _I, _I, _I, _I, _I]),
    ("nuvrix_evaluate_merit_batched", _I, [_P, _I, _P, _P, _I, _P, _P, _I, _P, _I, _P, _I, _P, _I,
                                           _I, _P, _P, _P, _P, _P, _P, BatchedConfig, _P,
                                           _L, _P, _P, _P, _P, _P]),
    ("nuvrix_evaluate_merit", _I, [_P, _I, _P, _P, _I, _P, _P, _I, _P, _I, _P, _P, _P, _P]),
    ("nuvrix_calculate_efl", _D, [_P, _I, _P]),
]



class ParaxialSolveResult(ctypes.Structure):
    """ParaxialSolveResult as nuvrix_paraxial_solve returns it by value."""
    _fields_ = [(name, ctypes.c_double) for name in FIRST_ORDER.names]


class RayTraceResult(ctypes.Structure):
    """RayTraceResult as nuvrix_trace_ray returns it by value."""
    _fields_ = [(name, ctypes.c_double if RAY_RESULT[name].kind == "f" else ctypes.c_int32)
                for name in RAY_RESULT.names]


_library = None


def _candidates():
    """Where the library may be, in order: NUVRIX_LIBRARY, beside the
    installed package, the build folder of a checkout."""
    env = os.environ.get("NUVRIX_LIBRARY")
    if env:
        yield pathlib.Path(env)
    here = pathlib.Path(__file__).resolve().parent
    for up in here.parents:
        yield up / "libnuvrix_native.so.0"
        if (up / "CMakeLists.txt").exists() and (up / "build").is_dir():
            yield up / "build" / "libnuvrix_native.so.0"


def load(path=None):
    """Loads the engine (from path, else from the places _candidates names)
    and checks every record's size against its layout report."""
    global _library
    paths = [pathlib.Path(path)] if path is not None else list(_candidates())
    for p in paths:
        if p.exists():
            lib = ctypes.CDLL(str(p))
            break
    else:
        raise NuvrixError("libnuvrix_native.so.0 not found; set NUVRIX_LIBRARY or call "
                          "nuvrix.load(path)")
    for name, result, args in _PROTOTYPES:
        fn = getattr(lib, name)
        fn.restype = result
        fn.argtypes = args
    lib.nuvrix_trace_ray.restype = RayTraceResult
    if ctypes.sizeof(BatchedConfig) != BATCHED.itemsize:
        raise NuvrixError("MeritBatchedConfig differs between ctypes and NumPy")
    lib.nuvrix_paraxial_solve.restype = ParaxialSolveResult
    lib.nuvrix_paraxial_solve.argtypes = [_P, _I, _P, _P, _P, _I, _P, _P]
    lib.nuvrix_trace_ray_full.restype = RayTraceResult
    lib.nuvrix_trace_ray_full.argtypes = [_P, _I, _P, _P, _I, _I, _D, _D, _D, _D, _D, _D]
    if ctypes.sizeof(RayTraceResult) != RAY_RESULT.itemsize:
        raise NuvrixError("RayTraceResult differs between ctypes and NumPy")
    report = np.zeros(12, dtype=np.int32)
    lib.nuvrix_merit_abi_info(report.ctypes.data)
    sizes = [int(v) for v in report[4:12]]
    mine = [d.itemsize for d in _REPORTED]
    if sizes != mine:
        raise NuvrixError(f"the engine's record sizes {sizes} differ from this package's {mine}")
    _library = lib
    return lib


_lensfile = None


def lensfile():
    """The lens-file reader (libnuvrix_lensfile.so, the nuvrix tool's own):
    NUVRIX_LENSFILE_LIBRARY, else beside the engine, else in build/tools of
    a checkout."""
    global _lensfile
    if _lensfile is not None:
        return _lensfile
    engine = pathlib.Path(library()._name)
    paths = [pathlib.Path(p) for p in [os.environ.get("NUVRIX_LENSFILE_LIBRARY")] if p]
    paths += [engine.parent / "libnuvrix_lensfile.so", engine.parent / "tools" / "libnuvrix_lensfile.so"]
    for p in paths:
        if p.exists():
            lib = ctypes.CDLL(str(p))
            break
    else:
        raise NuvrixError("libnuvrix_lensfile.so (the lens-file reader) not found beside "
                          f"{engine}; set NUVRIX_LENSFILE_LIBRARY")
    lib.nuvrix_lensfile_load.restype = _I
    lib.nuvrix_lensfile_load.argtypes = [ctypes.c_char_p, ctypes.POINTER(_P), ctypes.c_char_p, _I]
    lib.nuvrix_lensfile_counts.restype = None
    lib.nuvrix_lensfile_counts.argtypes = [_P, _P]
    lib.nuvrix_lensfile_name.restype = ctypes.c_char_p
    lib.nuvrix_lensfile_name.argtypes = [_P]
    lib.nuvrix_lensfile_copy.restype = None
    lib.nuvrix_lensfile_copy.argtypes = [_P] * 9
    lib.nuvrix_lensfile_free.restype = None
    lib.nuvrix_lensfile_free.argtypes = [_P]
    lib.nuvrix_lensfile_read_blocks.restype = _I
    lib.nuvrix_lensfile_read_blocks.argtypes = [ctypes.c_char_p, _P, _I, _P, _P, _I, _P, _P, _I,
                                                ctypes.POINTER(_P), ctypes.c_char_p, _I]
    lib.nuvrix_lensfile_quality.restype = _I
    lib.nuvrix_lensfile_quality.argtypes = [_P, _I, _P, _P, _I, _P, _P, _I, _P, ctypes.c_char_p, _I]
    _lensfile = lib
    return lib


def library():
    """The loaded engine; loads it on first use."""
    return _library if _library is not None else load()


def pointer(array):
    """The address of a NumPy array's data, or None for None."""
    return None if array is None else array.ctypes.data
