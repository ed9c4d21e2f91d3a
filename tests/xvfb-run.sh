#!/bin/sh
# Runs a command on a private virtual display (Xvfb with Mesa's software OpenGL), so that GL tests
# run on machines without a screen and in parallel without racing for a display number.
set -eu
command -v Xvfb >/dev/null 2>&1 || { echo "xvfb-run.sh: Xvfb is not installed (apt-get install xvfb)" >&2; exit 1; }
fifo_dir=$(mktemp -d)
trap 'kill "$xvfb_pid" 2>/dev/null || true; wait "$xvfb_pid" 2>/dev/null || true; rm -rf "$fifo_dir"' EXIT INT TERM
mkfifo "$fifo_dir/display"
# -noreset: a server that resets when its last client leaves refuses a viewer started right
# after another one closes (the demo reopens its scene in a new viewer).
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp -noreset 3>"$fifo_dir/display" 2>"$fifo_dir/xvfb.log" &
xvfb_pid=$!
read -r display_number <"$fifo_dir/display" || { cat "$fifo_dir/xvfb.log" >&2; exit 1; }
DISPLAY=":$display_number" QT_QPA_PLATFORM=xcb "$@"
