// Runs the quavix program as a child process; reads what it writes back.
#ifndef QUAVIX_TESTS_CLI_CLIRUNNER_H
#define QUAVIX_TESTS_CLI_CLIRUNNER_H

#include "../integration/analysis.h"
#include "../integration/harness.h"
#include "Smf.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct CliResult {
    int status = -1; // exit status; 128 + n when killed by signal n
    std::string out;
    std::string err;
    std::vector<std::string> ErrLines() const { return harness::Lines(err); }
};

// When to send the child a signal: once `when` holds (polled), or after `ms` without one.
struct Interrupt {
    Interrupt(int ms_ = 0, int signal_ = 2, std::function<bool()> when_ = {})
        : ms(ms_), signal(signal_), when(std::move(when_))
    {
    }
    int ms;
    int signal;
    std::function<bool()> when;
};

// Runs quavix with env (NAME=VALUE) on top of QUAVIX_BACKEND=virtual; with
// fileSizeLimit > 0 under that RLIMIT_FSIZE (its stdout and stderr included).
CliResult RunCli(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                 const Interrupt& interrupt = {}, long fileSizeLimit = 0);

// A fresh path of this test program's own.
inline std::string TempPath(const std::string& name) { return harness::Temp(name); }
std::string WriteSong(const qxsmf::File& f, const std::string& name);
const std::string kDemo = std::string(QUAVIX_SOURCE_DIR) + "/examples/quavix-demo.mid";

// Messages of a file as (ms, bytes), in file order; fails the test on a bad file.
std::vector<qxsmf::Message> MessagesOf(const std::string& path);
std::vector<qxsmf::Message> MessagesOf(const qxsmf::File& file, double scale = 1.0);

bool WriteBytes(const std::string& path, const Bytes& bytes);
Bytes ReadBytes(const std::string& path);
std::vector<std::string> DirEntries(const std::string& dir);

// A mono sine as a 16-bit WAV file (amplitude 1.0 is full scale).
std::string WriteTone(const std::string& name, double hz, double seconds, double amplitude, unsigned rate = 48000);

using analysis::Level;
using analysis::Wav;
// A WAV file the test expects to be there.
Wav ReadWav(const std::string& path);

#endif // QUAVIX_TESTS_CLI_CLIRUNNER_H
