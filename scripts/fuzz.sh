#!/usr/bin/env bash
# Runs one fuzz target with libFuzzer: scripts/fuzz.sh <target> <seconds>, e.g.
#   scripts/fuzz.sh fuzz_cms 3600
# Builds a clang tree with SCRIVA_FUZZ=ON in build-fuzz/ (or $SCRIVA_FUZZ_BUILD), fuzzes a working
# copy of the target's seed corpus under <build>/fuzz-work/<target>/ and leaves any crashing
# input there as crash-*, leak-* or timeout-*. Reproduce one with: <build>/fuzzbin/<target> <file>.
# New inputs worth keeping can be minimised into the seed corpus with libFuzzer's -merge=1.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [ $# -ne 2 ]; then
  echo "usage: $0 <target, e.g. fuzz_cms> <seconds>" >&2
  exit 2
fi
target=$1; seconds=$2
case $target in fuzz_*) ;; *) target=fuzz_$target ;; esac
name=${target#fuzz_}
build=${SCRIVA_FUZZ_BUILD:-$root/build-fuzz}

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DSCRIVA_FUZZ=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSCRIVA_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target "$target" -j2

work=$build/fuzz-work/$target
mkdir -p "$work/corpus" "$work/artifacts"
cp -n "$root/tests/fuzz/corpus/$name/"* "$work/corpus/" 2>/dev/null || true

# Envelopes signed by this build's development PKI reach the accepting paths too.
if [ "$name" = cms ] && [ -f "$build/devpki/complete" ]; then
  cmake --build "$build" --target scriva-sign-request -j2 >/dev/null
  printf '<?xml version="1.0"?>\n<Request/>\n' > "$work/request.xml"
  for signer in server-chain1 server-chain2 signer-several-policies signer-expired; do
    "$build/bin/scriva-sign-request" --der -o "$work/corpus/devpki-$signer.der" "$work/request.xml" \
      "$build/devpki/$signer.key" "$build/devpki/$signer.pem"
  done
fi

export ASAN_OPTIONS="detect_leaks=1:${ASAN_OPTIONS:-}"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
exec "$build/fuzzbin/$target" -max_total_time="$seconds" -max_len=16384 -print_final_stats=1 \
  -artifact_prefix="$work/artifacts/" "$work/corpus"
