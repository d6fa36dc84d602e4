#!/usr/bin/env bash
# Speed and memory of the main job, beside other tools where they are installed. Without arguments everything; `manifest`
# and `faces` measure the handling of manifests and the Python face alone; other arguments go to bench/run.py.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
case "${1:-}" in
  manifest) exec build/release/bench/manifest_bench ;;
  faces) exec /usr/bin/python3 bench/python_face.py ;;
  "")
    build/release/bench/manifest_bench
    /usr/bin/python3 bench/python_face.py
    ;;
esac
exec python3 bench/run.py "$@"
