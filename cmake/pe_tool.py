#!/usr/bin/env python3
"""Post-link tool for Sentrel.sys.

  pe_tool.py checksum FILE [--force-integrity]
      Computes the PE image checksum and writes it into the optional header in place. lld leaves
      the field at 0; the kernel loader wants a correct one for drivers. With --force-integrity it
      first sets IMAGE_DLLCHARACTERISTICS_FORCE_INTEGRITY (what /INTEGRITYCHECK does; this lld has
      no option for it): the kernel refuses some registrations (extended process notifications)
      from images without it.

  pe_tool.py check FILE --map MAPFILE [--allow-dll NAME]...
      Verifies that FILE is a loadable x64 kernel driver and prints one line per check:
        format               PE32+ image for AMD64
        subsystem            native
        map                  the map file describes this image (same sections at the same RVAs)
        entry                AddressOfEntryPoint is DriverEntry (address taken from the map file)
        checksum             stored checksum is non-zero and correct
        imports              every imported DLL is allowed (no delay-load imports at all)
        static-constructors  no dynamic initializers were linked in (they would never run)
        tls                  no thread-local storage
        sections             no section is both writable and executable
        integrity            (with --require-integrity) FORCE_INTEGRITY is set
      With --import-versions TABLE --oldest-windows VERSION, also:
        windows-version      every imported routine is in TABLE (the first Windows whose kernel
                             exports it) and no newer than VERSION; "unclear" counts as newer
      Exit status: 0 all checks passed, 1 some check failed, 2 the files could not be read.

  pe_tool.py program FILE [--allow-dll NAME]...
      Verifies a user-mode program: PE32+ for AMD64, console subsystem, imports only from the
      allowed DLLs (no delay-load imports). Same output and exit status as check.

The map file may come from lld (-Wl,-Map with the mingw driver: RVAs, one input section per line as
"file:(section)") or from GNU ld (virtual addresses, the linker script's layout).
"""

import argparse
import os
import re
import struct
import sys

DEFAULT_ALLOWED_DLLS = ("ntoskrnl.exe", "HAL.dll", "ksecdd.sys")

IMAGE_FILE_MACHINE_AMD64 = 0x8664
PE32PLUS_MAGIC = 0x20B
IMAGE_SUBSYSTEM_NATIVE = 1
IMAGE_SCN_MEM_EXECUTE = 0x20000000
IMAGE_SCN_MEM_WRITE = 0x80000000
DIR_IMPORT = 1
DIR_TLS = 9
DIR_DELAY_IMPORT = 13

# Input sections through which a C or C++ toolchain arranges for code to run before the entry point
# (clang and gcc for mingw emit .ctors and .ctors.NNNNN; the MSVC ABI uses .CRT$XC*/.CRT$XI*;
# ELF-style toolchains .init_array), and the sections that make up thread-local storage.
STATIC_INIT_SECTION = re.compile(r"^(\.ctors(\.\d+)?|\.ctor|\.init_array(\.\d+)?|\.CRT\$X[CI].*)$")
TLS_SECTION = re.compile(r"^(\.tls(\$.*)?|\.CRT\$XL.*)$")


class PeError(Exception):
    """The file is not something this tool can read."""


class Section:
    def __init__(self, name, vsize, rva, raw_size, raw_offset, flags):
        self.name, self.vsize, self.rva = name, vsize, rva
        self.raw_size, self.raw_offset, self.flags = raw_size, raw_offset, flags


class PeImage:
    def __init__(self, data):
        self.data = data
        if len(data) < 0x40 or data[:2] != b"MZ":
            raise PeError("no MZ header")
        self.pe_offset = struct.unpack_from("<I", data, 0x3C)[0]
        if self.pe_offset + 24 > len(data) or data[self.pe_offset:self.pe_offset + 4] != b"PE\0\0":
            raise PeError("no PE signature")
        fh = self.pe_offset + 4
        (self.machine, nsections, _, self.symtab_offset, self.nsymbols, opt_size,
         self.characteristics) = struct.unpack_from("<HHIIIHH", data, fh)
        self.opt_offset = fh + 20
        if opt_size < 2 or self.opt_offset + opt_size > len(data):
            raise PeError("truncated optional header")
        self.magic = struct.unpack_from("<H", data, self.opt_offset)[0]
        self.checksum_offset = self.opt_offset + 64  # same place in PE32 and PE32+
        self.checksum = struct.unpack_from("<I", data, self.checksum_offset)[0]
        self.sections = []
        sec_table = self.opt_offset + opt_size
        if sec_table + 40 * nsections > len(data):
            raise PeError("truncated section table")
        for i in range(nsections):
            raw_name, vsize, rva, raw_size, raw_offset = struct.unpack_from("<8sIIII", data, sec_table + 40 * i)
            flags = struct.unpack_from("<I", data, sec_table + 40 * i + 36)[0]
            name = raw_name.rstrip(b"\0").decode("ascii", "replace")
            if name.startswith("/"):  # long name, stored in the COFF string table
                try:
                    name = self._coff_string(int(name[1:]))
                except (ValueError, PeError):
                    pass
            self.sections.append(Section(name, vsize, rva, raw_size, raw_offset, flags))
        if self.magic != PE32PLUS_MAGIC:
            return  # check_format reports it; nothing below is meaningful for PE32
        if opt_size < 112:
            raise PeError("truncated PE32+ optional header")
        self.entry_rva = struct.unpack_from("<I", data, self.opt_offset + 16)[0]
        self.image_base = struct.unpack_from("<Q", data, self.opt_offset + 24)[0]
        self.subsystem, self.dll_characteristics = struct.unpack_from("<HH", data, self.opt_offset + 68)
        ndirs = struct.unpack_from("<I", data, self.opt_offset + 108)[0]
        ndirs = min(ndirs, (opt_size - 112) // 8)
        self.directories = [struct.unpack_from("<II", data, self.opt_offset + 112 + 8 * i) for i in range(ndirs)]

    def directory(self, index):
        return self.directories[index] if index < len(self.directories) else (0, 0)

    def rva_to_offset(self, rva):
        for s in self.sections:
            if s.rva <= rva < s.rva + max(s.vsize, s.raw_size):
                if rva - s.rva >= s.raw_size:
                    raise PeError("RVA 0x%x is in uninitialised data of %s" % (rva, s.name))
                return s.raw_offset + (rva - s.rva)
        raise PeError("RVA 0x%x is outside every section" % rva)

    def c_string(self, rva):
        off = self.rva_to_offset(rva)
        end = self.data.find(b"\0", off)
        if end < 0:
            raise PeError("unterminated string at RVA 0x%x" % rva)
        return self.data[off:end].decode("ascii", "replace")

    def _coff_string(self, offset):
        if not self.symtab_offset:
            raise PeError("no COFF string table")
        strtab = self.symtab_offset + 18 * self.nsymbols
        start = strtab + offset
        end = self.data.find(b"\0", start)
        if start >= len(self.data) or end < 0:
            raise PeError("bad COFF string table offset")
        return self.data[start:end].decode("ascii", "replace")

    def coff_symbol_values(self, wanted):
        """Values of the COFF symbols named `wanted` (lld and GNU ld keep a symbol table in
        unstripped mingw images). Empty when there is no symbol table."""
        values = []
        if not self.symtab_offset or self.symtab_offset + 18 * self.nsymbols > len(self.data):
            return values
        i = 0
        while i < self.nsymbols:
            off = self.symtab_offset + 18 * i
            raw_name, value, section_number, _, _, naux = struct.unpack_from("<8sIhHBB", self.data, off)
            if raw_name[:4] == b"\0\0\0\0":
                try:
                    name = self._coff_string(struct.unpack_from("<I", raw_name, 4)[0])
                except PeError:
                    name = ""
            else:
                name = raw_name.rstrip(b"\0").decode("ascii", "replace")
            if name == wanted and 0 < section_number <= len(self.sections):
                values.append(self.sections[section_number - 1].rva + value)
            i += 1 + naux
        return values


def pe_checksum(data, checksum_offset):
    """The PE image checksum: the file summed as little-endian 16-bit words with the carries folded
    back in, the CheckSum field itself counted as zero, then the file length added."""
    total = 0
    length = len(data)
    words = length // 2
    for (word,) in struct.iter_unpack("<H", data[:words * 2]):
        total += word
    if length % 2:
        total += data[-1]
    # Take the CheckSum field back out (it must count as zero).
    for (word,) in struct.iter_unpack("<H", data[checksum_offset:checksum_offset + 4]):
        total -= word
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return (total + length) & 0xFFFFFFFF


# ---------------------------------------------------------------------------------------------
# Map files


class LinkMap:
    """What the checks need from a linker map: symbol addresses (as RVAs), the input sections that
    went into the image, and the output sections with their RVAs."""

    def __init__(self, kind):
        self.kind = kind
        self.symbols = {}           # name -> set of RVAs
        self.input_sections = []    # (section name, input file, size)
        self.output_sections = {}   # name -> (RVA, size)


# lld: "%08x %08x %5d " then the output section name, or 8 spaces and "file:(section)", or 16
# spaces and a symbol name.
LLD_LINE = re.compile(r"^([0-9a-fA-F]+) ([0-9a-fA-F]+) +(\d+) (.*)$")
LLD_INPUT = re.compile(r"^(.*):\(([^()]*)\)$")
# GNU ld: " .name  0xADDR  0xSIZE file" (long names put the rest on the next line) and
# "                0xADDR                symbol".
GNU_INPUT = re.compile(r"^ (\S+)(?:\s+0x([0-9a-fA-F]+)\s+0x([0-9a-fA-F]+)\s+(.*))?$")
GNU_INPUT_CONT = re.compile(r"^\s+0x([0-9a-fA-F]+)\s+0x([0-9a-fA-F]+)\s+(\S.*)$")
GNU_SYMBOL = re.compile(r"^\s+0x([0-9a-fA-F]+)\s+(\S.*)$")
GNU_OUTPUT = re.compile(r"^(\.\S+)\s+0x([0-9a-fA-F]+)\s+0x([0-9a-fA-F]+)")


def parse_map(text, image_base):
    lines = text.splitlines()

    def to_rva(addr):
        return addr - image_base if addr >= image_base else addr

    if lines and lines[0].split() == ["Address", "Size", "Align", "Out", "In", "Symbol"]:
        m = LinkMap("lld")
        for line in lines[1:]:
            match = LLD_LINE.match(line)
            if not match:
                continue
            addr, size, rest = int(match.group(1), 16), int(match.group(2), 16), match.group(4)
            depth = len(rest) - len(rest.lstrip(" "))
            rest = rest.strip()
            if depth == 0:
                m.output_sections[rest] = (to_rva(addr), size)
            elif depth <= 8:
                inp = LLD_INPUT.match(rest)
                if inp:
                    m.input_sections.append((inp.group(2), inp.group(1), size))
            else:
                m.symbols.setdefault(rest, set()).add(to_rva(addr))
        return m

    if any(line.startswith("Linker script and memory map") for line in lines):
        m = LinkMap("GNU ld")
        start = next(i for i, line in enumerate(lines) if line.startswith("Linker script and memory map"))
        pending = None  # input section name whose address/size/file are on the next line
        for line in lines[start + 1:]:
            if pending is not None:
                cont = GNU_INPUT_CONT.match(line)
                if cont:
                    m.input_sections.append((pending, cont.group(3).strip(), int(cont.group(2), 16)))
                pending = None
                continue
            out = GNU_OUTPUT.match(line)
            if out:
                m.output_sections[out.group(1)] = (to_rva(int(out.group(2), 16)), int(out.group(3), 16))
                continue
            inp = GNU_INPUT.match(line)
            if inp and not line.startswith(" *"):
                if inp.group(2) is None:
                    pending = inp.group(1)
                else:
                    m.input_sections.append((inp.group(1), inp.group(4).strip(), int(inp.group(3), 16)))
                continue
            sym = GNU_SYMBOL.match(line)
            if sym:
                name = sym.group(2).strip()
                # Skip linker-script assignments ("___CTOR_LIST__ = .") and data statements.
                if "=" in name or name.split()[0] in ("LONG", "QUAD", "SHORT", "BYTE", "FILL"):
                    continue
                m.symbols.setdefault(name, set()).add(to_rva(int(sym.group(1), 16)))
        return m

    raise PeError("unrecognised map file format (expected an lld or GNU ld map)")


# ---------------------------------------------------------------------------------------------
# Checks. Each returns (passed, message).


def check_format(pe, link_map, args):
    ok = pe.magic == PE32PLUS_MAGIC and pe.machine == IMAGE_FILE_MACHINE_AMD64
    msg = "magic 0x%x%s, machine 0x%x%s" % (
        pe.magic, " (PE32+)" if pe.magic == PE32PLUS_MAGIC else " (expected 0x20b, PE32+)",
        pe.machine, " (AMD64)" if pe.machine == IMAGE_FILE_MACHINE_AMD64 else " (expected 0x8664, AMD64)")
    return ok, msg


def check_subsystem(pe, link_map, args):
    if pe.subsystem == IMAGE_SUBSYSTEM_NATIVE:
        return True, "native (1)"
    return False, "subsystem is %d, a driver needs native (1)" % pe.subsystem


def check_entry(pe, link_map, args):
    entry_va = pe.image_base + pe.entry_rva
    found = link_map.symbols.get("DriverEntry", set())
    if not found:
        return False, "the map file does not define DriverEntry (is it extern \"C\"?)"
    if len(found) > 1:
        return False, "the map file gives DriverEntry several addresses: %s" % ", ".join(
            "0x%x" % (pe.image_base + r) for r in sorted(found))
    rva = next(iter(found))
    if rva != pe.entry_rva:
        return False, "AddressOfEntryPoint is 0x%x but DriverEntry is at 0x%x" % (entry_va, pe.image_base + rva)
    in_image = pe.coff_symbol_values("DriverEntry")
    if in_image and set(in_image) != {rva}:
        return False, "the map file and the image's symbol table disagree on DriverEntry (map is stale?)"
    return True, "AddressOfEntryPoint 0x%x is DriverEntry (%s map%s)" % (
        entry_va, link_map.kind, ", symbol table agrees" if in_image else "")


def check_checksum(pe, link_map, args):
    computed = pe_checksum(pe.data, pe.checksum_offset)
    if pe.checksum == 0:
        return False, "CheckSum is 0 (run 'pe_tool.py checksum'); it should be 0x%08x" % computed
    if pe.checksum != computed:
        return False, "CheckSum is 0x%08x but the image sums to 0x%08x" % (pe.checksum, computed)
    return True, "0x%08x" % computed


def _imports(pe, directory, descriptor_size, name_field, thunk_fields):
    """[(dll, [routine...])] from an import or delay-import directory."""
    rva, size = pe.directory(directory)
    result = []
    if not rva:
        return result
    off = pe.rva_to_offset(rva)
    while off + descriptor_size <= len(pe.data):
        desc = pe.data[off:off + descriptor_size]
        if desc == b"\0" * descriptor_size:
            break
        dll = pe.c_string(struct.unpack_from("<I", desc, name_field)[0])
        thunks = next((t for t in (struct.unpack_from("<I", desc, f)[0] for f in thunk_fields) if t), 0)
        routines = []
        if thunks:
            toff = pe.rva_to_offset(thunks)
            while toff + 8 <= len(pe.data):
                entry = struct.unpack_from("<Q", pe.data, toff)[0]
                if entry == 0:
                    break
                if entry >> 63:
                    routines.append("#%d" % (entry & 0xFFFF))
                else:
                    routines.append(pe.c_string((entry & 0x7FFFFFFF) + 2))  # skip the hint
                toff += 8
        result.append((dll, routines))
        off += descriptor_size
    return result


def check_imports(pe, link_map, args):
    allowed = {d.lower() for d in args.allow_dll}
    # IMAGE_IMPORT_DESCRIPTOR: OriginalFirstThunk at 0, Name at 12, FirstThunk at 16.
    imports = _imports(pe, DIR_IMPORT, 20, 12, (0, 16))
    # IMAGE_DELAYLOAD_DESCRIPTOR: DllNameRVA at 4, ImportNameTableRVA at 16.
    delayed = [dll for dll, _ in _imports(pe, DIR_DELAY_IMPORT, 32, 4, (16,))]
    dlls = [dll for dll, _ in imports]
    bad = ["%s (%s)" % (dll, ", ".join(routines)) for dll, routines in imports if dll.lower() not in allowed]
    problems = []
    if bad:
        problems.append("not allowed: %s" % "; ".join(bad))
    if delayed:
        problems.append("delay-load imports (unsupported in the kernel): %s" % ", ".join(delayed))
    if problems:
        return False, "%s (allowed: %s)" % ("; ".join(problems), ", ".join(args.allow_dll))
    return True, ", ".join(dlls) if dlls else "none"


def _unique(items):
    return list(dict.fromkeys(items))


def check_static_constructors(pe, link_map, args):
    found = _unique(["%s:(%s)" % (f, s) for s, f, size in link_map.input_sections
                     if size and STATIC_INIT_SECTION.match(s)])
    # A linker that keeps these sections separate (rather than folding them into .rdata or .text)
    # shows them in the image as well.
    found += ["image section %s" % s.name for s in pe.sections
              if STATIC_INIT_SECTION.match(s.name) and (s.vsize or s.raw_size)]
    if found:
        return False, ("dynamic initializers would never run in a driver; make the global constexpr "
                       "or initialise it from DriverEntry: %s" % ", ".join(found))
    return True, "none"


def check_tls(pe, link_map, args):
    found = _unique(["%s:(%s)" % (f, s) for s, f, size in link_map.input_sections if TLS_SECTION.match(s)])
    found += ["image section %s" % s.name for s in pe.sections if TLS_SECTION.match(s.name)]
    if pe.directory(DIR_TLS)[0]:
        found.append("TLS directory")
    if found:
        return False, "thread-local storage does not work in a driver: %s" % ", ".join(found)
    return True, "none"


def check_sections(pe, link_map, args):
    wx = [s.name for s in pe.sections
          if s.flags & IMAGE_SCN_MEM_WRITE and s.flags & IMAGE_SCN_MEM_EXECUTE]
    if wx:
        return False, "writable and executable: %s" % ", ".join(wx)
    return True, "no section is both writable and executable"


def check_map(pe, link_map, args):
    # The map must describe this image, or the entry and constructor checks mean nothing: every
    # section of the image must be in the map at the same RVA, and for lld with the same size (GNU
    # ld's map gives sizes rounded to the file alignment).
    stale = []
    for s in pe.sections:
        rva, size = link_map.output_sections.get(s.name, (None, None))
        if rva != s.rva or (link_map.kind == "lld" and size != s.vsize):
            stale.append(s.name)
    if stale:
        return False, "the %s map does not describe this image (sections %s differ); relink" % (
            link_map.kind, ", ".join(stale))
    return True, "%s map, its %d sections agree with the image" % (link_map.kind, len(pe.sections))


# The Windows versions a routine's documentation names as the first to have it, oldest first.
# "unclear" (documentation that does not say, or a routine that is not documented) is newer than
# every version.
WINDOWS_VERSIONS = ["2000", "XP", "2003", "Vista", "Vista-SP1", "7", "8", "8.1", "10", "10-1607", "10-1703", "10-1709",
                    "10-1803", "10-1809", "10-1903", "10-2004", "11", "unclear"]


def read_import_versions(path):
    """{(dll lower, routine): version} from the table: one routine a line, "routine dll version
    note...", '#' comments."""
    table = {}
    text = read_file(path).decode("utf-8")
    for number, line in enumerate(text.splitlines(), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        fields = line.split(None, 3)
        if len(fields) < 3 or fields[2] not in WINDOWS_VERSIONS:
            raise PeError("%s:%d: expected 'routine dll version note' with a version among %s" % (
                path, number, ", ".join(WINDOWS_VERSIONS)))
        table[(fields[1].lower(), fields[0])] = fields[2]
    return table


def check_windows_version(pe, link_map, args):
    table = read_import_versions(args.import_versions)
    oldest = WINDOWS_VERSIONS.index(args.oldest_windows)
    imports = _imports(pe, DIR_IMPORT, 20, 12, (0, 16))
    unknown, newer = [], []
    for dll, routines in imports:
        for routine in routines:
            version = table.get((dll.lower(), routine))
            if version is None:
                unknown.append("%s!%s" % (dll, routine))
            elif WINDOWS_VERSIONS.index(version) > oldest:
                newer.append("%s!%s (%s)" % (dll, routine, version))
    problems = []
    if newer:
        problems.append("newer than Windows %s (look them up with MmGetSystemRoutineAddress and give them a "
                        "fallback): %s" % (args.oldest_windows, ", ".join(newer)))
    if unknown:
        problems.append("not in %s (add each with the first Windows version its documentation names): %s" % (
            os.path.basename(args.import_versions), ", ".join(unknown)))
    if problems:
        return False, "; ".join(problems)
    return True, "%d routines, all exported since Windows %s or earlier" % (
        sum(len(r) for _, r in imports), args.oldest_windows)


IMAGE_SUBSYSTEM_WINDOWS_CUI = 3


def check_console_subsystem(pe, link_map, args):
    if pe.subsystem == IMAGE_SUBSYSTEM_WINDOWS_CUI:
        return True, "console (3)"
    return False, "subsystem is %d, a console program needs 3" % pe.subsystem


PROGRAM_CHECKS = [
    ("format", check_format),
    ("subsystem", check_console_subsystem),
    ("imports", check_imports),
]

CHECKS = [
    ("format", check_format),
    ("subsystem", check_subsystem),
    ("map", check_map),
    ("entry", check_entry),
    ("checksum", check_checksum),
    ("imports", check_imports),
    ("static-constructors", check_static_constructors),
    ("tls", check_tls),
    ("sections", check_sections),
]


def check_integrity(pe, link_map, args):
    flags = struct.unpack_from("<H", pe.data, dll_characteristics_offset(pe))[0]
    if flags & FORCE_INTEGRITY:
        return True, "FORCE_INTEGRITY set (DllCharacteristics 0x%04x)" % flags
    return False, "FORCE_INTEGRITY not set (DllCharacteristics 0x%04x)" % flags


def read_file(path):
    try:
        with open(path, "rb") as f:
            return f.read()
    except OSError as e:
        raise PeError("cannot read %s: %s" % (path, e.strerror))


FORCE_INTEGRITY = 0x0080


def dll_characteristics_offset(pe):
    return pe.opt_offset + 70  # same place in PE32 and PE32+


def cmd_checksum(args):
    data = bytearray(read_file(args.file))
    pe = PeImage(bytes(data))
    if args.force_integrity:
        at = dll_characteristics_offset(pe)
        flags = struct.unpack_from("<H", data, at)[0] | FORCE_INTEGRITY
        struct.pack_into("<H", data, at, flags)
        with open(args.file, "r+b") as f:
            f.seek(at)
            f.write(struct.pack("<H", flags))
    value = pe_checksum(data, pe.checksum_offset)
    with open(args.file, "r+b") as f:
        f.seek(pe.checksum_offset)
        f.write(struct.pack("<I", value))
    print("%s: CheckSum 0x%08x" % (args.file, value))
    return 0


def cmd_check(args):
    if not args.allow_dll:
        args.allow_dll = list(DEFAULT_ALLOWED_DLLS)
    pe = PeImage(read_file(args.file))
    map_text = read_file(args.map).decode("utf-8", "replace")
    name = os.path.basename(args.file)
    if pe.magic != PE32PLUS_MAGIC:
        ok, msg = check_format(pe, None, args)
        print("FAIL  format: %s" % msg)
        print("%s: 1 check failed: format" % name)
        return 1
    link_map = parse_map(map_text, pe.image_base)
    checks = list(CHECKS)
    if args.require_integrity:
        checks.append(("integrity", check_integrity))
    if args.import_versions:
        checks.append(("windows-version", check_windows_version))
    return run_checks(pe, link_map, args, checks, name)


def run_checks(pe, link_map, args, checks, name):
    failed = []
    for check_name, fn in checks:
        try:
            ok, msg = fn(pe, link_map, args)
        except PeError as e:
            ok, msg = False, "malformed image: %s" % e
        print("%-5s %s: %s" % ("ok" if ok else "FAIL", check_name, msg))
        if not ok:
            failed.append(check_name)
    if failed:
        print("%s: %d check%s failed: %s" % (name, len(failed), "" if len(failed) == 1 else "s", ", ".join(failed)))
        return 1
    print("%s: all checks passed" % name)
    return 0


def cmd_program(args):
    if not args.allow_dll:
        args.allow_dll = ["KERNEL32.dll", "msvcrt.dll"]
    pe = PeImage(read_file(args.file))
    name = os.path.basename(args.file)
    if pe.magic != PE32PLUS_MAGIC:
        ok, msg = check_format(pe, None, args)
        print("FAIL  format: %s" % msg)
        print("%s: 1 check failed: format" % name)
        return 1
    return run_checks(pe, None, args, PROGRAM_CHECKS, name)


def main(argv):
    parser = argparse.ArgumentParser(description="Checksum and verify a Windows x64 kernel driver image.")
    sub = parser.add_subparsers(dest="command", required=True)
    p = sub.add_parser("checksum", help="write the PE image checksum in place")
    p.add_argument("file")
    p.add_argument("--force-integrity", action="store_true", help="set FORCE_INTEGRITY first")
    p.set_defaults(func=cmd_checksum)
    p = sub.add_parser("check", help="verify that the image is a proper driver")
    p.add_argument("file")
    p.add_argument("--map", required=True, help="linker map file (-Wl,-Map,FILE)")
    p.add_argument("--require-integrity", action="store_true", help="also require FORCE_INTEGRITY")
    p.add_argument("--allow-dll", action="append", default=[], metavar="NAME",
                   help="DLL the driver may import from (repeatable; default: %s)" % ", ".join(DEFAULT_ALLOWED_DLLS))
    p.add_argument("--reject-to", metavar="PATH",
                   help="when the check fails, move FILE to PATH (so that a build system relinks it "
                        "instead of taking the bad image as up to date)")
    p.add_argument("--import-versions", metavar="TABLE",
                   help="table of the imported routines with the first Windows version that exports each")
    p.add_argument("--oldest-windows", default="7", choices=WINDOWS_VERSIONS[:-1],
                   help="the oldest Windows the driver must load on (with --import-versions; default 7)")
    p.set_defaults(func=cmd_check)
    p = sub.add_parser("program", help="verify that the image is a console program with allowed imports")
    p.add_argument("file")
    p.add_argument("--allow-dll", action="append", default=[], metavar="NAME",
                   help="DLL the program may import from (repeatable; default: KERNEL32.dll, msvcrt.dll)")
    p.add_argument("--reject-to", metavar="PATH", help="when the check fails, move FILE to PATH")
    p.set_defaults(func=cmd_program)
    args = parser.parse_args(argv)
    try:
        rc = args.func(args)
    except PeError as e:
        print("pe_tool.py %s: %s: %s" % (args.command, args.file, e), file=sys.stderr)
        rc = 2
    if rc != 0 and getattr(args, "reject_to", None) and os.path.exists(args.file):
        os.replace(args.file, args.reject_to)
        print("pe_tool.py: rejected image moved to %s" % args.reject_to, file=sys.stderr)
    return rc


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
