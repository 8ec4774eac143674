# Splits the fenced blocks of a Markdown page into files: for each, one line
# "number <tab> first line <tab> language <tab> mark", where the mark is the text of
# a comment directly before the fence, and its content in the file OUT/number.
/^```/ && !inside {
  inside = 1
  language = substr($0, 4)
  mark = previous ~ /^<!-- .* -->$/ ? substr(previous, 6, length(previous) - 9) : ""
  printf "%d\t%d\t%s\t%s\n", ++count, FNR + 1, language, mark
  file = OUT "/" count
  printf "" > file
  next
}
/^```$/ && inside { inside = 0; close(file); previous = ""; next }
inside { print > file; next }
{ previous = $0 }
