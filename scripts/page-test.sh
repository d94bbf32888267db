#!/usr/bin/env bash
# The page in headless Chromium: ./scripts/page-test.sh [BUILD_DIR]
# Screenshots and timings go to BUILD_DIR/page-test/. Without Chromium or
# web/node_modules it says so and passes, except on CI (CI set), where it fails.
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
missing=""
command -v node >/dev/null || missing="node"
[ -x "${CHROMIUM:-/usr/bin/chromium}" ] || missing="$missing chromium"
[ -d web/node_modules/playwright-core ] || missing="$missing web/node_modules (scripts/deps.sh)"
if [ -n "$missing" ]; then
  echo "page tests SKIPPED: missing$missing" >&2
  [ -z "${CI:-}" ] || exit 1
  exit 0
fi
node web/tests/page.test.mjs "$build/cli/orogen" "$build/page-test"
