"""A small writer of ZANA programs for the window tests: calls, strings, labels, a number printer."""

ARG = 10      # a0 of every call; 30 slots up to 39 (call 24 needs them all)
RES = 40      # where a call's result lands
BUF = 60000   # text buffer of the number printer; its "\n" suffix at BUF - 8


class Prog:
    def __init__(self, slots=64):
        self.slots, self.code, self.labels = slots, [], {}
        self.const(0, 0)                 # slot 0 holds 0: the base of every store
        self.const(1, 10)
        self.emit(f"store8 a=0 b=1 c={BUF - 8}")

    def emit(self, line):
        self.code.append(line)

    def label(self, name):
        self.labels[name] = len(self.code)

    def const(self, slot, value):
        self.emit(f"const.i32 a={slot} b={value & 0xFFFFFFFF}")

    def call(self, number, *args, res=RES):
        """Arguments are numbers, or ("slot", n) to pass a slot's value."""
        for i, a in enumerate(args):
            if isinstance(a, tuple):
                self.emit(f"mov a={ARG + i} b={a[1]}")
            else:
                self.const(ARG + i, a)
        self.emit(f"syscall a={number} b={res} c={ARG}")

    def string(self, addr, data):
        """Stores bytes (str or bytes) and a terminator at addr."""
        for i, b in enumerate((data.encode() if isinstance(data, str) else data) + b"\0"):
            self.const(2, b)
            self.emit(f"store8 a=0 b=2 c={addr + i}")

    def print_slot(self, slot):
        """Prints a slot's low 32 bits as a signed decimal and a line feed."""
        self.call(29, BUF, 32, ("slot", slot), 0, BUF - 8, res=41)
        self.call(1, 1, BUF, ("slot", 41), res=42)

    def jump(self, op, target, slot=None):
        self.emit((op, target, slot))

    def text(self):
        out = [f"func 0 main slots={self.slots}"]
        for line in self.code:
            if isinstance(line, tuple):
                op, target, slot = line
                line = f"{op} a={self.labels[target]}" + (f" b={slot}" if slot is not None else "")
            out.append(line)
        return "\n".join(out) + "\n"
