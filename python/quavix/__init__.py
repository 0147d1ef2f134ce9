"""Quavix from Python: timed MIDI output, MIDI input and thru, a mixer of wave files,
recording and a General MIDI synth, driven as one group by one manager.

    import quavix
    with quavix.Quavix(midi=True, wave=True) as q:
        q.perform(quavix.Score(quavix.note(t * 250, 0, 60 + t, 100, 200) for t in range(8)))

A performance is a callable ``performance(start, end)`` that returns the events due in
the period [start, end) (milliseconds of play time; the engine asks 100 ms at a time,
ahead of the sound), or None once it has ended. In slave sync, a performance object
with a ``sync(code, start, end)`` method also hears the external clock's transport
(``SYNC_START``, ``SYNC_STOP``, ``SYNC_CONTINUE``, ``SYNC_CLOCK``, ``SYNC_POSITION``)
and may return events from it too. A recording is a callable that
receives each ``Midi``, ``SysEx`` and ``WaveBuffer`` an input delivers. Both are called
on the library's own threads, with the GIL taken only for the call. An exception raised
in one is logged on the ``quavix`` logger and kept in ``Quavix.errors``; a performance
that raised has ended, a recording goes on.

Reports of the library (a device that would not open, a file that is not a wave file)
go to the ``quavix`` logger, or to the ``on_notify`` callable given to ``Quavix``. A
call that fails raises ``QuavixError`` with those reports' text.
"""

import logging
import os

from . import _quavix as _q
from ._quavix import Midi, QuavixError, SysEx, Wave, WaveBuffer
from ._quavix import SYNC_CLOCK, SYNC_CONTINUE, SYNC_POSITION, SYNC_START, SYNC_STOP

__all__ = ["Quavix", "Device", "Score", "Midi", "SysEx", "Wave", "WaveBuffer", "QuavixError", "CallbackError",
           "WaveFileReader", "WaveFileWriter", "note", "note_on", "note_off", "program_change", "control_change",
           "MIDI", "WAVE", "IN", "OUT", "SYNC_START", "SYNC_STOP", "SYNC_CONTINUE", "SYNC_CLOCK", "SYNC_POSITION"]

MIDI, WAVE = 0, 1
IN, OUT = 0, 1
SYNTH_NAME = "Quavix GM Synth"

log = logging.getLogger("quavix")

_STATES = [(0x0001, "closed"), (0x0002, "open"), (0x0004, "stopped"), (0x0008, "paused"), (0x0010, "started"),
           (0x0100, "stopping"), (0x8000, "disabled")]


class CallbackError(QuavixError):
    """A performance passed to ``Quavix.perform`` raised; the exception is its cause."""


# ---------------------------------------------------------------- events

def note_on(time, channel, key, velocity, device=0):
    return Midi(time, [0x90 | channel, key, velocity], device)


def note_off(time, channel, key, velocity=0, device=0):
    return Midi(time, [0x80 | channel, key, velocity], device)


def note(time, channel, key, velocity, duration, device=0):
    """A note as its two messages, on at ``time`` and off ``duration`` ms later."""
    return [note_on(time, channel, key, velocity, device), note_off(time + duration, channel, key, 0, device)]


def program_change(time, channel, program, device=0):
    return Midi(time, [0xC0 | channel, program], device)


def control_change(time, channel, controller, value, device=0):
    return Midi(time, [0xB0 | channel, controller, value], device)


def _flatten(events):
    for e in events:
        if isinstance(e, (list, tuple)):
            yield from _flatten(e)
        else:
            yield e


class Score:
    """A performance of a list of events (in any order, lists nested as ``note`` makes
    them): each period gets the events due in it. It ends ``tail`` ms after the last
    event, and not before its wave files have played to their end."""

    def __init__(self, events, tail=200):
        self.events = sorted(_flatten(events), key=lambda e: e.time)
        self._next = 0
        last = 0
        for e in self.events:
            length = _q.wave_duration_ms(e.file) if isinstance(e, Wave) else 0
            last = max(last, e.time + length)
        self.end = last + tail

    def __call__(self, start, end):
        if start >= self.end:
            return None
        first = self._next
        while self._next < len(self.events) and self.events[self._next].time < end:
            self._next += 1
        return self.events[first:self._next]


# ---------------------------------------------------------------- devices

class Device:
    """One device of the manager, addressed by type (MIDI, WAVE), direction (IN, OUT)
    and number."""

    def __init__(self, type, direction, number):
        self.type, self.direction, self.number = type, direction, number

    def _address(self):
        return self.type, self.direction, self.number

    @property
    def name(self):
        return _q.device_name(*self._address())

    @property
    def state(self):
        """The device's state, as a set of words: {'open', 'started'}, {'closed'}, ..."""
        word = _q.device_state(*self._address())
        return {name for bit, name in _STATES if word & bit}

    @property
    def enabled(self):
        return _q.device_enabled(*self._address())

    @enabled.setter
    def enabled(self, on):
        _q.enable_device(*self._address(), bool(on))

    def enable(self):
        self.enabled = True
        return self

    def disable(self):
        self.enabled = False
        return self

    @property
    def format(self):
        """(rate, bits, channels) of a wave device; None for a MIDI device."""
        f = _q.device_format(*self._address())
        return f if f[0] else None

    @format.setter
    def format(self, value):
        rate, bits, channels = value
        _q.set_device_format(*self._address(), rate, bits, channels)

    def open(self):
        _q.open_device(*self._address())

    def start(self):
        _q.start_device(*self._address())

    def pause(self):
        _q.pause_device(*self._address())

    def stop(self):
        _q.stop_device(*self._address())

    def close(self):
        _q.close_device(*self._address())

    def __eq__(self, other):
        return isinstance(other, Device) and self._address() == other._address()

    def __hash__(self):
        return hash(self._address())

    def __repr__(self):
        kind = ("midi" if self.type == MIDI else "wave") + ("_in" if self.direction == IN else "_out")
        return f"<quavix.Device {kind} {self.number} {self.name!r}>"


# ---------------------------------------------------------------- the manager

class Quavix:
    """The manager: one per process, opened by the constructor and closed by ``close``
    (or the end of a ``with`` block), which closes every device.

    midi, wave: which device families to use.
    backend: "virtual", "jack", "pulse", "alsa" or "auto" (the default, or what
        QUAVIX_BACKEND says).
    render: run on the render clock, as fast as the CPU allows, on the virtual backend
        (see ``render``); render_format is its (rate, bits, channels).
    on_notify: called with (code, value, text) for every report, on the reporting
        thread; by default reports go to the ``quavix`` logger.
    """

    _open = None

    def __init__(self, midi=True, wave=True, *, backend=None, render=False, render_format=(48000, 16, 2),
                 on_notify=None):
        if Quavix._open is not None:
            raise QuavixError("a Quavix manager is open already: one per process")
        self.errors = []
        self._on_notify = on_notify
        self._render_format = tuple(render_format)
        if render:
            rate, bits, channels = self._render_format
            if backend not in (None, "virtual", "auto"):
                raise QuavixError("renders on the virtual backend only (a device keeps real time)")
            # Read by the backend when it starts, which is below.
            os.environ["QUAVIX_BACKEND"] = "virtual"
            os.environ["QUAVIX_VIRTUAL_AUDIO_RATE"] = str(rate)
            os.environ["QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE_FORMAT"] = f"{bits}:{channels}"
            if not _q.use_render_clock():
                raise QuavixError("cannot render: the library's clock already keeps real time in this process")
        elif backend is not None:
            os.environ["QUAVIX_BACKEND"] = backend
        _q._set_handlers(self._notify, self._callback_error)
        _q.init((_q.INIT_MIDI if midi else 0) | (_q.INIT_WAVE if wave else 0))
        Quavix._open = self

    # Called on the library's threads with the GIL.
    def _notify(self, code, value, text):
        if self._on_notify is not None:
            self._on_notify(code, value, text)
        else:  # the manager's own status (a performance or a recording done) is no fault
            log.log(logging.INFO if code < 100 else logging.WARNING, "%s", text)

    def _callback_error(self, where, exc, trace, owner):
        if trace is not None:
            exc = exc.with_traceback(trace)
        log.error("%s callback raised %r", where, exc, exc_info=(type(exc), exc, exc.__traceback__))
        self.errors.append(exc)
        if isinstance(owner, _Run):
            owner.error = exc

    def close(self):
        """Closes every device and the manager; later calls do nothing."""
        if Quavix._open is self:
            _q.exit()
            Quavix._open = None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    # Devices
    def devices(self, type=None, direction=None):
        """Every device, or those of one type and/or direction."""
        out = []
        for t in (MIDI, WAVE):
            for d in (IN, OUT):
                if (type is None or type == t) and (direction is None or direction == d):
                    out += [Device(t, d, n) for n in range(_q.device_count(t, d))]
        return out

    @property
    def midi_inputs(self):
        return self.devices(MIDI, IN)

    @property
    def midi_outputs(self):
        return self.devices(MIDI, OUT)

    @property
    def wave_inputs(self):
        return self.devices(WAVE, IN)

    @property
    def wave_outputs(self):
        return self.devices(WAVE, OUT)

    @property
    def synth(self):
        """The built-in General MIDI synth's MIDI output, or None."""
        return next((d for d in self.midi_outputs if d.name == SYNTH_NAME), None)

    # The group
    def open(self):
        _q.open_devices()

    def start(self):
        _q.start_devices()

    def pause(self):
        _q.pause_devices()

    def stop(self):
        _q.stop_devices()

    def close_devices(self):
        _q.close_devices()

    @property
    def play_time(self):
        """Milliseconds since the devices started (the time performances count in)."""
        return _q.elapsed_play_time()

    @property
    def latency(self):
        """How far ahead of the sound the engine asks performances (ms)."""
        return _q.latency_ms()

    @property
    def now(self):
        """The library's clock in ms (the render clock while rendering)."""
        return _q.clock_ms()

    def sleep(self, seconds):
        """Waits on the library's clock: while rendering, only a wait through here lets
        the render go on."""
        _q.sleep_ms(max(0, int(seconds * 1000)))

    # Performances and recordings
    def start_performance(self, performance, active=True):
        """Registers a performance; returns its tag. It plays once the devices start."""
        return _q.start_performance(performance, active, None)

    def stop_performance(self, tag):
        _q.stop_performance(tag)

    def perform(self, performance, *, tail=0.2, timeout=None):
        """Plays a performance on the open devices (opening and starting them where
        needed) and returns once it has ended and its sound has played out. Raises
        CallbackError when the performance raised."""
        run = _Run()
        tag = _q.start_performance(performance, True, run)
        if not any("started" in d.state for d in self.devices() if d.enabled):
            self.open()
            self.start()
        waited = 0
        while (ended := _q.performance_ended(tag)) is None:
            if timeout is not None and waited >= timeout * 1000:
                _q.stop_performance(tag)
                raise TimeoutError(f"the performance did not end within {timeout} s")
            _q.sleep_ms(10)
            waited += 10
        # Counted from when it ended, not from when this thread saw it: a render then
        # stops on the same frame every time.
        _q.sleep_ms(max(0, ended + _q.latency_ms() + int(tail * 1000) - _q.clock_ms()))
        if run.error is not None:
            raise CallbackError("the performance raised " + repr(run.error)) from run.error

    def start_recording(self, recording, active=True):
        """Registers a recording; returns its tag. It receives what the inputs deliver
        once they start."""
        return _q.start_recording(recording, active, None)

    def stop_recording(self, tag):
        _q.stop_recording(tag)

    def render(self, path, performance, *, tail=0.5):
        """Plays a performance on the render clock (``Quavix(render=True)``) on the enabled
        devices and writes what wave output 0 mixes (the synth sounds there too) into a
        wave file at ``path``, in the render format, as fast as the CPU allows: the same
        frames real-time playback would mix. The file is put in place once whole."""
        if not _q.render_clock_on():
            raise QuavixError("render needs Quavix(render=True)")
        part = f"{path}.part"
        os.environ["QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE"] = part
        try:
            self.close_devices()
            self.perform(performance, tail=tail)
            self.stop()
            self.close_devices()
        finally:
            del os.environ["QUAVIX_VIRTUAL_WAVE_OUT_CAPTURE"]
        if not os.path.exists(part):
            raise QuavixError(f"the wave output wrote no render to {path} (it never started)")
        os.replace(part, path)
        return path

    # Immediate output
    def send(self, device, message, queued=False):
        """A MIDI short message (up to 3 bytes, or the packed int) out of a MIDI output
        at once, or in the engine's next period when queued."""
        _q.send(_number(device), message, queued)

    def send_note(self, device, channel, key, velocity, duration, queued=False):
        """A note on now and its note off ``duration`` ms later."""
        _q.send_note(_number(device), [0x90 | channel, key, velocity], [0x80 | channel, key, 0], duration, queued)

    def send_sysex(self, device, data, queued=False):
        _q.send_sysex(_number(device), bytes(data), queued)

    def play_wave_file(self, path, device=0, done=None):
        """Plays a wave file at once on a wave output; ``done(player)`` is called on the
        library's thread once it has stopped. Returns the player's tag."""
        return _q.play_wave_file(os.fspath(path), _number(device), done)

    def panic(self):
        """Silences every MIDI output: all notes off on every channel."""
        _q.panic()

    @property
    def thru(self):
        """MIDI thru: what the inputs receive goes out again as it arrives."""
        return _q.thru_enabled()

    @thru.setter
    def thru(self, on):
        _q.enable_thru(bool(on))

    def connect_thru(self, device, channel=-1):
        """Where thru goes: a MIDI output, and a channel to move messages to (-1: their own)."""
        _q.connect_thru(_number(device), channel)

    @property
    def sync_mode(self):
        """'internal' (the engine keeps its own time) or 'slave' (it follows the MIDI clock
        that reaches the open MIDI inputs: Start, Continue, Stop, Song Position, clocks).
        Setting 'slave' stops the performances; register them again, then call
        ``queue_slaved_performance``."""
        return "slave" if _q.sync_mode() == _q.SYNC_SLAVE else "internal"

    @sync_mode.setter
    def sync_mode(self, mode):
        modes = {"internal": _q.SYNC_INTERNAL, "slave": _q.SYNC_SLAVE}
        if mode not in modes:
            raise ValueError("sync_mode is 'internal' or 'slave'")
        _q.set_sync_mode(modes[mode])

    def queue_slaved_performance(self):
        """In slave sync: asks the performances for their first periods ahead of the
        master's Start or Continue (again after each Stop)."""
        _q.queue_slaved_performance()

    @property
    def sync_position(self):
        """The song position the master last set, in MIDI beats (sixteenths)."""
        return _q.sync_position()


class _Run:
    """What perform learns of its performance from the callback's thread."""
    error = None


def _number(device):
    return device.number if isinstance(device, Device) else int(device)


# ---------------------------------------------------------------- wave files

class WaveFileReader:
    """A RIFF WAVE file's samples: ``format`` is (rate, bits, channels), ``read(frames)``
    returns bytes (b"" at the end), ``read_array()`` the rest as a numpy array."""

    def __init__(self, path):
        self._f = _q.WaveFileReader(os.fspath(path))
        self.format = self._f.format
        self.frames = self._f.frames

    def read(self, frames=-1):
        return self._f.read(frames)

    def read_array(self, frames=-1):
        import numpy
        rate, bits, channels = self.format
        dtype = {8: "u1", 16: "<i2", 32: "<i4"}[bits]
        return numpy.frombuffer(self.read(frames), dtype).reshape(-1, channels)

    def close(self):
        self._f.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False


class WaveFileWriter:
    """A RIFF WAVE file written as it goes: ``write`` takes bytes or any buffer (a numpy
    array of the file's sample type); ``close`` makes the chunk lengths true."""

    def __init__(self, path, rate=48000, bits=16, channels=2):
        self._f = _q.WaveFileWriter(os.fspath(path), rate, bits, channels)
        self.format = (rate, bits, channels)

    def write(self, data):
        return self._f.write(data)

    def close(self):
        self._f.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False
