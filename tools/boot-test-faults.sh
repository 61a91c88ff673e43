# shellcheck shell=bash
# The fault scenarios of tools/boot-test: one Debian disk with a few plugins of its
# own (tools/boot-test-guest/fault, installed once under each plugin's command name), booted once plainly and then once per fault; the
# kernel command line's boottest.fault=NAME tells the guest which fault to play.
#   console-null        the kernel's console is the null console
#   no-serial-console   no console named at all: none on a serial port
#   clock               the guest's clock starts in 1970; a plugin sets it 2 h ahead,
#                       another 3 h back; the boot gets a hang-up (SIGHUP)
#   flood               a plugin's command writes 100,000 lines to standard error
#   stop                systemctl stop bootstrand while a slow plugin runs
#   shutdown            a shutdown while the slow plugin runs
#   disks               the root mounted read-only, /var/log on a full file system
# Sourced by tools/boot-test after tools/boot-test-lib.sh.

# The plugins of the fault disk: a run-once plugin, then in a chain the two that set
# the clock and the slow one; the flood on its own.
fault_plugins=(
  '91-fault-once once fault-once - run-once'
  '92-clock-forward clock-forward clock-forward fault-once'
  '93-clock-back clock-back clock-back clock-forward'
  '94-slow slow slow clock-back'
  '95-flood flood flood -'
)
once_plugin=91-fault-once
flood_plugin=95-flood
# Lines of standard error the flood writes, and the bound on bootstrand's memory.
flood_lines=100000
memory_bound_kib=16384

# make_faults_tree TREE: the files the fault disk adds to the Debian root.
make_faults_tree() {
  local tree=$1 entry name what provides requires once requires_json once_json
  local plugins=$tree/usr/libexec/bootstrand/plugins wants=$tree/etc/systemd/system/sysinit.target.wants
  mkdir -p "$plugins" "$tree/usr/lib/tessary/cormcli/test" "$tree/usr/local/sbin" "$wants"
  for entry in "${fault_plugins[@]}"; do
    read -r name what provides requires once <<<"$entry"
    requires_json=""
    [ "$requires" = - ] || requires_json="\"$requires\""
    once_json=""
    [ "${once:-}" = run-once ] && once_json=', "run_once": true, "plugin_version": "1"'
    cat >"$plugins/$name.json" <<EOF
{"metadata": {"version": 1, "provides": ["$provides"], "requires": [$requires_json]$once_json},
 "operations": {"start": ["test $what"]}}
EOF
    install -m 755 "$guest_files/fault" "$tree/usr/lib/tessary/cormcli/test/$what"
  done
  local script unit
  for script in fault-stop fault-full-log fault-report; do
    install -m 755 "$guest_files/$script" "$tree/usr/local/sbin/boot-test-$script"
  done
  for unit in boot-test-fault-stop boot-test-fault-shutdown boot-test-fault-full-log; do
    install -m 644 "$guest_files/$unit.service" "$tree/etc/systemd/system/"
    ln -sf "../$unit.service" "$wants/"
  done
}

# The Debian initramfs, made to boot with no console at all, as with console=null on
# a kernel without a null console: its init script runs without standard streams,
# and its hand-over to systemd (run-init) cannot open /dev/console, so the boot ends
# before bootstrand's turn. Here the script writes to a file of its own, and the
# hand-over uses /dev/null. Written to FILE.
initrd_without_console() {
  local file=$1 staging=$run/faults/initrd
  $as_root rm -rf "$staging"
  mkdir -p "$staging"
  local source
  source=$(realpath "$debian/initrd.img")
  (cd "$staging" && zcat "$source" | $as_root cpio -idm --quiet)
  # shellcheck disable=SC2016 # the init script's own variables
  $as_root sed -i -e '1a exec </init >/init-output 2>\&1' -e 's|run-init -n|run-init -c /dev/null -n|' \
    -e 's|^exec run-init \(.*\) <"${rootmnt}/dev/console" >"${rootmnt}/dev/console" 2>&1$|exec run-init -c /dev/null \1 <"${rootmnt}/dev/null" >"${rootmnt}/dev/null" 2>\&1|' \
    "$staging/init"
  [ "$(grep -c -e '^exec </init' -e 'run-init -c /dev/null' "$staging/init")" = 3 ] ||
    { echo "the initramfs's init changed: no console to patch out" >&2; return 1; }
  (cd "$staging" && find . | $as_root cpio --quiet -o -H newc -R 0:0 | gzip -1) >"$file"
  $as_root rm -rf "$staging"
}

# boot_faults PACKAGE: the fault disk made with PACKAGE and booted once per
# scenario, each into $run/faults-NAME.
boot_faults() {
  local disk=$run/faults/disk.ext4 scenario
  make_faults_tree "$run/faults-tree"
  make_debian_disk "$run/faults" "$1" --tree "$run/faults-tree"
  mke2fs -q -t ext4 -L full-log "$run/faults/full-log.ext4" 8M
  local drive=(-drive "file=$disk,format=raw,if=virtio") console root extra initrd
  for scenario in plain console-null no-serial-console clock flood stop shutdown disks; do
    mkdir -p "$run/faults-$scenario"
    console=console=ttyS0
    root="root=/dev/vda rw"
    extra=()
    initrd=$debian/initrd.img
    case $scenario in
      console-null)
        console=console=null
        initrd=$run/faults/initrd-without-console.img
        initrd_without_console "$initrd" ;;
      no-serial-console) console="" ;;
      clock) extra=(-rtc base=1970-01-01) ;;
      stop | shutdown)
        # A new version of the run-once plugin, whose key is at stake in this boot.
        edit_disk_file "$disk" "/usr/libexec/bootstrand/plugins/$once_plugin.json" \
          sed "s/\"plugin_version\": \"[^\"]*\"/\"plugin_version\": \"$scenario\"/" ;;
      disks)
        root="root=/dev/vda ro"
        extra=(-drive "file=$run/faults/full-log.ext4,format=raw,if=virtio") ;;
    esac
    guest_console=$console boot_guest "$run/faults-$scenario" "$debian/vmlinuz" "$initrd" \
      "$root systemd.firstboot=off boottest.fault=$scenario" "${drive[@]}" "${extra[@]}"
  done
}

# How long bootstrand's run took in this boot, in milliseconds, by its record.
run_ms() { section run-milliseconds; }

# The kernel's console is not a serial port.
console_not_serial() {
  echo "console: $(section console-active)"
  ! section console-active | grep -q ttyS
}

# Bootstrand ran no longer than twice its time in the plain boot, and a second.
usual_time() {
  local plain this
  plain=$(guest_folder=$run/faults-plain run_ms)
  this=$(run_ms)
  echo "bootstrand ran $this ms; in the plain boot, $plain ms"
  [ "$this" -le $((2 * plain + 1000)) ]
}

console_checks() {
  check "$1: the unit is active with status 0" unit_succeeded
  check "$1: the kernel's console is not a serial port" console_not_serial
  check "$1: bootstrand takes its usual time" usual_time
  check "$1: each kernel-channel line and alert is in the journal once" lines_in_journal
}

# The analyzer's durations, one "NAME MICROSECONDS" a line; "activation" for the
# whole activation.
analyzed_durations() {
  section analyzer-json | awk '
    /^  "activation_us":/ { gsub(/[^0-9-]/, ""); print "activation", $0 }
    /^  "plugins":/ { inside = 1 }
    inside && /^  \]/ { inside = 0 }
    inside && /"duration_us":/ { gsub(/[^0-9-]/, ""); duration = $0 }
    inside && /"name":/ { sub(/.*"name": "/, ""); sub(/".*/, ""); print $0, duration }'
}

# The monotonic truth, "NAME MICROSECONDS" a line: the plugins that measured
# themselves, and for the activation the run of the unit's main process (the boot
# step, which starts bootstrand and waits for it).
true_durations() {
  section truth | awk '{ printf "%s %d\n", $1, ($3 - $2) * 1000000 }'
  awk '{ print "activation", $2 - $1 }' <<<"$(property service ExecMainStartTimestampMonotonic) $(property service ExecMainExitTimestampMonotonic)"
}

# Joins the fault plugins' names to their measures (each measures itself under its
# "what" word): "NAME ANALYZED TRUE PERCENT-OFF".
clock_errors() {
  local entry name what rest
  declare -A word
  for entry in "${fault_plugins[@]}"; do
    read -r name what rest <<<"$entry"
    word[$what]=$name
  done
  local -A analyzed
  while read -r name value; do analyzed[$name]=$value; done < <(analyzed_durations)
  while read -r what value; do
    name=${word[$what]:-$what}
    # A plugin's own measure leaves out starting its command: only a long one is a
    # truth to hold the analyzer to.
    if [ -z "${analyzed[$name]:-}" ] || [ "$value" -lt 1000000 ]; then continue; fi
    awk -v n="$name" -v a="${analyzed[$name]}" -v t="$value" 'BEGIN { printf "%s %d %d %.1f\n", n, a, t, 100 * (a - t) / t }'
  done < <(true_durations)
}

# The activation and the plugins that measured themselves are within 10 % of the
# truth; every other plugin took between nothing and the whole activation.
durations_within_ten_percent() {
  local errors activation
  errors=$(clock_errors)
  echo "name, analyzed us, true us, per cent off:"
  echo "$errors"
  [ "$(wc -l <<<"$errors")" -ge 3 ] || { echo "fewer measures than the activation and the two clock plugins"; return 1; }
  awk '{ if ($4 > 10 || $4 < -10) bad = 1 } END { exit bad }' <<<"$errors" || return 1
  activation=$(analyzed_durations | awk '$1 == "activation" { print $2 }')
  analyzed_durations | awk -v whole="$activation" '$1 != "activation" && ($2 < 0 || $2 > whole) { print "out of bounds:", $0; bad = 1 } END { exit bad }'
}

# The analyzer names both steps, each with the plugin it happened in and about its size.
steps_named() {
  section analyzer | grep '^Clock step' || true
  section analyzer-json | awk '
    /^  "clock_steps":/ { inside = 1 }
    inside && /^  \]/ { inside = 0 }
    inside && /"amount_us":/ { gsub(/[^0-9-]/, ""); amount = $0 }
    inside && /"during":/ { getline; gsub(/[ ",]/, ""); print $0, amount }' >"$guest_folder/steps"
  awk '$1 == "92-clock-forward" && $2 > 7190e6 && $2 < 7210e6 { forward = 1 }
       $1 == "93-clock-back" && $2 < -10790e6 && $2 > -10810e6 { back = 1 }
       END { exit !(forward && back) }' "$guest_folder/steps"
}

# No duration in the published metrics is negative or an hour or longer.
metrics_sane() {
  section metrics | grep -E '^bootstrand_[a-z_]*_seconds' | grep -v '_timestamp_seconds' |
    awk '{ if ($NF < 0 || $NF >= 3600) { print "out of bounds:", $0; bad = 1 } } END { exit bad }'
}

# The boot step and bootstrand got SIGHUP in 92-clock-forward, and the run completed.
hang_up_survived() {
  section hung-up | sed 's/^/hung up on: /'
  section hung-up | grep -q ' boot$' && section hung-up | grep -q ' bootstrand$' &&
    section record | grep -q '^{"event":"end","outcome":"completed","status":0,'
}

clock_checks() {
  check "$1: the unit is active with status 0" unit_succeeded
  check "$1: a hang-up sent to the boot step and bootstrand in its run does not end the boot" hang_up_survived
  check "$1: the analyzer's activation and plugin durations are within 10 % of the monotonic truth" \
    durations_within_ten_percent
  check "$1: the analyzer names the +2 h step in 92-clock-forward and the -3 h step in 93-clock-back" steps_named
  check "$1: the published metrics hold no negative or hours-long duration" metrics_sane
}

flood_failed_alone() {
  same_lines "Bootstrand plugin $flood_plugin activation failed." "$(section alert-channel)"
}

flood_kept() { section_is flood-lines "$flood_lines"; }

memory_bounded() {
  section bootstrand-memory | sed 's/^/bootstrand process, peak KiB: /'
  [ -n "$(section bootstrand-memory)" ] &&
    section bootstrand-memory | awk -v bound="$memory_bound_kib" '{ if ($2 == "" || $2 >= bound) bad = 1 } END { exit bad }'
}

flood_checks() {
  check "$1: the unit is active with status 0" unit_succeeded
  check "$1: each kernel-channel line and alert is in the journal once" lines_in_journal
  check "$1: the flooding plugin fails, and no other" flood_failed_alone
  check "$1: every one of the $flood_lines lines is in the plugin log" flood_kept
  check "$1: each bootstrand process stays under $((memory_bound_kib / 1024)) MiB" memory_bounded
}

# Seconds from the stop's request to the unit's end.
stop_seconds() {
  awk '{ printf "%.1f\n", $2 / 1000000 - $1 }' <<<"$(section stop-requested) $(property service InactiveEnterTimestampMonotonic)"
}

stopped_in_time() {
  local seconds
  seconds=$(stop_seconds)
  echo "the unit ended $seconds s after the request"
  awk -v s="$seconds" 'BEGIN { exit !(s >= 0 && s < 15) }'
}

status_four_recorded() {
  section record | grep '^{"event":"end"' || { echo "no end line in the record"; return 1; }
  section record | grep '^{"event":"end"' | grep -q '"outcome":"interrupted","status":4'
}

no_process_left() {
  ! section processes | grep -E 'bootstrand|/cormcli/test/|sleep 300'
}

once_kept() {
  local key=$once_plugin${1#faults-}
  section record | grep '^{"event":"outcome"' | grep -F "\"name\":\"$once_plugin\"," | grep -q '"outcome":"activated"' ||
    { echo "$once_plugin did not activate"; return 1; }
  section run-once-state | grep -qxF "$key" || { echo "key $key not kept:"; section run-once-state; return 1; }
}

stop_checks() {
  check "$1: the unit ends within 15 s of the request" stopped_in_time
  check "$1: the record ends with status 4" status_four_recorded
  check "$1: no process of the boot is left" no_process_left
  check "$1: the run-once plugin that activated stays recorded" once_kept "$1"
}

disks_as_meant() {
  section mounts
  echo "free KiB on /var/log: $(section var-log-free)"
  section mounts | grep -qE '^[^ ]+ / [^ ]+ ro[ ,]' && section mounts | grep -q ' /var/log ' &&
    [ "$(section var-log-free)" = 0 ]
}

# The plugins that activated in the boot with no serial console (the last boot with
# nothing against its plugins, and one whose run-once plugins had run before)
# activate.
plugins_still_run() {
  diff --label "the boot with no serial console" --label "this boot" -u \
    <(guest_folder=$run/faults-no-serial-console activated_plugins) <(activated_plugins)
}

# Each line of the unit's journal about something that could not be written comes
# once; at least one says so.
unwritable_said_once() {
  local said
  said=$(section unit-journal | grep -E 'Read-only file system|No space left on device' || true)
  echo "${said:-nothing said}"
  [ -n "$said" ] && [ -z "$(sort <<<"$said" | uniq -d)" ]
}

disks_checks() {
  check "$1: the root is read-only and /var/log full" disks_as_meant
  check "$1: the unit is active with status 0" unit_succeeded
  check "$1: the plugins still run" plugins_still_run
  check "$1: what could not be written is said once" unwritable_said_once
}

fault_scenarios() {
  scenario faults-plain unit_checks
  scenario faults-console-null console_checks
  scenario faults-no-serial-console console_checks
  scenario faults-clock clock_checks
  scenario faults-flood flood_checks
  scenario faults-stop stop_checks
  scenario faults-shutdown stop_checks
  scenario faults-disks disks_checks
}

# One line of figures for the closing summary.
fault_figures() {
  local clock stop shutdown
  clock=$(guest_folder=$run/faults-clock clock_errors | awk '{ printf "%s%s %s %%", sep, $1, $4; sep = ", " }')
  stop=$(guest_folder=$run/faults-stop stop_seconds)
  shutdown=$(guest_folder=$run/faults-shutdown stop_seconds)
  echo "Faults: clock errors: $clock; the unit ended ${stop} s after systemctl stop, ${shutdown} s after a shutdown;" \
    "bootstrand ran $(guest_folder=$run/faults-plain run_ms) ms plainly," \
    "$(guest_folder=$run/faults-console-null run_ms) ms with console=null," \
    "$(guest_folder=$run/faults-no-serial-console run_ms) ms with no serial console"
}
