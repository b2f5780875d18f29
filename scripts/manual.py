#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the manual pages: scripts/manual.py HELP ROOT VERSION LOWDOWN OUTPUT

HELP is what `nimbrel help --json` prints. OUTPUT/man1 gets nimbrel(1) and a page per command: the options and examples from
HELP, the explanations from docs/nimbrel.md. OUTPUT/man5 gets nimbrel-rig(5) from docs/rigs.md, OUTPUT/man3 nimbrel2(3) from
README.md and the header of the bus master. So a page says what the program and the documents say, and nothing of its own.
"""
import json
import pathlib
import re
import shutil
import subprocess
import sys

PAGES = {"nimbrel.md": "nimbrel(1)", "rigs.md": "nimbrel-rig(5)"}


# ---- roff ----------------------------------------------------------------------------------------------------------

def escaped(text):
    """Text in which roff sees no request and changes no character."""
    for character, name in (("\\", r"\e"), ("-", r"\-"), ("'", r"\(aq"), ("`", r"\(ga"), ("^", r"\(ha"), ("~", r"\(ti"),
                            ('"', r"\(dq")):
        text = text.replace(character, name)
    return re.sub(r"^\.", r"\\&.", text, flags=re.M)


def unbroken(text):
    """Escaped text none of whose words is hyphenated."""
    return re.sub(r"(^|(?<= ))(?=[^ ])", r"\\%", escaped(text))


def bold(text):
    return rf"\fB{unbroken(text)}\fR"


def italic(text):
    return rf"\fI{unbroken(text)}\fR"


def with_code(text):
    """A help text's line: what stands in back quotes is what a user types; names of the library are not hyphenated."""
    def part(match):
        if match[1]:
            return bold(match[1])
        return unbroken(match[2]) if match[2] else escaped(match[0])
    return re.sub(r"`([^`]*)`|(\S*[a-z0-9>][A-Z_]\S*|\S*[A-Z]_\S*|\S*::\S*)|[^`\s]+|\s+", part, text)


def literal(lines):
    return [".EX", *(escaped(line) for line in lines), ".EE"]


# ---- What the documents say ----------------------------------------------------------------------------------------

class Documents:
    def __init__(self, root, lowdown):
        self.root, self.lowdown = root, lowdown

    def read(self, name):
        return (self.root / name).read_text()

    def sections(self, name):
        """Title to body; the text in front of the first title has the title ""."""
        parts = re.split(r"^## (.*)\n", fences_hidden(self.read(name)), flags=re.M)
        return {title: fences_shown(body) for title, body in zip(["", *parts[1::2]], parts[::2])}

    def as_roff(self, text):
        """Markdown as the body of a page. Its titles become subsections."""
        text = re.sub(r"<!--.*?-->\n?", "", text, flags=re.S)
        text = re.sub(r"^# .*\n", "", fences_hidden(text), flags=re.M)
        text = re.sub(r"^#{2,} ", "## ", text, flags=re.M)
        text = re.sub(r"!?\[([^\]]*)\]\(([^)]*)\)", self.link, text)
        text = fences_shown(text)
        roff = subprocess.run([self.lowdown, "-Tman", "--parse-no-metadata"], input=text, check=True, stdout=subprocess.PIPE,
                              text=True).stdout
        roff = re.sub(r"\\fC(.*?)\\fR", lambda code: r"\fB\%" + code[1].replace(" ", r" \%") + r"\fR", roff)
        roff = roff.replace("expand allbox;", "box;")
        roff = re.sub(r"^\.SH\n", ".SS\n", roff, flags=re.M)
        # A table without titles has no row for them.
        roff = re.sub(r"^lb(?: lb)+\n(l(?: l)+\.\n)(?:T\{\nT\}\|)+T\{\nT\}\n", r"\1", roff, flags=re.M)
        # A name at the start of a row is as wide as it is; columns of running text share what room there is.
        roff = re.sub(r"^T\{\n(\S+)\nT\}\|", r"\1|", roff, flags=re.M)
        roff = re.sub(r"^(l(?: l)+)\.$", lambda row: " ".join(["l", *["lx"] * row[1].count(" ")]) + ".", roff, flags=re.M)
        return roff.strip().splitlines()

    @staticmethod
    def link(match):
        """Another page's name where there is one; else the text of the link."""
        text, page = match[1], PAGES.get(match[2].split("#")[0])
        return f"{text} ({page})" if page and page not in text else text


def fences_hidden(text):
    """Lines in code blocks, marked, so that a comment of a shell is not taken for a title."""
    return re.sub(r"^```.*?^```$", lambda block: block[0].replace("\n", "\n\0"), text, flags=re.S | re.M)


def fences_shown(text):
    return text.replace("\0", "")


def without_option_tables(text):
    return re.sub(r"^\| Option \|.*?\n(?=\n)", "", text + "\n\n", flags=re.S | re.M)


# ---- Pages of commands ---------------------------------------------------------------------------------------------

def header(page, version):
    name, section = re.fullmatch(r"(.*)\((\d)\)", page).groups()
    # The first line has tables made into text first.
    return ["'\\\" t", f'.TH {name.upper()} {section} "" "nimbrel2 {version}" "Nimbrel2"', ".ad l"]


def usage(words, command):
    line = [bold(" ".join(words)), rf"[{italic('OPTIONS')}]"] if command["options"] else [bold(" ".join(words))]
    for argument in command["arguments"]:
        name = italic(argument["name"] + ("..." if argument["repeatable"] else ""))
        line.append(name if argument["required"] else f"[{name}]")
    if command["commands"]:
        line.append(italic("COMMAND"))
    return " ".join(line)


def option_items(command):
    items = []
    for argument in command["arguments"]:
        items += [".TP", italic(argument["name"]), with_code(argument["description"])]
    for option in command["options"]:
        names = ", ".join(bold(name) for name in option["names"])
        items += [".TP", names + (f" {italic(option['value'])}" if "value" in option else ""),
                  with_code(option["description"])]
    return items


def blocks_of(more):
    """The parts of what help ends with: (title or "", lines)."""
    for block in filter(None, re.split(r"\n{2,}", more.strip("\n"))):
        first, *rest = block.splitlines()
        title = re.match(r"(Exit status|Examples|JSON):\s*", first)
        if title:
            yield title[1], [first[title.end():], *rest] if first[title.end():] else rest
        else:
            yield "", [first, *rest]


def more_items(more):
    lines, plain = [], []
    for title, block in blocks_of(more):
        if title == "Examples":
            lines += [".SH EXAMPLES", *literal([line.removeprefix("  ") for line in block])]
        elif title == "Exit status":
            lines.append(".SH EXIT STATUS")
            for line in block:
                status = re.match(r"  (\d)  (.*)", line)
                if status:
                    lines += [".TP", bold(status[1]), with_code(status[2])]
                elif line.startswith("     "):
                    lines.append(with_code(line.strip()))
                else:
                    lines += [".PP", with_code(line.strip())]
        elif title == "JSON":
            lines += [".SH JSON", *literal(block)]
        else:
            plain += [".PP", *(with_code(line) for line in block)]
    return plain, lines


def see_also(*pages):
    return [".SH SEE ALSO", ",\n".join(rf"\fB{escaped(page[:-3])}\fR{page[-3:]}" for page in pages)]


def lower_first(text):
    return text[:1].lower() + text[1:].rstrip(".")


def below(words, command, above):
    """A command of a command, as a subsection of its page."""
    lines = [f".SS {escaped(' '.join([*words, command['name']]))}", usage([*words, command["name"]], command), ".PP",
             with_code(command["description"]), *option_items(command)]
    if command["more"] and command["more"] != above["more"]:
        plain, sections = more_items(command["more"])
        # A subsection has no sections of its own.
        lines += plain + [re.sub(r"^\.SH (.*)", lambda title: f".PP\n{bold(title[1].capitalize() + '.')}", line)
                          for line in sections]
    return lines


def command_page(command, documents, version):
    words = ["nimbrel", command["name"]]
    plain, sections = more_items(command["more"])
    explained = documents.sections("docs/nimbrel.md").get(command["name"], "")
    lines = [*header(f"nimbrel-{command['name']}(1)", version),
             ".SH NAME", rf"nimbrel\-{escaped(command['name'])} \- {escaped(lower_first(command['description']))}",
             ".SH SYNOPSIS", usage(words, command),
             ".SH DESCRIPTION", *documents.as_roff(without_option_tables(explained) or command["description"]), *plain]
    if command["commands"]:
        lines.append(".SH COMMANDS")
        for one in command["commands"]:
            lines += below(words, one, command)
    lines += [".SH OPTIONS", *option_items(command), *sections]
    related = ["nimbrel-rig(5)"] if command["name"] in ("rig", "simulate") else []
    return lines + see_also("nimbrel(1)", *related)


def program_page(program, documents, version):
    sections = documents.sections("docs/nimbrel.md")
    introduction = re.split(r"\n\| Command ", sections[""])[0]
    plain, rest = more_items(program["more"])
    lines = [*header("nimbrel(1)", version),
             ".SH NAME", rf"nimbrel \- {escaped(lower_first(program['description']))}",
             ".SH SYNOPSIS", usage(["nimbrel"], program),
             ".SH DESCRIPTION", *documents.as_roff(introduction), *plain,
             ".SH COMMANDS"]
    for command in program["commands"]:
        lines += [".TP", rf"\fBnimbrel\-{escaped(command['name'])}\fR(1)", with_code(command["description"])]
    lines += [".SH OPTIONS", *option_items(program)]
    for title in ("For every command", "Which camera", "Worked examples"):
        lines += [f".SH {escaped(title.upper())}", *documents.as_roff(without_option_tables(sections[title]))]
    lines += rest
    return lines + see_also(*(f"nimbrel-{command['name']}(1)" for command in program["commands"]), "nimbrel-rig(5)",
                            "nimbrel2(3)")


# ---- Pages of files and the library --------------------------------------------------------------------------------

def sections_as_roff(documents, sections):
    lines = []
    for title, body in sections.items():
        if title:
            lines += [f".SH {escaped(title.replace('`', '').upper())}", *documents.as_roff(body)]
    return lines


def rig_page(documents, version):
    sections = documents.sections("docs/rigs.md")
    return [*header("nimbrel-rig(5)", version),
            ".SH NAME", r"nimbrel\-rig \- a whole computer with its buses and cameras in a file",
            ".SH DESCRIPTION", *documents.as_roff(sections[""]), *sections_as_roff(documents, sections),
            *see_also("nimbrel(1)", "nimbrel-rig(1)", "nimbrel2(3)")]


def operations(header_text):
    """What the class of the bus master offers, as (heading, comment, declarations)."""
    body = header_text.split("class NIMBREL2_API BusMaster")[1].split("\nprivate:")[0].split("\nprotected:")[0]
    heading, comment, declarations, pending = "", [], [], ""
    for line in [*body.splitlines()[1:], ""]:
        line = line.strip()
        title = re.match(r"// ---- (.*?) -+$", line)
        if title:
            heading = title[1]
        elif line.startswith("///"):
            comment.append(line[3:].removeprefix(" "))
        elif not line:
            if comment and declarations:
                yield heading, comment, declarations
            comment, declarations, pending = [], [], ""
        elif not line.startswith("//") and comment:
            pending = f"{pending} {line}".strip()
            if pending.endswith(";"):
                declarations.append(pending)
                pending = ""


def comment_as_roff(comment):
    lines = []
    for line in comment:
        tag = re.match(r"@(return|param|par|throws) *(.*)", line.strip())
        if tag and tag[1] in ("param", "par"):
            name, _, text = tag[2].partition(" ")
            lines += [".TP", italic(name), with_code(text.strip())]
        elif tag:
            lines += [".TP", italic({"return": "Returns", "throws": "Throws"}[tag[1]]), with_code(tag[2])]
        else:
            lines.append(with_code(line.strip()) or ".PP")
    return lines


def library_page(documents, version):
    readme = documents.sections("README.md")
    text = documents.read("src/busmaster/BusMaster.h")
    about = re.search(r"((?:^///.*\n)+)class NIMBREL2_API BusMaster", text, re.M)[1]
    lines = [*header("nimbrel2(3)", version),
             ".SH NAME", r"nimbrel2 \- finds and watches machine\-vision cameras on IEEE 1394, USB and GigE",
             ".SH SYNOPSIS", *literal(["#include <busmaster/BusMaster.h>", "",
                                       "g++ -std=c++17 program.cpp $(pkg-config --cflags --libs nimbrel2)"]),
             ".SH DESCRIPTION", *comment_as_roff([line[3:].removeprefix(" ") for line in about.splitlines()]),
             ".SH A PROGRAM", *documents.as_roff(readme["A program"]),
             ".SH OPERATIONS"]
    shown = None
    for heading, comment, declarations in operations(text):
        if heading and heading != shown:
            lines.append(f".SS {escaped(heading)}")
            shown = heading
        lines += [".PP", *literal(declarations), ".RS", *comment_as_roff(comment), ".RE"]
    return lines + [".SH WHAT IT DOES NOT DO", *documents.as_roff(readme["What it does not do"]),
                    *see_also("nimbrel(1)", "nimbrel-rig(5)")]


def main():
    program = json.loads(pathlib.Path(sys.argv[1]).read_text())
    documents, version, output = Documents(pathlib.Path(sys.argv[2]), sys.argv[4]), sys.argv[3], pathlib.Path(sys.argv[5])
    pages = {"nimbrel.1": program_page(program, documents, version), "nimbrel-rig.5": rig_page(documents, version),
             "nimbrel2.3": library_page(documents, version)}
    for command in program["commands"]:
        pages[f"nimbrel-{command['name']}.1"] = command_page(command, documents, version)
    # Pages of commands that are no more would be installed too.
    shutil.rmtree(output, ignore_errors=True)
    for name, lines in pages.items():
        folder = output / f"man{name[-1]}"
        folder.mkdir(parents=True, exist_ok=True)
        (folder / name).write_text("\n".join(lines) + "\n")


main()
