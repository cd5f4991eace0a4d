# SPDX-License-Identifier: Apache-2.0
# Self cost per object of a callgrind profile (callgrind.out format): prints
# "object Ir" lines, Ir being the first event. Object names are compressed,
# "(id) name" the first time and "(id)" after, and ob= and cob= share the ids.
# The cost line after a calls= line is the call's inclusive cost, which
# belongs to the callee's own lines already: it is skipped.
function name(text,   id, rest) {
  if (match(text, /^\([0-9]+\)/)) {
    id = substr(text, 2, RLENGTH - 2)
    rest = substr(text, RLENGTH + 1)
    sub(/^ /, "", rest)
    if (rest != "")
      names[id] = rest
    return names[id]
  }
  return text
}
/^ob=/ { ob = name(substr($0, 4)); next }
/^cob=/ { name(substr($0, 5)); next }
/^calls=/ { skip = 1; next }
/^[0-9+*-]/ {
  if (skip) { skip = 0; next }
  ir[ob] += $2
  next
}
END { for (o in ir) print o, ir[o] }
