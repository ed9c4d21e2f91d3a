#!/bin/sh
# The scripted demo session on a small demo survey (a few seconds to generate); its screenshots,
# transcript and measures stay in <build>/demo-session/ for a look after a failure.
#   run_demo_session.sh <build dir>
set -eu
build=$1
root=$(cd "$(dirname "$0")/../.." && pwd)
work="$build/demo-session"
rm -rf "$work"
mkdir -p "$work/survey"
"$build/bin/make_demo_survey" "$work/survey/survey.ply" 200000 >/dev/null
exec python3 "$root/scripts/demo-session" --build "$build" --survey "$work/survey/survey.ply" --out "$work/out"
