"""The device calls of the Python face against the CPU's: on a real device
when the machine has one, and on the test's stand-in driver (its kernels'
bodies run on the host) in a child process whose engine is a copy with a
side file that names the kernels."""

import ctypes
import os
import pathlib
import shutil
import subprocess
import sys

import numpy as np
import pytest

import nuvrix
from nuvrix import device

KERNELS = ["nuvrix_smoke_kernel", "nuvrix_efl_jacobian_kernel", "nuvrix_ry_jacobian_kernel",
           "nuvrix_spot_jacobian_kernel", "nuvrix_opd_jacobian_kernel",
           "nuvrix_sd_jacobian_kernel", "nuvrix_ry_batched_jacobian_kernel",
           "nuvrix_efl_value_kernel", "nuvrix_ry_value_kernel", "nuvrix_merit_value_kernel",
           "nuvrix_merit_value_kernel_f32", "nuvrix_merit_value_kernel_soa",
           "nuvrix_trace_microbench_f32", "nuvrix_trace_microbench_f64", "nuvrix_de_vary_kernel",
           "nuvrix_de_select_kernel", "nuvrix_trace_grid_kernel"]


def searchable_triplet():
    """The Cooke triplet with its six curvatures free within 30 % of their
    values."""
    lens = nuvrix.Lens.cooke_triplet()
    lens.variables = np.zeros(6, dtype=nuvrix.VARIABLE)
    for j, k in enumerate(range(1, 7)):
        c = float(lens.surfaces["curvature"][k])
        lens.variables[j] = (0, k, 0, 0, 0, 0, 1, 1, min(0.7 * c, 1.3 * c), max(0.7 * c, 1.3 * c))
    return lens


def device_checks():
    """Every device call against the CPU on the same lens."""
    assert device.gpu_info()["available"] == 1
    lens = searchable_triplet()
    merit, residuals, _ = nuvrix.evaluate_merit(lens)
    on_device, device_residuals, _ = device.gpu_evaluate_merit(lens)
    assert on_device == pytest.approx(merit, rel=1e-9)
    assert np.allclose(device_residuals, residuals, rtol=1e-9, atol=1e-12)

    # A population of perturbed triplets: each merit is the CPU's for that lens.
    P, n = 5, lens.surface_count
    rng = np.random.default_rng(3)
    rows = [np.tile(lens.surfaces[name], (P, 1)) for name in ("curvature", "thickness", "conic")]
    rows[0][:, 1:7] *= 1.0 + 0.02 * rng.standard_normal((P, 6))
    rows[1][:, 1:7] += 0.1 * rng.standard_normal((P, 6))
    merits = device.gpu_population_merit(lens, *rows)
    for i in range(P):
        candidate = lens.copy()
        for name, r in zip(("curvature", "thickness", "conic"), rows):
            candidate.surfaces[name] = r[i]
        assert merits[i] == pytest.approx(nuvrix.evaluate_merit(candidate)[0], rel=1e-12)

    # The evolution: the same seed gives the same population, no candidate
    # gets worse than at the start, every value keeps its bounds, and the
    # best candidate's merit is the CPU's for the lens returned.
    _, start, _ = device.differential_evolution(lens, population=12, generations=0, seed=7)
    best, final, final_rows = device.differential_evolution(lens, population=12, generations=4,
                                                            seed=7)
    again = device.differential_evolution(lens, population=12, generations=4, seed=7)
    assert np.array_equal(final, again[1]) and np.array_equal(final_rows[0], again[2][0])
    assert np.all(final <= start)
    assert np.any(final < start)
    for v in lens.variables:
        column = final_rows[0][:, v["surface"]]
        assert np.all((column >= v["lower"]) & (column <= v["upper"]))
    assert nuvrix.evaluate_merit(best)[0] == pytest.approx(final.min(), rel=1e-9)
    assert device.gpu_population_merit(best, *final_rows)[np.argmin(final)] == final.min()


def test_records_keep_their_sizes():
    assert ctypes.sizeof(device.GpuTraceScratch) == 224
    assert ctypes.sizeof(device.DeCondition) == 48
    assert ctypes.sizeof(device.GpuQuery) == 28


def test_without_a_device_every_call_says_why():
    status = device.gpu_status()
    if status == 0:
        pytest.skip("this machine has a device")
    info = device.gpu_info()
    assert info["available"] == 0 and info["status"] == status and info["meaning"]
    lens = searchable_triplet()
    rows = [np.tile(lens.surfaces[name], (4, 1)) for name in ("curvature", "thickness", "conic")]
    for call in (lambda: device.gpu_evaluate_merit(lens),
                 lambda: device.gpu_population_merit(lens, *rows),
                 lambda: device.differential_evolution(lens, population=4, generations=1)):
        with pytest.raises(nuvrix.NuvrixError) as e:
            call()
        assert e.value.status == status
    # The batch falls back to the CPU by itself (unbounded variables: x is
    # then the curvatures themselves).
    lens.variables["has_lower"] = lens.variables["has_upper"] = 0
    x = np.array([lens.surfaces["curvature"][1:7]])
    assert nuvrix.evaluate_batched(lens, x, use_gpu=True)[0][0] == \
        nuvrix.evaluate_batched(lens, x)[0][0]


def test_on_the_device():
    if device.gpu_status() != 0:
        pytest.skip("no device on this machine")
    device_checks()


def test_on_the_stand_in_driver(tmp_path):
    fake = os.environ.get("NUVRIX_FAKE_DRIVER")
    if not fake:
        pytest.skip("NUVRIX_FAKE_DRIVER names no stand-in driver")
    engine = pathlib.Path(nuvrix.library()._name)
    shutil.copy(engine, tmp_path / "libnuvrix_native.so.0")
    (tmp_path / "nuvrix_kernel.fatbin").write_bytes(("\n".join(KERNELS) + "\n\0").encode())
    reader = engine.parent / "tools" / "libnuvrix_lensfile.so"
    env = dict(os.environ, LD_LIBRARY_PATH=fake, NUVRIX_LIBRARY=str(tmp_path / "libnuvrix_native.so.0"),
               NUVRIX_LENSFILE_LIBRARY=str(reader if reader.exists() else
                                           engine.parent / "libnuvrix_lensfile.so"))
    env.pop("FAKE_CUDA", None)
    child = subprocess.run([sys.executable, __file__], env=env, capture_output=True, text=True,
                           timeout=300)
    assert child.returncode == 0, child.stdout + child.stderr


if __name__ == "__main__":
    device_checks()
