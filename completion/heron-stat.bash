# bash completion for heron-stat. Installed as "heron-stat" in the
# completions directory so that on-demand loading finds it.
#
# Table names come from heron's completion (_heron_tables), loaded on
# demand; without it only options and values are completed.

_heron_stat_load_tables() {
  declare -F _heron_tables >/dev/null && return 0
  if declare -F __load_completion >/dev/null; then
    __load_completion heron 2>/dev/null
  fi
  declare -F _heron_tables >/dev/null && return 0
  local here
  here=$(dirname "${BASH_SOURCE[0]}")
  for f in "$here/heron.bash" "$here/heron"; do
    if [[ -r $f ]]; then
      # shellcheck disable=SC1090
      source "$f"
      break
    fi
  done
  declare -F _heron_tables >/dev/null
}

_heron_stat() {
  local cur=${COMP_WORDS[COMP_CWORD]}
  local prev=${COMP_WORDS[COMP_CWORD-1]}
  case $prev in
    -o|--output|--capture|--from|--diff|--record)
      COMPREPLY=($(compgen -f -- "$cur"))
      return
      ;;
    -i|--interval|--stale|--timeout)
      COMPREPLY=($(compgen -W "0 0.5 1 2 5 10" -- "$cur"))
      return
      ;;
    --warn-alloc|--crit-alloc)
      COMPREPLY=($(compgen -W "80 90 95" -- "$cur"))
      return
      ;;
    --exclude)
      if _heron_stat_load_tables; then
        COMPREPLY=($(compgen -W "$(_heron_tables)" -- "$cur"))
      fi
      return
      ;;
    --listen)
      COMPREPLY=($(compgen -W "127.0.0.1:9464 0.0.0.0:9464 [::1]:9464 127.0.0.1:0" -- "$cur"))
      return
      ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "--all-roots --no-clients --exclude --per-region -i --interval --watch --json --prometheus
      -o --output --listen --check --timeout --stale --warn-alloc --crit-alloc --capture --from --at --diff --record
      --record-max-bytes --version -h --help" -- "$cur"))
    return
  fi
  if _heron_stat_load_tables; then
    COMPREPLY=($(compgen -W "$(_heron_tables)" -- "$cur"))
  fi
}

complete -F _heron_stat heron-stat
