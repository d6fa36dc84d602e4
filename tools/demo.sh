#!/usr/bin/env bash
# Watch a distribution arrive, be proven and be published: three syncs against an embedded origin on loopback.
#   tools/demo.sh                          the demonstration (needs the release build)
#   tools/demo.sh --check-with PROGRAM     run another client once: PROGRAM DATA_DIR SERVER_URL TOKEN WALLET_SECRET_HEX
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

origin=build/release/tools/tidalcrest-origin
client=build/release/cli/tidalcrest-sync
work=$(mktemp -d)
server=
finish() {
  if [ -n "$server" ]; then
    kill "$server" 2>/dev/null || true
    wait "$server" 2>/dev/null || true
  fi
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
}

sync_once() {
  "$client" sync --data-dir "$work/data" --server-url "$(field server_url)" --token-file "$(field token_file)" \
    --wallet-secret-file "$(field wallet_secret_file)"
}

if [ "${1:-}" = --check-with ]; then
  serve --features 20
  "$2" "$work/data" "$(field server_url)" "$(cat "$(field token_file)")" "$(cat "$(field wallet_secret_file)")"
  exit
fi

say "An origin on loopback: one market, two universes, some four thousand files"
serve --universes alpha beta --features 1000 --found-signals 100 --found-strategies 20 --vault-modules pricing

say "First sync: everything arrives, is proven, and is published by one switch"
sync_once

say "Second sync: nothing to do, one small request and a local proof"
sync_once

say "The origin publishes a new version: one file in a hundred changes, some come, some go"
"$origin" evolve "$work/origin" --change 1% --add 10 --remove 5

say "Third sync: only what changed is fetched; the rest is proven and carried over"
sync_once

say "What is on disk now"
ls -A "$work/data"
du -sh "$work/data/.tidalcrest-cohorts" | cut -f1
