#!/bin/bash
# Reads the sources of the module and of the agent below the folder given, and fails on
# - an include that the layers do not allow;
# - exceptions raised, handled or forbidden inside the module: what passes through it comes from the agent and
#   ends at the agent's own threads;
# - a definition in host/: these headers declare what an agent supplies, and hold nothing of their own.
set -u
LC_ALL=C
export LC_ALL

root=${1:?usage: source_rules.sh SOURCE_FOLDER}
cd "$root" || exit 2

# What each folder may include, as an extended regular expression.
declare -A allowed=(
  [bus]='^$'
  [host]='^$'
  [collector]='^(collector|bus|host)/'
  [detect]='^(detect/|bus/|host/|collector/passwd_info\.h$)'
  [module]='^(module|collector|detect|host)/'
  [agent]='^(agent/|host/|module/detect_user\.h$)'
)
module_folders='bus collector detect module host'

faults=0
fault() {
  echo "$1" >&2
  faults=$((faults + 1))
}

sources() {
  find "$1" -type f \( -name '*.h' -o -name '*.cpp' \) | sort
}

# Includes of the project may not hide in angle brackets either.
project='bus|host|collector|detect|module|agent|tests|benchmarks|fuzz'

checked=0
for folder in "${!allowed[@]}"; do
  [ -n "$(sources "$folder")" ] || fault "$folder: no sources found"
  for file in $(sources "$folder"); do
    checked=$((checked + 1))
    while IFS=: read -r line text; do
      target=$(sed -E 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*["<]([^">]*)[">].*/\1/' <<<"$text")
      if [[ $text == *\<* ]] && ! [[ $target =~ ^($project)/ ]]; then
        continue
      fi
      [[ $target =~ ${allowed[$folder]} ]] || fault "$file:$line: $folder/ may not include $target"
    done < <(grep -nE '^[[:space:]]*#[[:space:]]*include' "$file")
  done
done

# The code of a file, line for line: without comments, and with empty texts.
code() {
  sed -E "s@'([^'\\\\]|\\\\.)'@@g; "'s@"([^"\\]|\\.)*"@""@g; s@/\*([^*]|\*+[^*/])*\*+/@ @g; s@//([^*]|\*[^/])*$@@' "$1" |
    sed -E '/\/\*/,/\*\// { s@/\*.*@@; t; s@.*\*/@@; t; s@.*@@ }'
}

# search FOLDER REGEX COMPLAINT: a fault for every line of code that has the word or words.
search() {
  local file found
  for file in $(sources "$1"); do
    while IFS= read -r found; do
      fault "$file:$found: $3"
    done < <(code "$file" | grep -nE "$2")
  done
}

for folder in $module_folders; do
  search "$folder" '\<(try|catch|noexcept|throw)\>' 'the module neither raises, catches nor forbids exceptions'
done

# static_assert is one word and passes. A function's body begins behind its parentheses.
search host '\<(inline|constexpr|static)\>' 'host/ declares and defines nothing'
search host '\)[^;]*\{|^[[:space:]]*\{' 'host/ declares and has no function with a body'

echo "$checked sources read, $faults faults"
[ "$checked" -gt 0 ] && [ "$faults" -eq 0 ]
