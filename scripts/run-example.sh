#!/usr/bin/env bash
# Builds the default preset and runs the example host, which loads kspl.so
# through the component runtime.
set -eu
here=$(cd "$(dirname "$0")/.." && pwd)
cd "$here"
bash scripts/setup.sh
cmake --preset default >/dev/null
cmake --build --preset default -j 2
# The host's settings go to a store of its own beside the build.
export ZLREG_DATABASE="${ZLREG_DATABASE:-$here/build/default/example-settings.db}"
ORLM_COMPONENTS="$here/build/default/core/kspl.so" "$here/build/default/examples/kspl_host"
