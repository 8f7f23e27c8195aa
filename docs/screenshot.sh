#!/usr/bin/env bash
# Makes docs/corvex-three-panes.png: corvex-app under a private X server with three panes, a
# shell, vim and colour output, arranged through the command-line client.
#   docs/screenshot.sh [BIN]   BIN holds corvex-app, corvexd and corvex (build/release/bin)
set -euo pipefail
cd "$(dirname "$0")/.."
bin=$(realpath "${1:-build/release/bin}")
out=$(realpath docs)/corvex-three-panes.png
work=$(mktemp -d /tmp/corvex-shot-XXXXXX)
trap 'CORVEXD_RUNTIME_DIR=$work/rt "$bin/corvexd" shutdown >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
mkdir -p "$work/home" "$work/rt"
chmod 700 "$work/rt"
cp README.md "$work/home/notes.md"

export HOME=$work/home CORVEXD_RUNTIME_DIR=$work/rt CORVEXD_BIN=$bin/corvexd SHELL=/bin/bash
export CORVEX_SCREENSHOT=$work/shot.png CORVEX_SCREENSHOT_DELAY=12000 LIBGL_ALWAYS_SOFTWARE=1 ASAN_OPTIONS=detect_leaks=0
xvfb-run -a -s "-screen 0 1600x1000x24" bash -s "$bin" "$work" <<'INNER'
set -euo pipefail
bin=$1 work=$2
cli() { "$bin/corvex" --socket "$work/rt/corvexd.sock" "$@"; }
"$bin/corvex-app" &
app=$!
for _ in $(seq 100); do
  pane=$(cli state 2>/dev/null | jq -r '.workspaces[0].tabs[0].active_pane // empty') && [ -n "$pane" ] && break
  sleep 0.1
done
sleep 1
vim=$(cli split "$pane" --direction right | jq -r .pane)
sleep 1
colours=$(cli split "$vim" --direction down --ratio 0.6 | jq -r .pane)
sleep 1
cli send -n "$pane" "cd; ls -l /usr; echo; uname -sm"
cli send -n "$vim" "cd; vim -u NONE -c 'syntax on' notes.md"
cli send -n "$colours" "for i in \$(seq 0 255); do printf '\\e[48;5;%dm  ' \$i; [ \$((i % 16)) = 15 ] && printf '\\e[0m\\n'; done; printf '\\e[0m\\e[1;31mred \\e[32mgreen \\e[34mblue\\e[0m\\n'"
cli focus pane "$pane" >/dev/null
for _ in $(seq 200); do [ -s "$work/shot.png" ] && break; sleep 0.1; done
kill "$app"; wait "$app" || true
INNER
cp "$work/shot.png" "$out"
echo "wrote $out"
