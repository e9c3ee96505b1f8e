# Helpers that .ci/run and .ci/wheels share (sourced, not run).

# The newest X.Y.Z of a minor version under pyenv, else pythonX.Y on PATH.
find_python() {
  local found
  found=$(ls -d "$HOME"/.pyenv/versions/"$1".*/bin/python3 2>/dev/null | sort -V | tail -n 1 || true)
  [ -n "$found" ] || found=$(command -v "python$1" || true)
  [ -n "$found" ] || { echo "no Python $1 found" >&2; return 1; }
  echo "$found"
}

# Distribution packages, installed without prompts when CI runs without a
# terminal, unless COMMAND is there already: needs COMMAND PACKAGE...
needs() {
  command -v "$1" >/dev/null 2>&1 && return
  local as_root=(); [ "$(id -u)" -eq 0 ] || as_root=(sudo -n)
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update -q </dev/null
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q "${@:2}" </dev/null
}

# The Debian mirror this machine's apt is configured with.
debian_mirror() {
  local uri
  uri=$(awk '/^URIs:/ {print $2; exit}' /etc/apt/sources.list.d/debian.sources 2>/dev/null || true)
  [ -n "$uri" ] || uri=$(awk '/^deb / {print $2; exit}' /etc/apt/sources.list 2>/dev/null || true)
  [ -n "$uri" ] || { echo "no Debian mirror named in /etc/apt" >&2; return 1; }
  echo "$uri"
}
