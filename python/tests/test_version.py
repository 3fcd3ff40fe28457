"""The package's version is the project's, from the file VERSION."""

from pathlib import Path

import splitmerge

REPOSITORY = Path(__file__).resolve().parents[2]


def test_version_is_the_projects() -> None:
    assert splitmerge.__version__ == (REPOSITORY / "VERSION").read_text().strip()
