"""One version everywhere: the project's, in CMakeLists.txt, as the package,
the citation metadata and the command-line program give it."""

import os
import re
import subprocess
from pathlib import Path

import pytest

import splitmerge

REPOSITORY = Path(__file__).resolve().parents[2]
VERSION = re.search(r"project\(splitmerge\s+VERSION\s+([0-9.]+)",
                    (REPOSITORY / "CMakeLists.txt").read_text()).group(1)
CLI = os.environ.get("SPLITMERGE_CLI")


def test_package_version_is_the_projects() -> None:
    assert splitmerge.__version__ == VERSION


def test_citation_names_the_projects_version() -> None:
    citation = (REPOSITORY / "CITATION.cff").read_text()
    assert re.search(r"^version: (\S+)$", citation, re.MULTILINE).group(1) == VERSION


@pytest.mark.skipif(not CLI, reason="SPLITMERGE_CLI (the command-line program) not given")
def test_command_line_version_is_the_projects() -> None:
    run = subprocess.run([CLI, "--version"], capture_output=True, text=True, check=True)
    assert run.stdout.split() == ["splitmerge", VERSION]
