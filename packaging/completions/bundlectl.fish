# Completion of bundlectl for fish. bundlectl itself gives the candidates.
function __bundlectl_complete
    set -l words (commandline -opc)
    set -l word (commandline -ct)
    for line in ($words[1] --complete $words[2..-1] "$word" 2> /dev/null)
        switch $line
            case :files
                __fish_complete_path "$word"
            case :directories
                __fish_complete_directories "$word"
            case '*'
                echo $line
        end
    end
end

complete -c bundlectl -f -a '(__bundlectl_complete)'
