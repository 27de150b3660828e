#!/usr/bin/env python3
"""The device build, checked where no device build can run.

1. Every C++ source that Android.bp lists compiles with clang against the
   platform's own headers (Debian's packages of libbinder, libutils, libcutils,
   liblog and libbase) with the defines of a vendor build on Android 15, never
   against platform/host/. Debian packages an older platform release than
   Android 15, so what changed in those libraries since is not seen here.
   A module's sources see its local_include_dirs; GoogleTest's headers come
   from Debian's packages, which have the platform googletest's API.
2. Android.bp and the CMake build agree on the sources of each binary, through
   their static libraries, and the device test module agrees with the CMake
   unit tests it mirrors (the targets in the folder named below). CMake's side
   comes from its file API (codemodel-v2), so it is what CMake really builds,
   not a reading of CMakeLists.txt.

Usage: check_device.py REPO_ROOT CMAKE_BUILD_DIR
"""
import concurrent.futures
import json
import os
import re
import subprocess
import sys

BINARIES = ("probemond", "probemonctl")
# Device test module -> the FOLDER of the CMake unit-test targets it mirrors.
TEST_MODULES = {"probemond_unit_test": "device-tests"}
CXX_EXT = (".cpp", ".cc", ".cxx")
PLATFORM_INCLUDE = "/usr/include/android"
# A vendor module on Android 15 is built with these; 202404 is that release's
# vendor API level.
VENDOR_DEFINES = ["-D__ANDROID_VNDK__", "-D__ANDROID_VENDOR__", "-D__ANDROID_VENDOR_API__=202404"]
CLANG_FLAGS = ["-std=c++17", "-fsyntax-only", "-fno-exceptions", "-Wall", "-Wextra", "-Werror"] + VENDOR_DEFINES
HEADERS_PACKAGE = "android-platform-frameworks-native-headers"
# Host stand-ins for the platform: CMake builds them, a device never does.
HOST_ONLY = "platform/host/"


def fail(msg):
    sys.stdout.flush()
    print(f"check-device: {msg}", file=sys.stderr)
    sys.exit(1)


# ---- Android.bp: the Blueprint subset a module file uses -------------------
TOKEN = re.compile(r'\s+|//[^\n]*|/\*.*?\*/|"(?:[^"\\]|\\.)*"|[A-Za-z_][A-Za-z0-9_]*|-?\d+|[{}\[\]:,=+()]',
                   re.S)


def tokens(text):
    pos = 0
    out = []
    while pos < len(text):
        m = TOKEN.match(text, pos)
        if not m:
            line = text.count("\n", 0, pos) + 1
            fail(f"Android.bp:{line}: cannot read {text[pos:pos + 20]!r}")
        tok = m.group(0)
        pos = m.end()
        if not (tok.isspace() or tok.startswith("//") or tok.startswith("/*")):
            out.append(tok)
    return out


class Blueprint:
    def __init__(self, text):
        self.toks = tokens(text)
        self.i = 0
        self.vars = {}
        self.modules = []  # (type, {property: value})
        while self.i < len(self.toks):
            ident = self.take()
            if self.peek() == "=":
                self.take()
                self.vars[ident] = self.value()
            elif self.peek() == "+" and self.toks[self.i + 1] == "=":
                self.i += 2
                self.vars[ident] = self.vars[ident] + self.value()
            else:
                self.modules.append((ident, self.map_value()))

    def peek(self):
        return self.toks[self.i] if self.i < len(self.toks) else None

    def take(self, want=None):
        tok = self.peek()
        if tok is None or (want is not None and tok != want):
            fail(f"Android.bp: expected {want or 'more'} near token {self.i}, found {tok!r}")
        self.i += 1
        return tok

    def map_value(self):
        self.take("{")
        props = {}
        while self.peek() != "}":
            key = self.take()
            self.take(":")
            props[key] = self.value()
            if self.peek() == ",":
                self.take()
        self.take("}")
        return props

    def value(self):
        v = self.operand()
        while self.peek() == "+":
            self.take()
            v = v + self.operand()
        return v

    def operand(self):
        tok = self.peek()
        if tok == "{":
            return self.map_value()
        if tok == "[":
            self.take()
            items = []
            while self.peek() != "]":
                items.append(self.value())
                if self.peek() == ",":
                    self.take()
            self.take("]")
            return items
        self.take()
        if tok.startswith('"'):
            return json.loads(tok)
        if tok in ("true", "false"):
            return tok == "true"
        if re.fullmatch(r"-?\d+", tok):
            return int(tok)
        if tok in self.vars:
            return self.vars[tok]
        fail(f"Android.bp: unknown value {tok!r}")


def bp_sources(bp):
    """Each C++ source with its module's include folders, and each binary's and
    test module's sources through defaults and static libraries."""
    by_name = {props["name"]: (kind, props) for kind, props in bp.modules if "name" in props}

    def prop(name, key, seen=()):
        kind, props = by_name[name]
        values = list(props.get(key, []))
        for d in props.get("defaults", []):
            if d not in seen:
                values += prop(d, key, seen + (name,))
        return values

    def closure(name, seen):
        if name in seen:
            return set()
        seen.add(name)
        srcs = set(prop(name, "srcs"))
        for lib in prop(name, "static_libs") + prop(name, "whole_static_libs"):
            if lib in by_name:
                srcs |= closure(lib, seen)
        return srcs

    every = {}
    for kind, props in bp.modules:
        if kind.startswith("cc_") and "name" in props:
            includes = prop(props["name"], "local_include_dirs")
            for s in props.get("srcs", []):
                if s.endswith(CXX_EXT) and s not in every:
                    every[s] = includes
    per_binary = {}
    for b in BINARIES + tuple(TEST_MODULES):
        if b not in by_name:
            fail(f"Android.bp has no module {b}")
        per_binary[b] = {s for s in closure(b, set()) if s.endswith(CXX_EXT)}
    return every, per_binary


# ---- CMake: codemodel-v2 reply of the file API ------------------------------
def cmake_sources(root, build):
    query = os.path.join(build, ".cmake", "api", "v1", "query", "codemodel-v2")
    os.makedirs(os.path.dirname(query), exist_ok=True)
    open(query, "a").close()
    gen = ["-G", "Ninja"] if subprocess.run(["sh", "-c", "command -v ninja"],
                                            capture_output=True).returncode == 0 else []
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        cmd = ["cmake", "-S", root, "-B", build] + gen
    else:
        cmd = ["cmake", build]
    r = subprocess.run(cmd, capture_output=True, text=True)
    if r.returncode != 0:
        fail("cmake configure failed:\n" + r.stdout + r.stderr)
    reply = os.path.join(build, ".cmake", "api", "v1", "reply")
    index = sorted(f for f in os.listdir(reply) if f.startswith("index-"))[-1]
    with open(os.path.join(reply, index)) as f:
        idx = json.load(f)
    cm_file = idx["reply"]["codemodel-v2"]["jsonFile"]
    with open(os.path.join(reply, cm_file)) as f:
        cm = json.load(f)
    targets = {}
    for t in cm["configurations"][0]["targets"]:
        with open(os.path.join(reply, t["jsonFile"])) as f:
            targets[t["id"]] = json.load(f)
    by_name = {t["name"]: t for t in targets.values()}

    def own(t):
        return {s["path"] for s in t.get("sources", [])
                if not s.get("isGenerated") and s["path"].endswith(CXX_EXT)
                and not s["path"].startswith(HOST_ONLY)}

    def closure(t, seen):
        if t["id"] in seen:
            return set()
        seen.add(t["id"])
        srcs = own(t)
        for dep in t.get("dependencies", []):
            d = targets[dep["id"]]
            if d["type"] == "STATIC_LIBRARY":
                srcs |= closure(d, seen)
        return srcs

    per_binary = {}
    for b in BINARIES:
        if b not in by_name:
            fail(f"CMake builds no target {b}")
        per_binary[b] = closure(by_name[b], set())
    for module, folder in TEST_MODULES.items():
        mirrored = [t for t in targets.values() if t.get("folder", {}).get("name") == folder]
        if not mirrored:
            fail(f"CMake has no target in folder {folder} for {module}")
        seen = set()
        per_binary[module] = set().union(*(closure(t, seen) for t in mirrored))
    return per_binary


def compile_one(root, src, includes):
    # -H lists every header read: none may come from the host stand-ins.
    local = [arg for d in includes for arg in ("-I", os.path.join(root, d))]
    cmd = (["clang++"] + CLANG_FLAGS +
           ["-H", "-include", os.path.join(root, "device/check/parcel-includes.h")] + local +
           ["-I", os.path.join(root, "device/check/shim"), "-I", PLATFORM_INCLUDE,
            os.path.join(root, src)])
    r = subprocess.run(cmd, capture_output=True, text=True, cwd=root)
    headers = [ln.lstrip(". ") for ln in r.stderr.splitlines() if re.match(r"\.+ ", ln)]
    diagnostics = "".join(ln + "\n" for ln in r.stderr.splitlines() if not re.match(r"\.+ ", ln))
    host = [h for h in headers if "/" + HOST_ONLY in os.path.abspath(h)]
    if host:
        return src, 1, diagnostics + "".join(f"reads the host stand-in {h}\n" for h in host)
    return src, r.returncode, diagnostics


def main():
    root, build = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    with open(os.path.join(root, "Android.bp")) as f:
        bp = Blueprint(f.read())
    every, bp_bins = bp_sources(bp)
    if not every:
        fail("Android.bp lists no C++ source")
    ok = True

    cm_bins = cmake_sources(root, build)
    for b in BINARIES + tuple(TEST_MODULES):
        only_bp = sorted(bp_bins[b] - cm_bins[b])
        only_cm = sorted(cm_bins[b] - bp_bins[b])
        cmake_side = (f"the CMake unit tests marked DEVICE (folder {TEST_MODULES[b]})"
                      if b in TEST_MODULES else "the CMake build")
        for s in only_bp:
            print(f"{b}: {s} is in Android.bp, not in {cmake_side}")
        for s in only_cm:
            print(f"{b}: {s} is in {cmake_side}, not in Android.bp")
        if only_bp or only_cm:
            ok = False
        else:
            print(f"{b}: Android.bp and CMake agree on {len(bp_bins[b])} sources")

    version = subprocess.run(["dpkg-query", "-W", "-f=${Version}", HEADERS_PACKAGE],
                             capture_output=True, text=True).stdout.strip() or "not installed"
    print(f"platform headers: Debian's {HEADERS_PACKAGE} {version}, an older release than Android 15; "
          f"vendor defines: {' '.join(VENDOR_DEFINES)}")
    failed = []
    missing = [s for s in every if not os.path.isfile(os.path.join(root, s))]
    for s in missing:
        print(f"{s}: listed in Android.bp, no such file")
    with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count() or 2) as pool:
        for src, rc, err in pool.map(lambda s: compile_one(root, s, every[s]),
                                     [s for s in every if s not in missing]):
            if rc != 0:
                failed.append(src)
                print(f"{src}: does not compile against the platform headers\n{err}", end="")
    compiled = len(every) - len(missing)
    print(f"{compiled - len(failed)} of {compiled} Android.bp sources compile against the platform headers")
    if failed or missing or not ok:
        fail("FAILED")
    print("check-device: ok")


if __name__ == "__main__":
    main()
