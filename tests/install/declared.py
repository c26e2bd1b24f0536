#!/usr/bin/python3
"""Prints the functions and extern variables that the headers in INCDIR
declare without defining, one qualified name per line, from clang's JSON
syntax tree of a file that includes them:

    clang++ -fsyntax-only -Xclang -ast-dump=json ... | declared.py INCDIR
"""
import json
import os
import sys

incdir = os.path.realpath(sys.argv[1]) + os.sep
names = set()
current_file = None  # clang names a node's file only where it changes


def file_of(node):
    loc = node.get("loc", {})
    for where in (loc, loc.get("expansionLoc", {}), loc.get("spellingLoc", {})):
        if "file" in where:
            return where["file"]
    return None


def walk(node, scope):
    global current_file
    current_file = file_of(node) or current_file
    kind = node.get("kind")
    inner = node.get("inner", [])
    ours = current_file is not None and os.path.realpath(current_file).startswith(incdir)
    if kind == "FunctionDecl":
        defined = any(c.get("kind") == "CompoundStmt" for c in inner)
        if ours and not defined and not node.get("inline") and node.get("storageClass") != "static":
            names.add("::".join(scope + [node["name"]]))
    elif kind == "VarDecl":
        if ours and node.get("storageClass") == "extern" and "init" not in node:
            names.add("::".join(scope + [node["name"]]))
    elif kind in ("TranslationUnitDecl", "LinkageSpecDecl", "NamespaceDecl"):
        named = kind == "NamespaceDecl" and node.get("name")
        for child in inner:
            walk(child, scope + [node["name"]] if named else scope)


walk(json.load(sys.stdin), [])
print("\n".join(sorted(names)))
