# Sourced by the scripts that run long steps (not a program of its own).
#
# with_progress SECONDS LABEL COMMAND... runs COMMAND (a program or a shell function) with its
# output shown as it comes, and each time it has been quiet for SECONDS says that LABEL is still
# at work, with the last build step finished (ninja's "[done/total]"), so that a long build or
# test never looks like a hang. Returns COMMAND's exit code.
with_progress() {
  local every=$1 label=$2
  shift 2
  local started=$SECONDS
  "$@" 2>&1 | {
    local line step=""
    while :; do
      if IFS= read -r -t "$every" line; then
        printf '%s\n' "$line"
        if [[ $line =~ ^\[([0-9]+/[0-9]+)\] ]]; then step=${BASH_REMATCH[1]}; fi
      elif [ $? -gt 128 ]; then
        # A time-out keeps what it read of an unfinished line.
        if [ -n "$line" ]; then printf '%s\n' "$line"; fi
        echo "... $label: still working, $((SECONDS - started)) s so far${step:+, step $step done}"
      else
        if [ -n "$line" ]; then printf '%s\n' "$line"; fi
        break
      fi
    done
  }
  return "${PIPESTATUS[0]}"
}
