"""Plays a melody through the built-in GM synth and records wave input 0 meanwhile
into melody.wav (on the virtual backend, the input hears what the output plays)."""
import os

os.environ.setdefault("QUAVIX_VIRTUAL_WAVE_IN_SOURCE", "loopback")
import quavix

melody = [60, 62, 64, 65, 67, 65, 64, 62, 60]
with quavix.Quavix(midi=True, wave=True) as q:
    synth = q.synth
    for device in q.devices():  # the synth, the wave output it sounds on, an input
        device.enabled = device in (synth, q.wave_outputs[0], q.wave_inputs[0])
    q.wave_inputs[0].format = (48000, 16, 2)
    with quavix.WaveFileWriter("melody.wav", 48000, 16, 2) as take:
        tag = q.start_recording(lambda buffer: take.write(buffer.data))
        score = [quavix.program_change(0, 0, 11, synth.number)]  # a vibraphone
        score += [quavix.note(250 * i, 0, key, 100, 220, synth.number) for i, key in enumerate(melody)]
        q.perform(quavix.Score(score), tail=0.6)
        q.stop()
        q.stop_recording(tag)
print("played", len(melody), "notes; recorded melody.wav")
