#!/usr/bin/env python3
"""Prints docs/interface.md: the headers' comments, with the compiler's offsets.

usage: docs/interface.py BUILD_DIRECTORY >docs/interface.md

Declarations and their places come from clang's syntax tree, comments from the lines above them (or
behind them, for fields), offsets from two compilations, for the target and for this machine's kind.
BUILD_DIRECTORY is any build of the project: the headers of the HIDL interface are generated there.
"""
import json
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HEADERS = """
    mculink/frame.h mculink/request.h mculink/uart.h
    config/config_info.h
    isp/serial_port.h isp/boot_loader.h isp/boot_mode.h isp/firmware_file.h isp/isp_tasks.h
    isp/n32_upgrade.h isp/mcu_update.h
    fpga/spi_link.h fpga/flash_update.h fpga/ddr_recovery.h fpga/network_bring_up.h
    fpga/screen/screen_params.h fpga/screen/screen_blocks.h fpga/screen/screen_passes.h
    fpga/screen/screen_fixed.h fpga/screen/net_gap.h fpga/load_process.h
    selftest/self_test.h
    service/tclv_msg.h service/quil_service_manager.h service/quil_service_callback.h
    service/control_manager.h
""".split()
# Of a C++ header only what this matches is dumped: the whole tree would have the platform's, too.
CXX_NAMES = {"service/control_manager.h": "ControlManager"}
CXX_DEFAULT = "quilservicemanager::implementation"
TARGETS = ("armv7a-linux-androideabi33", "x86_64-linux-gnu")

PREFACE = """\
# Interface

What leaves `quil.hardware.quilservicemanager@1.0-impl.so`: the C functions and data that the board's
other components link against, the records they share, and the service's classes. `quil.map` is the
whole list. This page is generated from the headers' comments: `docs/interface.py build/dev
>docs/interface.md`.

For all of it:

- The headers are C11 and C++17, those below `service/` C++17 only. They install below
  `include/quil`; `#include <mculink/request.h>`.
- Loading the library has no effect: no thread, no timer, no constructor.
- Results are signed 32-bit: 0, or a count, for success, a negative number for failure, where an entry
  does not say otherwise. Nothing throws; `errno` is not part of a result.
- Texts are NUL-terminated. Sizes are in bytes, baud rates in bit/s. A null pointer is refused only where
  an entry says so.
- Failures are told in the platform's log, most of them at level E and under the function's name. The UART
  and the frame builders print to standard output instead. Level I and D lines come only when the property
  `persist.quil.device.log.level` starts with `I` or `D`; it is read before each message.
- Functions of the boot (programming, update, FPGA) block their caller and run on the host's start-up
  thread, one after the other.
- Offsets of records are in bytes, on the target (32-bit ARM) and on a 64-bit workstation."""


def output_of(*command, **options):
    run = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False, **options)
    if run.returncode != 0:
        sys.exit("failed: " + " ".join(command))
    return run.stdout


class Compiler:
    def __init__(self, build):
        self.includes = ["-I" + ROOT]
        for folder in (os.path.join(build, "hidl"), "platform/linux/include", "/usr/include/android"):
            self.includes += ["-isystem", os.path.join(ROOT, folder)]

    def syntax_trees(self, header):
        """The nodes of a header: all of them in C, those of its own names in C++."""
        command = ["clang++", "-fsyntax-only", "-Wno-pragma-once-outside-header", *self.includes]
        if header.startswith("service/"):
            name = CXX_NAMES.get(header, CXX_DEFAULT)
            command += ["-x", "c++", "-std=c++17", "-Xclang", "-ast-dump-filter=" + name]
        else:
            command += ["-x", "c", "-std=c11"]
        text = output_of(*command, "-Xclang", "-ast-dump=json", os.path.join(ROOT, header))
        decoder, at = json.JSONDecoder(), text.find("{")
        while at >= 0:
            tree, at = decoder.raw_decode(text, at)
            yield tree
            at = text.find("{", at)

    def offsets(self, records):
        """For each record its fields' offsets and its size, a list for each target."""
        source = "".join('#include "%s"\n' % header for header in HEADERS if not is_class(header))
        source += "#include <stddef.h>\nusing namespace quil::hardware::%s;\n" % CXX_DEFAULT
        for name, fields in records:
            values = ["offsetof(%s, %s)" % (name, field) for field in fields] + ["sizeof(%s)" % name]
            source += "extern const unsigned long long of_%s[] = {%s};\n" % (name, ", ".join(values))
        found = [re.findall(r"@of_(\w+) = .*?\[(i64 [^]]*)\]", text.replace(" x i64]", "")) for text in
                 (self.compile_for(target, source) for target in TARGETS)]
        return [{name: [int(value.split()[1]) for value in values.split(",")]
                 for name, values in rows} for rows in found]

    def compile_for(self, target, source):
        # The C library's headers are this machine's: what they lack for another one is a list of
        # functions that it has not got.
        searched = output_of("clang++", "-v", "-E", "-x", "c++", os.devnull, stderr=subprocess.STDOUT)
        folders = re.findall(r"^ (/\S+)$", searched, re.M)
        with tempfile.TemporaryDirectory() as scratch:
            os.mkdir(os.path.join(scratch, "gnu"))
            open(os.path.join(scratch, "gnu", "stubs-32.h"), "w").close()
            system = [word for folder in folders + [scratch] for word in ("-isystem", folder)]
            return output_of("clang++", "--target=" + target, "-std=c++17", "-nostdinc", *self.includes,
                             *system, "-Wno-invalid-offsetof", "-S", "-emit-llvm", "-x", "c++", "-o", "-",
                             "-", input=source)


def is_class(header):
    return header.startswith("service/") and not header.endswith("tclv_msg.h")


class Header:
    """The text of a header, and what of the syntax tree stands in it."""

    def __init__(self, name, trees):
        self.name = name
        self.path = os.path.join(ROOT, name)
        with open(self.path, encoding="utf-8") as file:
            self.text = file.read()
        self.lines = self.text.splitlines()
        self.file = ""  # the tree names a file only where it changes
        self.nodes = []
        for tree in trees:
            self.file = ""
            self.locate(tree)
            self.gather(tree)

    def locate(self, node):
        """Gives each node of a tree the begin and the end that it has in this header, if it has."""
        places = [self.place(node["loc"]) if "loc" in node else None]
        for end in ("begin", "end"):
            places.append(self.place(node.get("range", {}).get(end, {})))
        node["begin"], node["finish"] = places[1], places[2]
        for child in node.get("inner", []):
            self.locate(child)

    def place(self, location):
        for part in ("spellingLoc", "expansionLoc"):
            if part in location:
                found = self.place(location[part])
        if "expansionLoc" in location:
            return found
        self.file = location.get("file", self.file)
        if self.file != self.path or "offset" not in location:
            return None
        return location["offset"], location["offset"] + location["tokLen"]

    def gather(self, node):
        if node["kind"] == "CXXRecordDecl":  # dumped by its name
            self.nodes.append(node)
            return
        for child in node.get("inner", []):
            if child["kind"] in ("NamespaceDecl", "LinkageSpecDecl"):
                self.gather(child)
            elif child.get("begin") and child.get("finish"):
                self.nodes.append(child)

    def line_of(self, offset):
        return self.text.count("\n", 0, offset)

    def declaration(self, node):
        """As it stands in the header, without what only the compiler needs."""
        text = self.text[node["begin"][0]:node["finish"][1]].replace("QUIL_EXPORT ", "") + ";"
        if node["kind"] == "EnumDecl":
            return text
        text = re.sub(r"\( ", "(", " ".join(text.split()))
        if len(text) <= 100:
            return text
        indent = text.index("(") + 1
        rows, row = [], ""
        for argument in re.split(r"(?<=,) ", text):
            longer = (row + " " + argument).strip() if row else argument
            if row and len(longer) + (indent if rows else 0) > 100:
                rows.append(row)
                longer = argument
            row = longer
        return ("\n" + " " * indent).join(rows + [row])

    def comment_above(self, node):
        line = last = self.line_of(node["begin"][0])
        while line > 0 and self.lines[line - 1].lstrip().startswith("//"):
            line -= 1
        return self.prose(self.lines[line:last])

    def comment_behind(self, node):
        return re.sub(r"^[^/]*;\s*(// )?", "", self.lines[self.line_of(node["begin"][0])])

    def comment_of_file(self):
        count = next(at for at, line in enumerate(self.lines) if not line.startswith("//"))
        return self.prose(self.lines[:count])

    @staticmethod
    def prose(lines):
        """Comment lines as text; drawings, which are indented, stay as they are."""
        texts = [re.sub(r"^\s*// ?", "", line) for line in lines if "NOLINT" not in line]
        rows, drawing = [], False
        for at, text in enumerate(texts):
            if text.startswith("  ") != drawing and (text or drawing):
                if not (drawing and not text and at + 1 < len(texts) and texts[at + 1].startswith("  ")):
                    drawing = not drawing
                    rows.append("```")
            rows.append(text)
        return "\n".join(rows + (["```"] if drawing else []))


class Page:
    def __init__(self, compiler):
        self.parts = [PREFACE]
        headers = [Header(name, compiler.syntax_trees(name)) for name in HEADERS]
        records = [(self.typedef_name(header, node), [field["name"] for field in self.fields(node)])
                   for header in headers if not is_class(header.name)
                   for node in header.nodes if self.fields(node)]
        self.offsets = compiler.offsets(records)
        for header in headers:
            self.parts.append("## %s\n\n%s" % (header.name, header.comment_of_file()))
            self.add_entries(header)

    @staticmethod
    def fields(node):
        return [child for child in node.get("inner", []) if child["kind"] == "FieldDecl"]

    @staticmethod
    def typedef_name(header, record):
        for node in header.nodes:
            if node["kind"] == "TypedefDecl" and node["begin"][0] <= record["begin"][0] < node["finish"][0]:
                return node["name"]
        return record["name"]

    def add_entries(self, header):
        group = []
        for node in header.nodes:
            kind, text = node["kind"], header.text[node["begin"][0]:node["finish"][1]]
            if kind in ("RecordDecl", "CXXRecordDecl"):
                self.add_group(header, group)
                if is_class(header.name):
                    self.add_class(header, node)
                elif node.get("completeDefinition"):
                    self.add_record(header, node)
            elif kind in ("FunctionDecl", "VarDecl") and "QUIL_EXPORT" in text or \
                    kind == "TypedefDecl" and "struct" not in text or kind == "EnumDecl":
                if header.comment_above(node):
                    self.add_group(header, group)
                group.append(node)
        self.add_group(header, group)

    def add_group(self, header, group, level="###"):
        """An entry: a commented declaration and those that follow it without a comment."""
        if not group:
            return
        comment = header.comment_above(group[0])
        if not comment:
            sys.exit("%s: %s has no comment" % (header.name, group[0]["name"]))
        code = "\n".join(header.declaration(node) for node in group)
        names = ", ".join(node["name"] for node in group)
        language = "cpp" if header.name.startswith("service/") else "c"
        self.parts.append("%s %s\n\n```%s\n%s\n```\n\n%s" % (level, names, language, code, comment))
        group.clear()

    def add_record(self, header, node):
        name = self.typedef_name(header, node)
        rows = ["| Field | ARM | 64-bit | Type | Meaning |", "|---|---|---|---|---|"]
        columns = [target[name] for target in self.offsets]
        for at, field in enumerate(self.fields(node)):
            rows.append("| `%s` | %d | %d | `%s` | %s |" % (
                field["name"], columns[0][at], columns[1][at],
                field["type"]["qualType"].replace(" *", "*"),
                header.comment_behind(field)))
        rows.append("| size | %d | %d | | |" % (columns[0][-1], columns[1][-1]))
        comment = header.comment_above(node)
        if not comment:
            sys.exit("%s: %s has no comment" % (header.name, name))
        self.parts.append("### %s\n\n%s\n\n%s" % (name, comment, "\n".join(rows)))

    def add_class(self, header, node):
        self.parts.append(("### %s\n\n%s" % (node["name"], header.comment_above(node))).rstrip())
        access, group, members = "private", [], []
        for child in node.get("inner", []):
            if child["kind"] == "AccessSpecDecl":
                access = child["access"]
            elif access == "public" and not child.get("isImplicit") and child.get("begin"):
                if header.comment_above(child):
                    self.add_group(header, group, "####")
                group.append(child)
            elif access == "protected" and child["kind"] == "FieldDecl":
                members.append(header.lines[header.line_of(child["begin"][0])].strip())
                behind = child
        self.add_group(header, group, "####")
        if members:
            self.parts.append("#### Members\n\n```cpp\n%s\n```\n\nThey keep this order." % "\n".join(members))

    def text(self):
        return "\n\n".join(self.parts) + "\n"


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    sys.stdout.write(Page(Compiler(os.path.abspath(sys.argv[1]))).text())


if __name__ == "__main__":
    main()
