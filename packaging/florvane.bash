# bash completion for florvane

_florvane() {
  local cur prev words cword
  _init_completion -n : || return
  local commands="account ls stat cat get put watch uploads status rebuild reset doctor"
  local options="--container --json --quiet -q --timeout --debug --help -h --version"

  case $prev in
    --container) _filedir -d; return ;;
    --password-file) _filedir; return ;;
    --timeout | --user | --count) return ;;
  esac

  local i command= container=()
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --container) container=(--container "${words[++i]}") ;;
      --timeout) ((i++)) ;;
      -*) ;;
      *) command=${words[i]}; break ;;
    esac
  done

  if [[ $cur == -* ]]; then
    case $command in
      ls) options+=" -l --fresh" ;;
      stat | cat | get) options+=" --fresh" ;;
      put) options+=" --wait" ;;
      uploads) options+=" --wait --retry" ;;
      watch) options+=" --count" ;;
      reset) options+=" --discard-unsent" ;;
      account) [[ ${words[i + 1]} != add ]] || options+=" --user --password-file" ;;
    esac
    COMPREPLY=($(compgen -W "$options" -- "$cur"))
    return
  fi

  case $command in
    "") COMPREPLY=($(compgen -W "$commands" -- "$cur")) ;;
    account)
      if [[ $prev == account ]]; then
        COMPREPLY=($(compgen -W "add list remove" -- "$cur"))
      elif [[ $prev == remove ]]; then
        COMPREPLY=($(compgen -W "$(_florvane_accounts)" -- "$cur"))
      fi
      ;;
    doctor) ;;
    uploads | status | rebuild | reset) COMPREPLY=($(compgen -W "$(_florvane_accounts)" -- "$cur")) ;;
    put | get)
      _filedir
      [[ $cur == *:* ]] || COMPREPLY+=($(compgen -S : -W "$(_florvane_accounts)" -- "$cur"))
      ;;
    *) _florvane_items ;;
  esac
} && complete -o nospace -F _florvane florvane

# The names of the accounts, one a line.
_florvane_accounts() {
  florvane "${container[@]}" --json account list 2>/dev/null | grep -o '"name":"[^"]*"' | cut -d'"' -f4
}

# Items of the cache below what was typed: never waits long for the server.
_florvane_items() {
  if [[ $cur != *:* ]]; then
    COMPREPLY=($(compgen -S : -W "$(_florvane_accounts)" -- "$cur"))
    return
  fi
  local account=${cur%%:*} path=${cur#*:} folder= IFS=$'\n'
  [[ $path == */* ]] && folder=${path%/*}
  local names
  names=$(florvane "${container[@]}" --quiet --timeout 2 ls "$account${folder:+:$folder}" 2>/dev/null)
  COMPREPLY=($(compgen -P "$account:${folder:+$folder/}" -W "$names" -- "${path##*/}"))
  __ltrim_colon_completions "$cur"
}
