# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

complete -c tallyra-forward -f
complete -c tallyra-forward -l help -d 'Print help and exit'
complete -c tallyra-forward -l version -d 'Print the version and exit'
complete -c tallyra-forward -l db -r -F -d 'Send the records of this store'
complete -c tallyra-forward -l server -x -d 'Connect to one of these servers'
complete -c tallyra-forward -l credentials -r -F -d 'Authenticate with this credentials file'
complete -c tallyra-forward -l ca -r -F -d 'Trust servers with a certificate of this authority'
complete -c tallyra-forward -l certificate -r -F -d 'Present this certificate'
complete -c tallyra-forward -l key -r -F -d 'Use this key of the certificate'
complete -c tallyra-forward -l device -x -d 'Send as this device'
complete -c tallyra-forward -l once -d 'Send what there is, then exit'
complete -c tallyra-forward -l follow -d 'Stay connected, and send records as they are stored'
complete -c tallyra-forward -l every -x -d 'Connect every this many minutes'
complete -c tallyra-forward -l bytes-per-day -x -d 'Send at most this many bytes a day'
complete -c tallyra-forward -l keep-queries -d 'Send URLs with user information, query and fragment'
complete -c tallyra-forward -l metered -d 'Send on metered networks, too'
