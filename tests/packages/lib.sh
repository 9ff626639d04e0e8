# What the tests of the packages share; sourced after script/lib.sh.
work=$(mktemp -d)
receiver=
clean_up() {
  if [[ -n $receiver ]]; then kill "$receiver" 2>/dev/null && wait "$receiver" || true; fi
  rm -rf -- "$work"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

# code_block FILE HEADING prints the first block of code below the heading.
code_block() {
  awk -v heading="$2" '
    /^```/ && inside { exit }
    inside { print }
    /^```/ && found { inside = 1 }
    $0 == heading { found = 1 }' "$1"
}

# start_receiver listens on a free loopback port, stored in $port, and writes what it receives to $work/received.
start_receiver() {
  "$root/tests/packages/receive-lines" "$work" &
  receiver=$!
  wait_until 20 test -s "$work/port" || die "the receiver does not listen"
  port=$(<"$work/port")
}

# check_consumers CONSUMER FORWARD MODULE [LAUNCHER...] runs both programs, the second one against a receiver.
check_consumers() {
  local consumer=$1 forward=$2 module=$3 installation=$work/installation
  mkdir -- "$installation"
  printf 'ApplicationIdentifier=demo\n' >"$installation/install_config.txt"
  "${@:4}" "$consumer" "$module" "$installation" || die "the program that links the module fails with $?"
  start_receiver
  "${@:4}" "$forward" "$module" "$installation" 127.0.0.1 "$port" "hello from another program" ||
    die "the program of docs/embedding.md fails with $?"
  wait_until 20 grep -q 'hello from another program$' "$work/received" || die "the line did not arrive"
}
