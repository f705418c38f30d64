# Completion of vx for bash: vx itself tells what a word can be.
_vx() {
  local -a words=() found=()
  local word line split= before= shown=$2
  COMPREPLY=()
  # bash takes "=" and ":" for words of their own, unless told otherwise; here they belong to the word around them.
  case $COMP_WORDBREAKS in *=*) split+== ;; esac
  case $COMP_WORDBREAKS in *:*) split+=: ;; esac
  for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
    word=${word//[\'\"\\]/}
    if [ -n "$split" ] && [ "${#words[@]}" -gt 0 ] && [[ $word = ["$split"]* || ${words[-1]} = *["$split"] ]]; then
      words[-1]+=$word
    else
      words+=("$word")
    fi
  done
  [ "${#words[@]}" -gt 0 ] || return
  # bash replaces only what follows the last of them.
  if [ -n "$split" ]; then before=${words[-1]%"${words[-1]##*["$split"]}"}; fi
  mapfile -t found < <(vx __complete "${words[@]}" 2>/dev/null)
  case ${found[0]-} in
    :file) compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- "$shown") ;;
    :program) mapfile -t COMPREPLY < <(compgen -c -- "$shown") ;;
    *)
      for line in "${found[@]}"; do
        line=${line%%$'\t'*}
        line=${line#"$before"}
        printf -v line %q "$line"
        COMPREPLY+=("$line")
      done
      ;;
  esac
}
complete -F _vx vx
