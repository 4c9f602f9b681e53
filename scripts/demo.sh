#!/usr/bin/env bash
# Demo: the daemon keeping a virtual router's traffic in step with the SAS.
# Installs what it needs, builds the daemon into build/ and runs the stories
# (all of them, StandAlone first; `demo.sh standalone` or `demo.sh dp` runs one).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
if [ ! -f build/CMakeCache.txt ]; then
    cmake -S . -B build >/dev/null
fi
cmake --build build -j2 --target cbsd >/dev/null

exec /usr/bin/python3 scripts/demo.py "$@"
