#!/usr/bin/env bash
# pip installs oxel into a fresh virtual environment and uses it from an unrelated folder.
#   python/tests/pip_install_check.sh [python3] [source folder]
set -euo pipefail
python=${1:-/usr/bin/python3}
src=$(cd "${2:-$(dirname "$0")/../..}" && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
unset PYTHONPATH LD_LIBRARY_PATH # only the installed copy may be found

"$python" -m venv --system-site-packages "$tmp/venv"
# Nothing from an index: setuptools, wheel and numpy are the system's. The build goes to $tmp.
OXEL_SETUP_BUILD="$tmp/build" "$tmp/venv/bin/pip" install -q --no-build-isolation --no-index \
    "$src"
cd "$tmp"
"$tmp/venv/bin/python" - "$tmp/venv" <<'PY'
import math, os, sys
import numpy as np
import oxel

package = os.path.dirname(os.path.realpath(oxel.__file__))
assert package.startswith(os.path.realpath(sys.argv[1])), package
# The extension found the library inside the package, not some other copy.
with open("/proc/self/maps") as maps:
    loaded = {line.split()[-1] for line in maps if "liboxel.so" in line}
assert loaded == {os.path.join(package, "liboxel.so.1")}, loaded
values, errors = oxel.Expression("sqrt(x)*y", variables=["x", "y"]).eval(x=np.array([6.25, -1]), y=3)
assert values[0] == math.sqrt(6.25) * 3 and errors.tolist()[0] == 0 and errors[1] != 0
# The type stubs come with the package.
assert all(os.path.isfile(os.path.join(package, f)) for f in ("_oxel.pyi", "py.typed"))
print("pip-installed oxel works from", package)
PY
