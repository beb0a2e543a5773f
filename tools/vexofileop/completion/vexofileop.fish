# Completion of vexofileop for fish. Commands and options are asked of the program, so they are always its own.

# "word<tab>description" for each word of a section of the help: __vexofileop_words Section command...
function __vexofileop_words
    set -l section $argv[1]
    set -l help --help
    test $section = Options; and set help --help-all
    vexofileop $argv[2..-1] $help 2>/dev/null | awk -v section="$section:" '
        # What is too long for its column has its text in the next line.
        function flush() {
            count = split(words, each, ","); for (i = 1; i <= count; i++) print each[i] "\t" text
            words = ""
        }
        on && substr($0, 1, 25) ~ /^ +$/ { text = substr($0, 26); next }
        # A command is the last word of its column: what it is for may stand before it.
        on && section == "Subcommands:" && /^ / {
            flush(); count = split(substr($0, 1, 24), column, " "); words = column[count]; text = substr($0, 26); next
        }
        { flush() }
        $0 == section || ($0 == "More options:" && section == "Options:") { on = 1; next }
        /^[^ ]/ || /^$/ { on = 0 }
        on && /^  [^ ]/ { words = $1; sub(/\[=.*/, "", words); text = substr($0, 26) }
        END { flush() }'
end

# The same of what an option takes, where that is one of some words: "--clone=" takes them behind the "=" alone.
function __vexofileop_values
    switch "$argv[1]"
        case --accept --accept=
            vexofileop explain 2>/dev/null | string match -v -r '^(0x|store-|extra)' | string replace '  ' \t
        case --only --only= --ignore --ignore=
            vexofileop explain 2>/dev/null | string match -v -r '^(0x|store-)' | string replace '  ' \t
        case --clone=
            printf '%s\n' auto always never
        case --sync=
            printf '%s\n' file volume
        case --names --names=
            printf '%s\n' reversible plain
        case --progress --progress=
            printf '%s\n' json bar none
        case --to --to=
            printf '%s\n' native eadir double fileea
    end
end

# The commands named so far. Behind "help" come the same.
function __vexofileop_path
    set -l path
    set -l typed (commandline -opc)
    set -e typed[1]
    test "$typed[1]" = help; and set -e typed[1]
    for word in $typed
        string match -q -- '-*' $word; and continue
        __vexofileop_words Subcommands $path | string match -q -r -- '^'(string escape --style=regex -- $word)'\t'
        or break
        set path $path $word
    end
    printf '%s\n' $path
end

function __vexofileop_complete
    set -l path (__vexofileop_path)
    set -l current (commandline -ct)
    set -l option (commandline -opc)[-1]
    set -l before ''
    if string match -q -- '--*=*' $current
        set option (string replace -r '=.*' '=' -- $current)
        set before $option
    end
    set -l values (__vexofileop_values $option)
    if test (count $values) -gt 0
        # With what stands there already, up to the last comma.
        set -l rest (string sub -s (math (string length -- "$before") + 1) -- "$current")
        string match -q -r -- '^--(progress|to)' $option
        or set before $before(string replace -r '[^,]*$' '' -- "$rest")
        printf '%s\n' $before$values
        return
    end
    if string match -q -- '-*' (commandline -ct)
        __vexofileop_words Options $path
        return
    end
    set -l commands (__vexofileop_words Subcommands $path)
    # Where "plan" cuts a directory no command follows.
    if test (count $commands) -gt 0; and not string match -q -- '--shards*' (commandline -opc)
        printf '%s\n' $commands
    else if test (count (commandline -opc)) -gt 1; and test (commandline -opc)[2] = help
        return
    else if test "$path[1]" = explain
        vexofileop explain 2>/dev/null | string replace '  ' \t
    else
        __fish_complete_path (commandline -ct)
    end
end

complete -c vexofileop -f -a '(__vexofileop_complete)'
