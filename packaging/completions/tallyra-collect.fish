# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

complete -c tallyra-collect -f
complete -c tallyra-collect -l help -d 'Print help and exit'
complete -c tallyra-collect -l version -d 'Print the version and exit'
complete -c tallyra-collect -l db -r -F -d 'Store records in this file or database'
complete -c tallyra-collect -l server -x -d 'Connect to one of these servers'
complete -c tallyra-collect -l credentials -r -F -d 'Authenticate with this credentials file'
complete -c tallyra-collect -l ca -r -F -d 'Trust servers with a certificate of this authority'
complete -c tallyra-collect -l certificate -r -F -d 'Present this certificate'
complete -c tallyra-collect -l key -r -F -d 'Use this key of the certificate'
complete -c tallyra-collect -l keep-days -x -d 'Drop records after this many days'
complete -c tallyra-collect -l max-size -x -d 'Drop old records when the SQLite file exceeds this many MiB'
complete -c tallyra-collect -l replicas -x -a '1 3 5' -d 'Make streams with this many copies'
complete -c tallyra-collect -l stream-bytes -x -d 'Make a stream that takes this many bytes'
complete -c tallyra-collect -l batch -x -d 'Store this many messages in one transaction'
