# The lines that a command line of kiv prints, as rows of a C table: whether the line is logged too,
# and its text. Lines without the place of a statement are, but for the help, printed alone.
"$@" | awk -v help="$(($# == 1))" '
  { logged = help || /^RIL\[/; gsub(/[\\"]/, "\\\\&"); printf "{%d, \"%s\"},\n", logged, $0 }'
