# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# The command itself knows what may follow the words before the cursor.
function __tallyra_complete
    set -l typed (commandline -opc)
    set -l current (commandline -ct)
    set -l lines ($typed[1] complete words $typed[2..-1] "$current" 2>/dev/null)
    if test "$lines[1]" = ':files'
        __fish_complete_path "$current"
    else if test (count $lines) -gt 0
        printf '%s\n' $lines
    end
end

complete -c tallyra -f -a '(__tallyra_complete)'
