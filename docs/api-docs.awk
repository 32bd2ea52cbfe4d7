# Usage: awk -f docs/api-docs.awk PAGE.md
# Doxygen doesn't know the names that a git host gives to sections. This names each
# section PAGE-SECTION, and makes links to sections use these names.

function section(heading) {
  heading = tolower(heading)
  gsub(/[^a-z0-9 _-]/, "", heading)
  gsub(/ /, "-", heading)
  return heading
}

function page(path) {
  sub(/.*\//, "", path)
  sub(/\.md$/, "", path)
  return tolower(path)
}

/^ *```/ { is_code = !is_code }
is_code { print; next }

/^##/ {
  heading = $0
  sub(/^#+ */, "", heading)
  print $0 " {#" page(FILENAME) "-" section(heading) "}"
  next
}

{
  rest = $0
  done = ""
  while (match(rest, /\]\([^):#]*#[^)]*\)/)) {
    link = substr(rest, RSTART + 2, RLENGTH - 3)
    path = substr(link, 1, index(link, "#") - 1)
    name = page(path == "" ? FILENAME : path) "-" substr(link, index(link, "#") + 1)
    done = done substr(rest, 1, RSTART - 1) "](#" name ")"
    rest = substr(rest, RSTART + RLENGTH)
  }
  print done rest
}
