#!/usr/bin/env bash
# Makes the disk of the emulated device: make_image.sh PACKAGES FOLDER. PACKAGES has the Debian packages for armhf; FOLDER
# gets root.img, vmlinuz and initrd.img. Nothing is done when FOLDER was made by this script from these packages.
#
# The programs of the packages' scripts run under qemu-user. Where the kernel has not been told of it, it is told so in a
# user namespace of this script alone, so that nothing changes for the rest of the machine.
set -euo pipefail

readonly INTERPRETER=/usr/bin/qemu-arm-static BINFMT=/proc/sys/fs/binfmt_misc
readonly MAGIC='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
readonly MASK='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
# Beside the packages: what boots, what makes and checks file systems of cards, and what turns syncs into nothing.
readonly INCLUDE=systemd-sysv,udev,dbus,linux-image-armmp,initramfs-tools,kmod,procps,e2fsprogs,dosfstools,f2fs-tools,\
exfatprogs,libeatmydata1

fail() {
    echo "make_image: $*" >&2
    exit 1
}

# Runs a command with a binfmt_misc of its own.
in_namespace() {
    local inside
    coproc inside {
        # shellcheck disable=SC2016 # The inner shell's own.
        exec unshare --user --mount --pid --fork --kill-child bash -c 'echo; read -r _; mount -t binfmt_misc binfmt_misc "$1" &&
            printf "%s" "$2" >"$1/register" && exec "${@:3}" >&3' \
            bash "$BINFMT" ":qemu-arm:M::$MAGIC:$MASK:$INTERPRETER:OCF" "$@"
    } 3>&1
    local process=$! to=${inside[1]}
    read -r _ <&"${inside[0]}"
    echo "0 0 4294967295" >"/proc/$process/uid_map"
    echo "0 0 4294967295" >"/proc/$process/gid_map"
    echo >&"$to"
    wait "$process" || fail "the root could not be made. If this kernel cannot have binfmt_misc in a namespace, install" \
        "binfmt-support, which tells it of $INTERPRETER"
}

# In the root, before anything is configured: the initramfs has what finds the root, and no more, so that it is small.
before_packages() {
    mkdir -p "$1"/etc/initramfs-tools/{conf.d,hooks}
    echo "MODULES=list" >"$1/etc/initramfs-tools/conf.d/device"
    cat >"$1/etc/initramfs-tools/hooks/device" <<'END'
#!/bin/sh
[ "$1" = prereqs ] && exit 0
. /usr/share/initramfs-tools/hook-functions
manual_add_modules virtio_pci virtio_mmio virtio_blk ext4
END
    chmod 755 "$1/etc/initramfs-tools/hooks/device"
}

# A shell on a port of its own, beside the console: commands come in, and what they print goes out.
add_control() {
    cat >"$1/etc/systemd/system/control.service" <<'END'
[Unit]
Description=Shell for who controls the emulated device
DefaultDependencies=no
After=sysinit.target
StartLimitIntervalSec=0
[Service]
ExecStart=/bin/sh -c 'exec sh 0<>/dev/virtio-ports/control >&0 2>&1'
Environment=LC_ALL=C.UTF-8
SupplementaryGroups=recording recording-admin
IgnoreSIGPIPE=no
Restart=always
RestartSec=3
END
    cat >"$1/etc/udev/rules.d/90-control.rules" <<'END'
SUBSYSTEM=="virtio-ports", ATTR{name}=="control", TAG+="systemd", ENV{SYSTEMD_WANTS}+="control.service"
END
}

# A film that is played again and again: an emulated processor is too slow to make pictures.
add_camera() {
    local examples
    examples=$(dirname "${BASH_SOURCE[0]}")/../../examples
    ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=320x240:rate=15 -f lavfi -i sine=frequency=440:sample_rate=16000 -t 60 \
        -c:v libx264 -preset veryfast -bf 0 -g 15 -b:v 600k -c:a aac -b:a 32k "$1/etc/calvane/camera.mp4"
    sed 's|^url = .*|url = /etc/calvane/camera.mp4|' "$examples/file-loop.ini" >"$1/etc/calvane/recorder.ini"
}

after_packages() {
    local root=$1
    echo device >"$root/etc/hostname"
    echo "/dev/vda / ext4 noatime 0 1" >"$root/etc/fstab"
    passwd --root "$root" --delete root >/dev/null
    usermod --root "$root" --append --groups recording,recording-admin root
    mkdir -p "$root/etc/systemd/system/serial-getty@ttyAMA0.service.d" "$root/etc/drenn" "$root/etc/systemd/journald.conf.d"
    cat >"$root/etc/systemd/system/serial-getty@ttyAMA0.service.d/login.conf" <<'END'
[Service]
ExecStart=
ExecStart=-/sbin/agetty --autologin root --noclear --keep-baud 115200 %I vt220
END
    printf '[Journal]\nStorage=persistent\nSystemMaxUse=32M\n' >"$root/etc/systemd/journald.conf.d/device.conf"
    printf '[device]\nmodel.name = Desk\nserial.number = 1\n' >"$root/etc/drenn/device.ini"
    add_camera "$root"
    add_control "$root"
    # Of the units that a fresh Debian starts, these cost an emulated device time and do nothing for it.
    ln -sf /dev/null "$root/etc/systemd/system/apt-daily.timer"
    ln -sf /dev/null "$root/etc/systemd/system/apt-daily-upgrade.timer"
    ln -sf /dev/null "$root/etc/systemd/system/e2scrub_reap.service"
    rm -rf "$root"/var/cache/apt/archives/*.deb "$root"/var/lib/apt/lists/* "$root/packages"
}

# What runs in the namespace.
make_root() {
    local folder=$1 mirror=$2 this
    this=$(realpath "${BASH_SOURCE[0]}")
    nice mmdebstrap --quiet --mode=root --skip=check/qemu,cleanup/apt --variant=apt --architectures=armhf --dpkgopt=force-unsafe-io \
        --include="$INCLUDE" --essential-hook="'$this' --before \"\$1\"" \
        --customize-hook="cp -R '$folder/packages' \"\$1\"" \
        --customize-hook="chroot \"\$1\" env DEBIAN_FRONTEND=noninteractive sh -c \
            'apt-get --yes --quiet=2 --no-install-recommends install /packages/*.deb'" \
        --customize-hook="'$this' --after \"\$1\"" bookworm "$folder/root" "$mirror"
}

# Those that a device has.
list_packages() {
    find "$(realpath "$1")" -name '*.deb' ! -name '*-dbgsym_*' ! -name 'calvane-doc_*' ! -name 'libcalvane-dev_*' | sort
}

main() {
    local packages folder=$2 made mirror
    mapfile -t packages < <(list_packages "$1")
    [[ ${#packages[@]} -gt 0 ]] || fail "there are no packages in $1"
    made=$(cat "${BASH_SOURCE[0]}" "${packages[@]}" | cksum)
    [[ -f $folder/made-by && $(<"$folder/made-by") == "$made" ]] && return
    [[ $EUID -eq 0 ]] || fail "only root can make the root of another system"
    mirror=$(apt-get indextargets --format "\$(REPO_URI)" 'Codename: bookworm' 'Created-By: Packages' | sort -u | head -n 1)
    [[ -n $mirror ]] || fail "apt knows no mirror of Debian bookworm; run apt-get update"
    echo "make_image: making a Debian for armhf in $folder, which takes some ten minutes"
    rm -rf "$folder"
    mkdir -p "$folder/packages"
    folder=$(realpath "$folder")
    cp "${packages[@]}" "$folder/packages"
    if [[ -e $BINFMT/qemu-arm ]]; then
        make_root "$folder" "$mirror"
    else
        in_namespace "$(realpath "${BASH_SOURCE[0]}")" --root "$folder" "$mirror"
    fi
    cp -L "$folder"/root/boot/vmlinuz-* "$folder/vmlinuz"
    cp -L "$folder"/root/boot/initrd.img-* "$folder/initrd.img"
    mkfs.ext4 -q -F -L root -d "$folder/root" "$folder/root.img" 2G
    rm -rf "$folder/root" "$folder/packages"
    echo "$made" >"$folder/made-by"
}

case ${1-} in
    --before) before_packages "$2" ;;
    --after) after_packages "$2" ;;
    --root) make_root "$2" "$3" ;;
    *) [[ $# -eq 2 ]] || fail "needs the folder of the packages, and one to make"; main "$@" ;;
esac
