// What the quavix subcommands share: argument parsing, errors, the manager's session on
// the chosen backend, Ctrl-C, progress output and the virtual backend's capture.
#ifndef QUAVIX_TOOLS_CLI_H
#define QUAVIX_TOOLS_CLI_H

#include <quavix/Quavix.h>

#include "Smf.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace qxcli {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitInterrupted = 130;

// What quavix record writes unless --format says otherwise.
constexpr const char* kRecordFormat = "48000:16:2";

// A subcommand: its name, one line for the overview, and its --help text.
struct Command {
    const char* name;
    const char* summary;
    const char* help;
    int (*run)(int argc, char** argv); // argv[0] is the subcommand's name
};
const std::vector<Command>& Commands();

// "quavix CMD: message" on stderr, one line; returns the exit status to use.
int Fail(const std::string& command, const std::string& message, int status = kExitFailure);

// Options of one subcommand, as --name VALUE, --name=VALUE or a flag. The options every
// subcommand takes (--backend, --help, --quiet, --verbose) are known to all.
class Args {
public:
    Args(std::string command, std::set<std::string> valued, std::set<std::string> flags = {});
    // False (after one line on stderr) for an unknown option or a missing value.
    bool Parse(int argc, char** argv);

    const std::string& Command() const { return m_command; }
    bool Has(const std::string& name) const { return m_values.count(name) != 0; }
    std::string Get(const std::string& name, const std::string& fallback = {}) const;
    // Every value of an option that may be given more than once, in order.
    std::vector<std::string> GetAll(const std::string& name) const;
    const std::vector<std::string>& Positional() const { return m_positional; }

    // Checked conversions; each reports a bad value itself and leaves out unchanged.
    bool GetInt(const std::string& name, int& out, int lo, int hi) const;
    bool GetDouble(const std::string& name, double& out, double lo, double hi) const;

    bool Help() const { return Has("help"); }
    bool Quiet() const { return Has("quiet"); }

private:
    std::string m_command;
    std::set<std::string> m_valued;
    std::set<std::string> m_flags;
    std::map<std::string, std::string> m_values;
    std::map<std::string, std::vector<std::string>> m_all;
    std::vector<std::string> m_positional;
};

// The checks behind Args::GetInt and GetDouble, for values that come from elsewhere:
// decimal only, within [lo, hi]; a bad value is reported as --name's, with status 2.
bool ParseInt(const std::string& command, const std::string& name, const std::string& value, int& out, int lo, int hi);
bool ParseDouble(const std::string& command, const std::string& name, const std::string& value, double& out, double lo,
                 double hi);

// Prints a subcommand's help on stdout.
int PrintHelp(const std::string& command);

// The manager on the chosen backend, initialised; closed and ended when it goes.
class Session {
public:
    Session() = default;
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Chooses the backend (--backend, else QUAVIX_BACKEND, else auto) before the
    // platform reads it, then creates and initialises the manager. beforeManager runs
    // once the backend is known and before any device is made (the place to set what
    // the backend reads from the environment); a status other than 0 stops there.
    bool Begin(const Args& args, DWORD dwFlags, const std::function<int(const Session&)>& beforeManager = {});
    int FailStatus() const { return m_status; } // the exit status when Begin failed
    CQuavix* operator->() const { return m_q; }
    CQuavix* Get() const { return m_q; }
    const std::string& Backend() const { return m_backend; }
    // The backend's name, and "(auto)" when auto chose it.
    std::string BackendText() const { return m_backend + (m_bAuto ? " (chosen by auto)" : ""); }
    bool IsVirtual() const { return m_backend == "virtual"; }
    // The sound or MIDI system a device of that kind belongs to on this backend.
    std::string SystemOf(int nType) const;

    // The device exists, else a one-line error naming what there is.
    bool CheckDevice(int nType, int nDir, int nDevice) const;
    // Disables every device but the ones listed, so that group transport touches
    // only them. Each entry is {type, direction, number}.
    void KeepOnly(std::initializer_list<std::array<int, 3>> keep);
    std::string DeviceName(int nType, int nDir, int nDevice) const;
    // The library's last report, formatted, or empty, and how many there were.
    static std::string LastReport();
    static size_t ReportCount();
    // The device server (JACK) went away: every device is dead. Its name, or empty.
    static std::string LostServer();
    // When the peer of MIDI input or output n went away (steady ns), or 0.
    static int64_t LostAt(int nDir, int nDevice);

private:
    CQuavix* m_q = nullptr;
    std::string m_backend;
    bool m_bAuto = false;
    std::string m_command;
    int m_status = kExitFailure;
};

// Ctrl-C, SIGTERM and SIGHUP only set a flag, which the command's loop reads.
void InstallSignalHandlers();
bool Interrupted();
// The exit status for the signal that stopped the command: 128 + its number (130 for
// Ctrl-C).
int InterruptedStatus();

// Sleeps in short steps until ms have passed; false at once if a signal came or the
// device server went away.
bool SleepUnlessInterrupted(int ms);

// The failure for a device server that went away while the command ran.
int FailServerLost(const std::string& command, const std::string& what);

// An output file can be written where it is to go (its folder exists and takes a new
// file, and it is no directory); else one line on stderr. Checked before anything plays.
bool CheckOutputPath(const std::string& command, const std::string& path);

// The output is none of the inputs (the same file by any name); else one line on stderr.
bool CheckNotAnInput(const std::string& command, const std::string& output, const std::vector<std::string>& inputs);
// --format RATE:BITS:CHANNELS (e.g. 48000:16:2) as a PCM format, the rate from minRate to
// 192000 Hz; false after one line on stderr (bad usage).
bool ParseFormat(const std::string& cmd, const std::string& text, unsigned minRate, QX_DevFormat& f);

// An output file written elsewhere first (by the library) and put in place at the end:
// beside the file a link leads to, renamed over it, or copied into what is no regular
// file (/dev/null). Checks the place when made; removes a temporary file left behind.
class OutputFile {
public:
    ~OutputFile();
    // False after one line on stderr (as CheckOutputPath).
    bool Prepare(const std::string& command, const std::string& path);
    const std::string& Path() const { return m_path; }
    const std::string& Temp() const { return m_temp; } // where it is written meanwhile
    // Puts what was written in place; Publish may come while it is still being written
    // (through a descriptor held open), for a regular file only: then Finish has
    // nothing left to do.
    bool CanPublishEarly() const { return !m_bInPlace; }
    bool Publish(std::string& error);
    bool Finish(std::string& error);

private:
    std::string m_path, m_target, m_temp;
    bool m_bInPlace = false;
};

// One line that rewrites itself on a terminal; plain lines now and then otherwise.
class Progress {
public:
    explicit Progress(bool bQuiet);
    void Update(const std::string& line, bool bForce = false);
    void Finish(); // ends the live line, if any
    bool Terminal() const { return m_bTty; }

private:
    bool m_bQuiet;
    bool m_bTty;
    bool m_bOpen = false;
    int64_t m_lastPlainNs = 0;
};

std::string FormatTime(double ms); // m:ss.t
std::string Bar(double fraction, int width);

// What virtual MIDI outputs emitted, gathered as the run goes so that the backend's
// log never fills.
class VirtualLog {
public:
    struct Entry {
        int64_t timeNs;
        int64_t dueNs; // 0 for a message sent at once
        std::vector<BYTE> bytes;
    };
    explicit VirtualLog(int nOutput) : m_nOutput(nOutput) {}
    void Drain();
    const std::vector<Entry>& Entries() const { return m_entries; }
    void Clear() { m_entries.clear(); }
    // Writes the messages from index `from` on as a Standard MIDI File with millisecond
    // ticks, times counted from originNs (emission times, or due times where bDue).
    bool Write(const std::string& path, int64_t originNs, bool bDue, size_t from, std::string& error) const;

private:
    int m_nOutput;
    std::vector<Entry> m_entries;
};

// Parses --capture-times (emitted or due); false after reporting a bad value.
bool CaptureUsesDue(const Args& args, bool& bDue);

// Feeds a file's messages into a virtual MIDI input at their times, on a thread of its
// own, as if they arrived from outside.
class Injector {
public:
    ~Injector() { Stop(); }
    // Message times count from the moment Start is called.
    void Start(int nInput, std::vector<qxsmf::Message> messages);
    void Stop();
    int64_t StartNs() const { return m_startNs; }
    bool Done() const { return m_bDone.load(); }
    size_t Sent() const { return m_nSent.load(); }

private:
    std::thread m_thread;
    std::atomic<bool> m_bQuit{false};
    std::atomic<bool> m_bDone{false};
    std::atomic<size_t> m_nSent{0};
    int64_t m_startNs = 0;
};

// Reads a Standard MIDI File and merges it for playing; false after one line that names
// the file.
bool LoadSong(const std::string& command, const std::string& path, double scale, qxsmf::File& file,
              qxsmf::Timeline& timeline);

// Reads and checks a file for --inject: only on the virtual backend.
bool LoadInjection(const Args& args, const Session& session, std::vector<qxsmf::Message>& messages);

// Packs a short message into the library's word: status, data 1 << 8, data 2 << 16.
DWORD PackShort(const std::vector<uint8_t>& bytes);
std::vector<uint8_t> UnpackShort(DWORD dwMsg);

} // namespace qxcli

#endif // QUAVIX_TOOLS_CLI_H
