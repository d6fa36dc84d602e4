#!/usr/bin/env bash
# Watch a distribution arrive, be proven and be published, against an embedded origin on loopback: three syncs, then
# a running `watch` through a new version and a new era.
#   tools/demo.sh                          the demonstration (needs the release build)
#   tools/demo.sh --check-with PROGRAM     run another client once: PROGRAM DATA_DIR SERVER_URL TOKEN WALLET_SECRET_HEX
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

origin=build/release/tools/tidalcrest-origin
client=build/release/cli/tidalcrest-sync
work=$(mktemp -d)
server=
watcher=
finish() {
  local process
  for process in $watcher $server; do
    kill "$process" 2>/dev/null || true
    wait "$process" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap finish EXIT

say() { printf '\n\033[1m%s\033[0m\n' "$*"; }
field() { sed -n "s/.*\"$1\": \"\([^\"]*\)\".*/\1/p" "$work/ready.json"; }

serve() { # build argument...
  "$origin" build "$work/origin" "$@"
  "$origin" serve "$work/origin" --api-port 0 --data-port 0 --ready-file "$work/ready.json" >"$work/origin.log" 2>&1 &
  server=$!
  for _ in $(seq 100); do
    [ -s "$work/ready.json" ] && break
    kill -0 "$server" 2>/dev/null || { cat "$work/origin.log"; exit 1; }
    sleep 0.1
  done
  [ -s "$work/ready.json" ] || { echo "the origin did not come up"; exit 1; }
  mkdir "$work/data"
  directory=(--data-dir "$work/data")
  remote=("${directory[@]}" --server-url "$(field server_url)" --token-file "$(field token_file)"
    --wallet-secret-file "$(field wallet_secret_file)")
}

until_watch_says() { # text: shows what it said on the way; gives up after a minute
  local alive=1
  for _ in $(seq 600); do
    kill -0 "$watcher" 2>/dev/null || alive=
    if grep -q "$1" "$work/watch.out"; then
      tail -n +"$((shown + 1))" "$work/watch.out"
      shown=$(wc -l <"$work/watch.out")
      return
    fi
    [ -n "$alive" ] || break
    sleep 0.1
  done
  cat "$work/watch.out"
  echo "watch never said: $1"
  exit 1
}

if [ "${1:-}" = --check-with ]; then
  serve --features 20
  "$2" "$work/data" "$(field server_url)" "$(cat "$(field token_file)")" "$(cat "$(field wallet_secret_file)")"
  exit
fi

say "An origin on loopback: one market, two universes, some four thousand files"
serve --universes alpha beta --features 1000 --found-signals 100 --found-strategies 20 --vault-modules pricing

say "First sync: everything arrives, is proven, and is published by one switch"
"$client" sync "${remote[@]}"

say "Second sync: nothing to do, one small request and a local proof"
"$client" sync "${remote[@]}"

say "The origin publishes a new version: one file in a hundred changes, some come, some go"
"$origin" evolve "$work/origin" --change 1% --add 10 --remove 5

say "Third sync: only what changed is fetched; the rest is proven and carried over"
"$client" sync "${remote[@]}"

say "watch: from here on the directory keeps itself in step (a poll every half second)"
shown=0
: >"$work/watch.out"
"$client" watch "${remote[@]}" --poll-interval 0.5 >"$work/watch.out" 2>&1 &
watcher=$!
until_watch_says "is published"

say "The origin publishes the next version"
"$origin" evolve "$work/origin" --change 1%
until_watch_says "era 1, version 3 is published"

say "The market moves to era 2: searches are told to stop, the new era is published, searches go on"
"$origin" evolve "$work/origin" --next-era
until_watch_says "era 2: searches are told to go on"

say "status: at any time, from any process, without waiting for anybody"
"$client" status "${directory[@]}"

say "Ctrl-C ends the watch cleanly"
kill -INT "$watcher"
until_watch_says "stopped"
wait "$watcher"
watcher=

say "verify: every byte is measured again; gc: room for the next ones"
"$client" verify "${directory[@]}" --wallet-secret-file "$(field wallet_secret_file)"
"$client" gc "${directory[@]}"

say "What is on disk now"
ls -A "$work/data"
du -sh "$work/data/.tidalcrest-cohorts" | cut -f1
