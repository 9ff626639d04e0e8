# Debian packages, for the scripts that install them; sourced after lib.sh.

# What every build needs, for either system.
build_packages=(cmake ninja-build ccache libssl-dev libcurl4-openssl-dev libace-ssl-dev libboost1.81-dev libspdlog-dev
  libfmt-dev libcli11-dev)

# missing PACKAGE... prints those not installed, one a line.
missing() {
  local installed
  installed=$(dpkg-query -W -f '${Package} ${db:Status-Abbrev}\n' "$@" 2>/dev/null | sed -n 's/ ii $//p' || true)
  comm -23 <(printf '%s\n' "$@" | sort) <(sort <<<"$installed")
}

# as_root [NAME=VALUE...] COMMAND...
as_root() {
  if ((EUID == 0)); then
    env "$@"
  else
    sudo env "$@"
  fi
}

may_be_root() { ((EUID == 0)) || { command -v sudo >/dev/null && { sudo -n true 2>/dev/null || [[ -t 0 ]]; }; }; }

apt() { as_root DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=600 "$@" >&2; }

update_lists() { apt update || die "apt-get update failed"; }

# Both an unknown package and one that cannot be fetched need fresh lists.
install_packages() {
  may_be_root || die "neither root nor sudo; install as root: $*"
  apt-cache show "$@" >/dev/null 2>&1 || update_lists
  apt install -y --no-install-recommends --no-remove "$@" && return
  update_lists
  apt install -y --no-install-recommends --no-remove "$@" || die "apt-get could not install: $*"
}
