# What the benchmarks' scripts share; sourced after lib.sh.
bin=$root/build/release/bin
processors="$(nproc) processors ($(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1))"

# build_benchmarks TARGET... makes the machine ready and builds.
build_benchmarks() {
  "$root/script/bootstrap" --bench
  say "building"
  build release --target "$@" >/dev/null
}

load() { cut -d ' ' -f 1 /proc/loadavg; }

# value NAME TEXT prints what stands after "NAME: " in a line of the text.
value() { sed -n "s/^$1: //p" <<<"$2"; }

median() { sort -g | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# report TITLE PROGRAM [ARGUMENT...] runs a benchmark that prints its own table, below a heading.
report() {
  local load_before
  load_before=$(load)
  printf '## %s\n\nOn %s.\n\n' "$1" "$processors"
  "$bin/$2" "${@:3}"
  printf '\nLoad average %s before, %s after.\n' "$load_before" "$(load)"
}
