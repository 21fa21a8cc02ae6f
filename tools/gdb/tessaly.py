"""gdb pretty-printers for Tessaly's types, and the command tessaly-page.

gdb loads it with an installed shared library; otherwise: source tessaly.py. It calls no function of the debugged
program, so it works on core files too. Data that cannot be read is shown as a short text.
"""

import struct

import gdb
import gdb.printing
import gdb.types

FRESH_BYTE = 0xF3  # fills a new page; shown as fresh
MAX_FIELDS = 4096  # a page with more is taken for invalid
MAX_WALKED_PAGES = 1000
MAX_WALKED_NAMES = 10000
MAX_READ_BYTES = 1 << 24  # at once
DEFAULT_ROW_COUNT = 20
CONSTANT_BYTES = 64


# Format codes of module struct, by the name of the scalar type, or of the vector type without its digit.
CODES = {"Bool": "?", "U8": "B", "UByte": "B", "I8": "b", "Byte": "b", "U16": "H", "UWord": "H", "I16": "h",
         "Word": "h", "U32": "I", "UInt": "I", "I32": "i", "Int": "i", "U64": "Q", "I64": "q", "Float": "f",
         "Double": "d"}


class Broken(Exception):
    """Raised for data that cannot be valid."""


# All exceptions that reading invalid memory may raise.
ERRORS = (Broken, gdb.error, TypeError, OverflowError, ValueError, struct.error)


def _explain(error):
    if isinstance(error, Broken):
        return f"<{error}>"
    text = str(error)
    if "optimized out" in text:
        return "<optimized out>"
    if any(sign in text for sign in ("no member named", "No type named", "incomplete type")):
        return "<no debug information of Tessaly's libraries>"
    return f"<unreadable: {text}>"


def _read(address, size):
    if size > MAX_READ_BYTES:
        raise Broken(f"not read: {size} bytes at {address:#x}")
    return bytes(gdb.selected_inferior().read_memory(address, size))


def _check_readable(address, size):
    if size == 0:
        return
    try:
        _read(address, 1)
        _read(address + size - 1, 1)
    except (gdb.error, OverflowError) as error:
        raise Broken(f"unreadable: {size} bytes at {address:#x}") from error


def _number(value):
    """The integer inside a TAtomic, a TGuid or a plain integer."""
    while value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT:
        value = value[value.type.strip_typedefs().fields()[0]]
    return int(value)


def _type_name(value):
    """Name of the value's class if it is one of Tessaly's, without namespace and template arguments."""
    name = gdb.types.get_basic_type(value.type).tag or ""
    return name[len("Tessaly::"):].split("<", 1)[0] if name.startswith("Tessaly::") else ""


def _plural(count, noun):
    return f"{count} {noun}" if count == 1 else f"{count} {noun}s"


def _buffer(array):
    """(pointer, count, capacity) of a TArray."""
    data, count, capacity = array["m_Data"], int(array["m_Count"]), int(array["m_MaxCount"])
    if count > capacity or (int(data) == 0) != (capacity == 0):
        raise Broken(f"not an array: {count} elements of {capacity} at {int(data):#x}")
    _check_readable(int(data), count * data.type.target().sizeof)
    return data, count, capacity


def _elements(pointer, count, stride=None):
    """The elements as children, already read: gdb abandons all output if it cannot read one of them."""
    step = pointer.type.target().sizeof if stride is None else stride
    for i in range(count):
        try:
            element = gdb.Value(int(pointer) + i * step).cast(pointer.type).dereference()
            element.fetch_lazy()
        except gdb.error as error:
            element = _explain(error)
        yield f"[{i}]", element


def _base_type(definition):
    """Name of the base type, format code of its components, number of components."""
    name = str(definition["m_Type"]).replace("Tessaly::BaseType_", "")
    if name.isdigit() or not name.isalnum():
        return f"type {int(definition['m_Type'])}", "", 0
    if name == "Quaternion":
        return name, "f", 4
    if name[:-1] in CODES and name not in CODES:
        return name, CODES[name[:-1]], int(name[-1])
    return name, CODES.get(name, ""), 1


def _name_text(name):
    """The registered text of a CStringId, or its number."""
    number = int(name["m_Id"])
    if number == 0:
        return "no name"
    try:
        registered = gdb.parse_and_eval("Tessaly::Internal::g_RegisteredNames")
        for _ in range(MAX_WALKED_NAMES):
            if int(registered) == 0:
                break
            if int(registered["m_Id"]) == number:
                return f'name "{registered["m_Text"].string(errors="replace")}"'
            registered = registered["m_Next"]
    except ERRORS:
        pass  # no list in the program, or an invalid one
    return f"name {number}"


def _definition_text(definition):
    size = int(definition["m_StorageSize"])
    storage = "constant" if size == 0 else _plural(size, "byte")
    return f"{_base_type(definition)[0]} ({storage}, {_name_text(definition['m_NameGUID'])})"


def _field_text(field):
    data = int(field["m_RawDataPtr"])
    return _definition_text(field["m_Definition"]) + (" without data" if data == 0 else f" at {data:#x}")


def _page_counts(page):
    count, capacity = _number(page["m_ParticleCount"]), int(page["m_Capacity"])
    if count > capacity:
        raise Broken(f"not a page: {count} particles of {capacity}")
    return count, capacity


def _page_fields(page):
    data, count, _ = _buffer(page["m_Streams_Unsafe"])
    if count > MAX_FIELDS:
        raise Broken(f"not a page: {count} fields")
    return data, count


def _page_text(page):
    count, capacity = _page_counts(page)
    text = f"{count} of {capacity} particles, {_plural(_page_fields(page)[1], 'field')}"
    if _number(page["m_StrongRefCount"]) == 0:
        text += ", no reference"
    raw_page = page["m_RawPage"]["m_Ptr"]
    if int(raw_page) == 0:
        return text + ", no block"
    readers = int(raw_page.dereference()["m_ReadersCount"])
    return text if readers == 0 else f"{text}, {_plural(readers, 'reader')}"


def _pages(stream):
    """Pointers to the first pages of the stream, and the number of all its pages."""
    data, count, _ = _buffer(stream["m_Pages"])
    return [(data + i).dereference()["m_Ptr"] for i in range(min(count, MAX_WALKED_PAGES))], count


def _lock_text(stream):
    depth = _number(stream["m_PagesLocked"])
    if depth == 0:
        return "unlocked"
    if depth > 0xFFFF:
        raise Broken(f"not a stream: locked {depth} times")
    owner = f"thread id {_number(stream['m_ThreadOwningLock'])}"
    lwp = int(stream["m_PagesProtectCS"]["m_CS"]["__data"]["__owner"])
    for thread in gdb.selected_inferior().threads():
        if thread.ptid[1] == lwp:
            owner += f", gdb's thread {thread.num}"
    return f"locked by {owner}" + (f", {depth} deep" if depth > 1 else "")


def _stream_text(stream):
    pages, page_count = _pages(stream)
    listed, slot_count, problems = 0, 0, []
    for page in pages:
        try:
            count, capacity = _page_counts(page.dereference())
            listed, slot_count = listed + count, slot_count + capacity
        except ERRORS as error:
            problems.append(_explain(error))
    count = _number(stream["m_ParticleCount"])
    text = f"{_plural(count, 'particle')} in {_plural(page_count, 'page')}"
    if problems:
        text += f" ({len(problems)} of them {problems[0]})"
    if slot_count != 0:
        text += f", {listed * 100 // slot_count} % full"
    if page_count > len(pages):
        text += f" (the first {len(pages)})"
    elif listed != count and not problems:
        text += f" (the pages hold {listed})"
    text += f", page size {_number(stream['m_PageSize'])}"
    if _number(stream["m_StreamDef"]) == 0:
        text += ", unbound"
    return f"{text}, {_lock_text(stream)}"


def _ref_text(ref):
    pointer = ref["m_Ptr"]
    if int(pointer) == 0:
        return "null"
    references = _number(pointer.dereference()["m_StrongRefCount"])
    if not 0 < references < 0x80000000:
        raise Broken(f"not a live object at {int(pointer):#x}: {references} references")
    return _plural(references, "reference")


def _guid_text(guid):
    number = int(guid["m_Guid"])
    return "INVALID" if number == (1 << 8 * guid.type.sizeof) - 1 else str(number)


def _vector_text(vector):
    count = len(vector.type.strip_typedefs().fields())
    return f"({', '.join(str(vector[name]) for name in 'xyzw'[:count])})"


def _view(view):
    """(pointer, count, stride) of a TMemoryView or a TStridedMemoryView."""
    element = view.type.strip_typedefs().template_argument(0)
    if any(field.name == "m_Data" for field in view.type.strip_typedefs().fields()):
        data, count, stride = int(view["m_Data"]), int(view["m_Count"]), element.sizeof
    else:
        view = view["m_Storage"]
        data, count, stride = int(view["m_RawDataPtr"]), int(view["m_Count"]), int(view["m_Stride"])
    if count != 0:
        _check_readable(data, (count - 1) * stride + element.sizeof)
    return gdb.Value(data).cast(element.pointer()), count, stride


def _view_text(view):
    data, count, stride = _view(view)
    text = _plural(count, "element")
    return text if stride == data.type.target().sizeof else f"{text}, {stride} bytes apart"


def _page_view_text(view):
    first, count, page = int(view["m_First"]), int(view["m_Count"]), view["m_Page"]["m_Ptr"]
    if int(page) == 0:
        return "no page"
    if first + count > _page_counts(page.dereference())[1]:
        raise Broken(f"not a view: {count} particles from {first} on of page {int(page):#x}")
    return f"{_plural(count, 'particle')} from {first} on"


def _page_part(name, pointer):
    """A page as a child of another value: one line, also for an invalid page."""
    try:
        if int(pointer) != 0:
            yield name, f"{int(pointer):#x}: {_page_text(pointer.dereference())}"
    except ERRORS as error:
        yield name, f"{int(pointer):#x}: {_explain(error)}"


def _stream_parts(stream):
    yield "definition", stream["m_StreamDef"]
    pages, count = _pages(stream)
    for i, pointer in enumerate(pages):
        yield from _page_part(f"page {i}", pointer)
    if count > len(pages):
        yield "...", f"{count - len(pages)} more"


# Per type: its text, its children as pairs of a name and a value or text, and gdb's display hint.
PRINTERS = {
    "TArray": (lambda array: "{1} of {2}".format(*_buffer(array)),
               lambda array: _elements(*_buffer(array)[:2]), "array"),
    "TRefPtr": (_ref_text, lambda ref: [("m_Ptr", ref["m_Ptr"])][:int(ref["m_Ptr"] != 0)], None),
    "TGuid": (_guid_text, lambda _: (), None),
    "CStringId": (_name_text, lambda _: (), None),
    **{f"TVector{n}": (_vector_text, lambda _: (), None) for n in (2, 3, 4)},
    "TMemoryView": (_view_text, lambda view: _elements(*_view(view)), "array"),
    "TStridedMemoryView": (_view_text, lambda view: _elements(*_view(view)), "array"),
    "CParticlePageView": (_page_view_text, lambda view: _page_part("page", view["m_Page"]["m_Ptr"]), None),
    "SParticleStreamFieldDef": (_definition_text, lambda _: (), None),
    "SParticleStreamField": (_field_text, lambda _: (), None),
    "CParticlePage": (_page_text, lambda page: _elements(*_page_fields(page)), None),
    "CParticleStream_MainMemory": (_stream_text, _stream_parts, None),
}


class Printer:
    """A printer that never raises."""

    def __init__(self, value, text, parts, hint):
        self._value, self._text, self._parts, self._hint = value, text, parts, hint

    def display_hint(self):
        return self._hint

    def to_string(self):
        try:
            return self._text(self._value)
        except ERRORS as error:
            return _explain(error)

    def children(self):
        try:
            self._text(self._value)  # raises if there are no valid children
            yield from self._parts(self._value)
        except ERRORS:
            return


class Lookup:
    name, enabled = "Tessaly", True

    def __call__(self, value):
        name = _type_name(value)
        if name in PRINTERS and value.type.code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
            value = value.referenced_value()
        return Printer(value, *PRINTERS[name]) if name in PRINTERS else None


def _components_text(data, code, components):
    """One value as text. Of a value that is shorter than its type, the complete components."""
    if len(data) >= 4 and set(data) == {FRESH_BYTE}:
        return "fresh"
    components = min(components, len(data) // struct.calcsize(code)) if code != "" else 0
    if components == 0:
        return data.hex() or "-"
    if code == "?":
        texts = [{0: "false", 1: "true"}.get(byte, f"{byte:#x}") for byte in data[:components]]
    else:
        numbers = struct.unpack_from(f"<{components}{code}", data)
        texts = [f"{number:.6g}" if code in "fd" else str(number) for number in numbers]
    return texts[0] if components == 1 else f"({', '.join(texts)})"


class PageCommand(gdb.Command):
    """tessaly-page PAGE [FIRST [COUNT]]: prints particles of a page as a table.

PAGE is a page, its address, a pointer, a TRefPtr or a CParticlePageView (then the view's particles are shown).
Quote an expression with spaces. Shows COUNT particles from FIRST on, by default up to 20 live ones."""

    def __init__(self):
        super().__init__("tessaly-page", gdb.COMMAND_DATA, gdb.COMPLETE_EXPRESSION)

    def invoke(self, argument, from_tty):
        arguments = gdb.string_to_argv(argument)
        if not 1 <= len(arguments) <= 3:
            raise gdb.GdbError("tessaly-page PAGE [FIRST [COUNT]]")
        try:
            page, first, count = self._find(gdb.parse_and_eval(arguments[0]))
            if len(arguments) > 1:
                first, count = int(gdb.parse_and_eval(arguments[1])), None
            if len(arguments) > 2:
                count = int(gdb.parse_and_eval(arguments[2]))
            self._print(page, first, count)
        except ERRORS as error:
            raise gdb.GdbError(_explain(error)) from None

    @staticmethod
    def _find(value):
        """The page, and the range of its particles: first and count (None: all)."""
        first, count = 0, None
        if _type_name(value) == "CParticlePage":
            return value, first, count
        if _type_name(value) == "CParticlePageView":
            first, count, value = int(value["m_First"]), int(value["m_Count"]), value["m_Page"]
        if _type_name(value) == "TRefPtr":
            value = value["m_Ptr"]
        if value.type.strip_typedefs().code == gdb.TYPE_CODE_STRUCT or int(value) == 0:
            raise Broken(f"no page: {value.type}")
        return value.cast(gdb.lookup_type("Tessaly::CParticlePage").pointer()).dereference(), first, count

    @staticmethod
    def _print(page, first, count):
        live_count, capacity = _page_counts(page)
        print(f"page {int(page.address):#x}: {_page_text(page)}")
        if count is None:
            count = max(min(live_count - first, DEFAULT_ROW_COUNT), 0)
        if first < 0 or count < 0 or first + count > capacity:
            raise Broken(f"no such particles: {count} from {first} on; the page has {capacity} slots")

        data, field_count = _page_fields(page)
        rows = range(first, first + count)
        columns = [["particle"] + [str(row) if row < live_count else f"{row} free" for row in rows]]
        for i in range(field_count):
            field, texts = (data + i).dereference(), []
            try:
                note = PageCommand._read_field(field, first, count, texts)
            except ERRORS as error:
                note = _explain(error)
            print(f"[{i}] {_definition_text(field['m_Definition'])}" + (f": {note}" if note else ""))
            if texts:
                columns.append([f"[{i}]"] + texts)
        widths = [max(map(len, column)) for column in columns]
        for cells in zip(*columns):
            print("  ".join(cell.rjust(width) for cell, width in zip(cells, widths)).rstrip())
        if first + count < live_count:
            print(f"{live_count - first - count} more")

    @staticmethod
    def _read_field(field, first, count, texts):
        """Appends the values of count particles to texts. Returns a constant's value, or a note that there is no data."""
        _, code, components = _base_type(field["m_Definition"])
        start, size = int(field["m_RawDataPtr"]), int(field["m_Definition"]["m_StorageSize"])
        if start == 0:
            return "no data"
        if size == 0:
            return _components_text(_read(start, CONSTANT_BYTES), code, components)
        column = _read(start + first * size, count * size)
        texts += [_components_text(column[k * size:(k + 1) * size], code, components) for k in range(count)]
        return ""


gdb.printing.register_pretty_printer(None, Lookup(), replace=True)
PageCommand()
