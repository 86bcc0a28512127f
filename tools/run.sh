#!/usr/bin/env bash
# The two set-up commands of the README, for a fresh Debian 12 machine as root:
#   bash tools/run.sh demo              build, start the throwaway realm, walk through the library's jobs
#   bash tools/run.sh test              build and run the whole test suite with ctest
# and, for CI and developers:
#   bash tools/run.sh test --sanitize [CTEST ARGS]   the same suite built with AddressSanitizer and UBSan
#   bash tools/run.sh test --valgrind [CTEST ARGS]   the plain build's suite under valgrind memcheck (long runs
#                                       shortened); CI leaves out the labels scripts (both) and tool (valgrind)
#   bash tools/run.sh test --tsan       the threaded tests (label threads) built with ThreadSanitizer
#   bash tools/run.sh bench [--smoke] [ldap|kerberos|threads]   the benchmarks (bench/README.md)
#   bash tools/run.sh consumer          install into a temporary prefix and build a consumer against it
#   bash tools/run.sh fuzz [SECONDS] [--jobs N] [--seed N] [TARGET...]   the libFuzzer targets, SECONDS each (tests/fuzz/run.sh)
#   bash tools/run.sh package [--check]  Debian packages into build-deb/, lintian-clean; --check installs them,
#                                       builds the consumer against /usr and purges them (tools/package.sh)
#   bash tools/run.sh abi [--update]    the ABI of build/'s libzmauth.so.1 against abi/libzmauth.so.1.abi (tools/abi.sh)
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc 2>/dev/null || echo 2)

packages=(
    g++ make cmake pkg-config
    qtbase5-dev libldap-dev libsasl2-dev libkrb5-dev
    slapd ldap-utils krb5-kdc krb5-admin-server krb5-user
    sasl2-bin libsasl2-modules libsasl2-modules-gssapi-mit
    hostname time valgrind faketime
    samba-ad-dc samba-ad-provision iproute2
)
# Only the fuzz build needs clang, libFuzzer and the symbolizer.
fuzz_packages=(clang-14 libclang-rt-14-dev llvm-14)
# The Debian packages are built with debhelper and checked with lintian; the
# install check reads the man page with man-db; the ABI gate uses libabigail.
package_packages=(devscripts debhelper lintian man-db)
abi_packages=(abigail-tools)

# ensure_packages: installs what is missing, services kept from starting.
. "$root/tools/packages.sh"

build() {
    local dir=$1; shift
    cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
    cmake --build "$dir" -j "$jobs"
}

run_tests() {
    local dir=$1; shift
    ctest --test-dir "$dir" --output-on-failure -j "$jobs" "$@"
}

cmd=${1:-}
shift || true
case "$cmd" in
    demo)
        ensure_packages "${packages[@]}"
        build "$root/build" >/dev/null
        exec bash "$root/tools/demo.sh" "$root/build"
        ;;
    test)
        ensure_packages "${packages[@]}"
        if [ "${1:-}" = "--sanitize" ]; then
            shift
            dir="$root/build-asan"
            logs="$dir/sanitizer-logs"
            # The benchmarks have no part in this run.
            build "$dir" -DZMAUTH_SANITIZE=ON -DZMAUTH_BUILD_BENCH=OFF
            rm -rf "$logs" && mkdir -p "$logs"
            # Reports also go to files, so that one from a child process whose
            # exit status nobody reads still fails the run.
            export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:exitcode=1:log_path=$logs/asan:log_exe_name=1"
            export LSAN_OPTIONS="suppressions=$root/tests/lsan.supp:print_suppressions=0"
            export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:log_path=$logs/ubsan"
            status=0
            run_tests "$dir" "$@" || status=$?
            if compgen -G "$logs/*" >/dev/null; then
                echo "Sanitizer reports:" >&2
                cat "$logs"/* >&2
                status=1
            fi
            exit $status
        fi
        if [ "${1:-}" = "--tsan" ]; then
            dir="$root/build-tsan"
            logs="$dir/tsan-logs"
            cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZMAUTH_TSAN=ON \
                -DZMAUTH_BUILD_BENCH=OFF -DZMAUTH_BUILD_TOOLS=OFF
            # Only the threaded tests' programs (and what they link).
            mapfile -t targets < <(sed -n 's/^thread_test(\([a-z_]*\)).*/\1/p' "$root/tests/threads/CMakeLists.txt")
            cmake --build "$dir" -j "$jobs" --target "${targets[@]}"
            rm -rf "$logs" && mkdir -p "$logs"
            # Any report fails the run, also one from a process whose exit
            # status nobody reads (reports go to files as well). Reports inside
            # the uninstrumented system libraries are suppressed one by one,
            # each with its reason, in tests/tsan.supp.
            export TSAN_OPTIONS="suppressions=$root/tests/tsan.supp:halt_on_error=1:exitcode=66:second_deadlock_stack=1:log_path=$logs/tsan"
            status=0
            ctest --test-dir "$dir" --output-on-failure -j "$jobs" -L threads || status=$?
            if compgen -G "$logs/*" >/dev/null; then
                echo "ThreadSanitizer reports:" >&2
                cat "$logs"/* >&2
                status=1
            fi
            exit $status
        fi
        if [ "${1:-}" = "--valgrind" ]; then
            shift
            build "$root/build"
            logs="$root/build/valgrind-logs"
            rm -rf "$logs" && mkdir -p "$logs"
            # tests/memcheck.sh runs every test program (and the zmauth tool
            # it starts) under memcheck; reports go to files, one per process.
            export ZMAUTH_VALGRIND=1 ZMAUTH_VALGRIND_LOGS="$logs"
            # The long runs keep their shape at a twentieth of their counts.
            export ZMAUTH_LONGRUN_DIVISOR=${ZMAUTH_LONGRUN_DIVISOR:-20}
            status=0
            run_tests "$root/build" "$@" || status=$?
            # Also a process whose exit status nobody reads fails the run.
            reports=$(grep -l -E "ERROR SUMMARY: [1-9]" "$logs"/* 2>/dev/null || true)
            if [ -n "$reports" ]; then
                echo "valgrind reports:" >&2
                for f in $reports; do echo "== $f" >&2; cat "$f" >&2; done
                status=1
            fi
            echo "valgrind: $(ls "$logs" | wc -l) processes checked, reports in $logs"
            exit $status
        fi
        build "$root/build"
        run_tests "$root/build"
        ;;
    bench)
        ensure_packages "${packages[@]}"
        build "$root/build" >/dev/null
        exec bash "$root/bench/run.sh" "$root/build" "$@"
        ;;
    consumer)
        ensure_packages "${packages[@]}"
        build "$root/build" >/dev/null
        prefix=$(mktemp -d)
        trap 'rm -rf "$prefix"' EXIT
        cmake --install "$root/build" --prefix "$prefix" >/dev/null
        bash "$root/tests/consumer/check.sh" "$prefix"
        ;;
    fuzz)
        ensure_packages "${packages[@]}" "${fuzz_packages[@]}"
        dir="$root/build-fuzz"
        build "$dir" -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 -DZMAUTH_FUZZ=ON \
            -DZMAUTH_BUILD_TESTS=OFF -DZMAUTH_BUILD_BENCH=OFF -DZMAUTH_BUILD_TOOLS=OFF >/dev/null
        exec bash "$root/tests/fuzz/run.sh" "$dir" "$@"
        ;;
    package)
        ensure_packages "${packages[@]}" "${package_packages[@]}"
        exec bash "$root/tools/package.sh" "$@"
        ;;
    abi)
        ensure_packages "${packages[@]}" "${abi_packages[@]}"
        # Only the library: the baseline is its ABI in this build's configuration.
        cmake -S "$root" -B "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
        cmake --build "$root/build" -j "$jobs" --target zmauth
        exec bash "$root/tools/abi.sh" "$root/build" "$@"
        ;;
    *)
        sed -n '2,14p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//' >&2
        exit 2
        ;;
esac
