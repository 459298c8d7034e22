# Sourced by the setup scripts: installs the Debian packages that are missing, and nothing
# when all are there.

# Runs a command as root: directly when we are root, through sudo otherwise.
as_root() {
  if [[ $(id -u) -eq 0 ]]; then "$@"; else sudo "$@"; fi
}

# Whether a package is installed. A bare name is asked for its native instance first:
# once a foreign architecture (arm64, for the cross build) is installed beside it, the bare
# name is ambiguous to dpkg. A name with an architecture (name:arm64) is asked as it is.
package_installed() {
  local status
  if [[ $1 == *:* ]]; then
    status=$(dpkg-query -W -f='${Status}' "$1" 2>/dev/null) || return 1
  else
    status=$(dpkg-query -W -f='${Status}' "$1:$(dpkg --print-architecture)" 2>/dev/null ||
      dpkg-query -W -f='${Status}' "$1" 2>/dev/null) || return 1
  fi
  [[ $status == "install ok installed" ]]
}

# Set once ensure_packages has fetched the package lists, so a caller need not fetch again.
PACKAGE_LISTS_FETCHED=false

# ensure_packages LABEL PACKAGE...: installs the missing ones, saying which under LABEL.
# The package lists are fetched only when something is to be installed: it is slow.
ensure_packages() {
  local label=$1 pkg
  shift
  local missing=()
  for pkg in "$@"; do
    package_installed "$pkg" || missing+=("$pkg")
  done
  ((${#missing[@]})) || return 0
  echo "$label: installing ${missing[*]}" >&2
  as_root apt-get update -qq
  PACKAGE_LISTS_FETCHED=true
  DEBIAN_FRONTEND=noninteractive as_root apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
}
