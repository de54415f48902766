#!/usr/bin/env python3
"""Checks the include graph against the layers: every #include "folder/..." in a module's sources
must name the module's own folder or a folder of a module it uses (directly or through others),
and no module may use one of a higher layer. Storage stays below the domain: only modules of the
card layer and above may use the token store, directly or through others, and only the token store
links SQLite. The modules, their layers, their uses and their libraries are read from the
keyloft_module() calls of the CMakeLists.txt files. Outside platform/, no source may
include a third-party library's header, itself or through the project headers it includes: those
libraries are reached only through platform/. clang-tidy's header filter must take in every folder.
Exits 1 and lists each violation."""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
LAYERS = ["base", "platform", "formats", "card", "top"]
CALL = re.compile(r"keyloft_module\((\w+)(.*?)\)", re.S)
# Modules only the given layer and those above may use, directly or through others.
USED_FROM = {"platform_token_store": "card"}
# Libraries only the given module may link.
LINKED_ONLY_BY = {"SQLite::SQLite3": "platform_token_store"}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)
# OpenSSL, tpm2-tss, SQLite, ICU, PAM, sd-bus and GLib. The PKCS#11 header is the module's own
# interface, not a library's, and stays allowed.
THIRD_PARTY = re.compile(
    r'^\s*#\s*include\s+<((?:openssl|tss2|unicode|security|systemd|gio|glib)/[^>]+|'
    r'sqlite3\.h|glib\.h)>', re.M)


def third_party_reached(source, found, stack=()):
    """The first third-party header that source includes, itself or through project headers, and
    the chain of project headers that leads to it; None when there is none."""
    if source in found:
        return found[source]
    text = (ROOT / source).read_text()
    reached = None
    direct = THIRD_PARTY.search(text)
    if direct:
        reached = (direct.group(1), [])
    else:
        for header in INCLUDE.findall(text):
            if header in stack or not (ROOT / header).is_file():
                continue
            below = third_party_reached(header, found, stack + (source,))
            if below:
                reached = (below[0], [header] + below[1])
                break
    found[source] = reached
    return reached


def modules():
    found = {}
    for lists in sorted(ROOT.glob("**/CMakeLists.txt")):
        if any(part.startswith("build") for part in lists.relative_to(ROOT).parts):
            continue
        for name, arguments in CALL.findall(lists.read_text()):
            words = arguments.split()
            layer = words[words.index("LAYER") + 1]
            found[name] = (lists.parent.relative_to(ROOT).as_posix(), layer,
                           words_after(words, "DEPENDS"), words_after(words, "LIBRARIES"))
    return found


def words_after(words, keyword):
    """The words of one keyword's list in a keyloft_module() call."""
    if keyword not in words:
        return []
    listed = []
    for word in words[words.index(keyword) + 1:]:
        if word in ("DEPENDS", "LIBRARIES", "EXCLUDE", "LAYER"):
            break
        listed.append(word)
    return listed


def main():
    table = modules()
    folder_of = {name: folder for name, (folder, _, _, _) in table.items()}
    problems = []

    def reach(name, seen):
        for used in table[name][2]:
            if used not in seen:
                seen.add(used)
                if used in table:
                    reach(used, seen)
        return seen

    reached = {}
    for name, (folder, layer, uses, libraries) in table.items():
        rank = LAYERS.index(layer)
        reachable = reach(name, set())
        for restricted, lowest in USED_FROM.items():
            if restricted in reachable and rank < LAYERS.index(lowest):
                problems.append(f"{folder} ({layer}) uses {folder_of.get(restricted, restricted)}, "
                                f"which only the {lowest} layer and above may use")
        for library in libraries:
            if LINKED_ONLY_BY.get(library, name) != name:
                problems.append(f"{folder} links {library}, which only "
                                f"{folder_of.get(LINKED_ONLY_BY[library])} may link")
        for used in uses:
            if used not in table:
                problems.append(f"{folder}: uses unknown module {used}")
                continue
            used_rank = LAYERS.index(table[used][1])
            if used_rank > rank or (used_rank == rank and layer == "top"):
                problems.append(f"{folder} ({layer}) uses {folder_of[used]} ({table[used][1]})")
        visible = {folder} | {folder_of[used] for used in reachable if used in table}
        for source in sorted((ROOT / folder).glob("*.?pp")):
            for header in INCLUDE.findall(source.read_text()):
                header_folder = header.rsplit("/", 1)[0] if "/" in header else ""
                if header_folder not in visible:
                    problems.append(f"{source.relative_to(ROOT)} includes {header}, "
                                    f"which {folder} ({layer}) does not use")
            if layer == "platform":
                continue
            third_party = third_party_reached(source.relative_to(ROOT).as_posix(), reached)
            if third_party:
                header, chain = third_party
                through = f" through {' -> '.join(chain)}" if chain else ""
                problems.append(f"{source.relative_to(ROOT)} includes <{header}>{through}; "
                                f"third-party headers stay in platform/")
    # clang-tidy reports on the headers of every folder, tests and benchmarks included.
    tidy = re.search(r"^HeaderFilterRegex:\s*'([^']*)'", (ROOT / ".clang-tidy").read_text(), re.M)
    for top in sorted({folder.split("/")[0] for folder in folder_of.values()} | {"tests", "bench"}):
        if not tidy or not re.search(tidy.group(1), f"{ROOT}/{top}/header.hpp"):
            problems.append(f".clang-tidy: HeaderFilterRegex leaves out {top}/")
    for problem in problems:
        print(problem)
    print(f"{len(table)} modules checked, {len(problems)} layer violations")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
