#!/usr/bin/env bash
# Runs one of the desktop's own validators on a file, as a test: skipped (77) when the tool is missing,
# which scripts/bootstrap installs.
# Usage: validate.sh TOOL [ARGUMENT...]
set -euo pipefail
command -v "$1" >/dev/null || { echo "skipped: $1 is not installed" >&2; exit 77; }
exec "$@"
