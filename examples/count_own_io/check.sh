#!/bin/sh
# check.sh PROGRAM: its reports hold each of its 100,000 reads and 100,000 writes once.
reports=$("$1") || exit 1
for event in StorageReadsParcel StorageWritesParcel; do
    ios=$(echo "$reports" | grep -F "\"$event\"" | grep -oE '"(cm[1-5]|failedIos)":[0-9]+' |
        awk -F: '{ sum += $2 } END { print sum + 0 }')
    echo "$event: $ios"
    [ "$ios" -eq 100000 ] || exit 1
done
