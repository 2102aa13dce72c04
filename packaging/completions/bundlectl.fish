# Completion of bundlectl for fish.
complete -c bundlectl -f
complete -c bundlectl -s h -l help -d 'Print the options'
complete -c bundlectl -n __fish_use_subcommand -l version -d 'Print the version'
complete -c bundlectl -n __fish_use_subcommand -a delete -d 'Delete a bundle'
complete -c bundlectl -n __fish_use_subcommand -a events -d 'Print a line for each event'
complete -c bundlectl -n __fish_use_subcommand -a wait -d 'Wait until the server answers requests'
complete -c bundlectl -n '__fish_seen_subcommand_from delete wait' -l timeout -x -d 'How long to wait'
complete -c bundlectl -n '__fish_seen_subcommand_from delete' -l collection -xa '(__fish_complete_directories)' -d 'Where the bundle is'
complete -c bundlectl -n '__fish_seen_subcommand_from delete' -l config -rF -d 'The configuration of the server'
complete -c bundlectl -n '__fish_seen_subcommand_from events' -l count -x -d 'End after so many events'
complete -c bundlectl -n '__fish_seen_subcommand_from wait' -l for -xa serving -d 'What to wait for'
complete -c bundlectl -n '__fish_seen_subcommand_from wait' -l pid -x -d 'The server to wait for'
