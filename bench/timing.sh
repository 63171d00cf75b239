# Sourced by the bench scripts: the medians of `repeat` runs of a command.

# Wall and CPU (user + system) seconds of a command. The CPU figure moves
# less with other work on a shared machine than the wall one does.
seconds() {
  local TIMEFORMAT='%R %U %S' out
  out=$( { time "$@" > /dev/null 2>&1; } 2>&1 )
  awk '{ printf "%.3f %.3f", $1, $2 + $3 }' <<< "$out"
}

median_of() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

median() {  # "wall cpu": the medians of `repeat` runs
  local i runs=()
  for ((i = 0; i < repeat; i++)); do runs+=("$(seconds "$@")"); done
  echo "$(printf '%s\n' "${runs[@]}" | cut -d' ' -f1 | median_of) $(printf '%s\n' "${runs[@]}" | cut -d' ' -f2 | median_of)"
}
