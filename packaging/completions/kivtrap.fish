# Completion of kivtrap for fish.

# The number of operands before the cursor.
function __kivtrap_operands
    set -l words (commandline -opc)
    argparse c= d f= s= t= u= v -- $words[2..] 2>/dev/null
    count $argv
end

function __kivtrap_station_missing
    test (__kivtrap_operands) = 0
end

# The type is an operand unless an option comes first.
function __kivtrap_type_follows
    set -l words (commandline -opc)
    test (__kivtrap_operands) = 1; and not string match -q -- '-*' $words[2]
end

function __kivtrap_types
    set -l names coldStart warmStart linkDown linkUp authenticationFailure egpNeighborLoss \
        enterpriseSpecific
    for number in (seq 0 6)
        printf '%d\t%s\n' $number $names[(math $number + 1)]
    end
end

complete -c kivtrap -f
complete -c kivtrap -n __kivtrap_station_missing -a '(__fish_print_hostnames)' -d 'Station'
complete -c kivtrap -n __kivtrap_type_follows -k -a '(__kivtrap_types)'
complete -c kivtrap -s c -x -d 'Community'
complete -c kivtrap -s d -d 'Print the message that is sent'
complete -c kivtrap -s f -r -F -d 'Read the text from a file'
complete -c kivtrap -n __kivtrap_station_missing -s s -x -d 'Specific trap code'
complete -c kivtrap -n __kivtrap_station_missing -s t -x -k -a '(__kivtrap_types)' -d 'Generic trap type'
complete -c kivtrap -n __kivtrap_station_missing -s u -x -d 'Print the up-time'
complete -c kivtrap -n __kivtrap_station_missing -s v -d 'Print community, type and code'
