# Sourced by wine-run.sh and the sample script: prepares everything a Windows
# test executable needs under Wine, without ever showing a dialog.
#
#   kiv_wine_prepare BUILD_DIR ARCH     ARCH is x86_64 or i686
#
# exports WINEPREFIX (BUILD_DIR/wineprefix-ARCH), WINEARCH, WINEDEBUG,
# WINEDLLOVERRIDES, DISPLAY, PULSE_SERVER and KIV_WINE_LOADER, and makes sure
# an X display (Xvfb), a PulseAudio daemon with null devices, an initialised
# prefix and a detached wineserver exist. Safe to call from concurrent runs.

KIV_XVFB_DISPLAY="${KIV_XVFB_DISPLAY:-:99}"
KIV_PULSE_DIR="${KIV_PULSE_DIR:-/tmp/kiv-pulse-$(id -u)}"
KIV_LOCK_DIR="${KIV_LOCK_DIR:-/tmp/kiv-locks-$(id -u)}"

kiv_wine_log() { echo "wine-env: $*" >&2; }

# ARCH of a PE executable: x86_64, i686 or unknown.
kiv_pe_arch() {
  local off machine
  off=$(od -An -tu4 -j60 -N4 "$1" 2>/dev/null | tr -d ' ')
  [ -n "$off" ] || { echo unknown; return; }
  machine=$(od -An -tx2 -j$((off + 4)) -N2 "$1" 2>/dev/null | tr -d ' ')
  case "$machine" in
    8664) echo x86_64 ;;
    014c) echo i686 ;;
    *) echo unknown ;;
  esac
}

# Closes every descriptor above 2 of the current shell, so no lock file or
# pipe of ours leaks into long-lived children. Call it in the same (sub)shell
# that then execs: a background job is a subshell of its own, and a lock
# descriptor left open there keeps the lock held for as long as it lives.
kiv_close_fds() {
  local fd
  for fd in $(ls "/proc/$BASHPID/fd"); do
    [ "$fd" -gt 2 ] && eval "exec $fd>&-" 2>/dev/null
  done
}

# Runs a command with every descriptor above 2 closed.
kiv_clean() { ( kiv_close_fds; exec "$@" ); }

# Starts a daemon detached from the caller's terminal and pipes (ctest waits
# for every process that holds its output pipe).
kiv_detach() { ( kiv_close_fds; exec setsid "$@" </dev/null >/dev/null 2>&1 ) & }

# flock with a bound: a stale holder must not hang a test run.
kiv_lock() { flock -w "${KIV_LOCK_WAIT:-300}" "$1" || { kiv_wine_log "timed out waiting for $2"; return 1; }; }

kiv_ensure_display() {
  if [ -n "${DISPLAY:-}" ] && xdpyinfo -display "$DISPLAY" >/dev/null 2>&1; then return 0; fi
  export DISPLAY="$KIV_XVFB_DISPLAY"
  xdpyinfo -display "$DISPLAY" >/dev/null 2>&1 && return 0
  mkdir -p "$KIV_LOCK_DIR"
  (
    kiv_lock 9 "the X display lock" || exit 1
    if ! xdpyinfo -display "$DISPLAY" >/dev/null 2>&1; then
      kiv_wine_log "starting Xvfb on $DISPLAY"
      kiv_detach Xvfb "$DISPLAY" -screen 0 1920x1200x24 -nolisten tcp -noreset
      for _ in $(seq 50); do
        xdpyinfo -display "$DISPLAY" >/dev/null 2>&1 && break
        sleep 0.2
      done
    fi
  ) 9>"$KIV_LOCK_DIR/xvfb.lock"
  xdpyinfo -display "$DISPLAY" >/dev/null 2>&1 || { kiv_wine_log "no X display on $DISPLAY"; return 1; }
}

# The audio loop tests' devices: two more null sinks, whose monitors are
# capture endpoints a test can play a known signal into (kiv_sink_a) or record
# the library's playback from (kiv_sink_b). kiv_null_sink stays the default.
kiv_ensure_pulse_sinks() {
  local sink
  for sink in kiv_sink_a kiv_sink_b; do
    pactl list short sinks 2>/dev/null | grep -q "[[:space:]]$sink[[:space:]]" ||
      pactl load-module module-null-sink sink_name=$sink sink_properties=device.description=$sink >/dev/null
  done
}

# A private PulseAudio daemon with null sinks and a null source, so WASAPI
# finds render and capture endpoints.
kiv_ensure_pulse() {
  export PULSE_SERVER="unix:$KIV_PULSE_DIR/native"
  if pactl info >/dev/null 2>&1; then
    pactl list short sinks 2>/dev/null | grep -q kiv_sink_b && return 0
    mkdir -p "$KIV_LOCK_DIR"
    ( kiv_lock 9 "the PulseAudio lock" && kiv_ensure_pulse_sinks ) 9>"$KIV_LOCK_DIR/pulse.lock"
    return 0
  fi
  mkdir -p "$KIV_PULSE_DIR" "$KIV_LOCK_DIR"
  (
    kiv_lock 9 "the PulseAudio lock" || exit 1
    if ! pactl info >/dev/null 2>&1; then
      kiv_wine_log "starting PulseAudio with null devices"
      rm -f "$KIV_PULSE_DIR/native"
      HOME="$KIV_PULSE_DIR" XDG_RUNTIME_DIR="$KIV_PULSE_DIR" PULSE_RUNTIME_PATH="$KIV_PULSE_DIR" \
        PULSE_STATE_PATH="$KIV_PULSE_DIR" \
        kiv_detach pulseaudio -n --daemonize=no --exit-idle-time=-1 --disallow-exit=yes \
          --use-pid-file=no --system=no --log-target=stderr \
          -L "module-native-protocol-unix socket=$KIV_PULSE_DIR/native auth-anonymous=1" \
          -L "module-null-sink sink_name=kiv_null_sink" \
          -L "module-null-source source_name=kiv_null_source" \
          -L "module-always-sink"
      for _ in $(seq 50); do
        pactl info >/dev/null 2>&1 && break
        sleep 0.2
      done
      kiv_ensure_pulse_sinks
      pactl set-default-sink kiv_null_sink >/dev/null 2>&1
      pactl set-default-source kiv_null_source >/dev/null 2>&1
    fi
  ) 9>"$KIV_LOCK_DIR/pulse.lock"
  pactl info >/dev/null 2>&1 || { kiv_wine_log "PulseAudio did not start (audio endpoints missing)"; return 1; }
}

kiv_wine_prepare() {
  local build="$1" arch="$2"
  case "$arch" in
    x86_64)
      export WINEARCH=win64
      KIV_WINE_LOADER=/usr/lib/wine/wine64
      KIV_WINESERVER=/usr/lib/wine/wineserver64 ;;
    i686)
      export WINEARCH=win32
      KIV_WINE_LOADER=/usr/lib/wine/wine
      KIV_WINESERVER=/usr/lib/wine/wineserver32 ;;
    *) kiv_wine_log "unknown executable architecture"; return 1 ;;
  esac
  [ -x "$KIV_WINESERVER" ] || KIV_WINESERVER="$(command -v wineserver || echo /usr/lib/wine/wineserver)"
  if [ ! -x "$KIV_WINE_LOADER" ]; then
    kiv_wine_log "$KIV_WINE_LOADER missing: cannot run $arch executables"
    return 1
  fi
  export KIV_WINE_LOADER KIV_WINESERVER WINELOADER="$KIV_WINE_LOADER"
  export WINEPREFIX="$build/wineprefix-$arch"
  export WINEDEBUG="${KIV_WINEDEBUG:--all}"
  # No Mono or Gecko installer prompts.
  export WINEDLLOVERRIDES="mscoree,mshtml="
  kiv_ensure_display || return 1
  kiv_ensure_pulse || true

  mkdir -p "$build"
  (
    kiv_lock 9 "the Wine prefix lock" || exit 1
    if [ ! -f "$WINEPREFIX/.kiv-ready" ]; then
      kiv_wine_log "creating Wine prefix $WINEPREFIX (first start takes a while)"
      rm -rf "$WINEPREFIX"
      kiv_clean timeout 300 "$KIV_WINE_LOADER" wineboot -i </dev/null >/dev/null 2>&1 || true
      # Crashes print a backtrace instead of opening the crash dialog.
      kiv_clean timeout 120 "$KIV_WINE_LOADER" reg add 'HKCU\Software\Wine\WineDbg' /v ShowCrashDialog \
        /t REG_DWORD /d 0 /f </dev/null >/dev/null 2>&1 || true
      kiv_clean timeout 120 "$KIV_WINESERVER" -w </dev/null >/dev/null 2>&1 || true
      if [ -f "$WINEPREFIX/system.reg" ]; then
        touch "$WINEPREFIX/.kiv-ready"
      else
        kiv_wine_log "wineboot failed for $WINEPREFIX"
        exit 1
      fi
    fi
  ) 9>"$build/.wineprefix-$arch.lock" || return 1
  # A wineserver started here, detached, so no test inherits it on its pipes.
  kiv_detach "$KIV_WINESERVER" -p 60
  return 0
}
