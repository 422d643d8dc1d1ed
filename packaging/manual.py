#!/usr/bin/env python3
"""Writes manual pages, completion and Debian's list of changes from what is said elsewhere, so that they can't
differ from it:

  manual.py tool PROGRAM VERSION         softdevice(1), from the program's --help
  manual.py completion PROGRAM           the completion for bash, from the same
  manual.py interface HEADER VERSION     vakro_device(3), from the header's comments
  manual.py changelog CHANGES CONTACT    Debian's form of CHANGELOG.md

The result goes to standard output.
"""
import datetime
import re
import subprocess
import sys
import textwrap

FILES_AND_MORE = r"""
.SH FILES
.TP
.I /etc/.VAKRO/SoftwareCert/
The key folder, where no other is named. Each file in it is a device; a file whose name ends in
.I .bak
is the backup of a change that is under way or was interrupted.
.SH ENVIRONMENT
.TP
.B VAKRO_FOLDER
The key folder, unless an option names one.
.SH SEE ALSO
.BR vakro_device (3),
.BR openssl (1)
"""


def escape(text):
    """Text as roff takes it literally, also at the start of a line."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq")
    return re.sub(r"^([.])", r"\\&\1", text, flags=re.M)


class Help:
    """The help of one command: groups of entries (term, meaning), and the text around them."""

    def __init__(self, program, path=()):
        self.path = path
        result = subprocess.run([program, *path, "--help"], capture_output=True, text=True)
        if result.returncode != 0:
            sys.exit(f"{program} {' '.join(path)} --help failed: {result.stderr}")
        before, _, after = result.stdout.partition("Usage:")
        self.description = " ".join(before.split())
        usage, _, rest = after.strip().partition("\n")
        words = "|".join(("softdevice", *path))
        self.usage = re.sub(rf"^(?:(?:{words})\s+)*", "", usage + " ").strip()
        self.groups = []  # [title, [[term, meaning], ...]]
        self.remarks = []
        for line in rest.splitlines():
            title = re.fullmatch(r"([A-Z][^.:]*):", line)
            entry = re.fullmatch(r" {1,7}(\S.*?)(?: {2,}(\S.*))?", line)
            more = re.fullmatch(r" {8,}(\S.*)", line)
            if title and not self.remarks:
                self.groups.append([title[1], []])
            elif entry and self.groups and not self.remarks:
                self.groups[-1][1].append([entry[1], entry[2] or ""])
            elif more and self.groups and self.groups[-1][1] and not self.remarks:
                self.groups[-1][1][-1][1] += " " + more[1]
            elif line.strip() or self.remarks:
                self.remarks.append(line)
        self.commands = [Help(program, (*path, term.split()[0]))
                         for title, entries in self.groups if title == "Subcommands"
                         for term, _ in entries]

    def options(self):
        """The options, each with the name of its value or None."""
        for title, entries in self.groups:
            for term, _ in entries:
                names = re.findall(r"(?:^|[\s,])(--?[a-z0-9][a-z0-9-]*)", term)
                value = re.search(r" ([A-Z][A-Z0-9_]*)", term)
                for name in names:
                    yield name, value[1] if value else None

    def every(self):
        """All commands below this one, without those that only hold others."""
        for command in self.commands:
            yield from command.every() if command.commands else [command]


def page_head(name, section, version, purpose):
    return (f'.TH {name} {section} "" "vakro {version}"\n.nh\n.SH NAME\n'
            f"{escape(name)} \\- {escape(purpose)}")


def roff_entries(entries):
    return [f".TP\n.B {escape(term)}\n{escape(meaning.strip()) or chr(92) + '&'}"
            for term, meaning in entries if not term.startswith("-h,")]


def roff_remarks(remarks):
    """Indented remarks, such as a list of numbers and their meanings, keep their lines."""
    return [f".br\n{escape(line.strip())}" if line.startswith("  ") else f".PP\n{escape(line)}"
            for line in remarks if line.strip()]


def tool_page(program, version):
    tool = Help(program)
    commands = list(tool.every())
    if not commands:
        sys.exit("the help names no command")
    out = [page_head("softdevice", 1, version, "keys and certificates in files, opened with a PIN"),
           ".SH SYNOPSIS", ".B softdevice", escape("COMMAND [OPTION]... [ARGUMENT]..."),
           ".SH DESCRIPTION", escape(tool.description), *roff_remarks(tool.remarks)]
    general = [term for _, entries in tool.groups for term, _ in entries]  # said once
    out.append(".SH OPTIONS")
    for title, entries in tool.groups:
        if title != "Subcommands":
            out += roff_entries(entries)
    out.append(".SH COMMANDS")
    for command in commands:
        out += [f".SS softdevice {escape(' '.join(command.path))} {escape(command.usage)}",
                escape(command.description)]
        for title, entries in command.groups:
            out += roff_entries(entry for entry in entries if entry[0] not in general)
        out += roff_remarks(command.remarks)
    return "\n".join(out) + FILES_AND_MORE


COMPLETION = r"""# Completion of softdevice for bash; made from its help.
_softdevice() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command= commands= options= values= i
  for ((i = 1; i < COMP_CWORD; i++)); do
    case "${command:+$command }${COMP_WORDS[i]}" in
      %(paths)s)
        command="${command:+$command }${COMP_WORDS[i]}" ;;
    esac
  done
  case $command in
%(cases)s
  esac
  COMPREPLY=() # nothing offered: readline goes on with file names
  local labels=
  case $previous in
    --device) labels='s/^(\S.*)  serial number .*/\1/p' ;;
    --keypair) labels='s/^ +#[0-9]+  (.*\S) +type [0-9]+  .*/\1/p' ;;
  esac
  if [[ -n $labels ]]; then
    local folder= label start=${current#[\"\']}
    for ((i = 1; i + 1 < COMP_CWORD; i++)); do
      [[ ${COMP_WORDS[i]} != --folder ]] || folder=${COMP_WORDS[i + 1]}
    done
    folder=${folder/#\~/$HOME} folder=${folder:-${VAKRO_FOLDER:-/etc/.VAKRO/SoftwareCert}}
    # Where there are backups, list may mend or remove something, and has to be heard then.
    compgen -G "$folder/*.bak" >/dev/null && return 0
    while read -r label; do
      [[ $label != "${start//\\}"* ]] || COMPREPLY+=("$(printf %%q "$label")")
    done < <(NO_COLOR=1 "${COMP_WORDS[0]}" list --quiet --folder "$folder" 2>/dev/null |
             sed -nE "$labels")
    return 0
  fi
  [[ " $values " != *" $previous "* ]] || return 0
  [[ $current == -* ]] && commands=$options
  COMPREPLY=($(compgen -W "$commands" -- "$current"))
}
complete -o default -F _softdevice softdevice
"""


def completion(program):
    cases, paths = [], []

    def add(command):
        path = " ".join(command.path)
        if path:
            paths.append(f'"{path}"')
        words = {"commands": [below.path[-1] for below in command.commands],
                 "options": [name for name, _ in command.options()],
                 "values": [name for name, value in command.options() if value]}
        cases.append(f'    "{path}")' + "".join(f" {name}='{' '.join(found)}'"
                                                for name, found in words.items()) + " ;;")
        for below in command.commands:
            add(below)

    add(Help(program))
    return COMPLETION % {"paths": " | ".join(paths), "cases": "\n".join(cases)}


def roff_comment(lines):
    """Flush lines become filled text, indented ones stand as they are."""
    out, fixed = [], False
    for line in lines:
        indented = line.startswith("  ")
        if indented != fixed:
            out.append(".nf" if indented else ".fi")
            fixed = indented
        out.append(escape(line) if line.strip() else ".PP")
    return out + ([".fi"] if fixed else [])


def interface_page(header, version):
    text = open(header).read()
    body = text[:text.rindex("#ifdef __cplusplus")]
    lines = [line for line in body.splitlines()
             if not line.startswith(("#", 'extern "C"'))]
    out = [page_head("vakro_device", 3, version, "devices with keys in files, opened with a PIN"),
           ".SH SYNOPSIS", ".nf", ".B #include <vakro_device.h>", ".PP",
           escape("cc program.c $(pkg-config --cflags --libs vakro)"), ".fi", ".SH DESCRIPTION"]
    comment, code = [], []

    def flush():
        nonlocal comment, code
        if comment:
            out.extend(roff_comment(comment))
        if code:
            out.extend([".PP", ".nf", *map(escape, code), ".fi", ".PP"])
        comment, code = [], []

    for line in lines:
        ruler = re.fullmatch(r"// --- (.*?) -+", line)
        if ruler:
            flush()
            out.append(f".SH {ruler[1].upper()}")
        elif line.startswith("//"):
            if code:
                flush()
            comment.append(line[3:])
        elif line.strip():
            code.append(line)
        else:
            flush()
    flush()
    return "\n".join(out) + "\n.SH SEE ALSO\n.BR softdevice (1)\n"


def changelog(changes, contact):
    entries = re.findall(r"^## (\S+) \((\S+)\)\n(.*?)(?=^## |\Z)", open(changes).read(), re.M | re.S)
    out = []
    for version, day, text in entries:
        text = re.sub(r"\[(.*?)\]\(.*?\)", r"\1", text.replace("`", ""))
        out.append(f"vakro ({version}) unstable; urgency=medium\n")
        out += [textwrap.fill(change, 78, initial_indent="  * ", subsequent_indent="    ",
                              break_on_hyphens=False)
                for change in re.findall(r"^- (.*)", text, re.M) or [text.strip()]]
        out.append(f"\n -- {contact}  {datetime.date.fromisoformat(day):%a, %d %b %Y} 00:00:00 +0000\n")
    return "\n".join(out)


def main():
    kind, source, *more = sys.argv[1:]
    make = {"tool": tool_page, "completion": completion, "interface": interface_page,
            "changelog": changelog}[kind]
    sys.stdout.write(make(source, *more))


main()
