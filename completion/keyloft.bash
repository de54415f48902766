# bash completion for keyloft(1)

# The public-key hashes on the user's card, as -h takes them: the 40-hex-digit word of each row.
# A user without a card gets none, and pressing Tab does not make one.
_keyloft_hashes() {
    local data=${XDG_DATA_HOME:-$HOME/.local/share}
    [[ -f $data/keyloft/tokens.db ]] || return 0
    keyloft list-identities 2>/dev/null |
        awk 'NR > 1 && $1 != "Error:" {
                 for (i = 1; i <= NF; i++) if ($i ~ /^[0-9A-Fa-f]+$/ && length($i) == 40) { print $i; break }
             }'
}

_keyloft_options_of() {
    local subject="-CN -E -OU -O -L -ST -C"
    case $1 in
        create-identity) echo "-l -k -prot $subject" ;;
        list-identities) echo "-t -e" ;;
        create-csr) echo "-h -f $subject" ;;
        import-certificate) echo "-f" ;;
        export-identity) echo "-h -f -p" ;;
        import-identities) echo "-f -p -prot" ;;
        delete-identity) echo "-h" ;;
    esac
}

_keyloft() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="create-identity list-identities create-csr import-certificate
        export-identity import-identities delete-identity delete-all-identities"
    COMPREPLY=()

    # The first word that names a command is the command; anything before it is ignored.
    local command="" i word
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ " ${commands//$'\n'/ } " == *" $word "* ]]; then
            command=$word
            break
        fi
    done
    if [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur")
        return
    fi

    case $prev in
        -k) mapfile -t COMPREPLY < <(compgen -W "p-256 p-384 p-521 rsa-2048 rsa-3072 p-256-ne p-384-ne rsa-2048-ne rsa-3072-ne" -- "$cur"); return ;;
        -prot) mapfile -t COMPREPLY < <(compgen -W "bio none" -- "$cur"); return ;;
        -t) mapfile -t COMPREPLY < <(compgen -W "sha1 sha256 ssh" -- "$cur"); return ;;
        -e) mapfile -t COMPREPLY < <(compgen -W "hex b64" -- "$cur"); return ;;
        -h) mapfile -t COMPREPLY < <(compgen -W "$(_keyloft_hashes)" -- "$cur"); return ;;
        -f)
            if declare -F _filedir >/dev/null; then
                _filedir
            else
                mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            fi
            return
            ;;
        -l | -p | -CN | -E | -OU | -O | -L | -ST | -C) return ;;
    esac

    # Options not given yet; each takes one value.
    local options="" option
    for option in $(_keyloft_options_of "$command"); do
        [[ " ${COMP_WORDS[*]:1:COMP_CWORD-1} " == *" $option "* ]] || options+=" $option"
    done
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}

complete -F _keyloft keyloft
