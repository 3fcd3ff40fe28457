#!/usr/bin/env bash
# Plants the faults of tests/mutation/faults.txt one at a time in a scratch
# copy of the working tree and reports which ones the unit tests catch. Takes
# minutes; not part of scripts/test.sh. Options: see `run.sh --help`, e.g.
#   tests/mutation/run.sh                      # every fault
#   tests/mutation/run.sh --only sum-of-squares-in-32-bits
set -euo pipefail
cd "$(dirname "$0")/../.."
exec nice /usr/bin/python3 tests/mutation/run.py "$@"
