# SPDX-License-Identifier: Apache-2.0
# fish completion of nimbrel. The program itself knows the words: `nimbrel complete`.
function __nimbrel_complete
    set -l words (commandline -opc) (commandline -ct)
    set -l answer ($words[1] complete -- $words[2..] 2>/dev/null)
    switch "$answer[1]"
        case 'files .json'
            string match -r '.*(?:/|\.json)(?:\t.*)?$' -- (__fish_complete_path $words[-1])
        case files
            __fish_complete_path $words[-1]
        case '*'
            test (count $answer) -gt 1; and printf '%s\n' $answer[2..]
    end
end
complete -c nimbrel -f -a '(__nimbrel_complete)'
