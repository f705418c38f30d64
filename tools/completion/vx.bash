# Completion of vx for bash: vx itself tells what a word can be.
_vx() {
  local -a words=() found=()
  local word line shown=$2
  COMPREPLY=()
  # bash takes "=" for a word of its own; here it belongs to the word around it.
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    word=${word//[\'\"\\]/}
    if [ "${#words[@]}" -gt 0 ] && { [ "$word" = = ] || [ "${words[-1]: -1}" = = ]; }; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
  done
  [ "${#words[@]}" -gt 0 ] || return
  mapfile -t found < <(vx __complete "${words[@]}" 2>/dev/null)
  case ${found[0]-} in
    :file) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- "$shown") ;;
    :program) mapfile -t COMPREPLY < <(compgen -c -- "$shown") ;;
    *)
      for line in "${found[@]}"; do
        line=${line%%$'\t'*}
        # bash replaces only what follows the "=".
        if [[ ${words[-1]} = *=* ]]; then line=${line#*=}; fi
        printf -v line %q "$line"
        COMPREPLY+=("$line")
      done
      ;;
  esac
}
complete -F _vx vx
