# SPDX-License-Identifier: Apache-2.0
# bash completion of nimbrel. The program itself knows the words: `nimbrel complete`.
_nimbrel() {
    local cur prev words cword
    _init_completion -n =: || return
    local word given=() answer=()
    # As they were typed, so quotes are still there.
    for word in "${words[@]:1:cword}"; do
        given+=("${word//[\\\"\']/}")
    done
    mapfile -t answer < <("${words[0]/#\~/$HOME}" complete -- "${given[@]}" 2>/dev/null)
    case "${answer[0]-}" in
        'files .json') _filedir json ;;
        files) _filedir ;;
    esac
    # readline replaces only what follows these.
    local kept=${cur%"${cur##*[=:]}"}
    for word in "${answer[@]:1}"; do
        word=${word%%$'\t'*}
        printf -v word %q "${word#"$kept"}"
        COMPREPLY+=("$word")
    done
    if [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *: ]]; then
        compopt -o nospace
    fi
} && complete -F _nimbrel nimbrel
