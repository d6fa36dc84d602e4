#!/usr/bin/env bash
# Speed and memory of the main job, beside other tools where they are installed. Arguments go to bench/run.py.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build/release/bench/manifest_bench
/usr/bin/python3 bench/python_face.py
exec python3 bench/run.py "$@"
