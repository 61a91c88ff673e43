# shellcheck shell=sh
# Sourced by the guests' report scripts. report_section NAME COMMAND...: the section
# NAME of the report, what COMMAND prints (its errors too).
report_section() {
  echo "== $1"
  shift
  "$@" 2>&1
}
