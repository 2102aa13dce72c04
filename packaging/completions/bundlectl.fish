# Completion of bundlectl for fish.
complete -c bundlectl -f
complete -c bundlectl -s h -l help -d 'Print the options'
complete -c bundlectl -n __fish_use_subcommand -a delete -d 'Delete a bundle'
complete -c bundlectl -n __fish_use_subcommand -a events -d 'Print a line for each event'
complete -c bundlectl -n '__fish_seen_subcommand_from delete' -l timeout -x -d 'Seconds to wait for the answer'
complete -c bundlectl -n '__fish_seen_subcommand_from events' -l count -x -d 'End after so many events'
