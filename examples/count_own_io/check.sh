#!/bin/sh
# check.sh PROGRAM: its reports hold each of its 100,000 reads and 100,000 writes once.
"$1" | awk '
    /^Storage/ { event = $1 }
    $1 == "all" || $1 == "failed" { ios[event] += $2 }
    END {
        for (event in ios) { print event, ios[event] }
        exit !(ios["StorageReadsParcel"] == 100000 && ios["StorageWritesParcel"] == 100000)
    }'
