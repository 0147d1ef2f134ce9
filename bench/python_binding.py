"""The Python binding's cost, on the render clock (CPU time only, no waiting):
  - a performance callback returning 100 MIDI events a period, against one returning
    none: what the call, the conversion and the library's handling of 100 events add;
  - recorded wave buffers (48 kHz, 16-bit stereo) received as bytes and as numpy arrays.
Each scenario runs in an interpreter of its own (one manager per process); medians of
five runs are printed.

    PYTHONPATH=build/rel/python /usr/bin/python3 bench/python_binding.py
"""
import json
import os
import statistics
import subprocess
import sys

PERIODS = 600  # a minute of 100 ms periods

PERFORM = """
import json, sys, time, quavix
n = int(sys.argv[1])
with quavix.Quavix(render=True) as q:
    out = q.midi_outputs[0]
    for d in q.devices():
        d.enabled = d == out
    calls = []
    def perform(start, end):
        if start >= %d * 100:
            return None
        calls.append(start)
        step = 100 / max(n, 1)
        return [quavix.Midi(start + int(i * step), [0x90, 60, 1 + i %% 100], out.number) for i in range(n)]
    t = time.perf_counter()
    q.perform(perform, tail=0)
    print(json.dumps({"seconds": time.perf_counter() - t, "periods": len(calls)}))
""" % PERIODS

RECORD = """
import json, sys, time, quavix
mode = sys.argv[1]
with quavix.Quavix(render=True) as q:
    for d in q.devices():
        d.enabled = d.type == quavix.WAVE and d.direction == quavix.IN
    q.wave_inputs[0].format = (48000, 16, 2)
    total, spent, calls = [0], [0.0], [0]
    def take(b):
        t0 = time.perf_counter()
        total[0] += b.array.shape[0] if mode == "numpy" else len(b.data) // 4 if mode == "bytes" else 0
        if calls[0] > 0:  # the first imports numpy
            spent[0] += time.perf_counter() - t0
        calls[0] += 1
    tag = q.start_recording(take)
    q.open(); q.start()
    t = time.perf_counter()
    q.sleep(60.0)
    seconds = time.perf_counter() - t
    q.stop()
print(json.dumps({"seconds": seconds, "frames": total[0], "in_callback": spent[0], "calls": calls[0]}))
"""


def run(script, *args):
    out = subprocess.run([sys.executable, "-c", script, *args], capture_output=True, text=True, check=True,
                         env=dict(os.environ, QUAVIX_BACKEND="virtual",
                                  QUAVIX_VIRTUAL_WAVE_IN_SOURCE="sine:1000"))
    return json.loads(out.stdout.strip().splitlines()[-1])


def median(script, *args, key="seconds"):
    runs = [run(script, *args) for _ in range(5)]
    return statistics.median(r[key] for r in runs), runs[0]


def main():
    empty, _ = median(PERFORM, "0")
    full, info = median(PERFORM, "100")
    per = (full - empty) / info["periods"] * 1e3
    print(f"performance callback, 100 events a period: {per:.3f} ms a period more than an empty one "
          f"(target under 1 ms; {full:.2f} s against {empty:.2f} s for {PERIODS} periods)")
    base, _ = median(RECORD, "none")
    for mode in ("bytes", "numpy"):
        t, r = median(RECORD, mode)
        mb = r["frames"] * 4 / 1e6
        print(f"wave buffers as {mode}: {mb:.1f} MB of a 60 s recording received in {t:.3f} s, {mb / t:.0f} MB/s "
              f"({60 / t:.0f}x real time; the recording with no callback {base:.3f} s); "
              f"{r['in_callback'] / (r['calls'] - 1) * 1e6:.1f} us a buffer of {r['frames'] * 4 // r['calls'] // 1000} kB "
              f"to reach the samples in the callback")


if __name__ == "__main__":
    main()
