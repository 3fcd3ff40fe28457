"""Sphinx configuration of the splitmerge documentation site.

Build it with the Python package installed and the command-line program
built (scripts/test.sh does both):

    SPLITMERGE_CLI=build/release/tools/splitmerge \\
        python3 -m sphinx -W -b html docs build/docs/html

The command line's help and the MATLAB/Octave help are taken from the
program and the M-files when the site is built, so they cannot go stale.
"""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

import splitmerge
from sphinx_gallery.sorting import FileNameSortKey

DOCS = Path(__file__).resolve().parent
REPOSITORY = DOCS.parent
GENERATED = DOCS / "_generated"

project = "splitmerge"
author = "The splitmerge developers"
copyright = "2026, The splitmerge developers"
version = re.search(r"project\(splitmerge\s+VERSION\s+([0-9.]+)",
                    (REPOSITORY / "CMakeLists.txt").read_text()).group(1)
release = version

extensions = [
    "sphinx.ext.autodoc",
    "numpydoc",
    "sphinx_gallery.gen_gallery",
]
exclude_patterns = ["_build", "_generated", "examples/README.txt"]
templates_path: list[str] = []
html_theme = "alabaster"
html_static_path = ["_static"]
html_theme_options = {
    "description": "Split-and-merge segmentation of 2-D and 3-D grey images",
    "fixed_sidebar": True,
    "page_width": "1180px",
    "sidebar_width": "220px",
    "body_max_width": "none",
}
html_sidebars = {"**": ["about.html", "navigation.html", "searchbox.html"]}

# The Python API from its numpydoc docstrings.
autodoc_typehints = "none"
autodoc_member_order = "bysource"
numpydoc_show_class_members = False
numpydoc_class_members_toctree = False

# The gallery: small examples run on real images at every build.
sphinx_gallery_conf = {
    "examples_dirs": "examples",
    "gallery_dirs": "auto_examples",
    "filename_pattern": r"/plot_",
    "download_all_examples": False,
    "remove_config_comments": True,
    "within_subsection_order": FileNameSortKey,
}


def _version_check() -> None:
    """The installed package must be the one these pages describe."""
    if splitmerge.__version__ != version:
        raise RuntimeError(
            f"splitmerge {splitmerge.__version__} is installed, the sources are {version}: "
            "install the package from this checkout first")


def _command_line_help() -> None:
    """Write the program's --help and --version into _generated/."""
    program = os.environ.get("SPLITMERGE_CLI",
                             str(REPOSITORY / "build" / "release" / "tools" / "splitmerge"))
    if not Path(program).is_file():
        raise RuntimeError(f"no command-line program at {program}: build it, or set "
                           "SPLITMERGE_CLI to the program")
    for flag, name in (("--help", "cli-help.txt"), ("--version", "cli-version.txt")):
        run = subprocess.run([program, flag], capture_output=True, text=True, check=True)
        (GENERATED / name).write_text(run.stdout)


def _batch_help() -> None:
    """Write the batch runner's --help into _generated/."""
    from splitmerge import batch

    os.environ["COLUMNS"] = "88"
    (GENERATED / "batch-help.txt").write_text(batch.build_parser().format_help())


def _m_file_help(path: Path) -> str:
    """The help text of an M-file: its first block of comment lines."""
    lines = path.read_text().splitlines()
    text = []
    started = False
    for line in lines[1:]:
        stripped = line.strip()
        if stripped.startswith("%"):
            started = True
            text.append(re.sub(r"^%", "", stripped, count=1))
        elif started:
            break
    return "\n".join(text) + "\n"


def _matlab_help() -> None:
    for name in ("smsegment", "splitmerge", "build_splitmerge", "splitmerge_version"):
        (GENERATED / f"{name}-help.txt").write_text(
            _m_file_help(REPOSITORY / "matlab" / f"{name}.m"))


GENERATED.mkdir(exist_ok=True)
_version_check()
_command_line_help()
_batch_help()
_matlab_help()
