# What the scripts that watch processes share; sourced after lib.sh.

processors="$(nproc) processors ($(sed -n 's/^model name[^:]*: //p' /proc/cpuinfo | head -n 1))"
is_number() { [[ $1 =~ ^[1-9][0-9]*$ ]]; }
load() { cut -d ' ' -f 1 /proc/loadavg; }

# memory PROCESS FIELD prints a field of the process's memory in KiB: of VmRSS and VmHWM, or Pss, Anonymous and others.
memory() {
  local file=smaps_rollup
  [[ $2 != Vm* ]] || file=status
  awk -v field="$2:" '$1 == field { print $2 }' "/proc/$1/$file"
}

# cpu_ns PROCESS prints the processor time that its running threads have had.
cpu_ns() {
  awk '{ sum += $1 } END { printf "%.0f\n", sum }' "/proc/$1"/task/*/schedstat
}

# wake_ups PROCESS prints how often its threads have begun to wait.
wake_ups() { awk '$1 == "voluntary_ctxt_switches:" { sum += $2 } END { print sum }' "/proc/$1"/task/*/status; }

# per_second AMOUNT SECONDS
per_second() { awk -v amount="$1" -v seconds="$2" 'BEGIN { printf "%.1f", amount / seconds }'; }
