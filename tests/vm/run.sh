#!/usr/bin/env bash
# run.sh x86|aarch64 BUILD: runs the tests that BUILD/vm_tests.txt lists in a small virtual machine.
#
# The machine is QEMU without hardware virtualisation, with Debian's kernel for clouds. Its memory is
# its disk: busybox, the shared libraries of the other machine, the programs, and `init`, which stands
# beside this script and runs the tests one after the other. What it prints comes back over the serial
# line.
#
# Kernel and busybox are downloaded from Debian's archive and unpacked in BUILD/../vm; the package lists
# for that are there too, so apt needs no settings and no rights. ZO_VM_PROCESSORS says how many
# processors the machine has instead of 2.
set -euo pipefail
machine=$1 build=$(realpath "$2")
here=$(dirname "$(realpath "$0")")
case $machine in
x86)
    debian=amd64 libraries=/usr/lib32 console=ttyS0 strip=strip
    qemu=(qemu-system-x86_64)
    ;;
aarch64)
    debian=arm64 libraries=/usr/aarch64-linux-gnu/lib console=ttyAMA0 strip=aarch64-linux-gnu-strip
    qemu=(qemu-system-aarch64 -machine virt -cpu neoverse-n1)
    ;;
esac
processors=${ZO_VM_PROCESSORS:-2}
limit=1500 # seconds, for all tests together; init has a limit for each

# --- the kernel and busybox ---------------------------------------------------------------------

packages=$build/../vm/$debian
apt() {
    local tool=$1
    shift
    "$tool" -q -o APT::Architecture="$debian" -o APT::Architectures="$debian" \
        -o Dir::State::status=/dev/null -o Dir::State::lists="$packages/lists" \
        -o Dir::Cache="$packages/cache" "$@"
}
if [ ! -e "$packages/complete" ]; then
    mkdir -p "$packages"/{lists,cache/archives}/partial
    apt apt-get update
    meta=linux-image-cloud-$debian
    kernel=$(apt apt-cache depends "$meta" | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)/\1/p') || true
    if [ -z "$kernel" ]; then
        echo "The archive has no package $meta, without which no test can run." >&2
        exit 1
    fi
    (cd "$packages" && apt apt-get download "$kernel" busybox-static)
    for package in "$packages"/*.deb; do dpkg -x "$package" "$packages"; done
    touch "$packages/complete"
fi

# --- the memory disk ----------------------------------------------------------------------------

root=$build/vm
rm -rf "$root"
mkdir -p "$root"/{bin,dev,etc,lib,proc,sys,tests,tmp}
cp "$packages/bin/busybox" "$root/bin"
cp "$here/init" "$root"
cp "$build/vm_tests.txt" "$here"/../*.txt "$root/tests"
cp "$build"/lib/libzo95K*.so* "$root/lib"
cp "$libraries"/{ld-linux*,libc,libm,libgcc_s,libstdc++}.so.? "$root/lib"
(cd "$build/bin" && grep -oE '\./[a-z_]+' "$build/vm_tests.txt" | sort -u | xargs cp -t "$root/tests")
find "$root/tests" "$root"/lib/libzo* -type f -perm /1 -exec "$strip" {} +
(cd "$root" && find . | cpio --quiet -o -H newc -R 0:0) >"$root.cpio"

# --- the run ------------------------------------------------------------------------------------

# A machine that panics resets itself, and that ends it.
timeout $limit "${qemu[@]}" -accel tcg,thread=multi -smp "$processors" -m 1G -nodefaults -no-reboot \
    -display none -serial stdio -kernel "$packages"/boot/vmlinuz-* -initrd "$root.cpio" \
    -append "console=$console quiet panic=-1 mitigations=off" </dev/null |
    sed -u 's/\r$//' | tee "$root.log" || [ $? -ne 124 ] || echo "The machine was ended after $limit s."
grep -q '^All passed' "$root.log"
