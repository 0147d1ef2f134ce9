// quavix: the library's command-line program. Lists devices, performs Standard MIDI
// Files through the performance engine (also following an external MIDI clock), plays
// wave files, records wave input, echoes and records MIDI input, sends bytes and silences outputs.
#include "Cli.h"
#include "Commands.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace qxcli {

const std::vector<Command>& Commands()
{
    static const std::vector<Command> commands{
        {"devices", "list every device of the backend", R"(Usage: quavix devices [--backend NAME]

Lists every device of the backend by type, direction and number, with the system it
belongs to (JACK, PulseAudio, ALSA, the ALSA sequencer or virtual), its whole name,
whether it is enabled, and its format: for a wave input the one quavix record uses,
for a wave output the one it opens with ("none" for MIDI devices).
)",
         RunDevices},
        {"perform", "play a Standard MIDI File through the performance engine",
         R"(Usage: quavix perform FILE.mid [--output N] [--tempo-scale X] [--audio FILE.wav[@MS]]...
                             [--wave-out N] [--capture OUT.mid] [--render OUT.wav]

Plays a Standard MIDI File (format 0 or 1) on a MIDI output, 100 ms at a time through
the performance engine, and prints a summary at the end. Ctrl-C stops and silences the
output. Without --output it plays on the first output that leads out of this program
(a synthesizer, another program's port), else on the built-in GM synth ("Quavix GM
Synth", heard on wave output 0), else on output 0; with --capture, on output 0.

  --output N            MIDI output number (quavix devices lists them)
  --tempo-scale X       play X times as fast (0.05 to 20; 2 is twice as fast)
  --audio FILE.wav[@MS] also play a wave file, from MS milliseconds of the performance
                        (default 0, a whole number), in time with the MIDI; may be
                        given again
  --wave-out N          the wave output for --audio (default 0)
  --capture OUT.mid     virtual backend: write what the output emitted, as a file
  --capture-times WHAT  emitted (default) or due: the times written by --capture
  --render OUT.wav      virtual backend: write what the wave output mixed
)",
         RunPerform},
        {"render", "render a Standard MIDI File to a WAV file, faster than real time",
         R"(Usage: quavix render FILE.mid OUT.wav [--audio FILE.wav[@MS]]... [--format R:B:C]
                            [--tempo-scale X]

Plays a Standard MIDI File through the performance engine and the built-in GM synth
("Quavix GM Synth") as quavix perform would on the virtual backend, but on a clock that
runs as fast as the CPU allows, and writes what the wave output mixed to OUT.wav: the
same sound at the same frames as real-time playback, in a fraction of the time. The
file is written beside OUT.wav and renamed over it once whole, so a render that fails
leaves no partial file. The SoundFont is QUAVIX_SOUNDFONT, else the system's
default-GM.sf2.

  --audio FILE.wav[@MS] also play a wave file, from MS milliseconds of the performance
                        (default 0, a whole number), in time with the MIDI; may be
                        given again
  --format R:B:C        PCM format of OUT.wav: rate 8000 to 192000 Hz, 8, 16, 24 or 32
                        bits, 1 or 2 channels (default 48000:16:2)
  --tempo-scale X       play X times as fast (0.05 to 20; 2 is twice as fast)

Example: quavix render song.mid song.wav --audio intro.wav@0
)",
         RunRender},
        {"play", "play wave files together, at once or at their times",
         R"(Usage: quavix play FILE.wav [FILE OPTIONS] [FILE.wav [FILE OPTIONS]]... [--out N]

Plays wave files together on wave output N (default 0) and ends when every one has
played, with a peak meter of the output's mix. Without --at every file starts at once;
with one, every file is on the timeline of one performance, each on a track of its own
(a file without --at at 0), and its time 0 comes 200 ms after the output starts, so
that each file starts exactly at its time.
A file that cannot be played is named with the reason, and the others play (the exit
status is then 1); a file shorter than its header says plays what is there, and a line
says how much. Ctrl-C stops the sound.

File options apply to the FILE.wav just before them:
  --volume DB           0 (as recorded) down to -100 (silence)
  --pan P               -1 (left only) to 1 (right only): the other side loses
                        |P| x 100 dB, so 0.06 takes 6 dB off the left
  --rate X              play X times as fast, pitch and all (0.5 is an octave lower;
                        the output plays 100 to 100000 frames a second)
  --at MS               start at MS milliseconds (0 to 86400000)

  --out N               wave output number (quavix devices lists them)
  --render OUT.wav      virtual backend: write what the output mixed (16-bit stereo);
                        none of the files played

Example: quavix play drums.wav bass.wav --volume -6 --pan -0.1 voice.wav --at 1500
)",
         RunPlay},
        {"record", "record a wave input to a WAV file",
         R"(Usage: quavix record OUT.wav [--in N] [--seconds S] [--format RATE:BITS:CHANNELS]

Records wave input N (default 0) into OUT.wav until Ctrl-C, or for S seconds, with a
progress line: the time recorded, a peak meter in dBFS and the bytes written. The file
is written beside OUT.wav and renamed over it once the first sound is in it, so a
take that cannot start leaves the OUT.wav that was there as it was. It is written as
the sound comes, and its header is brought up to date every second, so that even a
recorder that is killed leaves a file other programs read. The input hands
over half a second at a time: a take stopped by Ctrl-C ends with the last whole half
second.

  --in N                wave input number (quavix devices lists them)
  --seconds S           record exactly S seconds
  --format R:B:C        PCM format of the file: rate 1000 to 192000 Hz, 8, 16, 24 or
                        32 bits, 1 or 2 channels (default 48000:16:2); the input
                        converts the sound system's own format and rate to it

Example: quavix record take.wav --seconds 10 --format 44100:16:2
)",
         RunRecord},
        {"sync-slave", "play a Standard MIDI File following an external MIDI clock",
         R"(Usage: quavix sync-slave --in N FILE.mid [--output M] [--seconds S] [--capture OUT.mid]

Waits for an external MIDI Start or Continue on MIDI input N and then plays the file
on MIDI output M (default 0), from the top on Start and from where it stopped on
Continue. An external Stop stops it. Runs until Ctrl-C, or for S seconds.

  --in N                MIDI input that carries the clock and transport
  --output M            MIDI output number
  --seconds S           stop after S seconds
  --tempo-scale X       play X times as fast
  --inject FEED.mid     virtual backend: feed FEED.mid's messages (clock, Start, Stop,
                        Continue as F7 escapes) into input N; ends when it is over
  --capture OUT.mid     virtual backend: write what the output emitted
  --capture-times WHAT  emitted (default) or due
)",
         RunSyncSlave},
        {"thru", "echo a MIDI input to a MIDI output", R"(Usage: quavix thru --in N --out M [--channel C] [--seconds S]

Echoes every channel message of MIDI input N to MIDI output M at once, until Ctrl-C
or for S seconds.

  --in N                MIDI input number
  --out M               MIDI output number
  --channel C           put every message on channel C (1 to 16)
  --seconds S           stop after S seconds
  --inject FEED.mid     virtual backend: feed FEED.mid's messages into input N;
                        without --seconds, stops when the feed is over
  --capture OUT.mid     virtual backend: write what the output emitted
)",
         RunThru},
        {"record-midi", "record a MIDI input to a Standard MIDI File",
         R"(Usage: quavix record-midi --in N OUT.mid [--seconds S]

Records the messages of MIDI input N into OUT.mid (format 0, millisecond ticks) until
Ctrl-C, or for S seconds. MIDI input takes short messages only: SysEx is not recorded.

  --in N                MIDI input number
  --seconds S           stop after S seconds
  --inject FEED.mid     virtual backend: feed FEED.mid's messages into input N;
                        without --seconds, stops when the feed is over
)",
         RunRecordMidi},
        {"send", "send MIDI bytes to an output at once", R"(Usage: quavix send --out N BYTES...

Sends MIDI messages to output N at once. BYTES are hexadecimal ("90 3C 40",
"0x90 0x3c 0x40" or "903C40"); several messages may follow each other, and a SysEx
runs from F0 to F7. Example: quavix send --out 0 90 3C 64 F0 7E 7F 09 01 F7

  --out N               MIDI output number
  --capture OUT.mid     virtual backend: write what the output emitted
)",
         RunSend},
        {"panic", "silence MIDI outputs", R"(Usage: quavix panic [--out N]

Silences every MIDI output, or output N: note-offs for every key on every channel,
Reset All Controllers, All Notes Off, and a System Reset.

  --out N               only this MIDI output
  --capture OUT.mid     virtual backend: write what output N (default 0) emitted
)",
         RunPanic},
    };
    return commands;
}

} // namespace qxcli

namespace {

void PrintOverview()
{
    std::printf("Usage: quavix COMMAND [OPTIONS]\n\nCommands:\n");
    for (const auto& c : qxcli::Commands()) std::printf("  %-12s %s\n", c.name, c.summary);
    std::printf("\n'quavix COMMAND --help' or 'quavix help COMMAND' tells more.\n"
                "QUAVIX_BACKEND (virtual, jack, pulse, alsa, auto) chooses the backend; --backend overrides it.\n"
                "QUAVIX_VIRTUAL_DEVICES (e.g. midi-in=2,midi-out=2) sets the virtual backend's device counts.\n"
                "Exit status: 0 done, 1 failed, 2 bad usage, 130 stopped by Ctrl-C (128 + n for signal n).\n");
}

} // namespace

int main(int argc, char** argv)
{
    using namespace qxcli;
    if (argc < 2) {
        PrintOverview();
        return kExitUsage;
    }
    const std::string first = argv[1];
    if (first == "-h" || first == "--help") {
        PrintOverview();
        return kExitOk;
    }
    if (first == "--version" || first == "-V") {
        std::printf("quavix %s\n", QUAVIX_VERSION_STRING);
        return kExitOk;
    }
    if (first == "help") {
        if (argc < 3) {
            PrintOverview();
            return kExitOk;
        }
        return PrintHelp(argv[2]);
    }
    for (const auto& c : Commands())
        if (first == c.name) {
            InstallSignalHandlers();
            const int status = c.run(argc - 1, argv + 1);
            // A signal stops every command the same way, and says so in the status.
            if (Interrupted() && (status == kExitOk || status == kExitInterrupted)) return InterruptedStatus();
            return status;
        }
    return Fail("", "unknown command '" + first + "' (see quavix --help)", kExitUsage);
}
