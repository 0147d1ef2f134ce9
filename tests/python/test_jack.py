"""On a private JACK server, a client no one here wrote (python3-jack-client) receives
what a Python performance sends and sends what a Python recording receives."""
import json
import os
import subprocess
import sys
import textwrap
import threading

import pytest

import quavix

jack = pytest.importorskip("jack")


class Peer:
    """The other JACK client: its input "pypeer:in" logs (frame, bytes); its output
    "pypeer:out" sends each (frame offset, bytes) of a script on its frame, counted from
    when go() is called. Quavix sees them as a MIDI output and a MIDI input."""

    def __init__(self, script):
        self.client = jack.Client("pypeer", no_start_server=True)
        self.inport = self.client.midi_inports.register("in")
        self.outport = self.client.midi_outports.register("out")
        self.received, self.script, self.at, self.sent = [], script, None, 0
        self.lock = threading.Lock()
        self.client.set_process_callback(self._process)
        self.xruns = 0
        self.client.set_xrun_callback(self._xrun)
        self.rate = self.client.samplerate

    def _process(self, frames):
        start = self.client.last_frame_time
        with self.lock:
            for offset, data in self.inport.incoming_midi_events():
                self.received.append((start + offset, bytes(data)))
            self.outport.clear_buffer()
            while self.at is not None and self.sent < len(self.script):
                due = self.at + self.script[self.sent][0]
                if due >= start + frames:
                    break
                self.outport.write_midi_event(max(0, due - start), self.script[self.sent][1])
                self.sent += 1

    def _xrun(self, delay):
        self.xruns += 1

    def go(self):
        with self.lock:
            self.at = self.client.frame_time + 4 * self.client.blocksize

    def run(self, child_script, jack_server):
        """Runs a Quavix script that prints "open" once its ports are connected, goes on
        a line on stdin (sent once the peer's script starts) and prints JSON last."""
        with self.client:
            child = subprocess.Popen([sys.executable, "-c", textwrap.dedent(child_script)], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                     env=dict(os.environ, JACK_DEFAULT_SERVER=jack_server))
            try:
                assert child.stdout.readline().strip() == "open", child.stderr.read()
                self.go()
                child.stdin.write("go\n")
                child.stdin.flush()
                out, err = child.communicate(timeout=60)
            finally:
                child.kill()
            assert child.returncode == 0, err
        return json.loads(out.strip().splitlines()[-1])


HEAD = """
import json, sys, quavix
got = []
with quavix.Quavix(backend="jack") as q:
    out = next(d for d in q.midi_outputs if d.name == "pypeer:in")
    inp = next(d for d in q.midi_inputs if d.name == "pypeer:out")
    for d in q.devices():
        d.enabled = d in (out, inp)
"""

# A performance of notes 100 ms apart, a recording of what the peer sends, thru, then
# immediate output and the panic.
PERFORM = HEAD + """
    q.start_recording(lambda e: got.append((e.time, list(e.bytes))))
    q.thru = True
    q.connect_thru(out, 5)  # what comes in goes out again, on channel 6
    q.open()
    q.start()
    print("open", flush=True)
    sys.stdin.readline()
    q.perform(quavix.Score([quavix.note(200 + 100 * i, 0, 60 + i, 100, 50, out.number) for i in range(8)]), tail=0.5)
    q.thru = False
    q.send(out, [0xB0, 7, 99])
    q.send_sysex(out, bytes([0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7]))
    q.send_note(out, 2, 70, 80, 100)
    q.sleep(0.3)
    q.panic()
    q.sleep(0.3)
print(json.dumps(got))
"""


def test_a_jack_client_gets_our_notes_on_their_frames_and_we_record_its_own(jack_server):
    peer = Peer([(i * 2400, [0x91, 40 + i, 90]) for i in range(8)])  # 50 ms apart at 48 kHz
    recorded = peer.run(PERFORM, jack_server)
    received, rate = peer.received, peer.rate

    thru = [d for f, d in received if d[0] == 0x95 and d[2] > 0]
    assert thru == [bytes([0x95, 40 + i, 90]) for i in range(8)], received
    sent = [d for f, d in received if d[0] in (0xB0, 0xF0, 0x92, 0x82)][:4]  # the panic follows
    assert sent[:3] == [bytes([0xB0, 7, 99]), bytes([0xF0, 0x7E, 0x7F, 0x09, 0x01, 0xF7]), bytes([0x92, 70, 80])], sent
    assert sent[3] in (bytes([0x82, 70, 0]), bytes([0x92, 70, 0])), sent  # the note's end, either way
    # The panic, seen on the last channel: every key off, controllers reset, notes off.
    panic = [d for f, d in received if d[0] & 0x0F == 15]
    assert sorted(d[1] for d in panic if d[0] == 0x9F and d[2] == 0) == list(range(128)), panic[:4]
    assert [d for d in panic if d[0] == 0xBF] == [bytes([0xBF, 121, 0]), bytes([0xBF, 123, 0])], panic[-4:]
    notes = [(f, d) for f, d in received if d[0] == 0x80 or (d[0] == 0x90 and d[2] > 0)]
    ons = [f for f, d in notes if d[0] == 0x90]
    assert [d[1] for f, d in notes if d[0] == 0x90] == list(range(60, 68)), notes
    assert len(notes) == 16, notes
    # 100 ms is 4800 frames: each note on its frame (to the frame a time in ns rounds
    # to), whatever the period. After an xrun JACK's frame clock jumps: then only order.
    if peer.xruns == 0:
        assert all(abs(f - ons[0] - i * rate // 10) <= 1 for i, f in enumerate(ons)), ons
    assert [r[1] for r in recorded] == [[0x91, 40 + i, 90] for i in range(8)], recorded
    gaps = [b[0] - a[0] for a, b in zip(recorded, recorded[1:])]
    assert all(abs(g - 50) <= 1 for g in gaps), gaps  # stamped in ms: 50 ms apart, within a ms


# Slave sync: a performance object whose sync() hears the peer's transport and plays a
# note on every beat (24 clocks) from the master's Start.
SLAVE = HEAD + """
    class Follower:
        def __init__(self):
            self.codes, self.clocks = [], 0
        def __call__(self, start, end):
            return []
        def sync(self, code, start, end):
            self.codes.append(code)
            if code == quavix.SYNC_CLOCK:
                self.clocks += 1
                if self.clocks % 24 == 1:
                    return [quavix.Midi(end, [0x93, 50 + self.clocks // 24, 100], out.number)]
    q.sync_mode = "slave"
    follower = Follower()
    q.start_performance(follower)
    q.open()
    q.start()
    q.queue_slaved_performance()
    print("open", flush=True)
    sys.stdin.readline()
    q.sleep(1.5)
    got = {"codes": sorted(set(follower.codes)), "clocks": follower.clocks, "mode": q.sync_mode}
print(json.dumps(got))
"""


def test_a_python_performance_follows_a_jack_clients_midi_clock(jack_server):
    # Start, then 48 clocks 10 ms apart (250 bpm), then Stop.
    peer = Peer([(0, [0xFA])] + [(480 * (i + 1), [0xF8]) for i in range(48)] + [(480 * 50, [0xFC])])
    out = peer.run(SLAVE, jack_server)
    assert out["mode"] == "slave"
    assert {quavix.SYNC_START, quavix.SYNC_CLOCK, quavix.SYNC_STOP} <= set(out["codes"]), out
    assert out["clocks"] == 48, out
    beats = [d[1] for f, d in peer.received if d[0] == 0x93]
    assert beats == [50, 51], peer.received
