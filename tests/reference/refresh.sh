#!/usr/bin/env bash
# Rebuilds cases.tar.xz, the reference cases every test suite reads, from a
# folder of cases (default: ../shared/conformance beside the repository).
# The archive is reproducible: the same cases give the same bytes.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
source="${1:-$here/../../../shared/conformance}"
[ -d "$source" ] || { echo "refresh: no folder $source" >&2; exit 2; }
parent="$(cd "$source/.." && pwd)"
name="$(basename "$source")"
tar -C "$parent" --sort=name --owner=0 --group=0 --numeric-owner --mtime=@0 \
  --transform "s,^$name,conformance," -cf - "$name" | xz -9 -T1 > "$here/cases.tar.xz.new"
mv "$here/cases.tar.xz.new" "$here/cases.tar.xz"
echo "refresh: $(tar -tJf "$here/cases.tar.xz" | grep -c '/params.json$') cases in $here/cases.tar.xz"
