#!/usr/bin/env bash
# Every relative link of the manual (README.md and docs/*.md) leads to a file of the project,
# and one with a #heading into a Markdown file to a heading that the file has.
#   doc_links_test.sh SOURCE_DIR
set -u
source=$1
links=0
source "${BASH_SOURCE%/*}/lib.sh"
# A heading's anchor as the renderers make it: lower case, spaces to dashes, punctuation gone.
has_anchor() { sed -n 's/^#\{1,6\} //p' "$1" | tr 'A-Z ' 'a-z-' | tr -cd 'a-z0-9_\n-' | grep -qxF -- "$2"; }

for page in "$source/README.md" "$source"/docs/*.md; do
    # The targets of [text](target), leaving out code spans and absolute URLs.
    while read -r target; do
        links=$((links + 1))
        path=${target%%#*}
        fragment=${target#"$path"}
        file=$(dirname "$page")/$path
        [ -n "$path" ] || file=$page
        if [ -n "$fragment" ] && [[ $file == *.md ]]; then
            check "${page#"$source"/}: $target" has_anchor "$file" "${fragment#\#}"
        else
            check "${page#"$source"/}: $target" test -e "$file"
        fi
    done < <(sed 's/`[^`]*`//g' "$page" | grep -o ']([^)]*)' | sed 's/^](\(.*\))$/\1/' | grep -v '^[a-z]*:')
done
check "the manual has links to check ($links)" test "$links" -gt 0
finish
