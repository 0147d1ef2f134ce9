#include "Cli.h"

#include "platform/QXFaults.h"
#include "platform/backends/QXBackend.h"
#include "platform/backends/synth/QXSynth.h"
#include "platform/backends/virtual/QXVirtual.h"
#include "platform/kernel/QXClock.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace qxcli {

namespace {

static_assert(std::atomic<int>::is_always_lock_free, "the signal handler only stores to a lock-free atomic");
std::atomic<int> g_signal{0};

std::mutex g_reportMutex; // the report state below
std::string g_lastReport;
size_t g_reportCount = 0;
std::string g_lostServer;
std::map<std::pair<int, int>, int64_t> g_lostDevices; // {direction, number}: when
std::atomic<bool> g_serverLost{false};
std::atomic<bool> g_verbose{false};
std::atomic<bool> g_ended{false}; // the manager is gone: reports now come only from teardown

// Debug builds trace each report just before the callback gets it, on the same thread:
// the callback leaves out what was traced already.
thread_local std::string t_lastTrace;

void OnSignal(int sig)
{
    g_signal.store(sig);
}

// Reports come from any of the library's threads and from the backend's own.
void OnReport(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    std::string text;
    CQXNotify::FormatNotification(dwCode, dwValue, dwDevice, text);
    if (g_verbose.load() && text != t_lastTrace) std::fputs(text.c_str(), stderr);
    t_lastTrace.clear();
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    std::lock_guard<std::mutex> lock(g_reportMutex);
    g_lastReport = text;
    ++g_reportCount;
    if (dwCode == QXN_SERVER_LOST) {
        const char* name = reinterpret_cast<const char*>(dwDevice);
        g_lostServer = name != nullptr && *name != '\0' ? name : "device";
        g_serverLost.store(true);
    } else if (dwCode == QXN_MIDIIN_LOST || dwCode == QXN_MIDIOUT_LOST) {
        const int dir = dwCode == QXN_MIDIIN_LOST ? QX_DEVDIR_IN : QX_DEVDIR_OUT;
        g_lostDevices.emplace(std::make_pair(dir, static_cast<int>(dwDevice)), qxplat::NowNs());
    }
}

// The library's diagnostic lines (debug builds only), shown on request.
void OnTrace(const char* pszLine, void*)
{
    if (!g_verbose.load()) return;
    std::fputs(pszLine, stderr);
    if (!g_ended.load()) t_lastTrace = pszLine; // at exit the thread's own copy may be gone
}

// Decimal only, as people write numbers: no hexadecimal, exponents, "inf" or spaces.
bool IsDecimal(const std::string& v, bool bFraction)
{
    size_t i = v.size() > 1 && v[0] == '-' ? 1 : 0, digits = 0, points = 0;
    for (; i < v.size(); ++i) {
        if (std::isdigit(static_cast<unsigned char>(v[i])))
            ++digits;
        else if (v[i] == '.' && bFraction && points == 0)
            ++points;
        else
            return false;
    }
    return digits > 0;
}

const std::set<std::string> kCommonValued{"backend"};
const std::set<std::string> kBackends{"virtual", "jack", "pulse", "alsa", "auto"};
const char* const kBackendList = "virtual, jack, pulse, alsa or auto";

// The backends this program was built with, and the package each other one needs.
const char* MissingPackage(const std::string& backend)
{
#ifndef QUAVIX_HAVE_JACK
    if (backend == "jack") return "libjack-jackd2-dev";
#endif
#ifndef QUAVIX_HAVE_ALSA
    if (backend == "alsa" || backend == "pulse") return "libasound2-dev";
#endif
#ifndef QUAVIX_HAVE_PULSE
    if (backend == "pulse") return "libpulse-dev";
#endif
    (void)backend;
    return nullptr;
}
const std::set<std::string> kCommonFlags{"help", "quiet", "verbose"};

} // namespace

int Fail(const std::string& command, const std::string& message, int status)
{
    std::string line = "quavix";
    if (!command.empty()) line += " " + command;
    line += ": " + message;
    // One line, whatever the message carried.
    std::replace(line.begin(), line.end(), '\n', ' ');
    std::fprintf(stderr, "%s\n", line.c_str());
    return status;
}

Args::Args(std::string command, std::set<std::string> valued, std::set<std::string> flags)
    : m_command(std::move(command)), m_valued(std::move(valued)), m_flags(std::move(flags))
{
    m_valued.insert(kCommonValued.begin(), kCommonValued.end());
    m_flags.insert(kCommonFlags.begin(), kCommonFlags.end());
}

bool Args::Parse(int argc, char** argv)
{
    bool bOptions = true;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (!bOptions || a.size() < 2 || a[0] != '-') {
            m_positional.push_back(a);
            continue;
        }
        if (a == "--") {
            bOptions = false;
            continue;
        }
        std::string name, value;
        bool bInline = false;
        if (a == "-h") {
            name = "help";
        } else if (a == "-q") {
            name = "quiet";
        } else if (a == "-v") {
            name = "verbose";
        } else if (a.rfind("--", 0) == 0) {
            name = a.substr(2);
            size_t eq = name.find('=');
            if (eq != std::string::npos) {
                value = name.substr(eq + 1);
                name.resize(eq);
                bInline = true;
            }
        } else {
            Fail(m_command, "unknown option '" + a + "' (see quavix " + m_command + " --help)", kExitUsage);
            return false;
        }
        if (m_flags.count(name) != 0) {
            if (bInline) {
                Fail(m_command, std::string("--").append(name).append(" takes no value"), kExitUsage);
                return false;
            }
            m_values[name].assign(1, '1'); // not = "1": GCC 12 warns falsely (-Wrestrict) at -O2
        } else if (m_valued.count(name) != 0) {
            if (!bInline) {
                if (i + 1 >= argc) {
                    Fail(m_command, "--" + name + " needs a value", kExitUsage);
                    return false;
                }
                value = argv[++i];
            }
            m_values[name] = value;
            m_all[name].push_back(value);
        } else {
            Fail(m_command, "unknown option '--" + name + "' (see quavix " + m_command + " --help)", kExitUsage);
            return false;
        }
    }
    if (Has("backend")) {
        const std::string b = Get("backend");
        if (kBackends.count(b) == 0) {
            Fail(m_command, std::string("--backend takes ") + kBackendList + ", not '" + b + "'", kExitUsage);
            return false;
        }
    }
    g_verbose.store(Has("verbose"));
    return true;
}

std::string Args::Get(const std::string& name, const std::string& fallback) const
{
    auto it = m_values.find(name);
    return it != m_values.end() ? it->second : fallback;
}

std::vector<std::string> Args::GetAll(const std::string& name) const
{
    auto it = m_all.find(name);
    return it != m_all.end() ? it->second : std::vector<std::string>{};
}

bool Args::GetInt(const std::string& name, int& out, int lo, int hi) const
{
    return !Has(name) || ParseInt(m_command, name, Get(name), out, lo, hi);
}

bool Args::GetDouble(const std::string& name, double& out, double lo, double hi) const
{
    return !Has(name) || ParseDouble(m_command, name, Get(name), out, lo, hi);
}

bool ParseInt(const std::string& command, const std::string& name, const std::string& v, int& out, int lo, int hi)
{
    char* end = nullptr;
    errno = 0;
    long n = std::strtol(v.c_str(), &end, 10);
    if (!IsDecimal(v, false) || *end != '\0' || errno != 0 || n < lo || n > hi) {
        Fail(command,
             "--" + name + " takes a whole number from " + std::to_string(lo) + " to " + std::to_string(hi) +
                 ", not '" + v + "'",
             kExitUsage);
        return false;
    }
    out = static_cast<int>(n);
    return true;
}

bool ParseDouble(const std::string& command, const std::string& name, const std::string& v, double& out, double lo,
                 double hi)
{
    char* end = nullptr;
    errno = 0;
    double d = std::strtod(v.c_str(), &end);
    if (!IsDecimal(v, true) || *end != '\0' || errno != 0 || !std::isfinite(d) || d < lo || d > hi) {
        char range[64];
        std::snprintf(range, sizeof range, "%g to %g", lo, hi);
        Fail(command, "--" + name + " takes a number from " + range + ", not '" + v + "'", kExitUsage);
        return false;
    }
    out = d;
    return true;
}

int PrintHelp(const std::string& command)
{
    for (const auto& c : Commands())
        if (command == c.name) {
            std::fputs(c.help, stdout);
            std::fputs("\nCommon options:\n"
                       "  --backend NAME   virtual, jack, pulse, alsa or auto (default: $QUAVIX_BACKEND, else\n"
                       "                   auto: jack if a JACK server answers, else pulse if a PulseAudio\n"
                       "                   or PipeWire server does, else alsa if it has devices, else virtual)\n"
                       "  -q, --quiet      no progress output\n"
                       "  -v, --verbose    show the library's diagnostic lines\n"
                       "  -h, --help       this help\n",
                       stdout);
            return kExitOk;
        }
    return Fail("", "unknown command '" + command + "' (see quavix --help)", kExitUsage);
}

Session::~Session()
{
    if (m_q == nullptr) return;
    m_q->CloseDevices();
    CQuavix::ExitQuavix();
    g_ended.store(true);
    // The trace stays ours until the process ends: a backend torn down at exit (the
    // sound server's connection) still reports, and only -v shows it.
}

bool Session::Begin(const Args& args, DWORD dwFlags, const std::function<int(const Session&)>& beforeManager)
{
    m_command = args.Command();
    std::string want;
    if (args.Has("backend")) {
        want = args.Get("backend"); // checked by Args::Parse
        // The platform reads it once, on first use, which comes after this.
        setenv("QUAVIX_BACKEND", want.c_str(), 1);
    } else if (const char* env = std::getenv("QUAVIX_BACKEND")) {
        want = env;
        // Checked here, before the platform reads it and goes its own way.
        if (!want.empty() && kBackends.count(want) == 0) {
            Fail(m_command, std::string("QUAVIX_BACKEND takes ") + kBackendList + ", not '" + want + "'", kExitUsage);
            m_status = kExitUsage;
            return false;
        }
    }
    // Said before the platform chooses, which would fall back to the virtual backend.
    if (const char* package = MissingPackage(want)) {
        Fail(m_command, "the " + want + " backend was not built into this quavix (it needs " + package +
                            "; install it and build again)");
        return false;
    }
    m_bAuto = want.empty() || want == "auto";
    QXSetTraceProc(OnTrace, nullptr);
    m_backend = qxplat::SelectedBackendName();
    if (!m_bAuto && want != m_backend) {
        Fail(m_command, "the " + want + " backend is not available here (--backend auto chooses one that is)");
        return false;
    }
    // For trying failure paths without hardware: QUAVIX_VIRTUAL_FAULT=midiStreamOpen[=11]
    // makes the next such platform call fail (with that result; MMSYSERR_ERROR if none).
    if (const char* fault = std::getenv("QUAVIX_VIRTUAL_FAULT"); fault != nullptr && IsVirtual()) {
        const std::string f = fault;
        const size_t eq = f.find('=');
        const DWORD result = eq == std::string::npos ? MMSYSERR_ERROR : static_cast<DWORD>(std::atoi(f.c_str() + eq + 1));
        QXFaultInject(f.substr(0, eq).c_str(), result);
    }
    if (beforeManager) {
        m_status = beforeManager(*this);
        if (m_status != kExitOk) return false;
        m_status = kExitFailure;
    }
    m_q = CQuavix::InitQuavix();
    if (m_q == nullptr) {
        Fail(m_command, "cannot create the manager (out of memory)");
        return false;
    }
    m_q->SetNotificationCallback(OnReport, 0);
    m_q->Initialize(dwFlags);
    return true;
}

std::string Session::LastReport()
{
    std::lock_guard<std::mutex> lock(g_reportMutex);
    return g_lastReport;
}

size_t Session::ReportCount()
{
    std::lock_guard<std::mutex> lock(g_reportMutex);
    return g_reportCount;
}

std::string Session::LostServer()
{
    std::lock_guard<std::mutex> lock(g_reportMutex);
    return g_lostServer;
}

int64_t Session::LostAt(int nDir, int nDevice)
{
    std::lock_guard<std::mutex> lock(g_reportMutex);
    auto it = g_lostDevices.find({nDir, nDevice});
    return it != g_lostDevices.end() ? it->second : 0;
}

bool Session::CheckDevice(int nType, int nDir, int nDevice) const
{
    const int n = m_q->GetDeviceCount(nType, nDir);
    if (nDevice >= 0 && nDevice < n) return true;
    std::string what = std::string(nType == QX_DEVTYPE_MIDI ? "MIDI " : "wave ") + (nDir == QX_DEVDIR_IN ? "input" : "output");
    std::string have = n == 0 ? "there is none" : n == 1 ? "there is only " + what + " 0"
                                                         : "there are " + what + "s 0 to " + std::to_string(n - 1);
    // Where the synth would be, say why it is not.
    const std::string noSynth = nType == QX_DEVTYPE_MIDI && nDir == QX_DEVDIR_OUT && nDevice == n
                                    ? qxplat::SynthUnavailableReason()
                                    : std::string();
    Fail(m_command, "no " + what + " " + std::to_string(nDevice) + " on the " + m_backend + " backend: " + have +
                        (noSynth.empty() ? " (quavix devices lists them)" : "; no GM synth: " + noSynth));
    return false;
}

void Session::KeepOnly(std::initializer_list<std::array<int, 3>> keep)
{
    for (int t = 0; t < 2; ++t)
        for (int d = 0; d < 2; ++d)
            for (int n = 0; n < m_q->GetDeviceCount(t, d); ++n) {
                bool bKeep = false;
                for (const auto& k : keep) bKeep = bKeep || (k[0] == t && k[1] == d && k[2] == n);
                m_q->EnableDevice(t, d, n, bKeep ? 1 : 0);
            }
}

std::string Session::SystemOf(int nType) const
{
    if (m_backend == "jack") return "JACK";
    if (m_backend == "virtual") return "virtual";
    if (nType == QX_DEVTYPE_MIDI) return "ALSA sequencer";
    return m_backend == "pulse" ? "PulseAudio" : "ALSA";
}

std::string Session::DeviceName(int nType, int nDir, int nDevice) const
{
    if (nType == QX_DEVTYPE_WAVE && nDir == QX_DEVDIR_OUT) {
        // A wave output is a DirectSound driver: its description.
        const char* description = CWaveOut::DSGetDescription(nDevice);
        return description != nullptr ? description : "?";
    }
    // The backend's whole name: the device caps keep 31 characters of it.
    const qxplat::DeviceKind kind = nType == QX_DEVTYPE_MIDI
                                        ? (nDir == QX_DEVDIR_IN ? qxplat::DeviceKind::MidiIn : qxplat::DeviceKind::MidiOut)
                                        : qxplat::DeviceKind::WaveIn;
    const std::string name = qxplat::CurrentBackend().DeviceName(kind, nDevice);
    return name.empty() ? "?" : name;
}

void InstallSignalHandlers()
{
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
}

bool Interrupted()
{
    return g_signal.load() != 0;
}

int InterruptedStatus()
{
    const int sig = g_signal.load();
    return sig != 0 ? 128 + sig : kExitInterrupted;
}

bool SleepUnlessInterrupted(int ms)
{
    const int64_t until = qxplat::NowNs() + int64_t{ms} * 1'000'000;
    while (!Interrupted() && !g_serverLost.load()) {
        const int64_t now = qxplat::NowNs();
        if (now >= until) return true;
        // A render has no Ctrl-C to wait for between its moments, and each wake-up there
        // costs a hand-over between threads.
        qxplat::ClockSleepFor(qxplat::RenderClockOn() ? until - now : std::min<int64_t>(until - now, 20'000'000));
    }
    return false;
}

int FailServerLost(const std::string& command, const std::string& what)
{
    return Fail(command, "the " + Session::LostServer() + " server went away; " + what);
}

bool CheckOutputPath(const std::string& command, const std::string& path)
{
    std::string why;
    struct stat st {};
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    if (path.empty() || path.back() == '/') {
        why = "it names a folder, not a file";
    } else if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        why = "it is a folder";
    } else if (stat(dir.c_str(), &st) != 0) {
        why = dir + ": " + std::strerror(errno);
    } else if (!S_ISDIR(st.st_mode)) {
        why = dir + " is not a folder";
    } else {
        // The file is written beside its place and renamed over it: the folder must
        // take a new file. Trying is the only check that holds for root and ACLs alike.
        const std::string probe = dir + "/.quavix-probe-" + std::to_string(getpid());
        const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        if (fd < 0) {
            why = "its folder takes no new file (" + std::string(std::strerror(errno)) + ")";
        } else {
            close(fd);
            unlink(probe.c_str());
        }
    }
    if (why.empty()) return true;
    Fail(command, "cannot write " + path + ": " + why);
    return false;
}

bool ParseFormat(const std::string& cmd, const std::string& text, unsigned minRate, QX_DevFormat& f)
{
    unsigned rate = 0, bits = 0, channels = 0;
    char end = 0;
    if (std::sscanf(text.c_str(), "%u:%u:%u%c", &rate, &bits, &channels, &end) != 3 || rate < minRate ||
        rate > 192000 || (bits != 8 && bits != 16 && bits != 24 && bits != 32) || channels < 1 || channels > 2) {
        Fail(cmd,
             "--format takes RATE:BITS:CHANNELS (" + std::to_string(minRate) +
                 " to 192000 Hz, 8, 16, 24 or 32 bits, 1 or 2 channels), not '" + text + "'",
             kExitUsage);
        return false;
    }
    f = {};
    f.wFormatTag = WAVE_FORMAT_PCM;
    f.nChannels = static_cast<WORD>(channels);
    f.nSamplesPerSec = rate;
    f.wBitsPerSample = static_cast<WORD>(bits);
    f.nBlockAlign = static_cast<WORD>(channels * bits / 8);
    f.nAvgBytesPerSec = rate * f.nBlockAlign;
    return true;
}

bool CheckNotAnInput(const std::string& command, const std::string& output, const std::vector<std::string>& inputs)
{
    struct stat out {};
    if (stat(output.c_str(), &out) != 0) return true; // a new file is no input
    for (const std::string& input : inputs) {
        struct stat in {};
        if (stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
            Fail(command, "will not write " + output + ": it is " + (input == output ? "" : input + ", ") +
                              "one of the files it reads", kExitUsage);
            return false;
        }
    }
    return true;
}

OutputFile::~OutputFile()
{
    if (!m_temp.empty()) unlink(m_temp.c_str());
}

bool OutputFile::Prepare(const std::string& command, const std::string& path)
{
    if (!CheckOutputPath(command, path)) return false;
    m_path = m_target = path;
    // As qxsmf::Write does: a link's file is replaced, not the link, and what is no
    // regular file is written as it is.
    struct stat st {};
    if (stat(path.c_str(), &st) == 0) {
        std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
        if (real) m_target = real.get();
        m_bInPlace = !S_ISREG(st.st_mode);
    }
    // Beside the real file, so that the rename stays on one file system.
    const size_t slash = m_target.rfind('/');
    const std::string dir = slash == std::string::npos ? "" : m_target.substr(0, slash + 1);
    m_temp = dir + ".quavix-" + std::to_string(getpid()) + "-" + m_target.substr(slash + 1) + ".tmp";
    return true;
}

bool OutputFile::Publish(std::string& error)
{
    if (m_bInPlace || m_temp.empty()) return m_temp.empty();
    if (std::rename(m_temp.c_str(), m_target.c_str()) != 0) {
        error = "cannot replace " + m_path + ": " + std::strerror(errno);
        return false;
    }
    m_temp.clear();
    return true;
}

bool OutputFile::Finish(std::string& error)
{
    if (m_temp.empty()) return true; // published already
    const std::string temp = std::exchange(m_temp, std::string());
    auto failed = [&](const std::string& what) {
        error = "cannot " + what + " " + m_path + ": " + std::strerror(errno);
        unlink(temp.c_str());
        return false;
    };
    if (!m_bInPlace) return std::rename(temp.c_str(), m_target.c_str()) == 0 || failed("replace");
    const int in = open(temp.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) return failed("read what was written for");
    const int out = open(m_target.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (out < 0) {
        close(in);
        return failed("write");
    }
    char buffer[65536];
    bool ok = true;
    while (ok) {
        const ssize_t n = read(in, buffer, sizeof buffer);
        if (n == 0) break;
        if (n < 0) {
            ok = errno == EINTR;
            continue;
        }
        for (ssize_t done = 0; ok && done < n;) {
            const ssize_t w = write(out, buffer + done, static_cast<size_t>(n - done));
            if (w > 0)
                done += w;
            else if (w == 0 || errno != EINTR)
                ok = false;
        }
    }
    const int saved = errno;
    close(in);
    close(out);
    errno = saved;
    if (!ok) return failed("write");
    unlink(temp.c_str());
    return true;
}

Progress::Progress(bool bQuiet) : m_bQuiet(bQuiet), m_bTty(isatty(STDOUT_FILENO) == 1) {}

void Progress::Update(const std::string& line, bool bForce)
{
    if (m_bQuiet) return;
    if (m_bTty) {
        std::printf("\r\033[K%s", line.c_str());
        std::fflush(stdout);
        m_bOpen = true;
        return;
    }
    const int64_t now = qxplat::NowNs();
    if (!bForce && m_lastPlainNs != 0 && now - m_lastPlainNs < 5'000'000'000) return;
    m_lastPlainNs = now;
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void Progress::Finish()
{
    if (m_bOpen) {
        std::printf("\n");
        std::fflush(stdout);
        m_bOpen = false;
    }
}

std::string FormatTime(double ms)
{
    if (ms < 0) ms = 0;
    const long tenths = std::lround(ms / 100.0);
    char b[32];
    std::snprintf(b, sizeof b, "%ld:%02ld.%ld", tenths / 600, (tenths / 10) % 60, tenths % 10);
    return b;
}

std::string Bar(double fraction, int width)
{
    fraction = std::clamp(fraction, 0.0, 1.0);
    const int full = static_cast<int>(std::lround(fraction * width));
    std::string bar(1, '[');
    bar.append(static_cast<size_t>(full), '#').append(static_cast<size_t>(width - full), '.').push_back(']');
    return bar;
}

void VirtualLog::Drain()
{
    for (auto& m : qxplat::QXVirtualTakeMidiOut(m_nOutput))
        m_entries.push_back({m.timeNs, m.dueNs, std::move(m.bytes)});
}

bool VirtualLog::Write(const std::string& path, int64_t originNs, bool bDue, size_t from, std::string& error) const
{
    std::vector<std::pair<uint64_t, std::vector<uint8_t>>> messages;
    for (size_t i = from; i < m_entries.size(); ++i) {
        const Entry& e = m_entries[i];
        const int64_t t = (bDue && e.dueNs != 0 ? e.dueNs : e.timeNs) - originNs;
        const uint64_t ms = t > 0 ? static_cast<uint64_t>(std::llround(static_cast<double>(t) / 1e6)) : 0;
        messages.emplace_back(ms, e.bytes);
    }
    return qxsmf::Write(path, qxsmf::FromMilliseconds(messages, "quavix capture"), error);
}

bool CaptureUsesDue(const Args& args, bool& bDue)
{
    const std::string v = args.Get("capture-times", "emitted");
    if (v != "emitted" && v != "due") {
        Fail(args.Command(), "--capture-times takes emitted or due, not '" + v + "'", kExitUsage);
        return false;
    }
    bDue = v == "due";
    return true;
}

void Injector::Start(int nInput, std::vector<qxsmf::Message> messages)
{
    Stop();
    m_bQuit = false;
    m_bDone = false;
    m_nSent = 0;
    m_startNs = qxplat::NowNs();
    m_thread = std::thread([this, nInput, messages = std::move(messages)] {
        const int64_t t0 = m_startNs;
        for (const auto& m : messages) {
            const int64_t at = t0 + static_cast<int64_t>(std::llround(m.ms * 1e6));
            for (int64_t now = qxplat::NowNs(); now < at; now = qxplat::NowNs()) {
                if (m_bQuit) return;
                std::this_thread::sleep_for(std::chrono::nanoseconds(std::min<int64_t>(at - now, 20'000'000)));
            }
            // Stamped with its own time, so the input sees the file's timing exactly.
            qxplat::QXVirtualInjectMidiIn(nInput, m.bytes.data(), m.bytes.size(), at);
            ++m_nSent;
        }
        m_bDone = true;
    });
}

void Injector::Stop()
{
    m_bQuit = true;
    if (m_thread.joinable()) m_thread.join();
}

bool LoadInjection(const Args& args, const Session& session, std::vector<qxsmf::Message>& messages)
{
    messages.clear();
    if (!args.Has("inject")) return true;
    if (!session.IsVirtual()) {
        Fail(args.Command(), "--inject feeds a virtual MIDI input: it needs the virtual backend", kExitUsage);
        return false;
    }
    qxsmf::File file;
    qxsmf::Timeline timeline;
    if (!LoadSong(args.Command(), args.Get("inject"), 1.0, file, timeline)) return false;
    messages = std::move(timeline.messages);
    return true;
}

bool LoadSong(const std::string& command, const std::string& path, double scale, qxsmf::File& file,
              qxsmf::Timeline& timeline)
{
    std::string error;
    if (!qxsmf::Read(path, file, error)) { // its errors name the file
        Fail(command, error);
        return false;
    }
    if (!qxsmf::BuildTimeline(file, scale, timeline, error)) {
        Fail(command, path + ": " + error);
        return false;
    }
    return true;
}

DWORD PackShort(const std::vector<uint8_t>& bytes)
{
    DWORD dw = 0;
    for (size_t i = 0; i < bytes.size() && i < 3; ++i) dw |= DWORD{bytes[i]} << (8 * i);
    return dw;
}

std::vector<uint8_t> UnpackShort(DWORD dwMsg)
{
    const auto status = static_cast<uint8_t>(dwMsg);
    size_t n = qxsmf::ShortLength(status);
    if (n == 0) n = 1;
    std::vector<uint8_t> out;
    for (size_t i = 0; i < n; ++i) out.push_back(static_cast<uint8_t>(dwMsg >> (8 * i)));
    return out;
}

} // namespace qxcli
