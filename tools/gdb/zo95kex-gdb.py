"""The library in gdb: who holds which lock, who waits for it, and whether they wait in a ring.

    zo locks            every synchronisation object that is alive: owner, counts, who waits
    zo threads          every thread: what it holds and what it waits for
    zo deadlock         the rings of waits, with the call stack of each thread in one
    zo queue ADDRESS    a work queue: its workers and the units that wait

and printers for the library's types, so that `print *section` says the same. All of it reads memory
only and runs nothing in the process, so a core file does as well as a process.

gdb loads this file by itself for a library that is installed below /usr. Elsewhere it lies beside
the library, and gdb has to be told once that it may trust that folder:

    echo 'add-auto-load-safe-path /opt/engine/lib' >>~/.config/gdb/gdbinit
"""

import time

import gdb
import gdb.printing

MOST_FRAMES = 16
MOST_UNITS = 20
SINGLE_READ, SINGLE_WRITE = 1, 0x10000
# The number of the system call in which a thread sleeps, and its first argument, by architecture.
FUTEX = {"i386:x86-64": ("$orig_rax", 202, "$rdi"), "i386": ("$orig_eax", 240, "$ebx")}


# --- reading values ----------------------------------------------------------------------------

def plain(value):
    """The word in a std::atomic, or the value itself."""
    kind = value.type.strip_typedefs()
    while kind.code == gdb.TYPE_CODE_STRUCT:
        inner = [field for field in kind.fields() if field.name in ("_M_i", "_M_b", "_M_p", "_M_base")
                 or (field.is_base_class and "__atomic_base" in field.name)]
        if not inner:
            return value
        value = value[inner[0]]
        kind = value.type.strip_typedefs()
    return value


def number(value):
    return int(plain(value))


def complete(pointer):
    """What `pointer` points at, as the class that it was made as."""
    return pointer.cast(pointer.dynamic_type).dereference()


def class_of(value):
    return value.dynamic_type.strip_typedefs().unqualified().name or "?"


def is_kind(value, base):
    kind = value.type.strip_typedefs().unqualified()
    if kind.name == base:
        return True
    return any(is_kind(value.cast(field.type), base) for field in kind.fields() if field.is_base_class)


def text_of(name):
    if int(name) == 0:
        return "(no name)"
    return name.string(errors="backslashreplace")


def hexadecimal(address):
    return f"0x{address:x}"


# --- the process -------------------------------------------------------------------------------

class Thread:
    """A thread of the process, selected while this is made."""

    def __init__(self, thread):
        self.gdb = thread
        thread.switch()
        try:
            self.handle = int.from_bytes(thread.handle(), "little")
            self.record = gdb.parse_and_eval("'zotls.cpp'::currentRecord")
            self.waiting_since = int(gdb.parse_and_eval("'contention.cpp'::waitingSince"))
        except gdb.error as error:
            raise gdb.GdbError(f"zo: gdb cannot tell the threads' own variables here: {error}") from error
        self.sleeps_at = self.find_sleep()

    def find_sleep(self):
        """The address of the word that the kernel has it wait for, or None."""
        known = FUTEX.get(gdb.selected_frame().architecture().name())
        if known is None:
            return None
        call, wanted, argument = known
        gdb.newest_frame().select()
        if int(gdb.parse_and_eval(call)) != wanted:
            return None
        return int(gdb.parse_and_eval(argument).cast(gdb.lookup_type("unsigned long")))

    def sleeps_in(self, value):
        start = int(value.address)
        return self.sleeps_at is not None and start <= self.sleeps_at < start + value.type.sizeof

    def short(self):
        return f"thread {self.gdb.num}"

    def long(self):
        name = f' "{self.gdb.name}"' if self.gdb.name else ""
        return f"Thread {self.gdb.num} (LWP {self.gdb.ptid[1]}){name}"


class Selection:
    """Keeps the selected thread and frame for a scope."""

    def __enter__(self):
        self.thread, self.frame = gdb.selected_thread(), gdb.selected_frame()

    def __exit__(self, *_):
        self.thread.switch()
        self.frame.select()


def require_library():
    if gdb.selected_thread() is None:
        raise gdb.GdbError("zo: there is no process and no core file to look at")
    if gdb.lookup_global_symbol("FirstSynchro") is None:
        if any("libzo95Kex" in (file.filename or "") for file in gdb.objfiles()):
            raise gdb.GdbError(
                "zo: libzo95Kex.so has no debug information here: it was built without it, or stripped.\n"
                "Build it with -g (the preset \"release\" does), or give gdb its debug file.")
        raise gdb.GdbError("zo: the process has not loaded libzo95Kex.so")
    if int(gdb.parse_and_eval("FirstSynchro")) == 0 and int(gdb.parse_and_eval("fscs")) == 0:
        raise gdb.GdbError("zo: the library is not set up: it knows of no synchronisation objects")


class Process:
    """What there is in the process, as one command sees it."""

    def __init__(self):
        require_library()
        self.threads = []
        with Selection():
            for thread in gdb.selected_inferior().threads():
                if thread.is_valid():
                    self.threads.append(Thread(thread))
        self.threads.sort(key=lambda thread: thread.gdb.num)
        self.by_record = {int(thread.record): thread for thread in self.threads if int(thread.record) != 0}
        self.by_handle = {thread.handle: thread for thread in self.threads}
        self.find_objects()
        self.waits = {thread.gdb.num: wait for thread in self.threads
                      if (wait := self.find_wait(thread)) is not None}

    def find_objects(self):
        chain, wrapped, seen = [], set(), set()
        for first in ("csDLD", "fscs", "FirstSynchro"):
            pointer = gdb.parse_and_eval(first)
            while int(pointer) != 0 and int(pointer) not in seen:
                seen.add(int(pointer))
                value = complete(pointer)
                if is_kind(value, "ZoDLDCritSect"):
                    wrapped.add(int(value["wrapped"]))
                chain.append(value)
                pointer = pointer["next"]
        self.objects = [Object.of(value, self) for value in chain if int(value.address) not in wrapped]
        self.by_address = {entry.address: entry for entry in self.objects}

    def object_at(self, pointer):
        """The object; one that is not in the chain is looked at where it is."""
        known = self.by_address.get(int(pointer))
        return known if known is not None else Object.of(complete(pointer), self)

    def wait_of(self, thread):
        """What the thread waits for, or None."""
        return self.waits.get(thread.gdb.num)

    def find_wait(self, thread):
        if int(thread.record) != 0:
            if int(thread.record["waitingFor"]) != 0:
                return Wait(thread, self.object_at(thread.record["waitingFor"]), "enter")
            if int(thread.record["readersWait"]["mutex"]) != 0:
                return Wait(thread, self.object_at(thread.record["readersWait"]["mutex"]), "write")
        if thread.sleeps_at is None:
            return None
        return next((wait for entry in self.objects if (wait := entry.sleep_of(thread)) is not None), None)

    def reads_and_writes(self, thread):
        """(mutex, reads, writes) for each reader/writer mutex of which the thread's record tells."""
        if int(thread.record) == 0:
            return
        item = thread.record["rwRecords"]["first"]
        while int(item) != 0:
            record = item.cast(gdb.lookup_type("ZoRWRecord").pointer())
            holdings = int(record["holdings"])
            if holdings != 0:
                yield int(record["mutex"]), holdings % SINGLE_WRITE, holdings // SINGLE_WRITE
            item = item["next"]

    def readers_of(self, mutex):
        return [thread for thread in self.threads
                for address, reads, writes in self.reads_and_writes(thread)
                if address == mutex and reads >= SINGLE_READ and writes == 0]


# --- synchronisation objects -------------------------------------------------------------------

class Owner:
    """Who has a section: nobody, a thread of the process, or one that is not there any more."""

    def __init__(self, known, key, nobody):
        self.is_nobody = key in nobody
        self.thread = known.get(key)

    def __str__(self):
        if self.is_nobody:
            return "nobody"
        return self.thread.short() if self.thread is not None else "a thread that has ended"


class Wait:
    def __init__(self, thread, entry, purpose):
        self.entry, self.purpose = entry, purpose
        self.since = thread.waiting_since

    def holders(self):
        return self.entry.holders(self.purpose)

    def __str__(self):
        holders = ", ".join(thread.short() for thread in self.holders()) or "no thread"
        by = "read by" if self.purpose == "write" else "held by"
        told = f"to {self.purpose} {self.entry.title()}"
        if self.purpose != "pass":
            told += f", {by} {holders}"
        if self.since != 0:
            told += time.strftime(", since %H:%M:%S on %Y-%m-%d", time.localtime(self.since))
        return told


class Object:
    kind = "object"

    @staticmethod
    def of(value, process):
        for base, made in (("ZoDLDCritSect", Detecting), ("PosixCritSect", Plain), ("ZoCritSect", Section),
                           ("ZoGenRW_Mutex", Mutex), ("POSIXCondition", ConditionObject)):
            if is_kind(value, base):
                return made(value, process)
        return Object(value, process)

    def __init__(self, value, process):
        self.value, self.process = value, process
        self.address = int(value.address)
        self.name = text_of(value["name"])

    def title(self):
        return f'{self.kind} "{self.name}" {hexadecimal(self.address)}'

    def state(self):
        return class_of(self.value)

    def is_used(self):
        return False

    def sleep_of(self, thread):
        return None

    def holders(self, purpose):
        return []

    def contention(self):
        return ""

    def waiters(self):
        return [thread for thread in self.process.threads
                if (wait := self.process.wait_of(thread)) is not None and wait.entry.address == self.address]


# The figures of waits that are over, as one text; empty without any.
def told_waits(*parts):
    figures = [part["figures"] for part in parts]
    waits = sum(number(part["waits"]) for part in figures)
    if waits == 0:
        return ""
    total = sum(number(part["nanoseconds"]) for part in figures) / 1e6
    longest = max(number(part["longest"]) for part in figures) / 1e6
    return f"; {waits} waits before, {total:.1f} ms in all, {longest:.1f} ms at most"


class Section(Object):
    """The base, which locks nothing."""
    kind = "dummy"

    def state(self):
        return "locks nothing"

    def counts(self):
        return f"owning count {number(self.value['owningCount'])}, wait count {number(self.value['waitCount'])}"


class Plain(Section):
    kind = "section"

    def owner(self):
        return Owner(self.process.by_handle, number(self.value["owner"]), {0})

    def state(self):
        return "is available" if self.owner().is_nobody else f"{self.owner()}, {self.counts()}"

    def contention(self):
        return told_waits(self.value)

    def is_used(self):
        return not self.owner().is_nobody

    def sleep_of(self, thread):
        return Wait(thread, self, "enter") if thread.sleeps_in(self.value) else None

    def holders(self, purpose):
        return [self.owner().thread] if self.owner().thread is not None else []


class Detecting(Plain):
    kind = "detecting section"

    def owner(self):
        return Owner(self.process.by_record, number(self.value["owner"]), {0})

    def contention(self):
        plain = self.value["plain"]
        return told_waits(plain.dereference()) if int(plain) != 0 else ""

    def sleep_of(self, thread):
        wrapped = self.value["wrapped"]
        return Wait(thread, self, "enter") if int(wrapped) != 0 and thread.sleeps_in(complete(wrapped)) else None


class Mutex(Object):
    kind = "mutex"

    def exclusive(self):
        return Object.of(complete(self.value["exclusive"]), self.process)

    def state(self):
        told = []
        if not self.exclusive().owner().is_nobody:
            told.append(f"{self.exclusive().owner()} writes or is admitted next, level {number(self.value['WriterLevel'])}")
        readers = self.process.readers_of(self.address)
        if readers:
            told.append("read by " + ", ".join(thread.short() for thread in readers))
        return "; ".join(told) or "is available"

    def contention(self):
        entry = self.exclusive()
        parts = [entry.value["plain"].dereference() if isinstance(entry, Detecting) else entry.value]
        return told_waits(*parts, complete(self.value["readers"]))

    def is_used(self):
        return self.state() != "is available"

    def sleep_of(self, thread):
        if sleeps_in_condition(thread, complete(self.value["readers"])):
            return Wait(thread, self, "write")
        return Wait(thread, self, "enter") if self.exclusive().sleep_of(thread) is not None else None

    def holders(self, purpose):
        if purpose == "write":
            return self.process.readers_of(self.address)
        return self.exclusive().holders(purpose)

    def waiters(self):
        exclusive = self.exclusive().address
        return [thread for thread in self.process.threads if (wait := self.process.wait_of(thread)) is not None
                and wait.entry.address in (self.address, exclusive)]


class ConditionObject(Object):
    kind = "condition"

    def state(self):
        told = f"value {int(self.value['value'])}"
        logic = self.value["logic"]
        if int(logic) != 0 and class_of(complete(logic)) == "ZoWorkQueueImplLogic":
            told += f", of queue {hexadecimal(int(complete(logic)['queue']))}"
        return told

    def contention(self):
        return told_waits(self.value)

    def sleep_of(self, thread):
        return Wait(thread, self, "pass") if sleeps_in_condition(thread, self.value) else None


def sleeps_in_condition(thread, value):
    if thread.sleeps_in(value):
        return True
    sleeper = value["firstSleeper"]
    while int(sleeper) != 0:
        if thread.sleeps_in(sleeper.dereference()):
            return True
        sleeper = sleeper["behind"]
    return False


# --- rings -------------------------------------------------------------------------------------

class Graph:
    def __init__(self, process):
        self.process = process

    def next_of(self, thread):
        wait = self.process.wait_of(thread)
        return wait.holders() if wait is not None else []

    def ring_through(self, start):
        """The shortest ring of waits through the thread, as the threads on it, or None."""
        ways, passed = [[start]], set()
        while ways:
            way = ways.pop(0)
            for thread in self.next_of(way[-1]):
                if thread is start:
                    return way
                if thread.gdb.num not in passed:
                    passed.add(thread.gdb.num)
                    ways.append(way + [thread])
        return None

    def rings(self):
        found = {}
        for start in self.process.threads:
            ring = self.ring_through(start)
            if ring is not None:
                found.setdefault(frozenset(thread.gdb.num for thread in ring), ring)
        return list(found.values())


def stack_of(thread):
    with Selection():
        thread.gdb.switch()
        return gdb.execute(f"backtrace {MOST_FRAMES}", to_string=True).rstrip("\n")


# --- the commands ------------------------------------------------------------------------------

class Zo(gdb.Command):
    """The locks and threads of libzo95Kex.so: zo locks, zo threads, zo deadlock, zo queue ADDRESS."""

    def __init__(self):
        super().__init__("zo", gdb.COMMAND_STATUS, gdb.COMPLETE_NONE, True)


class ZoCommand(gdb.Command):
    def __init__(self):
        super().__init__(self.words, gdb.COMMAND_STATUS)

    def invoke(self, argument, from_tty):
        try:
            for line in self.lines(argument):
                gdb.write(line + "\n")
        except gdb.error as error:
            raise gdb.GdbError(f"zo: gdb cannot go on: {error}") from error


class ZoLocks(ZoCommand):
    """Every synchronisation object that is alive; first those for which somebody waits."""
    words = "zo locks"

    def lines(self, argument):
        process = Process()
        rows = [(entry, entry.waiters()) for entry in process.objects]
        rows.sort(key=lambda row: (-len(row[1]), not row[0].is_used(), row[0].name))
        for entry, waiters in rows:
            line = f"{entry.title()}: {entry.state()}{entry.contention()}"
            if waiters:
                line += "; waiting: " + ", ".join(thread.short() for thread in waiters)
            yield line


class ZoThreads(ZoCommand):
    """Every thread: what it holds and what it waits for."""
    words = "zo threads"

    def lines(self, argument):
        process = Process()
        sections = [entry for entry in process.objects if isinstance(entry, Plain)]
        for thread in process.threads:
            record = int(thread.record)
            yield f"{thread.long()}, {'record ' + hexadecimal(record) if record else 'no record'}"
            for entry in sections:
                if thread in entry.holders("enter"):
                    yield f"    holds {entry.title()}, {entry.counts()}"
            for mutex, reads, writes in process.reads_and_writes(thread):
                yield f"    holds mutex {hexadecimal(mutex)}, {reads} reads, {writes} writes"
            if (wait := process.wait_of(thread)) is not None:
                yield f"    waits {wait}"


class ZoDeadlock(ZoCommand):
    """The rings of waits, and where each thread of a ring stands."""
    words = "zo deadlock"

    def lines(self, argument):
        process = Process()
        rings = Graph(process).rings()
        if not rings:
            yield f"No ring: {len(process.waits)} threads wait, none of them for itself."
        for ring in rings:
            yield f"A ring of {len(ring)} threads:"
            for thread in ring:
                yield f"    {thread.long()} waits {process.wait_of(thread)}"
            for thread in ring:
                yield f"\n{thread.long()} stands at:"
                yield stack_of(thread)


class ZoQueue(ZoCommand):
    """zo queue ADDRESS: a work queue. `zo locks` tells the addresses."""
    words = "zo queue"

    def lines(self, argument):
        if not argument:
            raise gdb.GdbError("zo: zo queue ADDRESS; zo locks tells the addresses of queues")
        process = Process()
        address = gdb.parse_and_eval(argument)
        queue = address.cast(gdb.lookup_type("ZoWorkQueue").pointer())
        if queue.dynamic_type.target().name != "ZoWorkQueueImpl":
            raise gdb.GdbError(f"zo: there is no work queue at {argument}")
        queue = complete(queue)
        units = list(waiting_units(queue))
        state = "terminated" if number(queue["terminated"]) else "open"
        yield (f"queue {hexadecimal(int(queue.address))}: {state}, {int(queue['workers']['condition']['value'])} "
               f"workers, {len(units)} units wait, context {hexadecimal(int(queue['context']))}")
        for worker in process.object_at(queue["condition"]).waiters():
            yield f"    {worker.long()} waits for a unit"
        for unit in units[:MOST_UNITS]:
            yield f"    unit {hexadecimal(int(unit))} {class_of(complete(unit))}"
        if len(units) > MOST_UNITS:
            yield f"    and {len(units) - MOST_UNITS} more"


def waiting_units(queue):
    item = queue["items"]["list"]["first"]
    place = int(queue["taken"]) if int(queue["first"]) == int(item) else 0
    while int(item) != 0:
        units = item.cast(gdb.lookup_type("(anonymous namespace)::ZoQueueItem").pointer())
        for at in range(place, number(units["used"])):
            yield units["units"][at]
        item, place = item["next"], 0


# --- printers ----------------------------------------------------------------------------------

class Printer:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        entry = Object.of(complete(self.value.address), Process())
        return f"{entry.title()}: {entry.state()}"


class RecordPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        process = Process()
        thread = process.by_record.get(int(self.value.address))
        if thread is None:
            return f"record {hexadecimal(int(self.value.address))} of no thread that is there"
        wait = process.wait_of(thread)
        return f"record of {thread.short()}, which " + (f"waits {wait}" if wait is not None else "waits for nothing")


def printers():
    made = gdb.printing.RegexpCollectionPrettyPrinter("zo95Kex")
    made.add_printer("synchronisation object",
                     "^(ZoSynchroObj|ZoCritSect|PosixCritSect|ZoDLDCritSect|Condition|POSIXCondition|ZoRW_Mutex|ZoGenRW_Mutex)$",
                     Printer)
    made.add_printer("thread record", "^ZoTLS$", RecordPrinter)
    return made


gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
for command in (Zo, ZoLocks, ZoThreads, ZoDeadlock, ZoQueue):
    command()
