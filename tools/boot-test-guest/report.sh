# shellcheck shell=sh
# Sourced by the guests' report scripts. report_section NAME COMMAND...: the section
# NAME of the report, what COMMAND prints (its errors too).
report_section() {
  echo "== $1"
  shift
  "$@" 2>&1
}

# The processes running, one a line: the process id and the command line (the guests
# have no ps).
processes() {
  for process in /proc/[0-9]*; do
    line=$(tr '\0' ' ' <"$process/cmdline" 2>/dev/null) || continue
    [ -n "$line" ] && echo "${process#/proc/} $line"
  done
}

# record_milliseconds RECORD: how long the run of the boot record RECORD took, in
# milliseconds, from its start line to its end line.
record_milliseconds() {
  start=$(grep '^{"event":"start"' "$1" | sed -n 's/.*"boottime_us":\([0-9]*\).*/\1/p')
  end=$(grep '^{"event":"end"' "$1" | sed -n 's/.*"boottime_us":\([0-9]*\).*/\1/p')
  echo $(((end - start) / 1000))
}

# The fault this boot plays: NAME of boottest.fault=NAME on the kernel command line.
kernel_fault() { sed -n 's/.*boottest\.fault=\([a-z-]*\).*/\1/p' /proc/cmdline; }
