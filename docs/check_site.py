"""Check a built documentation site: the pictures its pages show exist.

Usage: python3 docs/check_site.py build/docs/html

Every ``<img src=...>`` of every page must name a non-empty file of the
site, and the pages that explain the method and the parameters must show
the pictures that the gallery examples drew.
"""

from __future__ import annotations

import re
import sys
from pathlib import Path

# Pages and the least number of gallery pictures each must show.
GALLERY_PICTURES = {"index.html": 1, "method.html": 2, "parameters.html": 1,
                    "auto_examples/plot_1_method.html": 2,
                    "auto_examples/plot_2_parameters.html": 6}


def pictures(page: Path) -> list[str]:
    return re.findall(r'<img [^>]*src="([^"]+)"', page.read_text(encoding="utf-8"))


def main(site: Path) -> int:
    problems = []
    for page in sorted(site.rglob("*.html")):
        for src in pictures(page):
            if src.startswith(("http:", "https:", "data:")):
                continue
            target = (page.parent / src).resolve()
            if not target.is_file() or target.stat().st_size == 0:
                problems.append(f"{page.relative_to(site)}: missing picture {src}")
    for name, least in GALLERY_PICTURES.items():
        page = site / name
        shown = [src for src in pictures(page) if "sphx_glr_" in src] if page.exists() else []
        if len(shown) < least:
            problems.append(f"{name}: {len(shown)} gallery pictures, expected {least} or more")
    for problem in problems:
        print(f"check_site: {problem}", file=sys.stderr)
    if not problems:
        print(f"check_site: every picture of {site} is there")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1])))
