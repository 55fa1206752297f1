#!/usr/bin/env bash
# Long run of the service on the emulated sensor, watching its memory and descriptors.
#
#   tools/soak/soak.sh [--seconds N] [--warmup N] [--interval N] [--build DIR] [--out DIR]
#
#   --seconds N   length of the run (3600)
#   --warmup N    seconds before the growth check starts counting (a quarter of the run)
#   --interval N  seconds between two samples (5)
#   --build DIR   the build folder with velora and libvelora_sensor_emulator.so (build)
#   --out DIR     where the scene, the samples and the logs go (a new folder under /tmp)
#   --command-every N  seconds between two input mode changes (30; 0: none)
#
# The scene touches, draws and lifts without end (fingers and a stylus, taps and strokes)
# and brings in the emulator's transfer faults one after the other: short frames,
# time-outs and dropped frames. Every --command-every seconds the input mode is switched through the
# command file, which moves exposure, laser and the sensor's window; while the service
# has no command channel (the file is not taken within 30 seconds) this is reported and
# left out.
#
# Steps, each reported on its own:
#   1. memory and descriptors: resident memory (VmRSS) and open descriptors are sampled
#      every interval. After the warm-up, the median of the last third of the samples may
#      exceed that of the first third by at most 3% (and 2 MB) of memory and by no
#      descriptor. The process must live to the end. Fails the script otherwise.
#   2. gestures: every stroke of the scene arrives as one gesture, and no gesture arrives
#      without a stroke. The service runs with the calibration a perfect calibration run
#      would leave for the scene, on a private X server (Xvfb) of the scene's size: a
#      stroke is a left press to its release there, as velora-desktop-watcher sees it.
#      When the service makes a multi-touch device (uinput), its contacts count instead.
#      Compared by tools/soak/gestures.py; the first 4 s (the service starting and
#      learning the background) are left out, and so are strokes that a fault or a mode
#      change cut.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
seconds=3600
warmup=
interval=5
command_every=30
build=$root/build
out=
while (($#)); do
  case $1 in
    --seconds) seconds=$2; shift 2 ;;
    --warmup) warmup=$2; shift 2 ;;
    --interval) interval=$2; shift 2 ;;
    --command-every) command_every=$2; shift 2 ;;
    --build) build=$(cd "$2" && pwd); shift 2 ;;
    --out) out=$2; shift 2 ;;
    -h|--help) sed -n '2,32p' "$0"; exit 0 ;;
    *) echo "soak: unknown argument $1" >&2; exit 2 ;;
  esac
done
warmup=${warmup:-$((seconds / 4))}
[[ -x $build/velora && -f $build/libvelora_sensor_emulator.so && -x $build/velora-desktop-watcher \
   && -x $build/velora-scene-calibration ]] \
  || { echo "soak: no velora, emulator and tools in $build (scripts/build build)" >&2; exit 2; }
command -v Xvfb >/dev/null || { echo "soak: needs Xvfb (scripts/deps)" >&2; exit 2; }
out=${out:-$(mktemp -d /tmp/velora-soak.XXXXXX)}
mkdir -p "$out/home"
out=$(cd "$out" && pwd)

# --- the scene: strokes loop every 24 s, faults are laid out over the whole run ---------
# Nothing touches in the first 4 s: the service learns the picture's background then, and a
# finger resting in it at that time would stay part of the background.
scene=$out/soak.scene
{
  cat <<'EOF'
sensor 752 480
fps 120
screen 1920 1080
corners 60 40 692 40 700 440 52 440
lens factory
background 12
noise 2
exposure 30
laser follow
loop 24
stroke finger 4.0 1.5 path 300,300 1600,300
stroke finger 6.0 2.0 path 400,800 800,400 1200,800 1600,400
tap    finger 8.5 0.2 at 960,540
tap    finger 9.1 0.2 at 400,900
stroke stylus 10.0 2.0 size 9 path 500,500 1400,500 1400,900 500,900 500,500
tap    stylus 12.5 0.15 size 9 at 1700,200
stroke stylus 13.5 3.0 size 9 path 200,200 1700,900
stroke finger 17.5 2.5 path 1700,200 200,900
stroke stylus 20.5 1.5 size 9 path 960,100 960,1000
EOF
  # One fault every 7 s, in turn; they count from the stream's start, so cover the run.
  kinds=("short %s 0.3" "timeout %s 0.5" "drop %s 1.0 every 3")
  n=0
  for ((t = 3; t < seconds + 60; t += 7)); do
    printf "fault ${kinds[n % 3]}\n" "$t"
    n=$((n + 1))
  done
} >"$scene"

# --- run the service -----------------------------------------------------------------
# The factory paths are relative to the program's folder; the user's files go to a home
# of its own.
export HOME=$out/home XDG_CONFIG_HOME=$out/home/.config XDG_DATA_HOME=$out/home/.local/share
export XDG_RUNTIME_DIR=$out/home/runtime
mkdir -p "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"
export VELORA_EMU_SCENE=$scene VELORA_EMU_TRUTH=$out/truth.txt
mkdir -p "$HOME/Documents/Velora"
for kind in finger stylus; do
  "$build/velora-scene-calibration" "$scene" "$HOME/Documents/Velora/$kind-velora.ini" >/dev/null
done

# A private desktop of the scene's size and a window over it that reports what reaches it.
exec {xfd}< <(Xvfb -displayfd 1 -screen 0 1920x1080x24 -nolisten tcp 2>/dev/null & echo "pid $!")
read -r -u "$xfd" _ xpid
read -r -u "$xfd" -t 30 number || { kill "$xpid" 2>/dev/null; echo "soak: Xvfb did not start" >&2; exit 1; }
export DISPLAY=":$number" QT_QPA_PLATFORM=xcb
unset WAYLAND_DISPLAY XAUTHORITY
"$build/velora-desktop-watcher" --stamp >"$out/desktop.txt" 2>&1 &
watcher=$!
(
  cd "$build"
  LD_PRELOAD="$build/libvelora_sensor_emulator.so${LD_PRELOAD:+:$LD_PRELOAD}" exec ./velora -v
) >"$out/velora.log" 2>&1 &
pid=$!
cleanup() {
  if kill -0 "$pid" 2>/dev/null; then
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
  kill "$watcher" "$xpid" 2>/dev/null || true
}
trap cleanup EXIT

gestures_pid=
start_gestures() {
  # The touch device is made by the service at its start: look for it once it runs.
  [[ -n $gestures_pid ]] && return 0
  command -v python3 >/dev/null || return 0
  local dev
  dev=$(python3 "$here/gestures.py" find 2>/dev/null) || return 0
  python3 "$here/gestures.py" record "$dev" >"$out/touch.txt" 2>"$out/gestures.err" &
  gestures_pid=$!
}

commands=$HOME/Documents/Velora
mkdir -p "$commands"
channel=unknown
changes=0
mode_byte=s
samples=$out/samples.csv
echo "seconds,rss_kb,fds" >"$samples"
echo "soak: $seconds s, warm-up $warmup s, samples every $interval s, output in $out"
begin=$(date +%s)
next_command=$((begin + command_every))
while :; do
  now=$(date +%s)
  elapsed=$((now - begin))
  ((elapsed >= seconds)) && break
  if ! kill -0 "$pid" 2>/dev/null; then
    wait "$pid" && status=0 || status=$?
    echo "soak: FAIL: the service ended after $elapsed s with status $status; last lines:" >&2
    tail -5 "$out/velora.log" >&2
    exit 1
  fi
  rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null || echo "")
  fds=$(find "/proc/$pid/fd" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l)
  [[ -n $rss ]] && echo "$elapsed,$rss,$fds" >>"$samples"
  start_gestures

  if [[ $channel != absent ]] && ((command_every > 0 && now >= next_command)); then
    if [[ -e $commands/fifo1 ]]; then
      channel=absent
      echo "soak: the command file was not taken: no command channel, mode and window changes left out"
      rm -f "$commands/fifo1"
    else
      echo "$mode_byte" >"$commands/fifo1"
      changes=$((changes + 1))
      # A stroke across a mode change is cut by it, as by a fault: the stream time of the
      # change (from the emulator's truth, flushed four times a second) goes to the checker.
      t=$(tail -n 400 "$out/truth.txt" 2>/dev/null | awk '$1 == "F" { t = $3 } END { print t + 0 }')
      echo "fault modechange $(awk -v t="$t" 'BEGIN { print t - 0.5 }') 4.5" >>"$out/modechanges.txt"
      [[ $mode_byte == s ]] && mode_byte=f || mode_byte=s
    fi
    next_command=$((now + command_every))
  fi
  sleep "$interval"
done

# --- step 1: memory and descriptors ----------------------------------------------------
verdict=$(awk -F, -v warmup="$warmup" '
  NR == 1 { next }
  { if (NR == 2) { rss0 = $2; fd0 = $3 } rssN = $2; fdN = $3; if ($2 > top) top = $2; if ($3 > fdtop) fdtop = $3 }
  $1 >= warmup { r[n] = $2; f[n] = $3; n++ }
  function median(a, lo, hi,   m, i, j, t, b) {
    m = 0; for (i = lo; i < hi; i++) b[m++] = a[i]
    for (i = 1; i < m; i++) { t = b[i]; for (j = i - 1; j >= 0 && b[j] > t; j--) b[j + 1] = b[j]; b[j + 1] = t }
    return m % 2 ? b[int(m / 2)] : (b[m / 2 - 1] + b[m / 2]) / 2
  }
  END {
    printf "memory: start %d kB, end %d kB, highest %d kB; descriptors: start %d, end %d, highest %d\n", rss0, rssN, top, fd0, fdN, fdtop
    if (n < 6) { print "FAIL: too few samples after the warm-up (" n ")"; exit }
    third = int(n / 3)
    r1 = median(r, 0, third); r3 = median(r, n - third, n)
    f1 = median(f, 0, third); f3 = median(f, n - third, n)
    allowed = r1 * 0.03; if (allowed < 2048) allowed = 2048
    printf "after the warm-up (%d samples): memory %d kB -> %d kB (%+d kB, allowed %d), descriptors %d -> %d\n", n, r1, r3, r3 - r1, allowed, f1, f3
    if (r3 - r1 > allowed) print "FAIL: resident memory grows"
    else if (f3 > f1) print "FAIL: open descriptors grow"
    else print "PASS"
  }' "$samples")
echo "$verdict"
strokes=$(awk '$1 == "S" { seen[$3] = 1 } END { print length(seen) }' "$out/truth.txt" 2>/dev/null || echo 0)
echo "strokes and taps sent by the emulator: $strokes"
[[ $channel != absent ]] && ((command_every > 0)) && echo "mode changes written: $changes"
failed=0
grep -q '^FAIL' <<<"$verdict" && failed=1

# --- step 2: gestures ------------------------------------------------------------------
contacts=$out/desktop.txt
if [[ -n $gestures_pid ]]; then
  kill "$gestures_pid" 2>/dev/null || true
  wait "$gestures_pid" 2>/dev/null || true
  contacts=$out/touch.txt
fi
cat "$scene" "$out/modechanges.txt" >"$out/outages.txt" 2>/dev/null || cp "$scene" "$out/outages.txt"
if python3 "$here/gestures.py" compare "$out/truth.txt" "$contacts" 4 "$out/outages.txt"; then
  echo "gestures: PASS (${contacts##*/})"
else
  echo "gestures: FAIL (${contacts##*/})" >&2
  failed=1
fi

cleanup
trap - EXIT
exit $failed
