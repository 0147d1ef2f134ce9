"""On a private JACK server, a client no one here wrote (python3-jack-client) receives
what a Python performance sends and sends what a Python recording receives."""
import json
import os
import subprocess
import sys
import textwrap
import threading

import pytest

jack = pytest.importorskip("jack")

# The child: a performance of notes 100 ms apart to the peer's input, and a recording of
# what the peer sends. It says "open" once its ports are connected and goes on "go".
CHILD = """
import json, sys, quavix
got = []
with quavix.Quavix(backend="jack") as q:
    out = next(d for d in q.midi_outputs if d.name == "pypeer:in")
    inp = next(d for d in q.midi_inputs if d.name == "pypeer:out")
    for d in q.devices():
        d.enabled = d in (out, inp)
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
    client = jack.Client("pypeer", no_start_server=True)
    inport, outport = client.midi_inports.register("in"), client.midi_outports.register("out")
    received, lock = [], threading.Lock()
    sending = {"at": None, "next": 0}
    period = client.blocksize
    rate = client.samplerate

    @client.set_process_callback
    def process(frames):
        start = client.last_frame_time
        with lock:
            for offset, data in inport.incoming_midi_events():
                received.append((start + offset, bytes(data)))
            outport.clear_buffer()
            at = sending["at"]
            # Eight notes from the peer, 50 ms (2400 frames) apart, each on its frame.
            while at is not None and sending["next"] < 8:
                due = at + sending["next"] * 2400
                if due >= start + frames:
                    break
                outport.write_midi_event(max(0, due - start), [0x91, 40 + sending["next"], 90])
                sending["next"] += 1

    with client:
        child = subprocess.Popen([sys.executable, "-c", textwrap.dedent(CHILD)], stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                 env=dict(os.environ, JACK_DEFAULT_SERVER=jack_server))
        try:
            assert child.stdout.readline().strip() == "open", child.stderr.read()
            with lock:
                sending["at"] = client.frame_time + 4 * period
            child.stdin.write("go\n")
            child.stdin.flush()
            out, err = child.communicate(timeout=60)
        finally:
            child.kill()
        assert child.returncode == 0, err
    recorded = json.loads(out.strip().splitlines()[-1])

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
    # 100 ms is 4800 frames: each note on its frame, whatever the period (256 frames).
    assert [b - a for a, b in zip(ons, ons[1:])] == [rate // 10] * 7, ons
    assert [r[1] for r in recorded] == [[0x91, 40 + i, 90] for i in range(8)], recorded
    gaps = [b[0] - a[0] for a, b in zip(recorded, recorded[1:])]
    assert all(abs(g - 50) <= 1 for g in gaps), gaps  # stamped in ms: 50 ms apart, within a ms
