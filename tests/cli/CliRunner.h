// Runs the quavix program as a child process; reads what it writes back.
#ifndef QUAVIX_TESTS_CLI_CLIRUNNER_H
#define QUAVIX_TESTS_CLI_CLIRUNNER_H

#include "../integration/analysis.h"
#include "../integration/harness.h"
#include "Smf.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

using Bytes = std::vector<uint8_t>;
using analysis::Level;
using analysis::Wav;

struct CliResult {
    int status = -1; // exit status; 128 + n when killed by signal n
    std::string out;
    std::string err;
    std::vector<std::string> ErrLines() const { return harness::Lines(err); }
};

// When to send the child a signal: once `when` holds (polled), or after `ms` without one.
struct Interrupt {
    int ms = 0;
    int signal = 2;
    std::function<bool()> when = {};
};

// Runs quavix with env (NAME=VALUE) on top of QUAVIX_BACKEND=virtual and no SoundFont,
// so that MIDI outputs are the same on any machine; with fileSizeLimit > 0 under that
// RLIMIT_FSIZE (its stdout and stderr included).
inline CliResult RunCli(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                        const Interrupt& interrupt = {}, long fileSizeLimit = 0)
{
    const harness::TempFile out("stdout"), err("stderr");
    std::vector<std::string> argv{QUAVIX_CLI_PATH}, vars = env;
    if (fileSizeLimit > 0) argv.insert(argv.begin(), {"prlimit", "--fsize=" + std::to_string(fileSizeLimit), "--"});
    argv.insert(argv.end(), args.begin(), args.end());
    vars.insert(vars.end(), {"QUAVIX_BACKEND=virtual", "QUAVIX_SOUNDFONT="});
    harness::Child child(argv, out, err, vars);
    const auto due = std::chrono::steady_clock::now() + std::chrono::milliseconds(interrupt.ms);
    if ((interrupt.ms > 0 || interrupt.when) && harness::Await([&] {
            return child.Ended() || (interrupt.when ? interrupt.when() : std::chrono::steady_clock::now() >= due);
        }, std::chrono::seconds(60)))
        child.Signal(interrupt.signal);
    // A generous limit only keeps a stuck child from hanging the suite.
    const int status = child.Wait(std::chrono::seconds(60));
    return {status, harness::Slurp(out), harness::Slurp(err)};
}

// A fresh path of this test program's own.
inline std::string TempPath(const std::string& name) { return harness::Temp(name); }

const std::string kDemo = std::string(QUAVIX_SOURCE_DIR) + "/examples/quavix-demo.mid";

inline std::string WriteSong(const qxsmf::File& f, const std::string& name)
{
    const std::string path = TempPath(name);
    std::string error;
    EXPECT_TRUE(qxsmf::Write(path, f, error)) << error;
    return path;
}

// Messages of a file as (ms, bytes), in file order; fails the test on a bad file.
inline std::vector<qxsmf::Message> MessagesOf(const qxsmf::File& file, double scale = 1.0)
{
    qxsmf::Timeline t;
    std::string error;
    EXPECT_TRUE(qxsmf::BuildTimeline(file, scale, t, error)) << error;
    return t.messages;
}

inline std::vector<qxsmf::Message> MessagesOf(const std::string& path)
{
    qxsmf::File file;
    std::string error;
    EXPECT_TRUE(qxsmf::Read(path, file, error)) << error;
    return MessagesOf(file);
}

inline bool WriteBytes(const std::string& path, const Bytes& bytes)
{
    return static_cast<bool>(std::ofstream(path, std::ios::binary)
                                 .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size())));
}

inline Bytes ReadBytes(const std::string& path)
{
    const std::string s = harness::Slurp(path);
    return {s.begin(), s.end()};
}

inline std::vector<std::string> DirEntries(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) names.push_back(e.path().filename());
    return names;
}

// A mono sine as a 16-bit WAV file (amplitude 1.0 is full scale).
inline std::string WriteTone(const std::string& name, double hz, double seconds, double amplitude, unsigned rate = 48000)
{
    const std::string path = TempPath(name);
    EXPECT_TRUE(analysis::WriteWav(path, rate, 1, analysis::Sine(rate, 1, hz, amplitude, seconds)));
    return path;
}

// A WAV file the test expects to be there.
inline Wav ReadWav(const std::string& path)
{
    Wav w = analysis::ReadWav(path);
    EXPECT_NE(w.dataOffset, 0u) << path << " is no RIFF WAVE file with data";
    return w;
}

#endif // QUAVIX_TESTS_CLI_CLIRUNNER_H
