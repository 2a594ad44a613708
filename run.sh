#!/usr/bin/env bash
# Quorvex: one script for everything a fresh Debian 12 machine needs.
#   ./run.sh         install what is missing, build, run the demonstration case
#   ./run.sh test    install what is missing, build, run every test
#   ./run.sh build   install what is missing and build only
#   ./run.sh bench   build, then measure the engine (results in bench/results.json), the gallery,
#                    the report and long runs (memory of the integration server and the analyzer)
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
build_dir="${QUORVEX_BUILD_DIR:-$here/build}"

# Every Debian package the project needs, listed once.
packages=(
    cmake ninja-build g++ pkg-config
    qtbase5-dev qtbase5-dev-tools libqt5svg5-dev qt5-image-formats-plugins
    libexiv2-dev libfftw3-dev libjpeg-dev libtiff-dev libpng-dev zlib1g-dev
    libgtest-dev libgmock-dev
    poppler-utils fonts-dejavu-core
)

missing_packages() {
    local p
    for p in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
    done
}

ensure_packages() {
    local missing
    missing=$(missing_packages | tr '\n' ' ')
    [ -z "${missing// /}" ] && return 0
    if [ "$(id -u)" -eq 0 ]; then
        echo "Installing missing packages: $missing"
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq
        # shellcheck disable=SC2086
        apt-get install -y -qq --no-install-recommends $missing
    else
        echo "Missing Debian packages. Install them with:" >&2
        echo "  sudo apt-get install -y $missing" >&2
        exit 1
    fi
}

build() {
    ensure_packages
    if [ ! -f "$build_dir/CMakeCache.txt" ]; then
        cmake -S "$here" -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
    fi
    cmake --build "$build_dir" -j "$(nproc)"
}

case "${1:-run}" in
    run)
        build
        # A sample case from simulated cameras: learn one, analyse a mixed folder,
        # show every photo's class next to the truth.
        "$build_dir/bin/quorvex-cli" demo
        echo "The command-line tool is $build_dir/bin/quorvex-cli ('--help' explains it)."
        ;;
    build)
        build
        ;;
    bench)
        build
        "$build_dir/bench/bench_engine" --sizes 10,24 --out "$here/bench/results.json"
        "$build_dir/bench/bench_gallery" --count 10000
        "$build_dir/bin/bench_report" --count 500
        "$build_dir/bin/bench_soak"
        ;;
    test)
        build
        cd "$build_dir"
        QT_QPA_PLATFORM=offscreen ctest --output-on-failure -j "$(nproc)"
        ;;
    *)
        echo "usage: $0 [run|build|test|bench]" >&2
        exit 2
        ;;
esac
