# Completion of qixxwatch for fish. Quotes belong to the text of an option, hence the two kinds.

function __qixxwatch_watchers
    set -l file /etc/qix.conf
    set -q qixconfigglobal; and set file $qixconfigglobal
    echo Watch
    sed -n 's/^\[Watch \(.*\) \(Insert\|Remove\)\].*/\1/p' $file 2>/dev/null | sort -u
end

complete -c qixxwatch -f
complete -c qixxwatch -n __fish_is_first_arg -l check -r -F -d 'Say what is wrong with the configuration'
complete -c qixxwatch -n __fish_is_first_arg -l list -d 'Show files, library, readers, cards and values'
complete -c qixxwatch -n 'test (commandline -opc)[-1] = --list' -l json -d 'Show it for programs'
complete -c qixxwatch -n __fish_is_first_arg -l help -d 'Print a short text'
complete -c qixxwatch -n __fish_is_first_arg -l version -d 'Print the version'
complete -c qixxwatch -a config -d 'Watch a section of the configuration'
complete -c qixxwatch -n 'test (commandline -opc)[-1] = config' -a '(__qixxwatch_watchers)'
complete -c qixxwatch -o match -x -d 'Insert commands only for such a certificate'
complete -c qixxwatch -o wait -x -d 'Seconds to wait before the commands'
complete -c qixxwatch -o message -x -d 'Kept for other programs of the suite'
complete -c qixxwatch -o hide -d 'Start programs hidden'
complete -c qixxwatch -o sync -d 'No remove commands before an insertion'
complete -c qixxwatch -o term -d 'End on removal what was started on insertion'
complete -c qixxwatch -o recognized -d 'Count only a card that can be read'
complete -c qixxwatch -o simulate -x -a '\'"insert"\' \'"remove"\'' -d 'Run the commands of an event once'
complete -c qixxwatch -s p -r -F -d 'Start this program on insertion'
complete -c qixxwatch -s c -r -F -d 'Fill in this file on insertion'
complete -c qixxwatch -s a -x -d 'Arguments of the program'
complete -c qixxwatch -s w -x -d 'Seconds to wait on insertion'
complete -c qixxwatch -s n -x -d 'Poll that often, then end'
