"""Shows the objects of libWindows.so.0 in gdb, and lists its threads: info windows-threads.

gdb loads this file by itself as libWindows.so.0-gdb.py; README.md says from where. By hand: source FILE.

Fields are found by the program's debug information, so it serves programs of any width and byte order. It only ever
reads: nothing is called in the program, which may be a core file or on another machine. What cannot be read is shown
as unknown; an object that is not one (uninitialised, freed, at NULL) gives a text in angle brackets, never an error.
"""
import array
import fcntl
import functools
import os
import termios

import gdb
import gdb.printing

BSTR_SIGNATURE = 0xCDEADBEE
HANDLE_KINDS = {0x1234ABC1: "event", 0x1234ABC2: "mutex", 0x1234ABC3: "thread"}
MUTEX_KINDS = {0: "normal", 1: "recursive", 2: "error checking", 3: "adaptive"}
VARIANT_TYPES = {0: "VT_EMPTY", 1: "VT_NULL", 2: "VT_I2", 3: "VT_I4", 4: "VT_R4", 5: "VT_R8", 6: "VT_CY",
                 7: "VT_DATE", 8: "VT_BSTR", 9: "VT_DISPATCH", 10: "VT_ERROR", 11: "VT_BOOL", 12: "VT_VARIANT",
                 13: "VT_UNKNOWN", 14: "VT_DECIMAL", 16: "VT_I1", 17: "VT_UI1"}
VARIANT_NUMBERS = {2: "iVal", 3: "lVal", 4: "fltVal", 5: "dblVal", 17: "bVal"}

LONGEST_TEXT = 1 << 20  # bytes, where gdb is told to print texts without limit
LONGEST_LIST = 100000  # elements that are followed: a damaged list may be a ring


# --- Reading --------------------------------------------------------------------------------------------------


def never_raises(function):
    """A text about what went wrong, instead of an exception."""
    @functools.wraps(function)
    def guarded(*arguments):
        try:
            return function(*arguments)
        except (RuntimeError, OverflowError) as error:  # gdb.error is a RuntimeError
            return "<%s>" % str(error).rstrip(".")
    return guarded


def address_of(pointer):
    """As a number, whatever the width of the program's pointers."""
    return int(pointer) & (1 << 8 * pointer.type.sizeof) - 1


def read_bytes(address, count):
    return bytes(gdb.selected_inferior().read_memory(address, count)) if count > 0 else b""


def quoted(text):
    """The bytes as a C string; what is not plain ASCII in octal, as its encoding is the application's affair."""
    names = {ord("\n"): "\\n", ord("\r"): "\\r", ord("\t"): "\\t", ord('"'): '\\"', ord("\\"): "\\\\"}
    return '"%s"' % "".join(names.get(byte) or (chr(byte) if 32 <= byte < 127 else "\\%03o" % byte) for byte in text)


def quoted_at(address, length):
    """The text in memory, as far as gdb's "print elements" allows."""
    shown = min(length, gdb.parameter("print elements") or LONGEST_TEXT, LONGEST_TEXT)
    return quoted(read_bytes(address, shown)) + ("..." if shown < length else "")


def first_of_many(count):
    return "at least %d" % count if count >= LONGEST_LIST else str(count)


# --- Texts ----------------------------------------------------------------------------------------------------


@never_raises
def describe_string_data(data):
    length, size, references = int(data["m_uiLength"]), int(data["m_uiBuffSize"]), int(data["m_iRefCount"])
    text = address_of(data["m_pszData"])
    if length >= size > 0 or (length > 0 and size == 0):
        return "<not a string: length %d in a buffer of %d>" % (length, size)
    parts = ["length %d" % length, "size %d" % size]
    if text and size > 0:
        # A text that was assigned a character, or edited in place, is longer than its length says.
        behind = read_bytes(text + length, min(size - length, 80)).split(b"\0")[0]
        if behind:
            parts.append("behind it " + quoted(behind))
    if references > 1:
        parts.append("shared by %d" % references)
    elif references < 1:
        parts.append("reference count %d" % references)
    if int(data["m_bLocked"]):
        parts.append("locked")
    return "%s (%s)" % (quoted_at(text, length) if text else "NULL", ", ".join(parts))


@never_raises
def describe_string(string):
    if address_of(string["m_pStrData"]) == 0:
        return "<not a string: no header>"
    return describe_string_data(string["m_pStrData"].dereference())


@never_raises
def describe_bstr(pointer):
    """The text behind a BSTR; only the address where no signature stands in front of it."""
    address = address_of(pointer)
    if address == 0:
        return "NULL"
    try:
        header = pointer.cast(gdb.lookup_type("unsigned int").pointer()) - 2
        if int(header[0]) == BSTR_SIGNATURE:
            return "%s (length %d)" % (quoted_at(address, int(header[1])), int(header[1]))
    except gdb.MemoryError:
        pass
    return "0x%x <not a BSTR>" % address


@never_raises
def describe_variant(variant):
    code = int(variant["vt"])
    name = VARIANT_TYPES.get(code)
    if name is None:
        return "<unknown type %d>" % code
    if name == "VT_BSTR":
        return "VT_BSTR " + describe_bstr(variant["bstrVal"])
    if name == "VT_BOOL":
        value = int(variant["boolVal"])
        return "VT_BOOL " + {0: "VARIANT_FALSE", -1: "VARIANT_TRUE"}.get(value, str(value))
    if code in VARIANT_NUMBERS:
        value = variant[VARIANT_NUMBERS[code]]
        return "%s %s" % (name, int(value) if name == "VT_UI1" else value.format_string())
    return name


@never_raises
def describe_memory_file(file):
    length, position = int(file["m_uiFileLength"]), int(file["m_uiPosition"])
    size, step = int(file["m_uiBufferSize"]), int(file["m_uiGrowBytes"])
    buffer = address_of(file["m_pBuffer"])
    # What was detached or closed leaves its length behind.
    content = quoted_at(buffer, min(length, size)) if buffer else "NULL"
    return "%s (length %d, position %d, size %d, %s)" % (
        content, length, position, size, "grows by %d" % step if step else "fixed")


# --- Mutexes, events and handles ------------------------------------------------------------------------------


def thread_by_lwp(lwp):
    """"thread 3 (LWP 4711)"; the number is gdb's, if it knows the thread."""
    for thread in gdb.selected_inferior().threads():
        if thread.ptid[1] == lwp:
            return "thread %d (LWP %d)" % (thread.num, lwp)
    return "LWP %d" % lwp


def mutex_holder(mutex):
    """Who holds a pthread_mutex_t, or None."""
    data = mutex["__data"]
    if int(data["__lock"]) == 0:
        return None
    return thread_by_lwp(int(data["__owner"]))


@never_raises
def describe_mutex(mutex):
    data = mutex["m_mutex"]["__data"]
    kind = MUTEX_KINDS.get(int(data["__kind"]) & 0x7F)
    if kind is None:
        return "<not a mutex: kind %d>" % int(data["__kind"])
    holder = mutex_holder(mutex["m_mutex"])
    if holder is None:
        return "free, " + kind
    times = int(data["__count"])
    return "held by %s%s, %s" % (holder, " %d times" % times if times > 1 else "", kind)


@never_raises
def describe_event(event):
    text = "%s reset, %s" % ("manual" if int(event["m_bManualReset"]) else "auto",
                             "signalled" if int(event["m_bSignalled"]) else "not signalled")
    holder = mutex_holder(event["m_mutex"])
    return text if holder is None else text + ", locked by " + holder


@never_raises
def describe_handle_record(record):
    tag, address = int(record["m_uiType"]), address_of(record["m_pObject"])
    kind = HANDLE_KINDS.get(tag)
    if kind is None:
        return "<not a handle: tag 0x%x>" % tag
    if address == 0:
        return kind + " without an object"
    if kind == "mutex":
        return "mutex at 0x%x: %s" % (address, describe_mutex(pointed_at(record["m_pObject"], "CMutex")))
    state = describe_event(pointed_at(record["m_pObject"], "CEvent"))
    return "%s at 0x%x: %s" % (kind, address, state)


def pointed_at(pointer, type_name):
    return pointer.cast(gdb.lookup_type(type_name).pointer()).dereference()


@never_raises
def describe_handle(handle):
    return "NULL" if address_of(handle) == 0 else describe_handle_record(handle.dereference())


# --- Threads --------------------------------------------------------------------------------------------------


def bytes_in_pipe(descriptor):
    """How many bytes wait in a pipe of the program; None if that cannot be told without running code in it.

    /proc opens the same pipe for gdb itself, where the process is one of this machine.
    """
    inferior = gdb.selected_inferior()
    connection = getattr(inferior, "connection", None)
    if connection is None or connection.type != "native" or inferior.pid == 0:
        return None
    path = "/proc/%d/fd/%d" % (inferior.pid, descriptor)
    try:
        if not os.readlink(path).startswith("pipe:"):
            return None
        pipe = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        try:
            count = array.array("i", [0])
            fcntl.ioctl(pipe, termios.FIONREAD, count)
            return count[0]
        finally:
            os.close(pipe)
    except OSError:
        return None


class Thread:
    """What is known of a CWinThread; each property is a text."""

    def __init__(self, value):
        self.value = value

    @property
    @never_raises
    def id(self):
        return "0x%x" % int(self.value["m_nThreadID"])

    @property
    def number(self):
        """gdb's number of the thread; - where gdb does not know the thread, or threads by their id at all."""
        try:
            thread = gdb.selected_inferior().thread_from_handle(self.value["m_nThreadID"])
        except RuntimeError:  # gdb does not know threads by their id here
            return "-"
        return str(thread.num) if thread else "-"

    @property
    @never_raises
    def state(self):
        if int(self.value["m_nThreadID"]) == 0:
            return "no thread"
        if int(self.value["m_bExited"]):
            return "exited"
        return "suspended" if int(self.value["m_nSuspendCount"]) > 0 else "running"

    @property
    @never_raises
    def in_pipe(self):
        """Messages in the pipe."""
        descriptor = int(self.value["m_readDesc"])
        if descriptor == -1:
            return "closed"
        count = bytes_in_pipe(descriptor)
        return "unknown" if count is None else str(count // gdb.lookup_type("MSG").sizeof)

    @property
    @never_raises
    def parked(self):
        """Messages on the overflow list."""
        count, node = 0, self.value["m_pOverflowHead"]
        while address_of(node) != 0 and count < LONGEST_LIST:
            count, node = count + 1, node.dereference()["next"]
        return first_of_many(count)

    @property
    @never_raises
    def locked_out(self):
        return "locked out" if int(self.value["m_writeDesc"]) == -1 else ""

    @property
    @never_raises
    def work(self):
        """The function that the thread runs, by name if there is one."""
        function = self.value["m_pfnThreadProc"]
        if address_of(function) == 0:
            return (self.value.dynamic_type.name or "CWinThread") + "::Main()"
        block = gdb.block_for_pc(address_of(function))
        while block is not None and block.function is None:
            block = block.superblock
        return str(block.function) if block else "0x%x" % address_of(function)


@never_raises
def describe_thread(value):
    thread = Thread(value)
    number = thread.number
    parts = ["id " + thread.id + ("" if number == "-" else " (thread %s)" % number), thread.state,
             "in the pipe: " + thread.in_pipe, "parked: " + thread.parked, thread.locked_out, "runs " + thread.work]
    return ", ".join(part for part in parts if part)


def registered_threads(registry):
    """The objects in CWinThread::m_threads, in the order of the map."""
    tree = registry["_M_t"]["_M_impl"]
    header = tree["_M_header"]
    kind = registry.type.strip_typedefs()
    names = (kind.template_argument(0), kind.template_argument(1))
    entry = gdb.lookup_type("std::pair<%s const, %s>" % names).pointer()
    node = header["_M_left"]
    for _ in range(min(int(tree["_M_node_count"]), LONGEST_LIST)):
        # The entry stands behind the links, both aligned like a pointer.
        yield (node + 1).cast(entry).dereference()["second"].dereference()
        node = next_node(node)


def next_node(node):
    if address_of(node["_M_right"]) != 0:
        node = node["_M_right"]
        while address_of(node["_M_left"]) != 0:
            node = node["_M_left"]
        return node
    parent = node["_M_parent"]
    while address_of(node) == address_of(parent["_M_right"]):
        node, parent = parent, parent["_M_parent"]
    return parent if address_of(node["_M_right"]) != address_of(parent) else node


class InfoWindowsThreads(gdb.Command):
    """List the threads that libWindows.so.0 knows: all CWinThread objects with a thread.

Thread is gdb's number (-: gdb does not know the thread by its id), In pipe and Parked are the messages in the
queue and on its overflow list, Posted counts all messages so far. Messages in the pipe are unknown for core files
and remote programs: they are counted without running code in the program."""

    HEADINGS = ("Thread", "Id", "State", "In pipe", "Parked", "Posted", "Queue", "Runs")

    def __init__(self):
        super().__init__("info windows-threads", gdb.COMMAND_STATUS)

    def invoke(self, _argument, _from_tty):
        symbol = gdb.lookup_global_symbol("CWinThread::m_threads")
        if symbol is None:
            raise gdb.GdbError("libWindows.so.0 is not loaded, or without its debug information.")
        rows, failure = [], None
        try:
            holder = mutex_holder(gdb.lookup_global_symbol("CWinThread::m_mapMutex").value()["m_mutex"])
            if holder is not None:
                print("The registry is in the hands of %s, and may be half changed." % holder)
            for value in registered_threads(symbol.value()):
                rows.append(self.row(value))
        except (RuntimeError, OverflowError) as error:
            failure = error
        if rows:
            self.show(rows)
        elif failure is None:
            print("No registered threads.")
        if failure is not None:
            print("%s cannot be read: %s" % ("The rest" if rows else "The registry", failure))

    @staticmethod
    def row(value):
        thread = Thread(value)
        return (thread.number, thread.id, thread.state, thread.in_pipe, thread.parked,
                str(int(value["m_nPostedCount"])), thread.locked_out or "open", thread.work)

    def show(self, rows):
        table = [self.HEADINGS, *rows]
        widths = [max(len(row[column]) for row in table) for column in range(len(self.HEADINGS))]
        for row in table:
            print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


# --- Printers -------------------------------------------------------------------------------------------------


class Text:
    """An object that is shown as one line."""

    def __init__(self, describe, value):
        self.describe = describe
        self.value = value

    def to_string(self):
        return self.describe(self.value)


class Elements:
    """An object that is shown as a line and its elements; the first one that cannot be read ends them."""

    def __init__(self, value):
        self.value = value

    def display_hint(self):
        return "array"

    def children(self):
        try:
            for index, element in enumerate(self.elements()):
                element.fetch_lazy()
                yield "[%d]" % index, element
        except (RuntimeError, OverflowError) as error:  # gdb.error is a RuntimeError
            yield "[?]", "<%s>" % str(error).rstrip(".")


class ObjectList(Elements):
    @never_raises
    def to_string(self):
        return "CObList of %d" % int(self.value["m_nCount"])

    def elements(self):
        node = self.value["m_pNodeHead"]
        for _ in range(int(self.value["m_nCount"])):  # a list that is damaged may be a ring
            if address_of(node) == 0:
                raise gdb.error("the list ends here")
            yield node["data"]
            node = node["pNext"]


class PointerArray(Elements):
    @never_raises
    def to_string(self):
        # Without storage both are -1, which stands for 0.
        size, room = int(self.value["m_nSize"]), int(self.value["m_nMaxSize"])
        return "CPtrArray of %d, room for %d" % (0 if size == -1 else size, 0 if room == -1 else room)

    def elements(self):
        return (self.value["m_pData"][index] for index in range(int(self.value["m_nSize"])))


class StringArray(Elements):
    @never_raises
    def to_string(self):
        text = "CStringArray of %d, room for %d" % (int(self.value["m_nSize"]), int(self.value["m_nMaxSize"]))
        holder = mutex_holder(self.value["m_mutex"]["m_mutex"])
        return text if holder is None else text + ", held by " + holder

    def elements(self):
        return (self.value["m_pData"][index] for index in range(int(self.value["m_nSize"])))


PRINTERS = {
    "BSTR": functools.partial(Text, describe_bstr),
    "CEvent": functools.partial(Text, describe_event),
    "CMemFile": functools.partial(Text, describe_memory_file),
    "CMutex": functools.partial(Text, describe_mutex),
    "CObList": ObjectList,
    "CPtrArray": PointerArray,
    "CStringArray": StringArray,
    "CWinThread": functools.partial(Text, describe_thread),
    "HANDLE": functools.partial(Text, describe_handle),
    "HANDLESTRUCT": functools.partial(Text, describe_handle_record),
    "XString": functools.partial(Text, describe_string),
    "XStringData": functools.partial(Text, describe_string_data),
    "_bstr_t": functools.partial(Text, never_raises(lambda owner: describe_bstr(owner["m_bstr"]))),
    "_variant_t": functools.partial(Text, describe_variant),
    "tagVARIANT": functools.partial(Text, describe_variant),
}


class Printers(gdb.printing.PrettyPrinter):
    """Finds the printer by the name of a type; BSTR and HANDLE are names of pointers, all others are classes."""

    def __init__(self):
        super().__init__("libWindows", [gdb.printing.SubPrettyPrinter(name) for name in PRINTERS])
        self.by_name = {printer.name: printer for printer in self.subprinters}

    def __call__(self, value):
        if value.type.code in (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF):
            value = value.referenced_value()
        kind = value.type
        while True:
            printer = self.by_name.get(kind.unqualified().name)
            if printer is not None:
                return PRINTERS[printer.name](value) if printer.enabled else None
            if kind.code != gdb.TYPE_CODE_TYPEDEF:
                return None
            kind = kind.target()


gdb.printing.register_pretty_printer(gdb.current_objfile(), Printers(), replace=True)
InfoWindowsThreads()
