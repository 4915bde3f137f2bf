# Completes the command line of tavfetch in bash.

_tavfetch() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local options='--help --version --output --remote-name --content-disposition --to-memory
        --auto-file --dir --resume --range --checksum --remote-time --md5 --header --cookie --head
        --no-redirect --data --data-file --upload --form --form-file --connect-timeout --io-timeout
        --timeout --retry --retry-delay --proxy --no-proxy --tls-name --input-file --input
        --parallel --priority --quiet --verbose --log --json'
    case $previous in
        -o | --output | -i | --input-file | --input | --data-file | --upload)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            ;;
        --dir)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -d -- "$current")
            ;;
        --priority)
            mapfile -t COMPREPLY < <(compgen -W 'low normal high' -- "$current")
            ;;
        --log)
            mapfile -t COMPREPLY < <(compgen -W 'error info detail' -- "$current")
            ;;
        --checksum)
            compopt -o nospace
            mapfile -t COMPREPLY < <(compgen -W 'md5= sha256=' -- "$current")
            ;;
        --proxy)
            compopt -o nospace
            mapfile -t COMPREPLY < <(compgen -W 'http:// socks5://' -- "$current")
            ;;
        -H | --header | --cookie | --range | --data | --form | --form-file | --*timeout | \
            --retry | --retry-delay | --tls-name | --parallel)
            COMPREPLY=()
            ;;
        *)
            mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
            ;;
    esac
}

complete -F _tavfetch tavfetch
