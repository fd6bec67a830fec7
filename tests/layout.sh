#!/bin/sh
# layout.sh LIST BITS LIBRARY ...: the classes that the list names have in these libraries the sizes,
# field offsets and virtual slots that it gives. `8/4` is 8 with 64 bits and 4 with 32. A class has
# the slots of its base too, and a virtual destructor has two, which are not listed.
# layout.sh LIST print LIBRARY ...: prints what they have, a class in one or two lines.
set -eu
list=$1 bits=$2
shift 2
describe() {
    readelf --wide --debug-dump=info "$@" 2>/dev/null | awk -v list="$list" '
    BEGIN { while ((getline line < list) > 0) { split(line, words); isWanted[words[1]] } }
    function Finish() {  # of an entry at `depth`
        if (tag ~ /^(class|structure)_type$/ && !isDeclaration && own in isWanted) {
            class[depth] = own
            size[own] = bytes
        }
        owner = class[depth - 1]
        if (owner == "") return
        if (tag == "inheritance") base[owner] = type
        if (tag == "member" && at != "" && own !~ /^(_vptr.*)?$/) field[owner, at + 0] = own
        if (tag == "subprogram" && slot != "") virtual[owner, slot + 0] = symbol
    }
    /\(DW_TAG_/ {
        Finish()
        depth = substr($1, 2) + 0
        for (i = depth; i in class; ++i) delete class[i]
        own = type = at = slot = symbol = isDeclaration = ""
        match($0, /DW_TAG_[a-z_]+/)
        tag = substr($0, RSTART + 7, RLENGTH - 7)
    }
    /DW_AT_name / { own = $NF }
    /DW_AT_declaration / { isDeclaration = 1 }
    /DW_AT_linkage_name/ { symbol = $NF }
    /DW_AT_byte_size/ { bytes = $NF }
    /DW_AT_type / { type = $NF }
    /DW_AT_data_member_location/ { at = $NF }
    /DW_AT_vtable_elem_location/ { slot = $NF }
    END {
        for (one in size) {
            line = one " " size[one]
            for (i = 0; i < size[one]; ++i)
                if ((one, i) in field) line = line " " field[one, i] " " i
            print line
            line = ""
            for (i = 0; i < 32; ++i)
                if ((one, i) in virtual && !((base[one], i) in virtual))
                    line = line " " i " " virtual[one, i]
            if (line != "") print one " slots" line
        }
    }' | c++filt | sed 's/ [A-Za-z_]*::/ /g' | LC_ALL=C sort
}
if [ "$bits" = print ]; then
    describe "$@"
else
    actual=$(describe "$@")
    [ "$bits" = 64 ] && keep='\1' || keep='\2'
    sed -E "s#([^ ]+)/([^ ]+)#$keep#g" "$list" | {
        printf '%s\n' "$actual" | diff -u --label "$list" --label "$1" /dev/fd/3 -
    } 3<&0
fi
