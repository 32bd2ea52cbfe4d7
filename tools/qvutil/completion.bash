# Completion of qvutil's command line in bash. The program itself says which commands and options
# there are.

# The names of the caches under the environment's root.
_qvutil_caches() {
  local file name
  for file in "${QV_CACHE_STORE_ROOT:?}"/*; do
    name=${file##*/}
    case $name in
      dat_* | key_*) echo "${name#????}" ;;
      idx_* | val_* | lock | lock_* | new_* | newdat_* | newidx_* | *.damaged*) ;;
      *) [ -f "$file" ] && echo "$name" ;;
    esac
  done
}

_qvutil() {
  local program=${COMP_WORDS[0]} command=${COMP_WORDS[1]} word=${COMP_WORDS[COMP_CWORD]} words=
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    words=$("$program" help 2>/dev/null | sed -n 's/^  \([a-z]*\) .*/\1/p')
  elif [[ $word == -* ]]; then
    words=$("$program" "$command" --help 2>/dev/null | grep -o -e '--[a-z-]*')$'\n'--json
  elif [[ ${COMP_WORDS[COMP_CWORD - 1]} == --kind ]]; then
    words=$'basic\nlazy_lookup\nindexed'
  else
    case $command in
      show | get | find | top | verify | repair | rm | compact | convert)
        words=$(_qvutil_caches 2>/dev/null)
        ;;
    esac
  fi
  local candidate
  while read -r candidate; do
    [[ $candidate == "$word"* ]] && COMPREPLY+=("$(printf '%q' "$candidate")")
  done < <(sort -u <<<"$words" | sed '/^$/d')
}
# Where nothing fits, names of files.
complete -o default -F _qvutil qvutil
