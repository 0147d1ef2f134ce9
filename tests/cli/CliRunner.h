// Runs the quavix program as a child process and reads Standard MIDI Files back.
#ifndef QUAVIX_TESTS_CLI_CLIRUNNER_H
#define QUAVIX_TESTS_CLI_CLIRUNNER_H

#include "Smf.h"

#include <string>
#include <utility>
#include <vector>

struct CliResult {
    int status = -1; // exit status; 128 + n when killed by signal n
    std::string out;
    std::string err;
    std::vector<std::string> ErrLines() const;
};

// Runs quavix with args; env holds NAME=VALUE entries set on top of the test's own
// environment (QUAVIX_BACKEND=virtual unless env names another). With
// interruptAfterMs > 0 the child gets signal (SIGINT by default) after that long; with
// fileSizeLimit > 0 it runs under that RLIMIT_FSIZE (its stdout and stderr included).
CliResult RunCli(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                 int interruptAfterMs = 0, int signal = 2, long fileSizeLimit = 0);

// A fresh path in a directory of its own for this test program.
std::string TempPath(const std::string& name);

// Messages of a file as (ms, bytes), in file order; fails the test on a bad file.
std::vector<qxsmf::Message> MessagesOf(const std::string& path);
std::vector<qxsmf::Message> MessagesOf(const qxsmf::File& file, double scale = 1.0);

bool WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> ReadBytes(const std::string& path);

#endif // QUAVIX_TESTS_CLI_CLIRUNNER_H
