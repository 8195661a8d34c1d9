# bash completion for heron-sim: commands, each command's options, and table
# names. Installed as completions/heron-sim, so that bash-completion loads it
# when heron-sim is first completed; the table helpers come from heron's
# completion beside it (installed as "heron", "heron.bash" in the source tree).

if ! declare -F _heron_tables >/dev/null; then
  for _heron_sim_file in "${BASH_SOURCE[0]%/*}/heron" "${BASH_SOURCE[0]%/*}/heron.bash"; do
    if [[ -r $_heron_sim_file ]]; then
      # shellcheck source=heron.bash
      source "$_heron_sim_file"
      break
    fi
  done
  unset _heron_sim_file
fi

_heron_sim() {
  local cur=${COMP_WORDS[COMP_CWORD]}
  local prev=${COMP_WORDS[COMP_CWORD-1]}
  local command=""
  local i
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      create | write | shadow | remove | demo)
        command=${COMP_WORDS[i]}
        break
        ;;
    esac
  done
  if [[ -z $command ]]; then
    COMPREPLY=($(compgen -W "create write shadow remove demo --help --version" -- "$cur"))
    return
  fi
  # Options that take a value: nothing sensible to offer but the value.
  case $prev in
    --type | --type-name | --capacity | --regions | --rate | --duration | --grow-every | --max-capacity | \
      --region-every | --live | --payload-max)
      return
      ;;
  esac
  if [[ $cur == -* ]]; then
    case $command in
      create) COMPREPLY=($(compgen -W "--type --type-name --capacity --regions --no-regions --help" -- "$cur")) ;;
      write) COMPREPLY=($(compgen -W "--rate --flat-out --duration --grow-every --max-capacity --region-every --live --payload-max --help" -- "$cur")) ;;
      shadow) COMPREPLY=($(compgen -W "--rw --duration --help" -- "$cur")) ;;
      remove) COMPREPLY=($(compgen -W "--help" -- "$cur")) ;;
      demo) COMPREPLY=($(compgen -W "--duration --keep --rate --help" -- "$cur")) ;;
    esac
    return
  fi
  case $command in
    write | shadow | remove)
      if declare -F _heron_tables >/dev/null; then
        COMPREPLY=($(compgen -W "$(_heron_tables)" -- "$cur"))
      fi
      ;;
  esac
}

complete -F _heron_sim heron-sim
