"""The Python package against Python's own audio and MIDI tools: what it renders and
writes is read by soundfile, what the quavix program records is read by mido."""
import os
import subprocess

import numpy
import pytest
import soundfile

import quavix
from conftest import ROOT, cli, onsets, run

# A melody through the synth and a click file through the mixer.
RENDER = """
import hashlib, json, quavix
with quavix.Quavix(render=True, render_format=(44100, 16, 2)) as q:
    synth = q.synth
    for d in q.devices():
        d.enabled = d == synth or (d.type == quavix.WAVE and d.direction == quavix.OUT)
    # One drum (a wood block) for every note: the same attack, so its onsets are exact.
    events = [quavix.note(400 + 300 * i, 9, 76, 110, 120, synth.number) for i in range(6)]
    events.append(quavix.Wave(2600, {click!r}, volume=-3.0))
    q.render({path!r}, quavix.Score(events))
print(json.dumps(hashlib.md5(open({path!r}, 'rb').read()).hexdigest()))
"""


def test_a_python_performance_renders_its_notes_where_it_placed_them(tmp_path):
    click = str(tmp_path / "click.wav")
    with quavix.WaveFileWriter(click, 44100, 16, 1) as w:
        burst = numpy.zeros(4410, "<i2")
        burst[:441] = (20000 * numpy.sin(numpy.arange(441) * 2 * numpy.pi * 2000 / 44100)).astype("<i2")
        w.write(burst)
    paths = [str(tmp_path / "one.wav"), str(tmp_path / "two.wav")]
    sums = [run(RENDER.format(click=click, path=p))[0] for p in paths]
    assert sums[0] == sums[1], "two renders of one performance differ"
    samples, rate = soundfile.read(paths[0])
    assert rate == 44100 and samples.shape[1] == 2
    heard = onsets(samples, rate)
    assert len(heard) == 7, heard
    # The mixer starts the click on its frame; the drum sounds its attack later, and
    # FluidSynth starts a note that follows another on its own 64-frame grid.
    assert abs(heard[6] - 2600) < 1000 / rate, heard
    attack = heard[0] - 400
    assert 0 <= attack < 3, heard
    for i, h in enumerate(heard[:6]):
        assert abs(h - attack - (400 + 300 * i)) <= 64 * 1000 / rate, f"note {i} heard at {h - attack:.2f} ms: {heard}"


@pytest.mark.parametrize("rate,bits,channels,dtype", [(44100, 16, 2, "int16"), (22050, 8, 1, "uint8"),
                                                      (48000, 32, 2, "int32")])
def test_wave_files_written_are_read_by_soundfile_and_read_back(tmp_path, rate, bits, channels, dtype):
    path = str(tmp_path / "w.wav")
    info = numpy.iinfo(dtype)
    frames = numpy.random.default_rng(7).integers(info.min, info.max, size=(rate // 3, channels), dtype=dtype)
    with quavix.WaveFileWriter(path, rate, bits, channels) as w:
        half = len(frames) // 2
        w.write(frames[:half].tobytes())
        w.write(frames[half:])  # any buffer
    back, r = soundfile.read(path, dtype="int32" if bits != 16 else "int16", always_2d=True)
    assert r == rate and back.shape == frames.shape
    expect = frames.astype("int32")
    if bits == 8:  # soundfile centres 8-bit samples and scales them to the type it returns
        expect = (expect - 128) << 24
    assert numpy.array_equal(back, expect)
    with quavix.WaveFileReader(path) as reader:
        assert reader.format == (rate, bits, channels) and reader.frames == len(frames)
        assert numpy.array_equal(reader.read_array(), frames)
        assert reader.read() == b""


def test_a_file_soundfile_wrote_is_read_exactly(tmp_path):
    path = str(tmp_path / "sf.wav")
    frames = (numpy.arange(3000, dtype="int16").reshape(-1, 2) * 7)
    soundfile.write(path, frames, 32000, subtype="PCM_16")
    with quavix.WaveFileReader(path) as reader:
        assert reader.format == (32000, 16, 2)
        assert numpy.array_equal(reader.read_array(), frames)
    with pytest.raises(quavix.QuavixError, match="no-such"):
        quavix.WaveFileReader(str(tmp_path / "no-such.wav"))


def test_mido_reads_what_record_midi_wrote_as_the_messages_played_to_it(tmp_path):
    mido = pytest.importorskip("mido")
    feed = mido.MidiFile(ticks_per_beat=480)  # 120 bpm: a tick is 500/480 ms
    track = mido.MidiTrack()
    feed.tracks.append(track)
    played = []
    for i in range(10):
        played += [(i * 96, mido.Message("note_on", channel=1, note=50 + i, velocity=90)),
                   (i * 96 + 48, mido.Message("note_off", channel=1, note=50 + i, velocity=0))]
    played.append((1000, mido.Message("pitchwheel", channel=2, pitch=1000)))
    tick = 0
    for t, m in played:
        track.append(m.copy(time=t - tick))
        tick = t
    feed.save(str(tmp_path / "feed.mid"))

    out = str(tmp_path / "out.mid")
    result = subprocess.run(
        [cli(), "record-midi", "--in", "0", out, "--inject", str(tmp_path / "feed.mid"), "-q"],
        env=dict(os.environ, QUAVIX_BACKEND="virtual", QUAVIX_VIRTUAL_DEVICES="midi-in=1,midi-out=1"),
        capture_output=True, text=True, timeout=60)
    assert result.returncode == 0, result.stderr
    got, ms = [], 0.0
    recorded = mido.MidiFile(out)
    for m in recorded:  # iterating a file gives seconds
        ms += m.time * 1000
        if not m.is_meta:
            got.append((ms, m))
    assert [m.copy(time=0) for _, m in got] == [m.copy(time=0) for _, m in played]
    for (ms, _), (ticks, _) in zip(got, played):
        assert abs((ms - got[0][0]) - ticks * 500 / 480) <= 2, (ms, ticks)


DEVICES = """
import json, quavix
reports, out, done, states = [], {{}}, [], []
with quavix.Quavix(on_notify=lambda code, value, text: reports.append(text)) as q:
    wave = q.wave_outputs[0]
    step = lambda: states.append(sorted(wave.state))
    step(); q.open(); step(); q.start(); step()
    q.play_wave_file({click!r}, wave, done=done.append)
    q.sleep(0.5)
    try:
        q.play_wave_file("/no/such.wav")
    except quavix.QuavixError as e:
        out["error"] = str(e)
    q.stop(); step(); q.close_devices(); step(); wave.disable(); step()
    try:
        wave.open()
    except quavix.QuavixError as e:
        out["disabled"] = str(e)
out.update(states=states, done=done, reports=reports)
print(json.dumps(out))
"""


def test_devices_step_through_their_states_and_failures_raise_with_the_report(tmp_path):
    click = str(tmp_path / "click.wav")
    with quavix.WaveFileWriter(click, 48000, 16, 1) as w:
        w.write(numpy.full(4800, 8000, "<i2"))
    out, _ = run(DEVICES.format(click=click))
    assert out["states"] == [["closed"], ["open"], ["open", "started"], ["open", "stopped"], ["closed"],
                             ["closed", "disabled"]], out["states"]
    assert len(out["done"]) == 1 and out["done"][0] != 0, "the done callback did not come once with its player"
    assert "/no/such.wav" in out["error"] and any("/no/such.wav" in r for r in out["reports"]), out
    assert "open device failed" in out["disabled"], out


CALLBACKS = """
import json, logging, quavix
logging.basicConfig()
calls = []
def broken(start, end):
    calls.append(start)
    if start >= 200:
        1 / 0
    return []
def bad_event(start, end):
    return ["not an event"]
out = {}
with quavix.Quavix(render=True) as q:
    for perf, name in ((broken, "raised"), (bad_event, "bad")):
        try:
            q.perform(perf)
        except quavix.CallbackError as e:
            out[name] = type(e.__cause__).__name__
    q.perform(quavix.Score([quavix.note(100, 0, 60, 100, 100)]))  # the engine goes on
    got = []
    def recorder(event):
        got.append(event.data[:0])
        raise ValueError("recording raises")
    tag = q.start_recording(recorder)
    q.sleep(1.6)  # three of the wave input's half-second buffers
    q.stop_recording(tag)
    out["recorded"] = len(got)
    out["errors"] = [type(e).__name__ for e in q.errors]
print(json.dumps(out))
"""


def test_a_callback_that_raises_is_reported_and_the_engine_goes_on():
    out, proc = run(CALLBACKS, QUAVIX_VIRTUAL_WAVE_IN_SOURCE="sine:440")
    assert out["raised"] == "ZeroDivisionError" and out["bad"] == "TypeError"
    assert out["recorded"] > 1, "a recording that raised was not called again"
    assert out["errors"][:2] == ["ZeroDivisionError", "TypeError"] and set(out["errors"][2:]) == {"ValueError"}
    assert "Traceback" in proc.stderr and "in broken" in proc.stderr  # logged with where it was raised


GIL = """
import json, threading, quavix
ticks, stop = [], threading.Event()
def spin():
    while not stop.is_set():
        ticks.append(quavix._quavix.clock_ms())
with quavix.Quavix() as q:
    t = threading.Thread(target=spin)
    t.start()
    begin = q.now
    q.perform(quavix.Score([quavix.note(50 * i, 0, 60, 100, 40) for i in range(12)]))
    end = q.now
    stop.set()
    t.join()
during = [x for x in ticks if begin <= x <= end]
print(json.dumps({"ms": end - begin, "seconds_with_ticks": len({x // 100 for x in during}),
                  "spans": (end - begin) // 100}))
"""


def test_a_python_thread_keeps_running_while_perform_waits():
    out, _ = run(GIL)
    # The thread ran in every 100 ms of the performance, not only before and after it.
    assert out["seconds_with_ticks"] >= out["spans"] - 1, out


WAVE_IN = """
import json, numpy, quavix
with quavix.Quavix(render=True) as q:
    for d in q.devices():
        d.enabled = d.type == quavix.WAVE and d.direction == quavix.IN
    q.wave_inputs[0].format = (48000, 16, 2)
    arrays, views = [], True
    def take(buffer):
        a = buffer.array
        views_ = a.base is not None and not a.flags.owndata
        arrays.append(a.copy())
        global views
        views = views and views_ and a.shape[1] == buffer.channels and len(buffer.data) == a.nbytes
    tag = q.start_recording(take)
    q.open(); q.start()
    q.sleep(2.0)
    q.stop()
    q.stop_recording(tag)
x = numpy.concatenate(arrays)[:, 0].astype(float)
crossings = numpy.flatnonzero((x[:-1] < 0) & (x[1:] >= 0))
print(json.dumps({"frames": len(x), "views": views, "hz": 48000 * (len(crossings) - 1) / (crossings[-1] - crossings[0]),
                  "steps": float(numpy.abs(numpy.diff(x)).max()), "peak": float(numpy.abs(x).max())}))
"""


def test_recorded_buffers_arrive_as_bytes_and_numpy_views_without_a_gap():
    out, _ = run(WAVE_IN, QUAVIX_VIRTUAL_WAVE_IN_SOURCE="sine:1000")
    assert out["views"], "the numpy array is not a view of the buffer's bytes"
    # Half-second buffers: those filled in the two seconds before the stop.
    assert out["frames"] == 3 * 24000, out
    assert abs(out["hz"] - 1000) < 1, out
    # A gap or a repeated buffer would jump far beyond one step of a 1 kHz sine.
    assert out["steps"] <= 2 * numpy.pi * 1000 / 48000 * out["peak"] * 1.05, out


def test_the_readme_example_records_the_melody_it_plays(tmp_path):
    example = (ROOT / "examples/melody.py").read_text()
    assert "```python\n" + example + "```" in (ROOT / "README.md").read_text(), "README's example is not examples/melody.py"
    _, proc = run(f"exec(open({str(ROOT / 'examples/melody.py')!r}).read())", cwd=tmp_path)
    samples, rate = soundfile.read(str(tmp_path / "melody.wav"))
    assert "played 9 notes" in proc.stdout
    assert len(samples) >= 2.5 * rate and numpy.abs(samples).max() > 0.01
