"""Velmora controllers from Python, over the library's C interface (ctypes).

No build step: the module loads libVelmora.so (Velmora.dll on Windows) from
$VELMORA_LIBRARY, from a build directory beside this file, or from the
system's library path.

    import velmora
    with velmora.Controller("127.0.0.1") as cnc:
        cnc.write({"usr5": 42})
        print(cnc.read(["usr5", 1000006]))        # [42, 0]
        print(cnc.error_file())                   # ErrorFile(status=0, text='...')
        cnc.upload(1, "O1000", open("part.nc").read())
        with cnc.buffer(channel=1) as buf:        # remote buffer, DNC mode
            buf.write(open("long.nc").read())

Every failure raises VelmoraError with the library's status code and its
words. A status after which the library keeps a channel locked raises
LockedChannelError; calls on that channel then raise at once instead of
blocking for ever, until recover() registers the controller anew.
"""
import collections
import ctypes
import ctypes.util
import os
import threading
import time

__all__ = ["Controller", "RemoteBuffer", "ErrorFile", "VelmoraError", "LockedChannelError",
           "status_text", "variable_number", "load_library", "library_version"]

# Status codes of the C interface.
OK, PARAMETER, ERROR_REPLY, QUEUE_FULL, WRONG_MODE, NOT_CONNECTED = 0, 1, 3, 4, 6, 7
ALARM, NO_REPLY = 100, 111
# Digits that only the error file's text carries.
ERROR_FILE_CUT, ERROR_FILE_NOT_WRITTEN, ERROR_FILE_SELECTOR = 5, 8, 9

_WORDS = {
    0: "success",
    1: "parameter error or unknown controller",
    3: "the controller answered with an error reply",
    4: "the request queue or the controller's DNC memory is full",
    6: "wrong client mode",
    7: "not connected to the controller",
    5: "the error file was cut at 64 KiB or after 10 s of reading",
    8: "the controller did not write the error file in time, or did not answer while it was read",
    9: "bad error-file selector",
    100: "the controller reports an execution alarm",
    111: "no reply within the reply time-out",
    112: "no oscilloscope points",
}

# Areas of the labels file's address texts: prefix -> base within a channel.
_AREAS = {"usr": 0, "sys": 10000, "reg": 40000, "mcm": 50000, "bus": 60000, "com": 70000}
CHANNEL_STRIDE = 1000000

# The remote buffer cuts a write into 480-byte pieces and drops every full
# one; pieces of 479 bytes always arrive.
BUFFER_PIECE = 479
# A transfer piece below 400 bytes: given 400 or more, the library follows
# them with an empty piece.
UPLOAD_PIECE = 399


class VelmoraError(Exception):
    """A call failed: `status` is the library's code, `text` its words."""

    def __init__(self, call, status, text=None):
        self.call = call
        self.status = status
        self.text = text if text is not None else status_text(status)
        super().__init__("%s: %s (status %d)" % (call, self.text, status))


class LockedChannelError(VelmoraError):
    """The library keeps this channel locked: only Controller.recover() frees it."""

    def __init__(self, call, status, channel):
        self.channel = channel
        super().__init__(call, status, "%s; channel %d stays locked until Controller.recover()"
                         % (status_text(status), channel))


ErrorFile = collections.namedtuple("ErrorFile", "status text")

_lib = None
_lib_lock = threading.Lock()


def load_library(path=None, quiet=True):
    """Loads the library once; later calls return the same handle.

    The library writes diagnostic lines (calls, connection states) to stderr
    through Qt's debug stream. With quiet (the default) and no
    QT_LOGGING_RULES of the process's own, they are switched off before the
    library loads, everywhere: Controller.debug() then writes no files
    either. Load with quiet=False to see them, or to send them to files.
    """
    global _lib
    with _lib_lock:
        if _lib is not None:
            return _lib
        if quiet:
            os.environ.setdefault("QT_LOGGING_RULES", "default.debug=false")
        here = os.path.dirname(os.path.abspath(__file__))
        candidates = [path, os.environ.get("VELMORA_LIBRARY"),
                      os.path.join(here, "..", "build", "libVelmora.so"),
                      # installed: PREFIX/share/velmora/python -> PREFIX/lib
                      os.path.join(here, "..", "..", "..", "lib", "libVelmora.so.1"),
                      ctypes.util.find_library("Velmora"), "libVelmora.so.1", "Velmora.dll"]
        errors = []
        for c in candidates:
            if not c or (os.sep in c and not os.path.exists(c)):
                continue
            try:
                lib = ctypes.CDLL(c)
                break
            except OSError as e:
                errors.append(str(e))
        else:
            raise OSError("cannot load the Velmora library (set VELMORA_LIBRARY): " + "; ".join(errors))
        _declare(lib)
        _lib = lib
        return lib


def _declare(lib):
    L, I, B, P = ctypes.c_long, ctypes.c_int, ctypes.c_bool, ctypes.c_char_p
    LP, VP = ctypes.POINTER(ctypes.c_long), ctypes.c_void_p
    table = {
        "addTargetCnc": (B, [I, I, P, I]), "removeTargetCnc": (B, [I]), "connect": (B, [I]),
        "disconnect": (B, [I]), "getTcpConnectFlag": (B, [I]), "getErrorDeb": (L, [I, I]),
        "CheckTcpWdt": (L, [I]), "readVars": (L, [LP, I, LP, I]), "writeVars": (L, [LP, I, LP, I]),
        "readBits": (L, [L, I, LP, I, LP, I]), "reset": (L, [L, I]), "cycStart": (L, [L, P, I]),
        "getRuningPrg": (P, [I, I]), "setTransFileType": (L, [L, L, P, I]), "overwrite": (L, [P, L, I]),
        "append": (L, [P, L, I]), "fileEnd": (L, [L, I]), "getCncCurrentError": (P, [L, I]),
        "bufOpen": (VP, [P, ctypes.c_uint, ctypes.c_uint]), "bufWrite": (I, [VP, P]), "bufClear": (I, [VP]),
        "bufClose": (I, [VP]), "getBufValidCnt": (I, [VP]), "getBufState": (I, [VP]), "getBufStateInf": (P, [VP]),
        "setErrCallbackFunc": (B, [VP, I]),
    }
    for name, (res, args) in table.items():
        f = getattr(lib, name)
        f.restype, f.argtypes = res, args
    if hasattr(lib, "velmoraStatusText"):
        lib.velmoraStatusText.restype, lib.velmoraStatusText.argtypes = P, [L]
        lib.velmoraVersion.restype, lib.velmoraVersion.argtypes = P, []


def library_version():
    """The loaded library's version, "MAJOR.MINOR.PATCH"."""
    lib = load_library()
    return lib.velmoraVersion().decode() if hasattr(lib, "velmoraVersion") else "1.0"


def status_text(status):
    """The words for a status code."""
    lib = _lib
    # 5, 8 and 9 are the error file's own digits, no statuses of the C functions.
    if lib is not None and hasattr(lib, "velmoraStatusText") and status not in (5, 8, 9):
        text = lib.velmoraStatusText(status)
        if text:
            return text.decode("utf-8", "replace")
    return _WORDS.get(status, "unknown status")


def variable_number(address, channel=1):
    """A variable number from an int or a labels-file address text ("usr5")."""
    if isinstance(address, int):
        number = address
    elif isinstance(address, str) and address[:3] in _AREAS and address[3:].isdigit():
        number = channel * CHANNEL_STRIDE + _AREAS[address[:3]] + int(address[3:])
    elif isinstance(address, str) and address.isdigit():
        number = int(address)
    else:
        raise ValueError("bad address %r: a variable number or usr/sys/reg/mcm/bus/com and an offset" % (address,))
    if not 0 <= number <= 9999999 or number % CHANNEL_STRIDE > 169999:
        raise ValueError("bad address %r: variable %d is outside the controller's address range" % (address, number))
    return number


def _program_text(text):
    """Program text as the controller takes it: 7-bit, no 0 byte."""
    data = text.encode("ascii", "strict") if isinstance(text, str) else bytes(text)
    for i, b in enumerate(data):
        if b == 0 or b > 0x7f:
            raise ValueError("byte 0x%02X at offset %d: the controller takes 7-bit text only and would "
                             "silently drop everything from there on" % (b, i))
    return data


class _RegistryLock:
    """Registration must not overlap any other call: shared for calls, exclusive for registration."""

    def __init__(self):
        self._cond = threading.Condition()
        self._calls = 0
        self._registering = False

    def call(self):
        return _Held(self, False)

    def register(self):
        return _Held(self, True)


class _Held:
    def __init__(self, lock, exclusive):
        self.lock, self.exclusive = lock, exclusive

    def __enter__(self):
        c = self.lock._cond
        with c:
            if self.exclusive:
                c.wait_for(lambda: not self.lock._registering and self.lock._calls == 0)
                self.lock._registering = True
            else:
                c.wait_for(lambda: not self.lock._registering)
                self.lock._calls += 1

    def __exit__(self, *exc):
        c = self.lock._cond
        with c:
            if self.exclusive:
                self.lock._registering = False
            else:
                self.lock._calls -= 1
            c.notify_all()


_registry = _RegistryLock()
_ids = iter(range(1, 1 << 30))
_ids_lock = threading.Lock()

_CALLBACK = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_char_p)


class Controller:
    """One controller at `address` (IPv4 text), port 60000, in direct mode.

    `channels` is the number of DNC channels that file transfers may use.
    Use it as a context manager, or call connect() and close().
    """

    def __init__(self, address, channels=1, library=None):
        self.lib = load_library(library)
        self.address = address
        self.channels = channels
        self.locked_channels = {}   # channel -> the status that locked it
        self._callback = None
        self._id = None

    # Lifetime -----------------------------------------------------------
    def __enter__(self):
        self.connect()
        return self

    def __exit__(self, *exc):
        self.close()

    def connect(self):
        """Registers and connects; VelmoraError with status 7 when it cannot."""
        if self._id is None:
            self._register()
        with _registry.call():
            ok = self.lib.connect(self._id)
        if not ok:
            raise VelmoraError("connect", NOT_CONNECTED, "cannot connect to %s:60000" % self.address)

    def close(self):
        """Disconnects and unregisters (also a locked controller)."""
        if self._id is None:
            return
        with _registry.call():
            self.lib.disconnect(self._id)
        with _registry.register():
            self.lib.removeTargetCnc(self._id)
        self._id = None

    def recover(self):
        """The way out of a locked channel: removeTargetCnc, addTargetCnc, connect."""
        self.close()
        self.locked_channels.clear()
        self.connect()
        if self._callback is not None:
            self.on_error(self._user_callback)

    def _register(self):
        with _ids_lock:
            self._id = next(_ids)
        with _registry.register():
            if not self.lib.addTargetCnc(self._id, self.channels, self.address.encode(), 0):
                raise VelmoraError("addTargetCnc", PARAMETER)

    def _call(self, name, *args):
        if self._id is None:
            raise VelmoraError(name, NOT_CONNECTED, "the controller is closed")
        with _registry.call():
            return getattr(self.lib, name)(*args, self._id)

    def _check(self, name, status):
        if status != OK:
            raise VelmoraError(name, status)

    # Variables ----------------------------------------------------------
    def read(self, addresses, channel=1):
        """Values of variables given by number or address text (on `channel`)."""
        numbers = [variable_number(a, channel) for a in addresses]
        if not numbers:
            return []
        arr = (ctypes.c_long * len(numbers))(*numbers)
        out = (ctypes.c_long * len(numbers))()
        self._check("readVars", self._call("readVars", arr, len(numbers), out))
        return list(out)

    def write(self, values, channel=1):
        """Writes {address: value} or [(address, value), ...]; values are 32-bit words."""
        pairs = list(values.items()) if isinstance(values, dict) else list(values)
        numbers = [variable_number(a, channel) for a, _ in pairs]
        words = []
        for a, v in pairs:
            if not -2 ** 31 <= v <= 0xFFFFFFFF:
                raise ValueError("value %r of %r does not fit a 32-bit word" % (v, a))
            words.append(v - 2 ** 32 if v >= 2 ** 31 else v)
        if not numbers:
            return
        arr = (ctypes.c_long * len(numbers))(*numbers)
        vals = (ctypes.c_long * len(words))(*words)
        self._check("writeVars", self._call("writeVars", arr, len(numbers), vals))

    def read_bits(self, channel, area, bits):
        """Bits (0 or 1) of bit area `area` (0..6) of `channel`."""
        bits = list(bits)
        arr = (ctypes.c_long * len(bits))(*bits)
        out = (ctypes.c_long * len(bits))()
        self._check("readBits", self._call("readBits", channel, area, arr, len(bits), out))
        return list(out)

    # Program control ----------------------------------------------------
    def watchdog(self):
        self._check("CheckTcpWdt", self._call("CheckTcpWdt"))

    def reset(self, channel):
        self._check("reset", self._call("reset", channel))

    def start(self, channel, program):
        self._check("cycStart", self._call("cycStart", channel, _program_text(program)[:100]))

    def running_program(self, channel):
        """Name of the program running on `channel`, "" when idle."""
        text = self._call("getRuningPrg", channel)
        # The library says "no reply" with the one character "o".
        if text is None or text == b"o":
            raise VelmoraError("getRuningPrg", PARAMETER if text is None else NO_REPLY)
        return text.decode("utf-8", "replace")

    # Error files --------------------------------------------------------
    def error_file(self, index=0, history=False):
        """The current (or history) error file of channel index 0..8, as ErrorFile(status, text).

        status 0: text is the file; 5: the file cut at 64 KiB or 10 s of
        reading; otherwise text is the library's words, if any (7
        "SocketDisconnected", 8 "timeout get curErrorerror file"), or what
        was read before the failure.
        """
        if not 0 <= index <= 8:
            raise ValueError("bad channel index %r (0..8)" % (index,))
        raw = self._call("getCncCurrentError", index * 10 + (1 if history else 0))
        if not raw:
            return ErrorFile(PARAMETER, status_text(PARAMETER))
        digit, text = chr(raw[0]), raw[1:].decode("utf-8", "replace")
        status = ALARM if digit == "1" else int(digit) if digit.isdigit() else PARAMETER
        return ErrorFile(status, text)

    # File transfer ------------------------------------------------------
    def upload(self, channel, name, text, file_type=0, progress=None):
        """Copies program `text` into DNC memory of `channel` as file `name`.

        The text must be 7-bit (ValueError otherwise, before any traffic).
        progress(sent, total) is called after each piece.
        """
        if channel in self.locked_channels:
            raise LockedChannelError("upload", self.locked_channels[channel], channel)
        if not 1 <= channel <= self.channels:
            raise ValueError("bad channel %r (1..%d, the controller's channels)" % (channel, self.channels))
        if not name or "/" in name:
            raise ValueError("bad program name %r (not empty, no '/')" % (name,))
        data = _program_text(text)

        def locked_if(call, status, locking):
            if locking:
                self.locked_channels[channel] = status
                raise LockedChannelError(call, status, channel)
            self._check(call, status)

        status = self._call("setTransFileType", file_type, channel, _program_text(name))
        # Types 0 and 1 also empty the file with an overwrite, which locks on 3 and 4.
        locked_if("setTransFileType", status, status == ALARM or (file_type != 2 and status in (3, 4)))
        sent = 0
        while True:
            piece = data[sent:sent + UPLOAD_PIECE]
            first = sent == 0
            call = "overwrite" if first else "append"
            status = self._call(call, piece, channel)
            locked_if(call, status, status == ALARM or (first and status in (3, 4)))
            sent += len(piece)
            if progress:
                progress(sent, len(data))
            if sent >= len(data):
                break
        self._check("fileEnd", self._call("fileEnd", channel))

    # Remote buffer ------------------------------------------------------
    def buffer(self, channel=1, mode="dnc"):
        """A RemoteBuffer on its own connection to this controller."""
        return RemoteBuffer(self.address, channel, mode, self.lib)

    def debug(self, mask):
        """getErrorDeb: mask bit 0 error lines, bit 1 details of this controller's
        main client. Non-zero sends every diagnostic line of the process to
        logs/CommLog_yyyy-MM-dd-hh.txt under the working directory instead of
        stderr; 0 sends them back to stderr."""
        self._check("getErrorDeb", self._call("getErrorDeb", mask))

    # Error callback -----------------------------------------------------
    def on_error(self, callback):
        """callback(command, state, detail) when a reply reports a failure.

        It runs on the thread that made the call (direct mode), inside the
        library: keep it short and do not call the library from it.
        """
        self._user_callback = callback

        def trampoline(cmd, state, detail):
            try:
                callback(cmd, state, detail.decode("utf-8", "replace") if detail else "")
            except Exception:  # an exception must not unwind through C
                pass
            return 0

        self._callback = _CALLBACK(trampoline)
        if not self._call("setErrCallbackFunc", ctypes.cast(self._callback, ctypes.c_void_p)):
            raise VelmoraError("setErrCallbackFunc", PARAMETER)


class RemoteBuffer:
    """A writer that streams program text through the remote buffer.

    write() hands text over in pieces the buffer keeps whole, waiting for room;
    flush() waits until the controller took everything. The buffer's own
    results (1 for success) never reach the caller: failures raise
    VelmoraError.
    """
    MODES = {"mdi": 0, "dnc": 1}

    def __init__(self, address, channel=1, mode="dnc", library=None, timeout=10.0):
        self.lib = library or load_library()
        if mode not in self.MODES:
            raise ValueError("bad mode %r (dnc or mdi)" % (mode,))
        self.mode = mode
        self.timeout = timeout
        self._h = self.lib.bufOpen(address.encode(), self.MODES[mode], channel)
        if not self._h:
            raise VelmoraError("bufOpen", PARAMETER)
        # State 3 until the buffer's thread has connected (at most 500 ms).
        deadline = time.monotonic() + 1.0
        while self.state == 3 and time.monotonic() < deadline:
            time.sleep(0.01)
        if self.state == 3:
            self.close()
            raise VelmoraError("bufOpen", NOT_CONNECTED, "cannot connect to %s:60000" % address)

    def __enter__(self):
        return self

    def __exit__(self, exc_type, *exc):
        try:
            if exc_type is None:
                self.flush()
        finally:
            self.close()

    @property
    def state(self):
        return self.lib.getBufState(self._h) if self._h else 3

    @property
    def state_text(self):
        t = self.lib.getBufStateInf(self._h) if self._h else None
        return t.decode("utf-8", "replace") if t else ""

    @property
    def room(self):
        return self.lib.getBufValidCnt(self._h) if self._h else 0

    def _wait(self, ready, what):
        deadline = time.monotonic() + self.timeout
        while not ready():
            if time.monotonic() > deadline:
                raise VelmoraError("bufWrite", NO_REPLY, "%s; the buffer says %r (state %d)"
                                   % (what, self.state_text, self.state))
            time.sleep(0.005)

    def write(self, text):
        data = _program_text(text)
        if self.mode == "mdi" and len(data) > BUFFER_PIECE:
            raise ValueError("an MDI write is one program of at most %d bytes" % BUFFER_PIECE)
        for at in range(0, len(data), BUFFER_PIECE):
            piece = data[at:at + BUFFER_PIECE]
            self._wait(lambda: self.state in (0, 5) and (self.mode == "mdi" or self.room >= BUFFER_PIECE),
                       "no room for %d bytes" % len(piece))
            if self.lib.bufWrite(self._h, piece) != 1:
                raise VelmoraError("bufWrite", PARAMETER, "the buffer refused the text (state %d)" % self.state)
        return len(data)

    def flush(self):
        self._wait(lambda: self.state == 5, "the controller did not take everything")

    def clear(self):
        if self.lib.bufClear(self._h) != 1:
            raise VelmoraError("bufClear", PARAMETER, "the buffer refused to clear (state %d)" % self.state)

    def close(self):
        if self._h:
            self.lib.bufClose(self._h)
            self._h = None
