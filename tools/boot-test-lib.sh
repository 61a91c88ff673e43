# shellcheck shell=bash
# The machinery of tools/boot-test: the packages it needs, the package under test, the
# cached kernel and Debian root, the guests' images, booting one under QEMU, reading
# the report a guest leaves, and the PASS/FAIL lines. Sourced; the caller has cd'ed to
# the top of the work tree and set -euo pipefail.
#
# A guest writes its report on its second serial port (the first is its console) as
# sections, "== NAME" followed by the section's lines, and "== end" when it is done;
# then it powers off. Only the functions below read reports.

# A step that fails inside $(...) fails the caller too.
shopt -s inherit_errexit

work=build-boot-test
cache=$work/cache  # kept from run to run: rm -rf build-boot-test/cache to fetch again
guest_files=tools/boot-test-guest
as_root=""
[ "$(id -u)" -ne 0 ] && as_root="sudo"
passed=0
failed=0
guest_reported=1

# The packages the boot test itself runs: QEMU, the appliance's shell and tools, the
# Debian root's builder, the file system and initramfs builders.
install_boot_test_deps() {
  local package missing=()
  for package in qemu-system-x86 busybox-static mmdebstrap e2fsprogs cpio; do
    dpkg -s "$package" >/dev/null 2>&1 || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "Installing: ${missing[*]}" >&2
  $as_root apt-get update -qq >&2
  # Without the recommended graphical front ends and firmware, which no boot here needs.
  DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends "${missing[@]}" >&2
}

# The activator's package built from this checkout (tools/package), or the one that
# BOOT_TEST_PACKAGE names: its path. tools/package may build more than one package;
# the activator's is bootstrand_<version>_<arch>.deb.
package_under_test() {
  if [ -n "${BOOT_TEST_PACKAGE:-}" ]; then
    echo "$BOOT_TEST_PACKAGE"
    return
  fi
  tools/package >&2
  local debs=(build-package/bootstrand_*.deb)
  if [ ${#debs[@]} -ne 1 ] || [ ! -f "${debs[0]}" ]; then
    echo "tools/package left ${#debs[@]} activator packages in build-package: ${debs[*]}" >&2
    return 1
  fi
  echo "$PWD/${debs[0]}"
}

# download_kernel FOLDER: the package of the kernel that linux-image-cloud-amd64 names
# (the meta package holds no files), downloaded into FOLDER.
download_kernel() {
  local versioned
  versioned=$(apt-cache depends linux-image-cloud-amd64 2>/dev/null | sed -n 's/^ *Depends: \(linux-image-.*\)$/\1/p')
  [ -n "$versioned" ] && (cd "$1" && apt-get download -qq -o APT::Sandbox::User=root "$versioned") >&2
}

# Debian's cloud kernel package, downloaded once (never installed here): its path.
kernel_package() {
  local folder=$cache/kernel debs
  debs=("$folder"/linux-image-*.deb)
  if [ ! -f "${debs[0]}" ]; then
    mkdir -p "$folder"
    # Package lists that are missing or old name no kernel, or one the mirror no
    # longer has: read them again once.
    download_kernel "$folder" || { $as_root apt-get update -qq >&2 && download_kernel "$folder"; }
    debs=("$folder"/linux-image-*.deb)
  fi
  echo "$PWD/${debs[0]}"
}

# The cloud kernel's image, unpacked from its package once: its path.
appliance_kernel() {
  local deb folder=$cache/kernel/unpacked
  deb=$(kernel_package)
  if ! compgen -G "$folder/boot/vmlinuz-*" >/dev/null; then
    rm -rf "$folder"
    dpkg-deb -x "$deb" "$folder"
  fi
  compgen -G "$folder/boot/vmlinuz-*" | head -n 1
}

# Debian 12 with systemd, udev, initramfs-tools and the cloud kernel, built once with
# mmdebstrap into $cache/debian/root; its kernel and initramfs are copied beside it,
# so that QEMU boots them directly. Built again when the recipe changes.
debian_root() {
  local folder=$cache/debian kernel recipe
  kernel=$(kernel_package)
  # Manual pages, documentation and translations make the image larger and slower
  # to copy, for nothing a boot reads.
  recipe=(--variant=minbase "--include=systemd-sysv,udev,initramfs-tools,$kernel"
          --dpkgopt='path-exclude=/usr/share/man/*' --dpkgopt='path-exclude=/usr/share/doc/*'
          --dpkgopt='path-exclude=/usr/share/locale/*' bookworm)
  if [ "$(cat "$folder/recipe" 2>/dev/null)" != "${recipe[*]}" ]; then
    $as_root rm -rf "$folder"
    mkdir -p "$folder"
    echo "Building the Debian root with mmdebstrap ${recipe[*]}" >&2
    $as_root mmdebstrap --quiet "${recipe[@]}" "$folder/root" >&2
    cp "$folder"/root/boot/vmlinuz-* "$folder/vmlinuz"
    $as_root cp "$folder"/root/boot/initrd.img-* "$folder/initrd.img"
    $as_root chmod a+r "$folder/initrd.img"
    echo "${recipe[*]}" >"$folder/recipe"
  fi
  echo "$folder"
}

# make_appliance_initramfs FOLDER PACKAGE [PLUGIN_FOLDER...]: FOLDER/initramfs.gz, a
# host with busybox, the activator from PACKAGE with the libraries it links, the
# example tree, the plugins of each PLUGIN_FOLDER, and the appliance's boot script as
# its init.
make_appliance_initramfs() {
  local folder=$1 package=$2 staging library extra
  shift 2
  staging=$folder/initramfs
  rm -rf "$staging"
  mkdir -p "$staging"/{bin,sbin,usr/bin,usr/sbin,proc,sys,dev,run,tmp,var/log}
  cp /bin/busybox "$staging/bin/busybox"
  dpkg-deb -x "$package" "$staging"
  # The same Debian release as this machine: its libraries fit the package's binary.
  for library in $(ldd "$staging/usr/sbin/bootstrand" | grep -o '/[^ ]*'); do
    cp --parents -L "$library" "$staging"
  done
  tools/make-root "$staging" >/dev/null
  for extra in "$@"; do cp "$extra"/* "$staging/usr/libexec/bootstrand/plugins/"; done
  cp "$guest_files/appliance-init" "$staging/init"
  cp "$guest_files/report.sh" "$staging/report.sh"
  (cd "$staging" && find . | cpio --quiet -o -H newc -R 0:0 | gzip -1) >"$folder/initramfs.gz"
}

# make_debian_disk FOLDER PACKAGE [--tree TREE] [PLUGIN_FOLDER...]: FOLDER/disk.ext4,
# the cached Debian root with PACKAGE installed by dpkg -i, the example tree, the
# files of TREE (owned by root) laid over it, the plugins of each PLUGIN_FOLDER, and
# the unit that reports and powers off once the boot is up.
make_debian_disk() {
  local folder=$1 package=$2 base root extra tree=""
  shift 2
  if [ "${1:-}" = --tree ]; then
    tree=$2
    shift 2
  fi
  base=$(debian_root)
  root=$folder/root
  $as_root rm -rf "$root"
  $as_root cp -a "$base/root" "$root"
  $as_root cp "$package" "$root/tmp/bootstrand.deb"
  $as_root chroot "$root" dpkg -i /tmp/bootstrand.deb >&2
  $as_root rm "$root/tmp/bootstrand.deb"
  $as_root tools/make-root "$root" >/dev/null
  [ -z "$tree" ] || $as_root cp -a --no-preserve=ownership "$tree/." "$root/"
  for extra in "$@"; do $as_root cp "$extra"/* "$root/usr/libexec/bootstrand/plugins/"; done
  $as_root install -m 755 "$guest_files/debian-report" "$root/usr/local/sbin/boot-test-report"
  $as_root install -m 644 "$guest_files/report.sh" "$root/usr/local/lib/boot-test-report.sh"
  $as_root install -m 644 "$guest_files/boot-test-report.service" "$root/etc/systemd/system/"
  $as_root ln -s ../boot-test-report.service "$root/etc/systemd/system/multi-user.target.wants/"
  rm -f "$folder/disk.ext4"
  $as_root mke2fs -q -t ext4 -L boot-test -d "$root" "$folder/disk.ext4" 2G >&2
  # QEMU writes to it as the user who runs the test.
  $as_root chown "$(id -u):$(id -g)" "$folder/disk.ext4"
  $as_root rm -rf "$root"
}

# edit_disk_file DISK PATH COMMAND...: the root-owned file PATH of the ext4 image DISK,
# whose guest is powered off, replaced by what COMMAND prints when it reads the file,
# with the same mode. Written with debugfs, so that nothing is mounted here.
edit_disk_file() {
  local disk=$1 path=$2 name=${2##*/} copy mode
  shift 2
  mode=$($as_root debugfs -R "stat $path" "$disk" 2>/dev/null | sed -n 's/.*Mode: *\([0-7]*\).*/\1/p')
  [ -n "$mode" ] || { echo "$disk holds no $path" >&2; return 1; }
  copy=$(mktemp)
  $as_root debugfs -R "cat $path" "$disk" 2>/dev/null | "$@" >"$copy"
  chmod "$mode" "$copy"
  # debugfs's write takes the mode and the owner of the copy, and a name in the
  # current folder; it reports its errors with status 0, so the file is read back.
  $as_root debugfs -w -f - "$disk" >/dev/null 2>&1 <<EOF
cd ${path%/*}
rm $name
write $copy $name
sif $name uid 0
sif $name gid 0
EOF
  if ! $as_root debugfs -R "cat $path" "$disk" 2>/dev/null | cmp -s "$copy" -; then
    echo "debugfs could not write $path in $disk" >&2
    rm -f "$copy"
    return 1
  fi
  rm -f "$copy"
}

# boot_guest FOLDER KERNEL INITRD KERNEL_ARGUMENTS [QEMU_ARGUMENT...]: boots a guest
# under QEMU, its console into FOLDER/console.log and its report into
# FOLDER/report.log. TCG unless BOOT_TEST_KVM=1: KVM was seen to fail on these
# machines. Each boot has BOOT_TEST_TIMEOUT seconds (180) to power off.
boot_guest() {
  local folder=$1 status=0 started
  qemu_options "$@"
  rm -f "$folder/console.log" "$folder/report.log"
  started=$SECONDS
  timeout "${BOOT_TEST_TIMEOUT:-180}" qemu-system-x86_64 "${qemu[@]}" -monitor none || status=$?
  echo "$status $((SECONDS - started))" >"$folder/qemu-status"
  echo "Booted $folder: QEMU status $status after $((SECONDS - started)) s" >&2
}

# qemu_options FOLDER KERNEL INITRD KERNEL_ARGUMENTS [QEMU_ARGUMENT...]: the QEMU
# options of boot_guest, but for the monitor, in the array qemu. The kernel's console
# is the first serial port unless guest_console says otherwise ("console=null", or
# empty for none named).
qemu_options() {
  local folder=$1 kernel=$2 initrd=$3 arguments=$4 accel=(-accel tcg)
  shift 4
  [ "${BOOT_TEST_KVM:-}" = 1 ] && accel=(-accel kvm -cpu host)
  # panic=-1 with -no-reboot: a guest whose init dies ends QEMU instead of hanging.
  qemu=("${accel[@]}" -smp 2 -m 6G -nodefaults -no-reboot -display none
        -serial "file:$folder/console.log" -serial "file:$folder/report.log"
        -kernel "$kernel" -initrd "$initrd" -append "${guest_console-console=ttyS0} panic=-1 $arguments" "$@")
}

# cut_guest HOW WINDOW FOLDER KERNEL INITRD KERNEL_ARGUMENTS [QEMU_ARGUMENT...]: boots
# a guest as boot_guest does and cuts its power at a random instant of the WINDOW
# milliseconds after bootstrand's live line first shows on its console: with HOW
# "quit", QEMU is told to quit on its monitor; with "kill", it gets SIGKILL. Either
# way the guest's writes that had not reached the disk image are lost. What happened
# goes to FOLDER/cut: the way, the delay in milliseconds (none: the line never
# showed, and the guest was cut at the bound), and the seconds from the start.
cut_guest() {
  local how=$1 window=$2 folder=$3 pid started delay=none
  shift 3
  qemu_options "$folder" "$@"
  rm -f "$folder/console.log" "$folder/report.log" "$folder/monitor.in" "$folder/monitor.out"
  mkfifo "$folder/monitor.in" "$folder/monitor.out"
  started=$SECONDS
  qemu-system-x86_64 "${qemu[@]}" -monitor "pipe:$folder/monitor" >"$folder/qemu.log" 2>&1 &
  pid=$!
  # The monitor's replies go nowhere, so that QEMU never waits on a full pipe.
  cat "$folder/monitor.out" >/dev/null &
  while kill -0 "$pid" 2>/dev/null && [ $((SECONDS - started)) -lt "${BOOT_TEST_TIMEOUT:-180}" ]; do
    if grep -aq 'activating: ' "$folder/console.log" 2>/dev/null; then
      delay=$((RANDOM % (window + 1)))
      sleep "$((delay / 1000)).$(printf %03d $((delay % 1000)))"
      break
    fi
    sleep 0.05
  done
  # A guest that powered off by itself before the cut has no monitor to open.
  if [ "$how" = quit ]; then
    # shellcheck disable=SC2016 # expanded by that shell
    timeout 10 bash -c 'echo quit >"$1"' - "$folder/monitor.in" || true
  else
    kill -KILL "$pid" 2>/dev/null || true
  fi
  wait "$pid" 2>/dev/null || true
  wait
  echo "$how $delay $((SECONDS - started))" >"$folder/cut"
  echo "Cut $folder: $how, $delay ms after the live line, $((SECONDS - started)) s after the start" >&2
}

# guest FOLDER: the guest whose report and console the checks below read; they
# fail unchecked until it has reported.
guest() {
  local before=$failed
  guest_folder=$1
  guest_reported=1
  check "$(basename "$1"): the guest boots, reports and powers off in time" reported
  [ "$failed" -eq "$before" ] || guest_reported=0
}

# section NAME: the lines of the current guest's report section NAME.
section() {
  tr -d '\r' <"$guest_folder/report.log" | awk -v header="== $1" '$0 == header { inside = 1; next } /^== / { inside = 0 } inside'
}

# The guest powered off by itself, in time, after a complete report.
reported() {
  local status seconds
  read -r status seconds <"$guest_folder/qemu-status"
  [ "$status" -eq 0 ] || { echo "QEMU ended with status $status after $seconds s (124: timed out)"; return 1; }
  tr -d '\r' <"$guest_folder/report.log" | grep -qx '== end' || { echo "the report is incomplete"; return 1; }
}

# same_lines EXPECTED ACTUAL: every line of EXPECTED occurs in ACTUAL as often as in
# EXPECTED (lines of ACTUAL that EXPECTED does not hold are not counted); otherwise the
# lines that do not, with both counts.
same_lines() {
  awk 'FNR == NR { want[$0]++; next } $0 in want { got[$0]++ }
       END { for (line in want) if (got[line] != want[line]) { printf "expected %d, found %d: %s\n", want[line], got[line], line; bad = 1 }
             exit bad }' <(printf '%s\n' "$1" | sed '/^$/d') <(printf '%s\n' "$2")
}

# check NAME COMMAND...: one PASS or FAIL line; a failure shows what COMMAND printed.
check() {
  local name=$1 output lines
  shift
  if [ "$guest_reported" = 0 ]; then
    echo "FAIL $name"
    echo "    not checked: the guest left no complete report"
    failed=$((failed + 1))
    return 0
  fi
  if output=$("$@" 2>&1); then
    echo "PASS $name"
    passed=$((passed + 1))
  else
    echo "FAIL $name"
    mapfile -t lines <<<"$output"
    [ -n "$output" ] && printf '    %s\n' "${lines[@]}"
    failed=$((failed + 1))
  fi
}

# The evidence of a guest whose checks failed: its report and the end of its console.
show_guest() {
  echo "---- $guest_folder/report.log"
  tr -d '\r' <"$guest_folder/report.log" 2>/dev/null | tail -n 80
  echo "---- $guest_folder/console.log (end)"
  tr -d '\r' <"$guest_folder/console.log" 2>/dev/null | tail -n 40
  echo "----"
}
