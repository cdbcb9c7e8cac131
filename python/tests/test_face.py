"""The Python face against the engine's own calls and against closed forms."""

import ctypes
import threading

import numpy as np
import pytest

import nuvrix
from nuvrix import _native


def cooke():
    """The Cooke triplet at the d line, fields 0, 14 and 20 degrees."""
    index = [1.0, 1.620410, 1.0, 1.620040, 1.0, 1.620410, 1.0, 1.0]
    return nuvrix.Lens.from_records(
        [0, 22.01359, -435.76044, -22.21328, 20.29192, 79.68360, -18.39533, 0],
        [1e10, 3.25896, 6.00755, 0.99997, 4.75041, 2.95208, 42.20778, 0], [index], [0.5876],
        [0.0, 14.0, 20.0], 4, 10.0)


def test_records_match_the_layout_report():
    report = np.zeros(12, dtype=np.int32)
    nuvrix.library().nuvrix_merit_abi_info(report.ctypes.data)
    dtypes = [nuvrix.OPERAND, nuvrix.VARIABLE, nuvrix.SURFACE, nuvrix.CONFIG, nuvrix.FIELD,
              nuvrix.RESULT, nuvrix.PICKUP, nuvrix.BATCHED]
    assert [d.itemsize for d in dtypes] == list(report[4:12])
    assert list(report[4:12]) == [136, 48, 200, 48, 24, 16, 32, 32]
    assert nuvrix.version() == "0.1.0"


def test_many_rays_are_the_single_traces():
    lens = cooke()
    k = np.arange(300)
    m = 0.3 * np.sin(0.7 * k)
    launches = np.stack([0.1 * np.cos(k), np.linspace(-7, 7, 300), 0 * k, m,
                         np.sqrt(1 - m * m)], axis=1)
    many = nuvrix.trace_rays(lens, launches)
    lib = nuvrix.library()
    row = np.ascontiguousarray(lens.indices[0])
    for i, u in enumerate(launches):
        one = lib.nuvrix_trace_ray(lens.surfaces.ctypes.data, 8, row.ctypes.data, 1, 0,
                                   *map(float, u), 587.6)
        assert (one.x, one.y, one.l, one.m, one.valid) == (
            many["x"][i], many["y"][i], many["l"][i], many["m"][i], many["valid"][i])
    kept = np.full(300, 7, dtype=nuvrix.RAY_RESULT)
    assert nuvrix.trace_rays(lens, launches, out=kept) is kept
    assert np.array_equal(kept, many)
    with pytest.raises(nuvrix.NuvrixError):
        nuvrix.trace_rays(lens, launches, out=kept[:299])


def test_spot_radius_is_the_rms_of_its_hits():
    result, hits = nuvrix.spot_diagram(cooke(), 2, grid_size=8)
    assert len(hits) == result["ray_count"] == 1 + 3 * 8 * 9
    d2 = (hits["x"] - result["chief_x"]) ** 2 + (hits["y"] - result["chief_y"]) ** 2
    assert result["rms_radius"] == pytest.approx(np.sqrt(d2.mean()), rel=1e-12)
    assert result["geo_radius"] == pytest.approx(np.sqrt(d2.max()), rel=1e-12)


def test_focal_length_operand_is_the_engines_focal_length():
    lens = cooke()
    ops = np.zeros(1, dtype=nuvrix.OPERAND)
    ops["type"], ops["weight"], ops["target"], ops["group_id"], ops["wave"] = 50, 4.0, 50.0, -1, -1
    merit, residuals, results = nuvrix.evaluate_merit(lens, ops)
    efl = nuvrix.library().nuvrix_calculate_efl(lens.surfaces.ctypes.data, 8,
                                                lens.indices.ctypes.data)
    # The operand's focal length and the exported one are two formulas of
    # the same quantity: they agree to rounding.
    assert results["value"][0] == pytest.approx(efl, rel=1e-13) and results["status"][0] == 1
    value = results["value"][0]
    assert residuals[0] == pytest.approx(2.0 * (value - 50.0), rel=1e-15)
    assert merit == pytest.approx(abs(value - 50.0), rel=1e-15)


def test_bad_input_raises_and_the_process_lives():
    lens = cooke()
    cases = [lambda: nuvrix.trace_rays(lens, np.zeros((3, 4))),
             lambda: nuvrix.trace_rays(lens, np.zeros((1, 5)), wave=1),
             lambda: nuvrix.spot_diagram(lens, 3),
             lambda: nuvrix.spot_diagram(lens, 0, grid_size=0),
             lambda: nuvrix.evaluate_merit(lens, np.zeros(2))]
    for call in cases:
        with pytest.raises(nuvrix.NuvrixError):
            call()
    lens.surfaces = np.zeros(8, dtype=[("curvature", "f8")])
    with pytest.raises(nuvrix.NuvrixError):
        nuvrix.trace_rays(lens, np.zeros((1, 5)))
    # The chief ray of a field beyond what the lens passes fails in the engine.
    wide = cooke()
    wide.fields["field_y"][2] = 89.0
    with pytest.raises(nuvrix.NuvrixError) as failure:
        nuvrix.spot_diagram(wide, 2)
    assert failure.value.status in (-2, -3)
    assert nuvrix.version() == "0.1.0"


def test_threads_give_what_each_gives_alone():
    lens = cooke()
    alone = [nuvrix.spot_diagram(lens, f, grid_size=10) for f in range(3)]
    got = [None] * 12

    def run(k):
        got[k] = nuvrix.spot_diagram(lens, k % 3, grid_size=10)

    threads = [threading.Thread(target=run, args=(k,)) for k in range(12)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for k, (result, hits) in enumerate(got):
        assert result.tobytes() == alone[k % 3][0].tobytes()
        assert hits.tobytes() == alone[k % 3][1].tobytes()


def test_lens_files_are_read_by_the_tools_reader(tmp_path):
    import pathlib
    examples = pathlib.Path(__file__).resolve().parents[2] / "examples"
    built_in = nuvrix.Lens.cooke_triplet()
    from_file = nuvrix.Lens.from_file(examples / "cooke_triplet.json")
    # The example file and the built-in triplet are one lens.
    assert built_in.surfaces.tobytes() == from_file.surfaces.tobytes()
    assert np.array_equal(built_in.indices, from_file.indices)
    assert built_in.default_merit and len(built_in.operands) == len(from_file.operands) > 300
    perturbed = nuvrix.Lens.from_file(examples / "cooke_perturbed.json")
    assert len(perturbed.variables) == 8 and perturbed.variables["has_upper"][6] == 1
    merit, residuals, _ = nuvrix.evaluate_merit(from_file)
    assert merit > 0 and len(residuals) > 0
    bad = tmp_path / "bad.json"
    bad.write_text('{"surfaces": 3}')
    with pytest.raises(nuvrix.NuvrixError):
        nuvrix.Lens.from_file(bad)


def test_lens_edits_are_read_with_the_files_rules():
    import json
    import pathlib
    examples = pathlib.Path(__file__).resolve().parents[2] / "examples"
    for name in ("cooke_triplet_merit.json", "cooke_perturbed.json"):
        path = examples / name
        from_file = nuvrix.Lens.from_file(path)
        blocks = json.loads(path.read_text())
        edited = from_file.copy()
        edited.operands = edited.operands[:0]
        edited.variables = edited.variables[:0]
        edited.set_merit(blocks.get("merit", "default"))
        edited.set_variables(blocks.get("variables", []))
        edited.set_pickups(blocks.get("pickups", []))
        for block in ("operands", "variables", "pickups"):
            assert getattr(edited, block).tobytes() == getattr(from_file, block).tobytes()
    lens = nuvrix.Lens.cooke_triplet()
    for bad in ([{"operand": "NO_SUCH_OPERAND"}], [{"operand": "RAY_X", "field": 4}],
                float("inf")):
        with pytest.raises(nuvrix.NuvrixError):
            lens.set_merit(bad)
    with pytest.raises(nuvrix.NuvrixError):
        lens.set_variables([{"kind": "curvature", "surface": 99}])
    # One wavelength of the three, a new pupil and new fields: the paraxial
    # data of that row, the pupil asked for, the fields' count.
    efl = nuvrix.first_order(lens, wave=2)["efl"]
    lens.set_wavelengths([lens.wavelengths_um[2]], [lens.indices[2]])
    lens.set_aperture(8.0)
    lens.set_fields([0.0, 5.0, 10.0, 15.0])
    first = nuvrix.first_order(lens)
    assert first["efl"] == pytest.approx(efl, rel=1e-12)
    assert first["entrance_pupil_diameter"] == pytest.approx(8.0, rel=1e-12)
    spots = [nuvrix.spot_diagram(lens, f)[0]["rms_radius"] for f in (0, 3)]
    assert spots[1] > spots[0] > 0.0
    with pytest.raises(nuvrix.NuvrixError):
        lens.set_wavelengths([0.5, 0.6], [lens.indices[0]])


def test_ray_fans_of_the_axis_are_alike():
    # On the axis of a system of revolution the sagittal fan is the
    # tangential one, and both are odd in the pupil coordinate.
    tangential, sagittal = nuvrix.ray_fan(nuvrix.Lens.cooke_triplet(), 0, 20)
    assert np.allclose(tangential["value"], sagittal["value"], rtol=0, atol=1e-12)
    assert np.allclose(tangential["value"], -tangential["value"][:, ::-1], rtol=0, atol=1e-12)
    assert tangential["valid"].all() and np.abs(tangential["value"]).max() > 1e-3


def test_every_plot_is_written(tmp_path):
    from nuvrix import __main__ as cli
    assert cli.main(["plots", "--out", str(tmp_path)]) == 0
    written = sorted(p.name for p in tmp_path.iterdir())
    assert written == ["encircled_energy.png", "field_curves.png", "geometric_mtf.png",
                       "layout.png", "mtf.png", "opd_fans.png", "psf.png", "ray_fans.png", "spots.png", "wavefront.png"]
    for p in tmp_path.iterdir():
        assert p.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n" and p.stat().st_size > 20000
    assert cli.main(["plots", str(tmp_path / "missing.json"), "--out", str(tmp_path)]) == 2


def test_diffraction_results_keep_their_closed_forms():
    lens = nuvrix.Lens.cooke_triplet()
    radius, f_number, cutoff = nuvrix.quality(lens)
    assert cutoff == pytest.approx(1.0 / (lens.wavelengths_um[1] * 1e-3 * f_number), rel=1e-12)
    nu, t, s, _ = nuvrix.mtf(lens, 1)
    # The transfer is 1 at zero frequency and nothing at the cutoff.
    assert t[0] == pytest.approx(1.0, abs=1e-12) and s[0] == pytest.approx(1.0, abs=1e-12)
    assert nu[-1] == pytest.approx(cutoff, rel=1e-12) and abs(t[-1]) < 1e-3
    values, result = nuvrix.wavefront_map(lens, 2)
    assert result["rms"] == pytest.approx(np.nanstd(values), rel=1e-9)
    assert result["peak_to_valley"] == pytest.approx(np.nanmax(values) - np.nanmin(values),
                                                     rel=1e-12)
    image, psf = nuvrix.psf(lens, 0)
    assert image.max() == pytest.approx(1.0, rel=1e-12) and 0.0 < psf["strehl"] < 1.0
    tangential, sagittal = nuvrix.opd_fan(lens, 0, 20)
    assert np.allclose(tangential["value"], sagittal["value"], rtol=0, atol=1e-9)
    # With diffraction the geometric curve is multiplied by the diffraction
    # limit 2/pi (acos v - v sqrt(1 - v^2)), v the frequency over the cutoff.
    for wave in (None, 1):
        nu, t, s = nuvrix.geometric_mtf(lens, 2, wave=wave)
        _, td, sd = nuvrix.geometric_mtf(lens, 2, wave=wave, diffraction=True)
        v = nu / cutoff
        limit = 2.0 / np.pi * (np.arccos(v) - v * np.sqrt(1.0 - v * v))
        assert nu[-1] == 100.0 and t[0] == pytest.approx(1.0) and np.all(t <= 1.0 + 1e-12)
        assert np.allclose(td, t * limit, rtol=1e-9, atol=1e-12)
        assert np.allclose(sd, s * limit, rtol=1e-9, atol=1e-12)


def test_field_curves_and_encircled_energy_keep_their_definitions():
    lens = nuvrix.Lens.cooke_triplet()
    points = nuvrix.field_curves(lens, 10)
    assert len(points) == 11 and points["field"][-1] == pytest.approx(20.0)
    off = points[1:]
    assert np.allclose(off["distortion_percent"],
                       100.0 * (off["real_height"] - off["paraxial_height"]) / off["paraxial_height"],
                       rtol=1e-9, atol=1e-12)
    radius, diffraction, geometric = nuvrix.encircled_energy(lens, 1, max_radius_um=200.0)
    for energy in (diffraction, geometric):
        assert np.all(np.diff(energy) >= -1e-12) and energy[0] <= 0.05
        assert 0.95 < energy[-1] <= 1.0 + 1e-12


def test_layout_rays_meet_at_the_image():
    lens = nuvrix.Lens.cooke_triplet()
    axial, surfaces = nuvrix.layout_rays(lens, 0)
    assert all(np.isfinite(path).all() for path in axial)
    # The axial bundle comes to a focus on the image surface, its marginal
    # rays entering at the pupil's rim.
    assert max(abs(path[-1, 1]) for path in axial) < 0.05
    assert axial[0][0, 1] == pytest.approx(-5.0) and axial[-1][0, 1] == pytest.approx(5.0)
    off, _ = nuvrix.layout_rays(lens, 2)
    heights = [path[-1, 1] for path in off]
    assert max(heights) - min(heights) < 0.2 and np.mean(heights) == pytest.approx(18.2, abs=0.2)
    assert (surfaces["semi_diameter"][1:] > 0).all()


def test_first_order_seidel_and_jacobian():
    lens = nuvrix.Lens.cooke_triplet()
    fo = nuvrix.first_order(lens)
    efl = nuvrix.library().nuvrix_calculate_efl(lens.surfaces.ctypes.data, 8,
                                                np.ascontiguousarray(lens.indices[1]).ctypes.data)
    assert fo["efl"] == pytest.approx(efl, rel=1e-12) and fo["entrance_pupil_diameter"] == 10.0
    surfaces, total = nuvrix.seidel(lens)
    assert len(surfaces) == total["count"] > 0
    for name in ("s1", "s2", "s3", "s4", "s5"):
        assert total[name] == pytest.approx(surfaces[name].sum(), rel=1e-9, abs=1e-12)
    # The analytic Jacobian of the perturbed triplet against finite differences.
    import pathlib
    examples = pathlib.Path(__file__).resolve().parents[2] / "examples"
    perturbed = nuvrix.Lens.from_file(examples / "cooke_perturbed.json")
    merit, residuals, analytic = nuvrix.merit_jacobian(perturbed)
    _, _, differences = nuvrix.merit_jacobian(perturbed, analytic=False, threads=2)
    assert analytic.shape == (len(residuals), 8) and merit > 0
    scale = np.abs(analytic).max()
    assert np.abs(analytic - differences).max() < 1e-3 * scale


def test_batch_candidates_are_their_single_evaluations():
    import pathlib
    examples = pathlib.Path(__file__).resolve().parents[2] / "examples"
    lens = nuvrix.Lens.from_file(examples / "cooke_perturbed.json")
    lens.variables = lens.variables[:6].copy()  # the six curvatures, unbounded: x is physical
    base = lens.surfaces["curvature"][1:7]
    x = np.array([base * (1.0 + 0.002 * k) for k in range(4)])
    merits, residuals, jacobians = nuvrix.evaluate_batched(lens, x, jacobian=True, threads=2)
    for k in range(4):
        one = nuvrix.Lens.from_file(examples / "cooke_perturbed.json")
        one.variables = lens.variables
        one.surfaces["curvature"][1:7] = x[k]
        merit, res, jac = nuvrix.merit_jacobian(one)
        assert merits[k] == merit
        assert np.array_equal(residuals[k][:len(res)], res)
        assert np.array_equal(jacobians[k][:len(res)], jac)
    with pytest.raises(nuvrix.NuvrixError):
        nuvrix.evaluate_batched(lens, np.zeros((2, 5)))
