# Doxygen's filter for the headers. The comment at the head is the file's. A comment above
# several declarations is that of all of them, up to the next blank line or comment.
# Operations that a comment names become links.

BEGIN {
  while ("cat liblocal/*/*.h snmp/*.h rpc/*.h rpc/*/*.h" | getline line > 0) {
    if (line !~ /^ *\/\// && match(line, /[a-z_0-9]+\(/)) is_operation[substr(line, RSTART, RLENGTH - 1)]
  }
}

function linked(comment,    i, count, words) {
  count = split(comment, words, " ")
  for (i = 1; i <= count; ++i) {
    if (match(words[i], /^[a-z_0-9]+/) && substr(words[i], 1, RLENGTH) in is_operation &&
        words[i] ~ /^[a-z_0-9]*_[a-z_0-9]*[,.;:)]?$/) {
      sub(/^[a-z_0-9]+/, "&()", words[i])
    }
    comment = (i == 1 ? "" : comment " ") words[i]
  }
  return comment
}

function flush_group(    i) {
  if (count > 1) print "///@{"
  for (i = 1; i <= lines; ++i) print group[i]
  if (count > 1) print "///@}"
  lines = count = 0
}

NR == 1 { print "/// \\file"; head = 1 }
head && /^\/\// { print "/" linked($0); next }
{ head = 0 }
/^ *\/\/\// { if (count > 0) flush_group(); group[++lines] = linked($0); next }
/^[[:space:]]*$/ || /^ *\/\// || /^#/ || /[{}]/ { flush_group(); print; next }
lines > 0 { group[++lines] = $0; if (/;( |$)/) ++count; next }
{ print }
END { flush_group() }
