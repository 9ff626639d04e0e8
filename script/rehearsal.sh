# What script/demo and script/day share: an agent at work with its configuration server, on free loopback ports, in a
# temporary folder that is removed at the end. Sourced after lib.sh. Expects $windows: true if the agent is the Windows
# program, under Wine. With $keep true the folder stays.

work=$(mktemp -d)
export LC_ALL=C
declare -A process=() port=()
declare -A under_wine=() # of the processes
inputs=() destinations=() components=() # elements of AgentConfig.xml
doing=starting # what to report a failure with
stop_limit=10 # seconds

ended() { ! kill -0 "$1" 2>/dev/null; }

# stop NAME ends a process and returns its exit status.
stop() {
  local pid=${process[$1]} signal=TERM
  unset "process[$1]"
  # Wine turns an interrupt into the Ctrl-C of a Windows program.
  if [[ -v under_wine[$1] ]]; then signal=INT; fi
  kill -s "$signal" "$pid" 2>/dev/null || true
  wait_until "$stop_limit" ended "$pid" || kill -s KILL "$pid"
  wait "$pid"
}

# kill_hard NAME kills a process without giving it time to react.
kill_hard() {
  local pid=${process[$1]}
  unset "process[$1]"
  kill -s KILL "$pid"
  wait "$pid" 2>/dev/null || true
}

clean_up() {
  trap '' INT TERM
  for one in "${!process[@]}"; do stop "$one" || true; done
  if [[ -d $work/wine ]]; then WINEPREFIX=$work/wine wineserver -k || true; fi
  if ${keep:-false}; then say "everything lies in $work"; else rm -rf -- "$work"; fi
}
trap clean_up EXIT
trap 'exit 130' INT TERM

# expect SECONDS WHAT COMMAND... waits until the command succeeds; otherwise the script fails.
expect() {
  wait_until "$1" "${@:3}" && return
  say "$doing: not within $1 seconds: $2"
  tail -n 5 -- "$work"/*.log >&2
  exit 1
}

# build_programs TARGET... builds agent and server, and the targets; all but the agent for this system.
build_programs() {
  if $windows; then "$root/script/bootstrap" --windows; else "$root/script/bootstrap"; fi
  say "building"
  build dev --target sorvex-agent sorvex-configserver "$@" >/dev/null
  if $windows; then
    build windows --target sorvex-agent >/dev/null
    "$root/cmake/windows/run-wine" --init
  fi
}

# agent_path FILE prints its name as the agent knows it.
agent_path() { if $windows; then printf 'Z:%s' "${1//\//\\}"; else printf '%s' "$1"; fi; }

# prepare_programs sets the commands $agent and $server.
prepare_programs() {
  server=("$root/build/dev/bin/sorvex-configserver" --data "$work/server")
  agent=("$root/build/dev/bin/sorvex-agent")
  if $windows; then
    wine=("$root/cmake/windows/run-wine" --path "$("$root/script/bootstrap-windows" --print-prefix)/bin")
    # Key containers are in the Wine prefix's registry: the agent gets its own registry, with the files of the tests'
    # prefix.
    local prefix
    prefix=$("$root/cmake/windows/run-wine" --print-prefix)
    mkdir -- "$work/wine"
    cp -a -- "$prefix"/{.complete,.update-timestamp,dosdevices,*.reg} "$work/wine"
    ln -s -- "$prefix/drive_c" "$work/wine/drive_c"
    export COMMUNICATIONAPI_WINEPREFIX=$work/wine
    agent=("${wine[@]}" "$root/build/windows/bin/sorvex-agent.exe")
    under_wine[agent]=
  fi
  agent+=(--config-dir "$(agent_path "$work/agent")")
  mkdir -p -- "$work/agent" "$work/server/default" "$work/server/patches"
  openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=demo \
    -keyout "$work/key.pem" -out "$work/certificate.pem" 2>/dev/null
}

# start_server waits until the server listens, on the same port each time.
start_server() {
  "${server[@]}" --listen 127.0.0.1 --wire-port "${port[server]:-0}" >"$work/server.log" 2>&1 &
  process[server]=$!
  expect 30 "the configuration server listens" server_listens
}
server_listens() {
  port[server]=$(tr -d '\r' <"$work/server.log" | sed -n 's/.*listening on .* port //p')
  [[ -n ${port[server]} ]]
}

# install_agent IDENTIFIER makes the agent's key and install_config.txt, with a token that the server knows.
install_agent() {
  local token
  token=$(</proc/sys/kernel/random/uuid)
  echo "$token" >"$work/server/tokens.txt"
  "${agent[@]}" key create >/dev/null
  cp -- "$work/server/certificate.pem" "$work/agent/ConfigurationServer.PEM"
  (umask 077 && cat >"$work/agent/install_config.txt") <<TEXT
ConfigurationServer=127.0.0.1
ConfigurationServerPort=${port[server]}
ApplicationIdentifier=$1
ApplicationToken=$("${agent[@]}" token protect "$token" | tr -d '\r' | sed -n 's/^secured-token: //p')
TEXT
}

start_agent() {
  "${agent[@]}" run --interval 2 --os-version "$(uname -sr)" --agent-version 7.2.5 >>"$work/agent.log" 2>&1 &
  process[agent]=$!
}

status() { "${agent[@]}" status | tr -d '\r'; }
# status_has PATTERN: a line of the status matches.
status_has() { status 2>/dev/null | grep -Eq -- "$1"; }

# add_destination tcp|udp|tls [PARAMETER VALUE] adds one on 127.0.0.1 to $destinations.
add_destination() {
  local start="    <Destination Type=\"$1\" Address=\"127.0.0.1\" Port=\"${port[$1]}\""
  if [[ $1 != tls ]]; then
    destinations+=("$start/>")
    return
  fi
  destinations+=("$start MinTls=\"TLSv1.2\">
      <Certificate>
$(<"$work/certificate.pem")
      </Certificate>${2:+
      <Parameter Name=\"$2\" Value=\"$3\"/>}
    </Destination>")
}

# configure gives the server a new configuration for its agents, from $inputs, $destinations and $components; prints the
# difference without certificates.
configure() {
  local current=$work/server/default/AgentConfig.xml new=$work/server/default/AgentConfig.xml.new
  [[ -e $current ]] || : >"$current"
  {
    printf '<AgentConfig>\n  <Inputs>\n'
    printf '    %s\n' "${inputs[@]}"
    printf '  </Inputs>\n  <Destinations>\n'
    printf '%s\n' "${destinations[@]}"
    printf '  </Destinations>\n'
    if ((${#components[@]})); then printf '  <Components>\n    %s\n  </Components>\n' "${components[@]}"; fi
    printf '</AgentConfig>\n'
  } >"$new"
  { diff --new-line-format='+ %L' --old-line-format='- %L' --unchanged-line-format= -- "$current" "$new" || true; } |
    sed '/-----BEGIN/,/-----END/d'
  mv -- "$new" "$current"
}
# configured: the agent has that configuration.
configured() {
  cmp -s -- "$work/server/default/AgentConfig.xml" "$work/agent/AgentConfig.xml" && [[ -s $work/agent/AgentConfig.md5 ]]
}

# add_patch COMPONENT puts a patch on the server and the component into $components; patch_arrived: the agent has
# it.
add_patch() {
  local component=${1,,}
  head -c 100000 /dev/urandom >"$work/server/patches/x64_72_$component.tar.gz"
  components=("<Component Name=\"$1\" BuildNumber=\"4712\"/>")
}
patch_arrived() {
  local component=${1,,}
  cmp -s -- "$work/server/patches/x64_72_$component.tar.gz" "$work/agent/patch/x64_72_${component}_4712.tar.gz"
}
