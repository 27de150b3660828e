#!/usr/bin/env bash
# Regenerates the seed corpora in fuzz/corpus/ from fuzz_make_corpus (built
# by fuzz/fuzz.sh in build-fuzz/). Inputs that once failed are kept: they are
# named crash-* and are not generated.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${PROBEMOND_FUZZ_BUILD_DIR:-$ROOT/build-fuzz}"
[ -x "$BUILD/bin/fuzz_make_corpus" ] || { echo "make_corpus: build the fuzzers first (./run fuzz 1)" >&2; exit 2; }
"$BUILD/bin/fuzz_make_corpus" "$ROOT/fuzz/corpus"
find "$ROOT/fuzz/corpus" -type f | sort
