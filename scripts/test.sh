#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and runs every test twice, in a
# normal build and in an AddressSanitizer + UndefinedBehaviorSanitizer build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/install-deps.sh"

export QT_QPA_PLATFORM=offscreen
status=0

echo "== Normal build"
bash "$root/scripts/build.sh" "$root/build"
(cd "$root/build" && ctest --output-on-failure -j2) || status=1

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
bash "$root/scripts/build.sh" "$root/build-asan" -DSCRIVA_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug -DSCRIVA_BUILD_BENCH=OFF
# Full stacks, so a leak inside a PKCS#11 module (SoftHSM) is told apart from one of ours.
export ASAN_OPTIONS="detect_leaks=1:fast_unwind_on_malloc=0"
export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
(cd "$root/build-asan" && ctest --output-on-failure -j2) || status=1

exit $status
