#!/usr/bin/env bash
# Installs the dependencies, builds, and runs every test:
#   1. warnings-as-errors build: unit tests and system tests (virtual router, SAS simulator)
#   1b. the same against OpenWrt's libubus (../shared/openwrt): the tests of the libubus path
#   2. AddressSanitizer + UndefinedBehaviorSanitizer build: the whole unit suite
#   3. clang libFuzzer build: every fuzz target for CBSD_FUZZ_SECONDS (default 30) each
#   4. router builds (mipsel, armhf, -Os), their sizes, and the unit suite under qemu-user
#      for mipsel and armhf (32-bit time_t, long and pointers) and s390x (big-endian),
#      without the worker's and the loop's suites
# Must run as root: tests use private mount and network namespaces.
set -uo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
JOBS=${JOBS:-$(nproc)}
FUZZ_SECONDS=${CBSD_FUZZ_SECONDS:-30}

if [ "${CBSD_SKIP_DEPS:-0}" != 1 ]; then
    bash scripts/install-deps.sh || { echo "dependency installation failed"; exit 1; }
fi

passed=0
failed=0
status=0
summary=()

run_ctest() {  # name build-dir ctest-args...
    local name=$1 dir=$2
    shift 2
    local log="$dir/ctest-$name.log"
    local started=$SECONDS
    (cd "$dir" && ctest --output-on-failure -j"$JOBS" "$@") 2>&1 | tee "$log"
    local rc=${PIPESTATUS[0]}
    local line
    line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1)
    if [ -n "$line" ]; then
        local total fail
        total=$(sed -E 's/.* out of ([0-9]+).*/\1/' <<<"$line")
        fail=$(sed -E 's/.*passed, ([0-9]+) tests? failed.*/\1/' <<<"$line")
        passed=$((passed + total - fail))
        failed=$((failed + fail))
    elif [ "$rc" -ne 0 ]; then
        failed=$((failed + 1))
    fi
    summary+=("$name: ${line:-ctest exit $rc} ($((SECONDS - started)) s)")
    # The names of what failed, so that the summary's few lines say which:
    # ctest's list, and pytest's own lines for a system test file.
    while read -r failure; do summary+=("  $failure"); done < <(
        sed -n '/The following tests FAILED:/,/^Errors while running/p' "$log" | grep -E '^\s+[0-9]+ - '
        grep -E '^(FAILED|ERROR) [a-z_/]+\.py::' "$log" | cut -c1-200)
    [ "$rc" -eq 0 ] || status=1
}

stage_wanted() {  # name: CBSD_STAGES (say "main fuzz") runs only the stages it names
    [ -z "${CBSD_STAGES:-}" ] || [[ " $CBSD_STAGES " == *" $1 "* ]]
}

build() {  # dir cmake-args...   (BUILD_TARGETS limits what is built)
    local dir=$1
    shift
    local targets=()
    [ -z "${BUILD_TARGETS:-}" ] || targets=(--target $BUILD_TARGETS)
    cmake -S "$ROOT" -B "$dir" "$@" >/dev/null && cmake --build "$dir" -j"$JOBS" "${targets[@]}" 2>&1 | grep -v '^\['
    return "${PIPESTATUS[0]}"
}

if stage_wanted main; then
echo "== build (warnings are errors)"
if build build -DCBSD_WERROR=ON; then
    # The unit tests first, the system tests after them: a system test times
    # its gates to the second, and a unit suite beside it on the two cores
    # made tools take seconds (seen as a slow gate close in CI).
    run_ctest main build -LE system
    run_ctest system build -L system
else
    echo "build failed"; status=1; failed=$((failed + 1))
fi
fi

if stage_wanted openwrt; then
echo "== OpenWrt build: libubus from ../shared/openwrt, the tests of the libubus path"
# The tests that need libubus and a real ubusd: in the Debian build above
# they skip by name.
bus_tests='^((ModemPaths|LteWatchOverTheBus|BusOnRealUbusd|BusWithoutThread|StatusObjectOnTheBus)\.|system\.(test_procd_watchdog|test_status_object)$)'
OPENWRT_DIR=${CBSD_OPENWRT_DIR:-$ROOT/../shared/openwrt}
if [ -d "$OPENWRT_DIR/rootfs/usr/include" ]; then
    if BUILD_TARGETS="cbsd test_bus test_modem test_standalone test_daemon" \
       build build-openwrt -DCBSD_WERROR=ON -DCBSD_OPENWRT_ROOT="$OPENWRT_DIR/rootfs"; then
        run_ctest openwrt build-openwrt -R "$bus_tests"
    else
        echo "OpenWrt build failed"; status=1; failed=$((failed + 1))
    fi
else
    summary+=("openwrt: skipped: $OPENWRT_DIR (OpenWrt's libubus and ubusd) is absent")
fi
fi

if stage_wanted asan; then
echo "== AddressSanitizer + UndefinedBehaviorSanitizer build, unit tests"
if build build-asan -DCBSD_WERROR=ON -DCBSD_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug; then
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        run_ctest asan build-asan -L unit
else
    echo "sanitizer build failed"; status=1; failed=$((failed + 1))
fi
fi

if stage_wanted tsan; then
echo "== ThreadSanitizer build: the worker's unit tests and the system tests that run it"
TSAN_REPORTS="$ROOT/build-tsan/tsan-reports"
if BUILD_TARGETS="cbsd test_standalone test_daemon" build build-tsan -DCBSD_WERROR=ON -DCBSD_TSAN=ON -DCMAKE_BUILD_TYPE=Debug &&
   rm -rf "$TSAN_REPORTS" && mkdir -p "$TSAN_REPORTS"; then
    TSAN_OPTIONS="halt_on_error=0 log_path=$TSAN_REPORTS/report" \
        run_ctest tsan build-tsan -R '^(StandaloneThread|AuthorizedHeartbeat|WorkerControl|TransmitDeadline|TransmitGuardTest|system\.test_standalone|system\.test_guard)'
    if [ -n "$(ls -A "$TSAN_REPORTS")" ]; then
        echo "ThreadSanitizer reported:"; cat "$TSAN_REPORTS"/*
        status=1; failed=$((failed + 1)); summary+=("tsan: reports found")
    fi
else
    echo "thread sanitizer build failed"; status=1; failed=$((failed + 1))
fi
fi

if stage_wanted cross; then
echo "== router builds (mipsel, armhf) and s390x, each unit suite under qemu-user"
cross_start=$SECONDS
mkdir -p build-mipsel
if bash scripts/cross-build.sh --tests mipsel armhf s390x 2>&1 | tee build-mipsel/cross-build.log; then
    # The worker's and the supervision loop's suites run the same code on every
    # target and took most of the suite's time under emulation (they run
    # natively, under ASan and under TSan); the targets run everything else
    # (parsers, time arithmetic, the store, gates).
    worker_exchanges='^(StandaloneThread|AuthorizedHeartbeat|SupervisionTest|StoreFault|WorkerControl|RestartStress)\.'
    run_ctest mipsel build-mipsel -L unit -E "$worker_exchanges"
    run_ctest armhf build-armhf -L unit -E "$worker_exchanges"
    run_ctest s390x build-s390x -L unit -E "$worker_exchanges"
else
    echo "router build failed"; status=1; failed=$((failed + 1))
fi
while read -r line; do summary+=("$line"); done < <(grep '^cbsd ' build-mipsel/cross-build.log)
summary+=("router builds and their unit suites under qemu-user: $((SECONDS - cross_start)) s")
fi

if stage_wanted fuzz; then
echo "== libFuzzer build (clang), ${FUZZ_SECONDS} s per target"
if CC=clang CXX=clang++ build build-fuzz -DCBSD_FUZZ=ON -DCBSD_FUZZ_SECONDS="$FUZZ_SECONDS"; then
    JOBS=2 run_ctest fuzz build-fuzz -L fuzz
else
    echo "fuzz build failed"; status=1; failed=$((failed + 1))
fi
fi

echo
printf '%s\n' "${summary[@]}"
echo "all: $passed passed, $failed failed, in $SECONDS s"
exit "$status"
