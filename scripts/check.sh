#!/usr/bin/env bash
# Checks the formatting of all sources and runs clang-tidy on those of the module, the door and the
# tools that differ from a commit: scripts/check.sh [COMMIT]. Without one, from where the branch
# left origin/main or, on main itself, from ten commits ago. At most 40 files, about 2 minutes.
set -euo pipefail
cd "$(dirname "$0")/.."

git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format --dry-run -Werror

base=${1:-$(git merge-base origin/main HEAD 2>/dev/null || echo HEAD)}
if [ "$(git rev-parse "$base")" = "$(git rev-parse HEAD)" ]; then
  base=$(git rev-list --first-parent --max-count=11 HEAD | tail -n 1)
fi
mapfile -t changed < <(git diff --name-only --diff-filter=d "$base" -- \
  core device store keypair sm2 platform pkcs11 tools | grep '\.cpp$' | head -n 40)
echo "Formatted; clang-tidy for ${#changed[@]} files that differ from $(git rev-parse --short "$base")"
[ ${#changed[@]} -gt 0 ] || exit 0
cmake --preset release >/dev/null
cmake --build --preset release --target sm2/generator_table.inc >/dev/null  # a source that is made
mkdir -p build/tidy
# clang knows neither this flag of g++'s nor its precompiled headers.
sed -E 's/ (-fno-gnu-unique|-include [^ ]*cmake_pch.hxx)//g' build/release/compile_commands.json \
  >build/tidy/compile_commands.json
printf '%s\n' "${changed[@]}" | xargs -P "$(nproc)" -n 2 clang-tidy -p build/tidy --quiet
