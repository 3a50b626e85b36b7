#!/usr/bin/env bash
# packaging/archive_symbols.sh ARCHIVE...
#
# An archive becomes a part of the user's executable, so a symbol in it may be the user's as well.
# Fails on each one that is neither another library's nor told from the user's by the ABI tag or by
# the word "Analytics" in its name, and on templates that were made for a class of ours without it.
set -euo pipefail

check() {
    nm --defined-only "$1" | awk 'NF == 3 && $2 ~ /[TDBRSWVu]/ { print $3 }' | sort -u | perl -e '
        my $prefix = qr/_Z(?:T\w|Th?n?\d+_|GV|GR|Z)*/;
        my $others = qr/^${prefix}N?[KVRO]*
            (S[tabsiod]|9__gnu_cxx|3fmt|6spdlog|4toml|8nlohmann|10prometheus)/x;
        # What the compiler adds: placement new and delete, types of functions, handlers.
        my $compilers = qr/^_Z(nw|dl)|^_ZT[IS][PF]|^DW\.ref\.|^__clang_call_terminate$/;
        # Names of our own without the word. IParcel is empty. Enumerations take no tag from clang,
        # function templates none from g++.
        my $own = qr/Analytics|^Fixed(Days|Frequency)SchedulingPolicy$|^IParcel$|^internal_delete_helper$|
                     ^(RcStatus|LogLevel|LogModule|TunableKind|Fate|ParcelFormat)$/x;

        # Whether the entity itself is told, whatever its parameters are.
        sub isTold {
            my $rest = shift;
            return 1 if $rest =~ /$others|$compilers|^analytics_|^${prefix}[a-z][a-zA-Z]B9analytics/;
            $rest =~ s/^$prefix(N?)[KVRO]*// or return 0;
            my $isNested = $1;
            while ($rest =~ s/^(\d+)//) {
                my $name = substr($rest, 0, $1, "");
                return 1 if $name =~ $own || $rest =~ /^B9analytics/;
                last unless $isNested;
            }
            return 0;
        }

        my @symbols = map { chomp; $_ } <STDIN>;
        open(my $names, "-|", "c++filt", @symbols) or die;
        foreach my $symbol (@symbols) {
            my $name = <$names>;
            $name =~ s/\[abi:cxx11\]//g;
            my $isTold = isTold($symbol);
            # A class of ours begins with a capital letter and stands in no namespace.
            while ($name =~ /(?<![\w:~])([A-Z]\w*[a-z]\w*)\b(?!::v\d|\[abi:analytics\])/g) {
                $isTold = 0 if $1 !~ $own;
            }
            print $name unless $isTold;
        }'
}

failed=0
for archive; do
    (($(nm --defined-only "$archive" | grep -c ' T ') > 0))
    wrong=$(check "$archive")
    if [[ -n $wrong ]]; then
        printf '%s: nothing tells these from names of the user:\n%s\n' "$archive" "$wrong" >&2
        failed=1
    fi
done
exit $failed
