#!/usr/bin/env bash
# Detection benchmark: recall on a tree of web shells and false positives on
# trees of ordinary application code, measured with the real agent.
#
#   bench/detect/run.sh --malicious DIR --benign DIR [DIR...] [--rules F] [--agent PATH]
#
# Each tree is scanned by `ardent-agent scan` in a throwaway install directory
# (a copy of the agent's staged tree, removed afterwards), every suffix
# checked, no upload quota to speak of. Certain = detection events; suspicious
# = files the agent kept for a second look. Nothing is executed or served.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
exec python3 "$here/detect.py" --repo "$(cd "$here/../.." && pwd)" "$@"
