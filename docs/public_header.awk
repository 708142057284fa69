# Doxygen's filter for the headers of this house. Their first comment is the file's. A
# comment right above declarations is theirs, of all of them up to the next blank line,
# comment or brace. A comment after a member is that member's.

function flush_declarations(    i, grouped) {
  grouped = comments > 0 && ends > 1
  if (grouped) print "///@{"
  for (i = 1; i <= comments; ++i) {
    if (declarations > 0) sub(/\/\/\/? ?/, "/// ", comment[i])
    print comment[i]
  }
  for (i = 1; i <= declarations; ++i) print declaration[i]
  if (grouped) print "///@}"
  comments = declarations = ends = 0
}

NR == 1 { print "/// \\file"; in_head = 1 }
in_head && /^\/\// { print "/" $0; next }
{ in_head = 0 }

# The rest of a comment after a member stands right below its beginning.
/^ *\/\// && behind > 0 && match($0, /\/\//) == behind {
  declaration[++declarations] = substr($0, 1, behind - 1) "///< " substr($0, behind + 3)
  next
}
/^ *\/\// {
  if (declarations > 0) flush_declarations()
  comment[++comments] = $0
  next
}
/^[[:space:]]*$/ { flush_declarations(); print; next }
{
  if ($0 ~ /[{}]/ && ends > 0) flush_declarations()
  behind = match($0, / \/\/ /) + 1
  if (behind == 1) behind = 0
  sub(/ \/\/ /, " ///< ")
  declaration[++declarations] = $0
  if ($0 ~ /;( |$)/) ++ends
  if ($0 ~ /[{}]/) flush_declarations()
}
END { flush_declarations() }
