#!/bin/bash
# Reads the sources of the module and of the agent below the folder given, and fails on an include that the
# layers do not allow, and on exception handling inside the module: what passes through it ends at the agent's
# own threads.
set -u
LC_ALL=C
export LC_ALL

root=${1:?usage: includes.sh SOURCE_FOLDER}
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
project='bus|host|collector|detect|module|agent|tests|bench|fuzz'

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

for folder in $module_folders; do
  for file in $(sources "$folder"); do
    found=$(sed -E 's@//.*@@; s@"([^"\\]|\\.)*"@""@g' "$file" | grep -nwE 'try|catch|noexcept')
    [ -z "$found" ] || fault "$file:$found: the module neither catches nor forbids exceptions"
  done
done

echo "$checked sources read, $faults faults"
[ "$checked" -gt 0 ] && [ "$faults" -eq 0 ]
