# What the benchmark scripts share; sourced after lib.sh.
bin=$root/build/release/bin
processors="$(nproc) processors ($(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1))"

# build_benchmarks TARGET... prepares the machine and builds.
build_benchmarks() {
  "$root/script/bootstrap" --bench
  say "building"
  build release --target "$@" >/dev/null
}

load() { cut -d ' ' -f 1 /proc/loadavg; }

# value NAME TEXT prints what follows "NAME: " in a line of the text.
value() { sed -n "s/^$1: //p" <<<"$2"; }

median() { sort -g | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# report TITLE PROGRAM [ARGUMENT...] runs a benchmark that prints its own table, under a heading.
report() {
  local load_before
  load_before=$(load)
  printf '## %s\n\nOn %s.\n\n' "$1" "$processors"
  "$bin/$2" "${@:3}"
  printf '\nLoad average %s before, %s after.\n' "$load_before" "$(load)"
}

# memory PROCESS FIELD prints a field of the process's memory in KiB: VmRSS, VmHWM, Pss, Anonymous and so on.
memory() {
  local file=smaps_rollup
  [[ $2 != Vm* ]] || file=status
  awk -v field="$2:" '$1 == field { print $2 }' "/proc/$1/$file"
}

# cpu_ns PROCESS prints the processor time used by its running threads.
cpu_ns() {
  awk '{ sum += $1 } END { printf "%.0f\n", sum }' "/proc/$1"/task/*/schedstat
}

# wake_ups PROCESS prints how often its threads have begun to wait.
wake_ups() { awk '$1 == "voluntary_ctxt_switches:" { sum += $2 } END { print sum }' "/proc/$1"/task/*/status; }

# per_second AMOUNT SECONDS
per_second() { awk -v amount="$1" -v seconds="$2" 'BEGIN { printf "%.1f", amount / seconds }'; }
