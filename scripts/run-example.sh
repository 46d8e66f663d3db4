#!/usr/bin/env bash
# Builds the default preset and runs the example host, which loads kspl.so
# through the component runtime.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j 2
ORLM_COMPONENTS="$here/build/default/core/kspl.so" "$here/build/default/examples/kspl_host"
