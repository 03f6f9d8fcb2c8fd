#!/usr/bin/env bash
# ./dev package --test [STEP ...]: tests the Debian packages, as root, in build/package/test. The steps, all by default:
#
#   build        as an ordinary user, twice, in different folders
#   compare      both builds have the same bytes
#   lintian      has neither errors nor warnings
#   machine      a fresh Debian 12 with the packages of an "earlier version": these with another number
#   operate      operation_test.sh in that machine, booted: systemd runs the recorder, and the packages are upgraded
#   autopkgtest  the tests of the packages themselves, there
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

WORK=$PWD/build/package/test
ARCHITECTURE=$(dpkg --print-architecture)
VERSION=$(dpkg-parsechangelog --file packaging/debian/changelog --show-field Version)
readonly WORK ARCHITECTURE VERSION EARLIER=1.0~earlier MACHINE=$WORK/machine
readonly FIRST=$WORK/first/$ARCHITECTURE SECOND=$WORK/other-folder/second/$ARCHITECTURE

fail() {
    echo "packages_test: $*" >&2
    exit 1
}

as_ordinary_user() {
    setpriv --reuid=nobody --regid=nogroup --clear-groups env HOME="$WORK/home" "$@"
}

step_build() {
    mkdir -p "$WORK"
    install -d -o nobody -g nogroup "$WORK"/{home,first,other-folder}
    as_ordinary_user packaging/package.sh --output "$WORK/first"
    # Nothing may come from what the first build has compiled.
    as_ordinary_user env CCACHE_DISABLE=1 packaging/package.sh --output "$WORK/other-folder/second"
}

step_compare() {
    local package different=0
    for package in "$FIRST"/*.deb; do
        cmp "$package" "$SECOND/${package##*/}" || different=1
    done
    [[ $different -eq 0 ]] || fail "two builds differ; diffoscope tells where"
}

step_lintian() {
    as_ordinary_user lintian --fail-on error,warning --info "$FIRST"/*.changes
}

# The packages to install, without those for debugging.
packages_in() {
    find "$1" -name '*.deb' ! -name '*-dbgsym_*' | sort
}

# Copies of the packages that say that they are of an earlier version.
make_earlier() {
    local package folder=$WORK/unpacked
    mkdir -p "$1"
    while IFS= read -r package; do
        rm -rf "$folder"
        dpkg-deb --raw-extract "$package" "$folder"
        sed -i "s/^Version: .*/Version: $EARLIER/; s/(\\(>*=\\) $VERSION)/(\\1 $EARLIER)/g" \
            "$folder/DEBIAN/control"
        dpkg-deb --build --root-owner-group "$folder" "$1" >/dev/null
    done < <(packages_in "$FIRST")
    rm -rf "$folder"
}

step_machine() {
    local mirror
    mirror=$(apt-get indextargets --format "\$(REPO_URI)" 'Codename: bookworm' 'Created-By: Packages' | sort -u | head -n 1)
    [[ -n $mirror ]] || fail "apt knows no mirror of Debian bookworm; run apt-get update"
    rm -rf "$MACHINE" "$WORK/earlier"
    make_earlier "$WORK/earlier"
    mmdebstrap --quiet --variant=apt --include=systemd,systemd-sysv,udev,dbus \
        --customize-hook="mkdir \"\$1/earlier\" && cp '$WORK'/earlier/*.deb \"\$1/earlier\" && chroot \"\$1\" apt-get update" \
        --customize-hook="chroot \"\$1\" sh -c 'apt-get --yes --no-install-recommends -o Dpkg::Options::=--force-unsafe-io install /earlier/*.deb'" \
        --customize-hook="rm -r \"\$1/earlier\"" --skip=cleanup/apt bookworm "$MACHINE" "$mirror"
}

step_operate() {
    mkdir -p "$MACHINE/later" "$MACHINE/etc/systemd/system/multi-user.target.wants"
    packages_in "$FIRST" | xargs -d '\n' cp -t "$MACHINE/later"
    install -m 755 tests/package/operation_test.sh "$MACHINE/usr/local/sbin/operation_test"
    cat >"$MACHINE/etc/systemd/system/operation-test.service" <<'END'
[Unit]
Description=Test of the recorder
After=calvane-recorder.service
SuccessAction=exit
FailureAction=exit
FailureActionExitStatus=1
[Service]
Type=oneshot
TimeoutStartSec=600
StandardOutput=file:/var/log/operation-test
StandardError=inherit
ExecStart=/usr/local/sbin/operation_test
END
    ln -sf ../operation-test.service "$MACHINE/etc/systemd/system/multi-user.target.wants/operation-test.service"
    rm -f "$MACHINE"/var/log/operation-test "$MACHINE"/etc/calvane/{recorder,bad,camera}.ini
    local status=0
    timeout 700 systemd-nspawn --quiet --directory "$MACHINE" --register=no --keep-unit --boot \
        </dev/null >"$WORK/boot.log" 2>&1 || status=$?
    cat "$MACHINE/var/log/operation-test" || tail -n 30 "$WORK/boot.log"
    rm -f "$MACHINE/etc/systemd/system/multi-user.target.wants/operation-test.service"
    return "$status"
}

step_autopkgtest() {
    local source=$WORK/source status=0 packages
    rm -rf "$source" "$WORK/autopkgtest"
    mkdir -p "$source"
    cp -R packaging/debian "$source/debian"
    mapfile -t packages < <(packages_in "$FIRST")
    mount -t proc proc "$MACHINE/proc"
    autopkgtest --no-built-binaries "${packages[@]}" "$source" --output-dir "$WORK/autopkgtest" -- chroot "$MACHINE" \
        >"$WORK/autopkgtest.log" 2>&1 </dev/null || status=$?
    umount "$MACHINE/proc"
    cat "$WORK/autopkgtest/summary"
    if [[ $status -ne 0 ]]; then
        echo "packages_test: see $WORK/autopkgtest"
    fi
    return "$status"
}

[[ $EUID -eq 0 ]] || fail "needs root, to make a Debian of its own"
[[ $# -gt 0 ]] || set -- build compare lintian machine operate autopkgtest
for step in "$@"; do
    [[ $(type -t "step_$step") == function ]] || fail "there is no step '$step'"
    begin=$SECONDS
    echo "== $step"
    "step_$step"
    echo "   ($((SECONDS - begin)) s)"
done
echo "packages_test: the packages are as they should be"
