"""One version everywhere: the project's, in CMakeLists.txt, as the package,
the citation metadata and the command-line program give it."""

import os
import re
import subprocess
from pathlib import Path

import splitmerge

REPOSITORY = Path(__file__).resolve().parents[2]
VERSION = re.search(r"project\(splitmerge\s+VERSION\s+([0-9.]+)",
                    (REPOSITORY / "CMakeLists.txt").read_text()).group(1)
CLI = os.environ.get("SPLITMERGE_CLI")


def test_package_citation_and_command_line_give_the_projects_version() -> None:
    assert splitmerge.__version__ == VERSION
    citation = (REPOSITORY / "CITATION.cff").read_text()
    assert re.search(r"^version: (\S+)$", citation, re.MULTILINE).group(1) == VERSION
    if CLI:
        run = subprocess.run([CLI, "--version"], capture_output=True, text=True, check=True)
        assert run.stdout.split() == ["splitmerge", VERSION]
