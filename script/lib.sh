# What the scripts share; sourced, not run. Expects `set -euo pipefail`. A failure inside $(...) ends the script too.
shopt -s inherit_errexit
root=$(dirname -- "$(dirname -- "$(realpath -- "${BASH_SOURCE[0]}")")")
name=$(basename -- "$0")
cache=${XDG_CACHE_HOME:-$HOME/.cache}/communicationapi
# Debian's syslog-ng, unpacked outside the system (its package conflicts with rsyslog's).
syslog_ng=$cache/syslog-ng/run
rsyslogd=$(command -v rsyslogd || printf /usr/sbin/rsyslogd)

say() { printf '%s: %s\n' "$name" "$*" >&2; }
die() { say "$*"; exit 1; }
usage_error() { say "$*"; exit 2; }
is_number() { [[ $1 =~ ^[1-9][0-9]*$ ]]; }

# build PRESET [BUILD ARGUMENT...] configures and builds a preset.
build() {
  local preset=$1
  (
    cd -- "$root"
    cmake --preset "$preset"
    cmake --build --preset "$preset" "${@:2}"
  )
}

# wait_until SECONDS COMMAND... waits until the command succeeds; fails after that time.
wait_until() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    ((SECONDS < deadline)) || return 1
    sleep 0.05
  done
}
