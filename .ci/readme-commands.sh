# Sourced by .ci/run and .ci/fresh-debian-check.sh: reads the set-up
# commands out of README.md, so that CI runs them exactly as a reader copies
# them. In README.md each of them is the one line of the code block that
# follows a marker line "<!-- command: NAME -->" (NAME: install, demo, test).

# readme_command README NAME: prints the command; fails, with a message on
# standard error, unless the marker exists once and its block holds one line.
readme_command() {
  local readme=$1 name=$2 command
  command=$(awk -v marker="<!-- command: $name -->" '
    $0 == marker { markers++; state = 1; next }
    state == 1 && /^```/ { state = 2; next }
    state == 1 && NF { state = 0 }
    state == 2 && /^```/ { state = 0; next }
    state == 2 { lines++; text = $0 }
    END {
      if (markers != 1 || lines != 1) exit 1
      print text
    }' "$readme") || {
    echo "$readme: no single-line code block after exactly one \"<!-- command: $name -->\"" >&2
    return 1
  }
  printf '%s\n' "$command"
}
