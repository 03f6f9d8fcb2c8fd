#!/usr/bin/env bash
# Builds the Debian packages: package.sh [--arch A] [--output FOLDER]. ./dev package calls it.
#
# The tree that git tracks is copied into a folder ARCHITECTURE of build/package or FOLDER, with packaging/debian as its
# folder debian, and built there by dpkg-buildpackage: for this machine's architecture with what is installed here, for
# others in a chroot of Debian 12 that has the compiler for them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

here=$(dpkg --print-architecture)
readonly here
ROOT=$PWD/build/package

fail() {
    echo "package: $*" >&2
    exit 2
}

# The folder of one build, at the same path below its own root for each, so that nothing differs between two.
copy_sources() {
    local folder=$1
    rm -rf "$folder"
    mkdir -p "$folder/calvane"
    git -c safe.directory="$PWD" ls-files -z --cached --others --exclude-standard |
        while IFS= read -r -d '' file; do
            if [[ -e $file ]]; then printf '%s\0' "$file"; fi
        done | tar --create --null --files-from=- --mode=go=rX,u+rw | tar --extract --directory="$folder/calvane"
    cp -R "$folder/calvane/packaging/debian" "$folder/calvane/debian"
}

# The chroot in which packages for another architecture are built, made once for each set of build dependencies.
make_chroot() {
    local chroot=$1 architecture=$2 mirror this
    this=$(cat packaging/debian/control packaging/package.sh | cksum)
    [[ -f $chroot.made-by && $(<"$chroot.made-by") == "$this" ]] && return
    [[ $EUID -eq 0 ]] || fail "building for $architecture needs root, for a chroot of Debian 12"
    mirror=$(apt-get indextargets --format "\$(REPO_URI)" 'Codename: bookworm' 'Created-By: Packages' | sort -u | head -n 1)
    [[ -n $mirror ]] || fail "apt knows no mirror of Debian bookworm; run apt-get update"
    rm -rf "$chroot" "$chroot.made-by"
    echo "package: making a chroot for $architecture in $chroot"
    mmdebstrap --quiet --variant=buildd --architectures="$here,$architecture" \
        --include="crossbuild-essential-$architecture,fakeroot" \
        --customize-hook="mkdir -p \"\$1/build/debian\" && cp packaging/debian/control packaging/debian/changelog \"\$1/build/debian\"" \
        --customize-hook="chroot \"\$1\" env DEBIAN_FRONTEND=noninteractive apt-get --yes --no-install-recommends \
            --host-architecture $architecture build-dep /build" \
        --customize-hook="rm -rf \"\$1/build\"" bookworm "$chroot" "$mirror"
    echo "$this" >"$chroot.made-by"
}

build_here() {
    local folder=$1
    dpkg-checkbuilddeps "$folder/calvane/debian/control" || fail "./dev setup --package installs what is missing"
    (cd "$folder/calvane" && dpkg-buildpackage --build=binary --no-sign)
}

build_in_chroot() {
    local folder=$1 architecture=$2 chroot=$ROOT/chroot-$2
    make_chroot "$chroot" "$architecture"
    rm -rf "$chroot/build"
    mv "$folder" "$chroot/build"
    chroot "$chroot" useradd --system calvane-build 2>/dev/null || true
    chroot "$chroot" chown -R calvane-build: /build
    chroot "$chroot" setpriv --reuid=calvane-build --regid=calvane-build --clear-groups env HOME=/build \
        "DEB_BUILD_OPTIONS=$DEB_BUILD_OPTIONS" LC_ALL=C.UTF-8 \
        sh -c "cd /build/calvane && dpkg-buildpackage --build=binary --no-sign --host-arch $architecture"
    mv "$chroot/build" "$folder"
}

main() {
    local architecture=$here
    while [[ $# -gt 0 ]]; do
        case $1 in
            --arch) [[ $# -ge 2 ]] || fail "--arch needs an architecture"; architecture=$2; shift 2 ;;
            --output) [[ $# -ge 2 ]] || fail "--output needs a folder"; ROOT=$(realpath -m -- "$2"); shift 2 ;;
            *) fail "does not know '$1'" ;;
        esac
    done
    local folder=$ROOT/$architecture
    # What is packaged has been tested by ./dev test.
    export DEB_BUILD_OPTIONS="nocheck ${DEB_BUILD_OPTIONS-parallel=$(nproc)}"
    umask 022
    copy_sources "$folder"
    if [[ $architecture == "$here" ]]; then
        if command -v ccache >/dev/null; then
            export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
            export CCACHE_DIR=${CCACHE_DIR-${XDG_CACHE_HOME-$HOME/.cache}/ccache}
            # It would write other paths into the debugging data than the compiler does by itself.
            unset CCACHE_BASEDIR CCACHE_NOHASHDIR
        fi
        build_here "$folder"
    else
        build_in_chroot "$folder" "$architecture"
    fi
    rm -rf "$folder/calvane"
    echo "package: these are in $folder:"
    (cd "$folder" && ls -- *.deb)
}

main "$@"
