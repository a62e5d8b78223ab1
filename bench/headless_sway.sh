# Sourced by the Wayland benchmark scripts: `start_headless_sway WORK CONFIG` starts Debian's
# sway headless (pixman) with CONFIG as its configuration, as nobody when run as root (sway
# refuses root), in folders under WORK; it sets `compositor` (the pid), WAYLAND_DISPLAY and
# `swaysock`. `stop_headless_sway` ends it.
start_headless_sway() {
  local work=$1 config=$2
  chmod 755 "$work"
  rm -rf "$work/sway-run" "$work/sway-home"
  mkdir -p "$work/sway-run" "$work/sway-home"
  chmod 700 "$work/sway-run"
  local as_user=()
  if [ "$(id -u)" = 0 ]; then
    chown nobody:nogroup "$work/sway-run" "$work/sway-home"
    as_user=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
  fi
  printf '%s\n' "$config" > "$work/sway.config"
  chmod 644 "$work/sway.config"
  "${as_user[@]}" env -i HOME="$work/sway-home" XDG_RUNTIME_DIR="$work/sway-run" WLR_BACKENDS=headless \
    WLR_LIBINPUT_NO_DEVICES=1 WLR_RENDERER=pixman PATH=/usr/bin:/bin sway -c "$work/sway.config" >/dev/null 2>&1 &
  compositor=$!
  for _ in $(seq 50); do
    ls "$work/sway-run"/wayland-? >/dev/null 2>&1 && ls "$work/sway-run"/sway-ipc.*.sock >/dev/null 2>&1 && break
    sleep 0.1
  done
  export WAYLAND_DISPLAY
  WAYLAND_DISPLAY=$(ls "$work/sway-run"/wayland-? | head -1)
  swaysock=$(ls "$work/sway-run"/sway-ipc.*.sock | head -1)
}
stop_headless_sway() { kill "$compositor" 2>/dev/null; wait "$compositor" 2>/dev/null || true; compositor=""; }
