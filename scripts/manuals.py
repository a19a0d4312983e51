#!/usr/bin/env python3
"""Manual pages and shell completions, from the same tables of options as --help.

    scripts/manuals.py BUILD            # whether the files in the repository are what the tables say; exit code 1 when not
    scripts/manuals.py BUILD --write    # makes them

BUILD is a build directory with tests, such as build/test. The pages' own words stand in packaging/man/*.in, where a line
@NAME@ is replaced by what the tables say.
"""

import argparse
import json
import os
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MAN = ROOT / "packaging" / "man"
COMPLETIONS = ROOT / "packaging" / "completions"

# Values that are one of a few words, by program and option. `completions_test.py` gives each of them to the program.
WORDS = {
    "gst-source": {
        "--color": ["auto", "never", "always"],
        "--log-level": ["error", "warning", "info", "debug"],
        "--buffer-mode": ["0600", "0640", "0604", "0644"],
        "--protocols": ["tcp", "udp", "multicast", "http", "tls"],
        "--mode": ["caller", "listener", "rendezvous"],
        "--keylen": ["0", "16", "24", "32"],
        "--islive": ["0", "1"],
    },
    "gst-source-read": {
        "--kind": ["video", "audio"],
        "--start": ["oldest", "newest", "key"],
        "--format": ["mpegts", "mkv"],
        "--from": ["key", "newest", "oldest"],
    },
}
FILES = ["FILE"]  # types of values that are names of files
BUFFERS = "gst-source-read list --json 2>/dev/null | sed -n 's|.*\"name\":\"/*\\([^\"]*\\)\".*|\\1|p'"
NOTICE = "Made by scripts/manuals.py from the tables of options; changes here are lost."

# ---- Tables of options ------------------------------------------------------------------------------------------------


def describe(build):
    environment = dict(os.environ, GST_PLUGIN_PATH=str(build / "shbsink"))
    run = subprocess.run([build / "packaging" / "describe"], env=environment, stdout=subprocess.PIPE, check=True)
    return json.loads(run.stdout)


def usages(program):
    """The forms of a command line, each as one line."""
    text = program["usage"].strip().removeprefix("Usage: ")
    name = program["name"].split()[0]
    forms = []
    for line in text.splitlines():
        words = " ".join(line.split())
        if words.startswith(name + " "):
            forms.append(words)
        elif words.startswith("[") and forms:
            forms[-1] += " " + words
    return forms


def takes_value(option):
    return "type" in option


def long_name(option):
    return option["names"][-1]


def brief(text):
    """The first clause of a help text, for one line of a shell."""
    clause = re.split(r"[;:]|\. |, which| \(", text)[0].strip().rstrip(".")
    return clause if len(clause) <= 70 else clause[:67].rsplit(" ", 1)[0] + " ..."


# ---- Manual pages -----------------------------------------------------------------------------------------------------


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\n".join("\\&" + line if line[:1] in (".", "'") else line for line in text.splitlines())


def option_page(option):
    names = ", ".join(f"\\fB{roff(name)}\\fR" for name in option["names"])
    value = f" \\fI{roff(option['type'])}\\fR" if takes_value(option) else ""
    default = f" Default: {roff(option['default'])}." if "default" in option else ""
    return f".TP\n{names}{value}\n{roff(option['help'].rstrip('.'))}.{default}\n"


def options_page(options, heading=".SS"):
    text = ""
    group = None
    for option in options:
        if option.get("group", "") != group:
            group = option.get("group", "")
            text += f"{heading} {roff('General' if group in ('', 'Options', 'OPTIONS') else group)}\n"
        text += option_page(option)
    return text


def commands_page(program):
    text = ""
    for command in program["commands"]:
        forms = usages(command)
        text += f".SS {roff(command['name'].removeprefix(program['name'] + ' '))}\n"
        text += f"{roff(command['summary'])}{'' if command['summary'].endswith('.') else '.'}\n"
        text += "".join(f".PP\n.RS\n{roff(form)}\n.RE\n" for form in forms)
        text += "".join(option_page(option) for option in command["options"] if long_name(option) != "--help")
        if command["footer"]:
            text += f".PP\n{roff(command['footer'])}\n"
    return text


def synopsis_page(program):
    return "".join(f".PP\n{roff(form)}\n" for form in usages(program))


def footer_page(program):
    return "".join(".PP\n" + roff(" ".join(part.split())) + "\n" for part in program["footer"].split("\n\n"))


def fields_page(fields):
    text = ""
    protocol = ""
    for field in fields:
        if field.get("protocol", "all sources") != protocol:
            protocol = field.get("protocol", "all sources")
            text += f".SS Options of {roff(protocol)}{'' if protocol == 'all sources' else ' sources'}\n"
        default = f" Default: {roff(field['default'])}." if "default" in field else ""
        text += f".TP\n\\fB{roff(field['key'])}\\fR \\fI{roff(field['type'])}\\fR\n{roff(field['help'].rstrip('.'))}.{default}\n"
    return text


def element_page(element):
    text = ".SH PADS\n"
    for pad in element["pads"]:
        text += f".TP\n\\fB{roff(pad['name'])}\\fR\n" + "\n.br\n".join(roff(caps) for caps in pad["caps"]) + "\n"
    text += ".SH PROPERTIES\n"
    for one in element["properties"]:
        default = f" Default: {roff(one['default'])}." if "default" in one else ""
        access = "" if one["writable"] else " Can only be read."
        text += f".TP\n\\fB{roff(one['name'])}\\fR \\fI{roff(one['type'])}\\fR\n{roff(one['help'].rstrip('.'))}.{default}{access}\n"
    if element["signals"]:
        text += ".SH SIGNALS\n"
        for one in element["signals"]:
            text += f".TP\n\\fB{roff(one['name'])}\\fR\n{roff(', '.join(one['arguments']))}\n"
    return text


def pages(tables):
    programs = {program["name"]: program for program in tables["programs"]}
    for path in sorted(MAN.glob("*.in")):
        page = path.name.removesuffix(".in")
        name = page.rsplit(".", 1)[0]
        text = path.read_text()
        parts = {"VERSION": tables["version"]}
        if name in programs:
            program = programs[name]
            parts |= {
                "SYNOPSIS": synopsis_page(program),
                "OPTIONS": options_page(program["options"]),
                "COMMANDS": commands_page(program),
                "FOOTER": footer_page(program),
            }
        if name in tables["elements"]:
            parts["ELEMENT"] = element_page(tables["elements"][name])
        parts["FIELDS"] = fields_page(tables["fields"])
        for part, value in parts.items():
            text = text.replace(f"@{part}@\n", value).replace(f"@{part}@", value)
        left = re.findall(r"@[A-Z]+@", text)
        assert not left, f"{path}: nothing known of {left}"
        yield MAN / page, f'.\\" {NOTICE}\n' + text


# ---- Completions ------------------------------------------------------------------------------------------------------


def value_words(program, option):
    return WORDS.get(program, {}).get(long_name(option), [])


def bash_case(program, options):
    text = ""
    for option in options:
        if not takes_value(option):
            continue
        pattern = "|".join(option["names"])
        words = value_words(program, option)
        if words:
            action = f'mapfile -t COMPREPLY < <(compgen -W "{" ".join(words)}" -- "$cur")'
        else:
            action = "_filedir" if option["type"] in FILES else ":"
        text += f"    {pattern})\n        {action}\n        return\n        ;;\n"
    return text


def unique(options):
    known = {}
    for option in options:
        known.setdefault(long_name(option), option)
    return list(known.values())


def all_options(program):
    return unique(program["options"] + [option for command in program["commands"] for option in command["options"]])


def flags(options):
    return " ".join(name for option in options for name in option["names"])


def bash(program):
    name = program["name"]
    function = "_" + name.replace("-", "_")
    words = [command["name"].split()[-1] for command in program["commands"]]
    text = f"# bash completion for {name}. {NOTICE}\n{function}() {{\n"
    text += "    local cur prev words cword split\n    _init_completion -s -n : || return\n"
    text += f"    case $prev in\n{bash_case(name, all_options(program))}    esac\n    $split && return\n"
    text += f'    local known="{flags(program["options"])}"\n    case ${{words[1]}} in\n'
    for command in program["commands"]:
        text += f'    {command["name"].split()[-1]}) known="{flags(command["options"])}" ;;\n'
    text += "    esac\n    if [[ $cur == -* ]]; then\n"
    text += '        mapfile -t COMPREPLY < <(compgen -W "$known" -- "$cur")\n'
    text += "    elif ((cword == 1)); then\n"
    text += f'        mapfile -t COMPREPLY < <(compgen -W "{" ".join(words)}" -- "$cur")\n'
    if name == "gst-source":
        text += '    elif [[ ${words[1]} == check || ${words[1]} == reload ]]; then\n        _filedir\n'
    else:
        text += f"    else\n        mapfile -t COMPREPLY < <(compgen -W \"$({BUFFERS})\" -- \"$cur\")\n        _filedir\n"
    text += f"    fi\n}}\ncomplete -F {function} {name}\n"
    return text


def zsh_text(text):
    return re.sub(r"([\[\]:])", r"\\\1", text).replace("'", "'\\''")


def zsh_specs(program, options):
    specs = []
    for option in options:
        value = ""
        if takes_value(option):
            words = value_words(program, option)
            action = f"({' '.join(words)})" if words else ("_files" if option["type"] in FILES else " ")
            value = f":{zsh_text(option['type'])}:{action}"
        names = option["names"]
        if len(names) > 1:
            specs.append(f"'({' '.join(names)})'{{{','.join(names)}}}'[{zsh_text(brief(option['help']))}]{value}'")
        else:
            equal = "=" if takes_value(option) else ""
            specs.append(f"'{names[0]}{equal}[{zsh_text(brief(option['help']))}]{value}'")
    return specs


def zsh(program):
    name = program["name"]
    function = "_" + name
    lines = [f"#compdef {name}", f"# {NOTICE}", ""]
    if name == "gst-source-read":
        lines += ["_gst_source_buffers() {", "    local -a buffers", f"    buffers=(${{(f)\"$({BUFFERS})\"}})",
                  "    compadd -a buffers", "}", ""]
    lines += [f"{function}() {{", "    case $words[2] in"]
    for command in program["commands"]:
        word = command["name"].split()[-1]
        place = "'*:file:_files'" if name == "gst-source" else "'1:buffer:_gst_source_buffers' '*:file:_files'"
        lines.append(f"    {word})")
        lines.append("        shift words && ((CURRENT--))")
        lines.append("        _arguments -s -S \\")
        lines += [f"            {spec} \\" for spec in zsh_specs(name, command["options"])]
        lines.append(f"            {place}")
        lines.append("        ;;")
    words = " ".join(command["name"].split()[-1] for command in program["commands"])
    lines += ["    *)", "        _arguments -s -S \\"]
    lines += [f"            {spec} \\" for spec in zsh_specs(name, program["options"])]
    lines += [f"            '1:command:({words})' '*: :_urls'", "        ;;", "    esac", "}", "", f'{function} "$@"', ""]
    return "\n".join(lines)


def fish_text(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def fish_lines(program, options, condition):
    lines = []
    for option in options:
        line = f"complete -c {program}" + (f" -n {fish_text(condition)}" if condition else "")
        for one in option["names"]:
            line += f" -l {one[2:]}" if one.startswith("--") else f" -s {one[1:]}"
        if takes_value(option):
            words = value_words(program, option)
            if words:
                line += f" -x -a {fish_text(' '.join(words))}"
            else:
                line += " -r -F" if option["type"] in FILES else " -x"
        lines.append(line + f" -d {fish_text(brief(option['help']))}")
    return lines


def fish(program):
    name = program["name"]
    words = [command["name"].split()[-1] for command in program["commands"]]
    none = "not __fish_seen_subcommand_from " + " ".join(words)
    lines = [f"# fish completion for {name}. {NOTICE}", f"complete -c {name} -f"]
    for command, word in zip(program["commands"], words):
        lines.append(f"complete -c {name} -n '__fish_is_first_token' -a {word} -d {fish_text(brief(command['summary']))}")
    lines += fish_lines(name, program["options"], none)
    for command, word in zip(program["commands"], words):
        condition = f"__fish_seen_subcommand_from {word}"
        lines += fish_lines(name, command["options"], condition)
        if name == "gst-source":
            lines.append(f"complete -c {name} -n '{condition}' -F")
        else:
            lines.append(f"complete -c {name} -n '{condition}' -F -a {fish_text('(' + BUFFERS + ')')}")
    return "\n".join(lines) + "\n"


def completions(tables):
    for program in tables["programs"]:
        name = program["name"]
        yield COMPLETIONS / f"{name}.bash", bash(program)
        yield COMPLETIONS / f"_{name}", zsh(program)
        yield COMPLETIONS / f"{name}.fish", fish(program)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("build", type=Path)
    parser.add_argument("--write", action="store_true")
    arguments = parser.parse_args()
    tables = describe(arguments.build)
    wrong = []
    for path, text in [*pages(tables), *completions(tables)]:
        if arguments.write:
            path.write_text(text)
        elif not path.exists() or path.read_text() != text:
            wrong.append(str(path.relative_to(ROOT)))
    if wrong:
        print(f"not as the tables of options say: {', '.join(wrong)}; scripts/manuals.py {arguments.build} --write makes them")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
