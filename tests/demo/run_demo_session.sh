#!/bin/sh
# The scripted demo session on the demo survey at the size scripts/demo makes by default (the
# README's command), so that the suite fails where the README's demo fails; its screenshots,
# transcript and measures stay in <build>/demo-session/ for a look after a failure.
#   run_demo_session.sh <build dir>
set -eu
build=$1
root=$(cd "$(dirname "$0")/../.." && pwd)
points=$(sed -n 's/^points=\${1:-\([0-9]*\)}$/\1/p' "$root/scripts/demo")
if [ -z "$points" ]; then
    echo "run_demo_session.sh: scripts/demo's default survey size was not found" >&2
    exit 1
fi
work="$build/demo-session"
rm -rf "$work"
mkdir -p "$work/survey"
"$build/bin/make_demo_survey" "$work/survey/survey.ply" "$points" >/dev/null
exec python3 "$root/scripts/demo-session" --build "$build" --survey "$work/survey/survey.ply" --out "$work/out"
