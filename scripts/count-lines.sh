#!/usr/bin/env bash
# Counts the C and C++ lines of the tree that hold code: neither blank nor
# only comment (comments are found outside string and character literals).
# Tests are tests/ and fuzz/; the rest is the library, the platform layer,
# the headers, the tool, the Python module's C++ part, the benchmarks and
# the examples. Prints each part and the tests' share of all.
#
#   scripts/count-lines.sh [tree]        (default: this checkout)
set -euo pipefail
cd "${1:-$(dirname "$0")/..}"

count() {  # <dir>...: code lines of the C/C++ files git tracks there
  git ls-files -- "$@" | grep -E '\.(c|cc|cpp|h|hpp)$' | tr '\n' '\0' | xargs -0 -r cat |
    awk '
      { code = 0; i = 1; n = length($0)
        while (i <= n) {
          c = substr($0, i, 1); d = substr($0, i, 2)
          if (block) { if (d == "*/") { block = 0; i += 2 } else i++; continue }
          if (quote != "") {
            if (c == "\\") i += 2
            else { if (c == quote) quote = ""; i++ }
            continue
          }
          if (d == "//") break
          if (d == "/*") { block = 1; i += 2; continue }
          if (c == "\"" || c == "\x27") { quote = c; code = 1; i++; continue }
          if (c !~ /[ \t\r]/) code = 1
          i++
        }
        quote = ""  # literals end with their line
        lines += code }
      END { print lines + 0 }'
}

tests=$(count tests fuzz)
rest=0
for part in Core Platform include tools python bench examples; do
  n=$(count "$part")
  printf '%-10s %6d\n' "$part" "$n"
  rest=$((rest + n))
done
printf '%-10s %6d\n' "tests+fuzz" "$tests"
awk -v t="$tests" -v r="$rest" \
  'BEGIN { printf "tests are %d of %d lines: %.1f%%\n", t, t + r, 100 * t / (t + r) }'
