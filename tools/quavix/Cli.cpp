#include "Cli.h"

#include "platform/backends/QXBackend.h"
#include "platform/backends/virtual/QXVirtual.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>

namespace qxcli {

namespace {

static_assert(std::atomic<int>::is_always_lock_free, "the signal handler only stores to a lock-free atomic");
std::atomic<int> g_signal{0};

std::mutex g_reportMutex;
std::string g_lastReport;
size_t g_reportCount = 0;
bool g_verbose = false;

void OnSignal(int sig)
{
    g_signal.store(sig);
}

void OnReport(DWORD dwCode, DWORD dwValue, DWORD_PTR dwDevice)
{
    std::string text;
    CQXNotify::FormatNotification(dwCode, dwValue, dwDevice, text);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    std::lock_guard<std::mutex> lock(g_reportMutex);
    g_lastReport = text;
    ++g_reportCount;
}

// Debug builds of the library trace every report; the program shows them on request.
void OnTrace(const char* pszLine, void*)
{
    if (g_verbose) std::fputs(pszLine, stderr);
}

const std::set<std::string> kCommonValued{"backend"};
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
        } else {
            Fail(m_command, "unknown option '--" + name + "' (see quavix " + m_command + " --help)", kExitUsage);
            return false;
        }
    }
    if (Has("backend")) {
        const std::string b = Get("backend");
        if (b != "virtual" && b != "jack" && b != "alsa" && b != "auto") {
            Fail(m_command, "--backend takes virtual, jack, alsa or auto, not '" + b + "'", kExitUsage);
            return false;
        }
    }
    g_verbose = Has("verbose");
    return true;
}

std::string Args::Get(const std::string& name, const std::string& fallback) const
{
    auto it = m_values.find(name);
    return it != m_values.end() ? it->second : fallback;
}

bool Args::GetInt(const std::string& name, int& out, int lo, int hi) const
{
    if (!Has(name)) return true;
    const std::string v = Get(name);
    char* end = nullptr;
    errno = 0;
    long n = std::strtol(v.c_str(), &end, 10);
    if (v.empty() || *end != '\0' || errno != 0 || n < lo || n > hi) {
        Fail(m_command,
             "--" + name + " takes a whole number from " + std::to_string(lo) + " to " + std::to_string(hi) +
                 ", not '" + v + "'",
             kExitUsage);
        return false;
    }
    out = static_cast<int>(n);
    return true;
}

bool Args::GetDouble(const std::string& name, double& out, double lo, double hi) const
{
    if (!Has(name)) return true;
    const std::string v = Get(name);
    char* end = nullptr;
    errno = 0;
    double d = std::strtod(v.c_str(), &end);
    if (v.empty() || *end != '\0' || errno != 0 || !std::isfinite(d) || d < lo || d > hi) {
        char range[64];
        std::snprintf(range, sizeof range, "%g to %g", lo, hi);
        Fail(m_command, "--" + name + " takes a number from " + range + ", not '" + v + "'", kExitUsage);
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
                       "  --backend NAME   virtual, jack, alsa or auto (default: $QUAVIX_BACKEND, else auto)\n"
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
    QXSetTraceProc(nullptr, nullptr);
}

bool Session::Begin(const Args& args, DWORD dwFlags)
{
    m_command = args.Command();
    std::string want;
    if (args.Has("backend")) {
        want = args.Get("backend"); // checked by Args::Parse
        // The platform reads it once, on first use, which comes after this.
        setenv("QUAVIX_BACKEND", want.c_str(), 1);
    } else if (const char* env = std::getenv("QUAVIX_BACKEND")) {
        want = env;
    }
    QXSetTraceProc(OnTrace, nullptr);
    m_backend = qxplat::SelectedBackendName();
    if (!want.empty() && want != "auto" && want != m_backend) {
        Fail(m_command, "the " + want + " backend is not available here (--backend auto chooses one that is)");
        return false;
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

bool Session::CheckDevice(int nType, int nDir, int nDevice) const
{
    const int n = m_q->GetDeviceCount(nType, nDir);
    if (nDevice >= 0 && nDevice < n) return true;
    std::string what = std::string(nType == QX_DEVTYPE_MIDI ? "MIDI " : "wave ") + (nDir == QX_DEVDIR_IN ? "input" : "output");
    std::string have = n == 0 ? "there is none" : n == 1 ? "there is only " + what + " 0"
                                                         : "there are " + what + "s 0 to " + std::to_string(n - 1);
    Fail(m_command, "no " + what + " " + std::to_string(nDevice) + " on the " + m_backend + " backend: " + have +
                        " (quavix devices lists them)");
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

std::string Session::DeviceName(int nType, int nDir, int nDevice) const
{
    QX_DevCaps caps{};
    if (!m_q->GetDeviceCaps(nType, nDir, nDevice, &caps)) return "?";
    const char* name = nType == QX_DEVTYPE_MIDI ? (nDir == QX_DEVDIR_IN ? caps.midiIn.szPname : caps.midiOut.szPname)
                                                 : caps.waveIn.szPname;
    return std::string(name, strnlen(name, MAXPNAMELEN));
}

void InstallSignalHandlers()
{
    struct sigaction sa {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool Interrupted()
{
    return g_signal.load() != 0;
}

bool SleepUnlessInterrupted(int ms)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!Interrupted()) {
        const auto now = std::chrono::steady_clock::now();
        if (now >= until) return true;
        std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(until - now, std::chrono::milliseconds(20)));
    }
    return false;
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
    std::string error;
    if (!qxsmf::Read(args.Get("inject"), file, error) || !qxsmf::BuildTimeline(file, 1.0, timeline, error)) {
        Fail(args.Command(), error);
        return false;
    }
    messages = std::move(timeline.messages);
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
