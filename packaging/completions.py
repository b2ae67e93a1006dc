#!/usr/bin/env python3
"""Writes the completion of a program for a shell, from the option tables that the program prints with --help.

    completions.py bash|zsh PROGRAM"""

import re
import subprocess
import sys
from pathlib import Path
from typing import NamedTuple


class Option(NamedTuple):
    names: list
    value: str  # what follows the option; empty for a flag
    choices: list  # the words that the value can be, when they are listed
    description: str


class Command(NamedTuple):
    """A program, or one of its subcommands."""

    name: str  # empty for the program
    description: str
    options: list


def help_of(program, *words):
    return subprocess.run([program, *words, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout


COLUMN = 30  # where descriptions begin; one whose option is too long has a line of its own


def rows(text, section):
    """(left column, right column) of each row of a section."""
    found = re.search(rf"^{section}:\n((?:  .*\n|\n(?=  ))*)", text, re.M)
    lines = [line for line in found[1].splitlines() if line.strip()] if found else []
    table = []
    for line, following in zip(lines, [*lines[1:], ""]):
        if not line[:COLUMN].strip():
            table[-1][1] = line.strip()
        elif following and not following[:COLUMN].strip():
            table.append([line.strip(), ""])
        else:
            table.append([line[:COLUMN].strip(), line[COLUMN:].strip()])
    return table


def option_of(left, right):
    names, _, value = left.partition(" ")
    listed = re.search(r"\{([^{}]*)\}", left) or re.search(r": ((?:[\w-]+, )+[\w-]+)$", right)
    return Option(names.split(","), value, re.split(r",\s*", listed[1]) if listed else [], right)


def commands_of(program):
    """The program first, then its subcommands."""
    text = help_of(program)
    names = rows(text, "Subcommands")
    return [Command("", "", [option_of(*row) for row in rows(text, "Options")])] + [
        Command(name, description, [option_of(*row) for row in rows(help_of(program, name), "Options")])
        for name, description in names]  # fmt: skip


BASH = """# Completion of {name} for bash, made from its option tables.
_{name}()
{{
    local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD-1]}} command= word
    for word in "${{COMP_WORDS[@]:1:COMP_CWORD-1}}"; do
        case $word in {patterns}) command=$word; break ;; esac
    done
    COMPREPLY=()
    case "$command $previous" in
{values}
    esac
    case "$command $current" in
{words}
    esac
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
}}
complete -o filenames -F _{name} {name}
"""


def bash_words(words):
    return f"mapfile -t COMPREPLY < <(compgen -W '{' '.join(words)}' -- \"$current\"); return ;;"


def bash_values(command):
    for option in command.options:
        names = "|".join(f"'{command.name} {name}'" for name in option.names)
        if option.choices:
            yield f"        {names}) {bash_words(option.choices)}"
        elif re.match(r"(N|ADDR|RULE|FIELD)\b", option.value):
            yield f"        {names}) return ;; # {option.value}"


def bash(name, commands):
    subcommands = [command.name for command in commands[1:]]
    words = [f"        '{one.name} -'*) {bash_words([n for o in one.options for n in o.names])}" for one in commands]
    if subcommands:
        words.append(f"        ' '*) {bash_words(subcommands)}")
    values = [line for command in commands for line in bash_values(command)] or ["        '') ;;"]
    return BASH.format(name=name, patterns="|".join(subcommands) or "''", values="\n".join(values), words="\n".join(words))


def zsh_text(text):
    return re.sub(r"([\[\]:'\\])", lambda match: "'\\''" if match[1] == "'" else "\\" + match[1], text)


def zsh_options(command):
    for option in command.options:
        value = ""
        if option.choices:
            value = f":{zsh_text(option.names[-1].strip('-'))}:({' '.join(option.choices)})"
        elif option.value:
            value = f":{zsh_text(option.value.split()[0])}:" + ("_files" if option.value.startswith("TEXT") else "")
        for name in option.names:
            yield f"'{name}[{zsh_text(option.description)}]{value}'"


def zsh_arguments(command, indent):
    return " \\\n".join([f"{indent}_arguments -s"] + [f"{indent}    {one}" for one in zsh_options(command)]
                        + [f"{indent}    '*:file:_files'"])  # fmt: skip


def zsh(name, commands):
    program, subcommands = commands[0], commands[1:]
    lines = [f"#compdef {name}", f"# Completion of {name} for zsh, made from its option tables."]
    if not subcommands:
        return "\n".join([*lines, zsh_arguments(program, ""), ""])
    listed = " ".join(f"'{one.name}:{zsh_text(one.description)}'" for one in subcommands)
    lines += ["if (( CURRENT == 2 )); then", f"    local -a commands=({listed})", "    _describe command commands"]
    lines += [f"    _arguments {' '.join(zsh_options(program))}", "    return", "fi", "local chosen=$words[2]",
              "shift words", "(( CURRENT-- ))", "case $chosen in"]  # fmt: skip
    for one in subcommands:
        lines += [f"    {one.name})", zsh_arguments(one, "        "), "        ;;"]
    return "\n".join([*lines, "esac", ""])


def main():
    shell, program = sys.argv[1:]
    text = {"bash": bash, "zsh": zsh}[shell](Path(program).name, commands_of(program))
    sys.stdout.write(text)


if __name__ == "__main__":
    main()
