# bash completion for scsipoolctl

# What the daemon that the line (words, cword) names knows: the values of the text member $1 in the answer to the other
# words.
_scsipoolctl_ask() {
  local member=$1 options=() i
  shift
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --socket | --url | --key-file | --ca) options+=("${words[i]}" "${words[i + 1]}") ;;
    esac
  done
  timeout 3 scsipoolctl "${options[@]}" --json "$@" 2>/dev/null </dev/null |
    sed -n "s/^ *\"$member\": \"\\([^\"\\\\ ]*\\)\",\\{0,1\\}\$/\\1/p" |
    grep -v '[][$`(){}<>;&|*?!~'"'"']' # the shell would expand what another host has sent
}

# The commands and their options: "area command" (or "area group command") first, then what may follow. Words in
# capitals are arguments in their order; one with dots may be given several times.
_scsipoolctl_commands() {
  cat <<'COMMANDS'
pool create|NAME --size --fs --id --global-dev --thin --compression --dedup --lun-type --target --retention --attr --replace-orphan
pool list|POOL
pool update|POOL --name --retention --attr
pool delete|POOL --force --yes --orphan
lun create|POOL --size --snapshot --link --id --export --acl --block-size --retention-type
lun list|POOL
lun show|POOL LUN
lun delete|POOL LUN --force --yes
lun export|POOL LUN --acl --type --target
lun unexport|POOL LUN --force
lun rollback|POOL LUN --force --yes
lun trim|POOL LUN
lun acl add|POOL LUN INITIATOR...
lun acl remove|POOL LUN INITIATOR
lun acl list|POOL
snapshot create|POOL LUN... --keep --catalog
snapshot list|POOL LUN
snapshot show|POOL SNAPSHOT
snapshot delete|POOL SNAPSHOT --force --delete-empty --yes
snapshot recycle|POOL SNAPSHOT MARK
snapshot export|POOL SNAPSHOT --acl --again --type --target
snapshot unexport|POOL SNAPSHOT --number
snapshot acl add|POOL SNAPSHOT INITIATOR... --number
snapshot acl remove|POOL SNAPSHOT INITIATOR --number
fs create|POOL NAME --mount-point --retention-type --snapshot --link
fs list|POOL
fs delete|POOL FILESYSTEM --yes
fs mount|POOL FILESYSTEM
fs umount|POOL FILESYSTEM
fs mount-point|POOL FILESYSTEM NAME
fs rollback|POOL FILESYSTEM --yes
fs snapshot create|POOL FILESYSTEM... --keep --catalog
fs snapshot list|POOL FILESYSTEM
fs snapshot show|POOL FSSNAPSHOT
fs snapshot delete|POOL FSSNAPSHOT --delete-empty --yes
fs snapshot recycle|POOL FSSNAPSHOT MARK
export check|--repair
peer add|NAME NAME --name
peer list|
peer check|PEER --from
peer remove|PEER
replication set|POOL --to --max-retry-seconds --limit
replication show|POOL
replication clear|POOL
replicate run|POOL DATASET...
job list|POOL --state
job show|NAME
job watch|NAME
job redo|NAME
job remove|NAME
event list|--job
alert list|
retention explain|POOL DATASET
health|
COMMANDS
}

# The words for one argument; pool is the POOL that the line gives.
_scsipoolctl_argument() {
  local pool=$2
  case $1 in
    POOL) _scsipoolctl_ask pool_name pool list ;;
    LUN) _scsipoolctl_ask lun_id lun list "$pool" ;;
    FILESYSTEM) _scsipoolctl_ask name fs list "$pool" ;;
    DATASET)
      _scsipoolctl_ask lun_id lun list "$pool"
      _scsipoolctl_ask name fs list "$pool"
      ;;
    SNAPSHOT) _scsipoolctl_ask id snapshot list "$pool" ;;
    FSSNAPSHOT) _scsipoolctl_ask id fs snapshot list "$pool" ;;
    PEER) _scsipoolctl_ask uuid peer list ;;
    MARK) echo on off ;;
  esac
}

# The words for the value of an option; status 1 when the word before is no option with a value.
_scsipoolctl_value() {
  case $1 in
    --fs) echo btrfs zfs ;;
    --lun-type | --type) echo iscsi fc ;;
    --compression) echo none lzo zlib lz4 gzip zstd ;;
    --retention-type) echo newest normal ;;
    --state) echo pending running succeeded failed ;;
    --from) _scsipoolctl_argument POOL ;;
    --to) _scsipoolctl_argument PEER ;;
    --url | --size | --id | --target | --retention | --attr | --name | --acl | --block-size | --snapshot | --catalog | \
      --number | --mount-point | --max-retry-seconds | --limit | --job) ;;
    *) return 1 ;;
  esac
}

_scsipoolctl() {
  local global="--socket --url --key-file --ca --json --help"
  local word previous words=() cword given=() i
  # A colon parts words for bash, but not in initiators and addresses.
  if declare -F _get_comp_words_by_ref >/dev/null; then
    _get_comp_words_by_ref -n := -w words -i cword
  else
    words=("${COMP_WORDS[@]}") cword=$COMP_CWORD
  fi
  word=${words[cword]} previous=${words[cword - 1]}
  COMPREPLY=()
  case $previous in
    --socket | --key-file | --ca | --global-dev)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
  esac
  local offered
  if offered=$(_scsipoolctl_value "$previous"); then
    mapfile -t COMPREPLY < <(compgen -W "$offered" -- "$word")
    return
  fi

  # What was given before, without options and their values.
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --socket | --url | --key-file | --ca | --global-dev | --fs | --lun-type | --type | --compression | --retention-type | \
        --state | --from | --to | --size | --id | --target | --retention | --attr | --name | --acl | --block-size | \
        --snapshot | --catalog | --number | --mount-point | --max-retry-seconds | --limit | --job) ((i++)) ;;
      -*) ;;
      *) given+=("${words[i]}") ;;
    esac
  done

  local names rest best= pattern= next=()
  while IFS='|' read -r names rest; do
    local parts=($names) n=${#given[@]} k
    for ((k = 0; k < n && k < ${#parts[@]}; k++)); do
      [ "${given[k]}" = "${parts[k]}" ] || continue 2
    done
    if [ "$n" -ge ${#parts[@]} ]; then
      best=$names pattern=$rest
    else
      next+=("${parts[n]}")
    fi
  done < <(_scsipoolctl_commands)

  if [ -z "$best" ]; then
    [ ${#given[@]} = 0 ] && global+=" --version"
    mapfile -t COMPREPLY < <(compgen -W "${next[*]} $global" -- "$word" | sort -u)
    return
  fi
  local parts=($best) arguments=() options=() token
  for token in $pattern; do
    case $token in
      --*) options+=("$token") ;;
      *) arguments+=("$token") ;;
    esac
  done
  local at=$((${#given[@]} - ${#parts[@]})) last=$((${#arguments[@]} - 1)) pool=${given[${#parts[@]}]:-} argument=
  if [ $at -le $last ]; then
    argument=${arguments[at]%...}
  elif [ $last -ge 0 ] && [[ ${arguments[last]} == *... ]]; then
    argument=${arguments[last]%...}
  fi
  case $word in
    -*) offered= ;;
    *) offered=${argument:+$(_scsipoolctl_argument "$argument" "$pool")} ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$offered ${options[*]} $global" -- "$word")
}

complete -F _scsipoolctl scsipoolctl
