"""Builds the extension module splitmerge._core with the project's CMake.

The C++ library and the binding are compiled by CMakeLists.txt
(option SPLITMERGE_BUILD_PYTHON) for the Python running this script.
"""

import os
import re
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

PROJECT_ROOT = Path(__file__).resolve().parent


def _forget_other_source(build_dir: Path) -> None:
    """Drop a CMake cache left by a checkout at another path (CMake refuses it)."""
    cache = build_dir / "CMakeCache.txt"
    if not cache.exists():
        return
    for line in cache.read_text(errors="replace").splitlines():
        if line.startswith("CMAKE_HOME_DIRECTORY:INTERNAL="):
            if Path(line.split("=", 1)[1]).resolve() != PROJECT_ROOT:
                cache.unlink()
            return


def project_version() -> str:
    """The version in CMakeLists.txt's project(), the project's only copy."""
    text = (PROJECT_ROOT / "CMakeLists.txt").read_text()
    found = re.search(r"project\(splitmerge\s+VERSION\s+([0-9.]+)", text)
    if found is None:
        raise RuntimeError("no project version in CMakeLists.txt")
    return found.group(1)


class CMakeExtension(Extension):
    def __init__(self, name: str) -> None:
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext: Extension) -> None:
        target = Path(self.get_ext_fullpath(ext.name)).resolve()
        build_dir = Path(self.build_temp).resolve() / "cmake"
        _forget_other_source(build_dir)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        subprocess.run(
            ["cmake", "-S", str(PROJECT_ROOT), "-B", str(build_dir),
             "-DCMAKE_BUILD_TYPE=Release",
             "-DSPLITMERGE_BUILD_PYTHON=ON",
             "-DSPLITMERGE_BUILD_TESTS=OFF",
             "-DSPLITMERGE_BUILD_TOOLS=OFF",
             "-DSPLITMERGE_BUILD_MEX=OFF",
             "-DSPLITMERGE_INSTALL=OFF",
             f"-DPython_EXECUTABLE={sys.executable}",
             f"-DSPLITMERGE_PYTHON_OUTPUT_DIR={target.parent}"],
            check=True)
        subprocess.run(
            ["cmake", "--build", str(build_dir), "--target", "splitmerge_python",
             "-j", jobs],
            check=True)
        built = target.parent / target.name
        if not built.exists():
            raise RuntimeError(f"CMake did not produce {built}")


setup(version=project_version(), ext_modules=[CMakeExtension("splitmerge._core")],
      cmdclass={"build_ext": CMakeBuild})
