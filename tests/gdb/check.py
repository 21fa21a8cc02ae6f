"""Run inside gdb: gdb -batch -ex "source tessaly.py" -x check.py PROGRAM. Ends with how many checks failed."""

import random
import re

import gdb

failures = 0


def check(command, *patterns):
    """Each pattern occurs in what command prints; and it never prints what went wrong in the printers themselves."""
    global failures
    try:
        text = gdb.execute(command, to_string=True)
    except gdb.error as error:
        text = f"error: {error}"
    for pattern in patterns:
        if re.search(pattern, text, re.MULTILINE) is None:
            failures += 1
            print(f"FAILED: {command}\n  no {pattern!r} in:\n{text}")
    if re.search("Traceback|Python Exception|Error in sourced", text) is not None:
        failures += 1
        print(f"FAILED: {command}\n  raises:\n{text}")


def check_values():
    check("p g_Numbers", r"= 3 of 9 = \{100, 101, 102\}$")
    check("p g_Guids", r"= \{7, INVALID\}$")
    check("p (CGuid &)g_Guids[1]", "INVALID$")
    check("p g_Names", r'= \{name 7, no name, name "spin", name 4195148034\}$')
    check("p g_Vector", r"= \(1.5, 2, -3\)$")
    check("p g_Pages", r"= \{2 references = \{m_Ptr = 0x[0-9a-f]+\}, null\}$")
    check("p g_Def.m_StreamDef", r"= 38 of \d+ = \{Bool \(1 byte, name 1\), .*Float4 \(constant, name 100\), I32 \(constant, name .glow.\)")
    check("p g_Stream->m_ConstantDataFieldSlot", r"= 38 elements = \{INVALID, .*, 0, INVALID\}$")
    check("p g_Stream->m_ConstantData", r"= 1 element = \{\{m_Data = \{1069547520, ")
    check("p *g_Pages[0].m_Ptr", r"= 6 of 8 particles, 38 fields = \{.*\[34\] = Double \(8 bytes, name 35\) at 0x")
    check("p g_Views", r"= \{5 particles from 0 on = \{page = 0x[0-9a-f]+: 7 of 8 particles, 38 fields\}, no page\}$")
    check("p *g_Stream",
          r"= 13 particles in 2 pages, 81 % full, page size 8, locked by thread id 1, gdb's thread 1 = ",
          r"definition = 0x[0-9a-f]+ <g_Def>, page 0 = 0x[0-9a-f]+: 7 of 8 particles, 38 fields, page 1 = ")


def check_table():
    four = r"\(1, 11\) +\(1, 11, 21\) +\(1, 11, 21, 31\)"
    negative_four = r"\(-1, -11\) +\(-1, -11, -21\) +\(-1, -11, -21, -31\)"
    trues = r"true +\(true, true\) +\(true, true, true\) +\(true, true, true, true\)"
    unsigned, signed = f"1 +{four}", f"-1 +{negative_four}"
    row = [trues, unsigned, signed, unsigned, signed, unsigned, signed, "1", "-1", signed, "-1",
           r"\(-1, -11, -21, -31\)"]
    check("tessaly-page g_Views[0]",
          r"^page 0x[0-9a-f]+: 7 of 8 particles, 38 fields$",
          r"^\[32\] Float3 \(12 bytes, name 33\)$",
          r"^\[36\] Float4 \(constant, name 100\): \(1.5, 2.5, 3.5, 4.5\)$",
          r"^\[37\] I32 \(constant, name .glow.\): no data$",
          "^ +1 +" + " +".join(row) + "$",
          "^ +4 +true",
          "^2 more$")
    for page in ("g_Stream->m_Pages.m_Data[0]", "g_Views[0].m_Page.m_Ptr", "*g_Views[0].m_Page.m_Ptr",
                 "(long)g_Views[0].m_Page.m_Ptr"):
        check(f"tessaly-page {page} 4", "^ +4 +true", "^ +6 .* fresh", r"fresh\n\Z")
    check("tessaly-page g_Views[0] 7 1", "^ *7 free ")
    check("tessaly-page g_Views[0] 7 2", "<no such particles: 2 from 7 on; the page has 8 slots>")
    check("tessaly-page g_Views[1]", "<no page: ")
    check("tessaly-page *g_Stream", "<no page: Tessaly::CParticleStream_MainMemory>")
    check("tessaly-page 0x10", "<unreadable: ")
    check("tessaly-page nothing", "No symbol")
    check("tessaly-page", r"tessaly-page PAGE \[FIRST \[COUNT\]\]")


def check_strange_memory():
    """Objects with some bytes changed: whatever is printed, the printers do not fail."""
    process = gdb.selected_inferior()
    numbers = random.Random(7)
    garbage = gdb.parse_and_eval("g_Garbage").address

    def spoilt(memory):
        memory = bytearray(memory)
        for _ in range(numbers.choice((1, 4, len(memory)))):
            memory[numbers.randrange(len(memory))] = numbers.choice((0, 1, 0x7F, 0xCD, 0xFF, numbers.randrange(256)))
        return bytes(memory)

    for expression in ("g_Numbers", "g_Stream->m_Pages", "g_Pages[0]", "g_Pages[0].m_Ptr->m_Streams_Unsafe.m_Data[5]",
                       "g_Stream->m_ConstantDataFieldSlot", "g_Stream->m_ConstantData", "g_Views[0]",
                       "*g_Pages[0].m_Ptr", "*g_Stream"):
        value = gdb.parse_and_eval(expression)
        memory = process.read_memory(value.address, value.type.sizeof)
        gdb.set_convenience_variable("spoilt", garbage.cast(value.type.pointer()))
        for _ in range(40):
            process.write_memory(int(garbage), spoilt(memory))
            check("p *$spoilt", "= |Cannot access memory")  # the latter is gdb's own, of a class table's address
            if expression == "*g_Pages[0].m_Ptr":
                check("tessaly-page $spoilt")

    for expression, member, text in (("g_Numbers", "m_Count", "<not an array: 305419896 elements of 9 at 0x"),
                                     ("*g_Pages[0].m_Ptr", "m_ParticleCount", "<not a page: 305419896 "),
                                     ("*g_Stream", "m_Pages.m_Data[1].m_Ptr->m_ParticleCount",
                                      r"2 pages \(1 of them <not a page: .*>\), 87 % full, .*, page 1 = 0x[0-9a-f]+: <not a page: "),
                                     ("*g_Stream", "m_ParticleCount.m_Value", r"81 % full \(the pages hold 13\)"),
                                     ("g_Views[0]", "m_First", "<not a view: 5 particles from 305419896 on of page 0x"),
                                     ("*g_Stream", "m_PagesLocked", "<not a stream: locked 305419896 times>")):
        kept = int(gdb.parse_and_eval(f"({expression}).{member}"))
        gdb.execute(f"set var ({expression}).{member} = 305419896")
        check(f"p {expression}", text)
        gdb.execute(f"set var ({expression}).{member} = {kept}")

    fields = gdb.parse_and_eval("g_Pages[0].m_Ptr->m_Streams_Unsafe.m_Data")
    memory = process.read_memory(fields, fields.type.target().sizeof * 38)
    for _ in range(40):
        process.write_memory(int(fields), spoilt(memory))
        check("p *g_Stream")
        check("tessaly-page g_Pages[0]")
    process.write_memory(int(fields), memory)


gdb.execute("set confirm off")
gdb.execute("break main")
gdb.execute("run")
check("info locals")  # nothing is constructed yet
gdb.execute("break Look")
gdb.execute("continue")
check("bt full", "view=5 particles from 0 on")
check("info args", "^stream = 13 particles in 2 pages", "^slots = 38 elements = ")
check("finish")
check("info locals")
check_values()
check_table()
check_strange_memory()
print(f"{failures} failures")
