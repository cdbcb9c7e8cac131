"""Python face of libnuvrix_native, the numerical engine of a lens design
program: its records as NumPy structured dtypes, and its calls on NumPy
arrays through ctypes; nuvrix.plots draws the figures and nuvrix.device
runs on a CUDA device when the machine has one."""

from ._native import (BATCHED, CONFIG, FIELD, OPERAND, PICKUP, RAY_RESULT, RESULT,
                      SPOT_HIT, SPOT_RESULT, SURFACE, VARIABLE, NuvrixError, library, load)
from .calls import (encircled_energy, evaluate_batched, evaluate_merit, field_curves, first_order,
                    geometric_mtf, layout_rays, merit_jacobian, mtf, opd_fan, psf, quality,
                    ray_fan, seidel, spot_diagram, trace_rays, version, wavefront_map)
from .lens import Lens
from . import device  # noqa: E402  (nuvrix.device: the CUDA device's calls)

__all__ = ["load", "library", "version", "Lens", "NuvrixError", "trace_rays", "spot_diagram",
           "ray_fan", "opd_fan", "quality", "wavefront_map", "psf", "mtf", "geometric_mtf",
           "field_curves", "encircled_energy", "layout_rays", "first_order", "seidel",
           "merit_jacobian", "evaluate_batched", "evaluate_merit", "SURFACE", "CONFIG", "FIELD",
           "OPERAND", "VARIABLE", "RESULT", "PICKUP", "BATCHED", "RAY_RESULT", "SPOT_RESULT",
           "SPOT_HIT"]
