# bash completion for heron. The table helpers below are also used by
# heron-sim's completion, which loads this file when they are missing.
#
# Table names are the directories under the collection root ($HERON_ROOT,
# else /dev/shm/heron) that hold an `owner` file, relative to the root.

_heron_root() {
  local root=${HERON_ROOT:-/dev/shm/heron}
  if [[ -n ${Q7_CHROOT+set} && $root != /* ]]; then
    root=$PWD/$root
  elif [[ -n ${Q7_CHROOT+set} ]]; then
    root=$PWD$root
  fi
  printf '%s\n' "$root"
}

_heron_tables() {
  local root owner
  root=$(_heron_root)
  [[ -d $root ]] || return 0
  while IFS= read -r owner; do
    owner=${owner%/owner}
    printf '%s\n' "${owner#"$root"/}"
  done < <(find "$root" -mindepth 2 -maxdepth 8 -type f -name owner 2>/dev/null | LC_ALL=C sort)
}

_heron_region_ids() {
  local root table f
  root=$(_heron_root)
  table=$1
  [[ -n $table && -d $root/$table ]] || return 0
  for f in "$root/$table"/region.*; do
    [[ -e $f ]] && printf '%s\n' "${f##*/region.}"
  done
}

_heron() {
  local cur prev words cword
  cur=${COMP_WORDS[COMP_CWORD]}
  prev=${COMP_WORDS[COMP_CWORD-1]}
  case $prev in
    -f)
      COMPREPLY=($(compgen -f -- "$cur"))
      return
      ;;
    -c|--what)
      COMPREPLY=($(compgen -W "$(ps -e -o pid= 2>/dev/null)" -- "$cur"))
      return
      ;;
    -r)
      local i table=""
      for ((i = 1; i < ${#COMP_WORDS[@]}; i++)); do
        [[ $i -ne $COMP_CWORD && ${COMP_WORDS[i]} != -* && ${COMP_WORDS[i-1]} != -[fcr] && ${COMP_WORDS[i-1]} != --what ]] &&
          table=${COMP_WORDS[i]}
      done
      COMPREPLY=($(compgen -W "$(_heron_region_ids "$table")" -- "$cur"))
      return
      ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "-a -d -e -f -q -R -r -s -p -j -O -w -c -A -h --who --what --who-all --help" -- "$cur"))
    return
  fi
  COMPREPLY=($(compgen -W "$(_heron_tables)" -- "$cur"))
}

complete -F _heron heron
