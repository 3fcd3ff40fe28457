"""The same image gives the same regions through every interface.

Real files (grey and colour PNG, 16-bit and 8-bit TIFF stacks, a NIfTI volume
of an odd shape, a boolean mask, a floating-point image, a picture that is not
square; whole, in a percentile window, one slice) go through the Python
``segment``, the command-line program, the Octave function ``smsegment`` and
the batch runner, with the default parameters and with explicit ones; every
label image must be the Python one."""

from __future__ import annotations

import os
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable, Iterator, Optional

import numpy as np
import pytest

import splitmerge
from conftest import REPOSITORY, noise_image

CLI = os.environ.get("SPLITMERGE_CLI")
OCTAVE = shutil.which("octave")

PARAMETER_SETS: dict[str, dict[str, Any]] = {
    "defaults": {},
    "explicit": dict(pred_choice="mean", interval_length=15, sigma=4.0, small_size=10,
                     group_mode="parallel", max_seed=4, use_all_seeds=True,
                     statistic_update=False, init_level=2, rejection=0.2, threshold_row=2,
                     pseudo_factor=1.5),
}
MATLAB_NAMES = {"pred_choice": "Predicate", "group_mode": "Grouping"}


@dataclass(frozen=True)
class Case:
    name: str
    file: str
    fit: Optional[str] = None
    rescale: Any = False  # or a (low, high) percentile window
    slice: Optional[int] = None
    # How Octave gets the array: imread of the file (with these arguments),
    # or the raw bytes of the .raw file Python writes next to it.
    imread: Optional[str] = None


CASES = [
    Case("grey_png", "grey.png", imread="'{path}'"),
    Case("colour_png", "colour.png", imread="'{path}'"),
    Case("tiff16_stack", "stack.tif", rescale=True, imread="'{path}', 'Index', 'all'"),
    Case("tiff16_window", "stack.tif", rescale=(1, 99), imread="'{path}', 'Index', 'all'"),
    # smsegment takes no slice: Octave reads that page alone.
    Case("tiff8_slice", "pages.tif", fit="pad", slice=2, imread="'{path}', 'Index', 3"),
    Case("nifti_crop", "volume.nii.gz", fit="crop"),
    Case("bool_mask", "mask.npy"),
    Case("float_rescale", "float.tif", rescale=True),
    Case("picture_pad", "picture.png", fit="pad", imread="'{path}'"),
    Case("picture_crop", "picture.png", fit="crop", imread="'{path}'"),
]


def write_inputs(folder: Path) -> dict[str, np.ndarray]:
    """Every input file and the array Python reads from it."""
    import nibabel
    import tifffile
    from PIL import Image

    grey = noise_image((64, 64), seed=1, levels=5).astype(np.uint8)
    colour = np.stack([noise_image((64, 64), seed=s, levels=4) for s in (2, 3, 4)],
                      axis=-1).astype(np.uint8)
    stack = (noise_image((8, 32, 32), seed=5, levels=6) * 15).astype(np.uint16)
    volume = noise_image((5, 40, 36), seed=6, levels=5).astype(np.int16)
    mask = noise_image((64, 64), seed=7, levels=3) > 100
    floats = (noise_image((64, 64), seed=8, levels=6) * 0.37 + 12.5).astype(np.float32)
    picture = noise_image((45, 70), seed=9, levels=5).astype(np.uint8)
    pages = noise_image((4, 48, 40), seed=10, levels=5).astype(np.uint8)

    Image.fromarray(grey).save(folder / "grey.png")
    Image.fromarray(colour).save(folder / "colour.png")
    tifffile.imwrite(folder / "stack.tif", stack, photometric="minisblack")
    nibabel.save(nibabel.Nifti1Image(volume.T, np.eye(4)), folder / "volume.nii.gz")
    np.save(folder / "mask.npy", mask)
    tifffile.imwrite(folder / "float.tif", floats, photometric="minisblack")
    Image.fromarray(picture).save(folder / "picture.png")
    tifffile.imwrite(folder / "pages.tif", pages, photometric="minisblack")
    return {"grey.png": grey, "colour.png": colour, "stack.tif": stack,
            "volume.nii.gz": volume, "mask.npy": mask, "float.tif": floats,
            "picture.png": picture, "pages.tif": pages}


class Runs:
    """Each interface's labels for every case and parameter set, each
    interface run once for all of them when first asked."""

    def __init__(self, folder: Path, client: Callable[[], Any]) -> None:
        self.folder = folder
        self.inputs = folder / "inputs"
        self.inputs.mkdir()
        self.arrays = write_inputs(self.inputs)
        self.client = client
        self.done: dict[str, dict[tuple[str, str], np.ndarray]] = {}

    def grey_shape(self, case: Case) -> tuple[int, ...]:
        """The shape of the labels: the input's, without colour or other slices."""
        shape = self.arrays[case.file].shape
        return shape[:2] if case.file == "colour.png" else shape[case.slice is not None:]

    def labels(self, interface: str, case: Case, params: str) -> np.ndarray:
        if interface not in self.done:
            self.done[interface] = getattr(self, f"run_{interface}")()
        return self.done[interface][case.name, params]

    def jobs(self) -> Iterator[tuple[Case, str, dict[str, Any]]]:
        for case in CASES:
            for params, given in PARAMETER_SETS.items():
                yield case, params, given

    def run_python(self) -> dict[tuple[str, str], np.ndarray]:
        return {(case.name, params): splitmerge.segment(
                    self.arrays[case.file], fit=case.fit, rescale=case.rescale,
                    slice=case.slice, **given)
                for case, params, given in self.jobs()}

    def run_cli(self) -> dict[tuple[str, str], np.ndarray]:
        if not CLI:
            pytest.skip("SPLITMERGE_CLI (the command-line program) not given")
        out = {}
        for case, params, given in self.jobs():
            labels = self.folder / f"cli-{case.name}-{params}.npy"
            options = [] if case.fit is None else ["--fit", case.fit]
            if case.rescale is True:
                options += ["--rescale"]
            elif case.rescale:
                options += ["--rescale", ",".join(str(v) for v in case.rescale)]
            options += [] if case.slice is None else ["--slice", str(case.slice)]
            for name, value in given.items():
                if name == "group_mode":
                    value = splitmerge.GROUP_MODES[value]
                options += ["--" + name.replace("_", "-"), str(int(value) if isinstance(
                    value, bool) else value)]
            done = subprocess.run([CLI, str(self.inputs / case.file), *options, "--quiet",
                                   "--labels", str(labels)],
                                  capture_output=True, text=True, timeout=120)
            assert done.returncode == 0, done.stderr
            out[case.name, params] = np.load(labels)
        return out

    def run_batch(self) -> dict[tuple[str, str], np.ndarray]:
        pytest.importorskip("distributed")
        from splitmerge.batch import segment_batch

        out = {}
        for case, params, given in self.jobs():
            folder = self.folder / f"batch-{case.name}-{params}"
            rows = segment_batch([self.inputs / case.file], folder, fit=case.fit,
                                 rescale=case.rescale, slice=case.slice, client=self.client(),
                                 progress=False, **given)
            assert rows[0]["status"] == "ok", rows
            out[case.name, params] = read_labels(Path(rows[0]["output"]))
        return out

    def run_octave(self) -> dict[tuple[str, str], np.ndarray]:
        if OCTAVE is None:
            pytest.skip("Octave is not installed")
        modules = mex_folder()
        if not (modules / "smsegment_mex.mex").exists():
            pytest.fail(f"no smsegment_mex.mex in {modules}: build it (cmake --build ... "
                        "--target splitmerge_mex) or set SPLITMERGE_MEX_DIR")
        script = [f"addpath('{REPOSITORY / 'matlab'}'); addpath('{modules}');"]
        for case, params, given in self.jobs():
            result = self.folder / f"octave-{case.name}-{params}"
            volume = len(self.grey_shape(case)) == 3  # not colour, whatever the third axis
            script.append(f"try\n{self.octave_input(case)}\n"
                          f"  L = smsegment(I{matlab_options(case, volume, given)});\n"
                          f"  write_raw('{result}.raw', int32(permute(L, [2 1 3])));\n"
                          f"catch err\n"
                          f"  write_raw('{result}.error', [err.identifier ': ' err.message]);\n"
                          f"end")
        (self.folder / "run_all.m").write_text(
            "1;\nfunction write_raw(path, values)\n  fid = fopen(path, 'w');\n"
            "  fwrite(fid, values, class(values));\n  fclose(fid);\nend\n"
            + "\n".join(script) + "\n")
        done = subprocess.run([OCTAVE, "--no-gui", "-q", "--norc", "--eval",
                               f"source('{self.folder / 'run_all.m'}')"],
                              capture_output=True, text=True, timeout=600)
        out = {}
        for case, params, _ in self.jobs():
            result = self.folder / f"octave-{case.name}-{params}"
            error = result.with_suffix(".error")
            assert not error.exists(), error.read_text()
            assert result.with_suffix(".raw").exists(), done.stdout + done.stderr
            out[case.name, params] = np.fromfile(result.with_suffix(".raw"),
                                                 np.int32).reshape(self.grey_shape(case))
        return out

    def octave_input(self, case: Case) -> str:
        """Octave code that sets I: imread for pictures, else the raw array."""
        path = self.inputs / case.file
        if case.imread is not None:
            read = f"  I = imread({case.imread.format(path=path)});"
            return read + ("\n  I = squeeze(I);" if case.file.endswith(".tif") else "")
        array = self.arrays[case.file]
        raw = path.with_suffix(".raw")
        array.tofile(raw)  # C order: x fastest, then y, then z
        octave_class = {"bool": "uint8", "int16": "int16", "float32": "single"}[array.dtype.name]
        extents = ", ".join(str(n) for n in reversed(array.shape))
        order = "[2 1 3]" if array.ndim == 3 else "[2 1]"
        convert = "logical" if array.dtype == bool else ""
        return (f"  fid = fopen('{raw}');\n"
                f"  I = {convert}(permute(reshape(fread(fid, Inf, '{octave_class}=>"
                f"{octave_class}'), [{extents}]), {order}));\n  fclose(fid);")


def matlab_options(case: Case, volume: bool, given: dict[str, Any]) -> str:
    """smsegment's name-value pairs for a case and parameters, with a leading comma."""
    pairs: list[tuple[str, str]] = []
    if case.fit is not None:
        pairs.append(("Fit", f"'{case.fit}'"))
    if case.rescale:
        pairs.append(("Rescale", "true" if case.rescale is True else
                      "[{} {}]".format(*case.rescale)))
    if volume:
        pairs.append(("Volume", "true"))
    for name, value in given.items():
        spelled = MATLAB_NAMES.get(name) or "".join(p.title() for p in name.split("_"))
        if isinstance(value, bool):
            text = "true" if value else "false"
        elif isinstance(value, str):
            text = f"'{value}'"
        else:
            text = repr(value)
        pairs.append((spelled, text))
    return "".join(f", '{name}', {value}" for name, value in pairs)


def mex_folder() -> Path:
    """Where the built Octave modules are: $SPLITMERGE_MEX_DIR, else in the
    build that made $SPLITMERGE_CLI, else in build/release."""
    given = os.environ.get("SPLITMERGE_MEX_DIR")
    if given:
        return Path(given)
    build = Path(CLI).resolve().parents[1] if CLI else REPOSITORY / "build" / "release"
    return build / "src" / "gateway"


def read_labels(path: Path) -> np.ndarray:
    if path.name.endswith((".nii", ".nii.gz")):
        import nibabel

        return np.asarray(nibabel.load(path).dataobj).T
    return np.load(path)


@pytest.fixture(scope="module")
def runs(tmp_path_factory: pytest.TempPathFactory, request: pytest.FixtureRequest) -> Runs:
    pytest.importorskip("nibabel")
    pytest.importorskip("tifffile")
    pytest.importorskip("PIL")
    return Runs(tmp_path_factory.mktemp("interfaces"),
                lambda: request.getfixturevalue("client"))


@pytest.mark.parametrize("params", list(PARAMETER_SETS))
@pytest.mark.parametrize("case", CASES, ids=[c.name for c in CASES])
@pytest.mark.parametrize("interface", ["cli", "octave", "batch"])
def test_every_interface_gives_the_python_labels(runs: Runs, interface: str, case: Case,
                                                 params: str) -> None:
    expected = runs.labels("python", case, params)
    assert expected.shape == runs.grey_shape(case) and expected.dtype == np.int32
    assert expected.max() > 2, "several regions, so that a difference would show"
    labels = runs.labels(interface, case, params)
    assert labels.shape == expected.shape
    np.testing.assert_array_equal(labels, expected)
