#!/usr/bin/env bash
# Holds the manual pages and the bash completion to what they describe:
#   - apartment(1) has a section for every command that `apartment --help`
#     lists, and names every option that `apartment <command> --help` lists
#     there (or among the common options);
#   - the completion offers those commands and options;
#   - apartment(3) describes exactly the functions ApartmentApi.h exports;
#   - man formats both pages without a warning (when man is installed).
#
#   check_manual.sh <apartment tool> <apartment.1> <apartment.3> <ApartmentApi.h> <completion>
set -euo pipefail

tool=$1 page1=$2 page3=$3 header=$4 completion=$5
errors=0
fail() { echo "FAIL: $*"; errors=$((errors + 1)); }

# The roff source with escapes and font changes taken out.
plain() { sed -e 's/\\-/-/g' -e 's/\\f[BIRP]//g' -e 's/\\(..//g' "$1"; }
# The lines of a page from ".SS <name>" or ".SH <name>" to the next heading.
section() {  # <file> <SS|SH> <name>
  plain "$1" | awk -v head=".$2" -v name="$3" '
    /^\.S[SH] / { title = substr($0, 5); gsub(/"/, "", title); inside = ($1 == head && title == name); next }
    inside'
}
has_word() { grep -qE -- "(^|[^A-Za-z0-9_-])$1([^A-Za-z0-9_-]|$)"; }

commands=$("$tool" --help | awk '/^  [a-z]+  /{ print $1 }')
[[ -n $commands ]] || { echo "FAIL: no commands in apartment --help"; exit 1; }
# The options that COMMON OPTIONS describes (its .TP headings).
common=$(section "$page1" SH "COMMON OPTIONS" | awk '/^\.TP/ { getline; print }')

# shellcheck source=/dev/null
source "$completion"
complete_words() {  # <words...>: what completing after them offers
  COMP_WORDS=("$@" "")
  COMP_CWORD=$#
  _apartment
  printf '%s\n' "${COMPREPLY[@]}"
}
[[ $(complete -p apartment) == *"-F _apartment"* ]] || fail "the completion does not register"
offered_commands=$(complete_words apartment)

for command in $commands; do
  body=$(section "$page1" SS "$command")
  [[ -n $body ]] || fail "apartment(1) has no section for '$command'"
  has_word "$command" <<< "$offered_commands" || fail "the completion does not offer '$command'"
  offered=$(complete_words apartment "$command")
  for option in $("$tool" "$command" --help | grep -oE -- '--[a-z][a-z-]*' | sort -u); do
    has_word "$option" <<< "$body" || has_word "$option" <<< "$common" ||
      fail "apartment(1) does not describe '$command $option'"
    [[ $option == --help ]] || has_word "$option" <<< "$offered" ||
      fail "the completion does not offer '$command $option'"
  done
done

exported=$(grep -oE '^APARTMENT_API [^(]*\bapartment_[a-z_]+\(' "$header" |
           grep -oE 'apartment_[a-z_]+' | sort -u)
described=$(plain "$page3" | awk '/^\.TP/ { getline; if ($1 == ".B" && $2 ~ /^apartment_/) print $2 }' |
            sort -u)
[[ $(wc -l <<< "$exported") -ge 24 ]] || fail "fewer than 24 functions found in $header"
for name in $(comm -23 <(echo "$exported") <(echo "$described")); do
  fail "apartment(3) does not describe $name"
done
for name in $(comm -13 <(echo "$exported") <(echo "$described")); do
  fail "apartment(3) describes $name, which ApartmentApi.h does not export"
done

if command -v man > /dev/null; then
  for page in "$page1" "$page3"; do
    warnings=$(LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -E UTF-8 -l -Tutf8 -Z "$page" 2>&1 \
               > /dev/null) || fail "man cannot format $page"
    [[ -z $warnings ]] || fail "man warns about $page: $warnings"
  done
fi

[[ $errors -eq 0 ]] || exit 1
echo "manual pages and completion cover $(wc -w <<< "$commands") commands and" \
     "$(wc -l <<< "$exported") functions"
