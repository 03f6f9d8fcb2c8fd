#!/usr/bin/env bash
# Makes the sysroot of the armhf build: Debian 12's armhf packages, extracted and not installed. The mirror is the
# one that this machine's own apt uses. The last two are what ./dev bench arm compares with. Usage: armhf-sysroot.sh FOLDER
set -euo pipefail

readonly PACKAGES=libc6-dev,libstdc++-12-dev,libspdlog-dev,libcli11-dev,nlohmann-json3-dev,libgtest-dev,libgmock-dev,\
libboost-dev,libsqlite3-dev,libxxhash-dev,libsdbus-c++-dev,libsystemd-dev,libelf-dev,libnats-dev,\
libavcodec-dev,libavdevice-dev,libavformat-dev,libavutil-dev,libswscale-dev,libcpp-httplib-dev,libssl-dev,zlib1g-dev,\
coreutils,gstreamer1.0-tools
folder=$1
stamp=$folder/made-by
this=$(cksum <"${BASH_SOURCE[0]}")

if [[ -f $stamp && $(<"$stamp") == "$this" ]]; then
    exit 0
fi
# Only this one: with all of apt's own set-up its indexes may be out of step with each other.
mirror=$(apt-get indextargets --format "\$(REPO_URI)" 'Codename: bookworm' 'Created-By: Packages' | sort -u | head -n 1)
if [[ -z $mirror ]]; then
    echo "armhf-sysroot.sh: apt knows no mirror of Debian bookworm; run apt-get update" >&2
    exit 1
fi
echo "Making the armhf sysroot in $folder"
rm -rf "$folder"
mkdir -p "$folder"
mmdebstrap --quiet --variant=extract --architectures=armhf --include="$PACKAGES" bookworm "$folder" "$mirror"
# What installing would have done; libavdevice needs them at last.
for library in blas lapack; do
    ln -s "$library/lib$library.so.3" "$folder/usr/lib/arm-linux-gnueabihf/"
done
echo "$this" > "$stamp"
