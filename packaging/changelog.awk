# Turns CHANGELOG.md into Debian's form of a changelog; wants -v maintainer="NAME <ADDRESS>".
# A release is a heading "## VERSION - YYYY-MM-DD", its changes are list items, which may go on in lines that
# begin with two blanks.
function sign() {
  if (date == "") return
  ("date --utc --rfc-email --date=" date) | getline signed
  printf "\n -- %s  %s\n", maintainer, signed
}
/^## / {
  sign()
  if (date != "") print ""
  date = $4
  printf "dorve (%s) unstable; urgency=medium\n\n", $2
}
/^- / { print "  *" substr($0, 2) }
/^  [^ ]/ { print "  " $0 }
END { sign() }
