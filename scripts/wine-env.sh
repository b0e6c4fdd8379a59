#!/usr/bin/env bash
# A quiet, headless Wine for running the Windows build's programs.
#
#   source scripts/wine-env.sh && wine_env_start   sets up this shell: WINEPREFIX in the project
#                                                  cache (created once), a persistent wineserver
#   scripts/wine-env.sh COMMAND [ARGS...]          the same, then runs COMMAND (ctest, say) in it
#   scripts/wine-env.sh --stop                     ends the prefix's wineserver
#
# The first start of a new prefix (wineboot --init) takes several seconds; after it a program
# starts in hundredths of a second as long as the wineserver runs. The server started here has
# its standard streams on /dev/null: one that Wine starts on demand inherits the caller's, and a
# test runner waiting for its output pipe to close would then hang. It ends by itself
# VAROFT_WINE_PERSIST seconds (default 120) after its last program.

VAROFT_WINE64=${VAROFT_WINE64:-/usr/lib/wine/wine64}
VAROFT_WINESERVER=${VAROFT_WINESERVER:-/usr/lib/wine/wineserver64}

wine_env_setup() {
  local cache=${XDG_CACHE_HOME:-$HOME/.cache}/varoft
  export WINEPREFIX=${VAROFT_WINEPREFIX:-$cache/wine}
  export WINEARCH=win64
  export WINELOADER=$VAROFT_WINE64
  export WINESERVER=$VAROFT_WINESERVER
  export WINEDEBUG=-all
  # No prompts to install Mono or Gecko, no window system.
  export WINEDLLOVERRIDES="mscoree,mshtml="
  unset DISPLAY WAYLAND_DISPLAY
}

wine_env_start() {
  wine_env_setup
  if [ ! -x "$WINELOADER" ] || [ ! -x "$WINESERVER" ]; then
    echo "wine-env: $WINELOADER or $WINESERVER missing (scripts/windows-deps.sh installs them)" >&2
    return 1
  fi
  mkdir -p "$WINEPREFIX"
  if [ ! -f "$WINEPREFIX/.varoft-ready" ]; then
    (
      flock 9
      [ -f "$WINEPREFIX/.varoft-ready" ] && exit 0
      echo "wine-env: creating the Wine prefix $WINEPREFIX" >&2
      "$WINELOADER" wineboot --init </dev/null >"$WINEPREFIX.log" 2>&1 || exit 1
      # The server keeps the registry in memory; it is on disk once the server has ended.
      timeout 60 "$WINESERVER" -w </dev/null >/dev/null 2>&1 || exit 1
      touch "$WINEPREFIX/.varoft-ready"
    ) 9>"$WINEPREFIX.lock" || { echo "wine-env: wineboot failed, see $WINEPREFIX.log" >&2; return 1; }
  fi
  # A server that is already running for this prefix keeps going; a second one exits at once.
  "$WINESERVER" -p"${VAROFT_WINE_PERSIST:-120}" </dev/null >/dev/null 2>&1 || true
  # The first program also starts Wine's own service processes, which then live as long as the
  # server and keep whatever standard streams they inherited: give them /dev/null here.
  "$WINELOADER" cmd.exe /c exit </dev/null >/dev/null 2>&1 || true
}

wine_env_stop() {
  wine_env_setup
  [ -d "$WINEPREFIX" ] && "$WINESERVER" -k </dev/null >/dev/null 2>&1
  return 0
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  set -euo pipefail
  if [ "${1:-}" = --stop ]; then
    wine_env_stop
  else
    wine_env_start
    [ $# -eq 0 ] || exec "$@"
  fi
fi
